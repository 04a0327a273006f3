#include "probe/signals.h"

#include "common/clock.h"
#include "probe/error.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace probe {
namespace {

std::atomic<bool> stop_asked = false;
std::atomic<bool> counters_asked = false;
std::atomic<int> wake_fd = -1;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void on_stop(int /*signal*/)
{
    const int saved_errno = errno;
    stop_asked.store(true);
    signals_wake();
    errno = saved_errno;
}

void on_counters(int /*signal*/)
{
    const int saved_errno = errno;
    counters_asked.store(true);
    signals_wake();
    errno = saved_errno;
}

void on_nothing(int /*signal*/) {}

void handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

} // namespace

void signals_install()
{
    if (wake_fd.load() < 0) {
        const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (fd < 0) {
            throw error_t("cannot create an event descriptor");
        }
        wake_fd.store(fd);
    }
    handle(SIGINT, on_stop);
    handle(SIGTERM, on_stop);
    handle(SIGUSR1, on_counters);
    handle(SIGXFSZ, on_nothing);
    handle(SIGPIPE, on_nothing);
}

void signals_wake() noexcept
{
    const uint64_t one = 1;
    // Fails only when the counter is full; the main thread then wakes anyway.
    [[maybe_unused]] const ssize_t written = write(wake_fd.load(), &one, sizeof one);
}

wake_reasons_t signals_wait(uint64_t until_monotonic_ns)
{
    const uint64_t now = monotonic_now_ns();
    const uint64_t left = until_monotonic_ns > now ? until_monotonic_ns - now : 0;
    const timespec timeout = timespec_of(left);
    pollfd event = {wake_fd.load(), POLLIN, 0};
    ppoll(&event, 1, &timeout, nullptr);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(wake_fd.load(), &count, sizeof count); // nothing to read: fine
    wake_reasons_t reasons;
    reasons.stop = stop_asked.exchange(false);
    reasons.counters = counters_asked.exchange(false);
    return reasons;
}

signals_blocked_t::signals_blocked_t()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

signals_blocked_t::~signals_blocked_t()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace probe
