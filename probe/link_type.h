// The plugin's capture files are Ethernet, so frames of other link types get an Ethernet header
// in place of their own. Sources: the link-layer header types of the tcpdump project
// (LINKTYPE_RAW, _NULL, _LOOP, _LINUX_SLL, _LINUX_SLL2).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace probe {

enum class link_type_t : uint8_t { ETHERNET, RAW_IP, BSD_LOOPBACK, COOKED, COOKED_V2 };

// The link type for libpcap's DLT_ number. Throws error_t, which names the number and
// `source`, for an unknown one.
link_type_t link_type_of(int dlt, const std::string &source);

struct frame_t {
    const uint8_t *data;
    uint32_t size; // bytes
};

// Converts captured frames to Ethernet. Addresses that the link type lacks are zero; a protocol without an
// EtherType becomes the reserved 0xFFFF.
class ethernet_maker_t {
public:
    explicit ethernet_maker_t(link_type_t type) : type_(type) {}

    // The captured frame as Ethernet: unchanged if it is Ethernet already, otherwise built, and valid until
    // the next call. Empty when the captured bytes end within the link header.
    frame_t make(const uint8_t *data, uint32_t size)
    {
        return type_ == link_type_t::ETHERNET ? frame_t{data, size} : rewrite(data, size);
    }

private:
    frame_t rewrite(const uint8_t *data, uint32_t size);

    link_type_t type_;
    std::vector<uint8_t> made_;
};

} // namespace probe
