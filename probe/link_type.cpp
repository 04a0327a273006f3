#include "probe/link_type.h"

#include "probe/error.h"

#include <array>
#include <cstring>
#include <pcap/pcap.h>

namespace probe {
namespace {

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr uint16_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint16_t ETHERTYPE_IPV6 = 0x86DD;
constexpr uint16_t ETHERTYPE_NONE = 0xFFFF; // reserved by IEEE

constexpr uint32_t LOOPBACK_HEADER_SIZE = 4;
constexpr uint32_t COOKED_HEADER_SIZE = 16;
constexpr uint32_t COOKED_V2_HEADER_SIZE = 20;

uint16_t be16(const uint8_t *at)
{
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

uint16_t raw_ethertype(const uint8_t *data)
{
    switch (data[0] >> 4) {
    case 4:
        return ETHERTYPE_IPV4;
    case 6:
        return ETHERTYPE_IPV6;
    default:
        return ETHERTYPE_NONE;
    }
}

// The address family is a 32-bit number in the byte order of the capturing machine (NULL) or in network order
// (LOOP). AF_INET6 differs between systems.
uint16_t loopback_ethertype(const uint8_t *data)
{
    uint32_t family = static_cast<uint32_t>(be16(data)) << 16 | be16(data + 2);
    if (family > 0xFFFF) {
        family = __builtin_bswap32(family);
    }
    switch (family) {
    case 2:
        return ETHERTYPE_IPV4;
    case 10: // Linux
    case 24: // NetBSD, OpenBSD
    case 28: // FreeBSD
    case 30: // macOS
        return ETHERTYPE_IPV6;
    default:
        return ETHERTYPE_NONE;
    }
}

// The protocol field is an EtherType, except for these kinds of devices.
uint16_t cooked_ethertype(uint16_t protocol, uint16_t arphrd)
{
    constexpr uint16_t FRAD = 770;
    constexpr uint16_t RADIOTAP = 803;
    constexpr uint16_t NETLINK = 824;
    return arphrd == FRAD || arphrd == RADIOTAP || arphrd == NETLINK ? ETHERTYPE_NONE : protocol;
}

struct link_header_t {
    uint32_t size;                 // bytes; 0: cut
    uint16_t ethertype;            // of what follows
    const uint8_t *source_address; // 6 bytes, or null
};

link_header_t read_link_header(link_type_t type, const uint8_t *data, uint32_t size)
{
    if (type == link_type_t::BSD_LOOPBACK && size >= LOOPBACK_HEADER_SIZE) {
        return {LOOPBACK_HEADER_SIZE, loopback_ethertype(data), nullptr};
    }
    if (type == link_type_t::COOKED && size >= COOKED_HEADER_SIZE) {
        return {COOKED_HEADER_SIZE, cooked_ethertype(be16(data + 14), be16(data + 2)),
                be16(data + 4) == 6 ? data + 6 : nullptr};
    }
    if (type == link_type_t::COOKED_V2 && size >= COOKED_V2_HEADER_SIZE) {
        return {COOKED_V2_HEADER_SIZE, cooked_ethertype(be16(data), be16(data + 8)),
                data[11] == 6 ? data + 12 : nullptr};
    }
    return {0, ETHERTYPE_NONE, nullptr};
}

} // namespace

link_type_t link_type_of(int dlt, const std::string &source)
{
    switch (dlt) {
    case DLT_EN10MB:
        return link_type_t::ETHERNET;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
        return link_type_t::RAW_IP;
    case DLT_NULL:
    case DLT_LOOP:
        return link_type_t::BSD_LOOPBACK;
    case DLT_LINUX_SLL:
        return link_type_t::COOKED;
    case DLT_LINUX_SLL2:
        return link_type_t::COOKED_V2;
    default:
        break;
    }
    const char *name = pcap_datalink_val_to_name(dlt);
    throw error_t(source + " has link type " + (name != nullptr ? name : std::to_string(dlt)) +
                  "; Ethernet, raw IP, BSD loopback and Linux cooked captures can be read");
}

frame_t ethernet_maker_t::rewrite(const uint8_t *data, uint32_t size)
{
    link_header_t header = {0, ETHERTYPE_NONE, nullptr};
    if (type_ != link_type_t::RAW_IP) {
        header = read_link_header(type_, data, size);
    } else if (size > 0) {
        header.ethertype = raw_ethertype(data);
    }
    if (size == 0 || (header.size == 0 && type_ != link_type_t::RAW_IP)) {
        return {nullptr, 0};
    }
    const uint32_t payload_size = size - header.size;
    made_.assign(ETHERNET_HEADER_SIZE + payload_size, 0);
    if (header.source_address != nullptr) {
        std::memcpy(made_.data() + 6, header.source_address, 6);
    }
    made_[12] = static_cast<uint8_t>(header.ethertype >> 8);
    made_[13] = static_cast<uint8_t>(header.ethertype);
    if (payload_size > 0) {
        std::memcpy(made_.data() + ETHERNET_HEADER_SIZE, data + header.size, payload_size);
    }
    return {made_.data(), static_cast<uint32_t>(made_.size())};
}

} // namespace probe
