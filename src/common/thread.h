// Starting and stopping the plugin's threads.
//
// Threads are stopped by cancellation only. A thread that died holding a lock, a table row or a descriptor
// would stop the product, and most system calls are cancellation points. So every thread of the plugin runs
// with cancellation disabled and enables it around the single blocking call at which it may be stopped:
//
//   void *body(void *argument)
//   {
//       thread_begin("ks-name");
//       pthread_cleanup_push(clean_up, argument);
//       ...
//       thread_cancel_enable();
//       got = recv(...);                  // may end here; clean_up runs, destructors do not
//       thread_cancel_disable();
//
// The host's signals are blocked in these threads (faults of the thread itself are not), so that the host's
// handlers run on the host's threads.
#pragma once

#include <cstdint>
#include <pthread.h>

// Start body(argument) on a new joinable thread with the host's signals blocked. 0, or the error number of
// pthread_create, also left in errno.
[[nodiscard]] int thread_start(pthread_t *thread, void *(*body)(void *), void *argument);

// First call of a thread's body: disables cancellation and names the thread (at most 15 characters).
void thread_begin(const char *name);

// Lower the priority of the calling thread, and of the threads it starts later, by THREAD_LOWERED: client
// work must not take the packet threads' processors. An unprivileged thread cannot raise it again.
constexpr int THREAD_LOWERED = 10; // nice value
void thread_lower_priority();

// Sleep this long on the monotonic clock. Can be cancelled here and nowhere else;
// leaves cancellation disabled.
void thread_pause(uint32_t milliseconds);
void thread_pause_until(uint64_t monotonic_ns);

// poll() of one descriptor that can be cancelled there; leaves cancellation disabled.
[[nodiscard]] int thread_poll(int fd, short events, int timeout_ms);

// Request cancellation and wait for the thread to end, when the request was accepted. Blocks.
void thread_stop(pthread_t thread);

// A cancelled thread jumps over the frames between its blocking call and its clean-up handler. The address
// sanitizer does not see that jump, so their marks must be removed from the stack first.
#if defined(__SANITIZE_ADDRESS__)
#define KS_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KS_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(KS_ADDRESS_SANITIZER)
extern "C" void __asan_handle_no_return();
#endif

inline void thread_cancel_enable()
{
#if defined(KS_ADDRESS_SANITIZER)
    __asan_handle_no_return();
#endif
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

inline void thread_cancel_disable()
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// For work that must not be interrupted on a host thread: disable cancellation and return the state to
// restore. The cancellation state of such a thread belongs to the host.
[[nodiscard]] inline int thread_cancel_suspend()
{
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return before;
}

inline void thread_cancel_restore(int before)
{
    pthread_setcancelstate(before, nullptr);
}
