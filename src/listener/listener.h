// The control listener: opens the plugin's TCP port, owns the rules manager, and serves each connection with
// a thread of its own. Below it: the rules manager, the captures and the control protocol. Above it: the
// plugin frame. This is the face of the room.
#pragma once

#include "history_capture/history_capture.h"
#include "live_capture/live_capture.h"

#include <cstdint>

constexpr uint32_t LS_MAX_CLIENTS = 128;
constexpr int32_t LS_MAX_QUEUES = 255;

struct listener_t; // listener_state.h

// Open the port (number or service name) and start. The listener, or null after logging why,
// with errno of the failing step. Released with ls_destroy. queue_count is at most
// LS_MAX_QUEUES. The captures are borrowed.
listener_t *ls_init(live_capture_t *live, const char *port, int32_t queue_count, history_capture_t **history);

// End every connection, stop every thread, release everything. Null is accepted.
void ls_destroy(listener_t *listener);
