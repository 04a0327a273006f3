// The search thread with its runs over the ring (the fast search), and the filter that it shares with the
// dropping of records on the packet thread (the slow search).
//
//   waiting on the semaphore --post--> begin_run (tables swapped under state_lock for writing)
//        ^                                 |
//        |                                 v
//     5 s pause <---- finish_run <---- walk of the records that were in the ring (state_lock for reading)
//
// While no rule has come the thread populates the ring's memory ahead of the packets. It can be cancelled
// between two parts of that, while it waits and while it pauses. hc_disable sets `stopping` first: a thread
// that was about to begin a run then goes back to waiting; one that has swapped the tables makes its run.

#include "history_capture/history_capture.h"

#include "common/log.h"
#include "common/thread.h"
#include "history_capture/gate.h"
#include "storage/pcap_writer.h"

#include <ctime>
#include <unistd.h>

namespace {

constexpr auto RELEASE = std::memory_order_release;

// The walk is bound by the latency of memory, header after header: lines this far ahead are fetched early.
constexpr uint64_t PREFETCH_BYTES = 2048;
constexpr uint64_t CACHE_LINE = 64;

// One run: counters, and where it is.
struct hc_run_t {
    uint64_t read;
    uint64_t captured;
    uint64_t position; // canonical offset of the record to examine
    uint64_t fetched;  // offset up to which lines were prefetched
    bool first_part;   // the data wraps and the walk has not reached the end of the buffer yet
};

// Write the record with this header at p to the rule's file, in two pieces where it is split. Where the disk
// took only a part of it, the file ends there.
void write_record(const history_capture_t *hc, const hc_record_header_t *header, uint64_t p, hc_rule_t *rule)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    const int fd = rule->fd;
    const uint64_t begin = p + HC_RECORD_HEADER;
    const uint32_t length = header->length;
    int result = -1; // a damaged length may exceed a tiny ring: then there is no such data
    if (begin + length <= hc->size) {
        result = write_pcap_packet(fd, hc->buffer + begin, length, header->timestamp);
    } else if (length <= hc->size) {
        const auto before_end = static_cast<uint32_t>(hc->size - begin);
        result = write_pcap_divided_packet(fd, hc->buffer + begin, before_end, hc->buffer,
                                           length - before_end, length, header->timestamp);
    }
    if (result == 0) {
        rule->file_size += PCAP_RECORD_HEADER_SIZE + length;
        return;
    }
    rule->torn = lseek(fd, 0, SEEK_CUR) != static_cast<off_t>(rule->file_size) ? 1 : 0;
    KS_ERROR("kestrune: History_capture: Slow search: Packet was not stored to file.");
    KS_ERROR("kestrune: history_capture: It was not possible to write the packet into the file.");
}

// Offer the record to the rule of one of its addresses. The rule's row is held while the record is written.
bool filter_side(const history_capture_t *hc, fhf_table_t *table, uint64_t p, const ip_addr_t *ip,
                 uint8_t side) KS_REQUIRES_SHARED(hc->state_lock)
{
    const fhf_place_t place = fhf_place_of(table, ip);
    if (!fhf_may_hold(table, place)) {
        return false;
    }
    const hc_record_header_t *header = hc_record_at(hc, p);
    bool written = false;
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE,
                           &state); // the host's packet thread must not die with a row
    fhf_lock_t *row = nullptr;
    auto *rule = static_cast<hc_rule_t *>(fhf_get_placed_locked(table, place, ip, &row));
    if (rule != nullptr) {
        if ((rule->direction == side || rule->direction == BOTH) && rule->time >= header->time) {
            if (rule->torn == 0) {
                write_record(hc, header, p, rule);
            }
            rule->packets++;
            written = true;
        }
        fhf_unlock(row);
    }
    pthread_setcancelstate(state, nullptr);
    return written;
}

// Take the waiting rules into a run over what the ring holds now. False when the ring is being disabled.
bool begin_run(history_capture_t *hc, hc_run_t *run)
{
    rwlock_write(&hc->state_lock);
    if (hc->stopping) {
        rwlock_write_unlock(&hc->state_lock);
        return false;
    }
    gate_close(hc);
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

// Fetch the lines up to PREFETCH_BYTES ahead that were not fetched yet.
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

// Let the packet thread see how far the run is, and wake it when it waits for that.
void publish(history_capture_t *hc, uint64_t position)
{
    // Sequentially consistent on both sides: either the waiting writer sees this position or its flag is
    // seen.
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

// Close the files of the run's rules and let the packet thread go on. The number of rules.
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

// Pause between two runs, going on with the ring's memory where a rule came before that was done.
void pause_search(history_capture_t *hc)
{
    timespec end = {};
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += hc->search_pause_ms / 1000;
    end.tv_nsec += static_cast<long>(hc->search_pause_ms % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000) {
        end.tv_sec++;
        end.tv_nsec -= 1000000000;
    }
    thread_cancel_enable();
    do {
        pthread_testcancel();
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while (now.tv_sec < end.tv_sec && ring_populate(&hc->unpopulated));
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
    thread_cancel_disable();
}

// Wait until rules have come, populating the ring meanwhile.
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

double seconds_of(const timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void make_run(history_capture_t *hc, hc_run_t *run)
{
    timespec start = {};
    timespec end = {};
    rwlock_read(&hc->state_lock);
    clock_gettime(CLOCK_MONOTONIC, &start);
    walk_ring(hc, run);
    const uint32_t rules = finish_run(hc);
    rwlock_read_unlock(&hc->state_lock);
    clock_gettime(CLOCK_MONOTONIC, &end);
    KS_INFO(
        LOG_DETAIL,
        "kestrune: Fast search - rules %u, packets readed %u, packets captured %u, Time of searching: %.5f s",
        rules, static_cast<uint32_t>(run->read), static_cast<uint32_t>(run->captured),
        seconds_of(end) - seconds_of(start));
}

} // namespace

int32_t hc_filter_ip(history_capture_t *hc, fhf_table_t *table, uint64_t p)
{
    const hc_record_header_t *header = hc_record_at(hc, p);
    if (header->testing_value != HC_TESTING_VALUE) {
        KS_ERROR("kestrune: History_capture: hc_filter_ip function - Testing value not correct");
    }
    const bool as_source = filter_side(hc, table, p, &header->src_ip, SRC);
    const bool as_destination = filter_side(hc, table, p, &header->dst_ip, DST);
    return as_source || as_destination ? HC_WRITTEN : HC_NOT_WRITTEN;
}

void *hc_search_thread(void *history_capture)
{
    auto *hc = static_cast<history_capture_t *>(history_capture);
    thread_begin("ks-search");
    pthread_cleanup_push(hc_clean_search_thread, hc);
    KS_INFO(LOG_DETAIL, "kestrune: History_capture: Seach thread created");
    for (;;) {
        wait_for_rules(hc);
        KS_INFO(LOG_DETAIL, "kestrune: Fast search - new run");
        hc_run_t run = {};
        if (begin_run(hc, &run)) {
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
