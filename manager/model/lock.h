// A lock that clang's thread-safety analysis can follow, and what holds it. No thread takes one while it holds
// another; nothing blocks and no callback is called while one is held.
#pragma once

#include "common/lock.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kestrune::manager {

class KS_CAPABILITY("mutex") lock_t {
public:
    void lock() KS_ACQUIRE() KS_NO_ANALYSIS { mutex_.lock(); }     // wrapper
    void unlock() KS_RELEASE() KS_NO_ANALYSIS { mutex_.unlock(); } // wrapper
    std::mutex &native() { return mutex_; }

private:
    std::mutex mutex_;
};

class KS_TSA(scoped_lockable) hold_lock_t {
public:
    explicit hold_lock_t(lock_t &lock) KS_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~hold_lock_t() KS_RELEASE() { lock_.unlock(); }
    hold_lock_t(const hold_lock_t &) = delete;
    hold_lock_t &operator=(const hold_lock_t &) = delete;

private:
    lock_t &lock_;
};

// Waits with the lock held, as std::condition_variable does: check the condition in a loop.
class condition_t {
public:
    void wait(lock_t &lock) KS_REQUIRES(lock) KS_NO_ANALYSIS // the lock is given up and taken again inside
    {
        std::unique_lock<std::mutex> held(lock.native(), std::adopt_lock);
        native_.wait(held);
        held.release();
    }
    // False once the deadline has passed.
    [[nodiscard]] bool wait_until(lock_t &lock, std::chrono::steady_clock::time_point deadline)
        KS_REQUIRES(lock) KS_NO_ANALYSIS // the lock is given up and taken again inside
    {
        std::unique_lock<std::mutex> held(lock.native(), std::adopt_lock);
        const bool in_time = native_.wait_until(held, deadline) == std::cv_status::no_timeout;
        held.release();
        return in_time;
    }
    void notify_one() { native_.notify_one(); }
    void notify_all() { native_.notify_all(); }

private:
    std::condition_variable native_;
};

} // namespace kestrune::manager
