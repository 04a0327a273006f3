// The sending side of one control connection. Two parties send on it: the connection's own handler (replies)
// and the rules manager (updates, under the registry lock). Their messages never interleave, and the rules
// manager never waits for a client:
//
//   - A message goes out in one call that does not block; `lock` is held for that call alone.
//   - A reply that did not go out whole sets mid_message. Its handler then owns the channel, waits for room
//     without the lock and continues sending. Updates fail meanwhile.
//   - An update that does not go out whole fails. If part of a message went out, the connection is shut
//     down: a client sees whole messages or the end of the stream.
//
// Threads: any for updates; replies from the connection's handler only. Lock order:
// registry lock, then `lock`.
#pragma once

#include "common/lock.h"

#include <cstdint>
#include <sys/uio.h>

constexpr int RM_REPLY_TIMEOUT_MS = 5000; // longest wait of a reply for its client to read

struct rm_channel_t {
    int32_t fd; // borrowed; a connected stream socket
    mutex_t lock;
    bool mid_message KS_GUARDED_BY(lock); // a reply waits for room; its handler alone sends
    bool broken KS_GUARDED_BY(lock);      // part of an update went out: shut down
};

// A reply being sent. The bytes are borrowed.
struct rm_reply_t {
    const uint8_t *bytes; // not sent yet
    uint32_t size;
    int64_t deadline_ms; // monotonic; 0 before the first wait
};

enum : int { RM_SENT = 0, RM_WAITS = 1, RM_FAILED = -1 };

// Set up for a new connection, which no other thread uses yet.
void rm_channel_open(rm_channel_t *channel, int32_t fd);

// Send as much of a reply as fits now: RM_SENT when it is complete, RM_WAITS when more is left, RM_FAILED
// with errno. After a failure the connection is unusable. Never blocks.
[[nodiscard]] int rm_channel_reply(rm_channel_t *channel, rm_reply_t *reply) KS_EXCLUDES(channel->lock);

// Wait until more of the reply fits. False with errno (ETIMEDOUT once the reply has waited
// RM_REPLY_TIMEOUT_MS). Can be cancelled. Leaves cancellation disabled.
[[nodiscard]] bool rm_channel_wait(const rm_channel_t *channel, rm_reply_t *reply);

// Send one update, or several of message_size bytes each, given in parts. True when
// all of it went out at once. Never blocks.
[[nodiscard]] bool rm_channel_update(rm_channel_t *channel, iovec *parts, uint32_t part_count,
                                     uint32_t message_size) KS_EXCLUDES(channel->lock);
