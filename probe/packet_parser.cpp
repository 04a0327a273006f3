#include "probe/packet_parser.h"

#include <cstring>
#include <utility>

namespace probe {
namespace {

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t VLAN_TAG_SIZE = 4;
constexpr size_t IPV4_HEADER_SIZE = 20;
constexpr size_t IPV6_HEADER_SIZE = 40;

enum : uint16_t {
    ETHERTYPE_IPV4 = 0x0800,
    ETHERTYPE_IPV6 = 0x86DD,
    ETHERTYPE_8021Q = 0x8100,
    ETHERTYPE_8021AD = 0x88A8,
    ETHERTYPE_OLD_QINQ = 0x9100 // in use for outer tags before 802.1ad
};

enum : uint8_t {
    PROTOCOL_HOP_BY_HOP = 0,
    PROTOCOL_ICMP = 1,
    PROTOCOL_TCP = 6,
    PROTOCOL_UDP = 17,
    PROTOCOL_DCCP = 33,
    PROTOCOL_ROUTING = 43,
    PROTOCOL_FRAGMENT = 44,
    PROTOCOL_AH = 51,
    PROTOCOL_ICMPV6 = 58,
    PROTOCOL_DESTINATION = 60,
    PROTOCOL_SCTP = 132,
    PROTOCOL_MOBILITY = 135,
    PROTOCOL_UDP_LITE = 136,
    PROTOCOL_HIP = 139,
    PROTOCOL_SHIM6 = 140
};

// The bytes still to read.
struct cursor_t {
    const uint8_t *at;
    size_t size;

    uint16_t be16(size_t offset) const { return static_cast<uint16_t>(at[offset] << 8 | at[offset + 1]); }

    void skip(size_t bytes)
    {
        at += bytes;
        size -= bytes;
    }

    // Bytes after the first `bytes` are not parsed (Ethernet padding).
    void limit(size_t bytes) { size = bytes < size ? bytes : size; }
};

// An address as a number.
struct address_t {
    uint64_t high;
    uint64_t low;

    auto operator<=>(const address_t &) const = default;
};

struct endpoint_t {
    address_t address;
    uint16_t port;

