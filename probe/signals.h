// What wakes the main thread: SIGINT and SIGTERM (stop), SIGUSR1 (print counters), and the program's own
// threads when they end. SIGXFSZ and SIGPIPE only make the call fail. They are caught rather than ignored, so
// that programs that the plugin starts get the default dispositions.
//
// Threads: install and wait in the main thread; wake anywhere. All other threads block these signals.
#pragma once

#include <csignal>
#include <cstdint>

namespace probe {

void signals_install(); // throws error_t

struct wake_reasons_t {
    bool stop = false;     // SIGINT or SIGTERM
    bool counters = false; // SIGUSR1
};
// Wait for an event, at most until this time of the monotonic clock. May return without a reason.
wake_reasons_t signals_wait(uint64_t until_monotonic_ns);

// Make signals_wait return.
void signals_wake() noexcept;

// While it exists, blocks all signals in the calling thread and in the threads that it starts.
class signals_blocked_t {
public:
    signals_blocked_t();
    ~signals_blocked_t();
    signals_blocked_t(const signals_blocked_t &) = delete;
    signals_blocked_t &operator=(const signals_blocked_t &) = delete;

private:
    sigset_t before_;
};

} // namespace probe
