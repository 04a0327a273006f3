#include "storage/pcap_writer.h"

#include "common/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/uio.h>
#include <unistd.h>

namespace {

struct file_header_t {
    uint32_t magic;
    uint16_t major_version;
    uint16_t minor_version;
    int32_t time_zone_offset;
    uint32_t timestamp_accuracy;
    uint32_t snaplen;
    uint32_t link_type;
};
static_assert(sizeof(file_header_t) == PCAP_HEADER_SIZE);

struct record_header_t {
    uint32_t seconds;
    uint32_t nanoseconds;
    uint32_t captured_length;
    uint32_t full_length;
};
static_assert(sizeof(record_header_t) == PCAP_RECORD_HEADER_SIZE);

constexpr file_header_t FILE_HEADER = {
    .magic = 0xa1b23c4d, // nanosecond resolution
    .major_version = 2,
    .minor_version = 4,
    .time_zone_offset = 0,
    .timestamp_accuracy = 0,
    .snaplen = PCAP_SNAPLEN,
    .link_type = 1, // Ethernet
};

// Refuse a call that must not write.
int refuse(const char *line, int error)
{
    std::fputs(line, stderr);
    errno = error;
    return -1;
}

int report(const char *text)
{
    const int error = errno;
    std::fprintf(stderr, "%s: %s\n", text, std::strerror(error));
    errno = error;
    return -1;
}

// True when the call wrote everything. A short count comes without an error number: the disk is full.
bool complete(ssize_t written, size_t wanted)
{
    if (written >= 0 && static_cast<size_t>(written) != wanted) {
        errno = ENOSPC;
    }
    return written >= 0 && static_cast<size_t>(written) == wanted;
}

int check_position(int fd)
{
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position >= static_cast<off_t>(PCAP_HEADER_SIZE)) {
        return 0;
    }
    return refuse("Tried to write packet to file without valid pcap global header, aborted\n",
                  position < 0 ? errno : EINVAL);
}

iovec piece(const void *bytes, size_t size)
{
    return {const_cast<void *>(bytes), size}; // writev only reads
}

record_header_t record_header(uint32_t captured_length, uint32_t length, uint64_t timestamp)
{
    return {
        .seconds = static_cast<uint32_t>(timestamp / NS_PER_S),
        .nanoseconds = static_cast<uint32_t>(timestamp % NS_PER_S),
        .captured_length = captured_length,
        .full_length = length,
    };
}

// Write one record, `size` bytes in `count` pieces, the first of them its header.
int write_record(int fd, const iovec *pieces, int count, size_t size)
{
    ssize_t written;
    do {
        written = writev(fd, pieces, count);
    } while (written < 0 && errno == EINTR);
    return complete(written, size) ? 0 : report("Writing pcap failed:");
}

} // namespace

int write_pcap_header(int fd)
{
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position < 0) {
        return report("Checking position in file failed:");
    }
    if (position != 0) {
        return refuse("Tried to write pcap global header into the middle of the file, aborted\n", EINVAL);
    }
    ssize_t written;
    do {
        written = write(fd, &FILE_HEADER, sizeof FILE_HEADER);
    } while (written < 0 && errno == EINTR);
    return complete(written, sizeof FILE_HEADER) ? 0 : report("Writing pcap header failed:");
}

int write_pcap_packet(int fd, const uint8_t *data, uint32_t length, uint64_t timestamp)
{
    if (check_position(fd) != 0) {
        return -1;
    }
    const uint32_t captured_length = std::min(length, PCAP_SNAPLEN);
    const record_header_t header = record_header(captured_length, length, timestamp);
    const iovec pieces[] = {piece(&header, sizeof header), piece(data, captured_length)};
    return write_record(fd, pieces, 2, sizeof header + captured_length);
}

int write_pcap_divided_packet(int fd, const uint8_t *first, uint32_t first_length, const uint8_t *second,
                              uint32_t second_length, uint32_t length, uint64_t timestamp)
{
    if (check_position(fd) != 0) {
        return -1;
    }
    const uint32_t captured_length = std::min(length, PCAP_SNAPLEN);
    if (uint64_t{first_length} + second_length != captured_length) {
        return refuse("Invalid data sizes of function write_pcap_divided_packet\n", EINVAL);
    }
    const record_header_t header = record_header(captured_length, length, timestamp);
    const iovec pieces[] = {piece(&header, sizeof header), piece(first, first_length),
                            piece(second, second_length)};
    return write_record(fd, pieces, 3, sizeof header + captured_length);
}
