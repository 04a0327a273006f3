#include "client/text_forms.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace kestrune;
using namespace std::chrono_literals;

TEST(Address, EveryUsualFormGivesItsKey)
{
    const ip_addr_t v4 = {{0xFF, 0xFF, 0xFF, 0xFF, 4, 3, 2, 1}};
    for (const char *text : {"1.2.3.4", "::ffff:1.2.3.4", "::FFFF:102:304", "0:0:0:0:0:ffff:1.2.3.4"}) {
        EXPECT_EQ(parse_address(text), v4) << text;
    }
    const ip_addr_t v6 = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 1, 0x20}};
    for (const char *text : {"2001:db8::1", "2001:DB8:0:0::1", "2001:0db8:0000:0000:0000:0000:0000:0001",
                             "[2001:db8::1]", "2001:db8::0.0.0.1"}) {
        EXPECT_EQ(parse_address(text), v6) << text;
    }
    EXPECT_EQ(parse_address("::"), ip_addr_t{});
}

TEST(Address, WhatIsNoAddressIsRefusedWithItsReason)
{
    const std::pair<const char *, const char *> cases[] = {
        {"", "not an IP address"},       {"www.example.org", "host name"},
        {"localhost", "host name"},      {"10.0.0.0/8", "network"},
        {"2001:db8::/32", "network"},    {"fe80::1%eth0", "zone"},
        {"10.1", "four numbers"},        {"256.0.0.1", "four numbers"},
        {"010.0.0.1", "leading zeros"},  {"1:2", "not an IPv6 address"},
        {"::1:2:3:4:5:6:7:8", "not an"}, {"::102:304:ffff:ffff", "IPv4 address 1.2.3.4"},
        {"[10.0.0.1]", "host name"},     {" 10.0.0.1", "host name"},
    };
    for (const auto &[text, reason] : cases) {
        try {
            parse_address(text);
            ADD_FAILURE() << text << " was accepted";
        } catch (const std::invalid_argument &error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos)
                << text << ": " << error.what();
        }
    }
}

TEST(Endpoint, HostAndPortAreToldApart)
{
    const std::pair<const char *, const char *> cases[] = {
        {"probe", "probe:37564"},
        {"probe:1", "probe:1"},
        {"10.0.0.1:65535", "10.0.0.1:65535"},
        {"::1", "[::1]:37564"},
        {"[::1]", "[::1]:37564"},
        {"[::1]:99", "[::1]:99"},
        {"2001:db8::5", "[2001:db8::5]:37564"},
        {"fe80::1%eth0", "[fe80::1%eth0]:37564"},
    };
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(parse_endpoint(text).text(), expected);
    }
    for (const char *text : {"", ":1", "host:", "host:0", "host:65536", "host:http", "[::1", "[::1]9", "[]:1",
                             "http://host", "a b"}) {
        EXPECT_THROW(parse_endpoint(text), std::invalid_argument) << text;
    }
}

TEST(Duration, UnitsAddUpAndLimitsHold)
{
    const std::pair<const char *, std::chrono::milliseconds> cases[] = {
        {"90s", 90s}, {"5m", 5min}, {"1h30m", 90min}, {"2d", 48h}, {"7", 7s}, {"250ms", 250ms}};
    for (const auto &[text, duration] : cases) {
        EXPECT_EQ(parse_duration(text), duration) << text;
    }
    EXPECT_EQ(parse_time_limit("4294967295"), 4294967295U);
    for (const char *text :
         {"", "s", "5x", "-5s", "1.5h", "5 m", "99999999999999999999", "4294967296", "50000d", "5m-"}) {
        EXPECT_THROW(parse_duration(text), std::invalid_argument) << text;
    }
    for (const char *text : {"0", "0s", "500ms", "4294967296"}) {
        EXPECT_THROW(parse_time_limit(text), std::invalid_argument) << text;
    }
}

TEST(Size, IsInMegabytesAndNeedsAUnit)
{
    const std::pair<const char *, uint32_t> cases[] = {{"512M", 512},
                                                       {"8G", 8192},
                                                       {"8gib", 8192},
                                                       {"4095T", 4095U * 1024 * 1024},
                                                       {"4294967295MB", 4294967295U}};
    for (const auto &[text, megabytes] : cases) {
        EXPECT_EQ(parse_size_mb(text), megabytes) << text;
    }
    for (const char *text : {"", "512", "M", "0M", "1.5G", "-1G", "4096T", "4294967296M",
                             "18446744073709551616M", "5K", "8 G"}) {
        EXPECT_THROW(parse_size_mb(text), std::invalid_argument) << text;
    }
}

TEST(RuleName, LengthAndCharactersAreChecked)
{
    EXPECT_NO_THROW(check_rule_name(std::string(127, 'x')));
    EXPECT_NO_THROW(check_rule_name("caf\xc3\xa9 at noon"));
    const std::string wrong[] = {
        "", std::string(128, 'x'), "a/b", "a,b", "$(id)", "`id`", "a\"b", "a\\b", "a\nb", {"a\0b", 3}};
    for (const std::string &name : wrong) {
        EXPECT_THROW(check_rule_name(name), std::invalid_argument) << name;
    }
    EXPECT_EQ(default_rule_name(parse_address("2001:db8::1")), "2001-db8--1");
    EXPECT_NO_THROW(check_rule_name(default_rule_name(parse_address("::"))));
}

TEST(Printable, LeavesNothingThatSteersATerminal)
{
    EXPECT_EQ(printable("\033[2Jx\r\n\x7f"), "?[2Jx???");
    EXPECT_EQ(printable("caf\xc3\xa9 \xc2\x9b"), "caf\xc3\xa9 ??");
}

} // namespace
