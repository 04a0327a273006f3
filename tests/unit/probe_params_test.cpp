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

TEST(ProbeParams, WhatIsNamedIsStoredAndTheRestKept)
{
    struct row_t {
        const char *text;
        const char *port;
        const char *path;
        int32_t size;
    };
    const row_t rows[] = {
        {"port=37564;export_path=/a=b;buffer_size=-1", "37564", "/a=b", -1},
        {"port=37564 export_path=/a=b\tbuffer_size=-1", "37564", "/a=b", -1},
        {" ;; port=1;port=2 ;export_path=/a; buffer_size=7;buffer_size=-1;\n", "2", "/a", -1},
        {"", nullptr, nullptr, 8192},
        {"export_path=", nullptr, "", 8192},
        {"buffer_size=2147483647", nullptr, nullptr, INT32_MAX},
        {"buffer_size=-2147483648", nullptr, nullptr, INT32_MIN},
    };
    probe::params_parser_t parser; // one for all: strings outlive later calls
    target_t targets[std::size(rows)];
    std::string error;
    for (size_t i = 0; i < std::size(rows); i++) {
        ASSERT_TRUE(parser.parse(rows[i].text, targets[i].options, &error)) << error;
    }
    for (size_t i = 0; i < std::size(rows); i++) {
        EXPECT_STREQ(targets[i].port, rows[i].port) << rows[i].text;
        EXPECT_STREQ(targets[i].path, rows[i].path) << rows[i].text;
        EXPECT_EQ(targets[i].size, rows[i].size) << rows[i].text;
    }
}

TEST(ProbeParams, AFaultyItemIsNamedAndNothingIsStored)
{
    for (const std::string item :
         {"buffer_size=2147483648", "buffer_size=-2147483649", "buffer_size=", "buffer_size=12x",
          "buffer_size=+1", "buffer_size=0x10", "buffer_size=99999999999999999999", "no_such_key=1", "port",
          "=1", "ports=1"}) {
        probe::params_parser_t parser;
        target_t target;
        std::string error;
        EXPECT_FALSE(parser.parse("port=1;" + item + ";buffer_size=5", target.options, &error)) << item;
        EXPECT_NE(error.find("\"" + item + "\""), std::string::npos) << error;
        EXPECT_EQ(target.port, nullptr);
        EXPECT_EQ(target.size, 8192);
    }
}
