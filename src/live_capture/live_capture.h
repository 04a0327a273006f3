// Live capture: every packet of a watched address is appended to the address's own pcap file, from the moment
// the address is added until a packet limit or an end time is reached. One live_capture_t serves all queues.
// This is the face of the room; packet_path.h adds lc_filter, the packet path's own call.
//
// A capture:  running -> stopped (limit, end time or failed write; file open) -> removed (closed)
//             running again when lc_update_rule gives a stopped one new limits, unless a write failed
//
// Threads: lc_filter runs on every packet thread at once; the others on client handlers and the monitor.
// Callers need no lock. Lock order: registry lock, then one row of the table.
#pragma once

#include "common/ip_addr.h"

#include <cstdint>
#include <ctime>

enum : int {
    LC_OK = 0,
    LC_UNKNOWN = -1,     // the address has no live capture
    LC_NOT_OPENED = -2,  // the file exists or cannot be created
    LC_NOT_WRITTEN = -3, // the pcap header could not be written
    LC_NOT_TAKEN = -4,   // the address has a live capture already, or its row is full
};

struct live_capture_t; // live_state.h

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

// Remove every address and close its file. Null is accepted.
void lc_clean(live_capture_t *live);

// Create the file `path` (exclusively, mode 0640) and watch the address: at most
// packet_limit packets, for time_limit seconds. LC_OK, LC_NOT_OPENED, LC_NOT_WRITTEN or
// LC_NOT_TAKEN; a file that a failing call created stays.
[[nodiscard]] int lc_add_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction,
                              uint32_t packet_limit, uint32_t time_limit, const char *path);

// Renew the limits, counted from now; a direction other than the item's makes it BOTH. LC_OK or LC_UNKNOWN.
[[nodiscard]] int lc_update_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction,
                                 uint32_t packets, uint32_t time_limit);

// From now on match this direction only. LC_OK or LC_UNKNOWN.
[[nodiscard]] int lc_change_direction(live_capture_t *live, const ip_addr_t *addr, uint32_t direction);

// Close the file and forget the address. LC_OK, with the file's record count in
// *packets unless that is null; or LC_UNKNOWN.
[[nodiscard]] int lc_drop_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t *packets = nullptr);

// Progress of an address: bits 0-7 percent, bits 32-63 packets written. 100 means that the address has no
// live capture (any more); one that still exists reports 99 at most. With bit 0 of close_flag set (closing
// mode), a stopped capture is closed, forgotten and reported as 100 with its packets.
[[nodiscard]] uint64_t lc_progress(live_capture_t *live, const ip_addr_t *addr, uint32_t close_flag);

// Counters of an address. LC_OK, or LC_UNKNOWN with *info untouched.
[[nodiscard]] int lc_addr_info(live_capture_t *live, const ip_addr_t *addr, lc_addr_info_t *info);
