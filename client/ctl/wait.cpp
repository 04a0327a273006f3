// A rule's id comes from the INCIDENT that precedes the reply to its ADD. An ADD that only renewed a rule
// brings none; that rule is followed by its address, and its report is recognised by its file names.
//
// There are two connections: one receives the updates, the other asks whether the rules are still listed. On
// a shared connection, an update during a half-sent long reply would be lost.
//
// The wait always ends: at the answer time when the probe does not answer a LIST, at the report time when a
// rule has left the list without a report, and at --wait-time in any case.
#include "client/ctl/wait.h"

#include "client/ctl/add.h"
#include "client/ctl/session_options.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrune {

namespace {

using steady_t = std::chrono::steady_clock;

constexpr auto POLL_TIME = std::chrono::seconds(1);
// How long to wait for further reports before asking for the list.
constexpr auto REPORT_POLL_TIME = std::chrono::milliseconds(50);
// How many answer times a report may take: it waits for the capture scripts of rules
// that finished together with its own.
constexpr int REPORT_ANSWER_TIMES = 12;
constexpr size_t BARS_MAX = 16; // of one probe; terminals are not higher

// A rule's files contain its name and its id, whatever version and queue follow.
bool bears_name(const visual_t &visual, const std::string &name)
{
    const std::string stem = name + "_" + std::to_string(visual.rule_id);
    const auto named = [&](const std::string &file) {
        return file.starts_with(stem) && (file.size() == stem.size() || file[stem.size()] == '_');
    };
    return named(visual.live_file) ||
           std::any_of(visual.history_files.begin(), visual.history_files.end(), named);
}

class waiter_t {
public:
    waiter_t(session_t *session, const options_t &options, const endpoint_t &endpoint, console_t *console,
             const std::function<void(answer_t)> &give)
        : session_(*session), options_(options), endpoint_(endpoint), console_(*console), give_(give)
    {
    }
    ~waiter_t()
    {
        for (const rule_t &rule : rules_) {
            console_.remove_bar(key(rule));
        }
    }
    waiter_t(const waiter_t &) = delete;
    waiter_t &operator=(const waiter_t &) = delete;

    void run()
    {
        const deadline_t end = options_.wait_time ? steady_t::now() + *options_.wait_time : deadline_t::max();
        session_.updates_on();
        take_rules(add_rules(&session_, options_, endpoint_));
        try {
            learn_ids();
            polls_ = std::make_unique<session_t>(endpoint_, session_options(options_));
            while (open_ > 0 && steady_t::now() < end) {
                step(end);
            }
        } catch (const client_error_t &error) {
            if (error.failure() == failure_t::INTERRUPTED) {
                give_up();
            }
            throw client_error_t(error.failure(),
                                 std::string(error.what()) +
                                     "; the rule may go on: see 'list', and 'remove' ends it",
                                 error.action());
        }
        for (rule_t *rule : open_rules()) {
            time_out(rule);
        }
        if (options_.several) {
            give_(summary_of(answers_, options_, endpoint_));
        }
    }

private:
    struct rule_t {
        answer_t answer; // of its ADD, until it is finished
        std::string address;
        bool open = true;           // not answered yet
        std::optional<uint32_t> id; // empty: the rule existed before
        deadline_t report_end =
            deadline_t::max(); // when to give up on the report; set when the rule leaves the list
        bar_t bar;
        bool bar_shown = false;
        added_t &added() { return std::get<added_t>(answer.result); }
    };

    void take_rules(std::vector<answer_t> answers)
    {
        rules_.resize(answers.size());
        for (size_t i = 0; i < answers.size(); i++) {
            rule_t &rule = rules_[i];
            rule.answer = std::move(answers[i]);
            rule.added().waited = true;
            rule.address = ip_addr_text(rule.added().request.addr).text;
            rule.bar.label = options_.probes.size() > 1 ? key(rule) : rule.address;
            rule.bar.packet_limit = options_.packets;
            rule.bar.time_limit_s = options_.time_limit_s;
            by_address_[rule.address] = &rule;
            open_++;
        }
        for (rule_t &rule : rules_) {
            if (rule.added().refused) {
                close(&rule);
            }
        }
    }

    // The INCIDENTs of new rules came before the replies to ADD, so they are among the kept updates.
    void learn_ids()
    {
        const deadline_t now = steady_t::now();
        while (std::optional<update_t> update = session_.next_update(now)) {
            take(*update);
        }
        learning_ = false;
        for (rule_t *rule : open_rules()) {
            rule->added().renewed = !rule->id;
            if (!rule->id) {
                event(*rule,
                      "is recorded already under this name; its limits were renewed and count from now");
            }
        }
        find_reports(); // for rules whose names are known only now
    }

