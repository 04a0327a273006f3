// Compares the packet path of two builds of the plugin, before and after a change:
//
//   compare_bench [-r repetitions] [-c cpu] OLD.so NEW.so
//
// Three libraries run in turn, the old build, a second copy of it and the new build, each from a fresh start:
// the memory that a ring happens to get matters more than most changes. The old build against its own copy
// shows the noise of such a figure. The packet thread is pinned, and its processor time counts.
//
// Exit status 1: the new build is slower by more than 3 % and by more than the upper quartile of the old build
// against itself.
#include "client/session.h"
#include "plugin/plugin.h"
#include "support/pcap_read.h"
#include "support/test_host.h"
#include "traffic.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

constexpr size_t BATCHES = 25; // of one start; their median counts
constexpr double TOLERATED = 1.03;

struct workload_t {
    const char *name;
    const char *history_mb;
    uint16_t length;       // bytes of a packet
    uint32_t flow_packets; // of its flow so far
    bool watched;
    size_t batch; // packets
};

// Each fills a ring of 16 MB more than once in the first batches, which do not count.
constexpr workload_t WORKLOADS[] = {
    {"history off, 60 bytes", "0", 60, 0, false, traffic::PACKETS},
    {"history on, heavy flow", "16", 60, 1000, false, traffic::PACKETS},
    {"history on, 60 bytes", "16", 60, 0, false, traffic::PACKETS},
    {"history on, 512 bytes", "16", 512, 0, false, traffic::PACKETS},
    {"watched, 512 bytes", "16", 512, 0, true, traffic::PACKETS / 8},
};
constexpr size_t WARM_UP_BATCHES = 50;

// A directory on the memory file system, removed at the end.
class scratch_t {
public:
    scratch_t()
    {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("/dev/shm is not writable");
        }
    }
    ~scratch_t()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_t(const scratch_t &) = delete;
    scratch_t &operator=(const scratch_t &) = delete;
    [[nodiscard]] std::string path(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_ = "/dev/shm/kestrune-compare-XXXXXX";
};

// A build of the plugin, loaded from its own copy: a path is loaded only once.
class build_t {
public:
    build_t(const std::string &original, const std::string &copy)
    {
        std::error_code error;
        std::filesystem::copy_file(original, copy, error);
        handle_ = error ? nullptr : dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) {
            throw std::runtime_error(original + ": " + (error ? error.message() : dlerror()));
        }
        find(&init, "plugin_process_init");
        find(&init_queue, "plugin_process_init_queue");
        find(&update, "plugin_process_update");
        find(&stop, "plugin_process_shutdown");
    }
    ~build_t() { dlclose(handle_); }
    build_t(const build_t &) = delete;
    build_t &operator=(const build_t &) = delete;

    decltype(&plugin_process_init) init;
    decltype(&plugin_process_init_queue) init_queue;
    decltype(&plugin_process_update) update;
    decltype(&plugin_process_shutdown) stop;

