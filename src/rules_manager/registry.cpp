#include "common/log.h"
#include "common/progress.h"
#include "common/settings.h"
#include "common/thread.h"
#include "rules_manager/rule_files.h"
#include "rules_manager/rules_manager.h"
#include "rules_manager/update_clients.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int32_t FILENAMES_PER_QUEUE = 140; // bytes to begin with

rm_rule_t *find_rule(rules_manager_t *rm, const ip_addr_t *addr) KS_REQUIRES_SHARED(rm->lock)
{
    rm_rule_t *rule = rm->rules;
    while (rule != nullptr && !(rule->addr == *addr)) {
        rule = rule->next;
    }
    return rule;
}

void allocate_filenames(rules_manager_t *rm)
{
    const size_t script = ks_capture_script != nullptr ? std::strlen(ks_capture_script) : 0;
    const int32_t size = static_cast<int32_t>(script) + FILENAMES_PER_QUEUE * rm->queue_count;
    rm->filenames_size = std::max(size, 1);
    rm->filenames = static_cast<char *>(std::calloc(static_cast<size_t>(rm->filenames_size), 1));
    if (rm->filenames == nullptr) {
        KS_ERROR("kestrune: Rules manager: Allocation of filenames buffer failed");
        rm->filenames_size = 0;
    }
}

int32_t update_existing(rules_manager_t *rm, rm_rule_t *rule, uint8_t direction, uint32_t packet_limit,
                        uint32_t time_limit, const char *name, uint32_t name_len) KS_REQUIRES(rm->lock)
{
    if (std::memcmp(rule->name, name, name_len) != 0) {
        return RM_OTHER_NAME;
    }
    if (lc_update_rule(rm->live, &rule->addr, direction, packet_limit, time_limit) != LC_OK) {
        KS_ERROR("kestrune: Rules_manager: Rule was found in rules manager, but it was not found in live "
                 "capture.");
        return RM_NOT_LIVE;
    }
    if (rule->direction != direction) {
        rule->direction = BOTH;
    }
    KS_INFO(LOG_EVENT, "kestrune: Rules_manager: Rule is already in the table. Updating rule limits.");
    return RM_OK;
}

// A rule with its memory and without a capture, or null after logging why.
rm_rule_t *new_rule(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction, const char *name,
                    uint32_t name_len) KS_REQUIRES(rm->lock)
{
    auto *rule = static_cast<rm_rule_t *>(std::calloc(1, sizeof(rm_rule_t)));
    if (rule == nullptr) {
        KS_ERROR("kestrune: Rules_manager: Could not allocate new rule.");
        return nullptr;
    }
    rule->id = rm->next_rule_id++;
    rule->addr = *addr;
    rule->direction = direction;
    std::memcpy(rule->name, name, name_len);
    rule->live_file = rm_name_live_file(name, name_len, rule->id);
    if (rule->live_file == nullptr) {
        rm_release_rule(rule, rm->queue_count);
        return nullptr;
    }
    const size_t entries = std::max<size_t>(rm->queue_count, 1);
    rule->hist_files = static_cast<char **>(std::calloc(entries, sizeof(char *)));
    if (rule->hist_files == nullptr) {
        KS_ERROR("kestrune: Rules_manager: Could not allocate new rule.");
        rm_release_rule(rule, rm->queue_count);
        return nullptr;
    }
    return rule;
}

// Offer the rule, held, to every queue whose ring is on.
void start_searches(rules_manager_t *rm, rm_rule_t *rule) KS_REQUIRES(rm->lock)
{
    const uint32_t queues = std::min(rm->queue_count, RM_MAX_SEARCHED_QUEUES);
    for (uint32_t i = 0; i < queues; i++) {
        if (!hc_is_enabled(rm->history[i])) {
            continue;
        }
        char *path = rm_name_history_file(rule->live_file, i);
        if (path == nullptr) {
            KS_ERROR("kestrune: Rules_manager: Could not allocate new rule to HB. The filename is too long.");
            continue;
        }
        if (hc_hold_rule(rm->history[i], &rule->addr, rule->direction, path) != HC_OK) {
            KS_ERROR("kestrune: Rules_manager: Could not add new rule to HC.");
            std::free(path);
            continue;
        }
        rule->hist_files[i] = path;
        rule->has_history = 1;
    }
    if (rule->has_history == 0) {
        rule->hist_progress = PROGRESS_DONE;
    }
}

