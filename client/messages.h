// Messages of a probe, decoded and checked. All bytes from the network pass through decode_message.
#pragma once

#include "protocol/message.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace kestrune {

// One running rule.
struct detail_t {
    msg_ip_detail_t fields;
    std::string name; // bytes as the probe sent them, in any encoding
};

// A finished rule and its files, named relative to the probe's export directory.
struct visual_t {
    uint32_t rule_id = 0;
    uint32_t history_packets = 0;
    uint32_t live_packets = 0;
    std::vector<std::string> history_files; // in the order of the queues
    std::string live_file;                  // empty: none
};

using rule_list_t = std::vector<msg_ip_list_item_t>;
using update_t = std::variant<msg_update_incident_t, msg_update_capture_t, visual_t>;

struct status_t {
    uint8_t code; // msg_code::SUCCESS, FAIL or UNRECOGNIZED
};

using message_t = std::variant<status_t, rule_list_t, detail_t, msg_hb_info_t, update_t>;

// A longer list means that the client has lost its place in the stream.
constexpr uint32_t LIST_COUNT_MAX = 1U << 20;

// Decodes the message at the front of the bytes and says how many of them it took; nothing when it is not
// complete yet. Throws client_error_t: VERSION for the header of another version, MALFORMED for other bytes that
// no probe of this version sends: an unknown code or update type, a target other than 0, a direction above BOTH, a percentage above
// 100, a list of more than LIST_COUNT_MAX rules.
std::optional<message_t> decode_message(std::span<const uint8_t> bytes, size_t *used);

} // namespace kestrune
