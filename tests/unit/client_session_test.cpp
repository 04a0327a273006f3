// The client library against servers that answer with one row of bytes, over loopback. What good servers
// make of its requests is seen where kestrunectl is driven as a program.
#include "client/session.h"

#include "support/local_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <sys/socket.h>
#include <thread>

namespace {

using namespace kestrune;
using namespace std::chrono_literals;
using bytes_t = std::vector<uint8_t>;
using steady_t = std::chrono::steady_clock;

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
bytes_t reply(uint8_t code, const T &value)
{
    bytes_t bytes(64);
    msg_writer_t out = msg_writer(bytes.data(), 64);
    EXPECT_TRUE(msg_encode(&out, msg_answer(code)) && msg_encode(&out, value));
    bytes.resize(out.used);
    return bytes;
}

bytes_t capture(uint32_t id, uint8_t progress)
{
    return reply<msg_update_capture_t>(msg_code::UPDATE, {id, progress});
}

bytes_t visual(const std::string &history, const std::string &live)
{
    const msg_update_visual_t fields = {1, 1, 2, static_cast<uint16_t>(history.size()),
                                        static_cast<uint16_t>(live.size())};
    return reply(msg_code::UPDATE, fields) + text(history + live);
}

const bytes_t SUCCESS = {0, 9, msg_code::SUCCESS, 0};
const bytes_t FAIL = {0, 9, msg_code::FAIL, 0};
const bytes_t UNRECOGNIZED = {0, 9, msg_code::UNRECOGNIZED, 0};
const bytes_t LIST_HEADER = {0, 9, msg_code::IP_LIST, 0};
const bytes_t ITEM = {0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, BOTH};
const bytes_t LIST_REPLY = LIST_HEADER + bytes_t{2, 0, 0, 0} + ITEM + ITEM;
const bytes_t DETAIL_REPLY =
    reply<msg_ip_detail_t>(msg_code::IP_DETAIL, {ADDR, BOTH, 50, 1, 2, 3, 4, 3}) + text("web");
const bytes_t HISTORY_REPLY = reply<msg_hb_info_t>(msg_code::HB_INFO, {1, 2, 3, 4, 5, 6, 7, 8, 9});

// Answers the n-th bytes that come with the n-th of these, and then hangs up or holds the line until the
// client hangs up.
std::function<void(int)> answer(const std::vector<bytes_t> &replies, bool hang_up = false)
{
    return [=](int fd) {
        char room[512];
        for (const bytes_t &bytes : replies) {
            if (recv(fd, room, sizeof room, 0) > 0) {
                send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            }
        }
        while (!hang_up && recv(fd, room, sizeof room, 0) > 0) {
        }
    };
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

const call_t LIST = [](session_t &session) { EXPECT_EQ(session.list(msg_target::ALL).size(), 2U); };
const call_t DETAIL = [](session_t &session) { EXPECT_EQ(session.detail(ADDR).name, "web"); };
const call_t HISTORY = [](session_t &session) { EXPECT_EQ(session.history_info().free, 9U); };
const call_t REMOVE = [](session_t &session) { session.remove(ADDR, BOTH); };

TEST(Session, UpdatesBeforeAReplyAreKeptAndARefusalLeavesTheSessionInStep)
{
    const local_server_t server(answer({capture(1, 10) + visual(",a_hc_0,,a_hc_1", ",a") + DETAIL_REPLY, FAIL,
                                        UNRECOGNIZED, LIST_REPLY, UNRECOGNIZED}));
    session_t session(server.endpoint, {});
    DETAIL(session);
    const auto next = [&] { return session.next_update(steady_t::now() + 5s).value(); };
    EXPECT_EQ(std::get<msg_update_capture_t>(next()).progress, 10);
    const auto finished = std::get<visual_t>(next());
    EXPECT_EQ(finished.history_files, (std::vector<std::string>{",a_hc_0", ",a_hc_1"})); // of a rule ",a"
    EXPECT_EQ(finished.live_file, ",a");
    EXPECT_FALSE(session.next_update(steady_t::now() + 1ms));
    EXPECT_EQ(failure_of(session, REMOVE), failure_t::REFUSED);
    EXPECT_EQ(failure_of(session, HISTORY), failure_t::UNRECOGNIZED);
    EXPECT_NO_THROW(LIST(session));
    EXPECT_EQ(failure_of(session, REMOVE), failure_t::UNRECOGNIZED); // its payload is taken for requests now
    EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED);
}

TEST(Session, ManyRequestsOfWhichOneFailsKeepTheAnswersBefore)
{
    const std::pair<bytes_t, failure_t> cases[] = {
        {UNRECOGNIZED, failure_t::UNRECOGNIZED}, {LIST_REPLY, failure_t::MALFORMED}, {{}, failure_t::CLOSED}};
    for (const auto &[bytes, failure] : cases) {
        const local_server_t server(answer({SUCCESS + FAIL + bytes}, true));
        session_t session(server.endpoint, {});
        std::vector<bool> taken;
        const auto call = [&taken](session_t &asked) {
            asked.add_many(std::vector<add_request_t>(3, {ADDR, BOTH, 1, 1, "web"}), &taken);
        };
        EXPECT_EQ(failure_of(session, call), failure);
        EXPECT_EQ(taken, (std::vector<bool>{true, false}));
        EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED);
    }
    const local_server_t server(answer({DETAIL_REPLY + FAIL}));
    session_t session(server.endpoint, {});
    std::vector<std::optional<detail_t>> details;
    session.detail_many(std::vector<ip_addr_t>(2, ADDR), &details);
    EXPECT_TRUE(details.at(0).value().name == "web" && !details.at(1));
}

