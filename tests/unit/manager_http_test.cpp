// Parts of the HTTP interface that need no connection (inside of http/): ranges, names, routes, tokens, queries.
#include "forms/forms.h"
#include "http/address_counts.h"
#include "http/host_check.h"
#include "http/limits.h"
#include "http/query.h"
#include "http/range.h"
#include "http/routes.h"
#include "http/tokens.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace kestrune::manager {
namespace {

TEST(ManagerHttp, RangesOfAFile)
{
    constexpr auto WHOLE = range_result_t::WHOLE;
    constexpr auto PART = range_result_t::PART;
    constexpr auto NONE = range_result_t::UNSATISFIABLE;
    const struct {
        const char *field;
        range_result_t result;
        uint64_t offset;
        uint64_t length;
    } cases[] = {
        {"bytes=0-0", PART, 0, 1},   {"bytes=5-", PART, 5, 5},    {"Bytes=2-3", PART, 2, 2},
        {"bytes=9-100", PART, 9, 1}, {"bytes=-3", PART, 7, 3},    {"bytes=-100", PART, 0, 10},
        {"bytes=10-", NONE, 0, 0},   {"bytes=-0", NONE, 0, 0},    {"bytes=99999999999999999999-", NONE, 0, 0},
        {"bytes=3-2", WHOLE, 0, 0},  {"bytes=-", WHOLE, 0, 0},    {"bytes=1-2,4-5", WHOLE, 0, 0},
        {"bytes=a-2", WHOLE, 0, 0},  {"bytes=1-2x", WHOLE, 0, 0}, {"lines=1-2", WHOLE, 0, 0},
        {"bytes=+1-2", WHOLE, 0, 0}, {"", WHOLE, 0, 0},
    };
    for (const auto &[field, result, offset, length] : cases) {
        const byte_range_t range = parse_range(field, 10);
        EXPECT_EQ(range.result, result) << field;
        EXPECT_EQ(range.offset, offset) << field;
        EXPECT_EQ(range.length, length) << field;
    }
    EXPECT_EQ(parse_range("bytes=0-", 0).result, NONE);
    EXPECT_TRUE(matches_etag("\"x\", W/\"y\"", "\"y\"") && matches_etag("*", "\"y\""));
    EXPECT_FALSE(matches_etag("\"yy\"", "\"y\"") || range_applies("W/\"y\"", "\"y\""));
}

TEST(ManagerHttp, HostsAndOrigins)
{
    const host_check_t here("127.0.0.1", {"Kestrune.example"});
    for (const char *host :
         {"127.0.0.1:8564", "localhost", "LOCALHOST:1", "kestrune.example:443", "kestrune.example."}) {
        EXPECT_TRUE(here.host_allowed(host)) << host;
    }
    for (const char *host : {"", "evil.example", "127.0.0.2", "localhost:x", "localhost.evil.example",
                             "[::1]", "[::1", ":80", "kestrune.example@evil"}) {
        EXPECT_FALSE(here.host_allowed(host)) << host;
    }
    EXPECT_TRUE(host_check_t("::1", {}).host_allowed("[0:0::1]:80"));
    const host_check_t everywhere("0.0.0.0", {});
    EXPECT_TRUE(everywhere.host_allowed("192.0.2.7") && !everywhere.host_allowed("evil.example"));

    const struct {
        const char *origin;
        const char *host;
        bool allowed;
    } cases[] = {
        {"http://localhost:8564", "localhost:8564", true},
        {"https://k.example", "K.example", true},
        {"https://k.example:443", "k.example", true},
        {"http://k.example", "k.example:80", true},
        {"http://localhost:3000", "localhost:8564", false},
        {"http://evil.example", "localhost", false},
        {"null", "localhost", false},
        {"", "localhost", false},
        {"file://localhost", "localhost", false},
    };
    for (const auto &[origin, host, allowed] : cases) {
        EXPECT_EQ(host_check_t::origin_allowed(origin, host), allowed) << origin << " " << host;
    }
}

TEST(ManagerHttp, RoutesHaveTheirPatterns)
{
    EXPECT_EQ(find_route("GET", "/api/v1/captures/X/pcap").segments, std::vector<std::string>{"X"});
    EXPECT_EQ(find_route("HEAD", "/").route->action, action_t::PAGE);
    EXPECT_EQ(find_route("PATCH", "/api/v1/captures/X").allow, "GET, HEAD, DELETE");
    EXPECT_EQ(find_route("PATCH", "/api/v1/captures/X").route, nullptr);
    for (const char *path :
         {"", "//", "/api/v1/captures/", "/api/v1/captures//pcap", "/api/v1/captures/X/pcap/",
          "/api/v1/captures/X/../X", "/api/v1", "*", "http://localhost/"}) {
        EXPECT_EQ(find_route("GET", path).allow, "") << path;
    }
}

TEST(ManagerHttp, QueriesAreStrict)
{
    const auto field_of = [](const char *text) {
        try {
            (void)parse_capture_query(text);
            return std::string("ok");
        } catch (const form_error_t &error) {
            return error.field();
        }
    };
    EXPECT_EQ(field_of("address=2001%3adb8::1&text=a+b&state=sealed,failed&sort=-bytes&limit=1000"), "ok");
    EXPECT_EQ(field_of("since=2026-11-23T07:00:00Z&until=2026-11-23T07:00:00.5%2B01:00"), "ok");
    EXPECT_EQ(field_of("limit=1001"), "limit");
    EXPECT_EQ(field_of("limit="), "limit");
    EXPECT_EQ(field_of("limit=1&limit=2"), "limit");
    EXPECT_EQ(field_of("state=sealed,"), "state");
    EXPECT_EQ(field_of("sort=size"), "sort");
    EXPECT_EQ(field_of("since=yesterday"), "since");
    EXPECT_EQ(field_of("address=10.0.0.0/8"), "address");
    EXPECT_EQ(field_of("text=%0a"), "text");
    EXPECT_EQ(field_of("text=%4"), "");
    EXPECT_EQ(field_of("x=1"), "x");
    EXPECT_EQ(parse_capture_query("text=a+b%2B").text, "a b+");
}

TEST(ManagerHttp, TokenFileIsPrivateAndChecked)
{
    namespace fs = std::filesystem;
    const fs::path path = fs::temp_directory_path() / ("kestrune-tokens-" + std::to_string(getpid()));
    const std::string token(20, 't');
    const auto error_of = [&](const std::string &text, fs::perms mode = fs::perms::owner_read) {
        fs::remove(path);
        std::ofstream(path) << text;
        fs::permissions(path, mode);
        try {
            return std::to_string(token_table_t::read(path.string())->find(token) != nullptr);
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(std::string(error.what()).find(token.substr(0, 19)),
                      std::string::npos); // no token in a log
            return std::string(error.what()).substr(path.string().size());
        }
    };
    EXPECT_EQ(error_of("# comment\n\nann read " + token + "\r\n"), "1");
    EXPECT_EQ(error_of("ann read " + token + "x\n"), "0");
    EXPECT_EQ(error_of("ann read " + token + "\n", fs::perms(0640)), ": others may read it; use chmod 600");
    EXPECT_EQ(error_of("ann write " + token + "\n"), ":1: the role is read, record or admin");
    EXPECT_EQ(error_of("\nann read " + token.substr(1) + "\n").substr(0, 3), ":2:");
    EXPECT_EQ(error_of("ann read " + token + " x\n").substr(0, 3), ":1:");
    EXPECT_EQ(error_of("ann read " + token + "\nbob read " + token + "\n").substr(0, 3), ":2:");
    EXPECT_EQ(error_of("").substr(0, 14), ": has no token");
    fs::remove(path);
    EXPECT_TRUE(make_token_file(path.string()));
    EXPECT_FALSE(make_token_file(path.string()));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
    EXPECT_EQ(token_table_t::read(path.string())->names(), "admin (admin)");
    fs::remove(path);
}

TEST(ManagerHttp, CountsOfAnAddressLastAMinuteAndTakeBoundedRoom)
{
    address_counts_t counts;
    const steady_time_t now{};
    for (size_t i = 0; i < 3 * WRONG_ADDRESSES_MAX; ++i) { // of one /64: one address
        EXPECT_EQ(counts.add("2001:db8::" + std::to_string(i % 1000), now), i + 1);
    }
    EXPECT_EQ(counts.add("2001:db8:0:1::1", now + WRONG_TOKENS_PERIOD), 1U);
    const auto old = counts.take_old(now + WRONG_TOKENS_PERIOD);
    ASSERT_EQ(old.size(), 1U);
    EXPECT_EQ(old[0].address, "2001:db8::/64");
    for (size_t i = 0; i < 2 * WRONG_ADDRESSES_MAX; ++i) {
        EXPECT_EQ(counts.add("host" + std::to_string(i), now), 1U);
    }
    EXPECT_EQ(counts.take_old(now + 2 * WRONG_TOKENS_PERIOD).size(), WRONG_ADDRESSES_MAX);
}

} // namespace
} // namespace kestrune::manager
