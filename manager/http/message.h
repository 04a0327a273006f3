// Requests and answers as plain values. The connections fill and send them; the gate and the routes know nothing else
// of HTTP.
#pragma once

#include "model/capture.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrune::manager {

// What a token may do; each role may do what the ones before it may.
enum class role_t : uint8_t { NONE, READ, RECORD, ADMIN };

// The lines of a header that anything here looks at. One that is not there is nothing.
struct http_fields_t {
    std::optional<std::string> host;
    std::optional<std::string> origin;
    std::optional<std::string> authorization;
    std::optional<std::string> content_type;
    std::optional<std::string> idempotency_key;
    std::optional<std::string> range;
    std::optional<std::string> if_range;
    std::optional<std::string> if_none_match;
    std::optional<std::string> last_event_id;
    std::optional<std::string> forwarded_for;
    std::optional<std::string> accept_encoding;
    std::optional<std::string> expect;
    std::string repeated; // name of a field that stood there twice and may not; empty: none
};

struct http_request_t {
    std::string method;
    std::string target; // path and query as they came
    http_fields_t fields;
    std::optional<uint64_t> length; // of the body, when the header says it
    bool chunked = false;
    std::string body; // filled after the gate let the header pass

    std::vector<std::string> segments; // what stands at the places of the route's pattern; set by the gate
    caller_t caller;                   // the connection sets `from`, the gate `who`
    role_t role = role_t::NONE;        // set by the gate
};

// Bytes of a file that follow the header of an answer. `owner` keeps the descriptor open.
struct file_bytes_t {
    int fd = -1; // borrowed from owner
    uint64_t offset = 0;
    uint64_t length = 0;
    std::shared_ptr<const void> owner;
};

struct http_answer_t {
    unsigned status = 200;
    std::string content_type; // empty: no body
    std::string body;
    std::vector<std::pair<std::string, std::string>> fields; // beside the ones that every answer has
    std::optional<file_bytes_t> file;                        // in place of body
    std::string cache;                                       // Cache-Control; empty: not to be stored
    bool page = false;         // for a browser to show: another Content-Security-Policy
    bool close = false;        // the connection ends after it
    bool stream = false;       // events follow for as long as the listener stays
    std::string last_event_id; // stream: what the listener had; empty: begin with the next event
};

// application/problem+json. `detail` is a sentence; `field` the field or parameter that is wrong, or empty.
http_answer_t problem(unsigned status, std::string_view detail, std::string_view field = {});

http_answer_t json_answer(unsigned status, std::string body);

std::string_view reason_phrase(unsigned status);

// Status line and header as they are sent, with an empty line at the end.
std::string header_text(const http_answer_t &answer, bool keep_alive);

} // namespace kestrune::manager
