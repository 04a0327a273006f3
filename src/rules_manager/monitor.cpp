#include "common/clock.h"
#include "common/log.h"
#include "common/printable.h"
#include "common/progress.h"
#include "common/settings.h"
#include "common/thread.h"
#include "rules_manager/capture_script.h"
#include "rules_manager/rule_files.h"
#include "rules_manager/rules_manager.h"
#include "rules_manager/update_clients.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

std::atomic<uint32_t> rm_pass_pause_ms{RM_PASS_PAUSE_MS};

namespace {

constexpr uint64_t RM_HOLD_NS = NS_PER_MS; // for which a pass keeps the registry's lock

// What a pass owns. A cancellation in its second phase must release it.
struct pass_t {
    rules_manager_t *rm;
    rm_rule_t *finished; // owned list, last found first
    pid_t script;        // running capture script, or 0
};

void update_live_progress(rules_manager_t *rm, rm_rule_t *rule) KS_REQUIRES(rm->lock)
{
    if (rule->live_progress >= PROGRESS_DONE) {
        return;
    }
    const uint64_t progress = lc_progress(rm->live, &rule->addr, 1);
    rule->live_progress = progress_percent(progress);
    rule->live_packets = progress_packets(progress);
    if (rule->live_progress == PROGRESS_DONE && rule->live_packets == 0 && rule->live_file[0] != '\0') {
        printable_t space;
        KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: removing empty file from LC: %s",
                printable(rule->live_file, &space));
        std::remove(rule->live_file);
        rule->live_file[0] = '\0';
    }
}

void collect_search(rm_rule_t *rule, uint32_t queue, uint32_t packets)
{
    rule->hist_packets += packets;
    if (packets == 0 && rule->hist_files[queue] != nullptr) {
        printable_t space;
        KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: removing empty file from HB: %s",
                printable(rule->hist_files[queue], &space));
        std::remove(rule->hist_files[queue]);
        std::free(rule->hist_files[queue]);
        rule->hist_files[queue] = nullptr;
    }
    rule->hist_done |= uint64_t{1} << queue;
}

void update_history_progress(rules_manager_t *rm, rm_rule_t *rule, const char *addr_text)
    KS_REQUIRES(rm->lock)
{
    int8_t minimum = PROGRESS_DONE;
    uint32_t sum = 0;
    const uint32_t queues = std::min(rm->queue_count, RM_MAX_SEARCHED_QUEUES);
    for (uint32_t i = 0; i < queues; i++) {
        if ((rule->hist_done >> i & 1) != 0) {
            continue;
        }
        const uint64_t progress = hc_search_progress(rm->history[i], &rule->addr, 1);
        const int8_t percent = progress_percent(progress);
        if (percent == PROGRESS_DONE || percent == PROGRESS_UNKNOWN) {
            collect_search(rule, i, progress_packets(progress));
        } else {
            minimum = std::min(minimum, percent);
            sum += progress_packets(progress);
        }
    }
    rule->hist_progress = minimum;
    KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: progress of: %s, history capture: %u, packets = %u",
            addr_text, static_cast<unsigned>(minimum), sum + rule->hist_packets);
}

// The total progress of the rule's captures, updated from them.
int8_t update_progress(rules_manager_t *rm, rm_rule_t *rule) KS_REQUIRES(rm->lock)
{
    ip_addr_text_t addr = {};
    update_live_progress(rm, rule);
    if (own_verbose_level() >= LOG_DETAIL) {
        addr = ip_addr_text(rule->addr);
        KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: progress of: %s, live capture: %u, packets: %u",
                addr.text, static_cast<unsigned>(rule->live_progress), rule->live_packets);
    }
    int8_t total = rule->live_progress;
    if (rule->has_history != 0 && rule->hist_progress < PROGRESS_DONE) {
        update_history_progress(rm, rule, addr.text);
        total = std::min(total, rule->hist_progress);
    }
    KS_INFO(LOG_DETAIL, "kestrune: Rules_manager: progress of: %s, total: %u", addr.text,
            static_cast<unsigned>(total));
    return total;
}

