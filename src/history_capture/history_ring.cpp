// The ring on the packet path: appending, dropping the oldest record, the counters.

#include "history_capture/history_capture.h"

#include "common/log.h"
#include "common/thread.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr auto RELAXED = std::memory_order_relaxed;
constexpr auto ACQUIRE = std::memory_order_acquire;
constexpr auto RELEASE = std::memory_order_release;

// How often the packet thread looks again before it sleeps: an examination without a write takes less.
constexpr int WAIT_SPINS = 2000;

// Whether the run under way is still to examine the record at p next. Acquires what the run did before.
bool run_needs(const history_capture_t *hc, uint64_t p)
{
    return hc->searching.load(ACQUIRE) != 0 && hc->search_pending.load(ACQUIRE) != 0 &&
           hc->search_position.load(ACQUIRE) == p;
}

// Sleep until the run has moved past p. Not inlined: it has no place in the path of a packet.
[[gnu::noinline]] void sleep_until_moved(history_capture_t *hc, uint64_t p)
{
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state); // the host's thread: it must not die in here
    mutex_lock(&hc->buffer_lock);
    hc->writer_waiting.store(1, std::memory_order_seq_cst);
    while (run_needs(hc, p)) {
        KS_INFO(LOG_DETAIL, "kestrune: History_capture is waiting till the search thread will move");
        pthread_cond_wait(&hc->search_moved, &hc->buffer_lock.native);
    }
    hc->writer_waiting.store(0, RELAXED);
    mutex_unlock(&hc->buffer_lock);
    pthread_setcancelstate(state, nullptr);
}

void wait_until_examined(history_capture_t *hc, uint64_t p)
{
    for (int spin = 0; run_needs(hc, p); spin++) {
        if (spin == WAIT_SPINS) {
            sleep_until_moved(hc, p);
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
    if (last + r < hc->size) {
        return last + r > first && last <= first;
    }
    const uint64_t taken_at_start = last + HC_RECORD_HEADER > hc->size ? r : last + r - hc->size;
    return first < taken_at_start || first >= last;
}

// Where the record is written, and the new `last`.
uint64_t place_record(history_capture_t *hc, const hc_record_header_t *header, const uint8_t *data)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t length = header->length;
    const uint64_t at = hc_canonical(hc, hc->last.load(RELAXED));
    std::memcpy(hc->buffer + at, header, HC_RECORD_HEADER);
    const uint64_t before_end = hc->size - at - HC_RECORD_HEADER;
    if (length < before_end) {
        std::memcpy(hc->buffer + at + HC_RECORD_HEADER, data, length);
        return at + HC_RECORD_HEADER + length;
    }
    std::memcpy(hc->buffer + at + HC_RECORD_HEADER, data, before_end);
    std::memcpy(hc->buffer, data + before_end, length - before_end);
    return length - before_end;
}

// Free bytes between last and first, seen by a thread that pins `first`.
uint64_t free_bytes(const history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
    KS_REQUIRES(hc->position_lock)
{
    if (hc->packets.load(ACQUIRE) == 0) {
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
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(RELAXED) == 0) {
        rwlock_read_unlock(&hc->state_lock);
        return HC_DISABLED;
    }
    const uint32_t stored = std::min(length, HC_MAX_DATA);
    const uint64_t r = uint64_t{HC_RECORD_HEADER} + stored;
    if (r > hc->size) {
        rwlock_read_unlock(&hc->state_lock);
        return HC_TOO_LARGE;
    }
    const int64_t now = time(nullptr);
    const hc_record_header_t header = {
        timestamp, now, static_cast<uint16_t>(stored), HC_TESTING_VALUE, *src, *dst,
    };
    hc->last_packet_time.store(now, RELAXED);
    while (hc->packets.load(RELAXED) != 0 && lacks_room(hc, r)) {
        hc_delete_first(hc);
    }
    hc->last.store(place_record(hc, &header, data), RELAXED);
    hc->packets.store(hc->packets.load(RELAXED) + 1, RELEASE);
    rwlock_read_unlock(&hc->state_lock);
    return HC_OK;
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
    spin_lock(&hc->position_lock);
    const uint32_t packets = hc->packets.load(RELAXED) - 1;
    hc->packets.store(packets, RELAXED);
    if (packets == 0) { // as right after enabling
        hc->first.store(hc->size, RELAXED);
        hc->last.store(0, RELAXED);
    } else {
        hc->first.store(end < hc->size ? end : end % hc->size, RELAXED);
    }
    spin_unlock(&hc->position_lock);
}

void hc_info(history_capture_t *hc, hc_info_t *out)
{
    *out = {};
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(RELAXED) != 0) {
        out->size = hc->size;
        out->rules = hc->new_rules.load(RELAXED);
        spin_lock(&hc->position_lock); // the oldest record stays where it is meanwhile
        out->packets = hc->packets.load(ACQUIRE);
        out->free = free_bytes(hc);
        if (out->packets != 0) {
            const hc_record_header_t *oldest = hc_record_at(hc, hc_canonical(hc, hc->first.load(RELAXED)));
            out->time_span = static_cast<uint32_t>(hc->last_packet_time.load(RELAXED) - oldest->time);
        }
        spin_unlock(&hc->position_lock);
    }
    rwlock_read_unlock(&hc->state_lock);
}
