// A connection's slot: what its handler works on. Private to the room.
//
// A slot: free (used 0) -> busy (used 1, set by the listener thread before the handler starts) -> free again
// (set by the handler's clean-up, as its last act). The listener thread joins the ended handler before it
// uses the slot again. No other field of a slot is used by two threads at once.
#pragma once

#include "history_capture/history_capture.h"
#include "listener/permits.h"
#include "listener/starter.h"
#include "rules_manager/rules_manager.h"
#include "rules_manager/send_channel.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the fields keep their documented order
struct ls_client_t {
    std::atomic<uint8_t> used; // 1: busy; stored with release by the handler, loaded with acquire
    pthread_t thread;          // the handler
    rules_manager_t *rm;       // borrowed like history
    int32_t queue_count;
    history_capture_t **history;
    int32_t fd; // owned while busy

    bool joinable;         // `thread` has not been joined; the listener thread's
    bool served;           // has had a request; the handler's
    uint8_t *reply;        // owned reply being sent, or null
    ls_permits_t *permits; // borrowed, of the listener
    ls_permit_t permit;    // this connection's part
    ls_starter_t *starter; // borrowed, of the listener
    rm_channel_t channel;  // what replies and updates of this connection go through
};
