#include "rules_manager/send_channel.h"

#include "common/thread.h"

#include <cerrno>
#include <ctime>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool is_passing(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Send what goes at once of a reply; what does not leaves the channel to the reply. Number of bytes sent, or
// -1 with errno when the connection has failed.
ssize_t begin_reply(msg_channel_t *channel, const uint8_t *bytes, uint32_t size)
{
    mutex_lock(&channel->lock);
    ssize_t sent = -1;
    errno = EPIPE;
    if (!channel->broken) {
        sent = send(channel->fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && is_passing(errno)) {
            sent = 0;
        }
    }
    channel->mid_message = sent >= 0 && sent < static_cast<ssize_t>(size);
    mutex_unlock(&channel->lock);
    return sent;
}

// Send the rest of a reply, waiting for room; SO_SNDTIMEO bounds the wait. False with errno.
bool send_rest(const msg_channel_t *channel, const uint8_t *bytes, size_t size)
{
    const int64_t deadline_ms = now_ms() + MSG_REPLY_TIMEOUT_MS;
    while (true) {
        thread_cancel_enable();
        const ssize_t sent = send(channel->fd, bytes, size, MSG_NOSIGNAL);
        thread_cancel_disable();
        if (sent < 0 && !is_passing(errno)) {
            return false;
        }
        if (sent > 0) {
            bytes += sent;
            size -= static_cast<size_t>(sent);
        }
        if (size == 0) {
            return true;
        }
        if (now_ms() >= deadline_ms) {
            errno = ETIMEDOUT;
            return false;
        }
    }
}

} // namespace

void msg_channel_open(msg_channel_t *channel, int32_t fd) KS_NO_ANALYSIS // not shared yet
{
    channel->fd = fd;
    channel->lock = {PTHREAD_MUTEX_INITIALIZER};
    channel->mid_message = false;
    channel->broken = false;
    const timeval timeout = {MSG_REPLY_TIMEOUT_MS / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

int msg_channel_reply(msg_channel_t *channel, const uint8_t *bytes, uint32_t size)
{
    const ssize_t sent = begin_reply(channel, bytes, size);
    if (sent == static_cast<ssize_t>(size)) {
        return 0;
    }
    if (sent < 0 || !send_rest(channel, bytes + sent, size - static_cast<size_t>(sent))) {
        return -1;
    }
    mutex_lock(&channel->lock);
    channel->mid_message = false;
    mutex_unlock(&channel->lock);
    return 0;
}

bool msg_channel_update(msg_channel_t *channel, iovec *parts, uint32_t part_count, uint32_t message_size)
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
