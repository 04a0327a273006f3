// The search thread with its runs over the ring (the fast search).
//
//   waiting on the semaphore --post--> begin_run (tables swapped under state_lock for writing)
//        ^  ^------- a rule is held -------|
//        |                                 v
//     5 s pause <---- finish_run <---- walk of the records that were in the ring (state_lock for reading)
//
// While no rule is waiting, the thread populates the ring's memory ahead of the packets. It can be
// cancelled between two parts of that, while it waits and while it pauses. Releasing a held rule posts
// again. hc_disable sets `stopping` first: a thread about to begin a run then waits again; a thread that
// has swapped the tables completes its run.

#include "history_capture/history_search.h"

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "history_capture/gate.h"
#include "history_capture/history_filter.h"
#include "history_capture/history_rules.h"

#include <ctime>
#include <unistd.h>

namespace {

constexpr auto RELEASE = std::memory_order_release;

// Memory latency bounds the walk, header after header, so lines this far ahead are prefetched.
constexpr uint64_t PREFETCH_BYTES = 2048;
constexpr uint64_t CACHE_LINE = 64;

// One run: counters and position.
struct hc_run_t {
    uint64_t read;
    uint64_t captured;
    uint64_t position; // canonical offset of the record to examine
    uint64_t fetched;  // offset up to which lines were prefetched
    bool first_part;   // the data wraps and the walk has not reached the end of the buffer yet
};

// Take the waiting rules into a run over the current ring. False when the ring is being disabled, or a rule
// is held: its release posts for all of them.
bool begin_run(history_capture_t *hc, hc_run_t *run)
{
    rwlock_write(&hc->state_lock);
    if (hc->stopping) {
        rwlock_write_unlock(&hc->state_lock);
        return false;
    }
    gate_close(hc);
    hc->run_posted = false;
    if (hc->held_rules != 0) {
        gate_open(hc);
        rwlock_write_unlock(&hc->state_lock);
        return false;
    }
    hc->searched_rules = hc->new_rules.load();
    hc->new_rules = 0;
    fhf_table_t *rules = hc->slow_search_table;
    hc->slow_search_table = hc->fast_search_table;
    hc->fast_search_table = rules;
    const uint64_t first = hc_canonical(hc, hc->first);
    hc->search_end = hc->last;
    hc->search_records = hc->packets;
    hc->search_position = first;
    hc->search_pending = hc->search_records != 0 ? 1 : 0;
    hc->searching = 1;
    const bool wrapped = first > hc->search_end || (first == hc->search_end && hc->search_records != 0);
    *run = {0, 0, first, first, first != 0 && wrapped};
    gate_open(hc);
    rwlock_write_unlock(&hc->state_lock);
    return true;
}

// Prefetch the lines up to PREFETCH_BYTES ahead that have not been prefetched yet.
inline void prefetch_ahead(const history_capture_t *hc, hc_run_t *run) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t target =
        run->position + PREFETCH_BYTES < hc->size ? run->position + PREFETCH_BYTES : hc->size;
    if (run->fetched < run->position || run->fetched > target) {
        run->fetched = run->position; // the walk has wrapped, or jumped over a long record
    }
    for (; run->fetched < target; run->fetched += CACHE_LINE) {
        __builtin_prefetch(hc->buffer + run->fetched);
    }
}

// Examine the record at the run's position and step to the next.
void examine(history_capture_t *hc, hc_run_t *run) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t p = run->position;
    const hc_record_header_t *header = hc_record_at(hc, p);
    run->read++;
    if (header->testing_value != HC_TESTING_VALUE) {
        if (run->first_part) {
            KS_ERROR(
                "kestrune: History_capture: search_thread function (first part) - Testing value not correct");
        } else {
            KS_ERROR("kestrune: History_capture: search_thread function (seccond part) - Testing value not "
                     "correct");
        }
    }
    if (hc_filter_ip(hc, hc->fast_search_table, p) == HC_WRITTEN) {
        run->captured++;
    }
    const uint64_t end = p + HC_RECORD_HEADER + header->length;
    const bool wraps = end + HC_RECORD_HEADER > hc->size;
    run->position = !wraps ? end : hc_canonical(hc, end < hc->size ? end : end % hc->size);
    run->first_part = run->first_part && !wraps;
}