TEST(Session, AnAnswerCutAtAnyByteIsAnError)
{
    const std::pair<bytes_t, call_t> cases[] = {{LIST_REPLY, LIST},
                                                {DETAIL_REPLY, DETAIL},
                                                {HISTORY_REPLY, HISTORY},
                                                {visual("a,b", "c") + SUCCESS, REMOVE}};
    for (const auto &[whole, call] : cases) {
        std::atomic<std::ptrdiff_t> size = 0;
        const local_server_t server([&size, &whole = whole](int fd) {
            answer({{whole.begin(), whole.begin() + size}}, true)(fd);
        });
        for (; size < std::ssize(whole); size++) {
            session_t session(server.endpoint, {});
            EXPECT_EQ(failure_of(session, call), failure_t::CLOSED) << size;
        }
        session_t session(server.endpoint, {});
        EXPECT_NO_THROW(call(session));
    }
}

TEST(Session, NeitherSilenceNorUpdatesWithoutEndPutOffTheAnswerTime)
{
    const bytes_t part(LIST_REPLY.begin(), LIST_REPLY.end() - 1);
    const auto flood = [](int fd) {
        const bytes_t update = visual(std::string(60000, 'a'), "");
        while (send(fd, update.data(), update.size(), MSG_NOSIGNAL) > 0) {
        }
    };
    const std::pair<std::function<void(int)>, bool> conversations[] = {
        {answer({}), false}, {answer({part}), false}, {flood, true}}; // too much before the time is over
    for (const auto &[conversation, flooding] : conversations) {
        const local_server_t server(conversation);
        session_t session(server.endpoint, {.answer_time = 200ms});
        const auto start = steady_t::now();
        const failure_t failure = failure_of(session, LIST);
        const auto took = steady_t::now() - start;
        EXPECT_TRUE(failure == failure_t::TIMEOUT || (flooding && failure == failure_t::MALFORMED));
        EXPECT_TRUE(took < 10s && (flooding || took >= 200ms));
        EXPECT_EQ(failure_of(session, LIST), failure_t::CLOSED); // the late reply must not answer this one
    }
}

TEST(Session, WhatTheProtocolDoesNotAllowIsMalformed)
{
    bytes_t wrong_direction = LIST_REPLY;
    wrong_direction.back() = 3;
    bytes_t wrong_percent = DETAIL_REPLY;
    wrong_percent[4 + 17] = 101;
    bytes_t other_address = DETAIL_REPLY;
    other_address[4 + 4] = 2;
    const std::pair<bytes_t, call_t> cases[] = {
        {{0, 9, 0, 1}, REMOVE},
        {{0, 9, 7, 0}, REMOVE},
        {{0, 9, 6, 0, 5}, REMOVE},
        {capture(1, 101), REMOVE},
        {LIST_HEADER + bytes_t{1, 0, 16, 0}, LIST},
        {LIST_HEADER + bytes_t{255, 255, 255, 255}, LIST},
        {wrong_direction, LIST},
        {wrong_percent, DETAIL},
        {other_address, DETAIL},
        {LIST_REPLY, REMOVE},
        {SUCCESS, LIST},
        {HISTORY_REPLY, DETAIL},
    };
    for (const auto &[bytes, call] : cases) {
        const local_server_t server(answer({bytes}));
        session_t session(server.endpoint, {});
        EXPECT_EQ(failure_of(session, call), failure_t::MALFORMED) << ::testing::PrintToString(bytes);
        EXPECT_EQ(failure_of(session, call), failure_t::CLOSED);
    }
    for (const bytes_t &bytes : {text("HTTP/1.1 400 Bad Request\r\n\r\n"), bytes_t{0, 8, 0, 0}}) {
        const local_server_t server(answer({bytes}));
        session_t session(server.endpoint, {});
        EXPECT_EQ(failure_of(session, REMOVE), failure_t::VERSION);
    }
}

// Random damage to good messages: an answer, a refusal or a wish for more, never a crash; the sanitizers
// watch.
TEST(Decoder, DamagedMessagesNeverCrash)
{
    std::mt19937 random(1);
    const bytes_t good[] = {LIST_REPLY,    DETAIL_REPLY,           HISTORY_REPLY,
                            capture(1, 2), visual("a,bc,d", "ef"), SUCCESS};
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
            EXPECT_TRUE(used <= bytes.size() && whole == (used > 0));
            decoded += whole ? 1 : 0;
        } catch (const client_error_t &error) {
            EXPECT_TRUE(error.failure() == failure_t::MALFORMED || error.failure() == failure_t::VERSION);
            refused++;
        }
    }
    EXPECT_TRUE(decoded > 1000 && refused > 1000);
}

} // namespace
