// History capture: one per queue. A ring in memory holds the queue's most recent packets; when an address is
// added, its past packets are searched in the ring and written to a pcap file. This header is the whole room:
// the ring (history_ring.cpp), its life (history_life.cpp), the search thread and the searches
// (history_search.cpp) and the rules and their progress (history_rules.cpp).
//
// The ring: records of a 51-byte header and its data, packed back to back. A header is never split: where
// fewer than 51 bytes remain before the end, they stay unused and the next record starts at 0. Data may be
// split.
//
//   empty      first = size, last = 0, packets = 0
//   filling    [0 ######## last ..................)             first designates 0
//   wrapped    [####### last ...... first ########)
//   full       [####### last = first #############)             told from empty by packets > 0
//
// A position within the last 51 bytes designates 0 (hc_canonical). Only such canonical positions are compared
// between the packet thread and the search thread.
//
// Threads: the queue's packet thread is the only writer of the ring. The search thread reads it during a run,
// under state_lock held for reading, and publishes how far it is; the packet thread never drops a record that
// the run has not examined yet. Client handlers and the monitor add rules and ask for progress.
//
// Locks, outermost first: registry lock, life_lock, state_lock, then one of position_lock, buffer_lock,
// deleted_rules_lock, then a table row.
//
// Invariants:
//   1. `packets` records lie from hc_canonical(first) to last.
//   2. buffer, size and enabled change only under state_lock held for writing; hc_enqueue runs under it held
//   for
//      reading, so none of them changes during an append.
//   3. searching becomes 1 only under state_lock held for writing; an append that found it 0 needs no
//      buffer_lock.
//   4. new_rules is 0 exactly when slow_search_table is empty; it is above 0 exactly when the semaphore has
//   been
//      posted for these rules or the search thread is about to take them.
//   5. A rule is in one of slow_search_table, fast_search_table and deleted_rules, or reported and gone.
#pragma once

#include "common/ip_addr.h"
#include "common/lock.h"
#include "history_capture/ring_memory.h"
#include "storage/fhf_table.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

constexpr uint32_t HC_RECORD_HEADER = 51; // bytes
constexpr uint8_t HC_TESTING_VALUE = 0x79;
constexpr uint32_t HC_MAX_DATA = 65535;      // bytes stored of a packet
constexpr uint64_t HC_DEFAULT_SIZE = 200000; // ring of hc_enable(0), bytes
constexpr uint64_t HC_TABLE_ROWS = 128;
constexpr uint32_t HC_SEARCH_PAUSE_MS = 5000; // between two runs

enum : int32_t {
    HC_OK = 0,
    HC_DISABLED = -1,   // hc_enqueue, hc_add_rule, hc_searched_packets
    HC_UNKNOWN = -2,    // hc_searched_packets: address in neither table
    HC_NO_MEMORY = -3,  // hc_enable: ring or search thread could not be created
    HC_NOT_OPENED = -4, // hc_add_rule: file exists or cannot be created
    HC_NOT_ADDED = -5,  // hc_add_rule: header not written, or the table refused the address
    HC_TOO_LARGE = -6,  // hc_enqueue: the record cannot stand in a ring of this size
    HC_RUNNING = -7,    // hc_enable: enabled already
    HC_WRITTEN = 1,     // hc_filter_ip: written for at least one rule
    HC_NOT_WRITTEN = 2, // hc_filter_ip: no rule matched
};

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

// A rule of one queue. Guarded by the row of its address.
struct hc_rule_t {
    uint32_t packets;   // records matched so far
    int64_t time;       // last_packet_time when the rule arrived; later records are not written
    int32_t fd;         // owned; open until the rule is finished
    uint8_t direction;  // SRC, DST or BOTH
    uint8_t collected;  // 1 once it was reported as finished with the remove flag: it is not listed again
    uint8_t torn;       // 1 once a record went out in part: what came behind it could not be read
    uint64_t file_size; // bytes of the file's header and its whole records
};

// A finished rule. Guarded by deleted_rules_lock.
struct hc_deleted_rule_t {
    ip_addr_t ip;
    uint32_t packets;
    hc_deleted_rule_t *next; // owned
};

struct history_capture_t {
    uint8_t *buffer KS_GUARDED_BY(state_lock); // owned ring memory, null while disabled
    std::atomic<uint64_t> first;               // oldest record's header; stored by the packet thread
    std::atomic<uint64_t> last;                // where the next header goes; stored by the packet thread
    std::atomic<uint32_t> packets;             // records in the ring; stored by the packet thread
    uint64_t size KS_GUARDED_BY(state_lock);   // bytes
    std::atomic<int64_t> last_packet_time;     // calendar seconds of the latest hc_enqueue
    spin_t position_lock;                      // after state_lock; before a row of slow_search_table
    std::atomic<int64_t>
        last_rule_time; // last_packet_time when the latest rule came; stored under position_lock
    fhf_table_t *slow_search_table KS_GUARDED_BY(state_lock); // owned; rules waiting for their run
    std::atomic<uint32_t> new_rules;               // rules in slow_search_table; changed under position_lock
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

