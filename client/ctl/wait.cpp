// add --wait. The rule's id comes from the INCIDENT that precedes the reply to ADD; an ADD that only renewed
// a rule brings none, and that rule is followed by its address, and its report is known by the names of its
// files.
//
// The wait ends for certain: a probe that does not answer a DETAIL or LIST ends it by the answer time, a rule
// that has left the list without a report ends it after the report time, --wait-time ends it in any case.
#include "client/ctl/commands.h"

#include <algorithm>

namespace kestrune {

namespace {

using steady_t = std::chrono::steady_clock;

constexpr auto POLL_TIME = std::chrono::seconds(1);
// A finished rule's report waits for the capture scripts of the rules that finished with it: answer times to
// wait.
constexpr int REPORT_ANSWER_TIMES = 12;

class waiter_t {
public:
    waiter_t(session_t *session, const options_t &options, const endpoint_t &endpoint, console_t *console)
        : session_(*session), options_(options), endpoint_(endpoint), console_(*console),
          key_(endpoint.text() + " " + ip_addr_text(options.addr).text)
    {
        bar_.label = options.probes.size() > 1 ? key_ : ip_addr_text(options.addr).text;
        bar_.packet_limit = options.packets;
        bar_.time_limit_s = options.time_limit_s;
    }
    ~waiter_t() { console_.remove_bar(key_); }
    waiter_t(const waiter_t &) = delete;
    waiter_t &operator=(const waiter_t &) = delete;

    answer_t run()
    {
        const auto started = steady_t::now();
        session_.updates_on();
        add_rule(&session_, options_);
        try {
            learn_rule();
            const deadline_t end = options_.wait_time ? started + *options_.wait_time : deadline_t::max();
            while (!report_ && !over(end)) {
                step(end);
            }
        } catch (const client_error_t &error) {
            if (error.failure() == failure_t::INTERRUPTED) {
                give_up();
            }
            throw client_error_t(error.failure(),
                                 std::string(error.what()) +
                                     "; the rule may go on: see 'list', and 'remove' ends it");
        }
        return report_ ? finished() : timed_out();
    }

private:
    // The INCIDENT of a new rule came before the reply to ADD and is among the updates kept since.
    void learn_rule()
    {
        const deadline_t now = steady_t::now();
        while (std::optional<update_t> update = session_.next_update(now)) {
            take(*update);
        }
        if (!id_) {
            event("is recorded already under this name; its limits were renewed and count from now");
            name_ = options_.name;
            learn_name();
        }
    }

    // An ADD with the beginning of a rule's name renews it as well.
    void learn_name()
    {
        try {
            name_ = session_.detail(options_.addr).name;
        } catch (const client_error_t &error) {
            if (error.failure() != failure_t::REFUSED) {
                throw;
            }
        }
    }

    void step(deadline_t end)
    {
        if (std::optional<update_t> update = session_.next_update(std::min({next_poll_, end, report_end_}))) {
            take(*update);
        } else if (steady_t::now() >= next_poll_) {
            poll();
            next_poll_ = steady_t::now() + POLL_TIME;
        }
    }

    bool over(deadline_t end) const { return steady_t::now() >= std::min(end, report_end_); }

    void take(const update_t &update)
    {
        if (const auto *incident = std::get_if<msg_update_incident_t>(&update)) {
            take_incident(*incident);
        } else if (const auto *capture = std::get_if<msg_update_capture_t>(&update)) {
            if (id_ == capture->rule_id) {
                show(capture->progress);
            }
        } else if (const auto *visual = std::get_if<visual_t>(&update);
                   visual != nullptr && is_ours(*visual)) {
            report_ = *visual;
        }
    }

    void take_incident(const msg_update_incident_t &incident)
    {
        if (!(incident.addr == options_.addr)) {
            return;
        }
        if (!id_ && name_.empty()) {
            id_ = incident.rule_id;
            event("is rule " + std::to_string(*id_));
        } else if (id_ != incident.rule_id) {
            left_the_list(); // an address has one rule at a time
        }
    }

