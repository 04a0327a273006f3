#include "client/ctl/answer.h"

#include "protocol/message.h"

#include <algorithm>

namespace kestrune {

namespace {

int status_of(failure_t failure)
{
    switch (failure) {
    case failure_t::CONNECT:
        return EXIT_NO_CONNECTION;
    case failure_t::REFUSED:
    case failure_t::UNRECOGNIZED:
        return EXIT_REFUSED;
    case failure_t::INTERRUPTED:
        return EXIT_INTERRUPTED;
    default:
        return EXIT_FAILED;
    }
}

std::string refusal(int action, const options_t &options)
{
    const std::string addr = ip_addr_text(options.addr).text;
    switch (action) {
    case msg_action::ADD:
        return "the plugin refused to add " + addr +
               ", without saying why. Possible causes: it has a rule of another name (see 'list'; give that "
               "rule's name with -n, or 'remove' it first); its live capture is over while its history is "
               "still "
               "searched (wait until 'list' no longer shows it); the probe lacks memory, or a file name for "
               "the "
               "rule (see the probe's log)";
    case msg_action::REMOVE:
        return "there is no rule for " + addr +
               (options.direction == BOTH ? std::string() : " that holds this direction") +
               ": 'list' shows the rules and their directions";
    case msg_action::DETAIL:
        return "no live capture of " + addr +
               " is running: 'list' shows whether its rule is still searching the history, 'add' starts one";
    case msg_action::HISTORY:
        return options.command == command_t::HISTORY_OFF ? "the history buffers are off already, all or some "
                                                           "of them; 'history status' shows what is left"
                                                         : "the plugin did not turn the history buffers on: "
                                                           "they are on already, all or some of them "
                                                           "(see 'history status', and turn them 'off' "
                                                           "first), or the probe lacks memory for this size";
    case msg_action::INFO:
        return "the plugin takes no more clients for updates (128 at most): stop another 'watch' or '--wait'";
    default:
        return "the plugin refused; the probe's log says why";
    }
}

std::string advice(const client_error_t &error, const options_t &options, const std::string &probe)
{
    std::string what = error.what();
    switch (error.failure()) {
    case failure_t::CONNECT:
        return "cannot connect to " + probe + ": " + what +
               ". Is the probe running there with the plugin loaded, and is this the plugin's port? Name "
               "another "
               "with -s HOST:PORT";
    case failure_t::TIMEOUT:
        return what + ". The probe may be stopped or busy: try again, or wait longer with --timeout";
    case failure_t::CLOSED:
        return what +
               ". It serves 128 connections at a time, and may just have been stopped; its log says why";
    case failure_t::MALFORMED:
        return what + ". Does another service or another version listen there?";
    case failure_t::REFUSED:
        return error.action() != -1 ? refusal(error.action(), options) : what;
    case failure_t::UNRECOGNIZED:
        return what + ": its plugin is of another version than this program";
    default:
        return what;
    }
}

std::string rules_text(const json_t &rules)
{
    std::string text;
    for (const json_t &rule : rules) {
        std::string address = rule["address"];
        address.resize(std::max<size_t>(address.size(), 40), ' ');
        text += (text.empty() ? "" : "\n") + address + " " + rule["direction"].get<std::string>();
    }
    return text;
}

std::string show_text(const json_t &fields)
{
    const auto number = [&](const char *key) { return std::to_string(fields[key].get<uint32_t>()); };
    const auto time = [&](const char *key) { return format_duration(fields[key].get<uint32_t>()); };
    return "address:    " + fields["address"].get<std::string>() +
           "\ndirection:  " + fields["direction"].get<std::string>() +
           "\nname:       " + printable(fields["name"].get<std::string>()) +
           "\npackets:    " + number("packets") + " of " + number("packet_limit") +
           "\ntime:       " + time("elapsed_s") + " of " + time("time_limit_s") +
           "\nhistory:    " + number("history_progress") + "% searched";
}

std::string status_text(const json_t &fields)
{
    if (!fields["on"].get<bool>()) {
        return "history:         off (" + std::to_string(fields["queues"].get<uint32_t>()) +
               " queues)\nheavy threshold: " + std::to_string(fields["heavy_size"].get<uint32_t>()) +
               " packets";
    }
    const auto number = [&](const char *key) { return std::to_string(fields[key].get<uint32_t>()); };
    const auto bytes = [&](const char *key) { return format_bytes(fields[key].get<uint64_t>()); };
    const auto time = [&](const char *key) { return format_duration(fields[key].get<uint32_t>()); };
    return "history:         on, " + number("queues") + " queues\nsize:            " + bytes("size_bytes") +
           ", " + bytes("free_bytes") + " free\npackets held:    " + number("packets") +
           "\nreaching back:   " + time("time_span_avg_s") + " on average, " + time("time_span_min_s") +
           " to " + time("time_span_max_s") + "\nwaiting rules:   " + number("waiting_rules") +
           "\nheavy threshold: " + number("heavy_size") + " packets";
}

std::string add_text(const json_t &fields)
{
    const std::string rule = fields["address"].get<std::string>() + " (" +
                             fields["direction"].get<std::string>() + ") as '" +
                             printable(fields["name"].get<std::string>()) + "'";
    if (fields.contains("finished")) {
        return rule + " finished: " + files_text(fields);
    }
    if (fields["packet_limit"] == 0) {
        return "searching the history for " + rule;
    }
    return "recording " + rule + ", up to " + std::to_string(fields["packet_limit"].get<uint32_t>()) +
           " packets or " + format_duration(fields["time_limit_s"].get<uint32_t>());
}

std::string merge_text(const json_t &fields)
{
    std::string text = "merged " + std::to_string(fields["packets"].get<uint64_t>()) + " packets of " +
                       std::to_string(fields["files"].size()) + " files into " +
                       printable(fields["output"].get<std::string>());
    for (const json_t &file : fields["files"]) {
        if (file["cut"].get<bool>()) {
            text += "; " + printable(file["file"].get<std::string>()) + " ends in a cut record";
        }
    }
    return text;
}

std::string good_text(const json_t &fields, command_t command)
{
    switch (command) {
    case command_t::ADD:
        return add_text(fields);
    case command_t::REMOVE:
        return "removed " + fields["address"].get<std::string>() + " (" +
               fields["direction"].get<std::string>() + "); its files stay on the probe";
    case command_t::LIST:
        return rules_text(fields["rules"]);
    case command_t::SHOW:
        return show_text(fields);
    case command_t::HISTORY_ON:
        return "history on";
    case command_t::HISTORY_OFF:
        return "history off";
    case command_t::HISTORY_STATUS:
        return status_text(fields);
    case command_t::HEAVY:
        return "heavy threshold " + std::to_string(fields["heavy_size"].get<uint32_t>()) + " packets";
    case command_t::MERGE:
        return merge_text(fields);
    default: // a watch has no answer of its own
        return "";
    }
}

std::string indented(const std::string &text)
{
    std::string out = "  ";
    for (const char c : text) {
        out += c;
        if (c == '\n') {
            out += "  ";
        }
    }
    return out;
}

json_t names_or_null(const std::string &name)
{
    return name.empty() ? json_t(nullptr) : json_t(name);
}

} // namespace

const char *direction_name(uint8_t direction)
{
    static constexpr const char *NAMES[] = {"src", "dst", "both"};
    return direction <= BOTH ? NAMES[direction] : "unknown";
}

answer_t good_answer(const options_t &options, const endpoint_t *endpoint)
{
    answer_t answer;
    if (endpoint != nullptr) {
        answer.fields["probe"] = endpoint->text();
    }
    answer.fields["command"] = command_name(options.command);
    answer.fields["ok"] = true;
    return answer;
}

answer_t failed_answer(const client_error_t &error, const options_t &options, const endpoint_t *endpoint)
{
    answer_t answer = good_answer(options, endpoint);
    answer.status = status_of(error.failure());
    answer.fields["ok"] = false;
    answer.fields["status"] = answer.status;
    answer.fields["error"] = advice(error, options, endpoint != nullptr ? endpoint->text() : "");
    return answer;
}

json_t rules_fields(const rule_list_t &rules)
{
    json_t list = json_t::array();
    for (const msg_ip_list_item_t &rule : rules) {
        list.push_back(
            {{"address", ip_addr_text(rule.addr).text}, {"direction", direction_name(rule.direction)}});
    }
    return list;
}

json_t detail_fields(const detail_t &detail)
{
    const msg_ip_detail_t &fields = detail.fields;
    return {{"address", ip_addr_text(fields.addr).text},
            {"direction", direction_name(fields.direction)},
            {"name", detail.name},
            {"packets", fields.packets},
            {"packet_limit", fields.packet_limit},
            {"elapsed_s", fields.elapsed_s},
            {"time_limit_s", fields.time_limit_s},
            {"history_progress", fields.history_progress}};
}

json_t history_fields(const msg_hb_info_t &info)
{
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

json_t visual_fields(const visual_t &visual)
{
    return {{"live_packets", visual.live_packets},
            {"live_file", names_or_null(visual.live_file)},
            {"history_packets", visual.history_packets},
            {"history_files", visual.history_files}};
}

std::string json_line(const json_t &fields)
{
    return fields.dump(-1, ' ', false, json_t::error_handler_t::replace);
}

std::string files_text(const json_t &fields)
{
    std::string text = std::to_string(fields["live_packets"].get<uint32_t>()) + " live packets";
    if (!fields["live_file"].is_null()) {
        text += " in " + printable(fields["live_file"].get<std::string>());
    }
    text += ", " + std::to_string(fields["history_packets"].get<uint32_t>()) + " history packets";
    const char *separator = " in ";
    for (const json_t &file : fields["history_files"]) {
        text += separator + printable(file.get<std::string>());
        separator = ", ";
    }
    return text;
}

void print_answer(const answer_t &answer, const options_t &options, console_t *console)
{
    if (options.json) {
        console->data(json_line(answer.fields));
        return;
    }
    const bool named = options.probes.size() > 1 && answer.fields.contains("probe");
    const std::string probe = named ? answer.fields["probe"].get<std::string>() : "";
    if (!answer.fields["ok"].get<bool>()) {
        const std::string text = printable(answer.fields["error"].get<std::string>());
        console->note(console->painted(stderr, paint_t::RED, "kestrunectl:") + " " +
                      (named ? probe + ": " : "") + text);
        return;
    }
    const std::string text = good_text(answer.fields, options.command);
    if (text.empty()) {
        console->note((named ? probe + ": " : "") + "no rules");
    } else if (named) {
        console->data(console->painted(stdout, paint_t::BOLD, probe + ":") + "\n" + indented(text));
    } else {
        console->data(text);
    }
}

} // namespace kestrune
