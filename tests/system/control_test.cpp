// The control plane under load: clients that do not read, and many connections. With KESTRUNE_LONG set, as
// much of it as the plugin promises.
#include "support/control_fixture.h"

namespace {

const bool LONG = std::getenv("KESTRUNE_LONG") != nullptr;

using steady = std::chrono::steady_clock;

long ms_since(steady::time_point begin)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - begin).count();
}

TEST(Load, ClientsThatNeverReadDoNotHoldUpTheOthers)
{
    const uint32_t rules = LONG ? 10000 : SANITIZED ? 300 : 1000;
    // 100 ms are promised of a machine that does nothing else; one blocking send would take five seconds.
    const long allowed_ms = LONG && !SANITIZED ? 100 : 1000;
    server_t server;
    test_host::reset(-2); // a host that listens to nothing: the messages are not the subject
    std::vector<stream_t> stalled;
    for (int i = 0; i < 127; i++) {
        stalled.push_back(server.connect_client());
        stalled.back().send_bytes(request(5, 4));
    }
    for (const stream_t &client : stalled) { // registered several at a time
        ASSERT_EQ(client.receive(4), SUCCESS);
    }
    const stream_t client = server.connect_client();
    uint32_t number = 0;
    long longest = 0;
    const auto add_next = [&] { // every other rule with a live capture, as long as the table takes it
        const auto begin = steady::now();
        EXPECT_EQ(client.ask(add_request(0, number, number % 2, 3600, "rule"), 4), SUCCESS);
        longest = std::max(longest, ms_since(begin));
        number++;
    };
    while (number < rules) {
        add_next();
    }
    // The monitor's passes, all of these rules announced and most of them finished in the first.
    std::atomic<int> passes{0};
    const std::jthread monitor([&] {
        for (; passes < 3; passes++) {
            rm_check_and_update(&server.listener->rm);
        }
    });
    while (passes < 3 && number < 2 * rules) {
        add_next();
    }
    std::printf("ADD beside 127 stalled clients: at most %ld ms\n", longest);
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
    const auto begin = steady::now();
    while (!test_host::logged("send failed: Connection timed out") && ms_since(begin) < 20000) {
        const auto asked = steady::now();
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
    EXPECT_TRUE(server.reads_no_more());
    const auto stopping = steady::now();
    server.stop();
    EXPECT_LE(ms_since(stopping), 2000);
}

} // namespace
