// The control plane under load: clients that do not read, and many connections. With KESTRUNE_LONG set, as
// much of it as the plugin promises.
#include "support/control_fixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

namespace {

const bool LONG = std::getenv("KESTRUNE_LONG") != nullptr;

using clock_t_ = std::chrono::steady_clock;

int64_t ms_since(clock_t_::time_point begin)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_t_::now() - begin).count();
}

// How long an ADD of the next address takes to be answered, in milliseconds.
int64_t add_next(const stream_t &client, uint32_t *number)
{
    const auto begin = clock_t_::now();
    // Every other rule has a live capture, as long as the table takes it.
    EXPECT_EQ(client.ask(add_request(0, *number, *number % 2, 3600, "rule"), 4), SUCCESS);
    ++*number;
    return ms_since(begin);
}

TEST(Load, ClientsThatNeverReadDoNotHoldUpTheOthers)
{
    const uint32_t rules = LONG ? 10000 : SANITIZED ? 300 : 1000;
    // 100 ms are promised of a machine that does nothing else; one blocking send would take five seconds.
    const int64_t allowed_ms = LONG && !SANITIZED ? 100 : 1000;
    server_t server;
    test_host::reset(-2); // a host that listens to nothing: the messages are not the subject
    std::vector<stream_t> stalled;
    for (int i = 0; i < 127; i++) {
        stalled.push_back(server.connect_client());
        ASSERT_EQ(stalled.back().ask(request(5, 4), 4), SUCCESS);
    }
    const stream_t client = server.connect_client();
    uint32_t number = 0;
    int64_t longest = 0;
    while (number < rules) {
        longest = std::max(longest, add_next(client, &number));
    }
    // The monitor's passes, all of these rules announced and most of them finished in the first.
    std::atomic<int> passes{0};
    const std::jthread monitor([&] {
        while (passes < 3) {
            rm_check_and_update(&server.listener->rm);
            passes++;
        }
    });
    while (passes < 3 && number < 2 * rules) {
        longest = std::max(longest, add_next(client, &number));
    }
    std::printf("ADD beside 127 stalled clients: at most %ld ms\n", static_cast<long>(longest));
    EXPECT_LE(longest, allowed_ms);
    EXPECT_GT(number, rules);
}

TEST(Load, AStalledClientIsLeftAfterFiveSeconds)
{
    server_t server;
    const stream_t stalled = server.connect_client();
    const stream_t client = server.connect_client();
    for (uint32_t i = 0; i < 2000; i++) {
        ASSERT_EQ(client.ask(add_request(0, i, 0, 0, "rule"), 4), SUCCESS);
    }
    EXPECT_EQ(stalled.ask(request(5, 4), 4), SUCCESS);
    std::string requests;
    for (int i = 0; i < 1000; i++) {
        requests += request(2, 3); // 34 kB each
    }
    stalled.send_bytes(requests);
    const auto begin = clock_t_::now();
    while (!test_host::logged("send failed: Connection timed out") && ms_since(begin) < 20000) {
        const auto asked = clock_t_::now();
        ASSERT_EQ(client.ask(add_request(1, 5000, 0, 0, "other"), 4).size(), 4U);
        EXPECT_LE(ms_since(asked), 500);
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // spares the processor, decides nothing
    }
    EXPECT_GE(ms_since(begin), 4900);
    EXPECT_LE(ms_since(begin), 10000);
    // What came is whole messages, but for the last.
    const std::string received = stalled.receive_all();
    const std::string list = hex("00 09 03 00 d0 07 00 00");
    const std::string later = hex("00 09 03 00 d1 07 00 00");
    size_t at = 0;
    while (at + 34029 < received.size()) {
        const std::string head = received.substr(at, 8);
        ASSERT_TRUE(head == list || head == later || head.starts_with(hex("00 09 06 00 02"))) << at;
        at += head == list ? 34008 : head == later ? 34025 : 25;
    }
    EXPECT_GT(at, 0U);

    // The next one is still being waited for when the server stops.
    const stream_t waited_for = server.connect_client();
    waited_for.send_bytes(requests);
    EXPECT_TRUE(wait_until([&] { // no further request is read
        const int before = test_host::count("Received header");
        poll(nullptr, 0, 200);
        return test_host::count("Received header") == before;
    }));
    const auto stopping = clock_t_::now();
    server.stop();
    EXPECT_LE(ms_since(stopping), 2000);
}

TEST(Load, NothingPilesUpOverManyConnections)
{
    const int connections = LONG && !SANITIZED ? 100000 : 1000;
    server_t server;
    test_host::reset(-2);
    const auto resources_before = resources();
    const auto connect_and_leave = [&](int count) {
        for (int i = 0; i < count; i++) {
            ASSERT_EQ(server.connect_client().ask(request(5, 4), 4), SUCCESS);
        }
    };
    const auto address_space = [] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * sysconf(_SC_PAGESIZE);
    };
    connect_and_leave(200);
    const long before = address_space();
    connect_and_leave(connections);
    EXPECT_TRUE(resources_fall_to(resources_before));
    EXPECT_LT(address_space() - before, 1 << 30); // every thread that nobody joined keeps its 8 MB of stack
}

} // namespace