    void step(deadline_t end)
    {
        if (std::optional<update_t> update = session_.next_update(std::min(next_poll_, end))) {
            take(*update);
        }
        if (steady_t::now() >= next_poll_) {
            poll();
            next_poll_ = steady_t::now() + POLL_TIME;
        }
    }

    void take(const update_t &update)
    {
        if (const auto *incident = std::get_if<msg_update_incident_t>(&update)) {
            take_incident(*incident);
        } else if (const auto *capture = std::get_if<msg_update_capture_t>(&update)) {
            if (const auto found = by_id_.find(capture->rule_id); found != by_id_.end()) {
                show(found->second, capture->progress);
            }
        } else if (const auto *visual = std::get_if<visual_t>(&update)) {
            if (const auto found = by_id_.find(visual->rule_id); found != by_id_.end()) {
                finish(found->second, *visual);
            } else if (may_be_ours(*visual)) {
                reports_.push_back(*visual);
                if (reports_.size() > rules_.size()) {
                    reports_.pop_front();
                }
                next_poll_ = std::min(next_poll_, steady_t::now() + REPORT_POLL_TIME);
            }
        }
    }

    void take_incident(const msg_update_incident_t &incident)
    {
        const auto found = by_address_.find(ip_addr_text(incident.addr).text);
        if (found == by_address_.end() || !found->second->open) {
            return;
        }
        rule_t *rule = found->second;
        if (!rule->id && learning_) {
            rule->id = incident.rule_id;
            by_id_[incident.rule_id] = rule;
            event(*rule, "is rule " + std::to_string(incident.rule_id));
        } else if (rule->id != incident.rule_id) {
            left_the_list(rule); // an address has one rule at a time
        }
    }

    void show(rule_t *rule, unsigned percent)
    {
        if (!rule->open) {
            return;
        }
        if (percent != rule->bar.percent) {
            rule->bar.percent = percent;
            if (!console_.has_bars()) {
                event(*rule, std::to_string(percent) + "%");
            }
        }
        if (percent == 100) {
            left_the_list(rule);
        }
        if (rule->bar_shown) {
            console_.set_bar(key(*rule), rule->bar);
        }
    }

    void poll()
    {
        std::set<std::string> listed;
        for (const msg_ip_list_item_t &rule : polls_->list(msg_target::ALL)) {
            listed.insert(ip_addr_text(rule.addr).text);
        }
        for (rule_t *rule : open_rules()) {
            if (!listed.contains(rule->address)) {
                left_the_list(rule);
            }
        }
        find_reports();
        for (rule_t *rule : open_rules()) {
            if (steady_t::now() >= rule->report_end) {
                time_out(rule);
            }
        }
        if (console_.has_bars()) {
            show_bars();
        }
    }

    // For a rule that existed before.
    bool may_be_ours(const visual_t &report)
    {
        return std::any_of(rules_.begin(), rules_.end(), [&](rule_t &rule) {
            return rule.open && !rule.id && bears_name(report, rule.added().request.name);
        });
    }

    // Reports of rules that existed before. Whether a rule has left the list distinguishes rules of one name.
    void find_reports()
    {
        for (rule_t *rule : open_rules()) {
            const auto found = std::find_if(reports_.begin(), reports_.end(), [&](const visual_t &report) {
                return !rule->id && rule->report_end != deadline_t::max() &&
                       bears_name(report, rule->added().request.name);
            });
            if (found != reports_.end()) {
                const visual_t report = *found;
                reports_.erase(found);
                finish(rule, report);
            }
        }
    }

    void show_bars()
    {
        std::vector<rule_t *> shown = open_rules();
        shown.resize(std::min(shown.size(), BARS_MAX));
        std::vector<ip_addr_t> addrs;
        addrs.reserve(shown.size());
        for (rule_t *rule : shown) {
            addrs.push_back(rule->added().request.addr);
        }
        std::vector<std::optional<detail_t>> details;
        polls_->detail_many(addrs, &details);
        for (size_t i = 0; i < shown.size(); i++) {
            if (details[i]) {
                const msg_ip_detail_t &fields = details[i]->fields;
                shown[i]->bar = {shown[i]->bar.label, shown[i]->bar.percent, fields.packets,
                                 fields.packet_limit, fields.elapsed_s,      fields.time_limit_s};
            }
            shown[i]->bar_shown = true;
            console_.set_bar(key(*shown[i]), shown[i]->bar);
        }
    }

    void left_the_list(rule_t *rule)
    {
        rule->report_end =
            std::min(rule->report_end, steady_t::now() + REPORT_ANSWER_TIMES * options_.answer_time);
    }

