// The hash table's look-up of absent keys, and the pcap writer. README.md states the
// goals; ratios.py computes the ratios.
#include "append.h"
#include "storage/fhf_table.h"
#include "storage/pcap_writer.h"
#include "traffic.h"

#include <cstdio>
#include <memory>

namespace {

constexpr uint64_t ROWS = 128;

using table_ptr = std::unique_ptr<fhf_table_t, decltype(&fhf_destroy)>;

table_ptr filled_table(size_t keys)
{
    table_ptr table(fhf_init(ROWS, sizeof(ip_addr_t), 40), fhf_destroy);
    const std::array<uint8_t, 40> data = {};
    traffic::watch(keys, [&](const ip_addr_t &addr) {
        return fhf_insert(table.get(), addr.bytes, data.data()) == FHF_OK;
    });
    return table;
}

bool look_up(fhf_table_t *table, const ip_addr_t &addr)
{
    fhf_lock_t *row;
    const bool found = fhf_get_data_locked(table, addr.bytes, &row) != nullptr;
    if (found) {
        fhf_unlock(row);
    }
    return found;
}

// The model to compare with: every look-up takes its row and compares the keys in it.
bool look_up_under_lock(fhf_table_t *table, const ip_addr_t &addr)
{
    const fhf_place_t place = fhf_place_of(table, addr.bytes);
    fhf_lock_row(&table->locks[place.row]);
    bool found = false;
    for (unsigned slot = 0; slot < FHF_ROW_SLOTS && !found; slot++) {
        found = (table->free_flags[place.row] >> slot & 1) != 0 &&
                fhf_key_equal(table, place.row * FHF_ROW_SLOTS + slot, addr.bytes);
    }
    fhf_unlock(&table->locks[place.row]);
    return found;
}

table_ptr shared_table(nullptr, fhf_destroy);

// Both addresses of every packet; range(0) keys are stored. The threads share one table, or each has its own.
template <bool (*LOOK_UP)(fhf_table_t *, const ip_addr_t &), bool SHARED>
void absent_keys(benchmark::State &state)
{
    const auto keys = static_cast<size_t>(state.range(0));
    const std::vector<traffic::ends_t> packets = traffic::unwatched_packets();
    table_ptr own(nullptr, fhf_destroy);
    if (!SHARED) {
        own = filled_table(keys);
    } else if (state.thread_index() == 0) {
        shared_table = filled_table(keys);
    }
    for (auto _ : state) { // all threads begin together
        fhf_table_t *table = SHARED ? shared_table.get() : own.get();
        for (const traffic::ends_t &packet : packets) {
            benchmark::DoNotOptimize(LOOK_UP(table, packet.src));
            benchmark::DoNotOptimize(LOOK_UP(table, packet.dst));
        }
    }
    state.counters["each"] =
        traffic::time_each(static_cast<double>(state.iterations() * 2 * traffic::PACKETS));
}

void key_counts(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("keys")->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Threads(1)->Threads(2);
}

void host_counts(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("hosts")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("bytes")->Arg(64)->Arg(512)->Arg(1500);
}

void write_packets(benchmark::State &state)
{
    const auto length = static_cast<uint32_t>(state.range(0));
    const std::vector<uint8_t> data(length);
    const std::string path = append::scratch("writer");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    append::cut(fd);
    append::batches(state, fd,
                    [&] { return write_pcap_packet(fd, data.data(), length, 1'000'000'002) == 0; });
    close(fd);
    unlink(path.c_str());
}

// libpcap's writer, which buffers records; every batch ends with a flush.
void dump_packets(benchmark::State &state)
{
    const auto length = static_cast<uint32_t>(state.range(0));
    const std::vector<uint8_t> data(length);
    const std::string path = append::scratch("dump");
    pcap_t *pcap = pcap_open_dead_with_tstamp_precision(DLT_EN10MB, 65535, PCAP_TSTAMP_PRECISION_NANO);
    pcap_dumper_t *dumper = pcap_dump_open(pcap, path.c_str());
    const pcap_pkthdr header = {{1, 2}, length, length};
    int left = append::BATCH;
    append::batches(state, fileno(pcap_dump_file(dumper)), [&] {
        pcap_dump(reinterpret_cast<u_char *>(dumper), &header, data.data());
        if (--left > 0) {
            return true;
        }
        left = append::BATCH;
        return pcap_dump_flush(dumper) == 0;
    });
    pcap_dump_close(dumper);
    pcap_close(pcap);
    unlink(path.c_str());
}

BENCHMARK(absent_keys<look_up, true>)->Name("look_up/shared")->Apply(key_counts);
BENCHMARK(absent_keys<look_up, false>)->Name("look_up/own")->Apply(key_counts);
BENCHMARK(absent_keys<look_up_under_lock, true>)->Name("look_up/always_locked")->Apply(key_counts);
BENCHMARK(traffic::bpf_filter)->Name("bpf_filter")->Apply(host_counts);
BENCHMARK(write_packets)->Name("write/pcap_writer")->Apply(sizes);
BENCHMARK(append::bare)->Name("write/bare_calls")->Apply(sizes);
BENCHMARK(dump_packets)->Name("write/pcap_dump")->Apply(sizes);

} // namespace

BENCHMARK_MAIN();
