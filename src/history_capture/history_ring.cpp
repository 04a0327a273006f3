// The ring on the packet path: appending, dropping the oldest record, the counters.

#include "history_capture/history_ring.h"

#include "common/clock.h"
#include "common/log.h"
#include "common/thread.h"
#include "history_capture/gate.h"
#include "history_capture/history_filter.h"
#include "history_capture/packet_path.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr auto RELAXED = std::memory_order_relaxed;
constexpr auto ACQUIRE = std::memory_order_acquire;

// How often the packet thread checks again before it sleeps: an examination without a write takes less time.
constexpr int WAIT_SPINS = 2000;

// Whether the current run will examine the record at p next. Acquires the run's earlier work. The position is
// read sequentially consistent, so that a sleeper that has set writer_waiting misses no step.
bool run_needs(const history_capture_t *hc, uint64_t p)
{
    return hc->searching.load(ACQUIRE) != 0 && hc->search_pending.load(ACQUIRE) != 0 &&
           hc->search_position.load(std::memory_order_seq_cst) == p;
}

// Sleep until the run has moved past p. The packet thread is outside the gate meanwhile; the caller's read
// lock keeps the ring unchanged.
void sleep_until_moved(history_capture_t *hc, uint64_t p)
{
    mutex_lock(&hc->buffer_lock);
    hc->writer_waiting.store(1, std::memory_order_seq_cst);
    while (run_needs(hc, p)) {
        KS_INFO(LOG_DETAIL, "kestrune: History_capture is waiting till the search thread will move");
        pthread_cond_wait(&hc->search_moved, &hc->buffer_lock.native);
    }
    hc->writer_waiting.store(0, RELAXED);
    mutex_unlock(&hc->buffer_lock);
}

// Inside the gate: wait while the run needs the record at p. Not inlined, to keep it out of the ordinary path
// of a packet. While this thread sleeps, a read lock replaces the gate. When the lock is not available, a
// writer is about to finish, and the run has not begun its walk or is over.
[[gnu::noinline]] void wait_outside(history_capture_t *hc, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock) KS_NO_ANALYSIS // gate and lock are exchanged
{
    int spins = 0;
    const int cancel_state = thread_cancel_suspend(); // a host thread must not be cancelled in here
    while (run_needs(hc, p)) {
        if (!rwlock_try_read(&hc->state_lock)) {
            spin_pause(&spins);
            continue;
        }
        gate_leave(hc);
        sleep_until_moved(hc, p);
        gate_enter(hc);
        rwlock_read_unlock(&hc->state_lock);
    }
    thread_cancel_restore(cancel_state);
}

void wait_until_examined(history_capture_t *hc, uint64_t p) KS_REQUIRES_SHARED(hc->state_lock)
{
    for (int spin = 0; run_needs(hc, p); spin++) {
        if (spin == WAIT_SPINS) {
            wait_outside(hc, p);
            return;
        }
        cpu_pause();
    }
}

// Whether a record of r bytes, placed behind the last one, would run into the oldest one. Raw positions:
// `first` in the unused bytes before the end blocks a record that takes these bytes.
bool lacks_room(const history_capture_t *hc, uint64_t r) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t first = hc->first.load(RELAXED);
    const uint64_t last = hc->last.load(RELAXED);
    if (hc_canonical(hc, first) == last) {
        return true; // full: the ring holds a record
    }
    if (last + r < hc->size) {
        return last + r > first && last <= first;
    }
    const uint64_t taken_at_start = last + HC_RECORD_HEADER > hc->size ? r : last + r - hc->size;
    return first < taken_at_start || first >= last;
}

// A packet on its way into the ring.
struct hc_packet_t {
    const hc_ends_t *ends;
    const uint8_t *data;
    uint16_t length; // bytes of data that are stored
    uint64_t timestamp;
    int64_t time;
};

// Write the record behind the last one, where there is room. The header's fields go straight into the ring:
// copying a separate header in wide pieces would stall on its own narrow stores.
void place_record(history_capture_t *hc, const hc_packet_t &packet) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t at = hc_canonical(hc, hc->last.load(RELAXED));
    auto *header = reinterpret_cast<hc_record_header_t *>(hc->buffer + at);
    header->timestamp = packet.timestamp;
    header->time = packet.time;
    header->length = packet.length;
    header->testing_value = HC_TESTING_VALUE;
    header->src_ip = packet.ends->src;
    header->dst_ip = packet.ends->dst;

    uint8_t *data = hc->buffer + at + HC_RECORD_HEADER;
    const uint64_t before_end = hc->size - at - HC_RECORD_HEADER;
    uint64_t last = at + HC_RECORD_HEADER + packet.length;
    if (packet.length < before_end) {
        std::memcpy(data, packet.data, packet.length);
    } else {
        last = packet.length - before_end;
        std::memcpy(data, packet.data, before_end);
        std::memcpy(hc->buffer, packet.data + before_end, last);
    }
    hc->last.store(last, std::memory_order_release); // after `first`, see free_bytes
    hc->packets.store(hc->packets.load(RELAXED) + 1, RELAXED);
}

