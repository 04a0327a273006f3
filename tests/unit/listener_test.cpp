#include "common/thread.h"
#include "support/control_fixture.h"

#include <sys/resource.h>

namespace {

// A request and its exact reply.
struct exchange_t {
    std::string request, reply;
};

// Example of the protocol's description.
const std::string ADD_EXAMPLE =
    hex("00 09 00 02 01 00 00 00 00 00 00 00 00 00 00 00 b8 0d 01 20 e8 03 00 00 3c 00 00 00 03 77 65 62");
const std::string ADDRESS_EXAMPLE = ADD_EXAMPLE.substr(4, 16);
const std::string ONE_RULE = hex("00 09 03 00 01 00 00 00") + ADDRESS_EXAMPLE + '\2';
const std::string NO_RULE = hex("00 09 03 00 00 00 00 00");
const std::string EXAMPLE_DETAIL = hex("00 09 04 00") + ADDRESS_EXAMPLE +
                                   hex("02 00 00 00 00 00 e8 03 00 00 00 00 00 00 3c 00 00 00 03 77 65 62");

// Two queues with empty rings, 20 packets heavy size.
std::string history_info(const std::string &size)
{
    return hex("00 09 05 00 02 00 00 00") + std::string(20, '\0') + hex("14 00 00 00" + size + size);
}

std::string four(const std::string &reply)
{
    return reply + reply + reply + reply;
}

// One client's life, each request in each of its outcomes that need no other client.
const std::vector<exchange_t> CONVERSATION = {
    {request(2, 3), NO_RULE},
    {request(3, 0, ADDRESS_EXAMPLE), FAIL},
    {request(1, 2, ADDRESS_EXAMPLE), FAIL},
    {ADD_EXAMPLE, SUCCESS},
    {ADD_EXAMPLE, SUCCESS}, // its limits again
    {request(2, 3), ONE_RULE},
    {request(2, 2), ONE_RULE},
    {request(2, 1), NO_RULE},
    {request(3, 1, ADDRESS_EXAMPLE), EXAMPLE_DETAIL},
    {request(1, 9, ADDRESS_EXAMPLE), SUCCESS}, // an unchecked target narrows like DST
    {request(1, 1, ADDRESS_EXAMPLE), FAIL},
    {request(1, 0, ADDRESS_EXAMPLE), SUCCESS},
    {request(3, 2, ADDRESS_EXAMPLE), FAIL}, // its live capture is over
    {ADD_EXAMPLE, FAIL},
    {request(4, 6), history_info(" 00 00 00 00 00 00 00 00")},
    {request(4, 5), FAIL}, // off already
    {request(4, 4, hex("00 00 00 00")), SUCCESS},
    {request(4, 4, hex("01 00 00 00")), FAIL}, // on already
    {request(4, 6), history_info(" 80 1a 06 00 00 00 00 00")},
    {request(4, 5), SUCCESS},
    {request(4, 4, hex("01 00 00 00")), SUCCESS},
    {request(4, 6), history_info(" 00 00 10 00 00 00 00 00")},
    {request(4, 5), SUCCESS},
    {request(5, 5), FAIL}, // not registered
    {request(5, 4), SUCCESS},
    {request(5, 4), SUCCESS},
    {add_request(0, 7, 0, 0, "x"), incident(1, 7) + incident(1, 7) + SUCCESS},
    {request(5, 5), SUCCESS},
    {add_request(1, 8, 0, 9, "y"), incident(2, 8) + SUCCESS},
    {request(5, 5), SUCCESS},
    {request(5, 5), FAIL},
    {request(7, 8, hex("15 00 00 00")), SUCCESS},
    {request(7, 8, hex("14 00 00 00")), SUCCESS},
    {request(0, 3), UNRECOGNIZED}, // nothing of a payload is read from here on
    {request(2, 4) + request(3, 3) + request(4, 3) + request(4, 7), four(UNRECOGNIZED)},
    {request(5, 3) + request(5, 6) + request(7, 7) + request(7, 9), four(UNRECOGNIZED)},
    {request(8, 0), UNRECOGNIZED},
    {request(255, 255), UNRECOGNIZED},
    {add_request(0, 9, 1, 1, ""), FAIL},
    {add_request(0, 9, 1, 1, std::string(128, 'n')), FAIL},
    {add_request(0, 9, 1, 1, std::string(255, 'n')), FAIL},
    {add_request(0, 9, 1, 1, "../x"), FAIL},
    {add_request(0, 9, 1, 1, "/"), FAIL},
    {add_request(0, 9, 1, 1, std::string("a\0b", 3)), FAIL},
    {add_request(0, 9, 1, 1, ".."), SUCCESS}, // "/directory/.._3": a plain name
    {add_request(0, 10, 1, 1, std::string(127, 'n')), SUCCESS},
    {request(6, 99), ""}, // the server closes
};

TEST(Requests, AreAnsweredByteForByteWhateverSegmentsTheyComeIn)
{
    std::string requests, replies;
    server_t one_by_one(2);
    const stream_t asking = one_by_one.connect_client();
    for (const exchange_t &exchange : CONVERSATION) {
        requests += exchange.request;
        replies += exchange.reply;
        EXPECT_EQ(asking.ask(exchange.request, exchange.reply.size()), exchange.reply);
    }
    EXPECT_EQ(asking.receive_all(), "");
    one_by_one.stop();
    for (const size_t segment : {requests.size(), size_t{1}, size_t{7}}) {
        server_t server(2);
        const stream_t client = server.connect_client();
        for (size_t at = 0; at < requests.size(); at += segment) {
            client.send_bytes(requests.substr(at, segment));
        }
        EXPECT_EQ(client.receive_all(), replies) << segment;
        EXPECT_TRUE(server.exists("web_0"));
        EXPECT_TRUE(server.exists(".._3"));
        EXPECT_FALSE(std::filesystem::exists(server.directory + "../x_0"));
        EXPECT_EQ(heavy_size(), 20U);
    }
}

TEST(Requests, CutAtAnyByteOrOfAnotherVersionEndTheConnectionWithoutReplyOrEffect)
{
    server_t server(1);
    std::vector<std::string> refused;
    for (const std::string version : {"00 08", "01 09", "00 0a", "ff ff"}) {
        refused.push_back(hex(version + " 02 03") + request(2, 3)); // nothing behind it is answered
    }
    for (const std::string &whole :
         {ADD_EXAMPLE, request(1, 2, ADDRESS_EXAMPLE), request(2, 3), request(3, 0, ADDRESS_EXAMPLE),
          request(4, 4, hex("00 00 00 00")), request(7, 8, hex("09 00 00 00"))}) {
        for (size_t cut = 0; cut < whole.size(); cut++) {
            refused.push_back(whole.substr(0, cut));
        }
    }
    for (const std::string &bytes : refused) {
        const stream_t client = server.connect_client();
        client.send_bytes(bytes);
        shutdown(client.fd, SHUT_WR);
        EXPECT_EQ(client.receive_all(), "") << bytes.size();
    }
    EXPECT_EQ(server.connect_client().ask(request(2, 3), NO_RULE.size()), NO_RULE);
    EXPECT_EQ(server.history[0]->enabled.load(), 0);
    EXPECT_EQ(heavy_size(), 20U);
}

TEST(History, IsTurnedOnAsFarAsTheQueuesAllow)
{
    server_t server(3);
    const stream_t client = server.connect_client();
    ASSERT_EQ(hc_enable(server.history[1], 5000), HC_OK);
    EXPECT_EQ(client.ask(request(4, 4, hex("03 00 00 00")), 4), FAIL);
    EXPECT_TRUE(hc_is_enabled(server.history[0]) && !hc_is_enabled(server.history[2]));
    hc_disable(server.history[0]);
    ASSERT_EQ(hc_enable(server.history[2], 5000), HC_OK);
    EXPECT_EQ(client.ask(request(4, 5), 4), FAIL); // stops at the queue that is off
    EXPECT_EQ(server.history[2]->enabled.load(), 1);
    hc_disable(server.history[1]);
    hc_disable(server.history[2]);

    EXPECT_EQ(client.ask(request(4, 4, hex("03 00 00 00")), 4), SUCCESS);
    server.ring_packet(0, 1, 2);
    server.ring_packet(2, 1, 2);
    constexpr uint64_t SIZE = 3 * 1048576;
    const msg_hb_info_t sum = {
        3, 2, 0, 0, 0, 0, 20, SIZE, SIZE - uint64_t{2} * (HC_RECORD_HEADER + sizeof(ip_addr_t))};
    EXPECT_EQ(client.ask(request(4, 6), 48), encoded(msg_answer(msg_code::HB_INFO), sum));
}

TEST(Slots, The129thClientIsTurnedAwayAndTheLowestFreeSlotIsUsedNext)
{
    server_t server;
    std::vector<stream_t> clients;
    for (uint32_t i = 0; i < LS_MAX_CLIENTS; i++) {
        clients.push_back(server.connect_client());
        EXPECT_EQ(clients.back().ask(request(5, 4), 4), SUCCESS);
        EXPECT_TRUE(test_host::logged("client connected, slot #" + std::to_string(i)));
    }
    EXPECT_EQ(server.connect_client().receive_all(), "");
    EXPECT_EQ(clients[0].ask(add_request(0, 1, 0, 0, "a"), 29), incident(0, 1) + SUCCESS);
    for (uint32_t i = 1; i < LS_MAX_CLIENTS; i++) {
        EXPECT_EQ(clients[i].receive(25), incident(0, 1));
    }
    const auto [descriptors, threads] = resources();
    clients[90].end();
    clients[3].end();
    EXPECT_TRUE(resources_fall_to({descriptors - 4, threads - 2}));
    test_host::reset();
    clients[3] = server.connect_client();
    EXPECT_EQ(clients[3].ask(request(2, 0), 8).size(), 8U);
    EXPECT_TRUE(test_host::logged("client connected, slot #3"));
}

TEST(Slots, ALaterConnectionNeverInheritsRegistrations)
{
    server_t server;
    const stream_t adder = server.connect_client();
    EXPECT_EQ(adder.ask(request(2, 1), NO_RULE.size()).size(), NO_RULE.size());
    const auto before = resources(); // with the adder's handler, and no other
    for (uint32_t round = 0; round < 4; round++) {
        stream_t first = server.connect_client();
        EXPECT_EQ(first.ask(request(5, 4), 4), SUCCESS);
        EXPECT_EQ(first.ask(request(5, 4), 4), SUCCESS);
        EXPECT_EQ(first.ask(request(5, 5), 4), SUCCESS); // one of two is left
        first.end();
        EXPECT_TRUE(resources_fall_to(before));
        const stream_t second = server.connect_client();
        EXPECT_EQ(second.ask(request(2, 1), NO_RULE.size()).size(), NO_RULE.size());
        EXPECT_EQ(adder.ask(add_request(0, round, 0, 0, "a"), 4), SUCCESS);
        EXPECT_TRUE(second.is_quiet());
    }
}

TEST(Slots, NoThreadOfAnEarlierClientIsKept)
{
    server_t server;
    long before = 0, pages = 0; // of the address space
    for (int i = 0; i < 700; i++) {
        ASSERT_EQ(server.connect_client().ask(request(5, 4), 4), SUCCESS);
        std::ifstream("/proc/self/statm") >> pages;
        before = i < 200 ? pages : before; // by then the C library has what it keeps
    }
    EXPECT_LT((pages - before) * sysconf(_SC_PAGESIZE), 1L << 30); // a thread has 8 MB of stack
}

// Nice values of the threads of this process against the calling thread's, by name.
std::map<std::string, int> nice_values()
{
    std::map<std::string, int> values;
    const int own = getpriority(PRIO_PROCESS, 0);
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        values[name] = getpriority(PRIO_PROCESS, static_cast<id_t>(std::stoi(task.path().filename()))) - own;
    }
    return values;
}

