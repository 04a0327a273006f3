#include "client/ctl/list.h"

#include <chrono>

namespace kestrune {

namespace {

constexpr auto REPAINT_TIME = std::chrono::seconds(1);

} // namespace

answer_t list_rules(session_t *session, const options_t &options, const endpoint_t &endpoint)
{
    const rule_list_t rules = session->list(options.filter);
    listed_t listed;
    listed.brief = options.brief;
    std::vector<ip_addr_t> addrs;
    for (const msg_ip_list_item_t &rule : rules) {
        listed.rules.push_back({rule.addr, rule.direction, {}});
        addrs.push_back(rule.addr);
    }
    if (!options.brief) {
        std::vector<std::optional<detail_t>> details;
        session->detail_many(addrs, &details);
        for (size_t i = 0; i < details.size(); i++) {
            listed.rules[i].detail = std::move(details[i]);
        }
    }
    return {endpoint.text(), command_name(options.command), EXIT_DONE, "", std::move(listed)};
}

void watch_list(session_t *session, const options_t &options, const endpoint_t &endpoint, printer_t *printer)
{
    for (;;) {
        printer->repaint(list_rules(session, options, endpoint));
        const deadline_t next = std::chrono::steady_clock::now() + REPAINT_TIME;
        while (std::chrono::steady_clock::now() < next) { // not registered for updates: a pause
            (void)session->next_update(next);
        }
    }
}

} // namespace kestrune
