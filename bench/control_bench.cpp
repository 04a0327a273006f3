// Round trips of the control protocol over loopback while 100 clients are connected.
// Counters in microseconds.
#include "tests/support/control_fixture.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <vector>

namespace {

constexpr int CLIENTS = 100;
constexpr uint32_t RULES = 20;

// The clients take turns; each waits for its own reply.
void round_trips(benchmark::State &state, const std::string &bytes, size_t reply_size)
{
    server_t server;
    test_host::reset(1);
    std::vector<stream_t> clients;
    for (int i = 0; i < CLIENTS; i++) {
        clients.push_back(server.connect_client());
    }
    for (uint32_t i = 0; i < RULES; i++) {
        if (clients[i].ask(add_request(BOTH, i, 1000, 3600, "rule"), 4) != SUCCESS) {
            state.SkipWithError("no rule");
        }
    }
    std::vector<double> times_us;
    size_t turn = 0;
    for ([[maybe_unused]] auto _ : state) {
        const stream_t &client = clients[turn++ % CLIENTS];
        const auto begin = std::chrono::steady_clock::now();
        const std::string reply = client.ask(bytes, reply_size);
        const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
        times_us.push_back(time.count());
        if (reply.size() != reply_size) {
            state.SkipWithError("no whole reply");
        }
    }
    std::sort(times_us.begin(), times_us.end());
    state.counters["median_us"] = times_us[times_us.size() / 2];
    state.counters["p99_us"] = times_us[times_us.size() * 99 / 100];
}

void list(benchmark::State &state)
{
    round_trips(state, request(2, 3), 8 + RULES * 17);
}

void detail(benchmark::State &state)
{
    const ip_addr_t addr = numbered_address(7);
    const std::string bytes(reinterpret_cast<const char *>(addr.bytes), sizeof addr.bytes);
    round_trips(state, request(3, 2, bytes), 4 + 35 + 4);
}

// One client's ADDs in a row, each with a live file and a history file a queue, on a memory file system.
void adds(benchmark::State &state)
{
    constexpr uint32_t ADDS = 1000;
    for ([[maybe_unused]] auto _ : state) {
        server_t server(4);
        test_host::reset(-2);
        const stream_t client = server.connect_client();
        if (client.ask(request(4, 4, hex("40 00 00 00")), 4) != SUCCESS) {
            state.SkipWithError("no history");
        }
        const auto begin = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < ADDS; i++) {
            if (client.ask(add_request(BOTH, i, 1000, 3600, "rule"), 4) != SUCCESS) {
                state.SkipWithError("no rule");
            }
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(time.count());
    }
}

} // namespace

BENCHMARK(list)->Iterations(50000)->UseRealTime();
BENCHMARK(detail)->Iterations(50000)->UseRealTime();

BENCHMARK(adds)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
