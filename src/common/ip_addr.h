// ip_addr_t, the 16-byte address key of rules, hash tables, ring records and control messages. IPv4 and IPv6
// share one key space; keys are compared over all 16 bytes.
//
//   IPv4   ff ff ff ff | address, least significant byte first (4) | 00 * 8
//   IPv6   the sixteen network-order bytes reversed
//
// 10.0.0.1 is ff ff ff ff 01 00 00 0a 00 00 00 00 00 00 00 00. These are the byte orders of the host's parsed
// header, so the packet path copies bytes and converts nothing.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

struct ip_addr_t {
    uint8_t bytes[16];
};
static_assert(sizeof(ip_addr_t) == 16);

// Which side of a packet an address is compared with. The same codes serve rules, captures and messages.
enum : uint8_t { SRC = 0, DST = 1, BOTH = 2 };

inline bool operator==(const ip_addr_t &a, const ip_addr_t &b)
{
    return std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
}

// Key of an IPv4 address as the host's header holds it (least significant byte first). Written as two whole
// words, the way the hash reads it: narrower writes would stall that read on the packet path.
inline ip_addr_t ip_addr_from_ipv4(const uint8_t address[4])
{
    static_assert(std::endian::native == std::endian::little);
    uint32_t value;
    std::memcpy(&value, address, sizeof value);
    const uint64_t words[2] = {uint64_t{value} << 32 | 0xFFFFFFFFU, 0};
    ip_addr_t key;
    std::memcpy(key.bytes, words, sizeof key.bytes);
    return key;
}

// Key of an IPv6 address as the host's header holds it (least significant byte first).
inline ip_addr_t ip_addr_from_ipv6(const uint8_t address[16])
{
    ip_addr_t key;
    std::memcpy(key.bytes, address, 16);
    return key;
}

// True when the key stands for an IPv4 address.
bool ip_addr_is_ipv4(const ip_addr_t &addr);

constexpr uint32_t IP_ADDR_TEXT_SIZE = 46; // longest IPv6 text and its terminator

struct ip_addr_text_t {
    char text[IP_ADDR_TEXT_SIZE];
};

// The usual text form (dotted, or RFC 5952 as inet_ntop makes it), zero-filled to its full size.
ip_addr_text_t ip_addr_text(const ip_addr_t &addr);
