#include "client/ctl/add.h"

#include "client/ctl/advice.h"
#include "client/text_forms.h"

#include <algorithm>
#include <set>
#include <string>

namespace kestrune {

namespace {

std::string without_capture_text(const ip_addr_t &addr)
{
    return std::string(ip_addr_text(addr).text) +
           " has a rule now, but no live capture: the plugin's table has no room for it (1024 addresses, "
           "eight "
           "of a row), or its file could not be created (the probe's log says which)";
}

std::string other_name_text(const ip_addr_t &addr, const std::string &name)
{
    return std::string(ip_addr_text(addr).text) + " is recorded already, under the name '" + printable(name) +
           "': give that name with -n, or none, to renew its limits, or 'remove' it first";
}

std::string short_refusal_text(const ip_addr_t &addr)
{
    return std::string(ip_addr_text(addr).text) + " was refused: the live capture of its rule is over while "
                                                  "the history is still searched, or the probe "
                                                  "lacks memory or a file name";
}

class adder_t {
public:
    adder_t(session_t *session, const options_t &options) : session_(*session), options_(options)
    {
        for (const ip_addr_t &addr : options.addrs) {
            added_t rule;
            rule.request = {addr, options.direction, options.packets, options.time_limit_s,
                            options.name.empty() ? dated_rule_name(addr, options.now) : options.name};
            rule.refused = true;
            rules_.push_back({std::move(rule), ""});
        }
    }

    void run()
    {
        std::vector<rule_t *> all;
        for (rule_t &rule : rules_) {
            all.push_back(&rule);
        }
        add(all);
        try {
            renew();
            check_captures();
        } catch (const client_error_t &error) {
            throw client_error_t(error.failure(),
                                 std::string(error.what()) +
                                     "; what was added by then may go on: see 'list', "
                                     "and 'remove' ends it",
                                 error.action());
        }
    }

    std::vector<answer_t> answers(const endpoint_t &endpoint) const
    {
        std::vector<answer_t> answers;
        for (const rule_t &rule : rules_) {
            answers.push_back({endpoint.text(), command_name(options_.command),
                               rule.problem.empty() ? EXIT_DONE : EXIT_REFUSED, rule.problem, rule.added});
        }
        return answers;
    }

private:
    struct rule_t {
        added_t added;
        std::string problem; // for the user; empty: none
    };

    void add(const std::vector<rule_t *> &rules)
    {
        std::vector<add_request_t> requests;
        requests.reserve(rules.size());
        for (const rule_t *rule : rules) {
            requests.push_back(rule->added.request);
        }
        std::vector<bool> taken;
        try {
            session_.add_many(requests, &taken);
        } catch (const client_error_t &error) {
            if (rules_.size() == 1) {
                throw;
            }
            const auto before = std::count(taken.begin(), taken.end(), true);
            throw client_error_t(error.failure(),
                                 std::string(error.what()) + "; at least " + std::to_string(before) + " of " +
                                     std::to_string(requests.size()) + " addresses had been added by then",
                                 error.action());
        }
        for (size_t i = 0; i < rules.size(); i++) {
            rules[i]->added.refused = !taken[i];
        }
    }

    // FAIL gives no reason. A DETAIL request shows the usual one: a rule of another name.
    void renew()
    {
        const std::vector<rule_t *> refused = those([](const added_t &rule) { return rule.refused; });
        const std::vector<std::optional<detail_t>> details = details_of(refused);
        std::vector<rule_t *> again;
        for (size_t i = 0; i < refused.size(); i++) {
            add_request_t &request = refused[i]->added.request;
            refused[i]->problem = options_.several ? short_refusal_text(request.addr)
                                                   : refusal_text(msg_action::ADD, request.addr, options_);
            if (!details[i] || details[i]->name.empty() || details[i]->name.size() > MSG_NAME_MAX) {
                continue;
            }
            if (options_.name.empty()) {
                request.name = details[i]->name;
                again.push_back(refused[i]);
            } else if (!details[i]->name.starts_with(options_.name)) {
                refused[i]->problem = other_name_text(request.addr, details[i]->name);
            }
        }
        add(again);
        for (rule_t *rule : again) {
            rule->added.renewed = !rule->added.refused;
            if (!rule->added.refused) {
                rule->problem.clear();
            }
        }
    }

    void check_captures()
    {
        const std::vector<rule_t *> rules =
            those([](const added_t &rule) { return !rule.refused && rule.request.packet_limit != 0; });
        const std::vector<std::optional<detail_t>> details = details_of(rules);
        std::vector<rule_t *> missing;
        for (size_t i = 0; i < rules.size(); i++) {
            if (!details[i]) {
                missing.push_back(rules[i]);
            } else if (details[i]->name != rules[i]->added.request.name) { // the given name is its beginning
                rules[i]->added.request.name = details[i]->name;
                rules[i]->added.renewed = true;
            }
        }
        if (missing.empty()) {
            return;
        }
        std::set<std::string> listed;
        for (const msg_ip_list_item_t &rule : session_.list(msg_target::ALL)) {
            listed.insert(ip_addr_text(rule.addr).text);
        }
        for (rule_t *rule : missing) { // a rule no longer listed had reached its limits
            rule->added.without_capture = listed.contains(ip_addr_text(rule->added.request.addr).text);
            if (rule->added.without_capture) {
                rule->problem = without_capture_text(rule->added.request.addr);
            }
        }
    }

    template <typename P>
    std::vector<rule_t *> those(P condition)
    {
        std::vector<rule_t *> chosen;
        for (rule_t &rule : rules_) {
            if (condition(rule.added)) {
                chosen.push_back(&rule);
            }
        }
        return chosen;
    }

    std::vector<std::optional<detail_t>> details_of(const std::vector<rule_t *> &rules)
    {
        std::vector<ip_addr_t> addrs;
        addrs.reserve(rules.size());
        for (const rule_t *rule : rules) {
            addrs.push_back(rule->added.request.addr);
        }
        std::vector<std::optional<detail_t>> details;
        session_.detail_many(addrs, &details);
        return details;
    }

    session_t &session_;
    const options_t &options_;
    std::vector<rule_t> rules_;
};

} // namespace

std::vector<answer_t> add_rules(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    adder_t adder(session, options);
    adder.run();
    return adder.answers(endpoint);
}

answer_t summary_of(std::span<const answer_t> answers, const options_t &options, const endpoint_t &endpoint)
{
    int status = EXIT_DONE;
    add_summary_t sum;
    sum.waited = options.wait;
    for (const answer_t &answer : answers) {
        status = std::max(status, answer.status);
        const added_t &rule = std::get<added_t>(answer.result);
        sum.addresses++;
        sum.renewed += rule.renewed ? 1 : 0;
        sum.refused += rule.refused ? 1 : 0;
        sum.without_capture += rule.without_capture ? 1 : 0;
        sum.finished += rule.report ? 1 : 0;
        sum.live_packets += rule.report ? rule.report->live_packets : 0;
        sum.history_packets += rule.report ? rule.report->history_packets : 0;
    }
    return {endpoint.text(), command_name(options.command), status, "", sum};
}

} // namespace kestrune
