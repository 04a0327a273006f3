// The rules of one queue: adding them, reporting their progress, finishing them.

#include "history_capture/history_rules.h"

#include "common/log.h"
#include "common/progress.h"
#include "history_capture/gate.h"
#include "storage/capture_file.h"
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

// Forget what an earlier rule of this address left behind, so that its count is not
// reported for the new rule.
void forget_finished(history_capture_t *hc, const ip_addr_t &ip)
{
    mutex_lock(&hc->deleted_rules_lock);
    while (hc_deleted_rule_t *item = take_finished(hc, ip)) {
        std::free(item);
    }
    mutex_unlock(&hc->deleted_rules_lock);
}

// Create the rule's file with its header. The descriptor, or hc_add_rule's result code after logging why.
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

// Put the rule into the waiting table, held. False when the table refuses.
bool insert_held(history_capture_t *hc, const ip_addr_t *ip, const hc_rule_t &rule)
    KS_REQUIRES_SHARED(hc->state_lock)
{
    gate_close(hc);
    const bool inserted = fhf_insert(hc->slow_search_table, ip, &rule) == FHF_OK;
    if (inserted) {
        hc->held_rules++;
        hc->last_rule_time.store(HC_HELD, std::memory_order_relaxed);
        hc->new_rules.store(hc->new_rules.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    gate_open(hc);
    return inserted;
}

// Date the held rule of this address. False when there is none.
bool date_held(history_capture_t *hc, const ip_addr_t *ip, int64_t now) KS_REQUIRES_SHARED(hc->state_lock)
    KS_REQUIRES(hc->position_lock)
{
    fhf_lock_t *row = nullptr;
    auto *rule = static_cast<hc_rule_t *>(fhf_get_data_locked(hc->slow_search_table, ip, &row));
    if (rule == nullptr) {
        return false;
    }
    const bool held = rule->time == HC_HELD;
    if (held) {
        rule->time = now;
    }
    fhf_unlock(row);
    return held;
}

// With the gate closed: release the rule in an enabled ring. True when the search thread must be woken.
bool release_held(history_capture_t *hc, const ip_addr_t *ip) KS_REQUIRES_SHARED(hc->state_lock)
    KS_REQUIRES(hc->position_lock)
{
    const int64_t now = hc->last_packet_time.load(std::memory_order_relaxed);
    if (!date_held(hc, ip, now) || --hc->held_rules > 0) {
        return false; // the last release posts for all
    }
    hc->last_rule_time.store(now, std::memory_order_relaxed);
    const bool post = !hc->run_posted;
    hc->run_posted = true;
    return post;
}

// The part of the ring that the run has examined, in percent.
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

// Progress of a rule in one table; false when it is not in the table.
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

// List the rule as finished, unless its end was already reported and collected.
void list_finished(history_capture_t *hc, const hc_rule_t *rule) KS_REQUIRES(hc->deleted_rules_lock)
{
    hc_deleted_rule_t *item = rule->finished;
    if (rule->collected != 0) {
        std::free(item);
        return;
    }
    item->packets = rule->packets;
    item->next = hc->deleted_rules;
    hc->deleted_rules = item;
}

// hc_hold_rule on an enabled ring. `finished` stays the caller's unless the result is HC_OK.
int32_t hold_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction, const char *path,
                  hc_deleted_rule_t *finished) KS_REQUIRES_SHARED(hc->state_lock)
{
    const int32_t fd = create_rule_file(path);
    if (fd < 0) {
        return fd;
    }
    forget_finished(hc, *ip);
    if (!insert_held(hc, ip, {0, HC_HELD, fd, direction, 0, 0, PCAP_HEADER_SIZE, finished})) {
        KS_ERROR("kestrune: History_capture: Not possible to add rule for filtering IPs.");
        close(fd);
        return HC_NOT_ADDED;
    }
    return HC_OK;
}

} // namespace

int32_t hc_add_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction, const char *path)
{
    const int32_t result = hc_hold_rule(hc, ip, direction, path);
    if (result == HC_OK) {
        hc_release_rule(hc, ip);
    }
    return result;
}

int32_t hc_hold_rule(history_capture_t *hc, const ip_addr_t *ip, uint8_t direction, const char *path)
{
    rwlock_read(&hc->state_lock);
    if (hc->enabled.load(std::memory_order_relaxed) == 0) {
        KS_INFO(LOG_EVENT,
                "kestrune: History_capture: Rule was not added because the kestrune is turned off");
        rwlock_read_unlock(&hc->state_lock);
        return HC_DISABLED;
    }
    int32_t result = HC_NOT_ADDED;
    auto *finished = static_cast<hc_deleted_rule_t *>(std::calloc(1, sizeof(hc_deleted_rule_t)));
    if (finished == nullptr) {
        KS_ERROR("kestrune: History buffer: Allocation error - creating item for deleted rule");
    } else {
        finished->ip = *ip;
        result = hold_rule(hc, ip, direction, path, finished);
    }
    rwlock_read_unlock(&hc->state_lock);
    if (result != HC_OK) {
        std::free(finished);
    }
    return result;
}

void hc_release_rule(history_capture_t *hc, const ip_addr_t *ip)
{
    rwlock_read(&hc->state_lock);
    gate_close(hc);
    hc_raise_offers(hc, 2);
    const bool post = hc->enabled.load(std::memory_order_relaxed) != 0 && release_held(hc, ip);
    gate_open(hc);
    if (post) {
        sem_post(&hc->search_semaphore);
    }
    rwlock_read_unlock(&hc->state_lock);
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
    // finished list, never back, and is listed before it leaves the table, so looking in this order finds it.
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
    fhf_iter_t walk = fhf_begin(table);
    mutex_lock(&hc->deleted_rules_lock);
    while (fhf_get_next(&walk) == FHF_OK) {
        const auto *rule = reinterpret_cast<const hc_rule_t *>(walk.data);
        close(rule->fd);
        list_finished(hc, rule);
        fhf_remove_iter(&walk);
    }
    mutex_unlock(&hc->deleted_rules_lock);
    fhf_clear(table);
}
