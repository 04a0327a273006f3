#include "client/ctl/interrupt.h"

#include "client/ctl/exit_status.h"
#include "client/error.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kestrune {

namespace {

std::atomic<int> event_fd{-1};
std::atomic<bool> asked{false};
std::atomic<bool> signalled{false};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// Runs in signal handlers: only atomics and write.
void ask_to_stop()
{
    asked.store(true);
    const uint64_t one = 1;
    if (write(event_fd.load(), &one, sizeof one) < 0) {
        return; // full, so it is readable
    }
}

extern "C" void handle_signal(int)
{
    const int saved = errno;
    if (signalled.exchange(true)) {
        _exit(EXIT_INTERRUPTED);
    }
    ask_to_stop();
    errno = saved;
}

} // namespace

void catch_interrupts()
{
    event_fd.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (event_fd.load() < 0) {
        throw client_error_t(failure_t::LOCAL, "eventfd failed");
    }
    struct sigaction action = {};
    action.sa_handler = handle_signal;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) { // nohup
            sigaction(number, &action, nullptr);
        }
    }
    std::signal(SIGPIPE, SIG_IGN); // writing notices a closed output
}

int interrupt_fd()
{
    return event_fd.load();
}

bool interrupted()
{
    return asked.load();
}

void raise_interrupt()
{
    ask_to_stop();
}

} // namespace kestrune
