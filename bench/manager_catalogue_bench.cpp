// The catalogue with 100,000 captures of three parts each: GET /captures, one capture, totals, and commits, whose fsync
// stands beside that of a bare file. In the working directory.
#include "catalogue/catalogue.h"
#include "common/clock.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace kestrune::manager;

constexpr uint32_t CAPTURES = 100'000;
constexpr uint32_t ADDRESSES = 5'000;
constexpr uint32_t BATCH = 1'000;

ip_addr_t address(uint32_t number)
{
    const uint32_t ipv4 = 0x0A000000U + number;
    uint8_t bytes[4];
    std::memcpy(bytes, &ipv4, sizeof bytes);
    return ip_addr_from_ipv4(bytes);
}

capture_t capture(ulid_maker_t *ids, uint32_t number)
{
    capture_t capture;
    capture.requested_at = 1'700'000'000 * NS_PER_S + number * NS_PER_S;
    capture.id = ids->make(capture.requested_at);
    capture.addr = address(number % ADDRESSES);
    capture.state = number % 10 == 0 ? capture_state_t::DELETED : capture_state_t::SEALED;
    capture.reason = "an alert of rule " + std::to_string(number % 50);
    capture.requested_by = "team";
    capture.file = {number * uint64_t{1000}, number, std::string(64, 'a')};
    capture.manifest_sha256 = capture.file->sha256;
    for (const char *probe : {"north", "east", "south"}) {
        capture.parts.emplace_back().probe = probe;
        capture.parts.back().state = part_state_t::FINISHED;
    }
    return capture;
}

struct filled_t {
    filled_t() : directory("catalogue-bench-" + std::to_string(getpid()))
    {
        std::filesystem::create_directory(directory);
        catalogue = open_catalogue(directory / "catalogue.db");
        for (uint32_t begin = 0; begin < CAPTURES; begin += BATCH) {
            std::vector<capture_t> captures;
            for (uint32_t i = 0; i < BATCH; i++) {
                captures.push_back(capture(&ids, begin + i));
            }
            changes_t changes;
            for (const capture_t &one : captures) {
                changes.captures.push_back(&one);
            }
            catalogue->commit(changes, durability_t::ORDERLY);
        }
    }
    ~filled_t() { std::filesystem::remove_all(directory); }

    const std::filesystem::path directory;
    ulid_maker_t ids;
    std::unique_ptr<catalogue_t> catalogue;
};

filled_t &filled()
{
    static filled_t once;
    return once;
}

void ask(benchmark::State &state, const capture_query_t &query)
{
    filled();
    uint64_t found = 0;
    for (auto _ : state) {
        found = filled().catalogue->query(query).captures.size();
    }
    state.counters["found"] = static_cast<double>(found);
}

void newest(benchmark::State &state)
{
    ask(state, {});
}

void of_address(benchmark::State &state)
{
    capture_query_t query;
    query.addr = address(17);
    ask(state, query);
}

void of_unknown_address(benchmark::State &state)
{
    capture_query_t query;
    query.addr = address(ADDRESSES);
    ask(state, query);
}

void of_probe(benchmark::State &state)
{
    capture_query_t query;
    query.probe = "east";
    ask(state, query);
}

void of_rare_text(benchmark::State &state)
{
    capture_query_t query;
    query.text = "no such words";
    ask(state, query);
}

void largest(benchmark::State &state)
{
    capture_query_t query;
    query.sort = sort_t::BYTES;
    ask(state, query);
}

void totals(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(filled().catalogue->totals());
    }
}

void commit(benchmark::State &state, durability_t durability)
{
    for (auto _ : state) {
        const capture_t one = capture(&filled().ids, CAPTURES);
        filled().catalogue->commit({{&one}, {}, {}}, durability);
    }
}

void commit_durable(benchmark::State &state)
{
    commit(state, durability_t::DURABLE);
}

void commit_orderly(benchmark::State &state)
{
    commit(state, durability_t::ORDERLY);
}

// What the disk takes for 16 KiB at the end of a file.
void bare_fsync(benchmark::State &state)
{
    const std::filesystem::path file = filled().directory / "bare";
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::string bytes(size_t{16} << 10, 'x');
    bool good = fd >= 0;
    for (auto _ : state) {
        good = good && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
               fdatasync(fd) == 0;
    }
    close(fd);
    if (!good) {
        state.SkipWithError("cannot write");
    }
}

void reopen(benchmark::State &state)
{
    for (auto _ : state) {
        filled().catalogue.reset();
        filled().catalogue = open_catalogue(filled().directory / "catalogue.db");
    }
}

} // namespace

BENCHMARK(newest)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(of_address)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(of_unknown_address)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(of_probe)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(of_rare_text)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(largest)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(totals)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(commit_durable)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(commit_orderly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(bare_fsync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(reopen)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
