#include "common/thread.h"

#include "common/clock.h"

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

// A thread that is cancelled in the thread sanitizer's own poll() is taken to be there still: its locks would not be
// seen any more, and races reported that are none. In that build the C library's is called directly.
#if defined(__SANITIZE_THREAD__)
#define KS_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KS_THREAD_SANITIZER 1
#endif
#endif
#if defined(KS_THREAD_SANITIZER)
extern "C" int __poll(pollfd *descriptors, nfds_t count, int timeout_ms);
#define POLL __poll
#else
#define POLL poll
#endif

int thread_start(pthread_t *thread, void *(*body)(void *), void *argument)
{
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &before); // the new thread inherits the mask
    const int error = pthread_create(thread, nullptr, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        errno = error;
    }
    return error;
}

void thread_begin(const char *name)
{
    thread_cancel_disable();
    pthread_setname_np(pthread_self(), name);
}

void thread_lower_priority()
{
    const auto self = static_cast<id_t>(gettid()); // on Linux each thread has a nice value of its own
    setpriority(PRIO_PROCESS, self, getpriority(PRIO_PROCESS, self) + THREAD_LOWERED);
}

void thread_pause(uint32_t milliseconds)
{
    thread_pause_until(monotonic_now_ns() + milliseconds * NS_PER_MS);
}

void thread_pause_until(uint64_t monotonic_ns)
{
    const timespec end = timespec_of(monotonic_ns);
    thread_cancel_enable();
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
    thread_cancel_disable();
}

int thread_poll(int fd, short events, int timeout_ms)
{
    pollfd wanted = {fd, events, 0};
    thread_cancel_enable();
    const int ready = POLL(&wanted, 1, timeout_ms);
    thread_cancel_disable();
    return ready;
}

void thread_stop(pthread_t thread)
{
    if (pthread_cancel(thread) == 0) {
        pthread_join(thread, nullptr);
    }
}
