// The JSON forms of answers and events, with all fields in the order of openapi.yaml.
#include "forms/strict_json.h"

#include "model/times.h"

#include <algorithm>

namespace kestrune::manager {
namespace {

json_t time_form(uint64_t ns)
{
    return ns == 0 ? json_t(nullptr) : json_t(time_text(ns));
}

json_t text_form(const std::string &text)
{
    return text.empty() ? json_t(nullptr) : json_t(text);
}

template <typename T>
json_t optional_form(const std::optional<T> &value)
{
    return value ? json_t(*value) : json_t(nullptr);
}

json_t address_form(const ip_addr_t &addr)
{
    return ip_addr_text(addr).text;
}

json_t form(const reach_t &reach)
{
    return {{"avg", reach.avg}, {"min", reach.min}, {"max", reach.max}};
}

json_t form(const std::optional<drops_t> &drops)
{
    return drops ? json_t{{"kernel", drops->kernel}, {"interface", drops->interface}} : json_t(nullptr);
}

json_t form(const std::optional<file_t> &file)
{
    return file ? json_t{{"bytes", file->bytes}, {"packets", file->packets}, {"sha256", file->sha256}}
                : json_t(nullptr);
}

json_t form(const part_t &part)
{
    return {{"probe", part.probe},
            {"state", text_of(part.state)},
            {"live", text_of(part.live)},
            {"percent", part.percent},
            {"live_packets", part.live_packets},
            {"history_packets", part.history_packets},
            {"ended_by", text_form(std::string(text_of(part.ended_by)))},
            {"error", text_form(part.error)},
            {"files", part.elsewhere.empty() ? json_t(nullptr) : json_t(part.elsewhere)}};
}

json_t parts_form(const capture_t &capture)
{
    json_t parts = json_t::array();
    for (const part_t &part : capture.parts) {
        parts.push_back(form(part));
    }
    return parts;
}

json_t reference_form(const std::string &reference)
{
    return reference.empty() ? json_t(nullptr) : json_t::parse(reference, nullptr, false);
}

json_t limits_form(const std::optional<limits_t> &limits)
{
    return limits ? json_t{{"packets", limits->packets}, {"seconds", limits->seconds}} : json_t(nullptr);
}

json_t hold_form(const std::optional<hold_t> &hold)
{
    return hold ? json_t{{"why", hold->why}, {"by", hold->by}, {"at", time_form(hold->at)}} : json_t(nullptr);
}

json_t deleted_form(const std::optional<deleted_t> &deleted)
{
    return deleted ? json_t{{"cause", deleted->cause}, {"at", time_form(deleted->at)}} : json_t(nullptr);
}

json_t form(const capture_t &capture)
{
    return {{"id", capture.id.text()},
            {"address", address_form(capture.addr)},
            {"direction", text_of_direction(capture.direction)},
            {"state", text_of(capture.state)},
            {"reason", text_form(capture.reason)},
            {"reference", reference_form(capture.reference)},
            {"requested_at", time_form(capture.requested_at)},
            {"requested_by", capture.requested_by},
            {"ended_at", time_form(capture.ended_at)},
            {"percent", percent(capture)},
            {"limits", limits_form(capture.limits)},
            {"live_packets", live_packets(capture)},
            {"history_packets", history_packets(capture)},
            {"parts", parts_form(capture)},
            {"file", form(capture.file)},
            {"hold", hold_form(capture.hold)},
            {"error", text_form(capture.seal_error)},
            {"deleted", deleted_form(capture.deleted)}};
}

json_t captures_form(const std::vector<capture_t> &captures)
{
    json_t list = json_t::array();
    for (const capture_t &capture : captures) {
        list.push_back(form(capture));
    }
    return list;
}

json_t form(const std::optional<history_view_t> &history)
{
    if (!history) {
        return nullptr;
    }
    return {{"on", history->on},
            {"size_bytes", history->size_bytes},
            {"free_bytes", history->free_bytes},
            {"packets", history->packets},
            {"reach_s", form(history->reach)}};
}

json_t form(const probe_view_t &probe)
{
    return {{"name", probe.name},
            {"address", probe.address},
            {"state", text_of(probe.state)},
            {"since", time_form(probe.since)},
            {"queues", optional_form(probe.queues)},
            {"history", form(probe.history)},
            {"heavy", optional_form(probe.heavy)},
            {"rules", optional_form(probe.rules)},
            {"packets", optional_form(probe.packets)},
            {"drops", form(probe.drops)},
            {"error", text_form(probe.error)}};
}

json_t form(const alarm_t &alarm)
{
    return {{"key", alarm.key},
            {"probe", text_form(alarm.probe)},
            {"severity", alarm.severity == severity_t::WARNING ? "warning" : "error"},
            {"text", alarm.text},
            {"since", time_form(alarm.since)},
            {"ended_at", time_form(alarm.ended_at)}};
}

json_t form(const column_t &column)
{
    json_t list = json_t::array();
    for (const std::optional<double> &value : column) {
        list.push_back(optional_form(value));
    }
    return list;
}

// Texts of probes and files may have any bytes.
std::string text_of_json(const json_t &value)
{
    return value.dump(-1, ' ', false, json_t::error_handler_t::replace);
}

// Least and most over the probes.
json_t reach_of_parts(const capture_t &capture)
{
    uint64_t sum = 0;
    uint32_t count = 0;
    reach_t all = {0, UINT32_MAX, 0};
    for (const part_t &part : capture.parts) {
        if (part.reach) {
            sum += part.reach->avg;
            ++count;
            all.min = std::min(all.min, part.reach->min);
            all.max = std::max(all.max, part.reach->max);
        }
    }
    if (count == 0) {
        return nullptr;
    }
    all.avg = static_cast<uint32_t>(sum / count);
    return form(all);
}

const char *state_of_lookup(const capture_t &capture)
{
    if (capture.state == capture_state_t::FAILED) {
        return "failed";
    }
    const bool done = capture.state == capture_state_t::SEALED ||
                      (capture.state == capture_state_t::FINISHED && !capture.waits_for_sealing());
    return done ? "done" : "searching";
}

} // namespace

std::string json_of(const capture_t &capture)
{
    return text_of_json(form(capture));
}

std::string json_of(const std::vector<capture_t> &captures)
{
    return text_of_json({{"captures", captures_form(captures)}});
}

std::string json_of(const capture_page_t &page)
{
    return text_of_json({{"captures", captures_form(page.captures)}, {"next", text_form(page.next)}});
}

std::string json_of_lookup(const capture_t &capture, std::string_view summary)
{
    const bool open = capture.lookup_until == LOOKUP_OPEN;
    return text_of_json({{"id", capture.id.text()},
                         {"address", address_form(capture.addr)},
                         {"state", state_of_lookup(capture)},
                         {"requested_at", time_form(capture.requested_at)},
                         {"expires_at", open ? json_t(nullptr) : time_form(capture.lookup_until)},
                         {"reach_s", reach_of_parts(capture)},
                         {"history_packets", history_packets(capture)},
                         {"parts", parts_form(capture)},
                         {"summary", reference_form(std::string(summary))}});
}

std::string json_of(const probe_view_t &probe)
{
    return text_of_json(form(probe));
}

std::string json_of(const std::vector<probe_view_t> &probes)
{
    json_t list = json_t::array();
    for (const probe_view_t &probe : probes) {
        list.push_back(form(probe));
    }
    return text_of_json({{"probes", list}});
}

std::string json_of(const std::string &probe, const series_t &series)
{
    const json_t reach = {
        {"avg", form(series.reach_avg)}, {"min", form(series.reach_min)}, {"max", form(series.reach_max)}};
    return text_of_json({{"probe", probe},
                         {"from", time_form(series.from)},
                         {"step_s", series.step_s},
                         {"reach_s", reach},
                         {"packets_per_s", form(series.packets_per_s)},
                         {"drops_per_s", form(series.drops_per_s)}});
}

std::string json_of(const std::vector<alarm_t> &alarms)
{
    json_t list = json_t::array();
    for (const alarm_t &alarm : alarms) {
        list.push_back(form(alarm));
    }
    return text_of_json({{"alarms", list}});
}

std::string json_of(const alarm_t &alarm)
{
    return text_of_json(form(alarm));
}

std::string json_of(const capture_event_t &event)
{
    return text_of_json({{"id", event.id.text()},
                         {"address", address_form(event.addr)},
                         {"direction", text_of_direction(event.direction)},
                         {"state", text_of(event.state)},
                         {"percent", event.percent},
                         {"live_packets", event.live_packets},
                         {"history_packets", event.history_packets},
                         {"requested_at", time_form(event.requested_at)},
                         {"requested_by", event.requested_by},
                         {"ended_at", time_form(event.ended_at)},
                         {"file", form(event.file)},
                         {"hold", event.hold},
                         {"lookup", event.lookup}});
}

std::string json_of(const archive_view_t &view)
{
    return text_of_json({{"bytes", view.bytes},
                         {"raw_bytes", view.raw_bytes},
                         {"quota_bytes", optional_form(view.quota_bytes)},
                         {"free_bytes", view.free_bytes},
                         {"min_free_bytes", view.min_free_bytes},
                         {"captures", view.captures},
                         {"oldest", time_form(view.oldest)},
                         {"room", text_of(view.room)}});
}

std::string json_of(const std::vector<audit_t> &audit, uint64_t next)
{
    json_t rows = json_t::array();
    for (const audit_t &row : audit) {
        rows.push_back({{"number", row.number},
                        {"at", time_form(row.at)},
                        {"who", text_form(row.who)},
                        {"from", text_form(row.from)},
                        {"action", row.action},
                        {"object", text_form(row.object)},
                        {"detail", row.detail}});
    }
    return text_of_json({{"audit", rows}, {"next", next == 0 ? json_t(nullptr) : json_t(next)}});
}

std::string ticket_json(const std::string &url, uint64_t expires_at)
{
    return text_of_json({{"url", url}, {"expires_at", time_form(expires_at)}});
}

std::string problem_json(unsigned status, std::string_view title, std::string_view detail,
                         std::string_view field)
{
    json_t body = {{"type", "about:blank"}, {"title", title}, {"status", status}, {"detail", detail}};
    if (!field.empty()) {
        body["field"] = field;
    }
    return text_of_json(body);
}

} // namespace kestrune::manager
