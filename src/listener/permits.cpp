#include "listener/permits.h"

#include "common/clock.h"
#include "common/thread.h"

#include <algorithm>
#include <ctime>

namespace {

int64_t now_ns(clockid_t clock)
{
    return static_cast<int64_t>(clock_now_ns(clock));
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

// The permit is the connection's from now on; its turn is the latest.
void grant(ls_permits_t *permits, ls_permit_t *permit, int64_t turn_ns) KS_REQUIRES(permits->lock)
{
    permit->state = ls_permit_state_t::HOLDING;
    permits->turn_ns = std::max(permits->turn_ns, turn_ns);
}

// Look now and then whether the rest of the process is busy. If not, all use is paid for.
void look_at_process(ls_permits_t *permits, int64_t now) KS_REQUIRES(permits->lock)
{
    const int64_t passed = now - permits->looked_ns;
    if (passed < LS_LOOK_NS) {
        return;
    }
    const int64_t process = now_ns(CLOCK_PROCESS_CPUTIME_ID);
    const int64_t others = process - permits->process_ns - permits->requests_ns;
    if (others < passed * 3 / 4) {
        permits->paid_ns = now - LS_SAVED_NS;
    }
    permits->looked_ns = now;
    permits->process_ns = process;
    permits->requests_ns = 0;
}

// Charge the connection and all of them for what its thread has used since the last time.
void charge(ls_permits_t *permits, ls_permit_t *permit) KS_REQUIRES(permits->lock)
{
    const int64_t cpu = now_ns(CLOCK_THREAD_CPUTIME_ID);
    const int64_t now = now_ns(CLOCK_MONOTONIC);
    const int64_t used = cpu - permit->cpu_ns;
    permit->cpu_ns = cpu;
    permit->used_ns += used;
    permits->requests_ns += used;
    permits->paid_ns = std::max(permits->paid_ns, now - LS_SAVED_NS) + used * LS_SHARE;
    permits->paid_ns = std::min(permits->paid_ns, now + LS_LONGEST_PAUSE_NS);
    look_at_process(permits, now);
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
    grant(permits, next, next->turn_ns);
    pthread_cond_signal(&next->granted);
}

void unlock(void *permits) KS_NO_ANALYSIS // runs when the thread ends in wait_for_grant
{
    mutex_unlock(&static_cast<ls_permits_t *>(permits)->lock);
}

// Can be cancelled, with the lock released, and leaves cancellation disabled.
void wait_for_grant(ls_permits_t *permits, ls_permit_t *permit) KS_REQUIRES(permits->lock)
{
    pthread_cleanup_push(unlock, permits);
    thread_cancel_enable();
    while (permit->state == ls_permit_state_t::WAITING) {
        pthread_cond_wait(&permit->granted, &permits->lock.native);
    }
    thread_cancel_disable();
    pthread_cleanup_pop(0);
}

// Can be cancelled, and leaves cancellation disabled.
void wait_until_paid(ls_permits_t *permits) KS_EXCLUDES(permits->lock)
{
    mutex_lock(&permits->lock);
    const int64_t paid = permits->paid_ns;
    mutex_unlock(&permits->lock);
    if (paid > now_ns(CLOCK_MONOTONIC)) {
        thread_pause_until(static_cast<uint64_t>(paid));
    }
}

} // namespace

void ls_permits_init(ls_permits_t *permits) KS_NO_ANALYSIS // not shared yet
{
    permits->lock = {PTHREAD_MUTEX_INITIALIZER};
    permits->free = LS_PERMITS;
    permits->waiting = nullptr;
    permits->turn_ns = 0;
    permits->paid_ns = 0;
    permits->looked_ns = now_ns(CLOCK_MONOTONIC);
    permits->process_ns = now_ns(CLOCK_PROCESS_CPUTIME_ID);
    permits->requests_ns = 0;
}

void ls_permit_open(ls_permit_t *permit)
{
    *permit = {};
    permit->granted = PTHREAD_COND_INITIALIZER;
}

void ls_permit_close(ls_permits_t *permits, ls_permit_t *permit)
{
    ls_permit_leave(permits, permit);
    pthread_cond_destroy(&permit->granted);
}

void ls_permit_enter(ls_permits_t *permits, ls_permit_t *permit)
{
    mutex_lock(&permits->lock);
    charge(permits, permit);
    permit->used_ns = std::max(permits->turn_ns, permit->used_ns);
    permit->turn_ns = permit->used_ns - (permit->leads ? LS_LEAD_NS : 0);
    if (permits->free == 0) {
        permit->state = ls_permit_state_t::WAITING;
        append(permits, permit);
        wait_for_grant(permits, permit);
    } else {
        permits->free--;
        grant(permits, permit, permit->used_ns); // nobody is overtaken, so no lead is used up
    }
    mutex_unlock(&permits->lock);
    wait_until_paid(permits);
}

void ls_permit_leave(ls_permits_t *permits, ls_permit_t *permit)
{
    mutex_lock(&permits->lock);
    if (permit->state == ls_permit_state_t::WAITING) {
        take_out(permits, permit);
    } else if (permit->state == ls_permit_state_t::HOLDING) {
        charge(permits, permit);
        hand_on(permits);
    }
    permit->state = ls_permit_state_t::IDLE;
    mutex_unlock(&permits->lock);
}