// Free bytes between last and first. They move meanwhile. The packet thread moves `first` ahead of `last`, so
// `first` is read after it and is never mistaken for one that lies behind.
uint64_t free_bytes(const history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
{
    if (hc->packets.load(RELAXED) == 0) {
        return hc->size;
    }
    const uint64_t last = hc->last.load(ACQUIRE);
    const uint64_t first = hc->first.load(RELAXED);
    if (hc_canonical(hc, first) == last) {
        return 0;
    }
    return first > last ? first - last : first + hc->size - last;
}

int64_t monotonic_ms()
{
    return static_cast<int64_t>(monotonic_now_ns() / NS_PER_MS);
}

// When the oldest record was stored, read at most HC_OLDEST_AGE_MS ago: each reading closes the gate.
int64_t oldest_time(history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
{
    const int64_t now_ms = monotonic_ms();
    int64_t looked_ms = hc->oldest_looked_ms.load(ACQUIRE);
    if ((looked_ms == 0 || now_ms - looked_ms >= HC_OLDEST_AGE_MS) &&
        hc->oldest_looked_ms.compare_exchange_strong(looked_ms, now_ms)) {
        gate_close(hc);
        const uint64_t p = hc_canonical(hc, hc->first.load(RELAXED));
        const bool holds_one = hc->packets.load(RELAXED) != 0;
        hc->oldest_time.store(holds_one ? hc_record_at(hc, p)->time : hc->last_packet_time.load(RELAXED));
        gate_open(hc);
    }
    return hc->oldest_time.load();
}

// Whether the slow search concerns this record. Usually it does not, and one look at each address's row shows
// it. While many rules arrive, every packet pays for this.
inline bool may_match(const fhf_table_t *rules, const hc_record_header_t *header)
{
    const ip_addr_t ends[2] = {header->src_ip, header->dst_ip};
    const bool src_may = fhf_may_hold(rules, fhf_place_of_16(rules, &ends[0]));
    const bool dst_may = fhf_may_hold(rules, fhf_place_of_16(rules, &ends[1]));
    return (src_may | dst_may) || header->testing_value != HC_TESTING_VALUE;
}

} // namespace

int32_t hc_enqueue(history_capture_t *hc, const ip_addr_t *src, const ip_addr_t *dst, const uint8_t *data,
                   uint32_t length, uint64_t timestamp)
{
    const hc_ends_t ends = {*src, *dst};
    for (;;) { // again at once: there is nothing to look at
        const uint64_t offers = hc_offers(hc);
        const int32_t result = hc_may_store(offers)
                                   ? hc_enqueue_compared(hc, &ends, data, length, timestamp, offers)
                                   : HC_DISABLED;
        if (result != HC_LOOK_AGAIN) {
            return result;
        }
    }
}

int32_t hc_enqueue_compared(history_capture_t *hc, const hc_ends_t *ends, const uint8_t *data,
                            uint32_t length, uint64_t timestamp, uint64_t offers)
{
    const uint32_t stored = std::min(length, HC_MAX_DATA);
    const uint64_t r = uint64_t{HC_RECORD_HEADER} + stored;
    int32_t result = HC_OK;
    gate_enter(hc);
    if (hc->offers.load(RELAXED) != offers) {
        result = HC_LOOK_AGAIN; // even for a packet that would not be stored: a live capture may want it
    } else if (r > hc->size) {
        result = HC_TOO_LARGE;
    } else {
        const int64_t now = time(nullptr);
        hc->last_packet_time.store(now, RELAXED); // before room is made: a rule may be released meanwhile
        while (hc->packets.load(RELAXED) != 0 && lacks_room(hc, r)) {
            hc_delete_first(hc);
        }
        place_record(hc, {ends, data, static_cast<uint16_t>(stored), timestamp, now});
    }
    gate_leave(hc);
    return result;
}

void hc_delete_first(history_capture_t *hc)
{
    const uint64_t p = hc_canonical(hc, hc->first.load(RELAXED));
    const hc_record_header_t *header = hc_record_at(hc, p);
    if (header->testing_value != HC_TESTING_VALUE) {
        KS_ERROR("kestrune: History_capture: delete first function - Testing value not correct");
    }
    wait_until_examined(hc, p);
    // Rules come and are released with the gate closed, so table, count and time change together.
    if (hc->new_rules.load(ACQUIRE) != 0 && hc->last_rule_time.load(RELAXED) >= header->time &&
        may_match(hc->slow_search_table, header)) {
        hc_filter_ip(hc, hc->slow_search_table, p);
    }
    const uint64_t end = p + HC_RECORD_HEADER + header->length;
    const uint32_t packets = hc->packets.load(RELAXED) - 1;
    hc->packets.store(packets, RELAXED);
    if (packets == 0) { // as right after enabling
        hc->first.store(hc->size, RELAXED);
        hc->last.store(0, RELAXED);
    } else {
        hc->first.store(end < hc->size ? end : end % hc->size, RELAXED);
    }
}

void hc_info(history_capture_t *hc, hc_info_t *out)
{
    *out = {};
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(RELAXED) != 0) {
        out->size = hc->size;
        out->rules = hc->new_rules.load(RELAXED);
        out->packets = hc->packets.load(RELAXED);
        out->free = free_bytes(hc);
        if (out->packets != 0) { // the clock may have been set back since the oldest one came
            const int64_t span = hc->last_packet_time.load(RELAXED) - oldest_time(hc);
            out->time_span = static_cast<uint32_t>(std::clamp<int64_t>(span, 0, UINT32_MAX));
        }
    }
    rwlock_read_unlock(&hc->state_lock);
}
