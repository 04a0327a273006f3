// Reads the headers of one Ethernet frame: what the plugin gets of a packet (host_header_t) and the key of
// its flow. Every length is checked against the captured bytes; nothing beyond them is read.
//
//   Ethernet | any stack of 802.1Q / 802.1ad tags | IPv4 or IPv6 with extension headers | transport ports
//
// A packet is handed on as soon as its addresses are known. When the captured bytes end there, the flow key
// has no ports. Sources: IEEE 802.1Q, RFC 791, RFC 8200, RFC 4302 (AH), RFC 792, RFC 4443.
//
// Threads: plain functions without state.
#pragma once

#include "common/host_interface.h"

#include <cstddef>
#include <cstdint>

namespace probe {

enum class verdict_t : uint8_t {
    IP,       // parsed; handed on
    NOT_IP,   // another protocol, or a header that is no IP header
    TRUNCATED // the captured bytes end before the addresses do
};

// A flow in both directions: the endpoint with the lower address (then port) comes first. All fragments of
// one protocol between two addresses form one flow without ports, since only the first of them carries any.
//   words 0-1, 2-3   the two addresses as numbers, least significant word first; IPv4 in words 0 and 2 only
//   word 4           ports (2 * 16 bits, ordered like the addresses), protocol (8), version (8), fragment
struct flow_key_t {
    uint64_t words[5];

    bool operator==(const flow_key_t &) const = default;
};

struct parsed_packet_t {
    host_header_t header; // timestamp, addresses and version; the rest is zero
    flow_key_t key;
};

// Parse the frame of `size` bytes. `out` is written only when the answer is IP.
[[nodiscard]] verdict_t parse_packet(const uint8_t *data, size_t size, uint64_t timestamp_ns,
                                     parsed_packet_t *out);

// A 64-bit hash; each seed gives another hash.
inline uint64_t flow_hash(const flow_key_t &key, uint64_t seed)
{
    __extension__ typedef unsigned __int128 wide_t;
    const auto mix = [](uint64_t a, uint64_t b) {
        const wide_t product = static_cast<wide_t>(a) * b;
        return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
    };
    const uint64_t first = mix(key.words[0] ^ seed ^ 0x9E3779B97F4A7C15U, key.words[1] ^ 0xD1B54A32D192ED03U);
    const uint64_t second =
        mix(key.words[2] ^ seed ^ 0x8CB92BA72F3D8DD7U, key.words[3] ^ 0xA24BAED4963EE407U);
    return mix(first ^ key.words[4], second ^ 0xE7037ED1A0B428DBU);
}

// The queue, below `queue_count`, that gets every packet of the flow; the same in every run.
inline uint32_t flow_queue(const flow_key_t &key, uint32_t queue_count)
{
    return static_cast<uint32_t>(((flow_hash(key, 0) >> 32) * queue_count) >> 32);
}

} // namespace probe
