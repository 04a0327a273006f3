#include "support/fault.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace {

std::atomic<int> countdown{0};
std::atomic<const char *> failed_name{nullptr};
std::atomic<const char *> always{""};

bool fails(const char *name, int error)
{
    bool fail = std::strcmp(always.load(), name) == 0;
    if (countdown.load() > 0 && countdown.fetch_sub(1) == 1) {
        fail = true;
        failed_name.store(name);
    }
    if (fail) {
        errno = error;
    }
    return fail;
}

} // namespace

namespace fault {

void fail_call(int n)
{
    failed_name.store(nullptr);
    countdown.store(n);
}

void fail_function(const char *name)
{
    always.store(name);
}

std::string failed()
{
    const char *name = failed_name.load();
    return name != nullptr ? name : "";
}

} // namespace fault

// One wrapper: the linker sends calls of NAME to __wrap_NAME; __real_NAME is the function itself.
#define WRAP(result, name, parameters, arguments, failure, error)                                            \
    extern "C" result __real_##name parameters;                                                              \
    extern "C" result __wrap_##name parameters;                                                              \
    result __wrap_##name parameters                                                                          \
    {                                                                                                        \
        return fails(#name, error) ? failure : __real_##name arguments;                                      \
    }

WRAP(void *, malloc, (size_t size), (size), nullptr, ENOMEM)
WRAP(void *, calloc, (size_t count, size_t size), (count, size), nullptr, ENOMEM)
WRAP(void *, aligned_alloc, (size_t alignment, size_t size), (alignment, size), nullptr, ENOMEM)
WRAP(void *, mmap, (void *at, size_t size, int protection, int flags, int fd, off_t offset),
     (at, size, protection, flags, fd, offset), MAP_FAILED, ENOMEM)
WRAP(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
     (thread, attributes, body, argument), EAGAIN, EAGAIN)
WRAP(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
     (mutex, attributes), ENOMEM, ENOMEM)
WRAP(int, pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t *attributes),
     (condition, attributes), ENOMEM, ENOMEM)
WRAP(int, pthread_rwlock_init, (pthread_rwlock_t * lock, const pthread_rwlockattr_t *attributes),
     (lock, attributes), ENOMEM, ENOMEM)
WRAP(int, sem_init, (sem_t * semaphore, int shared, unsigned value), (semaphore, shared, value), -1, ENOSPC)
WRAP(int, socket, (int family, int type, int protocol), (family, type, protocol), -1, EMFILE)
WRAP(int, bind, (int fd, const sockaddr *address, socklen_t length), (fd, address, length), -1, EADDRINUSE)
WRAP(int, accept4, (int fd, sockaddr *address, socklen_t *length, int flags), (fd, address, length, flags),
     -1, EPROTO)
WRAP(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t length),
     (fd, level, name, value, length), -1, ENOPROTOOPT)
WRAP(pid_t, waitpid, (pid_t child, int *status, int options), (child, status, options), -1, EINTR)
