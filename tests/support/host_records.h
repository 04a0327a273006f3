// Packets as the host hands them over, built field by field.
#pragma once

#include "common/host_interface.h"
#include "common/ip_addr.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

// 10.x.y.z of a number.
inline ip_addr_t numbered_address(uint32_t number)
{
    const uint8_t bytes[4] = {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8),
                              static_cast<uint8_t>(number >> 16), 10};
    return ip_addr_from_ipv4(bytes);
}

// One packet with its parsed header and flow. Not movable: the packet points to the header and the data.
class host_record_t {
public:
    // 4: src and dst are taken for IPv4 keys, else for IPv6 keys (ip_addr.h).
    host_record_t(uint8_t ip_version, const ip_addr_t &src, const ip_addr_t &dst, std::string bytes,
                  uint64_t timestamp = 0, uint32_t flow_packets = 0)
        : data(std::move(bytes))
    {
        header.timestamp = timestamp;
        header.ip_version = ip_version;
        if (ip_version == 4) {
            std::memcpy(header.addr.ipv4.src, src.bytes + 4, 4);
            std::memcpy(header.addr.ipv4.dst, dst.bytes + 4, 4);
        } else {
            std::memcpy(header.addr.ipv6.src, src.bytes, 16);
            std::memcpy(header.addr.ipv6.dst, dst.bytes, 16);
        }
        packet.header = &header;
        packet.data = reinterpret_cast<const uint8_t *>(data.data());
        packet.length = static_cast<uint16_t>(data.size());
        flow.packets = flow_packets;
    }
    host_record_t(const host_record_t &) = delete;
    host_record_t &operator=(const host_record_t &) = delete;

    host_header_t header = {};
    host_packet_t packet = {};
    host_flow_t flow = {};

private:
    std::string data;
};
