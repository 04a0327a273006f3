#include "client/merge.h"

#include "client/error.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pcap/pcap.h>

namespace {

using namespace kestrune;
namespace fs = std::filesystem;

struct packet_t {
    uint64_t time_ns;
    std::string data;
    bool operator==(const packet_t &) const = default;
};
using packets_t = std::vector<packet_t>;

constexpr uint64_t T0 = 1'700'000'000'000'000'000;

class Merge : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "merge test XXXXXX").string(); // with blanks
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const std::string &name) const { return (dir_ / name).string(); }

    std::string write(const std::string &name, const packets_t &packets,
                      int precision = PCAP_TSTAMP_PRECISION_NANO, int link_type = DLT_EN10MB) const
    {
        pcap_t *dead = pcap_open_dead_with_tstamp_precision(link_type, 65535, static_cast<u_int>(precision));
        pcap_dumper_t *dumper = pcap_dump_open(dead, path(name).c_str());
        const uint64_t unit = precision == PCAP_TSTAMP_PRECISION_NANO ? 1 : 1000;
        for (const packet_t &packet : packets) {
            pcap_pkthdr header = {};
            header.ts.tv_sec = static_cast<time_t>(packet.time_ns / 1'000'000'000);
            header.ts.tv_usec = static_cast<suseconds_t>(packet.time_ns % 1'000'000'000 / unit);
            header.caplen = static_cast<bpf_u_int32>(packet.data.size());
            header.len = header.caplen + 100; // cut when it was captured
            pcap_dump(reinterpret_cast<u_char *>(dumper), &header,
                      reinterpret_cast<const u_char *>(packet.data.data()));
        }
        pcap_dump_close(dumper);
        pcap_close(dead);
        return path(name);
    }

    static packets_t read(const std::string &name)
    {
        char why[PCAP_ERRBUF_SIZE] = "";
        pcap_t *pcap = pcap_open_offline_with_tstamp_precision(name.c_str(), PCAP_TSTAMP_PRECISION_NANO, why);
        EXPECT_NE(pcap, nullptr) << why;
        packets_t packets;
        pcap_pkthdr *header = nullptr;
        const u_char *data = nullptr;
        while (pcap != nullptr && pcap_next_ex(pcap, &header, &data) == 1) {
            EXPECT_EQ(header->len, header->caplen + 100);
            packets.push_back({static_cast<uint32_t>(header->ts.tv_sec) * 1'000'000'000ULL +
                                   static_cast<uint64_t>(header->ts.tv_usec),
                               std::string(reinterpret_cast<const char *>(data), header->caplen)});
        }
        pcap_close(pcap);
        return packets;
    }

    failure_t failure(const merge_options_t &options) const
    {
        try {
            merge_files(options);
        } catch (const client_error_t &error) {
            text_ = error.what();
            return error.failure();
        }
        return failure_t::CONNECT; // none of those expected
    }

    size_t files() const
    {
        return static_cast<size_t>(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()));
    }

    fs::path dir_;
    mutable std::string text_;
};

TEST_F(Merge, OrdersByNanosecondsAndTiesByInput)
{
    const std::string live =
        write("live file", {{T0 + 1, "b"}, {T0 + 5, "tie 1"}, {T0 + 5, "tie 2"}, {T0 + 9, "z"}});
    const std::string history = write("live file_hc_0", {{T0, "a"}, {T0 + 2, "c"}, {T0 + 5, "tie 3"}});
    const merge_result_t result = merge_files({{live, history}, path("out put.pcap")});
    EXPECT_EQ(read(path("out put.pcap")), (packets_t{{T0, "a"},
                                                     {T0 + 1, "b"},
                                                     {T0 + 2, "c"},
                                                     {T0 + 5, "tie 1"},
                                                     {T0 + 5, "tie 2"},
                                                     {T0 + 5, "tie 3"},
                                                     {T0 + 9, "z"}}));
    EXPECT_EQ(result.packets, (std::vector<uint64_t>{4, 3}));
    EXPECT_EQ(result.total, 7U);
    EXPECT_EQ(result.first_ns, T0);
    EXPECT_EQ(result.last_ns, T0 + 9);

    std::ifstream in(path("out put.pcap"), std::ios::binary);
    uint32_t magic = 0;
    in.read(reinterpret_cast<char *>(&magic), sizeof magic);
    EXPECT_EQ(magic, 0xA1B23C4DU);
    EXPECT_EQ(fs::status(path("out put.pcap")).permissions(), static_cast<fs::perms>(0640));
}

