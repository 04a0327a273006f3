// The plugin as the host sees it: the six entry points, and the root of everything that a start creates.
//
//   not loaded -> running (plugin_process_init returned a structure) -> gone (plugin_process_shutdown)
//
// Threads: plugin_process_init and plugin_process_shutdown run on the host's thread while no packet is
// handed over. plugin_process_update runs on the host's queue threads, one per queue, all at once: it
// touches its own queue's history capture and the live capture that all share. Ownership: plugin_private_t
// owns what it points to. The host keeps borrowed plugin_instance_t pointers between
// plugin_process_init_queue and plugin_process_shutdown.
#pragma once

#include "common/export.h"
#include "common/host_interface.h"
#include "history_capture/history_capture.h"
#include "listener/listener.h"
#include "live_capture/live_capture.h"

#include <cstdint>

constexpr int32_t MAX_QUEUES = LS_MAX_QUEUES; // what the listener takes

// One per queue; what the packet path needs, copied together.
struct plugin_instance_t {
    live_capture_t *live;       // borrowed; the same for every queue
    history_capture_t *history; // borrowed; this queue's
};

struct plugin_private_t {
    live_capture_t *live;         // owned
    int32_t count;                // history captures created so far
    history_capture_t **history;  // owned array, an owned entry per queue
    plugin_instance_t *instances; // owned array, an entry per queue
    listener_t *listener;         // owned
};

// Name, help text and the host's own numbers. Static.
KS_EXPORT plugin_desc_t *plugin_process_desc();

// Start. params is the host's parameter string, queue_count the number of queues (1 to
// MAX_QUEUES). Null after logging why, with nothing left running; the next start or the
// shutdown releases the paths of a failed one.
KS_EXPORT plugin_private_t *plugin_process_init(const char *params, const void *host_1, const void *host_2,
                                                int32_t queue_count);

// What the host passes with every packet of queue `index` (from 0, not checked).
KS_EXPORT plugin_instance_t *plugin_process_init_queue(plugin_private_t *plugin, int32_t index);

// The host's question whether a flow concerns this plugin; always 0.
KS_EXPORT int plugin_process_filter(...);

// The packet path: one packet of one queue. Allocates nothing.
KS_EXPORT void plugin_process_update(plugin_instance_t *instance, const host_flow_t *flow,
                                     const host_packet_t *packet);

// Stop every thread, close every file, release everything. 0.
KS_EXPORT int plugin_process_shutdown(plugin_private_t *plugin);

// Tear down what exists of a start. Null is accepted.
void plugin_private_destroy(plugin_private_t *plugin);
