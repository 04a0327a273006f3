// The rules of one queue: taking them in, telling how far they are, finishing them.

#include "history_capture/history_capture.h"

#include "common/descriptor.h"
#include "common/log.h"
#include "common/progress.h"
#include "storage/pcap_writer.h"

#include <cstdlib>
#include <unistd.h>

namespace {

// Unlink the first finished rule of this address. The caller owns it; null when there is none.
hc_deleted_rule_t *take_finished(history_capture_t *hc, const ip_addr_t &ip)
    KS_REQUIRES(hc->deleted_rules_lock)
{
    for (hc_deleted_rule_t **link = &hc->deleted_rules; *link != nullptr; link = &(*link)->next) {
        if ((*link)->ip == ip) {
            hc_deleted_rule_t *item = *link;
            *link = item->next;
            return item;
        }
    }
    return nullptr;
}

// Forget what an earlier rule of this address left behind, so that nobody is told its count for the new
// one's.
void forget_finished(history_capture_t *hc, const ip_addr_t &ip)
{
    mutex_lock(&hc->deleted_rules_lock);
    while (hc_deleted_rule_t *item = take_finished(hc, ip)) {
        std::free(item);
    }
    mutex_unlock(&hc->deleted_rules_lock);
}

// Create the rule's file with its header. The descriptor, or the result code of hc_add_rule after logging
// why.
int32_t create_rule_file(const char *path)
{
    const int fd = create_capture_file(path);
    if (fd < 0) {
        KS_ERROR("kestrune: History_capture: Opening pcap file failed.");
        return HC_NOT_OPENED;
    }
    if (write_pcap_header(fd) != 0) {
        KS_ERROR("kestrune: History_capture: Not possible to write into pcap file (header).");
        close(fd);
        return HC_NOT_ADDED;
    }
    return fd;
}

// Put the rule into the waiting table. The number of rules that wait now; 0 when the table refuses.
uint32_t insert_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction, int fd)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    uint32_t waiting = 0;
    spin_lock(&hc->position_lock);
    const int64_t now = hc->last_packet_time.load(std::memory_order_relaxed);
    const hc_rule_t rule = {0, now, fd, direction, 0, 0, PCAP_HEADER_SIZE};
    if (fhf_insert(hc->slow_search_table, ip, &rule) == FHF_OK) {
        waiting = hc->new_rules.load(std::memory_order_relaxed) + 1;
        hc->last_rule_time.store(now, std::memory_order_relaxed);
        hc->new_rules.store(waiting, std::memory_order_release); // hc_delete_first looks at this one first
    }
    spin_unlock(&hc->position_lock);
    return waiting;
}

// Share of the ring that the run has behind it, in percent.
int8_t run_percent(const history_capture_t *hc) KS_REQUIRES_SHARED(hc->state_lock)
{
    const uint64_t position = hc->search_position.load(std::memory_order_acquire);
    const uint64_t end = hc->search_end;
    uint64_t remaining = position <= end ? end - position : end + hc->size - position;
    if (position == hc_canonical(hc, end)) { // at the end, or at the beginning of a full ring
        remaining = hc->search_pending.load(std::memory_order_acquire) != 0 ? hc->size : 0;
    }
    return static_cast<int8_t>((hc->size - remaining) * 100 / hc->size);
}

// Progress of a rule in one table; false when it is not there.
bool table_progress(fhf_table_t *table, const ip_addr_t *ip, int8_t percent, uint8_t remove,
                    uint64_t *progress)
{
    fhf_lock_t *row = nullptr;
    auto *rule = static_cast<hc_rule_t *>(fhf_get_data_locked(table, ip, &row));
    if (rule == nullptr) {
        return false;
    }
    if (percent == PROGRESS_DONE && remove != 0) {
        rule->collected = 1;
    }
    *progress = progress_value(percent, rule->packets);
    fhf_unlock(row);
    return true;
}

uint64_t finished_progress(history_capture_t *hc, const ip_addr_t *ip, uint8_t remove)
{
    uint64_t progress = progress_value(PROGRESS_UNKNOWN, 0);
    mutex_lock(&hc->deleted_rules_lock);
    hc_deleted_rule_t *item = take_finished(hc, *ip);
    if (item != nullptr) {
        progress = progress_value(PROGRESS_DONE, item->packets);
        if (remove != 0) {
            std::free(item);
        } else {
            item->next = hc->deleted_rules;
            hc->deleted_rules = item;
        }
    }
    mutex_unlock(&hc->deleted_rules_lock);
    return progress;
}

