#include "live_capture/live_capture.h"

#include "common/log.h"
#include "common/progress.h"
#include "common/thread.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int64_t PERCENT_HERE = 99; // the most that a capture still in the table reports

bool is_running(const lc_item_t &item, time_t now)
{
    return item.packets < item.packet_limit && now < item.end_time && item.error == 0;
}

void log_closing(const ip_addr_text_t &addr, const lc_item_t &item, time_t now)
{
    if (!log_to_stdout(LOG_EVENT)) {
        return;
    }
    KS_INFO(LOG_EVENT,
            "kestrune: Live capture: Live capture of ip %s has reached the limit. Packets: %u , Time: %f s",
            addr.text, item.packets, difftime(now, item.start_time));
    if (item.error != 0) {
        KS_INFO(LOG_EVENT, "kestrune: Live capture: Closing file because of errno state");
    }
}

// Percent of a capture that stays: the larger of its packet and time shares.
int8_t measure(const lc_item_t &item, time_t now)
{
    const int64_t seconds = item.end_time - item.start_time;
    if (item.packet_limit == 0 || seconds == 0) {
        return PERCENT_HERE;
    }
    const int64_t packet_share = int64_t{item.packets} * 100 / item.packet_limit;
    const int64_t time_share = (now - item.start_time) * 100 / seconds;
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

void log_removal(const ip_addr_text_t &addr)
{
    if (log_to_host(LOG_DEBUG)) {
        verbose_msg(LOG_DEBUG, 1, "kestrune: Live capture: Removing rule for ip %s", addr.text);
    } else if (log_to_stdout(LOG_DEBUG)) {
        std::printf("Live capture: Removing rule for ip %s\n", addr.text);
        std::fflush(stdout);
    }
}

} // namespace

uint64_t lc_progress(live_capture_t *live, const ip_addr_t *addr, uint32_t close_flag)
{
    const int cancel_state = thread_cancel_suspend();
    const uint64_t value = progress(live, addr, (close_flag & 1) != 0);
    thread_cancel_restore(cancel_state);
    return value;
}

int lc_addr_info(live_capture_t *live, const ip_addr_t *addr, lc_addr_info_t *info)
{
    fhf_lock_t *row;
    const lc_item_t *item = lc_find_locked(live, addr, &row);
    if (item == nullptr) {
        return LC_UNKNOWN;
    }
    *info = {item->packets, item->packet_limit, item->end_time, item->start_time};
    fhf_unlock(row);
    return LC_OK;
}

void lc_clean_table(fhf_table_t *table)
{
    if (table == nullptr) {
        return;
    }
    fhf_iter_t *iter = fhf_init_iter(table);
    if (iter == nullptr) {
        return;
    }
    const int cancel_state = thread_cancel_suspend();
    while (fhf_get_next(iter) == FHF_OK) {
        ip_addr_t addr;
        std::memcpy(addr.bytes, iter->key, sizeof addr.bytes);
        log_removal(ip_addr_text(addr));
        close(reinterpret_cast<lc_item_t *>(iter->data)->fd);
        fhf_remove_iter(iter);
    }
    fhf_destroy_iter(iter);
    thread_cancel_restore(cancel_state);
}

void lc_clean(live_capture_t *live)
{
    if (live != nullptr) {
        lc_clean_table(live->ip_table);
    }
}

void lc_destroy(live_capture_t *live)
{
    if (live == nullptr) {
        return;
    }
    lc_clean(live);
    if (live->ip_table != nullptr) {
        fhf_destroy(live->ip_table);
    }
    std::free(live);
}
