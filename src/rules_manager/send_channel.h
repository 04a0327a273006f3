// The sending side of one control connection. Two parties send on it: the connection's own handler (replies)
// and the rules manager (updates, under the registry lock). Messages of the two never interleave, and the
// rules manager never waits for a client:
//
//   - a message goes out in one call that does not block, with `lock` held for that call alone;
//   - a reply that did not go out whole sets mid_message: the channel is its handler's, which sends the rest
//     with a call that blocks, without the lock; an update meanwhile fails;
//   - an update that does not go out whole fails, and when a part of a message went out the connection is
//   shut
//     down: a client sees whole messages or the end of the stream.
//
// Threads: any for updates; replies from the connection's handler only. Lock order: registry lock, then
// `lock`.
#pragma once

#include "common/lock.h"

#include <cstdint>
#include <sys/uio.h>

constexpr int MSG_REPLY_TIMEOUT_MS = 5000; // a reply waits no longer than this for its client to read

struct msg_channel_t {
    int32_t fd; // borrowed; a connected stream socket
    mutex_t lock;
    bool mid_message KS_GUARDED_BY(lock); // a reply waits for room; its handler alone sends
    bool broken KS_GUARDED_BY(lock);      // a part of an update has gone out: shut down
};

// Set up for a new connection, and bound the time that a send on it blocks. Nobody else may use the channel
// yet.
void msg_channel_open(msg_channel_t *channel, int32_t fd);

// Send a whole reply: 0, or -1 with errno (ETIMEDOUT after MSG_REPLY_TIMEOUT_MS);
// after a failure the connection is of no more use. Blocks; can be cancelled while it waits for room, with no
// lock held. Leaves cancellation disabled.
[[nodiscard]] int msg_channel_reply(msg_channel_t *channel, const uint8_t *bytes, uint32_t size)
    KS_EXCLUDES(channel->lock);

// Send one update, or several of message_size bytes each, given in parts. True when all of it went out at
// once. Never blocks.
[[nodiscard]] bool msg_channel_update(msg_channel_t *channel, iovec *parts, uint32_t part_count,
                                      uint32_t message_size) KS_EXCLUDES(channel->lock);
