#include "probe/signals.h"

#include "common/clock.h"
#include "probe/error.h"

#include <csignal>
#include <initializer_list>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace probe {
namespace {

int wake_fd = -1;   // written by signals_wake
int signal_fd = -1; // SIGINT, SIGTERM, SIGUSR1

void on_nothing(int /*signal*/) {}

void handle(int signal)
{
    struct sigaction action = {};
    action.sa_handler = on_nothing;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

// The signals are blocked for good and taken from a descriptor: no handler runs, so none can come between a test and
// the wait.
int open_signals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) {
        sigaddset(&taken, signal);
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    return signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

void signals_install()
{
    if (wake_fd < 0) {
        wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        signal_fd = open_signals();
        if (wake_fd < 0 || signal_fd < 0) {
            throw error_t("cannot create an event descriptor");
        }
    }
    handle(SIGXFSZ);
    handle(SIGPIPE);
}

void signals_wake() noexcept
{
    const uint64_t one = 1;
    // Fails only when the counter is full; the main thread then wakes anyway.
    [[maybe_unused]] const ssize_t written = write(wake_fd, &one, sizeof one);
}

wake_reasons_t signals_wait(uint64_t until_monotonic_ns)
{
    const uint64_t now = monotonic_now_ns();
    const uint64_t left = until_monotonic_ns > now ? until_monotonic_ns - now : 0;
    const timespec timeout = timespec_of(left);
    pollfd events[] = {{wake_fd, POLLIN, 0}, {signal_fd, POLLIN, 0}};
    ppoll(events, 2, &timeout, nullptr);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(wake_fd, &count, sizeof count); // nothing to read: fine
    wake_reasons_t reasons;
    signalfd_siginfo taken = {};
    while (read(signal_fd, &taken, sizeof taken) == sizeof taken) {
        (taken.ssi_signo == SIGUSR1 ? reasons.counters : reasons.stop) = true;
    }
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
