#include "http/metrics.h"

#include <cstdio>

namespace kestrune::manager {
namespace {

std::string number_text(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", value);
    return text;
}

class page_t {
public:
    void family(const char *name, const char *type, const char *help)
    {
        name_ = name;
        text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
        text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    }
    // labels: as they stand between the braces, or empty. Names of probes need no escape.
    void sample(const std::string &labels, uint64_t value, const char *suffix = "")
    {
        line(labels, std::to_string(value), suffix);
    }
    void sample(const std::string &labels, double value, const char *suffix = "")
    {
        line(labels, number_text(value), suffix);
    }
    std::string take() { return std::move(text_); }

private:
    void line(const std::string &labels, const std::string &value, const char *suffix)
    {
        text_.append(name_).append(suffix);
        if (!labels.empty()) {
            text_.append("{").append(labels).append("}");
        }
        text_.append(" ").append(value).append("\n");
    }

    const char *name_ = "";
    std::string text_;
};

std::string label(const char *name, std::string_view value)
{
    return std::string(name) + "=\"" + std::string(value) + "\"";
}

void add_manager(const metrics_t &metrics, page_t *page)
{
    page->family("kestrune_manager_info", "gauge", "The version of the manager.");
    page->sample(label("version", KESTRUNE_VERSION), uint64_t{1});
    page->family("kestrune_manager_start_time_seconds", "gauge",
                 "When the manager started, since the Unix epoch.");
    page->sample("", static_cast<double>(metrics.started_at) / 1e9);
    page->family("kestrune_alarms", "gauge", "Alarms that are raised now.");
    page->sample("", uint64_t{metrics.alarms});
}

// One family of a value that a probe's history has, for all probes that are known to have one.
template <typename F>
void add_of_history(const metrics_t &metrics, page_t *page, const F &add)
{
    for (const probe_view_t &probe : metrics.probes) {
        if (probe.history) {
            add(page, label("probe", probe.name), *probe.history);
        }
    }
}

void add_probes(const metrics_t &metrics, page_t *page)
{
    page->family("kestrune_probe_up", "gauge", "Whether the probe is reached (1) or not (0).");
    for (const probe_view_t &probe : metrics.probes) {
        page->sample(label("probe", probe.name), uint64_t{probe.state == probe_state_t::UP});
    }
    page->family("kestrune_probe_reach_seconds", "gauge",
                 "How far the probe's rings reach back, over its queues.");
    add_of_history(metrics, page, [](page_t *to, const std::string &probe, const history_view_t &history) {
        to->sample(probe + "," + label("queues", "avg"), uint64_t{history.reach.avg});
        to->sample(probe + "," + label("queues", "min"), uint64_t{history.reach.min});
        to->sample(probe + "," + label("queues", "max"), uint64_t{history.reach.max});
    });
    page->family("kestrune_probe_ring_bytes", "gauge", "Memory of the probe's rings.");
    add_of_history(metrics, page, [](page_t *to, const std::string &probe, const history_view_t &history) {
        to->sample(probe, history.size_bytes);
    });
    page->family("kestrune_probe_ring_free_bytes", "gauge", "Free memory in the probe's rings.");
    add_of_history(metrics, page, [](page_t *to, const std::string &probe, const history_view_t &history) {
        to->sample(probe, history.free_bytes);
    });
    page->family("kestrune_probe_rules", "gauge", "Rules at the probe, also of other clients.");
    for (const probe_view_t &probe : metrics.probes) {
        if (probe.rules) {
            page->sample(label("probe", probe.name), uint64_t{*probe.rules});
        }
    }
}

void add_sealing(const captures_stats_t &stats, page_t *page)
{
    page->family("kestrune_sealing_seconds", "histogram", "How long sealing a capture took.");
    uint64_t count = 0;
    for (size_t i = 0; i < stats.sealing_counts.size(); ++i) {
        count += stats.sealing_counts[i];
        const std::string bound = i < SEALING_BOUNDS_S.size() ? number_text(SEALING_BOUNDS_S[i]) : "+Inf";
        page->sample(label("le", bound), count, "_bucket");
    }
    page->sample("", stats.sealing_seconds, "_sum");
    page->sample("", count, "_count");
    page->family("kestrune_sealing_failures_total", "counter", "Attempts at sealing that failed.");
    page->sample("", stats.sealing_failures);
}

void add_captures(const metrics_t &metrics, page_t *page)
{
    page->family("kestrune_captures", "gauge", "Captures in the catalogue by state.");
    for (size_t i = 0; i < CAPTURE_STATE_COUNT; ++i) {
        page->sample(label("state", text_of(static_cast<capture_state_t>(i))), metrics.totals.by_state[i]);
    }
    page->family("kestrune_sealed_bytes_total", "counter",
                 "Bytes of all sealed files, also of deleted ones.");
    page->sample("", metrics.totals.sealed_bytes_ever);
    page->family("kestrune_deleted_bytes_total", "counter", "Bytes of the sealed files that were deleted.");
    page->sample("", metrics.totals.deleted_bytes_ever);
    page->family("kestrune_archive_bytes", "gauge", "Bytes of the sealed files that are there.");
    page->sample("", metrics.totals.sealed_bytes);
    page->family("kestrune_archive_free_bytes", "gauge",
                 "Free bytes, the least of all file systems involved.");
    page->sample("", metrics.archive.free_bytes);
    add_sealing(metrics.captures, page);
}

void add_http(const http_counters_t &counters, page_t *page)
{
    page->family("kestrune_http_requests_total", "counter", "Requests that were answered, by status code.");
    for (unsigned i = 0; i < counters.answers.size(); ++i) {
        const uint64_t count = counters.answers[i].load(std::memory_order_relaxed);
        if (count > 0) {
            page->sample(label("code", std::to_string(http_counters_t::STATUS_FIRST + i)), count);
        }
    }
    page->family("kestrune_event_listeners", "gauge", "Listeners of the event stream.");
    page->sample("", uint64_t{counters.listeners.load(std::memory_order_relaxed)});
}

} // namespace

std::string metrics_text(const metrics_t &metrics, const http_counters_t &counters)
{
    page_t page;
    add_manager(metrics, &page);
    add_probes(metrics, &page);
    add_captures(metrics, &page);
    add_http(counters, &page);
    return page.take();
}

} // namespace kestrune::manager
