// What the packet path asks of a history capture for every packet. Inline, since a call would cost every
// packet time: the only place outside the room that sees its structure.
#pragma once

#include "history_capture/history_state.h"

// Counts the ring's releases and switches. The packet path reads it before it looks into the live capture;
// that look then finds every live capture that existed when one of these rules was released.
[[nodiscard]] inline uint64_t hc_offers(const history_capture_t *hc)
{
    return hc->offers.load(std::memory_order_acquire);
}

// Whether packets are stored while hc_offers returns this.
[[nodiscard]] inline bool hc_may_store(uint64_t offers)
{
    return offers % 2 != 0;
}
