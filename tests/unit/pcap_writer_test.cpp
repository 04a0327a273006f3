#include "storage/pcap_writer.h"

#include "support/pcap_read.h"
#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <unistd.h>

namespace {

constexpr uint64_t STAMP = 1'500'000'000'123'456'789;

class PcapWriter : public testing::Test {
protected:
    PcapWriter() { std::iota(packet.begin(), packet.end(), uint8_t{0}); }
    ~PcapWriter() override { close(fd); }

    // What fails prints its one line, answers -1 and leaves an error number.
    static void expect_failure(const std::function<int()> &call, const std::string &line, int error)
    {
        testing::internal::CaptureStderr();
        errno = 0;
        const int result = call();
        const int left = errno;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(left, error);
    }

    temp_dir_t dir;
    std::string path = dir.path("a.pcap");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    std::vector<uint8_t> packet = std::vector<uint8_t>(70000);
};

TEST_F(PcapWriter, FilesAreExactToTheByte)
{
    ASSERT_EQ(write_pcap_header(fd), 0);
    ASSERT_EQ(write_pcap_packet(fd, packet.data(), 3, STAMP), 0);
    ASSERT_EQ(write_pcap_divided_packet(fd, packet.data(), 2, packet.data() + 100, 1, 3, STAMP + 1), 0);
    ASSERT_EQ(write_pcap_packet(fd, packet.data(), 0, (uint64_t{1} << 32) * 1'000'000'000), 0);
    const std::vector<uint8_t> expected = {
        0x4d, 0x3c, 0xb2, 0xa1, 2,    0,    4,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0,
        0,    1,    0,    0,    0,                                                               // header
        0x00, 0x2f, 0x68, 0x59, 0x15, 0xcd, 0x5b, 0x07, 3, 0, 0, 0, 3, 0, 0, 0, 0,    1,    2,   // whole
        0x00, 0x2f, 0x68, 0x59, 0x16, 0xcd, 0x5b, 0x07, 3, 0, 0, 0, 3, 0, 0, 0, 0,    1,    100, // divided
        0,    0,    0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, // seconds past 32 bits
    };
    EXPECT_EQ(file_bytes(path), std::string(expected.begin(), expected.end()));
}

TEST_F(PcapWriter, CutsLongPacketsAndAcceptsPiecesOfTheCutLength)
{
    ASSERT_EQ(write_pcap_header(fd), 0);
    std::vector<pcap_record_t> expected;
    for (const uint32_t length : {65535U, 65536U, 70000U}) {
        expected.insert(expected.end(), 2,
                        {STAMP, length, std::string(packet.begin(), packet.begin() + 65535)});
        ASSERT_EQ(write_pcap_packet(fd, packet.data(), length, STAMP), 0);
        ASSERT_EQ(write_pcap_divided_packet(fd, packet.data(), 40, &packet[40], 65495, length, STAMP), 0);
    }
    EXPECT_TRUE(read_pcap(path) == expected);
}

TEST_F(PcapWriter, RefusalsWriteNothing)
{
    const std::string no_header = "Tried to write packet to file without valid pcap global header, aborted\n";
    const auto divided = [&](uint32_t first, uint32_t second, uint32_t length) {
        return write_pcap_divided_packet(fd, packet.data(), first, packet.data(), second, length, STAMP);
    };
    expect_failure([&] { return write_pcap_packet(fd, packet.data(), 10, STAMP); }, no_header, EINVAL);
    expect_failure([&] { return divided(5, 5, 10); }, no_header, EINVAL);
    EXPECT_TRUE(file_bytes(path).empty());
    ASSERT_EQ(write_pcap_header(fd), 0);
    for (const auto &[a, b, length] : {std::array{40U, 59U, 100U}, std::array{40U, 61U, 100U},
                                       std::array{40U, 65500U, 70000U}, std::array{~0U, 2U, 1U}}) {
        expect_failure([&, a = a, b = b, length = length] { return divided(a, b, length); },
                       "Invalid data sizes of function write_pcap_divided_packet\n", EINVAL);
    }
    expect_failure([&] { return write_pcap_header(fd); },
                   "Tried to write pcap global header into the middle of the file, aborted\n", EINVAL);
    EXPECT_EQ(file_bytes(path).size(), 24U);
}

} // namespace
