#include "probes/context.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kestrune::manager {

signal_t::signal_t() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ < 0) {
        throw client_error_t(failure_t::LOCAL, "eventfd failed");
    }
}

signal_t::~signal_t()
{
    close(fd_);
}

void signal_t::give() const
{
    eventfd_write(fd_, 1);
}

void signal_t::take() const
{
    eventfd_t count = 0;
    eventfd_read(fd_, &count);
}

bool context_t::pause(milliseconds_t time, const signal_t *wake) const
{
    pollfd polled[2] = {{stop.fd(), POLLIN, 0}, {wake != nullptr ? wake->fd() : -1, POLLIN, 0}};
    while (poll(polled, 2, static_cast<int>(time.count())) < 0 && errno == EINTR) {
    }
    if (polled[1].revents != 0) {
        wake->take();
    }
    return polled[0].revents != 0;
}

milliseconds_t backoff_t::after(milliseconds_t stood)
{
    if (stood >= STEADY_TIME) {
        next_ = BACKOFF_MIN;
    }
    return std::exchange(next_, std::min(2 * next_, BACKOFF_MAX));
}

std::string sentence(const client_error_t &error)
{
    switch (error.failure()) {
    case failure_t::CONNECT:
    case failure_t::NO_LISTENER:
        return std::string("cannot connect: ") + error.what();
    case failure_t::UNRECOGNIZED:
        return "the probe does not know a request of protocol 0.9";
    default:
        return error.what();
    }
}

} // namespace kestrune::manager
