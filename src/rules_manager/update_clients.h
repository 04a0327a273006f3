// The update messages. A client with no room for an update misses it, and loses its registration when that
// was an INCIDENT. The plugin never waits for it.
#pragma once

#include "rules_manager/rules_manager.h"

#include <cstdint>

constexpr uint32_t RM_CAPTURE_BYTES = MSG_HEADER_SIZE + MSG_UPDATE_CAPTURE_SIZE;
// Sent together, so that even 10000 updates to 128 clients hold the lock for a few milliseconds only.
constexpr uint32_t RM_CAPTURES_PER_SEND = 1024;

// CAPTURE updates of a walk over rules with the registry locked, collected and sent together. Slots do not change
// meanwhile.
struct rm_capture_batch_t {
    uint8_t bytes[RM_CAPTURES_PER_SEND * RM_CAPTURE_BYTES];
    uint32_t used;
    bool failed[RM_MAX_CLIENTS]; // by slot: a send failed, so the slot gets nothing more in this walk
};

void rm_send_incident(rules_manager_t *rm, const rm_rule_t *rule) KS_REQUIRES(rm->lock);

// Put a CAPTURE update with the rule's last_progress into the batch; a full batch is sent first.
void rm_batch_capture(rules_manager_t *rm, rm_capture_batch_t *batch, const rm_rule_t *rule)
    KS_REQUIRES(rm->lock);
void rm_send_captures(rules_manager_t *rm, rm_capture_batch_t *batch) KS_REQUIRES(rm->lock);

// list: the history list, list_len bytes (at most MSG_TEXT_WIRE_MAX).
void rm_send_visual(rules_manager_t *rm, const rm_rule_t *rule, const char *list, uint32_t list_len)
    KS_REQUIRES_SHARED(rm->lock);