// Release the rule in every ring that took it, whether or not it has a live capture: earlier packets are in
// the rings, later ones have met the live capture.
void release_searches(rules_manager_t *rm, const rm_rule_t *rule) KS_REQUIRES(rm->lock)
{
    const uint32_t queues = std::min(rm->queue_count, RM_MAX_SEARCHED_QUEUES);
    for (uint32_t i = 0; i < queues; i++) {
        if (rule->hist_files[i] != nullptr) {
            hc_release_rule(rm->history[i], &rule->addr);
        }
    }
}

void start_live(rules_manager_t *rm, rm_rule_t *rule, uint32_t packet_limit, uint32_t time_limit)
    KS_REQUIRES(rm->lock)
{
    if (packet_limit != 0 && time_limit != 0) {
        if (lc_add_rule(rm->live, &rule->addr, rule->direction, packet_limit, time_limit, rule->live_file) ==
            LC_OK) {
            return;
        }
        KS_ERROR("kestrune: Rules_manager: Could not add new rule to LC.");
    }
    rule->live_file[0] = '\0';
    rule->live_progress = PROGRESS_DONE;
}

int32_t drop_locked(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction) KS_REQUIRES(rm->lock)
{
    static constexpr char not_live[] =
        "kestrune: Rules_manager: DROP, IP address found in rules list, but not in live capture filter.";
    rm_rule_t *rule = find_rule(rm, addr);
    if (rule == nullptr) {
        return RM_UNKNOWN;
    }
    if (rule->live_progress < PROGRESS_DONE) {
        const uint64_t progress = lc_progress(rm->live, addr, 0);
        rule->live_progress = progress_percent(progress);
        rule->live_packets = progress_packets(progress);
    }
    if (direction == BOTH || direction == rule->direction) {
        // Packets may have arrived since; this is the count of the file.
        if (lc_drop_rule(rm->live, addr, &rule->live_packets) != LC_OK) {
            KS_ERROR("%s", not_live);
        }
        rule->live_progress = PROGRESS_DONE;
        return RM_OK;
    }
    if (rule->direction != BOTH) {
        return RM_UNKNOWN;
    }
    rule->direction = direction == SRC ? DST : SRC;
    if (lc_change_direction(rm->live, addr, rule->direction) != LC_OK) {
        KS_ERROR("%s", not_live);
    }
    return RM_OK;
}

int32_t list_locked(rules_manager_t *rm, uint8_t filter, msg_ip_list_item_t **list)
    KS_REQUIRES_SHARED(rm->lock)
{
    if (rm->rule_count == 0) {
        return 0;
    }
    auto *items = static_cast<msg_ip_list_item_t *>(std::calloc(rm->rule_count, sizeof(msg_ip_list_item_t)));
    if (items == nullptr) {
        KS_ERROR("kestrune: Rules_manager: List of IP address could not be created");
        return RM_NO_MEMORY;
    }
    uint32_t count = 0;
    for (const rm_rule_t *rule = rm->rules; rule != nullptr; rule = rule->next) {
        if (filter != msg_target::ALL && filter != rule->direction) {
            continue;
        }
        if (count == rm->rule_count) {
            KS_ERROR(
                "kestrune: Rules_manager: creating the list of item, there are more items than in counter!");
            count = 0;
            break;
        }
        items[count++] = {rule->addr, rule->direction};
    }
    if (count == 0) {
        std::free(items);
        return 0;
    }
    *list = items;
    return static_cast<int32_t>(count);
}

// Whole seconds from one time to another; 0 when the clock was set back between them.
uint32_t seconds_between(time_t from, time_t to)
{
    return static_cast<uint32_t>(std::clamp<int64_t>(to - from, 0, UINT32_MAX));
}

int32_t detail_locked(rules_manager_t *rm, rm_detail_t *reply, const ip_addr_t *addr)
    KS_REQUIRES_SHARED(rm->lock)
{
    *reply = {};
    const rm_rule_t *rule = find_rule(rm, addr);
    lc_addr_info_t info = {};
    if (rule == nullptr || lc_addr_info(rm->live, addr, &info) != LC_OK) {
        return RM_UNKNOWN;
    }
    const size_t name_len = std::min(std::strlen(rule->name), sizeof reply->name);
    std::memcpy(reply->name, rule->name, name_len);
    reply->fixed = {
        .addr = rule->addr,
        .direction = rule->direction,
        .history_progress = rule->has_history != 0 ? static_cast<uint8_t>(rule->hist_progress) : uint8_t{0},
        .packets = info.packets,
        .packet_limit = info.packet_limit,
        .elapsed_s = seconds_between(info.start_time, time(nullptr)),
        .time_limit_s = seconds_between(info.start_time, info.end_time),
        .name_length = static_cast<uint8_t>(name_len),
    };
    return RM_OK;
}

} // namespace

