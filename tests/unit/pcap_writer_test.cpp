#include "storage/pcap_writer.h"

#include "support/file_limit.h"
#include "support/pcap_read.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

// The linker sends the writer's system calls through here, to let them be interrupted.
extern "C" {
ssize_t __real_writev(int fd, const iovec *pieces, int count);
ssize_t __wrap_writev(int fd, const iovec *pieces, int count);
ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size);
}

namespace {

int interruptions = 0; // writing calls still to answer EINTR

bool interrupted()
{
    errno = EINTR;
    return interruptions > 0 && interruptions-- > 0;
}

} // namespace

ssize_t __wrap_writev(int fd, const iovec *pieces, int count)
{
    return interrupted() ? -1 : __real_writev(fd, pieces, count);
}

ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    return interrupted() ? -1 : __real_write(fd, bytes, size);
}

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
    interruptions = 2; // nothing was written: made again
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
    for (const uint32_t length : {65534U, 65535U, 65536U, 70000U}) {
        const uint32_t cut = std::min(length, 65535U);
        const pcap_record_t record = {STAMP, length, std::string(packet.begin(), packet.begin() + cut)};
        expected.insert(expected.end(), 2, record);
        interruptions = 1;
        ASSERT_EQ(write_pcap_packet(fd, packet.data(), length, STAMP), 0);
        ASSERT_EQ(
            write_pcap_divided_packet(fd, packet.data(), 40, packet.data() + 40, cut - 40, length, STAMP), 0);
    }
    EXPECT_TRUE(read_pcap(path) == expected);
}

TEST_F(PcapWriter, RefusalsWriteNothing)
{
    const std::string no_header = "Tried to write packet to file without valid pcap global header, aborted\n";
    const auto whole = [&] { return write_pcap_packet(fd, packet.data(), 10, STAMP); };
    const auto divided = [&](uint32_t first, uint32_t second, uint32_t length) {
        return write_pcap_divided_packet(fd, packet.data(), first, packet.data(), second, length, STAMP);
    };
    expect_failure(whole, no_header, EINVAL);
    expect_failure([&] { return divided(5, 5, 10); }, no_header, EINVAL);
    EXPECT_TRUE(file_bytes(path).empty());

    ASSERT_EQ(write_pcap_header(fd), 0);
    const std::string header = file_bytes(path);
    expect_failure([&] { return write_pcap_header(fd); },
                   "Tried to write pcap global header into the middle of the file, aborted\n", EINVAL);
    for (const auto &sizes : {std::array{40U, 59U, 100U}, std::array{40U, 61U, 100U},
                              std::array{40U, 65500U, 70000U}, std::array{~0U, 2U, 1U}}) {
        expect_failure([&] { return divided(sizes[0], sizes[1], sizes[2]); },
                       "Invalid data sizes of function write_pcap_divided_packet\n", EINVAL);
    }
    EXPECT_EQ(file_bytes(path), header);
}

TEST_F(PcapWriter, BrokenDescriptorsAreReported)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    expect_failure([&] { return write_pcap_header(ends[1]); },
                   "Checking position in file failed:: Illegal seek\n", ESPIPE);
    close(ends[0]);
    close(ends[1]);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    expect_failure([&] { return write_pcap_header(full); },
                   "Writing pcap header failed:: No space left on device\n", ENOSPC);
    close(full);
}

TEST_F(PcapWriter, FullDiskTearsOneRecordAndLosesNothingBeforeIt)
{
    const file_limit_t limit(24 + 3 * 116 + 50);
    ASSERT_EQ(write_pcap_header(fd), 0);
    const auto write_one = [&] { return write_pcap_packet(fd, packet.data(), 100, STAMP); };
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(write_one(), 0);
    }
    expect_failure(write_one, "Writing pcap failed:: No space left on device\n", ENOSPC); // short
    expect_failure(write_one, "Writing pcap failed:: File too large\n", EFBIG);           // nothing at all
    size_t torn = 0;
    EXPECT_EQ(read_pcap(path, &torn).size(), 3U);
    EXPECT_EQ(torn, 50U);
}

} // namespace