    mutex_t life_lock;                       // one hc_enable or hc_disable at a time; before state_lock
    bool stopping KS_GUARDED_BY(state_lock); // the search thread is to end
    uint32_t search_records KS_GUARDED_BY(state_lock); // records in the ring when the run began
    std::atomic<uint8_t> search_pending;               // 1 while the run has records to examine
    std::atomic<uint8_t> writer_waiting;               // 1 while the packet thread waits on search_moved
    std::atomic<uint32_t> appending;                   // 1 while the packet thread is in the ring, see gate.h
    uint32_t search_pause_ms;                          // between two runs; set before the first rule comes
};

struct hc_info_t {
    uint32_t packets;   // records in the ring
    uint64_t size;      // ring size, bytes
    uint64_t free;      // bytes between last and first
    uint32_t time_span; // whole seconds from the oldest record to the latest packet
    uint32_t rules;     // rules waiting for their run
};

// A new history capture with a ring of `size` bytes; 0: created disabled. Null after logging why. Released
// with hc_destroy.
history_capture_t *hc_init(uint64_t size);

// Disable and release. Null is accepted. Waits for a run under way.
void hc_destroy(history_capture_t *hc);

// Allocate a ring of `size` bytes (0: HC_DEFAULT_SIZE) and start the search thread. HC_OK, HC_RUNNING or
// HC_NO_MEMORY.
[[nodiscard]] int32_t hc_enable(history_capture_t *hc, uint64_t size);

// Stop the search thread and drop the ring; waiting rules are listed as finished. Does nothing when disabled.
// Waits for a run under way, whose rules finish with all their records; packets are not held up meanwhile.
void hc_disable(history_capture_t *hc);

// Append one packet (`length` bytes at `data`, cut to HC_MAX_DATA; timestamp in nanoseconds since the epoch),
// dropping the oldest records as far as room is needed. On the queue's packet thread only. HC_OK, HC_DISABLED
// or HC_TOO_LARGE. May wait until the search thread has examined the record that must go.
int32_t hc_enqueue(history_capture_t *hc, const ip_addr_t *src, const ip_addr_t *dst, const uint8_t *data,
                   uint32_t length, uint64_t timestamp);

// Whether packets are stored at the moment: the packet path's question before hc_enqueue, which would answer
// HC_DISABLED.
[[nodiscard]] inline bool hc_is_enabled(const history_capture_t *hc)
{
    return hc->enabled.load(std::memory_order_relaxed) != 0;
}

// Drop the oldest record. Called by hc_enqueue only, on a ring that holds one.
void hc_delete_first(history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock);

// State of the ring; all zero while disabled.
void hc_info(history_capture_t *hc, hc_info_t *out);

// Create the file `path` and take the address into the next run. HC_OK, HC_DISABLED, HC_NOT_OPENED or
// HC_NOT_ADDED; a file that a failing call created stays.
[[nodiscard]] int32_t hc_add_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction,
                                  const char *path);

// Records matched so far for a rule that waits or is searched; HC_DISABLED or HC_UNKNOWN.
[[nodiscard]] int32_t hc_searched_packets(history_capture_t *hc, const ip_addr_t *ip);

// Progress of a rule as in common/progress.h: 0 waiting, rising during its run, 100 finished, -2 unknown.
// With the remove flag a finished rule is forgotten.
[[nodiscard]] uint64_t hc_search_progress(history_capture_t *hc, const ip_addr_t *ip, uint8_t remove);

// The rest is the room's own.

// Body of the search thread: populates the ring's memory, waits for rules, makes a run, pauses. Started by
// hc_enable, stopped by hc_disable; can be cancelled between two parts of the memory, at its wait and at its
// pause only.
void *hc_search_thread(void *history_capture);
void hc_clean_search_thread(void *history_capture);

// Write the record at p for the rules of the table that match it. HC_WRITTEN or HC_NOT_WRITTEN.
int32_t hc_filter_ip(history_capture_t *hc, fhf_table_t *table, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock);

// The header of the record at p, which must be an offset at which a header fits.
inline const hc_record_header_t *hc_record_at(const history_capture_t *hc, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    return reinterpret_cast<const hc_record_header_t *>(hc->buffer + p);
}

// Close the files of the table's rules, list them as finished and empty the table. A null table is accepted.
void hc_clean_rules_from_fht(history_capture_t *hc, fhf_table_t *table);

// Offset at which the record designated by a position has its header.
inline uint64_t hc_canonical(const history_capture_t *hc, uint64_t position)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    return position + HC_RECORD_HEADER > hc->size ? 0 : position;
}
