// The structure of a history capture: its ring, its rules and its locks. Private to
// the room, with packet_path.h.
//
//   history_life.cpp     creating, enabling, disabling
//   history_ring.cpp     appending, dropping the oldest record, counters
//   history_rules.cpp    taking rules in, their progress, finishing them
//   history_filter.cpp   writes a record for the rules that match it
//   history_search.cpp   the search thread and its runs
//   gate.h               the packet thread's way into the ring
//   ring_memory.cpp      the ring's memory
//
// The ring: records of a 51-byte header and its data, packed back to back. A header is
// never split: where fewer than 51 bytes remain before the end, they stay unused and the
// next record starts at 0. Data may be split.
//
//   empty      first = size, last = 0, packets = 0
//   filling    [0 ######## last ..................)             first designates 0
//   wrapped    [####### last ...... first ########)
//   full       [####### last = first #############)             told from empty by packets > 0
//
// A position within the last 51 bytes designates 0 (hc_canonical). The packet thread and the search thread
// compare only such canonical positions.
//
// Threads: only the queue's packet thread writes the ring. The search thread reads it during a run,
// under state_lock held for reading, and publishes its position. The packet thread never evicts a
// record that the run has not examined yet.
//
// Held rules (history_capture.h draws the states): an append before the release stores last_packet_time
// before it makes room, and the release takes it as the rule's time, so the record is not newer than the
// rule. An append that sleeps for a run, outside the gate, holds state_lock, so the next run begins behind
// its record. Switching the ring on or off also raises `offers`, so an append across a disable looks again:
// the release may have come before it. A packet that finds the ring off before its look is older than
// everything the ring will hold. hc_disable finishes a held rule; its release then only raises `offers`.
//
// Locks, outermost first: registry lock, life_lock, state_lock, then one of position_lock, buffer_lock,
// deleted_rules_lock, then a table row.
//
// Invariants:
//   1. `packets` records lie from hc_canonical(first) to last.
//   2. buffer, size and enabled change only under state_lock held for writing and with the gate closed. An
//      append is inside the gate or holds state_lock for reading (gate.h), so they never change during it.
//   3. searching becomes 1 only under the same conditions; an append that found it 0 needs no buffer_lock.
//   4. new_rules is 0 exactly when slow_search_table is empty. While it is above 0 and held_rules is 0, the
//      semaphore has been posted once for these rules (run_posted), or the search thread is taking them.
//   5. While held_rules is above 0 no run begins and last_rule_time is HC_HELD. A held rule is in
//      slow_search_table.
//   6. A rule is in one of slow_search_table, fast_search_table and deleted_rules, or reported and gone.
#pragma once

#include "common/ip_addr.h"
#include "common/lock.h"
#include "history_capture/history_capture.h"
#include "history_capture/ring_memory.h"
#include "storage/fhf_table.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

constexpr uint32_t HC_RECORD_HEADER = 51; // bytes
constexpr uint8_t HC_TESTING_VALUE = 0x79;
constexpr uint64_t HC_TABLE_ROWS = 128;
constexpr uint32_t HC_SEARCH_PAUSE_MS = 5000; // between two runs
constexpr int64_t HC_HELD = INT64_MAX;        // time of a held rule: no record is newer

// A record's header in the ring, unaligned, in the machine's byte order.
struct __attribute__((packed)) hc_record_header_t {
    uint64_t timestamp;    // of the packet, nanoseconds since the epoch
    int64_t time;          // when it was stored, calendar seconds
    uint16_t length;       // data bytes behind the header
    uint8_t testing_value; // HC_TESTING_VALUE
    ip_addr_t src_ip;
    ip_addr_t dst_ip;
};
static_assert(sizeof(hc_record_header_t) == HC_RECORD_HEADER);
static_assert(offsetof(hc_record_header_t, length) == 16 && offsetof(hc_record_header_t, src_ip) == 19);

// A finished rule. Guarded by deleted_rules_lock.
struct hc_deleted_rule_t {
    ip_addr_t ip;
    uint32_t packets;
    hc_deleted_rule_t *next; // owned
};

