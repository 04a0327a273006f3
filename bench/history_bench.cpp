// The history capture: appending to a full ring beside a bare copy, the effect of a search on packets, and a
// search over a gigabyte beside a bare walk and a capture-file filter of the same packets.

#include "history_capture/packet_path.h"
#include "storage/pcap_writer.h"
#include "support/test_host.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t RING_SIZE = uint64_t{1} << 30;
const uint8_t packet_bytes[HC_MAX_DATA] = {0};

ip_addr_t address(uint32_t number)
{
    uint8_t bytes[4];
    std::memcpy(bytes, &number, sizeof bytes);
    return ip_addr_from_ipv4(bytes);
}

// Lengths of mixed traffic from a short fixed sequence: many small, many full, some between.
uint32_t mixed_length(uint32_t n)
{
    static constexpr uint32_t lengths[] = {64, 1500, 64, 590, 1500, 128, 1500, 64, 256, 1500, 64, 900};
    return lengths[(n * 2654435761U >> 8) % std::size(lengths)];
}

// Addresses of packet n: many hosts, none of them below 0x0a000000.
ip_addr_t source_of(uint32_t n)
{
    return address(0x0a000000 + n * 2654435761U % 5000);
}

void put(history_capture_t *hc, uint32_t n, uint32_t length)
{
    const ip_addr_t src = source_of(n);
    const ip_addr_t dst = source_of(n + 7);
    benchmark::DoNotOptimize(hc_enqueue(hc, &src, &dst, packet_bytes, length, n));
}

void fill(history_capture_t *hc)
{
    const uint32_t dropped = 50000;
    for (uint32_t n = 0, at_full = UINT32_MAX; n < at_full; n++) {
        const uint32_t before = hc->packets;
        put(hc, n, mixed_length(n));
        if (at_full == UINT32_MAX && hc->packets <= before) {
            at_full = n + dropped; // full: go on a little, so that it has wrapped
        }
    }
}

void EnqueueIntoFullRing(benchmark::State &state)
{
    const auto length = static_cast<uint32_t>(state.range(0));
    history_capture_t *hc = hc_init(RING_SIZE);
    for (uint64_t n = 0; n < RING_SIZE / (length + HC_RECORD_HEADER) + 1000; n++) {
        put(hc, static_cast<uint32_t>(n), length);
    }
    uint32_t n = 0;
    for (auto _ : state) {
        put(hc, n++, length);
    }
    hc_destroy(hc);
}
BENCHMARK(EnqueueIntoFullRing)->Arg(64)->Arg(512)->Arg(1500);