TEST_F(Merge, InputsOutOfOrderAreSortedAndNothingIsLost)
{
    packets_t all;
    std::vector<std::string> inputs;
    for (int file = 0; file < 3; file++) {
        packets_t packets;
        for (unsigned i = 0; i < 5000; i++) {
            const uint64_t shuffled = (i * 2654435761U + static_cast<unsigned>(file)) % 1000; // many ties
            packets.push_back(
                {T0 + shuffled, std::string(1 + i % 200, static_cast<char>('a' + file)) + std::to_string(i)});
        }
        inputs.push_back(write(std::to_string(file), packets));
        all.insert(all.end(), packets.begin(), packets.end());
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const packet_t &a, const packet_t &b) { return a.time_ns < b.time_ns; });
    EXPECT_EQ(merge_files({inputs, path("out")}).total, 15000U);
    EXPECT_TRUE(read(path("out")) == all);
}

TEST_F(Merge, MicrosecondFilesEmptyFilesAndLateTimesAreTaken)
{
    const uint64_t year_2100 = 4'102'444'800'000'000'007;
    const std::string micro = write("micro", {{T0 + 3000, "micro"}}, PCAP_TSTAMP_PRECISION_MICRO);
    const std::string nano = write("nano", {{T0 + 2999, "nano"}, {year_2100, "late"}});
    const std::string empty = write("empty", {});
    merge_files({{micro, empty, nano}, path("out")});
    EXPECT_EQ(read(path("out")), (packets_t{{T0 + 2999, "nano"}, {T0 + 3000, "micro"}, {year_2100, "late"}}));
    EXPECT_EQ(merge_files({{empty}, path("none")}).total, 0U);
    EXPECT_TRUE(read(path("none")).empty());
}

TEST_F(Merge, AnExistingOutputStaysUnlessForced)
{
    const std::string a = write("a", {{T0, "a"}});
    const std::string b = write("b", {{T0 + 1, "b"}});
    EXPECT_EQ(failure({{a}, b}), failure_t::LOCAL);
    EXPECT_NE(text_.find("--force"), std::string::npos);
    EXPECT_EQ(read(b), (packets_t{{T0 + 1, "b"}}));
    merge_files({{a, b}, b, true}); // also when it is an input itself
    EXPECT_EQ(read(b), (packets_t{{T0, "a"}, {T0 + 1, "b"}}));
    EXPECT_EQ(files(), 2U);
}

TEST_F(Merge, AFileCutAtAnyByteIsAnErrorAndLeavesNothing)
{
    const std::string whole = write("whole", {{T0, "first"}, {T0 + 1, "second"}});
    const auto size = static_cast<std::ptrdiff_t>(fs::file_size(whole));
    std::ifstream in(whole, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    int complete = 0;
    for (std::ptrdiff_t cut = 0; cut < size; cut++) {
        std::ofstream(path("cut"), std::ios::binary) << bytes.substr(0, static_cast<size_t>(cut));
        if (failure({{whole, path("cut")}, path("out")}) == failure_t::LOCAL) {
            EXPECT_FALSE(fs::exists(path("out")));
        } else {
            complete++; // cut between two records
            fs::remove(path("out"));
        }
    }
    EXPECT_EQ(complete, 2);
    EXPECT_EQ(files(), 2U);
}

TEST_F(Merge, WhatCannotBeMergedIsSaid)
{
    const std::string ether = write("ether", {{T0, "a"}});
    const std::string raw = write("raw", {{T0, "a"}}, PCAP_TSTAMP_PRECISION_NANO, DLT_RAW);
    EXPECT_EQ(failure({{ether, raw}, path("out")}), failure_t::LOCAL);
    EXPECT_NE(text_.find("link type"), std::string::npos);
    EXPECT_EQ(failure({{path("missing")}, path("out")}), failure_t::LOCAL);
    EXPECT_EQ(failure({{ether}, path("no such dir/out")}), failure_t::LOCAL);
    EXPECT_EQ(failure({{dir_.string()}, path("out")}), failure_t::LOCAL);
    EXPECT_EQ(failure({{ether}, path("out"), false, [] { return true; }}), failure_t::INTERRUPTED);
    EXPECT_EQ(files(), 2U);
}

} // namespace
