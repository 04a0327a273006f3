// Sealing beside mergecap, on the same raw files of three probes: in order as histories are, and with two queues in
// each live file, one of them late. In $SEAL_DIRECTORY (default /dev/shm).
//
//   seal        as the manager does, with the read-back        seal_only   without it
//   mergecap    the same files into one pcapng                 peak_MiB    memory beyond that of the idle process
#include "archive/sealing.h"
#include "client/text_forms.h"
#include "common/clock.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace kestrune::manager;
using path_t = std::filesystem::path;

constexpr std::array PROBES = {"north", "east", "south"};
constexpr std::array FILES = {"_1_hc_0", "_1_hc_1", "_1"};
constexpr uint64_t LATE = 200; // packets

path_t scratch()
{
    const char *directory = std::getenv("SEAL_DIRECTORY");
    return path_t(directory != nullptr ? directory : "/dev/shm") / ("seal-bench-" + std::to_string(getpid()));
}

const ulid_t ID = parse_ulid("01KAQ4A00000000000000000ZZ").value();

// An Ethernet frame with IPv4 and TCP from one of 4,096 peers to the captured address.
std::string frame(uint32_t size, uint32_t peer)
{
    std::string bytes(size, '\0');
    bytes.replace(12, 12, std::string("\x08\x00\x45\x00\x00\x00\x00\x00\x00\x00\x40\x06", 12));
    bytes[16] = static_cast<char>((size - 14) >> 8);
    bytes[17] = static_cast<char>(size - 14);
    const std::array<char, 14> ends = {'\x0A',
                                       '\x01',
                                       static_cast<char>(peer >> 8),
                                       static_cast<char>(peer),
                                       '\xC0',
                                       '\x00',
                                       '\x02',
                                       '\x11',
                                       static_cast<char>(peer >> 4),
                                       '\x50',
                                       '\x01',
                                       '\xBB'};
    bytes.replace(26, ends.size(), ends.data(), ends.size());
    return bytes;
}

// Packets of this size on average, in a file of the size; queue by queue late where `is_live`.
void write_raw(const path_t &path, uint64_t file_size, uint32_t packet_size, bool is_live, uint32_t seed)
{
    std::minstd_rand random(seed + 1);
    std::ofstream file(path, std::ios::binary);
    const std::array<uint32_t, 6> header = {0xa1b23c4d, 0x00040002, 0, 0, 65535, 1};
    file.write(reinterpret_cast<const char *>(header.data()), sizeof header);
    const uint64_t count = file_size / (packet_size + 16);
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t place = is_live && i % 2 == 1 && i > LATE ? i - LATE : i;
        const uint64_t time_ns = 1'700'000'000 * NS_PER_S + place * 3000 + seed;
        const std::string bytes = frame(packet_size / 2 + static_cast<uint32_t>(random() % packet_size) + 27,
                                        static_cast<uint32_t>(random() % 4096));
        const std::array<uint32_t, 4> record = {
            static_cast<uint32_t>(time_ns / NS_PER_S), static_cast<uint32_t>(time_ns % NS_PER_S),
            static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(bytes.size())};
        file.write(reinterpret_cast<const char *>(record.data()), sizeof record);
        file << bytes;
    }
}

// The raw files of one capture, made once for each size.
class raw_files_t {
public:
    raw_files_t(uint64_t bytes, uint32_t packet_size) : directory_(scratch())
    {
        uint32_t seed = 0;
        for (const char *probe : PROBES) {
            std::filesystem::create_directories(directory_ / probe);
            for (const std::string rest : FILES) {
                paths_.push_back(directory_ / probe / (ID.text() + rest));
                write_raw(paths_.back(), bytes / (PROBES.size() * FILES.size()), packet_size, rest == "_1",
                          seed++);
                bytes_ += std::filesystem::file_size(paths_.back());
            }
            part_t part;
            part.probe = probe;
            part.local = true;
            part.state = part_state_t::FINISHED;
            capture_.parts.push_back(part);
            sealing_.files[probe] = directory_ / probe;
        }
        capture_.id = ID;
        capture_.addr = kestrune::parse_address("192.0.2.17");
        sealing_.root = directory_ / "archive";
        std::filesystem::create_directory(sealing_.root);
    }
    ~raw_files_t() { std::filesystem::remove_all(directory_); }
    raw_files_t(const raw_files_t &) = delete;
    raw_files_t &operator=(const raw_files_t &) = delete;