// The floor: copies a header and the data at the same stride, and first reads the
// length of what it overwrites.
void BareCopy(benchmark::State &state)
{
    const auto length = static_cast<uint64_t>(state.range(0));
    const uint64_t stride = length + HC_RECORD_HEADER;
    auto *ring = static_cast<uint8_t *>(
        mmap(nullptr, RING_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    madvise(ring, RING_SIZE, MADV_HUGEPAGE);
    std::memset(ring, 1, RING_SIZE);
    uint8_t header[HC_RECORD_HEADER] = {0};
    uint64_t at = 0;
    uint64_t lengths = 0;
    for (auto _ : state) {
        uint16_t overwritten;
        std::memcpy(&overwritten, ring + at + 16, sizeof overwritten);
        lengths += overwritten;
        std::memcpy(ring + at, header, sizeof header);
        std::memcpy(ring + at + HC_RECORD_HEADER, packet_bytes, length);
        benchmark::ClobberMemory();
        at = at + 2 * stride <= RING_SIZE ? at + stride : 0;
    }
    benchmark::DoNotOptimize(lengths);
    munmap(ring, RING_SIZE);
}
BENCHMARK(BareCopy)->Arg(64)->Arg(512)->Arg(1500);

// Filling a fresh ring for the first time while its thread populates it.
void FirstFill(benchmark::State &state)
{
    const uint64_t size = uint64_t{256} << 20;
    const uint64_t count = size / (512 + HC_RECORD_HEADER) - 1;
    for (auto _ : state) {
        state.PauseTiming();
        history_capture_t *hc = hc_init(size);
        state.ResumeTiming();
        for (uint64_t n = 0; n < count; n++) {
            put(hc, static_cast<uint32_t>(n), 512);
        }
        state.PauseTiming();
        hc_destroy(hc);
        state.ResumeTiming();
    }
    state.counters["ns_a_packet"] =
        benchmark::Counter(static_cast<double>(count) * 1e-9,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(FirstFill)->Unit(benchmark::kMillisecond)->Iterations(3);

// A ring for all searches, filled once.
history_capture_t *filled_ring()
{
    static history_capture_t *hc = [] {
        history_capture_t *ring = hc_init(RING_SIZE);
        ring->search_pause_ms = 0;
        fill(ring);
        return ring;
    }();
    return hc;
}

// Add rules for `count` addresses that match nothing.
void add_rules(history_capture_t *hc, int count)
{
    const char *path = "/dev/shm/kestrune-bench-rule";
    rwlock_read(&hc->state_lock);          // one run for all of them
    for (uint32_t n = 0; count > 0; n++) { // skips an address whose row is full
        const ip_addr_t ip = address(0x01000000 + n * 977);
        std::remove(path);
        count -= hc_add_rule(hc, &ip, BOTH, path) == HC_OK ? 1 : 0;
    }
    std::remove(path);
    rwlock_read_unlock(&hc->state_lock);
}

// Seconds and records of the last logged run.
bool last_run(double *seconds, uint32_t *records)
{
    for (const test_host::message_t &message : test_host::messages()) {
        unsigned rules = 0;
        unsigned captured = 0;
        if (std::sscanf(message.text.c_str(),
                        "kestrune: Fast search - rules %u, packets readed %u, packets captured %u, Time of "
                        "searching: %lf s",
                        &rules, records, &captured, seconds) == 4) {
            return true;
        }
    }
    return false;
}

void Search(benchmark::State &state)
{
    history_capture_t *hc = filled_ring();
    uint32_t records = 0;
    double seconds = 0;
    for (auto _ : state) {
        test_host::reset();
        add_rules(hc, static_cast<int>(state.range(0)));
        wait_until([&] { return last_run(&seconds, &records); }, 60000);
        state.SetIterationTime(seconds);
    }
    state.counters["ns_a_record"] = seconds * 1e9 / records;
    state.counters["GB_a_second"] = static_cast<double>(RING_SIZE) / seconds * 1e-9;
}
BENCHMARK(Search)->ArgName("rules")->Arg(1)->Arg(500)->UseManualTime()->Unit(benchmark::kMillisecond);

// The floor of a search: finds the next record by reading each record's length.
void BareWalk(benchmark::State &state)
{
    history_capture_t *hc = filled_ring();
    uint32_t records = 0;
    for (auto _ : state) {
        records = 0;
        uint64_t p = 0;
        for (p = 0; p + HC_RECORD_HEADER <= hc->last;) {
            uint16_t length;
            std::memcpy(&length, hc->buffer + p + 16, sizeof length);
            p += HC_RECORD_HEADER + length;
            records++;
        }
        for (p = hc->first; p + HC_RECORD_HEADER <= hc->size;) {
            uint16_t length;
            std::memcpy(&length, hc->buffer + p + 16, sizeof length);
            p += HC_RECORD_HEADER + length;
            records++;
        }
        benchmark::DoNotOptimize(p);
    }
    state.counters["ns_a_record"] = benchmark::Counter(
        records * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BareWalk)->Unit(benchmark::kMillisecond);

// The same packets in a capture file in memory, filtered for one host by a whole tcpdump
// process: CPU seconds.
void CaptureFileFilter(benchmark::State &state)
{
    const char *path = "/dev/shm/kestrune-bench.pcap";
    const uint32_t records = filled_ring()->packets;
    std::remove(path);
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    std::vector<uint8_t> frame(1600, 0);
    frame[12] = 8; // Ethernet, IPv4
    frame[14] = 0x45;
    bool good = write_pcap_header(fd) == 0;
    for (uint32_t n = 0; n < records && good; n++) {
        const uint32_t source = 0x0a000000 + n % 5000;
        std::memcpy(frame.data() + 26, &source, 4);
        good = write_pcap_packet(fd, frame.data(), mixed_length(n), n) == 0;
    }
    close(fd);
    if (!good) {
        state.SkipWithError("no room for the file");
    }
    const std::string command =
        std::string("tcpdump -r ") + path + " -w /dev/null host 1.2.3.4 2>/dev/null >/dev/null";
    for (auto _ : state) {
        rusage before = {};
        rusage after = {};
        getrusage(RUSAGE_CHILDREN, &before);
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("tcpdump is missing");
            break;
        }
        getrusage(RUSAGE_CHILDREN, &after);
        const auto seconds = [](const timeval &t) {
            return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
        };
        state.SetIterationTime(seconds(after.ru_utime) + seconds(after.ru_stime) - seconds(before.ru_utime) -
                               seconds(before.ru_stime));
    }
    state.counters["ns_a_record"] = benchmark::Counter(
        records * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    std::remove(path);
}
BENCHMARK(CaptureFileFilter)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(2);

// Time of each append, paced at 2 microseconds, without and with runs that walk the ring continuously.
void AppendLatency(benchmark::State &state)
{
    history_capture_t *hc = filled_ring();
    const bool searching = state.range(0) != 0;
    std::atomic<bool> stop{false};
    std::thread rules([&] {
        while (searching && !stop) {
            test_host::reset();
            add_rules(hc, 1);
            double seconds = 0;
            uint32_t records = 0;
            wait_until([&] { return stop || last_run(&seconds, &records); }, 60000);
        }
    });
    std::vector<int64_t> nanoseconds;
    uint32_t n = 0;
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        put(hc, n, mixed_length(n));
        nanoseconds.push_back((std::chrono::steady_clock::now() - begin).count());
        n++;
        while (std::chrono::steady_clock::now() - begin < std::chrono::microseconds(2)) {
        }
    }
    stop = true;
    rules.join();
    std::sort(nanoseconds.begin(), nanoseconds.end());
    const auto at = [&](double share) {
        return static_cast<double>(
            nanoseconds[static_cast<size_t>(share * static_cast<double>(nanoseconds.size() - 1))]);
    };
    state.counters["p50_ns"] = at(0.5);
    state.counters["p99.9_ns"] = at(0.999);
    state.counters["max_ns"] = at(1);
}
BENCHMARK(AppendLatency)->ArgName("searching")->Arg(0)->Arg(1)->Iterations(1000000);

} // namespace

BENCHMARK_MAIN();
