// The starter: a thread with the host's nice value that runs jobs for the handlers. A thread inherits the
// nice value of its creator, and an unprivileged thread cannot lower its own. The packet threads may wait for
// a search thread, so a handler, which runs lowered, must not start one.
//
// Threads: the listener starts it on the host's thread; it can be cancelled while it waits for a job.
// Handlers call ls_starter_run, one job at a time. Locks: `turn` after a permit, before the registry's lock.
#pragma once

#include "common/lock.h"

#include <pthread.h>
#include <semaphore.h>

struct ls_starter_t {
    pthread_t thread;
    mutex_t turn;
    void (*job)(void *) KS_GUARDED_BY(turn); // with its argument: of the handler that has the turn
    void *argument KS_GUARDED_BY(turn);
    sem_t given;
    sem_t done;
};

// 0, or the error number of the thread's start, also left in errno, with nothing left behind.
[[nodiscard]] int ls_starter_init(ls_starter_t *starter);
// No job may be running.
void ls_starter_destroy(ls_starter_t *starter);

// Run the job on the starter's thread, with cancellation disabled. Blocks until it is done.
void ls_starter_run(ls_starter_t *starter, void (*job)(void *), void *argument) KS_EXCLUDES(starter->turn);
