#include "probe/stop_event.h"

#include "probe/error.h"

#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace probe {
namespace {

constexpr uint64_t NS_PER_S = 1'000'000'000;

uint64_t now_ns(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_S + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace

uint64_t monotonic_now_ns()
{
    return now_ns(CLOCK_MONOTONIC);
}

uint64_t wall_now_ns()
{
    return now_ns(CLOCK_REALTIME);
}

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
        const timespec timeout = {static_cast<time_t>(left / NS_PER_S), static_cast<long>(left % NS_PER_S)};
        pollfd event = {fd_, POLLIN, 0};
        ppoll(&event, 1, &timeout, nullptr);
    }
    return false;
}

} // namespace probe
