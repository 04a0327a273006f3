// The cost of a packet in the probe, from memory on one queue: parsing, flow look-up and
// hand-over to an update function that does nothing. The packets are those of a real
// capture, repeated with rising timestamps.
#include "probe/capture_file.h"
#include "probe/packet_queue.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

namespace {

struct stored_t {
    std::vector<uint8_t> bytes;
    uint64_t timestamp_ns;
};

std::vector<stored_t> load(const char *path)
{
    probe::capture_file_t file(path);
    std::vector<stored_t> packets;
    probe::captured_t captured = {};
    while (file.next(&captured) == probe::capture_file_t::result_t::PACKET) {
        packets.push_back({{captured.data, captured.data + captured.size}, captured.timestamp_ns});
    }
    return packets;
}

void update_nothing(void *instance, const host_flow_t *flow, const host_packet_t *packet)
{
    benchmark::DoNotOptimize(instance);
    benchmark::DoNotOptimize(flow);
    benchmark::DoNotOptimize(packet);
}

void per_packet(benchmark::State &state, benchmark::IterationCount packets)
{
    state.counters["per_packet"] =
        benchmark::Counter(static_cast<double>(packets),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert); // seconds
    state.SetItemsProcessed(packets);
}

void parse_and_hand_on(benchmark::State &state)
{
    const std::vector<stored_t> packets = load(KESTRUNE_SOURCE_DIR "/examples/pcaps/web-dualstack-tls.pcap");
    const uint64_t pass_ns = packets.back().timestamp_ns - packets.front().timestamp_ns + 1000;
    probe::packet_queue_t queue(update_nothing, nullptr, {});
    probe::reader_counters_t counters;
    probe::frame_reader_t reader(probe::link_type_t::ETHERNET, &counters, &queue);
    uint64_t shift_ns = 0;
    while (state.KeepRunning()) {
        for (const stored_t &packet : packets) {
            reader.read(packet.bytes.data(), static_cast<uint32_t>(packet.bytes.size()),
                        packet.timestamp_ns + shift_ns);
        }
        shift_ns += pass_ns;
    }
    per_packet(state, state.iterations() * static_cast<benchmark::IterationCount>(packets.size()));
}
BENCHMARK(parse_and_hand_on);

// Flows that never repeat, in a table that is always full: each packet evicts one.
void new_flow_every_packet(benchmark::State &state)
{
    probe::flow_limits_t limits;
    limits.flow_count = 65536;
    probe::packet_queue_t queue(update_nothing, nullptr, limits);
    probe::reader_counters_t counters;
    probe::frame_reader_t reader(probe::link_type_t::ETHERNET, &counters, &queue);
    uint8_t frame[64] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0x45, 0, 0, 50, 0, 0, 0, 0, 64, 17};
    uint32_t source = 0;
    while (state.KeepRunning()) {
        source++;
        std::memcpy(frame + 26, &source, sizeof source);
        reader.read(frame, sizeof frame, source);
    }
    per_packet(state, state.iterations());
}
BENCHMARK(new_flow_every_packet);

} // namespace

BENCHMARK_MAIN();
