// The client library against a server that says what each test wants, over loopback.
#include "client/session.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace kestrune;
using namespace std::chrono_literals;
using bytes_t = std::vector<uint8_t>;

const ip_addr_t ADDR = {{0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 10}};

bytes_t operator+(bytes_t a, const bytes_t &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bytes_t text(const std::string &characters)
{
    return {characters.begin(), characters.end()};
}

template <typename T>
bytes_t encoded(bool (*encode)(msg_writer_t *, const T &), const T &value)
{
    bytes_t bytes(64);
    msg_writer_t out = msg_writer(bytes.data(), 64);
    EXPECT_TRUE(encode(&out, value));
    bytes.resize(out.used);
    return bytes;
}

bytes_t header(uint8_t code)
{
    return encoded(msg_encode_header, msg_answer(code));
}

bytes_t list_reply()
{
    return header(msg_code::IP_LIST) + bytes_t{2, 0, 0, 0} + encoded(msg_encode_ip_list_item, {ADDR, DST}) +
           encoded(msg_encode_ip_list_item, {ADDR, BOTH});
}

bytes_t detail_reply()
{
    return header(msg_code::IP_DETAIL) +
           encoded<msg_ip_detail_t>(msg_encode_ip_detail, {ADDR, BOTH, 50, 1, 2, 3, 4, 3}) + text("web");
}

bytes_t history_reply()
{
    return header(msg_code::HB_INFO) +
           encoded<msg_hb_info_t>(msg_encode_hb_info, {1, 2, 3, 4, 5, 6, 7, 8, 9});
}

bytes_t capture(uint32_t id, uint8_t progress)
{
    return header(msg_code::UPDATE) +
           encoded<msg_update_capture_t>(msg_encode_update_capture, {id, progress});
}

bytes_t visual(uint32_t id, const std::string &history, const std::string &live)
{
    return header(msg_code::UPDATE) +
           encoded<msg_update_visual_t>(
               msg_encode_update_visual,
               {id, 1, 2, static_cast<uint16_t>(history.size()), static_cast<uint16_t>(live.size())}) +
           text(history + live);
}

// Serves one connection at a time with the conversation until it is destroyed; that waits for the
// conversation, so the test's sessions go first.
class server_t {
public:
    explicit server_t(std::function<void(int fd)> conversation)
        : conversation_(std::move(conversation)), stop_(eventfd(0, EFD_CLOEXEC)),
          listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~server_t()
    {
        eventfd_write(stop_, 1);
        thread_.join();
        close(listener_);
        close(stop_);
    }
    server_t(const server_t &) = delete;
    server_t &operator=(const server_t &) = delete;

    endpoint_t endpoint() const { return {"127.0.0.1", std::to_string(port_)}; }

private:
    void serve()
    {
        pollfd polled[2] = {{listener_, POLLIN, 0}, {stop_, POLLIN, 0}};
        while (poll(polled, 2, -1) > 0 && polled[1].revents == 0) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            conversation_(fd);
            close(fd);
        }
    }

    std::function<void(int fd)> conversation_;
    int stop_;
    int listener_;
    uint16_t port_ = 0;
    std::thread thread_;
};

