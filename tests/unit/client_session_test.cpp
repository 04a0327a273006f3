// The client library against servers that answer with one row of bytes, over loopback. What good servers
// make of its requests is seen where kestrunectl is driven as a program.
#include "client/session.h"

#include "support/local_server.h"
#include "support/wire.h"

#include <random>

namespace {

using namespace kestrune;
using namespace std::chrono_literals;
using steady_t = std::chrono::steady_clock;

const ip_addr_t ADDR = numbered_address(1);
const msg_ip_list_item_t ITEM = {ADDR, BOTH};
const std::string LIST_HEADER = encoded(msg_answer(msg_code::IP_LIST));
const std::string LIST_REPLY = LIST_HEADER + hex("02 00 00 00") + encoded(ITEM, ITEM);
const std::string DETAIL_REPLY =
    encoded(msg_answer(msg_code::IP_DETAIL), msg_ip_detail_t{ADDR, BOTH, 50, 1, 2, 3, 4, 3}) + "web";
const std::string HISTORY_REPLY =
    encoded(msg_answer(msg_code::HB_INFO), msg_hb_info_t{1, 2, 3, 4, 5, 6, 7, 8, 9});

// Answers the n-th bytes that come with the n-th of these, and then hangs up or holds the line until the
// client hangs up.
std::function<void(int)> answer(const std::vector<std::string> &replies, bool hang_up = false)
{
    return [=](int fd) {
        char room[512];
        for (const std::string &bytes : replies) {
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
    const local_server_t server(
        answer({capture(1, 10) + visual(1, 1, 2, ",a_hc_0,,a_hc_1", ",a") + DETAIL_REPLY, FAIL, UNRECOGNIZED,
                LIST_REPLY, UNRECOGNIZED}));
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
    const std::pair<std::string, failure_t> cases[] = {
        {UNRECOGNIZED, failure_t::UNRECOGNIZED}, {LIST_REPLY, failure_t::MALFORMED}, {"", failure_t::CLOSED}};
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

TEST(Session, NeitherSilenceNorUpdatesWithoutEndPutOffTheAnswerTime)
{
    const std::string part = LIST_REPLY.substr(0, LIST_REPLY.size() - 1);
    const auto flood = [](int fd) {
        const std::string update = visual(1, 1, 2, std::string(60000, 'a'), "");
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
    std::string wrong_direction = LIST_REPLY, wrong_percent = DETAIL_REPLY, other_address = DETAIL_REPLY;
    wrong_direction.back() = 3;
    wrong_percent[4 + 17] = 101;
    other_address[4 + 4] = 2;
    const std::pair<std::string, call_t> cases[] = {
        {hex("00 09 00 01"), REMOVE},
        {hex("00 09 07 00"), REMOVE},
        {hex("00 09 06 00 05"), REMOVE},
        {capture(1, 101), REMOVE},
        {LIST_HEADER + hex("01 00 10 00"), LIST},
        {LIST_HEADER + hex("ff ff ff ff"), LIST},
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
    for (const std::string &bytes : {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), hex("00 08 00 00")}) {
        const local_server_t server(answer({bytes}));
        session_t session(server.endpoint, {});
        EXPECT_EQ(failure_of(session, REMOVE), failure_t::VERSION);
    }
}

// Cut at any byte a message is not whole. Random damage makes it an answer, a refusal or a wish for more, never
// a crash; the sanitizers watch.
TEST(Decoder, CutMessagesAreNotWholeAndDamagedOnesNeverCrash)
{
    std::mt19937 random(1);
    int decoded = 0, refused = 0;
    for (const std::string &good :
         {LIST_REPLY, DETAIL_REPLY, HISTORY_REPLY, capture(1, 2), visual(1, 1, 2, "a,bc,d", "ef"), SUCCESS}) {
        for (size_t i = 0; i < 20000; i++) {
            std::vector<uint8_t> bytes(good.begin(), good.end());
            bytes.resize(i % (good.size() + 1));
            bytes.shrink_to_fit();
            for (auto changes = i <= good.size() ? 0 : random() % 4; changes > 0 && !bytes.empty();
                 changes--) {
                bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
            }
            try {
                size_t used = 0;
                const bool whole = decode_message(bytes, &used).has_value();
                EXPECT_TRUE(used <= bytes.size() && whole == (used > 0));
                EXPECT_TRUE(i > good.size() || whole == (i == good.size())) << i;
                decoded += whole ? 1 : 0;
            } catch (const client_error_t &error) {
                EXPECT_TRUE(error.failure() == failure_t::MALFORMED || error.failure() == failure_t::VERSION);
                EXPECT_GT(i, good.size());
                refused++;
            }
        }
    }
    EXPECT_TRUE(decoded > 1000 && refused > 1000);
}

} // namespace
