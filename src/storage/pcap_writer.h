// The writer of capture files: the classic pcap format (draft-ietf-opsawg-pcap) in its
// nanosecond variant, link type Ethernet, native byte order. One unbuffered system call per
// record, so that a record reaches the file whole.
//
//   file    global header (24) | record | record ...
//   record  seconds u32 | nanoseconds u32 | captured length u32 | full length u32 | captured bytes
//
// Threads: no state and no lock; two threads must not write to one descriptor at once. Blocks as write(2)
// does. Errors: -1, one line on standard error, and errno set (never 0); the descriptor stays open and its
// position where the failed call left it. A failed record may have been written in part; nothing repairs it.
#pragma once

#include <cstdint>

constexpr uint32_t PCAP_HEADER_SIZE = 24;        // global header, bytes
constexpr uint32_t PCAP_RECORD_HEADER_SIZE = 16; // bytes
constexpr uint32_t PCAP_SNAPLEN = 65535;         // longest captured length

// Write the global header into an empty file, at position 0. 0 or -1.
[[nodiscard]] int write_pcap_header(int fd);

// Append one packet of `length` bytes at `data`, cut to PCAP_SNAPLEN; timestamp in
// nanoseconds since the Unix epoch. 0 or -1.
[[nodiscard]] int write_pcap_packet(int fd, const uint8_t *data, uint32_t length, uint64_t timestamp);

// Append one packet that lies in two pieces; the pieces together are min(length, PCAP_SNAPLEN) bytes, else
// nothing is written. 0 or -1.
[[nodiscard]] int write_pcap_divided_packet(int fd, const uint8_t *first, uint32_t first_length,
                                            const uint8_t *second, uint32_t second_length, uint32_t length,
                                            uint64_t timestamp);