void send_all(int fd, const bytes_t &bytes)
{
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// Answers the first bytes that come with these, and then hangs up or holds the line until the client hangs
// up.
std::function<void(int)> answer(const bytes_t &bytes, bool hang_up)
{
    return [=](int fd) {
        char room[512];
        if (recv(fd, room, sizeof room, 0) > 0) {
            send_all(fd, bytes);
            while (!hang_up && recv(fd, room, sizeof room, 0) > 0) {
            }
        }
    };
}

session_options_t quick(std::chrono::milliseconds answer_time = 5s)
{
    session_options_t options;
    options.answer_time = answer_time;
    return options;
}

using call_t = std::function<void(session_t &)>;

failure_t failure_of(session_t &session, const call_t &call)
{
    try {
        call(session);
    } catch (const client_error_t &error) {
        return error.failure();
    }
    ADD_FAILURE() << "no error";
    return failure_t::LOCAL;
}

const call_t LIST = [](session_t &session) { session.list(msg_target::ALL); };
const call_t DETAIL = [](session_t &session) { session.detail(ADDR); };
const call_t HISTORY = [](session_t &session) { session.history_info(); };
const call_t REMOVE = [](session_t &session) { session.remove(ADDR, BOTH); };

TEST(Session, EveryRequestHasItsBytes)
{
    const std::vector<std::pair<call_t, bytes_t>> cases = {
        {[](session_t &s) {
             s.add({ADDR, DST, 1000, 60, "web"});
         },
         bytes_t{0, 9, 0, 1} + encoded<msg_add_t>(msg_encode_add, {ADDR, 1000, 60, 3}) + text("web")},
        {[](session_t &s) { s.remove(ADDR, SRC); }, bytes_t{0, 9, 1, 0} + encoded(msg_put_addr, ADDR)},
        {[](session_t &s) { s.history_on(258); }, {0, 9, 4, 4, 2, 1, 0, 0}},
        {[](session_t &s) { s.history_off(); }, {0, 9, 4, 5}},
        {[](session_t &s) { s.updates_on(); }, {0, 9, 5, 4}},
        {[](session_t &s) { s.updates_off(); }, {0, 9, 5, 5}},
        {[](session_t &s) { s.set_heavy_size(3); }, {0, 9, 7, 8, 3, 0, 0, 0}},
    };
    bytes_t expected;
    bytes_t seen;
    {
        const server_t server([&](int fd) {
            uint8_t room[512];
            for (ssize_t size = 0; (size = recv(fd, room, sizeof room, 0)) > 0;) {
                seen.insert(seen.end(), room, room + size);
                send_all(fd, header(msg_code::SUCCESS));
            }
        });
        session_t session(server.endpoint(), quick());
        for (const auto &[call, bytes] : cases) {
            call(session);
            expected = expected + bytes;
        }
    }
    EXPECT_EQ(seen, expected);
}

TEST(Session, RepliesAreDecoded)
{
    {
        const server_t server(answer(list_reply(), false));
        session_t session(server.endpoint(), quick());
        const rule_list_t rules = session.list(msg_target::ALL);
        ASSERT_EQ(rules.size(), 2U);
        EXPECT_EQ(rules[0].addr, ADDR);
        EXPECT_EQ(rules[0].direction, DST);
    }
    {
        const server_t server(answer(detail_reply(), false));
        session_t session(server.endpoint(), quick());
        const detail_t detail = session.detail(ADDR);
        EXPECT_EQ(detail.name, "web");
        EXPECT_EQ(detail.fields.time_limit_s, 4U);
    }
    const server_t server(answer(history_reply(), false));
    session_t session(server.endpoint(), quick());
    EXPECT_EQ(session.history_info().free, 9U);
}

TEST(Session, UpdatesBeforeAReplyAreKeptInOrder)
{
    const server_t server(answer(capture(1, 10) + visual(1, ",a_hc_0,,a_hc_1", ",a") + detail_reply() +
                                     capture(2, 5) + visual(2, "", ""),
                                 false));
    session_t session(server.endpoint(), quick());
    EXPECT_EQ(session.detail(ADDR).name, "web");
    const auto next = [&] { return session.next_update(std::chrono::steady_clock::now() + 5s).value(); };
    EXPECT_EQ(std::get<msg_update_capture_t>(next()).progress, 10);
    const auto finished = std::get<visual_t>(next());
    EXPECT_EQ(finished.history_files, (std::vector<std::string>{",a_hc_0", ",a_hc_1"})); // of a rule ",a"
    EXPECT_EQ(finished.live_file, ",a");
    EXPECT_EQ(std::get<msg_update_capture_t>(next()).rule_id, 2U);
    EXPECT_TRUE(std::get<visual_t>(next()).live_file.empty());
    EXPECT_FALSE(session.next_update(std::chrono::steady_clock::now() + 1ms));
}

TEST(Session, ARefusalLeavesTheSessionInStep)
{
    const server_t server([](int fd) {
        char room[512];
        for (const bytes_t &reply : {header(msg_code::FAIL), header(msg_code::UNRECOGNIZED), list_reply(),
                                     header(msg_code::UNRECOGNIZED)}) {
            if (recv(fd, room, sizeof room, 0) > 0) {
                send_all(fd, reply);
            }
        }
        while (recv(fd, room, sizeof room, 0) > 0) {
        }
    });
    session_t session(server.endpoint(), quick());
    EXPECT_EQ(failure_of(session, REMOVE), failure_t::REFUSED);
    EXPECT_EQ(failure_of(session, HISTORY), failure_t::UNRECOGNIZED);
    EXPECT_NO_THROW(LIST(session));
    EXPECT_EQ(failure_of(session, REMOVE), failure_t::UNRECOGNIZED); // its payload is taken for requests now
    EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED);
}