// No other thread knows the registry before its monitor runs.
int32_t rm_init(rules_manager_t *rm, live_capture_t *live, history_capture_t **history,
                int32_t queues) KS_NO_ANALYSIS
{
    const int lock_error = rwlock_init(&rm->lock);
    if (lock_error != 0) {
        errno = lock_error;
        KS_ERROR("kestrune: Rules manager: Mutex init failed");
        return RM_NO_LOCK;
    }
    std::fill_n(rm->clients, RM_MAX_CLIENTS, -1);
    std::fill_n(rm->channels, RM_MAX_CLIENTS, nullptr);
    rm->next_rule_id = 0;
    rm->rules = nullptr;
    rm->client_count = 0;
    rm->rule_count = 0;
    rm->live = live;
    rm->history = history;
    rm->queue_count = static_cast<uint8_t>(queues);
    allocate_filenames(rm);
    if (thread_start(&rm->thread, rm_manage, rm) != 0) {
        const int error = errno;
        KS_ERROR("kestrune: Rules manager: Creating rules thread failed");
        std::free(rm->filenames);
        rm->filenames = nullptr;
        rm->filenames_size = 0;
        rwlock_destroy(&rm->lock);
        errno = error;
        return RM_NO_THREAD;
    }
    if (rm->queue_count > RM_MAX_SEARCHED_QUEUES) {
        KS_ERROR("kestrune: Rules manager: %u queues: history searches are offered to the first %u only",
                 static_cast<unsigned>(rm->queue_count), static_cast<unsigned>(RM_MAX_SEARCHED_QUEUES));
    }
    KS_INFO(LOG_EVENT, "kestrune: Rules manager thread created");
    return RM_OK;
}

void rm_clean(rules_manager_t *rm)
{
    rwlock_write(&rm->lock);
    std::fill_n(rm->clients, RM_MAX_CLIENTS, -1);
    std::fill_n(rm->channels, RM_MAX_CLIENTS, nullptr);
    rm->client_count = 0;
    while (rm->rules != nullptr) {
        rm_rule_t *rule = rm->rules;
        rm->rules = rule->next;
        rm_release_rule(rule, rm->queue_count);
    }
    rm->rule_count = 0;
    rwlock_write_unlock(&rm->lock);
}

void rm_destroy(rules_manager_t *rm)
{
    thread_stop(rm->thread); // first: between two parts of a pass it keeps its place in the list
    rm_clean(rm);
    std::free(rm->filenames);
    rm->filenames = nullptr;
    rm->filenames_size = 0;
    rwlock_destroy(&rm->lock);
}

int32_t rm_add_rule(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction, uint32_t packet_limit,
                    uint32_t time_limit, const char *name, uint32_t name_len)
{
    if (name_len == 0 || name_len > MSG_NAME_MAX) {
        return RM_NOT_ADDED;
    }
    rwlock_write(&rm->lock);
    rm_rule_t *rule = find_rule(rm, addr);
    int32_t result = RM_OK;
    if (rule != nullptr) {
        result = update_existing(rm, rule, direction, packet_limit, time_limit, name, name_len);
    } else {
        rule = new_rule(rm, addr, direction, name, name_len);
        if (rule == nullptr) {
            result = RM_NOT_ADDED;
        } else {
            start_searches(rm, rule);
            start_live(rm, rule, packet_limit, time_limit);
            release_searches(rm, rule);
            rule->next = rm->rules;
            rm->rules = rule;
            rm->rule_count++;
            rm_send_incident(rm, rule);
        }
    }
    rwlock_write_unlock(&rm->lock);
    return result;
}

int32_t rm_drop_rule(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction)
{
    rwlock_write(&rm->lock);
    const int32_t result = drop_locked(rm, addr, direction);
    rwlock_write_unlock(&rm->lock);
    return result;
}

int32_t rm_address_list(rules_manager_t *rm, uint8_t filter, msg_ip_list_item_t **list)
{
    *list = nullptr;
    rwlock_read(&rm->lock);
    const int32_t result = list_locked(rm, filter, list);
    rwlock_read_unlock(&rm->lock);
    return result;
}

int32_t rm_address_detail(rules_manager_t *rm, rm_detail_t *reply, const ip_addr_t *addr)
{
    rwlock_read(&rm->lock);
    const int32_t result = detail_locked(rm, reply, addr);
    rwlock_read_unlock(&rm->lock);
    return result;
}
