// What the packet path asks of the live capture for every packet. Inline, since a call would cost an
// unwatched packet a quarter more: the only place outside the room that sees its structure.
#pragma once

#include "live_capture/live_state.h"

// A packet whose addresses may be watched, and their places in the table.
struct lc_packet_t {
    const ip_addr_t *ends[2]; // SRC, DST
    fhf_place_t places[2];    // of the ends
    const uint8_t *data;
    uint32_t length; // bytes at data
    uint64_t timestamp;
};

// The rest of lc_filter, off the path of the unwatched packets.
[[nodiscard]] int lc_filter_watched(live_capture_t *live, const lc_packet_t &packet);

// Offer one packet (`length` bytes at `data`, timestamp in nanoseconds since the epoch) on the packet path. 1
// when it was written to at least one file, else 0. An unwatched packet takes no lock, writes nothing that
// other threads read, and makes no call, not even to read the clock.
[[nodiscard, gnu::always_inline]] inline int lc_filter(live_capture_t *live, const ip_addr_t *src,
                                                       const ip_addr_t *dst, const uint8_t *data,
                                                       uint32_t length, uint64_t timestamp)
{
    const fhf_table_t *table = live->ip_table;
    const fhf_place_t src_place = fhf_place_of_16(table, src->bytes);
    const fhf_place_t dst_place = fhf_place_of_16(table, dst->bytes);
    if ((fhf_tag_matches(table, src_place) | fhf_tag_matches(table, dst_place)) == 0) [[likely]] {
        return 0;
    }
    return lc_filter_watched(live, {{src, dst}, {src_place, dst_place}, data, length, timestamp});
}
