// Creating, enabling, disabling and destroying a history capture.

#include "history_capture/history_state.h"

#include "common/log.h"
#include "common/memory.h"
#include "common/thread.h"
#include "history_capture/gate.h"
#include "history_capture/history_rules.h"
#include "history_capture/history_search.h"
#include "history_capture/ring_memory.h"

#include <cstdlib>

namespace {

// A lock, condition or semaphore of a history capture.
struct part_t {
    int (*create)(history_capture_t *hc);
    void (*destroy)(history_capture_t *hc);
    const char *missing; // logged when it cannot be created
};

constexpr char NO_STATE_LOCK[] = "kestrune: History_capture: Lock for Buffer state was not created";
constexpr char NO_BUFFER_LOCK[] = "kestrune: History_capture: Lock for Buffer was not created";
constexpr char NO_SEMAPHORE[] = "kestrune: History_capture: Semaphore for search thread was not created";

constexpr part_t PARTS[] = {
    {[](history_capture_t *hc) { return rwlock_init(&hc->state_lock); },
     [](history_capture_t *hc) { rwlock_destroy(&hc->state_lock); }, NO_STATE_LOCK},
    {[](history_capture_t *hc) { return mutex_init(&hc->life_lock); },
     [](history_capture_t *hc) { mutex_destroy(&hc->life_lock); }, NO_STATE_LOCK},
    {[](history_capture_t *hc) { return mutex_init(&hc->buffer_lock); },
     [](history_capture_t *hc) { mutex_destroy(&hc->buffer_lock); }, NO_BUFFER_LOCK},
    {[](history_capture_t *hc) { return pthread_cond_init(&hc->search_moved, nullptr); },
     [](history_capture_t *hc) { pthread_cond_destroy(&hc->search_moved); }, NO_BUFFER_LOCK},
    {[](history_capture_t *hc) { return mutex_init(&hc->deleted_rules_lock); },
     [](history_capture_t *hc) { mutex_destroy(&hc->deleted_rules_lock); }, NO_BUFFER_LOCK},
    {[](history_capture_t *hc) { return sem_init(&hc->search_semaphore, 0, 0); },
     [](history_capture_t *hc) { sem_destroy(&hc->search_semaphore); }, NO_SEMAPHORE},
};
constexpr size_t PART_COUNT = sizeof PARTS / sizeof PARTS[0];

// Destroy the first `made` parts, in reverse order.
void destroy_locks(history_capture_t *hc, size_t made)
{
    while (made > 0) {
        PARTS[--made].destroy(hc);
    }
}

// Create all parts. False after logging which one failed, with none left.
bool create_locks(history_capture_t *hc)
{
    for (size_t i = 0; i < PART_COUNT; i++) {
        if (PARTS[i].create(hc) != 0) {
            KS_ERROR("%s", PARTS[i].missing);
            destroy_locks(hc, i);
            return false;
        }
    }
    return true;
}

void destroy_tables(history_capture_t *hc) KS_NO_ANALYSIS // nobody else uses the structure
{
    if (hc->slow_search_table != nullptr) {
        fhf_destroy(hc->slow_search_table);
    }
    if (hc->fast_search_table != nullptr) {
        fhf_destroy(hc->fast_search_table);
    }
}

// Tables and locks of a zeroed structure. False after logging why, with nothing left.
bool create_parts(history_capture_t *hc) KS_NO_ANALYSIS // nobody else uses the structure
{
    hc->slow_search_table = fhf_init(HC_TABLE_ROWS, sizeof(ip_addr_t), sizeof(hc_rule_t));
    if (hc->slow_search_table == nullptr) {
        KS_ERROR("kestrune: History_capture: Searching table for slow search could not be allocated");
        return false;
    }
    hc->fast_search_table = fhf_init(HC_TABLE_ROWS, sizeof(ip_addr_t), sizeof(hc_rule_t));
    if (hc->fast_search_table == nullptr) {
        KS_ERROR("kestrune: History_capture: Searching table for fast search could not be allocated");
        destroy_tables(hc);
        return false;
    }
    if (!create_locks(hc)) {
        destroy_tables(hc);
        return false;
    }
    return true;
}

// Detach the ring and forget its rules. The caller releases the memory outside the
// lock: returning gigabytes takes time.
uint8_t *detach_ring(history_capture_t *hc, uint64_t *size)
{
    rwlock_write(&hc->state_lock);
    gate_close(hc);
    uint8_t *buffer = hc->buffer;
    *size = hc->size;
    hc->buffer = nullptr;
    hc->first = 0;
    hc->last = 0;
    hc->packets = 0;
    hc->size = 0;
    hc->last_packet_time = 0;
    hc->stopping = false;
    hc->new_rules = 0; // their table is empty now; an untaken post belonged to them
    hc->held_rules = 0;
    hc->run_posted = false;
    while (sem_trywait(&hc->search_semaphore) == 0) {
    }
    gate_open(hc);
    rwlock_write_unlock(&hc->state_lock);
    return buffer;
}

// Take state_lock for writing while no run is in progress. A run holds it for reading, so this waits for the
// run's end. Between its swap of the tables and that read lock, a run holds nothing. Closing the gate here
// would deadlock: a packet inside may wait for this run, and the run for the lock.
void lock_outside_runs(history_capture_t *hc) KS_ACQUIRE(hc->state_lock)
{
    rwlock_write(&hc->state_lock);
    while (hc->searching != 0) {
        rwlock_write_unlock(&hc->state_lock);
        sched_yield();
        rwlock_write(&hc->state_lock);
    }
}

// Refuse packets and rules from now on. False when the ring is not enabled. Waits for the end of
// a run, while the packet thread continues.
bool begin_stop(history_capture_t *hc)
{
    lock_outside_runs(hc);
    gate_close(hc);
    const bool was_enabled = hc->enabled != 0;
    if (was_enabled) {
        hc->enabled = 0;
        hc_raise_offers(hc, 1);
        hc->stopping = true;
    }
    gate_open(hc);
    rwlock_write_unlock(&hc->state_lock);
    return was_enabled;
}

// Put a ring in this memory into use.
void attach_ring(history_capture_t *hc, uint8_t *buffer, uint64_t size)
{
    rwlock_write(&hc->state_lock);
    gate_close(hc);
    hc->buffer = buffer;
    hc->size = size;
    hc->last = 0;
    hc->packets = 0;
    hc->first = size;
    hc->oldest_time = INT64_MAX;
    hc->oldest_looked_ms = 0;
    hc->enabled = 1;
    hc_raise_offers(hc, 1);
    gate_open(hc);
    rwlock_write_unlock(&hc->state_lock);
}

int32_t enable(history_capture_t *hc, uint64_t size, ring_grant_t grant)
{
    if (size == 0) {
        size = HC_DEFAULT_SIZE;
    }
    mutex_lock(&hc->life_lock);
    if (hc->enabled != 0) {
        mutex_unlock(&hc->life_lock);
        return HC_RUNNING;
    }
    uint8_t *buffer = ring_allocate(size, grant, &hc->unpopulated); // the last search thread has ended
    if (buffer == nullptr) {
        mutex_unlock(&hc->life_lock);
        return HC_NO_MEMORY;
    }
    if (thread_start(&hc->search_thread, hc_search_thread, hc) != 0) {
        KS_ERROR("kestrune: History_capture: Search thread was not created");
        ring_free(buffer, size, &hc->unpopulated);
        mutex_unlock(&hc->life_lock);
        return HC_NO_MEMORY;
    }
    attach_ring(hc, buffer, size);
    mutex_unlock(&hc->life_lock);
    return HC_OK;
}

} // namespace

