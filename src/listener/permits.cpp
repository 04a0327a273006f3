#include "listener/permits.h"

#include "common/thread.h"

#include <algorithm>
#include <ctime>

namespace {

int64_t thread_cpu_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void append(ls_permits_t *permits, ls_permit_t *permit) KS_REQUIRES(permits->lock)
{
    ls_permit_t **link = &permits->waiting;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = permit;
    permit->next = nullptr;
}

void take_out(ls_permits_t *permits, ls_permit_t *permit) KS_REQUIRES(permits->lock)
{
    ls_permit_t **link = &permits->waiting;
    while (*link != permit) {
        link = &(*link)->next;
    }
    *link = permit->next;
}

// The permit is the connection's from now on.
void grant(ls_permits_t *permits, ls_permit_t *permit) KS_REQUIRES(permits->lock)
{
    permit->state = ls_permit_state_t::HOLDING;
    permits->turn_ns = std::max(permits->turn_ns, permit->turn_ns);
}

// The waiter whose turn is the earliest, of equal ones the first that came; null when nobody waits.
ls_permit_t *next_holder(const ls_permits_t *permits) KS_REQUIRES(permits->lock)
{
    ls_permit_t *next = permits->waiting;
    for (ls_permit_t *waiter = permits->waiting; waiter != nullptr; waiter = waiter->next) {
        next = waiter->turn_ns < next->turn_ns ? waiter : next;
    }
    return next;
}

// Hand a permit on, or keep it free.
void hand_on(ls_permits_t *permits) KS_REQUIRES(permits->lock)
{
    ls_permit_t *next = next_holder(permits);
    if (next == nullptr) {
        permits->free++;
        return;
    }
    take_out(permits, next);
    grant(permits, next);
    pthread_cond_signal(&next->granted);
}

void unlock(void *lock) KS_NO_ANALYSIS // the waiter's; a cancelled one has it again
{
    mutex_unlock(static_cast<mutex_t *>(lock));
}

// Gives the lock back, also when the thread is cancelled.
void wait_until_granted(ls_permits_t *permits, ls_permit_t *permit) KS_RELEASE(permits->lock) KS_NO_ANALYSIS
{
    pthread_cleanup_push(unlock, &permits->lock);
    thread_cancel_enable();
    while (permit->state == ls_permit_state_t::WAITING) {
        pthread_cond_wait(&permit->granted, &permits->lock.native);
    }
    thread_cancel_disable();
    pthread_cleanup_pop(1);
}

} // namespace

void ls_permits_init(ls_permits_t *permits) KS_NO_ANALYSIS // not shared yet
{
    permits->lock = {PTHREAD_MUTEX_INITIALIZER};
    permits->free = LS_PERMITS;
    permits->waiting = nullptr;
    permits->turn_ns = 0;
}

void ls_permit_open(ls_permit_t *permit)
{
    *permit = {};
    permit->granted = PTHREAD_COND_INITIALIZER;
}

void ls_permit_close(ls_permits_t *permits, ls_permit_t *permit)
{
    ls_permit_leave(permits, permit);
    pthread_cond_destroy(&permit->granted); // nobody signals it without the room's lock
}

void ls_permit_enter(ls_permits_t *permits, ls_permit_t *permit)
{
    const int64_t cpu_ns = thread_cpu_ns();
    mutex_lock(&permits->lock);
    permit->turn_ns = std::max(permits->turn_ns, permit->turn_ns + cpu_ns - permit->cpu_ns);
    permit->cpu_ns = cpu_ns;
    if (permits->free > 0) {
        permits->free--;
        grant(permits, permit);
        mutex_unlock(&permits->lock);
        return;
    }
    permit->state = ls_permit_state_t::WAITING;
    append(permits, permit);
    wait_until_granted(permits, permit);
}

void ls_permit_leave(ls_permits_t *permits, ls_permit_t *permit)
{
    mutex_lock(&permits->lock);
    if (permit->state == ls_permit_state_t::WAITING) {
        take_out(permits, permit);
    } else if (permit->state == ls_permit_state_t::HOLDING) {
        hand_on(permits);
    }
    permit->state = ls_permit_state_t::IDLE;
    mutex_unlock(&permits->lock);
}
