#include "client/find_addresses.h"
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
        {"10.0.0.1:443", "has a port"},  {"1.2.3.4::5", "not an IPv6 address"},
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

TEST(Address, IsFoundInAnyTextEachOnce)
{
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"10.0.0.1\n10.0.0.2 10.0.0.1,10.0.0.3;::ffff:10.0.0.2", {"10.0.0.1", "10.0.0.2", "10.0.0.3"}},
        {"# 10.0.0.1\n10.0.0.2 # 10.0.0.3\nweb#10.0.0.4", {"10.0.0.2", "10.0.0.4"}},
        {"Nov 23 05:12:03 sshd[12]: from 192.0.2.17 port 22.", {"192.0.2.17"}},
        {R"({"src":"10.0.0.1","dst":"2001:DB8::1"} src:10.0.0.2 src:2001:db8::2)",
         {"10.0.0.1", "2001:db8::1", "10.0.0.2", "2001:db8::2"}},
        {"IP 10.0.0.1.443 > 10.0.0.2.55555: IP6 2001:db8::1.53 > fe80::: Flags",
         {"10.0.0.1", "10.0.0.2", "2001:db8::1", "fe80::"}},
        {"10.0.0.1:443 [2001:db8::1]:443 10.0.0.2:http fe80::1%eth0 http://10.0.0.3/8/x (10.0.0.4).",
         {"10.0.0.1", "2001:db8::1", "10.0.0.2", "fe80::1", "10.0.0.3", "10.0.0.4"}},
        {"10.0.0.1/32 2001:db8::1/128", {"10.0.0.1", "2001:db8::1"}},
        {"1.2.3 256.0.0.1 1.2.3.4.5.6 v1.2.3.4x 00:11:22:33:44:55 std::dec a :: b add 12:34:56 x::1", {}},
    };
    for (const auto &[text, expected] : cases) {
        std::vector<std::string> found;
        for (const ip_addr_t &addr : find_addresses(text).addrs) {
            found.emplace_back(ip_addr_text(addr).text);
        }
        EXPECT_EQ(found, expected) << text;
    }
    const found_addresses_t found = find_addresses("\n10.0.0.0/8 ::102:304:ffff:ffff\n2001:db8::/32");
    EXPECT_TRUE(found.addrs.empty());
    ASSERT_EQ(found.left_out.size(), 3U);
    EXPECT_TRUE(found.left_out[0].starts_with("line 2: '10.0.0.0/8' is a network")) << found.left_out[0];
}

TEST(Endpoint, HostAndPortAreToldApart)
{
    const std::pair<const char *, const char *> cases[] = {{"probe", "probe:37564"},
                                                           {"10.0.0.1:65535", "10.0.0.1:65535"},
                                                           {"::1", "[::1]:37564"},
                                                           {"[::1]:99", "[::1]:99"},
                                                           {"fe80::1%eth0", "[fe80::1%eth0]:37564"}};
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(parse_endpoint(text).text(), expected);
    }
    for (const char *text : {"", ":1", "host:", "host:0", "host:65536", "host:http", "[::1", "[::1]9", "[]:1",
                             "http://host", "a b"}) {
        EXPECT_THROW(parse_endpoint(text), std::invalid_argument) << text;
    }
}

// Every row of values has its result, every row of others is refused.
TEST(Units, DurationsAddUpSizesNeedAUnitAndLimitsHold)
{
    for (const auto &[text, duration] :
         {std::pair{"90s", 90s}, {"1h30m", 5400s}, {"2d", 172800s}, {"7", 7s}}) {
        EXPECT_EQ(parse_duration(text), duration) << text;
    }
    EXPECT_EQ(parse_duration("250ms"), 250ms);
    for (const auto &[text, megabytes] :
         {std::pair{"512M", 512U}, {"8gib", 8192U}, {"4294967295MB", 4294967295U}}) {
        EXPECT_EQ(parse_size_mb(text), megabytes) << text;
    }
    for (const char *text :
         {"", "s", "5x", "-5s", "1.5h", "5 m", "99999999999999999999", "4294967296", "50000d", "5m-"}) {
        EXPECT_THROW(parse_duration(text), std::invalid_argument) << text;
    }
    for (const char *text : {"0", "500ms", "4294967296"}) {
        EXPECT_THROW(parse_time_limit(text), std::invalid_argument) << text;
    }
    for (const char *text : {"", "512", "M", "0M", "1.5G", "-1G", "4096T", "18446744073709551616M", "5K"}) {
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
    EXPECT_EQ(dated_rule_name(parse_address("2001:db8::1"), 1'795'410'723), "2001-db8--1-20261123T051203Z");
    EXPECT_NO_THROW(check_rule_name(dated_rule_name(parse_address("::"), 0)));
}

} // namespace
