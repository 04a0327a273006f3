// POSIX locks in types that clang's thread-safety analysis can follow; a raw pthread_mutex_t cannot carry the
// annotations. The functions do what the POSIX ones do and nothing more. With g++ the annotations are empty.
//
// No lock function is a cancellation point. Locking cannot fail on a lock that exists and is not held twice,
// so the result is not tested: a plugin could only go on anyway.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <sched.h>

#if defined(__clang__)
#define KS_TSA(x) __attribute__((x))
#else
#define KS_TSA(x)
#endif
#define KS_CAPABILITY(name) KS_TSA(capability(name))
#define KS_GUARDED_BY(x) KS_TSA(guarded_by(x))
#define KS_ACQUIRE(...) KS_TSA(acquire_capability(__VA_ARGS__))
#define KS_ACQUIRE_SHARED(...) KS_TSA(acquire_shared_capability(__VA_ARGS__))
#define KS_RELEASE(...) KS_TSA(release_capability(__VA_ARGS__))
#define KS_RELEASE_SHARED(...) KS_TSA(release_shared_capability(__VA_ARGS__))
#define KS_REQUIRES(...) KS_TSA(requires_capability(__VA_ARGS__))
#define KS_REQUIRES_SHARED(...) KS_TSA(requires_shared_capability(__VA_ARGS__))
#define KS_EXCLUDES(...) KS_TSA(locks_excluded(__VA_ARGS__))
// Each use says why the analysis cannot follow the function.
#define KS_NO_ANALYSIS KS_TSA(no_thread_safety_analysis)

inline void cpu_pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ volatile("yield");
#endif
}

// One step of waiting for a thread that is about to finish. That thread may be
// preempted and need this processor.
inline void spin_pause(int *spins)
{
    if (++*spins % 1024 == 0) {
        sched_yield();
    } else {
        cpu_pause();
    }
}

struct KS_CAPABILITY("mutex") mutex_t {
    pthread_mutex_t native;
};

[[nodiscard]] inline int mutex_init(mutex_t *mutex)
{
    return pthread_mutex_init(&mutex->native, nullptr);
}

inline void mutex_destroy(mutex_t *mutex)
{
    pthread_mutex_destroy(&mutex->native);
}

inline void mutex_lock(mutex_t *mutex) KS_ACQUIRE(*mutex) KS_NO_ANALYSIS // wrapper
{
    pthread_mutex_lock(&mutex->native);
}

inline void mutex_unlock(mutex_t *mutex) KS_RELEASE(*mutex) KS_NO_ANALYSIS // wrapper
{
    pthread_mutex_unlock(&mutex->native);
}

// Default attributes: with glibc readers are admitted while a writer waits. The packet path relies on it.
struct KS_CAPABILITY("rwlock") rwlock_t {
    pthread_rwlock_t native;
};

[[nodiscard]] inline int rwlock_init(rwlock_t *lock)
{
    return pthread_rwlock_init(&lock->native, nullptr);
}

inline void rwlock_destroy(rwlock_t *lock)
{
    pthread_rwlock_destroy(&lock->native);
}

inline void rwlock_read(rwlock_t *lock) KS_ACQUIRE_SHARED(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_rdlock(&lock->native);
}

// Take the lock for reading if no writer has it; true when it was taken.
[[nodiscard]] inline bool rwlock_try_read(rwlock_t *lock)
    KS_TSA(try_acquire_shared_capability(true, *lock)) KS_NO_ANALYSIS // wrapper
{
    return pthread_rwlock_tryrdlock(&lock->native) == 0;
}

inline void rwlock_read_unlock(rwlock_t *lock) KS_RELEASE_SHARED(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_unlock(&lock->native);
}

inline void rwlock_write(rwlock_t *lock) KS_ACQUIRE(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_wrlock(&lock->native);
}

inline void rwlock_write_unlock(rwlock_t *lock) KS_RELEASE(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_unlock(&lock->native);
}

// A read-write lock on which neither writers nor readers starve: each thread waits in `turn` until the
// current holders release, and nobody overtakes it there. With a plain lock, overlapping readers could make a
// writer wait for ever. A thread must not take it twice, not even for reading.
struct KS_CAPABILITY("rwlock") fair_rwlock_t {
    pthread_rwlock_t native;
    pthread_mutex_t turn; // held only while `native` is being taken
};

[[nodiscard]] inline int rwlock_init(fair_rwlock_t *lock)
{
    int error = pthread_rwlock_init(&lock->native, nullptr);
    if (error == 0) {
        error = pthread_mutex_init(&lock->turn, nullptr);
        if (error != 0) {
            pthread_rwlock_destroy(&lock->native);
        }
    }
    return error;
}

inline void rwlock_destroy(fair_rwlock_t *lock)
{
    pthread_mutex_destroy(&lock->turn);
    pthread_rwlock_destroy(&lock->native);
}

inline void rwlock_read(fair_rwlock_t *lock) KS_ACQUIRE_SHARED(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_mutex_lock(&lock->turn);
    pthread_rwlock_rdlock(&lock->native);
    pthread_mutex_unlock(&lock->turn);
}

inline void rwlock_read_unlock(fair_rwlock_t *lock) KS_RELEASE_SHARED(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_unlock(&lock->native);
}

inline void rwlock_write(fair_rwlock_t *lock) KS_ACQUIRE(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_mutex_lock(&lock->turn);
    pthread_rwlock_wrlock(&lock->native);
    pthread_mutex_unlock(&lock->turn);
}

inline void rwlock_write_unlock(fair_rwlock_t *lock) KS_RELEASE(*lock) KS_NO_ANALYSIS // wrapper
{
    pthread_rwlock_unlock(&lock->native);
}

// A spin lock for a few loads and stores. 0 free, 1 held.
struct KS_CAPABILITY("spin lock") spin_t {
    std::atomic<uint32_t> held;
};

inline void spin_lock(spin_t *spin) KS_ACQUIRE(*spin) KS_NO_ANALYSIS // wrapper
{
    int spins = 0;
    while (spin->held.exchange(1, std::memory_order_seq_cst) != 0) {
        while (spin->held.load(std::memory_order_relaxed) != 0) {
            spin_pause(&spins);
        }
    }
}

inline void spin_unlock(spin_t *spin) KS_RELEASE(*spin) KS_NO_ANALYSIS // wrapper
{
    spin->held.store(0, std::memory_order_release);
}
