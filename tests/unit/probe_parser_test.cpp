#include "probe/packet_parser.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;
using probe::verdict_t;

bytes_t operator+(bytes_t left, const bytes_t &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

bytes_t big_endian(uint16_t value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

bytes_t ethernet(uint16_t type)
{
    return bytes_t(12, 0x02) + big_endian(type);
}

// From an allocation of exactly this size, so that the address sanitizer sees every byte read behind it.
verdict_t parse(const bytes_t &frame, size_t size, probe::parsed_packet_t *out)
{
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy_n(frame.begin(), size, exact.get());
    return probe::parse_packet(exact.get(), size, 7, out);
}

probe::flow_key_t key_of(const bytes_t &frame)
{
    probe::parsed_packet_t packet = {};
    EXPECT_EQ(parse(frame, frame.size(), &packet), verdict_t::IP);
    return packet.key;
}

struct ipv4_t {
    uint8_t protocol = 17;
    uint16_t fragment = 0; // flags and offset
    uint16_t total_size = 0;
    uint8_t first_byte = 0x45;
    bool reversed = false;
};

bytes_t ipv4(const ipv4_t &fields, const bytes_t &payload)
{
    const bytes_t a = {10, 0, 0, 1};
    const bytes_t b = {192, 168, 0, 2};
    return ethernet(0x0800) + bytes_t{fields.first_byte, 0} + big_endian(fields.total_size) + bytes_t{0, 1} +
           big_endian(fields.fragment) + bytes_t{64, fields.protocol, 0, 0} +
           (fields.reversed ? b + a : a + b) + payload;
}

// 2001:db8::1 to 2001:db8::2:3
bytes_t ipv6(uint8_t next_header, const bytes_t &payload)
{
    const bytes_t src = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const bytes_t dst = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 3};
    const bytes_t header = {0x60, 0, 0, 0, 0, static_cast<uint8_t>(payload.size()), next_header, 64};
    return header + src + dst + payload;
}

const bytes_t UDP_5000_TO_53 = {0x13, 0x88, 0, 53, 0, 8, 0, 0};
const bytes_t UDP_53_TO_5000 = {0, 53, 0x13, 0x88, 0, 8, 0, 0};

} // namespace

TEST(ProbeParser, EveryTruncationOfTaggedIpv6WithExtensionHeaders)
{
    const bytes_t tags = bytes_t{0x00, 42, 0x81, 0x00} + bytes_t{0x00, 7, 0x86, 0xDD};
    const bytes_t hop_by_hop = {43, 0, 5, 2, 0, 0, 1, 0};
    const bytes_t routing = bytes_t{60, 2, 4, 0} + bytes_t(20, 0);
    const bytes_t destination = bytes_t{51, 1, 1, 12} + bytes_t(12, 0);
    const bytes_t authentication = bytes_t{17, 4, 0, 0} + bytes_t(20, 0xEE);
    const bytes_t frame =
        ethernet(0x88A8) + tags +
        ipv6(0, hop_by_hop + routing + destination + authentication + UDP_5000_TO_53 + bytes_t(4, 0x55));
    const size_t addresses_end = 14 + 8 + 40;
    const size_t ports_end = frame.size() - 4 - 8 + 4;

    probe::parsed_packet_t whole = {};
    ASSERT_EQ(parse(frame, frame.size(), &whole), verdict_t::IP);
    const uint8_t src[16] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xb8, 0x0d, 0x01, 0x20};
    const uint8_t dst[16] = {3, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xb8, 0x0d, 0x01, 0x20};
    EXPECT_EQ(whole.key.words[4] & 0xFFFFFFFFFFU, 17ULL << 32 | 53 << 16 | 5000); // ::1 is the lower address
    for (size_t size = 0; size <= frame.size(); size++) {
        probe::parsed_packet_t packet = {};
        const verdict_t verdict = parse(frame, size, &packet);
        EXPECT_EQ(verdict, size < addresses_end ? verdict_t::TRUNCATED : verdict_t::IP) << size;
        if (verdict == verdict_t::IP) {
            EXPECT_EQ(memcmp(packet.header.addr.ipv6.src, src, 16), 0) << size;
            EXPECT_EQ(memcmp(packet.header.addr.ipv6.dst, dst, 16), 0) << size;
            EXPECT_EQ(packet.header.ip_version, 6);
            EXPECT_EQ(packet.header.timestamp, 7U);
            EXPECT_EQ(packet.key == whole.key, size >= ports_end) << size;
        }
    }
}

