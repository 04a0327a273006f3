#include "listener/starter.h"

#include "common/thread.h"

namespace {

void wait_for(sem_t *semaphore)
{
    while (sem_wait(semaphore) != 0) { // a signal came
    }
}

void *do_jobs(void *argument) KS_NO_ANALYSIS // the handler that gives the job has the turn
{
    auto *starter = static_cast<ls_starter_t *>(argument);
    thread_begin("ks-starter");
    while (true) {
        thread_cancel_enable();
        wait_for(&starter->given);
        thread_cancel_disable();
        starter->job(starter->argument);
        sem_post(&starter->done);
    }
    return nullptr;
}

} // namespace

int ls_starter_init(ls_starter_t *starter)
{
    starter->turn = {PTHREAD_MUTEX_INITIALIZER};
    sem_init(&starter->given, 0, 0);
    sem_init(&starter->done, 0, 0);
    return thread_start(&starter->thread, do_jobs, starter);
}

void ls_starter_destroy(ls_starter_t *starter)
{
    thread_stop(starter->thread);
    sem_destroy(&starter->given);
    sem_destroy(&starter->done);
}

void ls_starter_run(ls_starter_t *starter, void (*job)(void *), void *argument)
{
    mutex_lock(&starter->turn);
    starter->job = job;
    starter->argument = argument;
    sem_post(&starter->given);
    wait_for(&starter->done);
    mutex_unlock(&starter->turn);
}
