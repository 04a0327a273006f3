// The gate between the packet thread and everybody who needs its ring to stand still for a moment.
//
// Taking a read lock costs every packet two atomic read-modify-writes; the gate costs it one. It is
// position_lock with the packet thread as its favoured user: that thread announces itself in `appending` and
// looks whether the lock is held; the others hold the lock and wait until nobody is announced. Both sides
// store first and look afterwards, sequentially consistent, so at least one of them sees the other.
//
//   packet thread   appending = 1, position_lock held? no -> inside.  yes -> appending = 0, wait, again
//   the others      position_lock held, appending? no -> the ring stands still.  yes -> wait
//
// Inside, the packet thread is a reader of state_lock in all but name: whoever changes what state_lock guards
// holds it for writing and has closed the gate. The others keep the gate closed for a few loads and stores
// only.
#pragma once

#include "history_capture/history_capture.h"

#include <sched.h>

// One step of waiting for a thread that is about to be done, or that is not running at the moment.
inline void gate_pause(int *spins)
{
    if (++*spins % 1024 == 0) {
        sched_yield();
    } else {
        cpu_pause();
    }
}

// Packet thread: enter the ring. Waits while the gate is closed.
inline void gate_enter(history_capture_t *hc)
    KS_ACQUIRE_SHARED(hc->state_lock) KS_NO_ANALYSIS // stands for the read lock, see above
{
    int spins = 0;
    while (hc->appending.exchange(1, std::memory_order_seq_cst),
           hc->position_lock.held.load(std::memory_order_seq_cst) != 0) {
        hc->appending.store(0, std::memory_order_release);
        while (hc->position_lock.held.load(std::memory_order_relaxed) != 0) {
            gate_pause(&spins);
        }
    }
}

inline void gate_leave(history_capture_t *hc)
    KS_RELEASE_SHARED(hc->state_lock) KS_NO_ANALYSIS // as gate_enter
{
    hc->appending.store(0, std::memory_order_release);
}

// Everybody else: let the ring stand still until gate_open. The caller holds state_lock.
inline void gate_close(history_capture_t *hc) KS_ACQUIRE(hc->position_lock)
{
    int spins = 0;
    spin_lock(&hc->position_lock);
    while (hc->appending.load(std::memory_order_seq_cst) != 0) {
        gate_pause(&spins);
    }
}

inline void gate_open(history_capture_t *hc) KS_RELEASE(hc->position_lock)
{
    spin_unlock(&hc->position_lock);
}
