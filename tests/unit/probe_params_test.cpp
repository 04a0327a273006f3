#include "probe/params.h"

#include <gtest/gtest.h>

namespace {

struct target_t {
    char *port = nullptr;
    char *path = nullptr;
    int32_t size = 8192;
    config_option_t options[4] = {{"port", &port, CONFIG_STRING, 0},
                                  {"export_path", &path, CONFIG_STRING, 0},
                                  {"buffer_size", &size, CONFIG_INT, 0},
                                  {nullptr, nullptr, CONFIG_END, 0}};
};

} // namespace

TEST(ProbeParams, ItemsAreSeparatedBySemicolonsOrBlanks)
{
    const char *texts[] = {"port=37564;export_path=/a=b;buffer_size=-1",
                           "port=37564 export_path=/a=b\tbuffer_size=-1",
                           " ;; port=1;port=37564 ;export_path=/a=b; buffer_size=7;buffer_size=-1;\n"};
    for (const char *text : texts) {
        probe::params_parser_t parser;
        target_t target;
        std::string error;
        ASSERT_TRUE(parser.parse(text, target.options, &error)) << error;
        EXPECT_STREQ(target.port, "37564");
        EXPECT_STREQ(target.path, "/a=b");
        EXPECT_EQ(target.size, -1);
    }
}

TEST(ProbeParams, WhatIsNotNamedKeepsItsValueAndAStringMayBeEmpty)
{
    probe::params_parser_t parser;
    target_t target;
    std::string error;
    ASSERT_TRUE(parser.parse("", target.options, &error));
    EXPECT_EQ(target.port, nullptr);
    EXPECT_EQ(target.size, 8192);
    ASSERT_TRUE(parser.parse("export_path=", target.options, &error));
    EXPECT_STREQ(target.path, "");
}

TEST(ProbeParams, NumbersOf32BitsAreTakenUpToTheirLimits)
{
    probe::params_parser_t parser;
    target_t target;
    std::string error;
    ASSERT_TRUE(parser.parse("buffer_size=2147483647", target.options, &error));
    EXPECT_EQ(target.size, INT32_MAX);
    ASSERT_TRUE(parser.parse("buffer_size=-2147483648", target.options, &error));
    EXPECT_EQ(target.size, INT32_MIN);
}

TEST(ProbeParams, AFaultyItemIsNamedAndNothingIsStored)
{
    const char *items[] = {"buffer_size=2147483648",
                           "buffer_size=-2147483649",
                           "buffer_size=",
                           "buffer_size=12x",
                           "buffer_size=+1",
                           "buffer_size=0x10",
                           "no_such_key=1",
                           "port",
                           "=1",
                           "ports=1",
                           "buffer_size=99999999999999999999"};
    for (const std::string item : items) {
        probe::params_parser_t parser;
        target_t target;
        std::string error;
        EXPECT_FALSE(parser.parse("port=1;" + item + ";buffer_size=5", target.options, &error)) << item;
        EXPECT_NE(error.find("\"" + item + "\""), std::string::npos) << error;
        EXPECT_EQ(target.port, nullptr);
        EXPECT_EQ(target.size, 8192);
    }
}

TEST(ProbeParams, StringsOutliveLaterCalls)
{
    probe::params_parser_t parser;
    target_t first;
    std::string error;
    ASSERT_TRUE(parser.parse("port=1;export_path=/first/path/that/is/longer/than/a/small/string",
                             first.options, &error));
    for (int i = 0; i < 1000; i++) {
        target_t later;
        ASSERT_TRUE(parser.parse("port=" + std::to_string(i), later.options, &error));
    }
    EXPECT_STREQ(first.port, "1");
    EXPECT_STREQ(first.path, "/first/path/that/is/longer/than/a/small/string");
}
