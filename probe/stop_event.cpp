#include "probe/stop_event.h"

#include "common/clock.h"
#include "probe/error.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace probe {

stop_event_t::stop_event_t() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ < 0) {
        throw error_t("cannot create an event descriptor");
    }
}

stop_event_t::~stop_event_t()
{
    close(fd_);
}

void stop_event_t::request() noexcept
{
    requested_.store(true, std::memory_order_relaxed);
    const uint64_t one = 1;
    // Cannot fail before 2^64 - 1 requests.
    [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof one);
}

bool stop_event_t::sleep_until(uint64_t monotonic_ns) const
{
    while (!requested()) {
        const uint64_t now = monotonic_now_ns();
        if (now >= monotonic_ns) {
            return true;
        }
        const uint64_t left = monotonic_ns - now;
        const timespec timeout = timespec_of(left);
        pollfd event = {fd_, POLLIN, 0};
        ppoll(&event, 1, &timeout, nullptr);
    }
    return false;
}

} // namespace probe