    auto operator<=>(const endpoint_t &) const = default;
};

// The transport fields, as far as the captured bytes reach.
struct transport_t {
    uint16_t src_port = 0;
    uint16_t dst_port = 0;
    uint8_t protocol = 0;
    bool fragment = false;
};

uint64_t be64(const uint8_t *at)
{
    uint64_t value;
    std::memcpy(&value, at, sizeof value);
    return __builtin_bswap64(value);
}

address_t read_ipv4_address(const uint8_t *at)
{
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return {0, __builtin_bswap32(value)};
}

address_t read_ipv6_address(const uint8_t *at)
{
    return {be64(at), be64(at + 8)};
}

void store_ipv6_address(const address_t &address, uint8_t out[16])
{
    std::memcpy(out, &address.low, 8);
    std::memcpy(out + 8, &address.high, 8);
}

flow_key_t make_key(const address_t &src, const address_t &dst, const transport_t &transport, uint8_t version)
{
    endpoint_t first = {src, transport.src_port};
    endpoint_t second = {dst, transport.dst_port};
    if (second < first) {
        std::swap(first, second);
    }
    const uint64_t last = static_cast<uint64_t>(first.port) | static_cast<uint64_t>(second.port) << 16 |
                          static_cast<uint64_t>(transport.protocol) << 32 |
                          static_cast<uint64_t>(version) << 40 |
                          static_cast<uint64_t>(transport.fragment) << 48;
    return {{first.address.low, first.address.high, second.address.low, second.address.high, last}};
}

// Queries with an identifier that their answers repeat.
bool icmp_has_identifier(uint8_t protocol, uint8_t type)
{
    if (protocol == PROTOCOL_ICMPV6) {
        return type == 128 || type == 129; // echo
    }
    return type == 0 || type == 8 || (type >= 13 && type <= 18); // echo, timestamp, information, mask
}

// ICMP has no ports. Both sides get the identifier of a query and its answer, or else type and code.
void read_icmp(cursor_t cursor, transport_t *transport)
{
    if (cursor.size < 2) {
        return;
    }
    if (!icmp_has_identifier(transport->protocol, cursor.at[0])) {
        transport->src_port = transport->dst_port = cursor.be16(0);
    } else if (cursor.size >= 6) {
        transport->src_port = transport->dst_port = cursor.be16(4);
    }
}

void read_ports(cursor_t cursor, transport_t *transport)
{
    switch (transport->protocol) {
    case PROTOCOL_TCP:
    case PROTOCOL_UDP:
    case PROTOCOL_SCTP:
    case PROTOCOL_DCCP:
    case PROTOCOL_UDP_LITE:
        if (cursor.size >= 4) {
            transport->src_port = cursor.be16(0);
            transport->dst_port = cursor.be16(2);
        }
        break;
    case PROTOCOL_ICMP:
    case PROTOCOL_ICMPV6:
        read_icmp(cursor, transport);
        break;
    default:
        break;
    }
}

// Size of the extension header at the cursor, or 0 when `protocol` is none.
size_t extension_size(uint8_t protocol, const cursor_t &cursor)
{
    switch (protocol) {
    case PROTOCOL_HOP_BY_HOP:
    case PROTOCOL_ROUTING:
    case PROTOCOL_DESTINATION:
    case PROTOCOL_MOBILITY:
    case PROTOCOL_HIP:
    case PROTOCOL_SHIM6:
        return 8 + size_t{8} * cursor.at[1];
    case PROTOCOL_FRAGMENT:
        return 8;
    case PROTOCOL_AH:
        return 8 + size_t{4} * cursor.at[1]; // RFC 4302: in 32-bit words, minus 2
    default:
        return 0;
    }
}

// Walk the extension headers from the first on; `transport->protocol` holds its number.
void read_behind_ipv6(cursor_t cursor, transport_t *transport)
{
    while (cursor.size >= 8) {
        const size_t size = extension_size(transport->protocol, cursor);
        if (size == 0) {
            break;
        }
        const bool is_fragment = transport->protocol == PROTOCOL_FRAGMENT;
        transport->protocol = cursor.at[0];
        // Offset and the more-fragments flag; both are zero in an unfragmented packet.
        transport->fragment = is_fragment && (cursor.be16(2) & 0xFFF9) != 0;
        if (transport->fragment || size > cursor.size) {
            return;
        }
        cursor.skip(size);
    }
    read_ports(cursor, transport);
}

void read_behind_ipv4(cursor_t cursor, transport_t *transport)
{
    const size_t header_size = size_t{4} * (cursor.at[0] & 0x0F);
    const size_t total_size = cursor.be16(2);
    transport->protocol = cursor.at[9];
    transport->fragment = (cursor.be16(6) & 0x3FFF) != 0; // offset and the more-fragments flag
    if (total_size != 0) {                                // 0: the network card fills it in
        cursor.limit(total_size);
    }
    if (!transport->fragment && cursor.size > header_size) {
        cursor.skip(header_size);
        read_ports(cursor, transport);
    }
}

verdict_t parse_ipv4(cursor_t cursor, uint64_t timestamp_ns, parsed_packet_t *out)
{
    if (cursor.size > 0 && (cursor.at[0] >> 4 != 4 || (cursor.at[0] & 0x0F) < 5)) {
        return verdict_t::NOT_IP;
    }
    if (cursor.size < IPV4_HEADER_SIZE) {
        return verdict_t::TRUNCATED;
    }
    const address_t src = read_ipv4_address(cursor.at + 12);
    const address_t dst = read_ipv4_address(cursor.at + 16);
    transport_t transport;
    read_behind_ipv4(cursor, &transport);
    out->header = {};
    out->header.timestamp = timestamp_ns;
    std::memcpy(out->header.addr.ipv4.src, &src.low, 4);
    std::memcpy(out->header.addr.ipv4.dst, &dst.low, 4);
    out->header.ip_version = 4;
    out->key = make_key(src, dst, transport, 4);
    return verdict_t::IP;
}

verdict_t parse_ipv6(cursor_t cursor, uint64_t timestamp_ns, parsed_packet_t *out)
{
    if (cursor.size > 0 && cursor.at[0] >> 4 != 6) {
        return verdict_t::NOT_IP;
    }
    if (cursor.size < IPV6_HEADER_SIZE) {
        return verdict_t::TRUNCATED;
    }
    const address_t src = read_ipv6_address(cursor.at + 8);
    const address_t dst = read_ipv6_address(cursor.at + 24);
    const size_t payload_size = cursor.be16(4);
    transport_t transport;
    transport.protocol = cursor.at[6];
    cursor.skip(IPV6_HEADER_SIZE);
    if (payload_size != 0) { // 0: a jumbogram, or the network card fills it in
        cursor.limit(payload_size);
    }
    read_behind_ipv6(cursor, &transport);
    out->header = {};
    out->header.timestamp = timestamp_ns;
    store_ipv6_address(src, out->header.addr.ipv6.src);
    store_ipv6_address(dst, out->header.addr.ipv6.dst);
    out->header.ip_version = 6;
    out->key = make_key(src, dst, transport, 6);
    return verdict_t::IP;
}

} // namespace

verdict_t parse_packet(const uint8_t *data, size_t size, uint64_t timestamp_ns, parsed_packet_t *out)
{
    cursor_t cursor = {data, size};
    if (cursor.size < ETHERNET_HEADER_SIZE) {
        return verdict_t::TRUNCATED;
    }
    uint16_t type = cursor.be16(12);
    cursor.skip(ETHERNET_HEADER_SIZE);
    while (type == ETHERTYPE_8021Q || type == ETHERTYPE_8021AD || type == ETHERTYPE_OLD_QINQ) {
        if (cursor.size < VLAN_TAG_SIZE) {
            return verdict_t::TRUNCATED;
        }
        type = cursor.be16(2);
        cursor.skip(VLAN_TAG_SIZE);
    }
    switch (type) {
    case ETHERTYPE_IPV4:
        return parse_ipv4(cursor, timestamp_ns, out);
    case ETHERTYPE_IPV6:
        return parse_ipv6(cursor, timestamp_ns, out);
    default:
        return verdict_t::NOT_IP;
    }
}

} // namespace probe
