// The gate between the packet thread and the threads that need its ring to stand still for a moment.
//
// A read lock costs every packet two atomic read-modify-writes; the gate costs one. It is position_lock with
// the packet thread as its favoured user. The packet thread announces itself in `appending` and then checks
// whether the lock is held; the other threads hold the lock and wait until `appending` is 0. Both sides store
// first and load afterwards, sequentially consistent, so at least one sees the other.
//
//   packet thread   appending = 1, position_lock held? no -> inside.  yes -> appending = 0, wait, again
//   other threads   position_lock held, appending? no -> the ring stands still.  yes -> wait
//
// Inside the gate the packet thread counts as a reader of state_lock without holding it: a thread that
// changes what state_lock guards holds it for writing and has closed the gate. Other threads keep the gate
// closed for a few loads and stores only.
#pragma once

#include "history_capture/history_state.h"

// Packet thread: enter the ring. Waits while the gate is closed.
inline void gate_enter(history_capture_t *hc)
    KS_ACQUIRE_SHARED(hc->state_lock) KS_NO_ANALYSIS // stands for the read lock, see above
{
    int spins = 0;
    while (hc->appending.exchange(1, std::memory_order_seq_cst),
           hc->position_lock.held.load(std::memory_order_seq_cst) != 0) {
        hc->appending.store(0, std::memory_order_release);
        while (hc->position_lock.held.load(std::memory_order_relaxed) != 0) {
            spin_pause(&spins);
        }
    }
}

inline void gate_leave(history_capture_t *hc)
    KS_RELEASE_SHARED(hc->state_lock) KS_NO_ANALYSIS // as gate_enter
{
    hc->appending.store(0, std::memory_order_release);
}

// Other threads: stop the ring until gate_open. The caller holds state_lock.
inline void gate_close(history_capture_t *hc) KS_ACQUIRE(hc->position_lock)
{
    int spins = 0;
    spin_lock(&hc->position_lock);
    while (hc->appending.load(std::memory_order_seq_cst) != 0) {
        spin_pause(&spins);
    }
}

inline void gate_open(history_capture_t *hc) KS_RELEASE(hc->position_lock)
{
    spin_unlock(&hc->position_lock);
}
