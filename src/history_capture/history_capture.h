// History capture: one per queue. A ring in memory holds the queue's most recent packets. When an address is
// added, its past packets are searched in the ring and written to a pcap file. This is the face of the room;
// packet_path.h adds what the packet path calls inline.
//
// Threads: one packet thread appends to a capture. It passes a gate and takes no lock, except while it waits
// for the search thread. Client handlers and the monitor enable and disable a capture, add rules and ask for
// progress, at any time and concurrently. Each enabled capture has a search thread.
//
// Locks: callers hold the registry's lock or none. The room's own locks come below
// it; no operation calls back.
//
// A rule whose address also gets a live capture is held until that capture is in place, so that every packet
// of the address is in exactly one of the two files. The caller that adds the rule: H hc_hold_rule, V the
// live capture, R hc_release_rule. The packet thread, for each packet: L hc_offers, F look into the live
// capture, E hc_enqueue_compared if F did not take the packet.
//
//   rule      absent   H   held: takes every evicted record   R   waiting: takes records up to R
//   a run     begins       does not begin; R posts for it         begins and takes the rule
//
//   E before R            the record is in the ring at R, or the rule took it when it was evicted: history
//   L before R before E   `offers` rose: nothing is stored, the packet thread looks again, F finds V: live
//   R before L            F finds V: live
#pragma once

#include "common/ip_addr.h"

#include <cstdint>

constexpr uint32_t HC_MAX_DATA = 65535;      // bytes stored of a packet
constexpr uint64_t HC_DEFAULT_SIZE = 200000; // ring of hc_enable(0), bytes
constexpr int64_t HC_OLDEST_AGE_MS = 100;    // hc_info reads the oldest record no more often

enum : int32_t {
    HC_OK = 0,
    HC_DISABLED = -1,   // hc_enqueue, hc_add_rule, hc_searched_packets
    HC_UNKNOWN = -2,    // hc_searched_packets: address in neither table
    HC_NO_MEMORY = -3,  // hc_enable: ring or search thread could not be created
    HC_NOT_OPENED = -4, // hc_add_rule: file exists or cannot be created
    HC_NOT_ADDED = -5,  // hc_add_rule: header not written, no memory, or the table refused the address
    HC_TOO_LARGE = -6,  // hc_enqueue: the record cannot stand in a ring of this size
    HC_RUNNING = -7,    // hc_enable: enabled already
    HC_LOOK_AGAIN = -8, // hc_enqueue_compared: a rule was released meanwhile, or the ring switched
};

struct history_capture_t; // history_state.h

// The addresses of a packet.
struct hc_ends_t {
    ip_addr_t src;
    ip_addr_t dst;
};

struct hc_info_t {
    uint32_t packets;   // records in the ring
    uint64_t size;      // ring size, bytes
    uint64_t free;      // bytes between last and first
    uint32_t time_span; // whole seconds from the oldest record to the latest packet
    uint32_t rules;     // rules waiting for their run
};

// A new history capture with a ring of `size` bytes, as configured; 0: created disabled. Null after logging
// why. Released with hc_destroy.
history_capture_t *hc_init(uint64_t size);

// Disable and release. Null is accepted. Waits for a run in progress.
void hc_destroy(history_capture_t *hc);

// Allocate a ring of `size` bytes (0: HC_DEFAULT_SIZE), within what is available (ring_memory.h), and start
// the search thread. HC_OK, HC_RUNNING or HC_NO_MEMORY.
[[nodiscard]] int32_t hc_enable(history_capture_t *hc, uint64_t size);

// Stop the search thread and drop the ring; waiting rules are listed as finished. Does nothing when disabled.
// Waits for a run in progress, whose rules finish with all their records; packets are not delayed meanwhile.
void hc_disable(history_capture_t *hc);

// Append one packet (`length` bytes at `data`, cut to HC_MAX_DATA; timestamp in nanoseconds since the epoch),
// evicting the oldest records to make room. On the queue's packet thread only. HC_OK, HC_DISABLED or
// HC_TOO_LARGE. May wait until the search thread has examined the record being evicted.
int32_t hc_enqueue(history_capture_t *hc, const ip_addr_t *src, const ip_addr_t *dst, const uint8_t *data,
                   uint32_t length, uint64_t timestamp);

// Whether packets are stored at the moment.
[[nodiscard]] bool hc_is_enabled(const history_capture_t *hc);

// hc_enqueue for a packet that was looked up in the live capture after hc_offers returned `offers` and
// hc_may_store agreed. HC_LOOK_AGAIN, checked first, when it has risen since: nothing is stored, and the
// caller looks the packet up again after a new hc_offers. Else HC_OK or HC_TOO_LARGE.
[[nodiscard]] int32_t hc_enqueue_compared(history_capture_t *hc, const hc_ends_t *ends, const uint8_t *data,
                                          uint32_t length, uint64_t timestamp, uint64_t offers);

// State of the ring; all zero while disabled. While packets arrive, `free` is accurate to what they take
// meanwhile and time_span is up to HC_OLDEST_AGE_MS old: asking does not delay the packet thread.
void hc_info(history_capture_t *hc, hc_info_t *out);

// Create the file `path` and take the address into the next run: hc_hold_rule and hc_release_rule
// in one. HC_OK, HC_DISABLED, HC_NOT_OPENED or HC_NOT_ADDED; a file that a failing call created
// stays. Without memory nothing is created.
[[nodiscard]] int32_t hc_add_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction,
                                  const char *path);

// hc_add_rule, with the rule held: until its release, every evicted record of the address is written to the
// file, and no run begins. The same results; after HC_OK the caller owes one hc_release_rule, soon.
[[nodiscard]] int32_t hc_hold_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction,
                                   const char *path);

// Release the held rule of this address: it takes what is in the ring now, and the next run takes
// the rule. The caller has added the live capture of the address, if it gets one. A rule that
// hc_disable has finished since stays finished.
void hc_release_rule(history_capture_t *hc, const ip_addr_t *ip);

// Records matched so far for a rule that waits or is searched; HC_DISABLED or HC_UNKNOWN.
[[nodiscard]] int32_t hc_searched_packets(history_capture_t *hc, const ip_addr_t *ip);

// Progress of a rule as in common/progress.h: 0 waiting, rising during its run, 100 finished, -2 unknown.
// With the remove flag a finished rule is forgotten.
[[nodiscard]] uint64_t hc_search_progress(history_capture_t *hc, const ip_addr_t *ip, uint8_t remove);