// Publish the run's position to the packet thread, and wake it if it waits for that.
void publish(history_capture_t *hc, uint64_t position)
{
    // Sequentially consistent on both sides: either the waiting packet thread sees
    // this position, or this thread sees its flag.
    hc->search_position.store(position, std::memory_order_seq_cst);
    if (hc->writer_waiting.load(std::memory_order_seq_cst) != 0) {
        mutex_lock(&hc->buffer_lock);
        pthread_cond_signal(&hc->search_moved);
        mutex_unlock(&hc->buffer_lock);
    }
}

void walk_ring(history_capture_t *hc, hc_run_t *run) KS_REQUIRES_SHARED(hc->state_lock)
{
    for (uint32_t left = hc->search_records; left > 0; left--) {
        prefetch_ahead(hc, run);
        examine(hc, run);
        if (left == 1) {
            hc->search_pending.store(0, RELEASE); // before the position: at the end it is search_end again
        }
        publish(hc, run->position);
    }
}

// Close the files of the run's rules and release the packet thread. The number of rules.
uint32_t finish_run(history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
{
    hc_clean_rules_from_fht(hc, hc->fast_search_table);
    mutex_lock(&hc->buffer_lock);
    hc->searching = 0;
    const uint32_t rules = hc->searched_rules.exchange(0);
    pthread_cond_signal(&hc->search_moved);
    mutex_unlock(&hc->buffer_lock);
    return rules;
}

// Pause between two runs, still populating the ring's memory if a rule came before that was done.
void pause_search(history_capture_t *hc)
{
    const uint64_t end_ns = monotonic_now_ns() + hc->search_pause_ms * NS_PER_MS;
    const timespec end = timespec_of(end_ns);
    thread_cancel_enable();
    do {
        pthread_testcancel();
    } while (monotonic_now_ns() < end_ns && ring_populate(&hc->unpopulated));
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
    thread_cancel_disable();
}

// Wait for rules, populating the ring meanwhile.
void wait_for_rules(history_capture_t *hc)
{
    bool posted = sem_trywait(&hc->search_semaphore) == 0;
    thread_cancel_enable();
    while (!posted && ring_populate(&hc->unpopulated)) {
        pthread_testcancel();
        posted = sem_trywait(&hc->search_semaphore) == 0;
    }
    while (!posted) {
        posted = sem_wait(&hc->search_semaphore) == 0;
    }
    thread_cancel_disable();
}

void make_run(history_capture_t *hc, hc_run_t *run)
{
    rwlock_read(&hc->state_lock);
    const uint64_t start_ns = monotonic_now_ns();
    walk_ring(hc, run);
    const uint32_t rules = finish_run(hc);
    rwlock_read_unlock(&hc->state_lock);
    const uint64_t took_ns = monotonic_now_ns() - start_ns;
    KS_INFO(
        LOG_DETAIL,
        "kestrune: Fast search - rules %u, packets readed %u, packets captured %u, Time of searching: %.5f s",
        rules, static_cast<uint32_t>(run->read), static_cast<uint32_t>(run->captured),
        static_cast<double>(took_ns) / NS_PER_S);
}

} // namespace

void *hc_search_thread(void *history_capture)
{
    auto *hc = static_cast<history_capture_t *>(history_capture);
    thread_begin("ks-search");
    pthread_cleanup_push(hc_clean_search_thread, hc);
    KS_INFO(LOG_DETAIL, "kestrune: History_capture: Seach thread created");
    for (;;) {
        wait_for_rules(hc);
        hc_run_t run = {};
        if (begin_run(hc, &run)) {
            KS_INFO(LOG_DETAIL, "kestrune: Fast search - new run");
            make_run(hc, &run);
            pause_search(hc);
        }
    }
    pthread_cleanup_pop(0);
    return nullptr;
}

void hc_clean_search_thread(void *history_capture)
{
    auto *hc = static_cast<history_capture_t *>(history_capture);
    if (hc->searched_rules != 0) {
        rwlock_read(&hc->state_lock);
        fhf_table_t *rules = hc->fast_search_table;
        rwlock_read_unlock(&hc->state_lock);
        hc_clean_rules_from_fht(hc, rules);
        hc->searched_rules = 0;
    }
}
