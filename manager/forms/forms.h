// JSON forms (docs/openapi.yaml) of requests, captures, probes, events, receipts. What comes from outside is
// decoded strictly: an unknown or repeated field is refused. Manifests and summaries are written by archive/,
// whose bytes are hashed.
#pragma once

#include "config/settings.h"
#include "events/events.h"
#include "model/capture.h"
#include "model/probe.h"
#include "model/receipt.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

// What a body or a parameter has wrong: a sentence, and the field (addresses[3]; empty: the whole).
class form_error_t : public std::runtime_error {
public:
    form_error_t(const std::string &field, const std::string &text) : std::runtime_error(text), field_(field)
    {
    }
    const std::string &field() const { return field_; }

private:
    std::string field_;
};

struct lookup_request_t {
    ip_addr_t addr = {};
    std::vector<std::string> probes; // empty: all
};
struct hold_request_t {
    bool hold = false;
    std::string why;
};
struct history_request_t {
    bool on = false;
    uint32_t size_mb = 0;
};

// All throw form_error_t.
capture_request_t parse_capture_request(std::string_view body, const limit_settings_t &limits);
lookup_request_t parse_lookup_request(std::string_view body);
hold_request_t parse_hold_request(std::string_view body);
history_request_t parse_history_request(std::string_view body);
uint32_t parse_heavy_request(std::string_view body);

std::string json_of(const capture_t &capture);
std::string json_of(const std::vector<capture_t> &captures); // {"captures":[...]}
std::string json_of(const capture_page_t &page);
std::string json_of_lookup(const capture_t &capture,
                           std::string_view summary); // summary: JSON text, or empty
std::string json_of(const probe_view_t &probe);
std::string json_of(const std::vector<probe_view_t> &probes);
std::string json_of(const std::string &probe, const series_t &series);
std::string json_of(const std::vector<alarm_t> &alarms);
std::string json_of(const alarm_t &alarm);
std::string json_of(const capture_event_t &event);
std::string json_of(const archive_view_t &view);
std::string json_of(const std::vector<audit_t> &audit, uint64_t next);
std::string ticket_json(const std::string &url, uint64_t expires_at);
// title: the status in words. field: empty, where no field is wrong.
std::string problem_json(unsigned status, std::string_view title, std::string_view detail,
                         std::string_view field);

} // namespace kestrune::manager