// A rule of one queue. Guarded by the row of its address.
struct hc_rule_t {
    uint32_t packets;   // records matched so far
    int64_t time;       // last_packet_time when the rule was released, or HC_HELD; no later record is written
    int32_t fd;         // owned; open until the rule is finished
    uint8_t direction;  // SRC, DST or BOTH
    uint8_t collected;  // 1 once reported as finished with the remove flag: not listed again
    uint8_t torn;       // 1 after a partly written record: nothing behind it would be readable
    uint64_t file_size; // bytes of the file's header and its whole records
    hc_deleted_rule_t *finished; // owned; for deleted_rules, allocated early so that finishing cannot fail
};

struct history_capture_t {
    uint8_t *buffer KS_GUARDED_BY(state_lock); // owned ring memory, null while disabled
    std::atomic<uint64_t> first;               // oldest record's header; stored by the packet thread
    std::atomic<uint64_t> last;                // where the next header goes; stored by the packet thread
    std::atomic<uint32_t> packets;             // records in the ring; stored by the packet thread
    uint64_t size KS_GUARDED_BY(state_lock);   // bytes
    std::atomic<int64_t> last_packet_time;     // calendar seconds of the latest append
    spin_t position_lock;                      // after state_lock; before a row of slow_search_table
    // last_packet_time when the latest rule was released, or HC_HELD while one is
    // held; stored with the gate closed.
    std::atomic<int64_t> last_rule_time;
    fhf_table_t *slow_search_table KS_GUARDED_BY(state_lock); // owned; rules waiting for their run
    std::atomic<uint32_t> new_rules;               // rules in slow_search_table; changed with the gate closed
    pthread_t search_thread;                       // runs hc_search_thread while enabled
    ring_rest_t unpopulated;                       // of buffer; the search thread's own while it runs
    std::atomic<uint8_t> searching;                // 1 while a run is under way
    std::atomic<uint64_t> search_position;         // canonical offset of the record examined next
    uint64_t search_end KS_GUARDED_BY(state_lock); // `last` when the run began
    mutex_t buffer_lock;                           // Lock for Buffer: taken alone after state_lock
    pthread_cond_t search_moved;          // with buffer_lock: the search went on while the writer waited
    sem_t search_semaphore;               // wakes the search thread
    std::atomic<uint32_t> searched_rules; // rules of the current run
    fhf_table_t *fast_search_table KS_GUARDED_BY(state_lock); // owned; rules of the current run
    rwlock_t state_lock;          // Lock for Buffer state; after life_lock, before all others here
    std::atomic<uint8_t> enabled; // stored under state_lock (write)
    hc_deleted_rule_t *deleted_rules KS_GUARDED_BY(deleted_rules_lock); // owned list, newest first
    mutex_t deleted_rules_lock; // after state_lock, before a table row

    // Never falls, changes with the gate closed: by 2 with each release, by 1 when the ring is switched on or
    // off, so it is odd while the ring is on.
    std::atomic<uint64_t> offers;
    mutex_t life_lock;                       // one hc_enable or hc_disable at a time; before state_lock
    bool stopping KS_GUARDED_BY(state_lock); // the search thread must end
    uint32_t search_records KS_GUARDED_BY(state_lock); // records in the ring when the run began
    std::atomic<uint8_t> search_pending;               // 1 while the run has records to examine
    std::atomic<uint8_t> writer_waiting;               // 1 while the packet thread waits on search_moved
    std::atomic<uint32_t> appending;                   // 1 while the packet thread is in the ring, see gate.h
    uint32_t search_pause_ms;                          // between two runs; set before the first rule comes
    uint32_t held_rules KS_GUARDED_BY(position_lock);  // rules held in slow_search_table
    bool run_posted KS_GUARDED_BY(position_lock);      // the semaphore was posted, and no run has begun since
    std::atomic<int64_t> oldest_time;                  // of the oldest record when hc_info last looked
    std::atomic<int64_t> oldest_looked_ms;             // monotonic time of that; 0: not since the enabling
};

// Offset at which the record designated by a position has its header.
inline uint64_t hc_canonical(const history_capture_t *hc, uint64_t position)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    return position + HC_RECORD_HEADER > hc->size ? 0 : position;
}

// The header of the record at p, which must be an offset at which a header fits.
inline const hc_record_header_t *hc_record_at(const history_capture_t *hc, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    return reinterpret_cast<const hc_record_header_t *>(hc->buffer + p);
}

// Raise `offers`; those that load it outside the gate see what was done before.
inline void hc_raise_offers(history_capture_t *hc, uint64_t by) KS_REQUIRES(hc->position_lock)
{
    hc->offers.store(hc->offers.load(std::memory_order_relaxed) + by, std::memory_order_release);
}
