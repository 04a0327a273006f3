// The control listener: opens the plugin's TCP port, owns the rules manager, and serves each connection by a
// thread of its own from one of LS_MAX_CLIENTS slots. Below it: the rules manager, the captures and the
// control protocol. Above it: the plugin frame.
//
//   listener.cpp           the listener's life, accepting, slots
//   request_handler.cpp    a connection's thread: receives requests and dispatches them
//   history_requests.cpp   the HISTORY requests
//   reply.cpp              encoding and sending of replies
//
// Threads:
//   listener thread   started by ls_init, stopped by ls_destroy; can be cancelled while it waits for a
//                     connection and in its pause when the system lacks descriptors or memory. Owns the
//                     slots; its clean-up stops every handler.
//   client handlers   one per connection, started and joined by the listener thread; can be cancelled while
//                     they wait for a request's bytes or for room for a reply, where they hold no lock.
//
// A slot: free (used 0) -> busy (used 1, by the listener thread before the handler starts) -> free again (by
// the handler's clean-up, as its last act). The listener thread joins the ended handler before it uses the
// slot again; nothing else of a slot is touched by two threads at once.
#pragma once

#include "history_capture/history_capture.h"
#include "live_capture/live_capture.h"
#include "rules_manager/rules_manager.h"
#include "rules_manager/send_channel.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

constexpr uint32_t LS_MAX_CLIENTS = 128;
constexpr int LS_LISTEN_BACKLOG = 128;
constexpr int LS_SHORTAGE_PAUSE_MS = 1000; // before accepting again without descriptors or memory

struct listener_t {
    live_capture_t *live;        // borrowed
    int32_t sock;                // owned; does not block; -1 before it exists
    int32_t queue_count;         // processing queues
    history_capture_t **history; // borrowed; one per queue
    rules_manager_t rm;
    pthread_t thread; // runs ls_accept
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the fields keep their documented order
struct ls_client_t {
    std::atomic<uint8_t> used; // 1: busy; stored with release by the handler, loaded with acquire
    pthread_t thread;          // the handler
    live_capture_t *live;      // borrowed like rm and history
    rules_manager_t *rm;
    int32_t queue_count;
    history_capture_t **history;
    int32_t fd;         // owned while busy
    uint8_t registered; // 1: INFO ON has been answered with SUCCESS, INFO OFF not since

    bool joinable;         // `thread` has not been joined; the listener thread's
    uint8_t *reply;        // owned reply under way, or null
    msg_channel_t channel; // what replies and updates of this connection go through
};

// Open the port (number or service name) and start: the listener, or null after logging why, with errno of
// the failing step. Released with ls_destroy. queue_count is at most RM_MAX_QUEUES.
listener_t *ls_init(live_capture_t *live, const char *port, int32_t queue_count, history_capture_t **history);

// End every connection, stop every thread, release everything. Null is accepted.
void ls_destroy(listener_t *listener);

// The rest is the room's own.

// Body of the listener thread, and its clean-up: stop the handlers of all LS_MAX_CLIENTS slots.
void *ls_accept(void *listener);
void ls_cancel_client_handlers(void *slots);

// Body of a handler thread, and its clean-up: end the connection and free the slot.
void *ls_client_handler(void *slot);
void ls_client_handler_cleanup(void *slot);
