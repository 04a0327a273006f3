// The structure of the live capture. Private to the room, with packet_path.h.
//
// The whole state is one hash table keyed by the address. The address's row lock serialises everything
// that touches its item: reading, counting, writing a packet and closing the file. So records of one
// file never interleave, `packets` counts exactly, and nothing is written to a closed descriptor. No
// operation holds two rows. While a row is held, only the pcap writer, the clock, close and logging
// run, and the thread cannot be cancelled.
//
// Invariants:
//   1. An address has an item exactly while its file is open.
//   2. packets <= packet_limit.
//   3. error, once set, stays set. start_time never changes.
#pragma once

#include "live_capture/live_capture.h"
#include "storage/fhf_table.h"

constexpr uint64_t LC_TABLE_ROWS = 128; // at most 1024 addresses, 8 in a row

// All fields are guarded by the row of the item's address.
struct lc_item_t {
    int fd;                // owned; open for writing
    uint32_t direction;    // SRC, DST or BOTH: the side of a packet that is compared
    int error;             // 0, or errno of the write that failed
    uint32_t packets;      // records written
    uint32_t packet_limit; // nothing is written once packets reaches it
    time_t end_time;       // nothing is written after this second
    time_t start_time;     // when the capture was added
};

struct live_capture_t {
    fhf_table_t *ip_table; // owned; ip_addr_t -> lc_item_t
};

// The item of an address with its row held and the row's handle in *row; or null with no row held.
inline lc_item_t *lc_find_locked(live_capture_t *live, const ip_addr_t *addr, fhf_lock_t **row)
{
    return static_cast<lc_item_t *>(fhf_get_data_locked(live->ip_table, addr->bytes, row));
}

// Remove every address from the table and close its file. Null is accepted.
void lc_clean_table(fhf_table_t *table);