TEST(Threads, ThoseThatWorkForClientsAreBelowTheHostAndSearchesAreNot)
{
    server_t server(1);
    const stream_t client = server.connect_client();
    EXPECT_EQ(client.ask(request(4, 4, hex("00 00 00 00")), 4), SUCCESS);
    const std::map<std::string, int> expected = {{"ks-listener", THREAD_LOWERED},
                                                 {"ks-client", THREAD_LOWERED},
                                                 {"ks-monitor", THREAD_LOWERED},
                                                 {"ks-search", 0},
                                                 {"ks-starter", 0},
                                                 {"listener_test", 0}};
    EXPECT_TRUE(wait_until([&] { return nice_values() == expected; }));
}

TEST(Slots, NoPermitIsHeldByAHandlerThatWaitsForItsClient)
{
    server_t server;
    const stream_t client = server.connect_client();
    for (uint32_t i = 0; i < 1000; i++) {
        ASSERT_EQ(client.ask(add_request(0, i, 0, 0, "rule"), 4), SUCCESS);
    }
    std::string lists;
    for (int i = 0; i < 1000; i++) {
        lists += request(2, 3); // 17 kB each
    }
    std::vector<stream_t> waited_for;
    for (uint32_t i = 0; i <= LS_PERMITS; i++) {
        waited_for.push_back(server.connect_client());
        waited_for.back().send_bytes(ADD_EXAMPLE.substr(0, 10)); // the rest does not come
        waited_for.push_back(server.connect_client());
        waited_for.back().send_bytes(lists); // and nobody reads the replies
    }
    EXPECT_TRUE(server.reads_no_more());
    EXPECT_EQ(client.ask(request(2, 0), 8).size(), 8U);
}

TEST(Slots, OneOfTwoListenersOnOnePortStarts)
{
    for (int i = 0; i < 60; i++) {
        captures_t captures;
        std::string port;
        {
            const stream_t free_in_a_moment = stream_t::listening();
            port = std::to_string(listening_port());
        }
        listener_t *listeners[2] = {};
        std::atomic<int> ready{0};
        const auto start = [&](listener_t **listener) {
            for (ready++; ready < 2;) {
            }
            *listener = ls_init(captures.live, port.c_str(), 0, nullptr);
        };
        std::jthread(start, &listeners[0]), start(&listeners[1]);
        EXPECT_NE(listeners[0] != nullptr, listeners[1] != nullptr) << i;
        ls_destroy(listeners[0]);
        ls_destroy(listeners[1]);
        EXPECT_TRUE(test_host::logged("Unable to listen on socket: Address already in use") ||
                    test_host::logged("Socket bind failed: Address already in use"));
    }
}

} // namespace
