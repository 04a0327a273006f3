#include "probe/counters.h"

namespace probe {
namespace {

template <class Group>
uint64_t sum(const std::vector<const Group *> &groups, counter_t Group::*member)
{
    uint64_t total = 0;
    for (const Group *group : groups) {
        total += (group->*member).get();
    }
    return total;
}

} // namespace

totals_t totals(const counter_groups_t &groups)
{
    return {sum(groups.readers, &reader_counters_t::read),
            sum(groups.readers, &reader_counters_t::kernel_dropped)};
}

std::string counters_text(const counter_groups_t &groups)
{
    const auto &[readers, queues] = groups;
    std::string text = "counters:";
    const auto add = [&text](const std::string &name, uint64_t value) {
        text += " " + name + "=" + std::to_string(value);
    };
    add("read", sum(readers, &reader_counters_t::read));
    add("handed_on", sum(queues, &queue_counters_t::handed_on));
    for (size_t i = 0; i < queues.size(); i++) {
        add("handed_on_" + std::to_string(i), queues[i]->handed_on.get());
    }
    add("not_ip", sum(readers, &reader_counters_t::not_ip));
    add("truncated", sum(readers, &reader_counters_t::truncated));
    add("clamped", sum(readers, &reader_counters_t::clamped));
    add("flows", sum(queues, &queue_counters_t::flows));
    add("flows_active", sum(queues, &queue_counters_t::flows_active));
    add("flows_evicted", sum(queues, &queue_counters_t::flows_evicted));
    add("kernel_dropped", sum(readers, &reader_counters_t::kernel_dropped));
    add("interface_dropped", readers.front()->interface_dropped.get());
    return text;
}

} // namespace probe
