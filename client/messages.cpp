#include "client/messages.h"

#include "client/error.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace kestrune {

namespace {

[[noreturn]] void malformed(const std::string &what, failure_t failure = failure_t::MALFORMED)
{
    throw client_error_t(failure, "what came is not the control protocol 0.9: " + what);
}

void check_direction(uint8_t direction)
{
    if (direction > BOTH) {
        malformed("direction " + std::to_string(direction));
    }
}

void check_percent(uint8_t percent)
{
    if (percent > 100) {
        malformed("progress of " + std::to_string(percent) + " percent");
    }
}

void decode_server_header(msg_reader_t *in, msg_header_t *header)
{
    msg_decode(in, header);
    if (!msg_version_supported(*header)) {
        malformed("version " + std::to_string(header->version_major) + "." +
                      std::to_string(header->version_minor),
                  failure_t::VERSION);
    }
    if (header->target != 0) {
        malformed("a target of " + std::to_string(header->target) + " in an answer");
    }
}

// A text of this many bytes; reads nothing when they are incomplete.
bool get_text(msg_reader_t *in, uint32_t size, std::string *text)
{
    if (in->failed || size > in->size - in->used) {
        in->failed = true;
        return false;
    }
    text->resize(size);
    return msg_get_bytes(in, text->data(), size);
}

std::optional<message_t> decode_list(msg_reader_t *in)
{
    uint32_t count = 0;
    if (!msg_get_u32(in, &count)) {
        return std::nullopt;
    }
    if (count > LIST_COUNT_MAX) {
        malformed("a list of " + std::to_string(count) + " rules");
    }
    // Allocate only for records that are present.
    if (in->size - in->used < count * MSG_IP_LIST_ITEM_SIZE) {
        return std::nullopt;
    }
    rule_list_t list(count);
    for (msg_ip_list_item_t &item : list) {
        msg_decode(in, &item);
        check_direction(item.direction);
    }
    return list;
}

std::optional<message_t> decode_detail(msg_reader_t *in)
{
    detail_t detail = {};
    if (!msg_decode(in, &detail.fields)) {
        return std::nullopt;
    }
    check_direction(detail.fields.direction);
    check_percent(detail.fields.history_progress);
    if (!get_text(in, detail.fields.name_length, &detail.name)) {
        return std::nullopt;
    }
    return detail;
}

std::optional<message_t> decode_history(msg_reader_t *in)
{
    msg_hb_info_t info;
    return msg_decode(in, &info) ? std::optional<message_t>(info) : std::nullopt;
}

// Built in place: moving the nested variants triggers false warnings of uninitialised members in g++ 12.
template <typename T>
std::optional<message_t> update(T value)
{
    return std::optional<message_t>(std::in_place, std::in_place_type<update_t>, std::in_place_type<T>,
                                    std::move(value));
}

// A name may contain commas, but a history file's name ends in "_hc_" and its queue.
bool ends_a_file_name(std::string_view text)
{
    static constexpr std::string_view MARK = "_hc_";
    const size_t last = text.find_last_not_of("0123456789");
    return last != std::string_view::npos && last + 1 < text.size() &&
           text.substr(0, last + 1).ends_with(MARK);
}

std::vector<std::string> split_file_names(std::string_view list)
{
    std::vector<std::string> names;
    size_t start = 0;
    for (size_t comma = list.find(','); comma != std::string_view::npos; comma = list.find(',', comma + 1)) {
        if (ends_a_file_name(list.substr(start, comma - start))) {
            names.emplace_back(list.substr(start, comma - start));
            start = comma + 1;
        }
    }
    if (start < list.size()) {
        names.emplace_back(list.substr(start));
    }
    return names;
}

std::optional<message_t> decode_visual(msg_reader_t *in)
{
    msg_update_visual_t fixed;
    std::string history;
    visual_t visual;
    msg_decode(in, &fixed);
    if (in->failed || !get_text(in, fixed.history_length, &history) ||
        !get_text(in, fixed.live_length, &visual.live_file)) {
        return std::nullopt;
    }
    visual.rule_id = fixed.rule_id;
    visual.history_packets = fixed.history_packets;
    visual.live_packets = fixed.live_packets;
    visual.history_files = split_file_names(history);
    return update(std::move(visual));
}

std::optional<message_t> decode_capture(msg_reader_t *in)
{
    msg_update_capture_t capture;
    if (!msg_decode(in, &capture)) {
        return std::nullopt;
    }
    check_percent(capture.progress);
    return update(capture);
}

std::optional<message_t> decode_update(msg_reader_t *in)
{
    if (in->used == in->size) {
        return std::nullopt;
    }
    switch (const uint8_t type = in->bytes[in->used]; type) {
    case msg_update::INCIDENT: {
        msg_update_incident_t incident;
        return msg_decode(in, &incident) ? update(incident) : std::nullopt;
    }
    case msg_update::CAPTURE:
        return decode_capture(in);
    case msg_update::VISUAL:
        return decode_visual(in);
    default:
        malformed("an update of type " + std::to_string(type));
    }
}

std::optional<message_t> decode_body(uint8_t code, msg_reader_t *in)
{
    switch (code) {
    case msg_code::SUCCESS:
    case msg_code::FAIL:
    case msg_code::UNRECOGNIZED:
        return status_t{code};
    case msg_code::IP_LIST:
        return decode_list(in);
    case msg_code::IP_DETAIL:
        return decode_detail(in);
    case msg_code::HB_INFO:
        return decode_history(in);
    case msg_code::UPDATE:
        return decode_update(in);
    default:
        malformed("a message of code " + std::to_string(code));
    }
}

} // namespace

std::optional<message_t> decode_message(std::span<const uint8_t> bytes, size_t *used)
{
    static constexpr size_t MESSAGE_MAX =
        MSG_HEADER_SIZE + MSG_VALUE_SIZE + static_cast<size_t>(LIST_COUNT_MAX) * MSG_IP_LIST_ITEM_SIZE;
    if (bytes.size() < MSG_HEADER_SIZE) {
        return std::nullopt;
    }
    const auto size = static_cast<uint32_t>(bytes.size() < MESSAGE_MAX ? bytes.size() : MESSAGE_MAX);
    msg_reader_t in = msg_reader(bytes.data(), size);
    msg_header_t header;
    decode_server_header(&in, &header);
    std::optional<message_t> message = decode_body(header.code, &in);
    *used = message ? in.used : 0;
    return message;
}

} // namespace kestrune
