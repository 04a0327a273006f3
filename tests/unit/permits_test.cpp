// The inside of the permits: who is admitted when, and what a cancelled waiter leaves behind.
#include "common/clock.h"
#include "common/thread.h"
#include "listener/permits.h"
#include "support/test_host.h"

#include <atomic>
#include <gtest/gtest.h>
#include <iterator>
#include <thread>

namespace {

struct room_t {
    room_t() { ls_permits_init(&permits); }
    // Of those that are free, less those who wait.
    int free()
    {
        mutex_lock(&permits.lock);
        int count = static_cast<int>(permits.free);
        for (const ls_permit_t *waiter = permits.waiting; waiter != nullptr; waiter = waiter->next) {
            count--;
        }
        mutex_unlock(&permits.lock);
        return count;
    }

    ls_permits_t permits;
};

// Until this thread has used so much.
void use_processor(int milliseconds)
{
    timespec used = {};
    while (used.tv_nsec < milliseconds * 1000000L) {
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    }
}

// A connection that asks once, its thread having used some processor time; it holds its permit until it is told.
struct asker_t {
    asker_t(room_t *of, int milliseconds, bool leads = false) : room(of), use_ms(milliseconds)
    {
        ls_permit_open(&permit);
        permit.leads = leads;
        const int before = room->free();
        EXPECT_EQ(thread_start(&thread, ask, this), 0);
        EXPECT_TRUE(wait_until([&] { return room->free() == before - 1; }));
    }
    static void close(void *asker)
    {
        auto *self = static_cast<asker_t *>(asker);
        ls_permit_close(&self->room->permits, &self->permit);
    }
    static void *ask(void *asker)
    {
        auto *self = static_cast<asker_t *>(asker);
        thread_begin("asker");
        pthread_cleanup_push(close, asker);
        use_processor(self->use_ms);
        ls_permit_enter(&self->room->permits, &self->permit);
        while (!self->told) {
            thread_pause(1);
        }
        pthread_cleanup_pop(1);
        return nullptr;
    }
    bool holds()
    {
        mutex_lock(&room->permits.lock);
        const bool holding = permit.state == ls_permit_state_t::HOLDING;
        mutex_unlock(&room->permits.lock);
        return holding;
    }
    void end()
    {
        told = true;
        pthread_join(thread, nullptr);
    }

    room_t *room;
    int use_ms;
    std::atomic<bool> told{false};
    ls_permit_t permit;
    pthread_t thread;
};

TEST(Permits, GoToTheConnectionThatUsedLeast)
{
    room_t room;
    asker_t first(&room, 0), second(&room, 0); // the two that hold
    asker_t heavy(&room, 300), busy(&room, 200), light(&room, 5), quiet(&room, 0),
        waited_for(&room, 15, true), too_often(&room, 120, true);
    asker_t *const order[] = {&waited_for, &quiet, &light, &too_often, &busy, &heavy};
    for (size_t i = 0; i < std::size(order); i++) {
        EXPECT_FALSE(order[i]->holds());
        (i == 0 ? first : i == 1 ? second : *order[i - 2]).end();
        EXPECT_TRUE(order[i]->holds()) << i;
    }
    busy.end();
    heavy.end();
    EXPECT_EQ(room.free(), int{LS_PERMITS});
}

TEST(Permits, ACancelledWaiterLeavesTheQueueAndACancelledHolderGivesItsPermitOn)
{
    room_t room;
    asker_t first(&room, 0), second(&room, 0), gone(&room, 0), heir(&room, 0);
    thread_stop(gone.thread);
    thread_stop(first.thread);
    EXPECT_TRUE(heir.holds());
    second.end();
    heir.end();
    EXPECT_EQ(room.free(), int{LS_PERMITS});
    // Granted and cancelled at one moment: the order in which the two reach the waiter must not matter.
    for (int i = 0; i < 200; i++) {
        asker_t holder(&room, 0), other(&room, 0), waiter(&room, 0);
        holder.told = true;
        thread_stop(waiter.thread);
        pthread_join(holder.thread, nullptr);
        other.end();
        ASSERT_EQ(room.free(), int{LS_PERMITS}) << i;
    }
}

TEST(Permits, WhatAConnectionDidNotUseInThePastIsNotMadeUpFor)
{
    room_t room;
    asker_t first(&room, 0), second(&room, 100); // each has had 100 ms by now
    asker_t waiting(&room, 50), later(&room, 0); // so these two are equal
    first.end();
    EXPECT_TRUE(waiting.holds());
    for (asker_t *asker : {&second, &waiting, &later}) {
        asker->end();
    }
}

TEST(Permits, PauseWhatHasBeenUsedOnlyWhileTheRestOfTheProcessIsBusy)
{
    for (const int64_t busy_ns : {0LL, 3'600'000'000'000LL}) { // what packet threads have used meanwhile
        room_t room;
        std::thread([&] {
            ls_permit_t permit;
            ls_permit_open(&permit);
            ls_permit_enter(&room.permits, &permit);
            use_processor(100);
            mutex_lock(&room.permits.lock);
            room.permits.process_ns -= busy_ns;
            mutex_unlock(&room.permits.lock);
            const auto before = static_cast<int64_t>(monotonic_now_ns());
            ls_permit_leave(&room.permits, &permit);
            mutex_lock(&room.permits.lock);
            const int64_t paid = room.permits.paid_ns;
            room.permits.looked_ns = INT64_MAX; // what is owed stays
            mutex_unlock(&room.permits.lock);
            ls_permit_enter(&room.permits, &permit);
            EXPECT_EQ(paid > before, busy_ns > 0);
            EXPECT_GE(static_cast<int64_t>(monotonic_now_ns()), paid);
            ls_permit_close(&room.permits, &permit);
        }).join();
    }
}

// poll would be let off by up to half a percent of its time at this nice value.
TEST(Pause, EndsWhenItsTimeIsOver)
{
    using namespace std::chrono_literals;
    auto least = std::chrono::steady_clock::duration::max();
    std::thread([&] {
        thread_lower_priority();
        for (int i = 0; i < 3; i++) {
            const auto begin = std::chrono::steady_clock::now();
            thread_pause(1000);
            least = std::min(least, std::chrono::steady_clock::now() - begin);
        }
    }).join();
    EXPECT_TRUE(1000ms <= least && least < 1004ms) << least.count() << " ns";
}

} // namespace
