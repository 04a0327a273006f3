// The structure of the listener, and its threads. Private to the room.
//
//   listener.cpp           the listener's life, accepting, slots
//   request_handler.cpp    a connection's thread: dispatches its requests
//   history_requests.cpp   the HISTORY requests
//   receive.cpp, reply.cpp a request's bytes; encoding and sending of replies
//   permits.cpp            how many requests run at a time, and whose turn it is
//   starter.cpp            starts threads for the handlers, with the host's nice value
//
// Threads:
//   listener thread   started by ls_init, stopped by ls_destroy; can be cancelled while it waits for a
//                     connection and in its pause when the system lacks descriptors or memory. Owns the
//                     slots; its clean-up stops every handler.
//   client handlers   one per connection, started and joined by the listener thread; can be cancelled while
//                     they wait for a request's bytes, for a permit or for room for a reply, where they hold
//                     no lock and, but for the grant of one at that moment, no permit.
#pragma once

#include "listener/listener.h"
#include "listener/permits.h"
#include "listener/starter.h"
#include "rules_manager/rules_manager.h"

#include <pthread.h>

static_assert(LS_MAX_QUEUES == RM_MAX_QUEUES);
constexpr int LS_LISTEN_BACKLOG = 128;
constexpr int LS_SHORTAGE_PAUSE_MS = 1000; // before accepting again without descriptors or memory

struct listener_t {
    live_capture_t *live;        // borrowed
    int32_t sock;                // owned; does not block; -1 before it exists
    int32_t queue_count;         // processing queues
    history_capture_t **history; // borrowed; one per queue
    rules_manager_t rm;
    pthread_t thread; // runs ls_accept

    ls_permits_t permits; // of all handlers
    ls_starter_t starter; // theirs too
};

// Body of the listener thread, and its clean-up: stop the handlers of all LS_MAX_CLIENTS slots.
void *ls_accept(void *listener);
void ls_cancel_client_handlers(void *slots);
