#include "client/ctl/results.h"

#include "client/text_forms.h"
#include "common/clock.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace kestrune {

namespace {

using json_t = nlohmann::ordered_json;

// One line, whatever bytes it contains.
std::string line(const json_t &fields)
{
    return fields.dump(-1, ' ', false, json_t::error_handler_t::replace);
}

const char *direction_name(uint8_t direction)
{
    static constexpr const char *NAMES[] = {"src", "dst", "both"};
    return direction <= BOTH ? NAMES[direction] : "unknown";
}

json_t text_or_null(const std::string &text)
{
    return text.empty() ? json_t(nullptr) : json_t(text);
}

json_t visual_fields(const visual_t &visual)
{
    return {{"live_packets", visual.live_packets},
            {"live_file", text_or_null(visual.live_file)},
            {"history_packets", visual.history_packets},
            {"history_files", visual.history_files}};
}

// "12 live packets in web_5, 30 history packets in web_5_hc_0, web_5_hc_1"
std::string files_text(const visual_t &visual)
{
    std::string text = std::to_string(visual.live_packets) + " live packets";
    if (!visual.live_file.empty()) {
        text += " in " + printable(visual.live_file);
    }
    text += ", " + std::to_string(visual.history_packets) + " history packets";
    const char *separator = " in ";
    for (const std::string &file : visual.history_files) {
        text += separator + printable(file);
        separator = ", ";
    }
    return text;
}

json_t to_json(const std::monostate &)
{
    return json_t::object();
}

std::string to_text(const std::monostate &)
{
    return "";
}

json_t to_json(const added_t &added)
{
    const add_request_t &request = added.request;
    json_t fields = {{"address", ip_addr_text(request.addr).text},
                     {"direction", direction_name(request.direction)},
                     {"name", request.name},
                     {"packet_limit", request.packet_limit},
                     {"time_limit_s", request.time_limit_s}};
    if (added.without_capture) {
        fields["without_capture"] = true;
    }
    if (added.waited || added.renewed) {
        fields["renewed"] = added.renewed;
    }
    if (added.waited) {
        fields["finished"] = added.finished;
    }
    if (added.report) {
        fields["rule"] = added.report->rule_id;
        fields.update(visual_fields(*added.report));
    }
    return fields;
}

std::string to_text(const added_t &added)
{
    const add_request_t &request = added.request;
    const std::string rule = std::string(ip_addr_text(request.addr).text) + " (" +
                             direction_name(request.direction) + ") as '" + printable(request.name) + "'";
    if (added.report) {
        return rule + " finished: " + files_text(*added.report);
    }
    if (request.packet_limit == 0) {
        return "searching the history for " + rule;
    }
    return std::string(added.renewed ? "renewed " : "recording ") + rule + ", up to " +
           std::to_string(request.packet_limit) + " packets or " + format_duration(request.time_limit_s);
}

json_t to_json(const add_summary_t &sum)
{
    json_t fields = {{"addresses", sum.addresses},
                     {"renewed", sum.renewed},
                     {"refused", sum.refused},
                     {"without_capture", sum.without_capture}};
    if (sum.waited) {
        fields["finished"] = sum.finished;
        fields["live_packets"] = sum.live_packets;
        fields["history_packets"] = sum.history_packets;
    }
    return {{"summary", fields}};
}

std::string to_text(const add_summary_t &sum)
{
    std::string text = std::to_string(sum.addresses) +
                       " addresses: " + std::to_string(sum.addresses - sum.refused) + " added";
    const auto part = [&text](size_t count, const char *what) {
        text += count != 0 ? ", " + std::to_string(count) + " " + what : "";
    };
    part(sum.renewed, "of them renewed");
    part(sum.without_capture, "without live capture");
    part(sum.refused, "refused");
    return !sum.waited ? text
                       : text + "; " + std::to_string(sum.finished) + " finished with " +
                             std::to_string(sum.live_packets) + " live packets and " +
                             std::to_string(sum.history_packets) + " history packets";
}

json_t to_json(const removed_t &removed)
{
    return {{"address", ip_addr_text(removed.addr).text}, {"direction", direction_name(removed.direction)}};
}

std::string to_text(const removed_t &removed)
{
    return "removed " + std::string(ip_addr_text(removed.addr).text) + " (" +
           direction_name(removed.direction) + "); its files stay on the probe";
}

json_t detail_fields(const detail_t &detail)
{
    const msg_ip_detail_t &fields = detail.fields;
    return {{"name", detail.name},
            {"packets", fields.packets},
            {"packet_limit", fields.packet_limit},
            {"elapsed_s", fields.elapsed_s},
            {"time_limit_s", fields.time_limit_s},
            {"history_progress", fields.history_progress}};
}

json_t to_json(const listed_t &listed)
{
    json_t rules = json_t::array();
    for (const listed_rule_t &rule : listed.rules) {
        json_t fields = {{"address", ip_addr_text(rule.addr).text},
                         {"direction", direction_name(rule.direction)}};
        if (!listed.brief) {
            fields["live"] = rule.detail.has_value();
        }
        if (rule.detail) {
            fields.update(detail_fields(*rule.detail));
        }
        rules.push_back(std::move(fields));
    }
    return {{"rules", rules}};
}

// Columns on a terminal; continuation bytes of UTF-8 take none.
size_t width_of(const std::string &text)
{
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

using row_t = std::vector<std::string>;

// Columns as wide as their widest cell. From `first_right` on, cells are right-aligned.
std::string table_text(const std::vector<row_t> &rows, size_t first_right)
{
    std::vector<size_t> widths(rows.front().size());
    for (const row_t &row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], width_of(row[i]));
        }
    }
    std::string text;
    for (const row_t &row : rows) {
        text += text.empty() ? "" : "\n";
        for (size_t i = 0; i < row.size(); i++) {
            const std::string padding(widths[i] - std::min(widths[i], width_of(row[i])), ' ');
            text += i == 0 ? "" : "  ";
            text += i >= first_right ? padding + row[i] : i + 1 < row.size() ? row[i] + padding : row[i];
        }
    }
    return text;
}

