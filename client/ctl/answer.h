// What a command came to on one probe: an object with the same fields in JSON and in text.
#pragma once

#include "client/ctl/console.h"
#include "client/error.h"
#include "client/messages.h"

#include <nlohmann/json.hpp>
#include <string>

namespace kestrune {

using json_t = nlohmann::ordered_json;

// NOLINTNEXTLINE(bugprone-exception-escape): the library declares its moves noexcept, and they throw nothing.
struct answer_t {
    json_t fields; // "probe" (not for merge), "command", "ok", and then of the command; of an error "status",
                   // "error"
    int status = EXIT_DONE;
};

// An answer that reports an error: its status, and a text that says what to do next.
answer_t failed_answer(const client_error_t &error, const options_t &options, const endpoint_t *endpoint);
// The beginning of an answer that is good.
answer_t good_answer(const options_t &options, const endpoint_t *endpoint);

json_t rules_fields(const rule_list_t &rules);
json_t detail_fields(const detail_t &detail);
json_t history_fields(const msg_hb_info_t &info);
json_t visual_fields(const visual_t &visual);
const char *direction_name(uint8_t direction);

// Prints an answer, in the form that the options ask for; a text names its probe when there are several.
void print_answer(const answer_t &answer, const options_t &options, console_t *console);
// One line, whatever bytes are in it.
std::string json_line(const json_t &fields);
// "12 live packets in web_5, 30 history packets in web_5_hc_0, web_5_hc_1", of visual_fields.
std::string files_text(const json_t &fields);

} // namespace kestrune