    // A rule's files bear its name and its id, whatever version and queue follow.
    bool is_ours(const visual_t &visual) const
    {
        if (id_) {
            return *id_ == visual.rule_id;
        }
        const std::string stem = name_ + "_" + std::to_string(visual.rule_id);
        const auto named = [&](const std::string &file) {
            return file.starts_with(stem) && (file.size() == stem.size() || file[stem.size()] == '_');
        };
        return !name_.empty() && (named(visual.live_file) || std::any_of(visual.history_files.begin(),
                                                                         visual.history_files.end(), named));
    }

    void show(unsigned percent)
    {
        if (percent != bar_.percent) {
            bar_.percent = percent;
            if (!console_.has_bars()) {
                event(std::to_string(percent) + "%");
            }
        }
        if (percent == 100) {
            left_the_list();
        }
        console_.set_bar(key_, bar_);
    }

    void poll()
    {
        try {
            const msg_ip_detail_t detail = session_.detail(options_.addr).fields;
            bar_.packets = detail.packets;
            bar_.packet_limit = detail.packet_limit;
            bar_.elapsed_s = detail.elapsed_s;
            bar_.time_limit_s = detail.time_limit_s;
        } catch (const client_error_t &error) {
            if (error.failure() != failure_t::REFUSED) {
                throw;
            }
            const rule_list_t rules = session_.list(msg_target::ALL);
            const auto same = [&](const msg_ip_list_item_t &rule) { return rule.addr == options_.addr; };
            if (std::none_of(rules.begin(), rules.end(), same)) {
                left_the_list();
            }
        }
        console_.set_bar(key_, bar_);
    }

    void left_the_list()
    {
        report_end_ = std::min(report_end_, steady_t::now() + REPORT_ANSWER_TIMES * options_.answer_time);
    }

    // Interrupted: a rule of ours goes, one that was there before stays.
    [[noreturn]] void give_up()
    {
        std::string text = "interrupted; ";
        if (!id_) {
            text += "the rule was there before and goes on: 'remove' ends it";
        } else {
            try {
                session_.remove(options_.addr, BOTH);
                text += "the rule was removed, what it had recorded stays on the probe";
            } catch (const client_error_t &error) {
                text += error.failure() == failure_t::REFUSED
                            ? "the rule had just finished"
                            : "the rule could not be removed (" + std::string(error.what()) +
                                  ") and may go on: 'remove' ends it";
            }
        }
        throw client_error_t(failure_t::INTERRUPTED, text);
    }

    answer_t good() const
    {
        answer_t answer = good_answer(options_, &endpoint_);
        answer.fields["address"] = ip_addr_text(options_.addr).text;
        answer.fields["direction"] = direction_name(options_.direction);
        answer.fields["name"] = id_ ? options_.name : name_;
        answer.fields["renewed"] = !id_;
        return answer;
    }

    answer_t finished() const
    {
        answer_t answer = good();
        answer.fields["rule"] = report_->rule_id;
        answer.fields["finished"] = true;
        answer.fields.update(visual_fields(*report_));
        return answer;
    }

    answer_t timed_out() const
    {
        answer_t answer = good();
        const bool left = report_end_ != deadline_t::max();
        answer.status = EXIT_WAIT_TIME_OUT;
        answer.fields["ok"] = false;
        answer.fields["status"] = answer.status;
        answer.fields["finished"] = left;
        answer.fields["error"] =
            left ? "the rule is finished, but the probe has not reported its files in time (a capture script "
                   "may "
                   "still run): look for " +
                       options_.name + "_* in its export directory"
                 : "the rule is not finished in time and goes on: see 'show', 'remove' ends it";
        return answer;
    }

    void event(const std::string &text)
    {
        if (!options_.json) {
            console_.note(bar_.label + " " + text);
        }
    }

    session_t &session_;
    const options_t &options_;
    const endpoint_t &endpoint_;
    console_t &console_;
    const std::string key_;
    bar_t bar_;
    std::optional<uint32_t> id_; // nothing: the rule was there before
    std::string name_;           // of such a rule, as the probe has it
    std::optional<visual_t> report_;
    deadline_t next_poll_ = steady_t::now();
    deadline_t report_end_ = deadline_t::max(); // when to stop waiting for the report
};

} // namespace

answer_t add_and_wait(session_t *session, const options_t &options, const endpoint_t &endpoint,
                      console_t *console)
{
    return waiter_t(session, options, endpoint, console).run();
}

} // namespace kestrune
