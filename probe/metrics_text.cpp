#include "probe/metrics.h"

#include <cstdio>

namespace probe {
namespace {

template <class Group>
struct metric_t {
    const char *name;
    const char *type;
    const char *help;
    counter_t Group::*member;
};

constexpr metric_t<reader_counters_t> OF_READERS[] = {
    {"read_packets_total", "counter", "Packets read.", &reader_counters_t::read},
    {"not_ip_packets_total", "counter", "Packets of other protocols than IP, not handed on.",
     &reader_counters_t::not_ip},
    {"truncated_packets_total", "counter", "Packets whose captured bytes end before their addresses.",
     &reader_counters_t::truncated},
    {"clamped_packets_total", "counter", "Packets handed on with their first 65535 bytes only.",
     &reader_counters_t::clamped},
    {"kernel_dropped_packets_total", "counter",
     "Packets that the kernel lost because the probe was too slow.", &reader_counters_t::kernel_dropped},
};

constexpr metric_t<queue_counters_t> OF_QUEUES[] = {
    {"handed_on_packets_total", "counter", "Packets handed to the plugin.", &queue_counters_t::handed_on},
    {"flows_total", "counter", "Flows begun.", &queue_counters_t::flows},
    {"flows_active", "gauge", "Flows in the table now.", &queue_counters_t::flows_active},
    {"flows_evicted_total", "counter", "Flows ended to make room for another.",
     &queue_counters_t::flows_evicted},
};

void head(std::string *text, const char *name, const char *type, const char *help)
{
    text->append("# HELP kestrune_probe_").append(name).append(" ").append(help).append("\n");
    text->append("# TYPE kestrune_probe_").append(name).append(" ").append(type).append("\n");
}

void sample(std::string *text, const char *name, const std::string &labels, const std::string &value)
{
    text->append("kestrune_probe_").append(name).append(labels).append(" ").append(value).append("\n");
}

// Labels groups with their queue, except one reader of files for several queues.
template <class Group, size_t SIZE>
void add(std::string *text, const metric_t<Group> (&metrics)[SIZE], const std::vector<const Group *> &groups,
         size_t queue_count)
{
    for (const auto &metric : metrics) {
        head(text, metric.name, metric.type, metric.help);
        for (size_t i = 0; i < groups.size(); i++) {
            const std::string labels =
                groups.size() == queue_count ? "{queue=\"" + std::to_string(i) + "\"}" : "";
            sample(text, metric.name, labels, std::to_string((groups[i]->*metric.member).get()));
        }
    }
}

std::string escaped(const std::string &value)
{
    std::string text;
    for (const char c : value) {
        text += c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    }
    return text;
}

} // namespace

std::string metrics_text(const metrics_source_t &source)
{
    const counter_groups_t &groups = source.groups;
    std::string text;
    head(&text, "info", "gauge", "The probe's version and interface.");
    sample(&text, "info",
           "{version=\"" KESTRUNE_VERSION "\",interface=\"" + escaped(source.interface) + "\"}", "1");
    char start[32];
    std::snprintf(start, sizeof start, "%.3f", source.start_s);
    head(&text, "start_time_seconds", "gauge", "Start of the probe, since the Unix epoch.");
    sample(&text, "start_time_seconds", "", start);
    add(&text, OF_READERS, groups.readers, groups.queues.size());
    add(&text, OF_QUEUES, groups.queues, groups.queues.size());
    head(&text, "interface_dropped_packets_total", "counter", "Packets that the interface itself lost.");
    sample(&text, "interface_dropped_packets_total", "",
           std::to_string(groups.readers.front()->interface_dropped.get()));
    return text;
}

} // namespace probe
