#include "live_capture/packet_path.h"

#include "common/log.h"
#include "common/memory.h"
#include "common/thread.h"
#include "storage/capture_file.h"
#include "storage/pcap_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

// Append the packet to the file of an item whose row is held; `now` is from before the
// look-up. 1 when it was written. The host's packet threads may be cancellable, and a thread
// cancelled here would leave the row held.
int write_locked(lc_item_t *item, const lc_packet_t &packet, time_t now)
{
    if (item->error != 0 || item->packets >= item->packet_limit || now > item->end_time) {
        return 0;
    }
    const int cancel_state = thread_cancel_suspend();
    const bool written = write_pcap_packet(item->fd, packet.data, packet.length, packet.timestamp) == 0;
    if (written) {
        item->packets++;
    } else {
        item->error = errno;
    }
    thread_cancel_restore(cancel_state);
    return written ? 1 : 0;
}

// Offer the packet to the item of one of its addresses, if there is an item and it
// matches this side (SRC or DST).
int offer(fhf_table_t *table, const lc_packet_t &packet, uint32_t side)
{
    const time_t now = time(nullptr);
    fhf_lock_t *row;
    auto *item = static_cast<lc_item_t *>(
        fhf_get_placed_locked(table, packet.places[side], packet.ends[side]->bytes, &row));
    if (item == nullptr) {
        return 0;
    }
    const bool matches = item->direction == side || item->direction == BOTH;
    const int written = matches ? write_locked(item, packet, now) : 0;
    fhf_unlock(row);
    return written;
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

live_capture_t *lc_init()
{
    auto *live = static_cast<live_capture_t *>(zeroed_lines(1, sizeof(live_capture_t)));
    if (live == nullptr) {
        KS_ERROR("kestrune: Failed to allocate live capture structure");
        return nullptr;
    }
    live->ip_table = fhf_init(LC_TABLE_ROWS, sizeof(ip_addr_t), sizeof(lc_item_t));
    if (live->ip_table == nullptr) {
        KS_ERROR("kestrune: Failed to allocate live capture structure - ip_table");
        std::free(live);
        return nullptr;
    }
    return live;
}

void lc_clean_table(fhf_table_t *table)
{
    if (table == nullptr) {
        return;
    }
    fhf_iter_t walk = fhf_begin(table);
    const int cancel_state = thread_cancel_suspend();
    while (fhf_get_next(&walk) == FHF_OK) {
        ip_addr_t addr;
        std::memcpy(addr.bytes, walk.key, sizeof addr.bytes);
        log_removal(ip_addr_text(addr));
        close(reinterpret_cast<lc_item_t *>(walk.data)->fd);
        fhf_remove_iter(&walk);
    }
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

int lc_add_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction, uint32_t packet_limit,
                uint32_t time_limit, const char *path)
{
    lc_item_t item = {};
    item.direction = direction;
    item.packet_limit = packet_limit;
    item.start_time = time(nullptr);
    item.end_time = item.start_time + time_limit;
    item.fd = create_capture_file(path);
    if (item.fd < 0) {
        KS_INFO(LOG_EVENT, "kestrune: Live_capture: Rule not added: failed to open file");
        KS_ERROR("kestrune: Live_capture: Open failed: %s", std::strerror(errno));
        return LC_NOT_OPENED;
    }
    if (write_pcap_header(item.fd) != 0) {
        KS_INFO(LOG_EVENT, "kestrune: Live_capture: Rule not added: write to file failed");
        KS_ERROR("kestrune: Live_capture: Write failed: %s", std::strerror(errno));
        close(item.fd);
        return LC_NOT_WRITTEN;
    }
    if (fhf_insert(live->ip_table, addr->bytes, &item) != FHF_OK) {
        close(item.fd);
        KS_INFO(LOG_EVENT, "kestrune: Listener: Rule not added: failed to add rule to the table");
        return LC_NOT_TAKEN;
    }
    return LC_OK;
}

int lc_update_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t direction, uint32_t packets,
                   uint32_t time_limit)
{
    fhf_lock_t *row;
    lc_item_t *item = lc_find_locked(live, addr, &row);
    if (item == nullptr) {
        return LC_UNKNOWN;
    }
    if (item->direction != direction) {
        item->direction = BOTH;
    }
    item->packet_limit =
        static_cast<uint32_t>(std::min<uint64_t>(uint64_t{item->packets} + packets, UINT32_MAX));
    item->end_time = time(nullptr) + time_limit;
    if (difftime(item->end_time, item->start_time) > static_cast<double>(UINT32_MAX)) {
        item->end_time = item->start_time + UINT32_MAX;
    }
    fhf_unlock(row);
    return LC_OK;
}

int lc_change_direction(live_capture_t *live, const ip_addr_t *addr, uint32_t direction)
{
    fhf_lock_t *row;
    lc_item_t *item = lc_find_locked(live, addr, &row);
    if (item == nullptr) {
        return LC_UNKNOWN;
    }
    item->direction = direction;
    fhf_unlock(row);
    return LC_OK;
}

int lc_drop_rule(live_capture_t *live, const ip_addr_t *addr, uint32_t *packets)
{
    const int cancel_state = thread_cancel_suspend();
    fhf_lock_t *row;
    const lc_item_t *item = lc_find_locked(live, addr, &row);
    if (item != nullptr) {
        if (packets != nullptr) {
            *packets = item->packets;
        }
        close(item->fd);
        if (fhf_remove_locked(live->ip_table, addr->bytes, row) != FHF_OK) {
            KS_ERROR("kestrune: Live_capture: Failed removing rule");
        }
    }
    thread_cancel_restore(cancel_state);
    return item != nullptr ? LC_OK : LC_UNKNOWN;
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

int lc_filter_watched(live_capture_t *live, const lc_packet_t &packet)
{
    // Usually one side matched, each equally often; select it branch-free.
    fhf_table_t *table = live->ip_table;
    const auto src_may = static_cast<uint32_t>(fhf_may_hold(table, packet.places[SRC]));
    const auto dst_may = static_cast<uint32_t>(fhf_may_hold(table, packet.places[DST]));
    const int first = offer(table, packet, src_may ^ 1); // SRC when it may be watched, else DST
    return (src_may & dst_may) != 0 ? first | offer(table, packet, DST) : first;
}