// List the rule as finished, unless whoever asks for it was told so already.
void list_finished(history_capture_t *hc, const uint8_t *key, const hc_rule_t *rule)
    KS_REQUIRES(hc->deleted_rules_lock)
{
    if (rule->collected != 0) {
        return;
    }
    auto *item = static_cast<hc_deleted_rule_t *>(std::calloc(1, sizeof(hc_deleted_rule_t)));
    if (item == nullptr) {
        KS_ERROR("kestrune: History buffer: Allocation error - creating item for deleted rule");
        return;
    }
    std::memcpy(item->ip.bytes, key, sizeof item->ip.bytes);
    item->packets = rule->packets;
    item->next = hc->deleted_rules;
    hc->deleted_rules = item;
}

} // namespace

int32_t hc_add_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction, const char *path)
{
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(std::memory_order_relaxed) == 0) {
        KS_INFO(LOG_EVENT,
                "kestrune: History_capture: Rule was not added because the kestrune is turned off");
        rwlock_read_unlock(&hc->state_lock);
        return HC_DISABLED;
    }
    const int32_t fd = create_rule_file(path);
    if (fd < 0) {
        rwlock_read_unlock(&hc->state_lock);
        return fd;
    }
    forget_finished(hc, *ip);
    const uint32_t waiting = insert_rule(hc, ip, direction, fd);
    if (waiting == 0) {
        KS_ERROR("kestrune: History_capture: Not possible to add rule for filtering IPs.");
        rwlock_read_unlock(&hc->state_lock);
        close(fd);
        return HC_NOT_ADDED;
    }
    if (waiting == 1) {
        sem_post(&hc->search_semaphore); // rules that come before the run join it without a post of their own
    }
    rwlock_read_unlock(&hc->state_lock);
    return HC_OK;
}

int32_t hc_searched_packets(history_capture_t *hc, const ip_addr_t *ip)
{
    uint64_t progress = 0;
    int32_t result = HC_DISABLED;
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(std::memory_order_relaxed) != 0) {
        const bool found = table_progress(hc->slow_search_table, ip, 0, 0, &progress) ||
                           table_progress(hc->fast_search_table, ip, 0, 0, &progress);
        result = found ? static_cast<int32_t>(progress_packets(progress)) : HC_UNKNOWN;
    }
    rwlock_read_unlock(&hc->state_lock);
    return result;
}

uint64_t hc_search_progress(history_capture_t *hc, const ip_addr_t *ip, uint8_t remove)
{
    uint64_t progress = 0;
    rwlock_read(&hc->state_lock);
    // While the ring is being disabled its rules are still in their tables. A rule moves from a table to the
    // finished list, never back, and is listed before it leaves the table: looking in this order finds it.
    const bool searchable = hc->enabled.load(std::memory_order_relaxed) != 0 || hc->stopping;
    const bool found =
        searchable && (table_progress(hc->slow_search_table, ip, 0, 0, &progress) ||
                       table_progress(hc->fast_search_table, ip, run_percent(hc), remove, &progress));
    if (!found) {
        progress = finished_progress(hc, ip, remove);
    }
    rwlock_read_unlock(&hc->state_lock);
    return progress;
}

void hc_clean_rules_from_fht(history_capture_t *hc, fhf_table_t *table)
{
    if (table == nullptr) {
        return;
    }
    fhf_iter_t spare = {table, FHF_BEFORE_FIRST, static_cast<int32_t>(FHF_BEFORE_FIRST), nullptr, nullptr};
    fhf_iter_t *iter = fhf_init_iter(table);
    if (iter == nullptr) {
        KS_ERROR("kestrune: History buffer: Allocation error - cleaning rules from hash table");
    }
    fhf_iter_t *walk = iter != nullptr ? iter : &spare; // the files must be closed all the same
    mutex_lock(&hc->deleted_rules_lock);
    while (fhf_get_next(walk) == FHF_OK) {
        const auto *rule = reinterpret_cast<const hc_rule_t *>(walk->data);
        close(rule->fd);
        list_finished(hc, walk->key, rule);
        fhf_remove_iter(walk);
    }
    if (iter != nullptr) {
        fhf_destroy_iter(iter);
    }
    mutex_unlock(&hc->deleted_rules_lock);
    fhf_clear(table);
}
