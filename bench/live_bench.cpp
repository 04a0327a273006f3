// The packet path with the live capture: unwatched packets, and packets that are written. README.md states
// the goals; ratios.py computes the ratios.
#include "append.h"
#include "common/memory.h"
#include "live_capture/packet_path.h"
#include "plugin/plugin.h"
#include "support/test_host.h"
#include "traffic.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

using live_ptr = std::unique_ptr<live_capture_t, decltype(&lc_destroy)>;
using history_ptr = std::unique_ptr<history_capture_t, decltype(&hc_destroy)>;

constexpr uint32_t NO_LIMIT = UINT32_MAX;

// Watch the address, with an unlinked file.
int add(live_capture_t *live, const ip_addr_t &addr)
{
    static std::atomic<uint64_t> files{0};
    const std::string path = append::scratch(std::to_string(files.fetch_add(1)));
    const int result = lc_add_rule(live, &addr, BOTH, NO_LIMIT, NO_LIMIT, path.c_str());
    unlink(path.c_str());
    if (result != LC_OK && result != LC_NOT_TAKEN) {
        std::perror(path.c_str());
        std::exit(1);
    }
    return result;
}

live_ptr watching(size_t addresses)
{
    live_ptr live(lc_init(), lc_destroy);
    traffic::watch(addresses, [&](const ip_addr_t &addr) { return add(live.get(), addr) == LC_OK; });
    return live;
}

// The host's records of a batch of packets.
class host_packets_t {
public:
    explicit host_packets_t(const std::vector<traffic::ends_t> &ends, const uint8_t *data, uint16_t length)
        : headers_(ends.size()), packets_(ends.size())
    {
        for (size_t i = 0; i < ends.size(); i++) {
            headers_[i].timestamp = i;
            headers_[i].ip_version = 4;
            std::memcpy(headers_[i].addr.ipv4.src, ends[i].src.bytes + 4, 4);
            std::memcpy(headers_[i].addr.ipv4.dst, ends[i].dst.bytes + 4, 4);
            packets_[i].header = &headers_[i];
            packets_[i].data = data;
            packets_[i].length = length;
        }
    }
    [[nodiscard]] const std::vector<host_packet_t> &packets() const { return packets_; }

private:
    std::vector<host_header_t> headers_;
    std::vector<host_packet_t> packets_;
};

const uint8_t bytes[1500] = {};
live_ptr shared_live(nullptr, lc_destroy);

// Every thread is a queue with its history off; range(0) addresses are watched. The queues
// share one live capture, or each has its own.
template <bool SHARED>
void unwatched(benchmark::State &state)
{
    const auto addresses = static_cast<size_t>(state.range(0));
    const host_packets_t batch(traffic::unwatched_packets(), bytes, traffic::FRAME_SIZE);
    const history_ptr history(hc_init(0), hc_destroy);
    live_ptr own(nullptr, lc_destroy);
    if (!SHARED) {
        own = watching(addresses);
    } else if (state.thread_index() == 0) {
        shared_live = watching(addresses);
    }
    const host_flow_t flow = {};
    for (auto _ : state) { // all threads begin together
        plugin_instance_t instance = {SHARED ? shared_live.get() : own.get(), history.get()};
        for (const host_packet_t &packet : batch.packets()) {
            plugin_process_update(&instance, &flow, &packet);
        }
    }
    state.counters["each"] = traffic::time_each(static_cast<double>(state.iterations() * traffic::PACKETS));
}

alignas(CACHE_LINES) std::atomic<uint64_t> shared_line[CACHE_LINES / sizeof(uint64_t)];

// A fixed cost to compare with: two readings of the clock, two hashes and two reads of a line that the queues
// share. An unwatched packet hashes and reads as often, but does not read the clock.
void unwatched_floor(benchmark::State &state)
{
    const host_packets_t batch(traffic::unwatched_packets(), bytes, traffic::FRAME_SIZE);
    const auto side = [](const uint8_t address[4]) {
        const ip_addr_t key = ip_addr_from_ipv4(address);
        const uint64_t hash = fhf_hash_16(key.bytes, 1);
        benchmark::DoNotOptimize(shared_line[hash % std::size(shared_line)].load(std::memory_order_relaxed));
        benchmark::DoNotOptimize(time(nullptr));
    };
    for (auto _ : state) {
        for (const host_packet_t &packet : batch.packets()) {
            side(packet.header->addr.ipv4.src);
            side(packet.header->addr.ipv4.dst);
        }
    }
    state.counters["each"] = traffic::time_each(static_cast<double>(state.iterations() * traffic::PACKETS));
}