std::string brief_text(const listed_t &listed)
{
    std::string text;
    for (const listed_rule_t &rule : listed.rules) {
        text += (text.empty() ? "" : "\n") + std::string(ip_addr_text(rule.addr).text);
    }
    return text;
}

std::string to_text(const listed_t &listed)
{
    if (listed.brief || listed.rules.empty()) {
        return brief_text(listed);
    }
    static constexpr size_t FIRST_NUMBER = 3;
    std::vector<row_t> rows = {
        {"ADDRESS", "DIRECTION", "NAME", "PACKETS", "LIMIT", "TIME", "LIMIT", "HISTORY"}};
    for (const listed_rule_t &rule : listed.rules) {
        row_t row = {ip_addr_text(rule.addr).text, direction_name(rule.direction), "no live capture"};
        if (rule.detail) {
            const msg_ip_detail_t &fields = rule.detail->fields;
            row = {row[0],
                   row[1],
                   printable(rule.detail->name),
                   std::to_string(fields.packets),
                   std::to_string(fields.packet_limit),
                   format_duration(fields.elapsed_s),
                   format_duration(fields.time_limit_s),
                   std::to_string(fields.history_progress) + "%"};
        }
        rows.push_back(std::move(row));
    }
    return table_text(rows, FIRST_NUMBER);
}

json_t to_json(const shown_t &shown)
{
    json_t fields = {{"address", ip_addr_text(shown.detail.fields.addr).text},
                     {"direction", direction_name(shown.detail.fields.direction)}};
    fields.update(detail_fields(shown.detail));
    return fields;
}

std::string to_text(const shown_t &shown)
{
    const msg_ip_detail_t &fields = shown.detail.fields;
    return "address:    " + std::string(ip_addr_text(fields.addr).text) +
           "\ndirection:  " + direction_name(fields.direction) +
           "\nname:       " + printable(shown.detail.name) +
           "\npackets:    " + std::to_string(fields.packets) + " of " + std::to_string(fields.packet_limit) +
           "\ntime:       " + format_duration(fields.elapsed_s) + " of " +
           format_duration(fields.time_limit_s) + "\nhistory:    " + std::to_string(fields.history_progress) +
           "% searched";
}

json_t to_json(const history_on_t &on)
{
    return {{"size_mb", on.size_mb != 0 ? json_t(on.size_mb) : json_t(nullptr)}};
}

std::string to_text(const history_on_t &)
{
    return "history on";
}

json_t to_json(const history_off_t &)
{
    return json_t::object();
}

std::string to_text(const history_off_t &)
{
    return "history off";
}

json_t to_json(const history_state_t &state)
{
    const msg_hb_info_t &info = state.info;
    return {{"on", info.size != 0},
            {"queues", info.queue_count},
            {"packets", info.packets},
            {"time_span_avg_s", info.time_span_avg_s},
            {"time_span_min_s", info.time_span_min_s},
            {"time_span_max_s", info.time_span_max_s},
            {"waiting_rules", info.rules},
            {"heavy_size", info.heavy_size},
            {"size_bytes", info.size},
            {"free_bytes", info.free}};
}

