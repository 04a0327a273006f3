// The results of commands. results.cpp has a JSON form for programs (to_json) and a text form for people
// (to_text) of each. Texts contain no control characters and end without a newline.
#pragma once

#include "client/ctl/exit_status.h"
#include "client/merge.h"
#include "client/messages.h"
#include "client/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kestrune {

struct added_t {
    add_request_t request = {}; // the rule as the plugin has it
    bool refused = false;
    bool without_capture = false; // added, but the requested live capture is not running
    bool renewed = false;         // the address is known to have had the rule already
    bool waited = false;
    bool finished = false;               // waited: no longer in the list
    std::optional<visual_t> report = {}; // waited: its files
};

struct add_summary_t {
    bool waited = false;
    size_t addresses = 0;
    size_t renewed = 0;
    size_t refused = 0;
    size_t without_capture = 0;
    size_t finished = 0; // this and the next two: waited
    uint64_t live_packets = 0;
    uint64_t history_packets = 0;
};

struct removed_t {
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
};

struct listed_rule_t {
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
    std::optional<detail_t> detail; // empty: no running live capture, or not requested
};

struct listed_t {
    bool brief = false;               // addresses alone
    std::vector<listed_rule_t> rules; // newest first
};

struct shown_t {
    detail_t detail;
};

struct history_on_t {
    uint32_t size_mb = 0; // 0: the plugin's default
};

struct history_off_t {};

struct history_state_t {
    msg_hb_info_t info = {};
};

struct heavy_t {
    uint32_t packets = 0;
};

struct merged_t {
    std::string output;
    std::vector<std::string> inputs;
    merge_result_t result;
};

struct verified_t {
    std::string path;
    bool good = false;
    std::string text; // what was found
};

// monostate: an error without details.
using result_t = std::variant<std::monostate, added_t, add_summary_t, removed_t, listed_t, shown_t,
                              history_on_t, history_off_t, history_state_t, heavy_t, merged_t, verified_t>;

std::string to_text(const result_t &result);

struct answer_t {
    std::string probe; // HOST:PORT; empty: this machine
    std::string command;
    int status = EXIT_DONE;
    std::string error; // a sentence for the user; may be empty
    result_t result = {};
    std::string hint = ""; // advice on a good result; may be empty
};

// One line: "probe", "command", "ok", the fields of the result, and for an error "status" and "error".
std::string to_json(const answer_t &answer);

// An update that watch shows.
struct event_t {
    std::string probe;
    std::string time;
    std::string address; // empty: not known
    update_t update;
};

std::string to_json(const event_t &event);
// "rule 7 (10.0.0.1) 40%"
std::string to_text(const event_t &event);

} // namespace kestrune
