// The HISTORY requests: rings on, off, and their state.
#pragma once

#include "listener/slot.h"

#include <cstdint>

// Carry out a HISTORY request of any target, from the bytes after its header to its reply. False, after
// logging why, when the connection must end.
[[nodiscard]] bool ls_handle_history(ls_client_t *slot, uint8_t target);
