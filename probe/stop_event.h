// The event that tells every thread of the program to stop.
//
// Threads: any; request() is also safe in a signal handler.
#pragma once

#include <atomic>
#include <cstdint>

namespace probe {

class stop_event_t {
public:
    stop_event_t(); // throws error_t
    ~stop_event_t();
    stop_event_t(const stop_event_t &) = delete;
    stop_event_t &operator=(const stop_event_t &) = delete;

    void request() noexcept;
    bool requested() const { return requested_.load(std::memory_order_relaxed); }
    // Readable from the request on, to be polled beside other descriptors.
    int fd() const { return fd_; }
    // Sleep until this time of the monotonic clock; false when a stop was requested before.
    bool sleep_until(uint64_t monotonic_ns) const;

private:
    std::atomic<bool> requested_ = false;
    int fd_;
};

} // namespace probe