TEST(ProbeParser, PacketsOfOneFlowHaveOneKeyAndOthersHaveOthers)
{
    const bytes_t echo = {8, 0, 0, 0, 0x12, 0x34};
    const bytes_t reply = {0, 0, 0, 0, 0x12, 0x34};
    const bytes_t other_reply = {0, 0, 0, 0, 0x12, 0x35};
    const bytes_t udp = ipv4({}, UDP_5000_TO_53);
    const bytes_t first_fragment = ipv4({.fragment = 0x2000}, UDP_5000_TO_53);
    const auto ipv6_fragment = [](uint8_t offset_low) {
        return ethernet(0x86DD) + ipv6(44, bytes_t{17, 0, 0, offset_low, 0, 0, 0, 9} + UDP_5000_TO_53);
    };
    struct row_t {
        const char *name;
        bool same;
        bytes_t a, b;
    };
    const row_t rows[] = {
        {"answer", true, udp, ipv4({.reversed = true}, UDP_53_TO_5000)},
        {"other ports", false, udp, ipv4({.reversed = true}, UDP_5000_TO_53)},
        {"other protocol", false, udp, ipv4({.protocol = 6}, UDP_5000_TO_53)},
        {"SCTP", true, ipv4({.protocol = 132}, UDP_5000_TO_53),
         ipv4({.protocol = 132, .reversed = true}, UDP_53_TO_5000)},
        {"echo", true, ipv4({.protocol = 1}, echo), ipv4({.protocol = 1, .reversed = true}, reply)},
        {"other echo", false, ipv4({.protocol = 1}, echo), ipv4({.protocol = 1}, other_reply)},
        {"fragment", true, first_fragment, ipv4({.fragment = 0x2010}, bytes_t(16, 0x77))},
        {"last fragment", true, first_fragment,
         ipv4({.fragment = 0x0020, .reversed = true}, bytes_t(16, 0x99))},
        {"fragments have no ports", false, first_fragment, udp},
        {"not to be divided", true, ipv4({.fragment = 0x4000}, UDP_5000_TO_53), udp},
        {"IPv6 fragments", true, ipv6_fragment(0x01), ipv6_fragment(0x68)},
        {"IPv6 fragments have no ports", false, ipv6_fragment(0x01), ipv6_fragment(0x00)},
        {"IPv6, not divided", true, ipv6_fragment(0x00), ethernet(0x86DD) + ipv6(17, UDP_5000_TO_53)},
        {"padding is no port", true, ipv4({.total_size = 20}, UDP_5000_TO_53),
         ipv4({.total_size = 20}, UDP_53_TO_5000)},
        {"length left to the network card", true, ipv4({.total_size = 0}, UDP_5000_TO_53),
         ipv4({.total_size = 28}, UDP_5000_TO_53)},
        {"options behind the end, length within the header", true, ipv4({.first_byte = 0x4F}, UDP_5000_TO_53),
         ipv4({.total_size = 3}, UDP_5000_TO_53)},
    };
    for (const row_t &row : rows) {
        EXPECT_EQ(key_of(row.a) == key_of(row.b), row.same) << row.name;
    }
    probe::parsed_packet_t packet = {};
    parse(udp, udp.size(), &packet);
    const uint8_t addresses[8] = {1, 0, 0, 10, 2, 0, 168, 192}; // least significant byte first
    EXPECT_EQ(memcmp(packet.header.addr.ipv4.src, addresses, 8), 0);
    EXPECT_EQ(packet.header.ip_version, 4);
}

TEST(ProbeParser, HeadersThatAreNoIpHeadersAreNotIp)
{
    const std::vector<bytes_t> frames = {
        ipv4({.first_byte = 0x65}, UDP_5000_TO_53), // version 6 behind IPv4's type
        ipv4({.first_byte = 0x44}, UDP_5000_TO_53), // header of 16 bytes
        ethernet(0x86DD) + bytes_t(60, 0x45),       // version 4 behind IPv6's type
        ethernet(0x0806) + bytes_t(28, 0)};         // ARP
    for (const bytes_t &frame : frames) {
        probe::parsed_packet_t packet = {};
        EXPECT_EQ(parse(frame, frame.size(), &packet), verdict_t::NOT_IP);
    }
}
