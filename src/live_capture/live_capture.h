// Live capture: every packet of a watched address is appended to the address's own pcap file, from the moment
// the address is added until a packet limit or an end time is reached. One live_capture_t serves all queues.
// Below it: the hash table and the pcap writer. Above it: the packet path and the rules manager.
//
// The whole state is one hash table keyed by the address. The address's row lock serialises everything that
// touches its item: reading, counting, writing a packet and closing the file. So records of one file never
// interleave, `packets` counts exactly, and nothing is written to a closed descriptor.
//
// An item:  running -> stopped (limit, end time or failed write; still here, file open) -> removed (file
// closed)
//           running again when lc_update_rule gives a stopped item new limits, unless its `error` is set.
//
// Threads: lc_filter runs on every packet thread at once; the others on client handlers and the monitor.
// Callers need no lock; lock order: registry lock, then one row. No operation holds two rows. While a row is
// held nothing runs but the pcap writer, the clock, close and logging, and the thread cannot be cancelled.
//
// Invariants:
//   1. An address has an item exactly while its file is open.
//   2. packets <= packet_limit.
//   3. error, once set, stays set. start_time never changes.
#pragma once

#include "common/ip_addr.h"
#include "storage/fhf_table.h"

#include <cstdint>
#include <ctime>

constexpr uint64_t LC_TABLE_ROWS = 128; // 1024 addresses at most, 8 of one row

enum : int {
    LC_OK = 0,
    LC_UNKNOWN = -1,     // the address has no live capture
    LC_NOT_OPENED = -2,  // the file exists or cannot be created
    LC_NOT_WRITTEN = -3, // the pcap header could not be written
    LC_NOT_TAKEN = -4,   // the address has a live capture already, or its row is full
};

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

struct lc_addr_info_t {
    uint32_t packets;
    uint32_t packet_limit;
    time_t end_time;
    time_t start_time;
};

// A new live capture without addresses, or null after logging why. Released with lc_destroy.
live_capture_t *lc_init();

// Close every file and release the structure. Null is accepted. No other thread may use it any more.
void lc_destroy(live_capture_t *live);

// Take every address out and close its file. Null is accepted.
void lc_clean(live_capture_t *live);
void lc_clean_table(fhf_table_t *table);

// Create the file `path` (exclusively, mode 0640) and watch the address: at most packet_limit packets, for
// time_limit seconds. LC_OK, LC_NOT_OPENED, LC_NOT_WRITTEN or LC_NOT_TAKEN; a file that a failing call
// created stays.
[[nodiscard]] int lc_add_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction,
                              uint32_t packet_limit, uint32_t time_limit, const char *path);

// Renew the limits, counting from now; another direction than the item's makes it BOTH. LC_OK or LC_UNKNOWN.
[[nodiscard]] int lc_update_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction,
                                 uint32_t packets, uint32_t time_limit);

// Match this direction only from now on. LC_OK or LC_UNKNOWN.
[[nodiscard]] int lc_change_direction(live_capture_t *live, const ip_addr_t *addr, uint32_t direction);

// Close the file and forget the address. LC_OK, with the records in the file in *packets unless that is null;
// or LC_UNKNOWN.
[[nodiscard]] int lc_drop_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t *packets = nullptr);

// Offer one packet (`length` bytes at `data`, timestamp in nanoseconds since the epoch) on the packet path.
// 1 when it was written to at least one file, else 0. An unwatched packet takes no lock, writes nothing that
// others read, and makes no call, not even of the clock. Always inline: as a call it costs that packet a
// quarter more.
[[nodiscard]] inline int lc_filter(live_capture_t *live, const ip_addr_t *src, const ip_addr_t *dst,
                                   const uint8_t *data, uint32_t length, uint64_t timestamp);

// Progress of an address: bits 0-7 percent, bits 32-63 packets written. 100 means that the address has no
// live capture (any more); one that is still here reports 99 at most. With bit 0 of close_flag set (closing
// mode) a stopped capture is closed, forgotten and reported as 100 with its packets.
[[nodiscard]] uint64_t lc_progress(live_capture_t *live, const ip_addr_t *addr, uint32_t close_flag);

// Counters of an address. LC_OK, or LC_UNKNOWN with *info untouched.
[[nodiscard]] int lc_addr_info(live_capture_t *live, const ip_addr_t *addr, lc_addr_info_t *info);

// The rest is the room's own.

// A packet whose addresses may be watched, and where they belong in the table.
struct lc_packet_t {
    const ip_addr_t *ends[2]; // SRC, DST
    fhf_place_t places[2];    // of the ends
    const uint8_t *data;
    uint32_t length; // bytes at data
    uint64_t timestamp;
};

// The rest of lc_filter, off the path of the unwatched packets.
[[nodiscard]] int lc_filter_watched(live_capture_t *live, const lc_packet_t &packet);

[[gnu::always_inline]] inline int lc_filter(live_capture_t *live, const ip_addr_t *src, const ip_addr_t *dst,
                                            const uint8_t *data, uint32_t length, uint64_t timestamp)
{
    const fhf_table_t *table = live->ip_table;
    const fhf_place_t src_place = fhf_place_of_16(table, src->bytes);
    const fhf_place_t dst_place = fhf_place_of_16(table, dst->bytes);
    if ((fhf_tag_matches(table, src_place) | fhf_tag_matches(table, dst_place)) == 0) [[likely]] {
        return 0;
    }
    return lc_filter_watched(live, {{src, dst}, {src_place, dst_place}, data, length, timestamp});
}

// The item of an address with its row held and the row's handle in *row; or null with no row held.
inline lc_item_t *lc_find_locked(live_capture_t *live, const ip_addr_t *addr, fhf_lock_t **row)
{
    return static_cast<lc_item_t *>(fhf_get_data_locked(live->ip_table, addr->bytes, row));
}
