#include "client/socket.h"

#include "client/error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace kestrune {

namespace {

using steady_t = std::chrono::steady_clock;

[[noreturn]] void fail(failure_t failure, const std::string &text)
{
    throw client_error_t(failure, text);
}

std::string errno_text(int error)
{
    return std::generic_category().message(error);
}

int poll_milliseconds(deadline_t deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_t::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

// True when the descriptor has one of the events or an error, false at the deadline. Throws when interrupted.
bool wait_for(int fd, short events, deadline_t deadline, int interrupt_fd)
{
    pollfd polled[2] = {{fd, events, 0}, {interrupt_fd, POLLIN, 0}};
    for (;;) {
        const int ready = poll(polled, 2, poll_milliseconds(deadline));
        if (ready < 0 && errno != EINTR) {
            fail(failure_t::LOCAL, "poll failed: " + errno_text(errno));
        }
        if (ready > 0 && polled[1].revents != 0) {
            fail(failure_t::INTERRUPTED, "interrupted");
        }
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && steady_t::now() >= deadline) {
            return false;
        }
    }
}

class descriptor_t {
public:
    explicit descriptor_t(int fd) : fd_(fd) {}
    ~descriptor_t()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    descriptor_t(const descriptor_t &) = delete;
    descriptor_t &operator=(const descriptor_t &) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

struct addresses_t {
    addrinfo *first = nullptr;
    int error = EAI_AGAIN;
    addresses_t() = default;
    addresses_t(const addresses_t &) = delete;
    addresses_t &operator=(const addresses_t &) = delete;
    ~addresses_t()
    {
        if (first != nullptr) {
            freeaddrinfo(first);
        }
    }
    void look_up(const endpoint_t &endpoint, int flags)
    {
        addrinfo hints = {};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = flags | AI_NUMERICSERV;
        error = getaddrinfo(endpoint.host.c_str(), endpoint.port.c_str(), &hints, &first);
    }
};

// A look-up of a name, on a thread of its own because getaddrinfo takes no deadline. If the deadline comes
// first, the thread is left behind and keeps its share of the result until it ends.
struct look_up_t {
    explicit look_up_t(endpoint_t where) : endpoint(std::move(where)), done(eventfd(0, EFD_CLOEXEC)) {}
    endpoint_t endpoint;
    addresses_t addresses;
    descriptor_t done; // readable once the addresses are known
};

std::shared_ptr<look_up_t> resolve(const endpoint_t &endpoint, deadline_t deadline, int interrupt_fd)
{
    auto result = std::make_shared<look_up_t>(endpoint);
    result->addresses.look_up(endpoint, AI_NUMERICHOST);
    if (result->addresses.error == 0) {
        return result;
    }
    if (result->done.get() < 0) {
        fail(failure_t::LOCAL, "eventfd failed: " + errno_text(errno));
    }
    std::thread([result] {
        result->addresses.look_up(result->endpoint, AI_ADDRCONFIG);
        eventfd_write(result->done.get(), 1);
    }).detach();
    eventfd_t count = 0;
    if (!wait_for(result->done.get(), POLLIN, deadline, interrupt_fd) ||
        eventfd_read(result->done.get(), &count) != 0) {
        fail(failure_t::CONNECT, "no answer of the name service in time");
    }
    if (result->addresses.error != 0) {
        fail(failure_t::CONNECT, gai_strerror(result->addresses.error));
    }
    return result;
}

// Options that a connection works without, so their failure is ignored. Keep-alive makes a long watch notice
// within a minute that the probe's machine is gone.
void set_options(int fd)
{
    const auto set = [fd](int level, int name, int value) {
        setsockopt(fd, level, name, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 20);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
    set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

// Connects to one address; the descriptor, or -1 with the errno.
int connect_one(const addrinfo &address, deadline_t deadline, int interrupt_fd, int *why)
{
    descriptor_t fd(
        socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
    int error = fd.get() < 0 ? errno : 0;
    if (error == 0) {
        set_options(fd.get());
        error = connect(fd.get(), address.ai_addr, address.ai_addrlen) != 0 ? errno : 0;
    }
    if (error == EINPROGRESS) {
        if (wait_for(fd.get(), POLLOUT, deadline, interrupt_fd)) {
            socklen_t size = sizeof error;
            getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        } else {
            error = ETIMEDOUT;
        }
    }
    if (error != 0) {
        *why = error;
        return -1;
    }
    return fd.release();
}

} // namespace

socket_t::socket_t(const endpoint_t &endpoint, deadline_t deadline, int interrupt_fd)
{
    const auto found = resolve(endpoint, deadline, interrupt_fd);
    int left = 0;
    for (const addrinfo *address = found->addresses.first; address != nullptr; address = address->ai_next) {
        left++;
    }
    bool refused = left > 0; // by each
    int why = EADDRNOTAVAIL;
    for (const addrinfo *address = found->addresses.first; address != nullptr && fd_ < 0;
         address = address->ai_next, left--) {
        const auto now = steady_t::now();
        fd_ = connect_one(*address, now + (deadline - now) / left, interrupt_fd, &why);
        refused = refused && why == ECONNREFUSED;
    }
    if (fd_ < 0) {
        fail(refused ? failure_t::NO_LISTENER : failure_t::CONNECT, errno_text(why));
    }
}

socket_t::~socket_t()
{
    close(fd_);
}

void socket_t::send(std::span<const uint8_t> bytes, deadline_t deadline, int interrupt_fd)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes = bytes.subspan(static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            if (!wait_for(fd_, POLLOUT, deadline, interrupt_fd)) {
                fail(failure_t::TIMEOUT, "the probe took no request in time");
            }
        } else if (errno != EINTR) {
            fail(failure_t::CLOSED, "the connection broke: " + errno_text(errno));
        }
    }
}

size_t socket_t::receive(std::span<uint8_t> room, deadline_t deadline, int interrupt_fd)
{
    while (wait_for(fd_, POLLIN, deadline, interrupt_fd)) {
        const ssize_t received = recv(fd_, room.data(), room.size(), 0);
        if (received > 0) {
            return static_cast<size_t>(received);
        }
        if (received == 0) {
            fail(failure_t::CLOSED, "the probe closed the connection");
        }
        if (errno != EAGAIN && errno != EINTR) {
            fail(failure_t::CLOSED, "the connection broke: " + errno_text(errno));
        }
    }
    return 0;
}

} // namespace kestrune
