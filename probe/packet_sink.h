// A packet's path inside the probe: a reader turns captured bytes into parsed
// Ethernet packets, a sink takes them.
#pragma once

#include "probe/counters.h"
#include "probe/link_type.h"
#include "probe/packet_parser.h"

#include <cstdint>

namespace probe {

// Threads: a sink belongs to the thread that reads.
class packet_sink_t {
public:
    packet_sink_t() = default;
    packet_sink_t(const packet_sink_t &) = delete;
    packet_sink_t &operator=(const packet_sink_t &) = delete;
    virtual ~packet_sink_t() = default;

    // Take one IP packet. The arguments are valid during the call only.
    virtual void take(const parsed_packet_t &packet, const uint8_t *data, uint16_t length) = 0;
    // The reader pauses: hand on everything taken so far.
    virtual void flush() {}
};

constexpr uint32_t PACKET_LENGTH_MAX = UINT16_MAX; // a packet record's length has 16 bits

// Counts, rewrites and parses captured frames of one link type.
class frame_reader_t {
public:
    frame_reader_t(link_type_t type, reader_counters_t *counters, packet_sink_t *sink)
        : maker_(type), counters_(counters), sink_(sink)
    {
    }

    void read(const uint8_t *data, uint32_t size, uint64_t timestamp_ns)
    {
        counters_->read.add();
        frame_t frame = maker_.make(data, size);
        const bool clamp = frame.size > PACKET_LENGTH_MAX;
        frame.size = clamp ? PACKET_LENGTH_MAX : frame.size;
        parsed_packet_t packet;
        switch (parse_packet(frame.data, frame.size, timestamp_ns, &packet)) {
        case verdict_t::IP:
            counters_->clamped.add(clamp ? 1 : 0);
            sink_->take(packet, frame.data, static_cast<uint16_t>(frame.size));
            break;
        case verdict_t::NOT_IP:
            counters_->not_ip.add();
            break;
        case verdict_t::TRUNCATED:
            counters_->truncated.add();
            break;
        }
    }

private:
    ethernet_maker_t maker_;
    reader_counters_t *counters_; // borrowed
    packet_sink_t *sink_;         // borrowed
};

} // namespace probe