std::string to_text(const history_state_t &state)
{
    const msg_hb_info_t &info = state.info;
    const std::string queues = std::to_string(info.queue_count) + " queues";
    const std::string heavy = "\nheavy threshold: " + std::to_string(info.heavy_size) + " packets";
    if (info.size == 0) {
        return "history:         off (" + queues + ")" + heavy;
    }
    return "history:         on, " + queues + "\nsize:            " + format_bytes(info.size) + ", " +
           format_bytes(info.free) + " free\npackets held:    " + std::to_string(info.packets) +
           "\nreaching back:   " + format_duration(info.time_span_avg_s) + " on average, " +
           format_duration(info.time_span_min_s) + " to " + format_duration(info.time_span_max_s) +
           "\nwaiting rules:   " + std::to_string(info.rules) + heavy;
}

json_t to_json(const heavy_t &heavy)
{
    return {{"heavy_size", heavy.packets}};
}

std::string to_text(const heavy_t &heavy)
{
    return "heavy threshold " + std::to_string(heavy.packets) + " packets";
}

// Seconds since the epoch with nine decimals; null without packets.
json_t seconds_or_null(const merge_result_t &result, uint64_t time_ns)
{
    if (result.total == 0) {
        return nullptr;
    }
    const std::string fraction = std::to_string(time_ns % NS_PER_S);
    return std::to_string(time_ns / NS_PER_S) + "." + std::string(9 - fraction.size(), '0') + fraction;
}

json_t to_json(const merged_t &merged)
{
    const merge_result_t &result = merged.result;
    json_t files = json_t::array();
    for (size_t i = 0; i < merged.inputs.size(); i++) {
        files.push_back(
            {{"file", merged.inputs[i]}, {"packets", result.packets[i]}, {"cut", bool{result.cut[i]}}});
    }
    return {{"output", merged.output},
            {"packets", result.total},
            {"first", seconds_or_null(result, result.first_ns)},
            {"last", seconds_or_null(result, result.last_ns)},
            {"files", files}};
}

std::string to_text(const merged_t &merged)
{
    std::string text = "merged " + std::to_string(merged.result.total) + " packets of " +
                       std::to_string(merged.inputs.size()) + " files into " + printable(merged.output);
    for (size_t i = 0; i < merged.inputs.size(); i++) {
        if (merged.result.cut[i]) {
            text += "; " + printable(merged.inputs[i]) + " ends in a cut record";
        }
    }
    return text;
}

json_t to_json(const verified_t &verified)
{
    return {{"path", verified.path}, {"good", verified.good}, {"found", verified.text}};
}

std::string to_text(const verified_t &verified)
{
    return printable(verified.path) + ": " + printable(verified.text);
}

uint32_t rule_id(const update_t &update)
{
    return std::visit([](const auto &of) { return of.rule_id; }, update);
}

} // namespace

std::string to_text(const result_t &result)
{
    return std::visit([](const auto &of) { return to_text(of); }, result);
}

std::string to_json(const answer_t &answer)
{
    json_t fields;
    if (!answer.probe.empty()) {
        fields["probe"] = answer.probe;
    }
    if (!answer.command.empty()) {
        fields["command"] = answer.command;
    }
    fields["ok"] = answer.status == EXIT_DONE;
    fields.update(std::visit([](const auto &of) { return to_json(of); }, answer.result));
    if (answer.status != EXIT_DONE) {
        fields["status"] = answer.status;
    }
    if (!answer.error.empty()) {
        fields["error"] = answer.error;
    }
    if (!answer.hint.empty()) {
        fields["hint"] = answer.hint;
    }
    return line(fields);
}

std::string to_json(const event_t &event)
{
    json_t fields = {{"probe", event.probe},
                     {"time", event.time},
                     {"event", "incident"},
                     {"rule", rule_id(event.update)},
                     {"address", text_or_null(event.address)}};
    if (const auto *capture = std::get_if<msg_update_capture_t>(&event.update)) {
        fields["event"] = "capture";
        fields["progress"] = capture->progress;
    } else if (const auto *visual = std::get_if<visual_t>(&event.update)) {
        fields["event"] = "visual";
        fields.update(visual_fields(*visual));
    }
    return line(fields);
}

std::string to_text(const event_t &event)
{
    std::string text = "rule " + std::to_string(rule_id(event.update)) +
                       (event.address.empty() ? "" : " (" + event.address + ")");
    if (const auto *capture = std::get_if<msg_update_capture_t>(&event.update)) {
        return text + " " + std::to_string(capture->progress) + "%";
    }
    if (const auto *visual = std::get_if<visual_t>(&event.update)) {
        return text + " finished: " + files_text(*visual);
    }
    return text + " created";
}

} // namespace kestrune
