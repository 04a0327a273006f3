// Permits: the requests of all connections together get at most LS_PERMITS threads' worth of work at a time, so that
// many clients take no more of the packet threads' processors than two. Nice values alone do not bound it: each
// thread has a share of its own.
//
//   idle ----enter, one is free----------------------> holding
//   idle ----enter----> waiting ----another leaves----> holding ----leave----> idle
//                       waiting ----leave (cancelled)-------------------------> idle
//
// A handler enters once the last byte of a request has arrived and leaves before it waits for its client in any way.
// Who leaves hands its permit to the waiter whose turn is the earliest. Turns share the processor time evenly among
// those that want it (start-time fair queueing): a connection's next turn comes as much after its last one as its
// thread has used processor time since, and never before the turn that was granted last. So a client that asks now
// and then goes ahead of all that keep asking, as long as it uses no more than each of them.
//
// A request leads when its connection had nothing to do before it came: its client waits for the answer. It goes
// ahead of requests that were sent before their predecessor was answered, until its connection has used LS_LEAD_NS
// more than theirs; then the shares are equal.
//
// While the rest of the process is busy, all requests together get one part in LS_SHARE of a processor: a holder
// pauses until what has been used is paid for. The payment of LS_SAVED_NS can be saved up, so occasional requests do
// not pause. Without this, handlers take what the nice value leaves to them, and slow down a packet thread even on
// another processor, when the two share a core.
//
// Threads: enter, and leave, by the connection's handler; others change a waiter only while it waits. Locks: a permit
// is taken with no lock held, before the registry's lock; `lock` is held for the choice of a waiter, with nothing
// taken under it.
#pragma once

#include "common/lock.h"

#include <cstdint>
#include <pthread.h>

constexpr uint32_t LS_PERMITS = 2;
constexpr int64_t LS_LEAD_NS = 20'000'000;           // processor time
constexpr int64_t LS_SHARE = 8;                      // an eighth
constexpr int64_t LS_SAVED_NS = 500'000'000;         // of real time
constexpr int64_t LS_LONGEST_PAUSE_NS = 100'000'000; // however much was used
constexpr int64_t LS_LOOK_NS = 50'000'000;           // between two looks at the process's use

enum class ls_permit_state_t : uint8_t { IDLE, WAITING, HOLDING };

// A connection's part. Guarded by the room's lock, but for the handler's own fields.
struct ls_permit_t {
    ls_permit_state_t state;
    bool leads;             // the handler's: its request was waited for
    int64_t used_ns;        // on the room's scale: the turn of its latest request and what was used since
    int64_t turn_ns;        // of the request that waits
    ls_permit_t *next;      // the waiter that came after this one
    pthread_cond_t granted; // with the room's lock: a waiter has become the holder
    int64_t cpu_ns;         // the handler's: its thread's time that is counted so far
};

struct ls_permits_t {
    mutex_t lock;
    uint32_t free KS_GUARDED_BY(lock);        // above 0 only while nobody waits
    ls_permit_t *waiting KS_GUARDED_BY(lock); // borrowed list, first come first
    int64_t turn_ns KS_GUARDED_BY(lock);      // the latest that was granted: processor time that each has had
    int64_t paid_ns KS_GUARDED_BY(lock);      // monotonic: when all use is paid for
    int64_t looked_ns KS_GUARDED_BY(lock);    // monotonic: when the process's use was last looked at
    int64_t process_ns KS_GUARDED_BY(lock);   // its processor time then
    int64_t requests_ns KS_GUARDED_BY(lock);  // processor time of requests since then
};

// Set up for LS_PERMITS; there is nothing to release.
void ls_permits_init(ls_permits_t *permits);

// Set up for a new connection. Closing gives back what it holds or waits for.
void ls_permit_open(ls_permit_t *permit);
void ls_permit_close(ls_permits_t *permits, ls_permit_t *permit) KS_EXCLUDES(permits->lock);

// On the connection's own thread. Waits for a permit; can be cancelled there, after which ls_permit_close is to be
// called. Leaves cancellation disabled.
void ls_permit_enter(ls_permits_t *permits, ls_permit_t *permit) KS_EXCLUDES(permits->lock);
void ls_permit_leave(ls_permits_t *permits, ls_permit_t *permit) KS_EXCLUDES(permits->lock);
