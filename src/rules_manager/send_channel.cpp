#include "rules_manager/send_channel.h"

#include "common/thread.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace {

int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Send what goes at once of the reply behind *sent. False with errno when the connection has failed.
bool send_some(msg_channel_t *channel, const uint8_t *bytes, uint32_t size, uint32_t *sent)
{
    mutex_lock(&channel->lock);
    ssize_t went = -1;
    if (channel->broken) {
        errno = EPIPE;
    } else {
        went = send(channel->fd, bytes + *sent, size - *sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (went > 0) {
        *sent += static_cast<uint32_t>(went);
        channel->mid_message = *sent < size;
    }
    mutex_unlock(&channel->lock);
    return went >= 0 || errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// POLLOUT comes only once a good part of the send buffer is free; less may do for the rest of a reply.
constexpr int64_t RETRY_MS = 100;

// Wait until there may be room, at most until the deadline. False with errno ETIMEDOUT at the deadline.
bool wait_for_room(int fd, int64_t deadline_ms)
{
    const int64_t left = deadline_ms - now_ms();
    if (left <= 0) {
        errno = ETIMEDOUT;
        return false;
    }
    pollfd room = {fd, POLLOUT, 0};
    thread_cancel_enable();
    poll(&room, 1, static_cast<int>(std::min(left, RETRY_MS)));
    thread_cancel_disable();
    return true;
}

} // namespace

void msg_channel_open(msg_channel_t *channel, int32_t fd) KS_NO_ANALYSIS // not shared yet
{
    channel->fd = fd;
    channel->lock = {PTHREAD_MUTEX_INITIALIZER};
    channel->mid_message = false;
    channel->broken = false;
}

int msg_channel_reply(msg_channel_t *channel, const uint8_t *bytes, uint32_t size)
{
    uint32_t sent = 0;
    const int64_t deadline_ms = now_ms() + MSG_REPLY_TIMEOUT_MS;
    while (true) {
        if (!send_some(channel, bytes, size, &sent)) {
            return -1;
        }
        if (sent == size) {
            return 0;
        }
        if (!wait_for_room(channel->fd, deadline_ms)) {
            return -1;
        }
    }
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
