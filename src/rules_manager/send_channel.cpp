#include "rules_manager/send_channel.h"

#include "common/clock.h"
#include "common/thread.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace {

int64_t now_ms()
{
    return static_cast<int64_t>(monotonic_now_ns() / NS_PER_MS);
}

bool is_passing(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

void rm_channel_open(rm_channel_t *channel, int32_t fd) KS_NO_ANALYSIS // not shared yet
{
    channel->fd = fd;
    channel->lock = {PTHREAD_MUTEX_INITIALIZER};
    channel->mid_message = false;
    channel->broken = false;
}

int rm_channel_reply(rm_channel_t *channel, rm_reply_t *reply)
{
    ssize_t sent = -1;
    mutex_lock(&channel->lock);
    errno = EPIPE;
    if (!channel->broken) {
        sent = send(channel->fd, reply->bytes, reply->size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && is_passing(errno)) {
            sent = 0;
        }
    }
    if (sent > 0) {
        reply->bytes += sent;
        reply->size -= static_cast<uint32_t>(sent);
    }
    channel->mid_message = sent >= 0 && reply->size > 0;
    mutex_unlock(&channel->lock);
    return sent < 0 ? RM_FAILED : reply->size > 0 ? RM_WAITS : RM_SENT;
}

bool rm_channel_wait(const rm_channel_t *channel, rm_reply_t *reply)
{
    const int64_t now = now_ms();
    if (reply->deadline_ms == 0) {
        reply->deadline_ms = now + RM_REPLY_TIMEOUT_MS;
    }
    if (now >= reply->deadline_ms) {
        errno = ETIMEDOUT;
        return false;
    }
    const int ready = thread_poll(channel->fd, POLLOUT, static_cast<int>(reply->deadline_ms - now));
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0 || (ready < 0 && errno == EINTR);
}

bool rm_channel_update(rm_channel_t *channel, iovec *parts, uint32_t part_count, uint32_t message_size)
{
    size_t size = 0;
    for (uint32_t i = 0; i < part_count; i++) {
        size += parts[i].iov_len;
    }
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = part_count;
    ssize_t went = -1;
    mutex_lock(&channel->lock);
    if (!channel->mid_message && !channel->broken) {
        went = sendmsg(channel->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    const bool whole = went >= 0 && static_cast<size_t>(went) == size;
    if (!whole && went > 0 && went % message_size != 0) {
        channel->broken = true;
        shutdown(channel->fd, SHUT_RDWR); // its handler sees the end of the stream
    }
    mutex_unlock(&channel->lock);
    return whole;
}
