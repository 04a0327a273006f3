#include "live_capture/live_state.h"

#include "common/log.h"
#include "common/progress.h"
#include "common/thread.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int64_t PERCENT_HERE = 99; // highest value for a capture still in the table

bool is_running(const lc_item_t &item, time_t now)
{
    return item.packets < item.packet_limit && now < item.end_time && item.error == 0;
}

// Whole seconds since its start; 0 when the clock has been set back since.
int64_t elapsed(const lc_item_t &item, time_t now)
{
    return std::max<int64_t>(now - item.start_time, 0);
}

void log_closing(const ip_addr_text_t &addr, const lc_item_t &item, time_t now)
{
    if (!log_to_stdout(LOG_EVENT)) {
        return;
    }
    KS_INFO(LOG_EVENT,
            "kestrune: Live capture: Live capture of ip %s has reached the limit. Packets: %u , Time: %f s",
            addr.text, item.packets, static_cast<double>(elapsed(item, now)));
    if (item.error != 0) {
        KS_INFO(LOG_EVENT, "kestrune: Live capture: Closing file because of errno state");
    }
}

// Percent of a running capture: the larger of its packet and time shares.
int8_t measure(const lc_item_t &item, time_t now)
{
    const int64_t seconds = item.end_time - item.start_time;
    if (item.packet_limit == 0 || seconds == 0) {
        return PERCENT_HERE;
    }
    const int64_t packet_share = int64_t{item.packets} * 100 / item.packet_limit;
    const int64_t time_share = elapsed(item, now) * 100 / seconds;
    return static_cast<int8_t>(std::min(std::max(packet_share, time_share), PERCENT_HERE));
}

// lc_progress on a thread that cannot be cancelled.
uint64_t progress(live_capture_t *live, const ip_addr_t *addr, bool closing)
{
    const ip_addr_text_t text = closing ? ip_addr_text(*addr) : ip_addr_text_t{};
    const time_t now = time(nullptr);
    fhf_lock_t *row;
    const lc_item_t *held = lc_find_locked(live, addr, &row);
    if (held == nullptr) {
        return progress_value(PROGRESS_DONE, 0);
    }
    const lc_item_t item = *held;
    if (!closing || is_running(item, now)) {
        fhf_unlock(row);
        return progress_value(measure(item, now), item.packets);
    }
    close(item.fd);
    log_closing(text, item, now);
    if (fhf_remove_locked(live->ip_table, addr->bytes, row) != FHF_OK) {
        KS_ERROR("kestrune: Live_capture: Failed removing rule");
    }
    return progress_value(PROGRESS_DONE, item.packets);
}

} // namespace

uint64_t lc_progress(live_capture_t *live, const ip_addr_t *addr, uint32_t close_flag)
{
    const int cancel_state = thread_cancel_suspend();
    const uint64_t value = progress(live, addr, (close_flag & 1) != 0);
    thread_cancel_restore(cancel_state);
    return value;
}