private:
    template <class Function>
    void find(Function *function, const char *name)
    {
        *function = reinterpret_cast<Function>(dlsym(handle_, name));
        if (*function == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    void *handle_;
};

void watch(uint32_t ipv4)
{
    uint16_t port = 0;
    if (!wait_until([&] { return (port = listening_port()) != 0; })) {
        throw std::runtime_error("the plugin does not listen");
    }
    kestrune::session_t({"127.0.0.1", std::to_string(port)}, {})
        .add({traffic::address(ipv4), BOTH, UINT32_MAX, UINT32_MAX, "watched"});
}

// Runs the calling thread on one processor for its life.
class pinned_t {
public:
    explicit pinned_t(int cpu)
    {
        sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        if (sched_setaffinity(0, sizeof one, &one) != 0) {
            throw std::runtime_error("no such processor");
        }
    }
    ~pinned_t() { sched_setaffinity(0, sizeof before_, &before_); }
    pinned_t(const pinned_t &) = delete;
    pinned_t &operator=(const pinned_t &) = delete;

private:
    cpu_set_t before_ = {};
};

double thread_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The value below which this share of the values lies.
double quantile(std::vector<double> values, double share)
{
    const auto at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
    return values[at];
}

// Start the build, hand it the packets, stop it. Nanoseconds a packet.
double measure(const build_t &build, const workload_t &work, int cpu)
{
    static const uint8_t bytes[1500] = {};
    constexpr uint32_t WATCHED = 0x0a000001;
    const scratch_t files;
    test_host::set_params({{"port", "0"}, {"export_path", files.path("")}, {"buffer_size", work.history_mb}});
    plugin_private_t *plugin = build.init("", nullptr, nullptr, 1);
    if (plugin == nullptr) {
        throw std::runtime_error("the plugin does not start");
    }
    const std::vector<traffic::ends_t> ends = traffic::unwatched_packets(work.batch);
    std::vector<host_header_t> headers(work.batch);
    std::vector<host_packet_t> packets(work.batch);
    for (size_t i = 0; i < work.batch; i++) {
        const uint32_t src = traffic::ipv4_of(ends[i].src);
        const uint32_t dst = work.watched ? WATCHED : traffic::ipv4_of(ends[i].dst);
        headers[i].timestamp = i;
        headers[i].ip_version = 4;
        std::memcpy(headers[i].addr.ipv4.src, &src, sizeof src);
        std::memcpy(headers[i].addr.ipv4.dst, &dst, sizeof dst);
        packets[i].header = &headers[i];
        packets[i].data = bytes;
        packets[i].length = work.length;
    }
    host_flow_t flow = {};
    flow.packets = work.flow_packets;
    if (work.watched) {
        watch(WATCHED);
    }
    plugin_instance_t *instance = build.init_queue(plugin, 0);
    std::vector<double> times;
    {
        const pinned_t here(cpu);
        for (size_t batch = 0; batch < WARM_UP_BATCHES + BATCHES; batch++) {
            const double began = thread_seconds();
            for (const host_packet_t &packet : packets) {
                build.update(instance, &flow, &packet);
            }
            if (batch >= WARM_UP_BATCHES) {
                times.push_back((thread_seconds() - began) * 1e9 / static_cast<double>(work.batch));
            }
        }
    }
    build.stop(plugin);
    return quantile(times, 0.5);
}

// Compare the builds on one workload and print the line. False when the new one is slower.
bool compare(const std::array<std::unique_ptr<build_t>, 3> &builds, const workload_t &work, int repetitions,
             int cpu)
{
    enum : size_t { OLD, AGAIN, NEW };
    std::array<std::vector<double>, 3> times;
    std::vector<double> itself;
    std::vector<double> change;
    for (size_t repetition = 0; repetition < static_cast<size_t>(repetitions); repetition++) {
        for (size_t turn = 0; turn < builds.size(); turn++) {
            const size_t build = (repetition + turn) % builds.size(); // so that no build is always first
            times[build].push_back(measure(*builds[build], work, cpu));
        }
        itself.push_back(times[AGAIN].back() / times[OLD].back());
        change.push_back(times[NEW].back() / times[OLD].back());
    }
    const double ratio = quantile(change, 0.5);
    const double upper = quantile(itself, 0.75);
    const bool good = ratio <= std::max(TOLERATED, upper);
    std::printf("%-24s %8.2f %8.2f   %5.3f   %5.3f (%5.3f to %5.3f)   %s\n", work.name,
                quantile(times[OLD], 0.5), quantile(times[NEW], 0.5), ratio, quantile(itself, 0.5),
                quantile(itself, 0.25), upper, good ? "as before" : "SLOWER");
    std::fflush(stdout);
    return good;
}

} // namespace

static bool run(int argc, char **argv)
{
    int repetitions = 25;
    int cpu = 0;
    int option;
    while ((option = getopt(argc, argv, "r:c:")) != -1) {
        int *target = option == 'r' ? &repetitions : &cpu;
        *target = option == '?' ? -1 : std::atoi(optarg);
    }
    if (argc - optind != 2 || repetitions < 1 || cpu < 0 || cpu >= CPU_SETSIZE) {
        throw std::runtime_error("usage: compare_bench [-r repetitions] [-c cpu] OLD.so NEW.so");
    }
    test_host::reset(-2); // nothing is logged
    const scratch_t copies;
    const std::array<std::unique_ptr<build_t>, 3> builds = {
        std::make_unique<build_t>(argv[optind], copies.path("old.so")),
        std::make_unique<build_t>(argv[optind], copies.path("again.so")),
        std::make_unique<build_t>(argv[optind + 1], copies.path("new.so"))};
    std::printf("%d repetitions, ns a packet   old      new   new/old  old/old (middle half)\n", repetitions);
    bool good = true;
    for (const workload_t &work : WORKLOADS) {
        good &= compare(builds, work, repetitions, cpu);
    }
    return good;
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv) ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "compare_bench: %s\n", error.what());
        return 2;
    }
}
