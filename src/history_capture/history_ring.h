// Operations on the ring for the rest of the room.
#pragma once

#include "history_capture/history_state.h"

// Drop the oldest record. Called by an append only, on a ring that holds one.
void hc_delete_first(history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock);
