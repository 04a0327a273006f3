// What the handlers of single requests share. Each returns false when the connection is to end; the reason
// has been logged by then.
#pragma once

#include "listener/listener.h"
#include "protocol/message.h"

#include <cstdint>

// Receive exactly `size` bytes. False after logging when the connection ended before. Blocks; can be
// cancelled.
[[nodiscard]] bool ls_receive(const ls_client_t *slot, uint8_t *bytes, uint32_t size);

// Receive the 4-byte value of a request.
[[nodiscard]] bool ls_receive_value(const ls_client_t *slot, uint32_t *value);

// A HISTORY request of any target, from after its header to its reply.
[[nodiscard]] bool ls_handle_history(ls_client_t *slot, uint8_t target);
