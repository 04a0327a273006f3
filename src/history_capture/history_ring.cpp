// The ring on the packet path: appending, dropping the oldest record, the counters.

#include "history_capture/history_capture.h"

#include "common/log.h"
#include "common/thread.h"
#include "history_capture/gate.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr auto RELAXED = std::memory_order_relaxed;
constexpr auto ACQUIRE = std::memory_order_acquire;

// How often the packet thread looks again before it sleeps: an examination without a write takes less.
constexpr int WAIT_SPINS = 2000;

// Whether the run under way is still to examine the record at p next. Acquires what the run did before; the
// position sequentially consistent, so that a sleeper that has set writer_waiting misses no step.
bool run_needs(const history_capture_t *hc, uint64_t p)
{
    return hc->searching.load(ACQUIRE) != 0 && hc->search_pending.load(ACQUIRE) != 0 &&
           hc->search_position.load(std::memory_order_seq_cst) == p;
}

// Sleep until the run has moved past p. The packet thread is outside the gate meanwhile; the caller's read
// lock keeps the ring as it is.
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

// Inside the gate: wait as long as the run needs the record at p. Not inlined: it has no place in the path of
// a packet. A real read lock replaces the gate while this thread sleeps; when it is not to be had, a writer
// is about to leave, and the run has not begun its walk or is over.
[[gnu::noinline]] void wait_outside(history_capture_t *hc, uint64_t p)
    KS_REQUIRES_SHARED(hc->state_lock) KS_NO_ANALYSIS // gate and lock are exchanged
{
    int spins = 0;
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state); // the host's thread: it must not die in here
    while (run_needs(hc, p)) {
        if (!rwlock_try_read(&hc->state_lock)) {
            gate_pause(&spins);
            continue;
        }
        gate_leave(hc);
        sleep_until_moved(hc, p);
        gate_enter(hc);
        rwlock_read_unlock(&hc->state_lock);
    }
    pthread_setcancelstate(state, nullptr);
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
// `first` in the unused bytes before the end lies in the way of a record that takes these bytes.
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
    const ip_addr_t *src;
    const ip_addr_t *dst;
    const uint8_t *data;
    uint16_t length; // bytes of data that are stored
    uint64_t timestamp;
    int64_t time;
};

// Write the record behind the last one, where there is room for it. The header's fields go straight into the
// ring: a header built aside and copied in wide pieces would wait for its own narrow stores.
void place_record(history_capture_t *hc, const hc_packet_t &packet) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t at = hc_canonical(hc, hc->last.load(RELAXED));
    auto *header = reinterpret_cast<hc_record_header_t *>(hc->buffer + at);
    header->timestamp = packet.timestamp;
    header->time = packet.time;
    header->length = packet.length;
    header->testing_value = HC_TESTING_VALUE;
    header->src_ip = *packet.src;
    header->dst_ip = *packet.dst;

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
    hc->last.store(last, RELAXED);
    hc->packets.store(hc->packets.load(RELAXED) + 1, RELAXED);
}

// Free bytes between last and first.
uint64_t free_bytes(const history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
    KS_REQUIRES(hc->position_lock)
{
    if (hc->packets.load(RELAXED) == 0) {
        return hc->size;
    }
    const uint64_t first = hc->first.load(RELAXED);
    const uint64_t last = hc->last.load(RELAXED);
    if (hc_canonical(hc, first) == last) {
        return 0;
    }
    return first > last ? first - last : first + hc->size - last;
}

} // namespace

int32_t hc_enqueue(history_capture_t *hc, const ip_addr_t *src, const ip_addr_t *dst, const uint8_t *data,
                   uint32_t length, uint64_t timestamp)
{
    const uint32_t stored = std::min(length, HC_MAX_DATA);
    const uint64_t r = uint64_t{HC_RECORD_HEADER} + stored;
    int32_t result = HC_OK;
    gate_enter(hc);
    if (hc->enabled.load(RELAXED) == 0) {
        result = HC_DISABLED;
    } else if (r > hc->size) {
        result = HC_TOO_LARGE;
    } else {
        const int64_t now = time(nullptr);
        hc->last_packet_time.store(now, RELAXED);
        while (hc->packets.load(RELAXED) != 0 && lacks_room(hc, r)) {
            hc_delete_first(hc);
        }
        place_record(hc, {src, dst, data, static_cast<uint16_t>(stored), timestamp, now});
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
    // hc_add_rule stores last_rule_time before new_rules, and the rule in the table before both.
    if (hc->new_rules.load(ACQUIRE) != 0 && hc->last_rule_time.load(RELAXED) >= header->time) {
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
        gate_close(hc);
        out->packets = hc->packets.load(RELAXED);
        out->free = free_bytes(hc);
        if (out->packets != 0) {
            const hc_record_header_t *oldest = hc_record_at(hc, hc_canonical(hc, hc->first.load(RELAXED)));
            out->time_span = static_cast<uint32_t>(hc->last_packet_time.load(RELAXED) - oldest->time);
        }
        gate_open(hc);
    }
    rwlock_read_unlock(&hc->state_lock);
}