TEST(Session, AnAnswerCutAtAnyByteIsAnError)
{
    const std::pair<bytes_t, call_t> cases[] = {{list_reply(), LIST},
                                                {detail_reply(), DETAIL},
                                                {history_reply(), HISTORY},
                                                {visual(1, "a,b", "c") + header(msg_code::SUCCESS), REMOVE}};
    for (const auto &[whole, call] : cases) {
        std::atomic<std::ptrdiff_t> size = 0;
        const server_t server([&size, &whole = whole](int fd) {
            answer({whole.begin(), whole.begin() + size}, true)(fd);
        });
        for (; size < std::ssize(whole); size++) {
            session_t session(server.endpoint(), quick());
            EXPECT_EQ(failure_of(session, call), failure_t::CLOSED) << size;
        }
        session_t session(server.endpoint(), quick());
        EXPECT_NO_THROW(call(session));
    }
}

TEST(Session, SilenceEndsAtTheAnswerTime)
{
    const bytes_t part = list_reply();
    for (const size_t size : {size_t{0}, size_t{3}, part.size() - 1}) {
        const server_t server(
            answer({part.begin(), part.begin() + static_cast<std::ptrdiff_t>(size)}, false));
        session_t session(server.endpoint(), quick(100ms));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(failure_of(session, LIST), failure_t::TIMEOUT);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, 100ms);
        EXPECT_LT(took, 4s);
        EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED); // the late reply must not answer this one
    }
}

TEST(Session, UpdatesWithoutEndDoNotPutOffTheAnswerTime)
{
    for (const bytes_t &update : {capture(1, 1), visual(1, std::string(60000, 'a'), "")}) {
        const server_t server([&](int fd) {
            char room[16];
            bytes_t many;
            for (int i = 0; i < 20; i++) {
                many = many + update;
            }
            while (recv(fd, room, sizeof room, MSG_DONTWAIT) != 0 &&
                   send(fd, many.data(), many.size(), MSG_NOSIGNAL) > 0) {
            }
        });
        session_t session(server.endpoint(), quick(300ms));
        const auto start = std::chrono::steady_clock::now();
        const failure_t failure = failure_of(session, LIST);
        EXPECT_TRUE(failure == failure_t::TIMEOUT || failure == failure_t::MALFORMED);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    }
}

TEST(Session, WhatTheProtocolDoesNotAllowIsMalformed)
{
    bytes_t wrong_direction = list_reply();
    wrong_direction.back() = 3;
    bytes_t wrong_percent = detail_reply();
    wrong_percent[4 + 17] = 101;
    bytes_t other_address = detail_reply();
    other_address[4 + 4] = 2;
    const std::pair<bytes_t, call_t> cases[] = {
        {text("HTTP/1.1 400 Bad Request\r\n\r\n"), LIST},
        {{0, 8, 0, 0}, REMOVE},
        {{0, 9, 0, 1}, REMOVE},
        {{0, 9, 7, 0}, REMOVE},
        {{0, 9, 6, 0, 5}, REMOVE},
        {{0, 9, 6, 0, 0}, REMOVE},
        {capture(1, 101), REMOVE},
        {header(msg_code::IP_LIST) + bytes_t{1, 0, 16, 0}, LIST},
        {header(msg_code::IP_LIST) + bytes_t{255, 255, 255, 255}, LIST},
        {wrong_direction, LIST},
        {wrong_percent, DETAIL},
        {other_address, DETAIL},
        {list_reply(), REMOVE},
        {header(msg_code::SUCCESS), LIST},
        {history_reply(), DETAIL},
    };
    for (const auto &[reply, call] : cases) {
        const server_t server(answer(reply, false));
        session_t session(server.endpoint(), quick());
        EXPECT_EQ(failure_of(session, call), failure_t::MALFORMED) << ::testing::PrintToString(reply);
        EXPECT_EQ(failure_of(session, call), failure_t::CLOSED);
    }
    const server_t server(answer(header(msg_code::SUCCESS) + header(msg_code::SUCCESS), false));
    session_t session(server.endpoint(), quick());
    session.updates_on();
    EXPECT_EQ(failure_of(session, [](session_t &s) { s.next_update(std::chrono::steady_clock::now() + 5s); }),
              failure_t::MALFORMED);
}

