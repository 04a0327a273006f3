// Any bytes as a captured frame, of each link type: whatever they are, nothing outside them is read, and what
// is handed on holds its addresses.
//
// Input: the first byte chooses the link type, the rest is the frame.
#include "probe/packet_sink.h"

#include <cstdint>
#include <cstdlib>

namespace {

void require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

class checking_sink_t final : public probe::packet_sink_t {
public:
    void take(const probe::parsed_packet_t &packet, const uint8_t *data, uint16_t length) override
    {
        const bool v4 = packet.header.ip_version == 4;
        require(v4 || packet.header.ip_version == 6);
        require(length >= (v4 ? 14 + 20 : 14 + 40));
        // The addresses stand somewhere behind the tags, in network order.
        const int size = v4 ? 4 : 16;
        const uint8_t *src = v4 ? packet.header.addr.ipv4.src : packet.header.addr.ipv6.src;
        int at = 12;
        while (data[at] != (v4 ? 0x08 : 0x86) || data[at + 1] != (v4 ? 0x00 : 0xDD)) {
            at += 4;
            require(at + 2 <= length);
        }
        const uint8_t *network = data + at + 2 + (v4 ? 12 : 8);
        for (int i = 0; i < size; i++) {
            require(network[i] == src[size - 1 - i]);
        }
        require(probe::flow_queue(packet.key, 7) < 7);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    using probe::link_type_t;
    constexpr link_type_t TYPES[] = {link_type_t::ETHERNET, link_type_t::RAW_IP, link_type_t::BSD_LOOPBACK,
                                     link_type_t::COOKED, link_type_t::COOKED_V2};
    probe::reader_counters_t counters;
    checking_sink_t sink;
    probe::frame_reader_t reader(TYPES[data[0] % 5], &counters, &sink);
    reader.read(data + 1, static_cast<uint32_t>(size - 1), 1);
    return 0;
}