// Update the progress of the rules from *link on and unlink the finished ones into *finished, for RM_HOLD_NS at
// most but for the last rule. Returns where to go on, or null at the end.
rm_rule_t **update_some(rules_manager_t *rm, rm_rule_t **link, rm_rule_t **finished) KS_REQUIRES(rm->lock)
{
    rm_capture_batch_t batch = {};
    const uint64_t end_ns = monotonic_now_ns() + RM_HOLD_NS;
    bool in_time = true;
    for (; *link != nullptr && in_time; in_time = monotonic_now_ns() < end_ns) {
        rm_rule_t *rule = *link;
        const int8_t total = update_progress(rm, rule);
        if (static_cast<uint8_t>(total) != rule->last_progress) {
            rule->last_progress = static_cast<uint8_t>(total);
            rm_batch_capture(rm, &batch, rule);
        }
        if (total == PROGRESS_DONE) {
            *link = rule->next;
            rm->rule_count--;
            rule->next = *finished;
            *finished = rule;
        } else {
            link = &rule->next;
        }
    }
    rm_send_captures(rm, &batch);
    return *link != nullptr ? link : nullptr;
}

// First phase: update every rule's progress and unlink the finished rules into *finished. Others get the lock in
// between: they add rules at the head of the list, and only the monitor takes rules out.
// Returns the number of registered clients.
int32_t take_finished(rules_manager_t *rm, rm_rule_t **finished)
{
    rwlock_write(&rm->lock);
    rm_rule_t **link = &rm->rules;
    while ((link = update_some(rm, link, finished)) != nullptr) {
        rwlock_write_unlock(&rm->lock);
        rwlock_write(&rm->lock);
    }
    const int32_t client_count = rm->client_count;
    rwlock_write_unlock(&rm->lock);
    return client_count;
}

void run_script(pass_t *pass, const rm_rule_t *rule)
{
    rules_manager_t *rm = pass->rm;
    if (ks_capture_script == nullptr || !rm_compose_command(rm, rule) ||
        (rule->live_packets == 0 && rule->hist_packets == 0)) {
        return;
    }
    printable_t space;
    KS_INFO(LOG_EVENT, "kestrune: Calling script: %s", printable(rm->filenames, &space));
    const int result = rm_run_command(rm->filenames, &pass->script);
    if (result != 0) {
        KS_ERROR("kestrune: Return value: %d, by calling script: '%s'.", result,
                 printable(rm->filenames, &space));
    }
}

void announce_finished(rules_manager_t *rm, const rm_rule_t *rule)
{
    const char *list = "";
    if (rule->has_history != 0 && rule->hist_packets != 0 && rm_compose_history_list(rm, rule)) {
        list = rm->filenames;
    }
    rwlock_read(&rm->lock);
    rm_send_visual(rm, rule, list, static_cast<uint32_t>(std::strlen(list)));
    rwlock_read_unlock(&rm->lock);
}

void release_first(pass_t *pass)
{
    rm_rule_t *rule = pass->finished;
    pass->finished = rule->next;
    rm_release_rule(rule, pass->rm->queue_count);
}

// Clean-up of a pass that is cancelled while it waits for the capture script.
void abandon(void *argument)
{
    auto *pass = static_cast<pass_t *>(argument);
    if (pass->script != 0) {
        rm_kill_command(pass->script);
    }
    while (pass->finished != nullptr) {
        release_first(pass);
    }
}

// Second phase: handle the finished rules one by one. The pass owns each until it is released.
void finish_rules(pass_t *pass, int32_t client_count)
{
    while (pass->finished != nullptr) {
        run_script(pass, pass->finished);
        if (client_count > 0) {
            announce_finished(pass->rm, pass->finished);
        }
        release_first(pass);
    }
}

} // namespace

void rm_check_and_update(rules_manager_t *rm)
{
    pass_t pass = {rm, nullptr, 0};
    const int32_t client_count = take_finished(rm, &pass.finished);
    pthread_cleanup_push(abandon, &pass);
    finish_rules(&pass, client_count);
    pthread_cleanup_pop(0);
}

void *rm_manage(void *rules_manager)
{
    thread_begin("ks-monitor");
    thread_lower_priority();
    while (true) {
        thread_pause(rm_pass_pause_ms.load());
        rm_check_and_update(static_cast<rules_manager_t *>(rules_manager));
    }
    return nullptr;
}
