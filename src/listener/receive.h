// Receiving a request, and waiting for the turn to carry it out.
#pragma once

#include "listener/slot.h"

#include <cstdint>

// Receive exactly `size` bytes. False after logging when the connection ended first.
// Blocks; can be cancelled.
[[nodiscard]] bool ls_receive(const ls_client_t *slot, uint8_t *bytes, uint32_t size);

// Whether nothing of the next request has arrived yet.
[[nodiscard]] bool ls_must_wait(const ls_client_t *slot);

// A request's last byte has arrived: wait for the turn to carry it out. Can be
// cancelled. The reply ends the turn.
inline void ls_begin_work(ls_client_t *slot)
{
    ls_permit_enter(slot->permits, &slot->permit);
}
inline void ls_end_work(ls_client_t *slot)
{
    ls_permit_leave(slot->permits, &slot->permit);
}

// Receive the 4-byte value of a request.
[[nodiscard]] bool ls_receive_value(const ls_client_t *slot, uint32_t *value);