    void finish(rule_t *rule, const visual_t &report)
    {
        if (!rule->open) {
            return;
        }
        rule->added().finished = true;
        rule->added().report = report;
        if (report.history_packets != 0 && report.history_files.empty()) {
            rule->answer.status = EXIT_FAILED;
            rule->answer.error =
                "the search for " + rule->address + " found " + std::to_string(report.history_packets) +
                " packets but left no file: there are files of this name already (the numbers of rules begin "
                "at 0 again when the probe restarts), or its disk is full. Add it under a name that was "
                "never "
                "used, or without -n";
        } else if (ended_early(*rule, report)) {
            rule->answer.hint = "the live capture of " + rule->address + " ended after " +
                                std::to_string(report.live_packets) +
                                " packets, before its limits: another client removed the rule, or its file "
                                "could not be written, as on a full disk (the probe's log says which)";
        } else if (!options_.name.empty() && rule->added().request.packet_limit == 0 &&
                   report.history_files.empty()) {
            rule->answer.hint =
                "nothing of " + rule->address +
                " was recorded. Its history may hold nothing, or be off; or there are files of this "
                "name already, from before a restart of the probe (its log says so): a name that "
                "was never used, or no -n, rules that out";
        }
        close(rule);
    }

    // The limits of a rule that existed before are unknown.
    bool ended_early(rule_t &rule, const visual_t &report) const
    {
        const add_request_t &request = rule.added().request;
        const auto waited =
            steady_t::now() - begin_ + std::chrono::seconds(1); // the probe counts whole seconds
        return rule.id && rule.answer.status == EXIT_DONE && report.live_packets < request.packet_limit &&
               waited < std::chrono::seconds(request.time_limit_s);
    }

    void time_out(rule_t *rule)
    {
        const bool left = rule->report_end != deadline_t::max();
        rule->added().finished = left;
        rule->answer.status = EXIT_WAIT_TIME_OUT;
        rule->answer.error =
            left ? "the rule is finished, but the probe has not reported its files in time (a capture script "
                   "may still run): look for " +
                       rule->added().request.name + "_* in its export directory"
                 : "the rule is not finished in time and goes on: see 'show', 'remove' ends it";
        close(rule);
    }

    void close(rule_t *rule)
    {
        rule->open = false;
        open_--;
        console_.remove_bar(key(*rule));
        answers_.push_back(rule->answer);
        give_(rule->answer);
    }

    // Interrupted: remove the new rules, keep those that existed before.
    [[noreturn]] void give_up()
    {
        std::vector<ip_addr_t> ours;
        size_t others = 0;
        for (rule_t *rule : open_rules()) {
            if (rule->id) {
                ours.push_back(rule->added().request.addr);
            } else {
                others++;
            }
        }
        std::string text = "interrupted";
        try {
            std::vector<bool> removed;
            session_.remove_many(ours, BOTH, &removed);
            const auto count = std::count(removed.begin(), removed.end(), true);
            if (!ours.empty()) {
                text += !options_.several && count == 0 ? "; the rule had just finished"
                        : !options_.several
                            ? "; the rule was removed, what it had recorded stays on the probe"
                            : "; " + std::to_string(count) +
                                  " rules were removed, what they had recorded stays on the probe";
            }
        } catch (const client_error_t &error) {
            text += "; the rules could not be removed (" + std::string(error.what()) +
                    ") and may go on: 'remove' ends them";
        }
        if (others != 0) {
            text += options_.several ? "; " + std::to_string(others) + " rules were there before and go on"
                                     : "; the rule was there before and goes on: 'remove' ends it";
        }
        throw client_error_t(failure_t::INTERRUPTED, text);
    }

    std::vector<rule_t *> open_rules()
    {
        std::vector<rule_t *> open;
        for (rule_t &rule : rules_) {
            if (rule.open) {
                open.push_back(&rule);
            }
        }
        return open;
    }

    // Only for a single rule: the progress of several would bury their results.
    void event(const rule_t &rule, const std::string &text)
    {
        if (!options_.json && !options_.several) {
            console_.note(rule.bar.label + " " + text);
        }
    }

    std::string key(const rule_t &rule) const { return endpoint_.text() + " " + rule.address; }

    session_t &session_;               // registered for updates
    std::unique_ptr<session_t> polls_; // set once the rules are added
    const options_t &options_;
    const endpoint_t &endpoint_;
    console_t &console_;
    const std::function<void(answer_t)> &give_;
    std::vector<rule_t> rules_;
    std::map<std::string, rule_t *> by_address_;
    std::map<uint32_t, rule_t *> by_id_;
    std::deque<visual_t> reports_;  // of rules without a known id
    std::vector<answer_t> answers_; // so far
    size_t open_ = 0;
    bool learning_ = true;
    const deadline_t begin_ = steady_t::now();
    deadline_t next_poll_ = steady_t::now();
};

} // namespace

void add_and_wait(session_t *session, const options_t &options, const endpoint_t &endpoint,
                  console_t *console, const std::function<void(answer_t)> &give)
{
    waiter_t(session, options, endpoint, console, give).run();
}

} // namespace kestrune