    uint64_t bytes() const { return bytes_; }
    sealed_t seal(bool read_back)
    {
        sealing_.read_back = read_back;
        return seal_capture(capture_, sealing_);
    }
    void clear() const { std::filesystem::remove_all(capture_directory(sealing_.root, ID)); }
    std::string mergecap_command() const
    {
        std::string command = "mergecap -w " + (directory_ / "merged.pcapng").string();
        for (const path_t &path : paths_) {
            command += ' ' + path.string();
        }
        return command;
    }
    void clear_merged() const { std::filesystem::remove(directory_ / "merged.pcapng"); }

private:
    const path_t directory_;
    std::vector<path_t> paths_;
    uint64_t bytes_ = 0;
    capture_t capture_;
    sealing_t sealing_;
};

// Arguments: MiB of raw files, bytes of a packet.
raw_files_t &files_of(const benchmark::State &state)
{
    static std::map<std::pair<int64_t, int64_t>, std::unique_ptr<raw_files_t>> all;
    const std::pair key(state.range(0), state.range(1));
    if (!all.contains(key)) {
        all.clear(); // one at a time
        all[key] = std::make_unique<raw_files_t>(static_cast<uint64_t>(state.range(0)) << 20,
                                                 static_cast<uint32_t>(state.range(1)));
    }
    return *all[key];
}

void rate(benchmark::State &state, const raw_files_t &files)
{
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(files.bytes()));
}

void seal(benchmark::State &state, bool read_back)
{
    raw_files_t &files = files_of(state);
    uint64_t packets = 0;
    for (auto _ : state) {
        packets = files.seal(read_back).file.packets;
        state.PauseTiming();
        files.clear();
        state.ResumeTiming();
    }
    rate(state, files);
    state.counters["packets"] = static_cast<double>(packets);
}

void seal(benchmark::State &state)
{
    seal(state, true);
}

void seal_only(benchmark::State &state)
{
    seal(state, false);
}

void mergecap(benchmark::State &state)
{
    const raw_files_t &files = files_of(state);
    for (auto _ : state) {
        if (std::system(files.mergecap_command().c_str()) != 0) {
            state.SkipWithError("mergecap failed");
        }
        state.PauseTiming();
        files.clear_merged();
        state.ResumeTiming();
    }
    rate(state, files);
}

// In a child, whose peak is told when it ends.
void seal_memory(benchmark::State &state)
{
    raw_files_t &files = files_of(state);
    std::array<int64_t, 2> peaks = {};
    for (auto _ : state) {
        for (const bool seals : {false, true}) {
            const pid_t child = fork();
            if (child == 0) {
                if (seals) {
                    files.seal(true);
                }
                _exit(0);
            }
            rusage usage = {};
            wait4(child, nullptr, 0, &usage);
            peaks[seals] = usage.ru_maxrss;
        }
        files.clear();
    }
    state.counters["peak_MiB"] = static_cast<double>(peaks[1] - peaks[0]) / 1024;
}

constexpr std::array<std::array<int64_t, 2>, 3> SIZES = {{{512, 64}, {512, 700}, {512, 1400}}};

void sizes(benchmark::internal::Benchmark *bench)
{
    for (const auto &size : SIZES) {
        bench->Args({size[0], size[1]});
    }
    bench->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Iterations(1)
        ->Repetitions(3);
    bench->ReportAggregatesOnly();
}

} // namespace

BENCHMARK(seal_memory)->Apply(sizes); // before memory that the others gave back could hide what it takes
BENCHMARK(seal_only)->Apply(sizes);
BENCHMARK(seal)->Apply(sizes);
BENCHMARK(mergecap)->Apply(sizes);
BENCHMARK_MAIN();