history_capture_t *hc_init(uint64_t size)
{
    auto *hc = static_cast<history_capture_t *>(zeroed_lines(1, sizeof(history_capture_t)));
    if (hc == nullptr) {
        KS_ERROR("kestrune: History_capture: Main structure could not be allocated");
        return nullptr;
    }
    if (!create_parts(hc)) {
        std::free(hc);
        return nullptr;
    }
    hc->search_pause_ms = HC_SEARCH_PAUSE_MS;
    if (size == 0 || enable(hc, size, ring_grant_t::BY_KERNEL) >= 0) {
        return hc;
    }
    hc_destroy(hc);
    KS_INFO(LOG_EVENT, "kestrune: History_capture: Buffer of size %lu B could not be allocated\n.", size);
    KS_ERROR("kestrune: History_capture: Buffer could not be allocated\n.");
    return nullptr;
}

bool hc_is_enabled(const history_capture_t *hc)
{
    return hc->enabled.load(std::memory_order_acquire) != 0;
}

int32_t hc_enable(history_capture_t *hc, uint64_t size)
{
    return enable(hc, size, ring_grant_t::WITHIN_AVAILABLE);
}

void hc_disable(history_capture_t *hc)
{
    mutex_lock(&hc->life_lock);
    if (!begin_stop(hc)) {
        mutex_unlock(&hc->life_lock);
        return;
    }
    // state_lock is free meanwhile: the thread may need it to notice that it should stop,
    // or to finish a run that it has just taken.
    KS_INFO(LOG_DETAIL, "kestrune: Try to cancel search thread");
    thread_stop(hc->search_thread);
    KS_INFO(LOG_DETAIL, "kestrune: Search thread canceled");

    rwlock_read(&hc->state_lock);
    fhf_table_t *waiting = hc->slow_search_table;
    rwlock_read_unlock(&hc->state_lock);
    KS_INFO(LOG_DETAIL, "kestrune: Cleaning rules from fht");
    hc_clean_rules_from_fht(hc, waiting);

    uint64_t size = 0;
    uint8_t *buffer = detach_ring(hc, &size);
    ring_free(buffer, size, &hc->unpopulated);
    mutex_unlock(&hc->life_lock);
}

void hc_destroy(history_capture_t *hc)
{
    if (hc == nullptr) {
        return;
    }
    hc_disable(hc);
    mutex_lock(&hc->deleted_rules_lock);
    while (hc->deleted_rules != nullptr) {
        hc_deleted_rule_t *item = hc->deleted_rules;
        hc->deleted_rules = item->next;
        std::free(item);
    }
    mutex_unlock(&hc->deleted_rules_lock);
    destroy_locks(hc, PART_COUNT);
    destroy_tables(hc);
    std::free(hc);
}