// One queue's packets to a watched address, of range(0) bytes.
void watched(benchmark::State &state)
{
    const live_ptr live(lc_init(), lc_destroy);
    const history_ptr history(hc_init(0), hc_destroy);
    const ip_addr_t addr = traffic::address(0x0a000001);
    fhf_lock_t *row = nullptr;
    lc_item_t *item = nullptr;
    if (add(live.get(), addr) == LC_OK) {
        item = lc_find_locked(live.get(), &addr, &row);
        fhf_unlock(row); // no other thread uses the table
    }
    const host_packets_t one({{traffic::address(0xac100001), addr}}, bytes,
                             static_cast<uint16_t>(state.range(0)));
    plugin_instance_t instance = {live.get(), history.get()};
    const host_flow_t flow = {};
    append::batches(state, item != nullptr ? item->fd : -1, [&] {
        const uint32_t before = item->packets;
        plugin_process_update(&instance, &flow, one.packets().data());
        return item->packets == before + 1;
    });
}

// tcpdump as a separate process over a file of the unwatched packets, with a filter of range(0) hosts.
class tcpdump_t {
public:
    static constexpr size_t COUNT = size_t{1} << 20; // packets

    explicit tcpdump_t(size_t hosts)
    {
        const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ready_ = fd >= 0 && write_pcap_header(fd) == 0;
        for (const traffic::frame_t &frame : traffic::frames_of(traffic::unwatched_packets(COUNT))) {
            ready_ = ready_ && write_pcap_packet(fd, frame.data(), traffic::FRAME_SIZE, 1) == 0;
        }
        close(fd);
        FILE *filter = std::fopen(filter_.c_str(), "w");
        const auto watched = traffic::watch(hosts, [](const ip_addr_t &) { return true; });
        ready_ = ready_ && filter != nullptr &&
                 std::fputs(traffic::filter_text(watched).c_str(), filter) >= 0 && std::fclose(filter) == 0;
    }
    ~tcpdump_t()
    {
        unlink(file_.c_str());
        unlink(filter_.c_str());
    }
    tcpdump_t(const tcpdump_t &) = delete;
    tcpdump_t &operator=(const tcpdump_t &) = delete;

    // Processor seconds of one run; below 0: it failed.
    double run()
    {
        char *arguments[] = {name_.data(),       no_names_.data(), read_.data(), file_.data(),
                             use_filter_.data(), filter_.data(),   nullptr};
        posix_spawn_file_actions_t quiet;
        posix_spawn_file_actions_init(&quiet);
        posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        pid_t child;
        const bool started =
            ready_ && posix_spawnp(&child, name_.c_str(), &quiet, nullptr, arguments, environ) == 0;
        posix_spawn_file_actions_destroy(&quiet);
        int status = 0;
        rusage usage = {};
        if (!started || wait4(child, &status, 0, &usage) != child || status != 0) {
            return -1;
        }
        return seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }

private:
    static double seconds(const timeval &time)
    {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    }

    std::string name_ = "tcpdump";
    std::string no_names_ = "-n";
    std::string read_ = "-r";
    std::string use_filter_ = "-F";
    std::string file_ = append::scratch("packets");
    std::string filter_ = append::scratch("filter");
    bool ready_ = false;
};

void tcpdump(benchmark::State &state)
{
    tcpdump_t process(static_cast<size_t>(state.range(0)));
    double total = 0;
    for (auto _ : state) {
        const double seconds = process.run();
        if (seconds < 0) {
            state.SkipWithError("tcpdump did not run");
            break;
        }
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["each"] = total / static_cast<double>(state.iterations() * tcpdump_t::COUNT);
}

void address_counts(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("addresses")->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Threads(1)->Threads(2);
}

BENCHMARK(unwatched<true>)->Name("unwatched/shared")->Apply(address_counts);
BENCHMARK(unwatched<false>)->Name("unwatched/own")->Apply(address_counts);
BENCHMARK(unwatched_floor)->Name("unwatched/floor")->Threads(1)->Threads(2);
BENCHMARK(watched)->Name("watched/plugin")->ArgName("bytes")->Arg(64)->Arg(512)->Arg(1500);
BENCHMARK(append::bare)->Name("watched/bare_calls")->ArgName("bytes")->Arg(64)->Arg(512)->Arg(1500);
BENCHMARK(traffic::bpf_filter)->Name("bpf_filter")->ArgName("hosts")->Arg(1)->Arg(100)->Arg(1000);
BENCHMARK(tcpdump)
    ->Name("tcpdump")
    ->ArgName("hosts")
    ->Arg(1)
    ->Arg(100)
    ->Arg(1000)
    ->Iterations(1)
    ->UseManualTime();

} // namespace

int main(int argc, char **argv)
{
    test_host::reset(-2); // nothing is logged
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max; // two live captures of 1000 files
    setrlimit(RLIMIT_NOFILE, &files);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