TEST(Session, AnInterruptEndsAWaitAndUpdatesGoOnAfterIt)
{
    const int interrupt = eventfd(0, EFD_CLOEXEC);
    session_options_t options = quick(60s);
    options.interrupt_fd = interrupt;
    const server_t server(answer(header(msg_code::SUCCESS) + capture(4, 1), false));
    session_t session(server.endpoint(), options);
    session.updates_on();
    eventfd_write(interrupt, 1);
    int updates = 0; // one that is here already is given out first
    const call_t follow = [&](session_t &s) {
        while (s.next_update(std::chrono::steady_clock::now() + 60s)) {
            updates++;
        }
    };
    EXPECT_EQ(failure_of(session, follow), failure_t::INTERRUPTED);
    eventfd_t count = 0;
    eventfd_read(interrupt, &count);
    updates += session.next_update(std::chrono::steady_clock::now() + (updates == 0 ? 5s : 0s)) ? 1 : 0;
    EXPECT_EQ(updates, 1);

    eventfd_write(interrupt, 1);
    EXPECT_EQ(failure_of(session, LIST), failure_t::INTERRUPTED);
    EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED); // its reply may still come
    close(interrupt);
}

TEST(Session, NoConnectionIsSaidInTime)
{
    endpoint_t refused;
    {
        const server_t server([](int) {});
        refused = server.endpoint();
    }
    EXPECT_THROW(session_t(refused, quick()), client_error_t);
    EXPECT_THROW(session_t({"no-such-host.invalid", "1"}, quick()), client_error_t);

    // A listener whose queue is full does not answer: the connection must give up by itself.
    const int full = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(full, reinterpret_cast<sockaddr *>(&address), size), 0);
    ASSERT_EQ(listen(full, 0), 0);
    ASSERT_EQ(getsockname(full, reinterpret_cast<sockaddr *>(&address), &size), 0);
    session_options_t options = quick();
    options.connect_time = 200ms;
    std::vector<std::unique_ptr<session_t>> queued;
    const endpoint_t endpoint = {"127.0.0.1", std::to_string(ntohs(address.sin_port))};
    bool gave_up = false;
    for (int i = 0; i < 4 && !gave_up; i++) {
        const auto start = std::chrono::steady_clock::now();
        try {
            queued.push_back(std::make_unique<session_t>(endpoint, options));
        } catch (const client_error_t &error) {
            gave_up = error.failure() == failure_t::CONNECT;
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    }
    EXPECT_TRUE(gave_up);
    close(full);
}

// Random damage to good messages: an answer, a refusal or a wish for more, never a crash; the sanitizers
// watch.
TEST(Decoder, DamagedMessagesNeverCrash)
{
    std::mt19937 random(1);
    const bytes_t good[] = {
        list_reply(),          detail_reply(), history_reply(), capture(1, 2), visual(1, "a,bc,d", "ef"),
        header(msg_code::FAIL)};
    int decoded = 0;
    int refused = 0;
    for (int i = 0; i < 100000; i++) {
        bytes_t bytes = good[random() % std::size(good)];
        for (auto changes = random() % 4; changes > 0; changes--) {
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        }
        bytes.resize(random() % (bytes.size() + 1));
        bytes.shrink_to_fit();
        try {
            size_t used = 0;
            const bool whole = decode_message(bytes, &used).has_value();
            EXPECT_LE(used, bytes.size());
            EXPECT_EQ(whole, used > 0);
            decoded += whole ? 1 : 0;
        } catch (const client_error_t &error) {
            EXPECT_EQ(error.failure(), failure_t::MALFORMED);
            refused++;
        }
    }
    EXPECT_GT(decoded, 1000);
    EXPECT_GT(refused, 1000);
}

} // namespace
