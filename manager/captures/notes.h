// What a turn wants done once it is committed, and what the keeper is asked and says.
#pragma once

#include "archive/archive.h"
#include "archive/retention.h"
#include "captures/captures.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <variant>
#include <vector>

namespace kestrune::manager {

// For the keeper.
struct seal_job_t {
    capture_t capture;
    bool must_rest = false; // a probe is gone: its files must not have changed lately
};
struct raw_job_t { // raw files of a sealed capture go
    ulid_t id;
};
struct bury_job_t {
    ulid_t id;
    std::string cause;
    uint64_t at = 0;
};
struct look_job_t { // which captures have raw files at this probe?
    std::string probe;
};
using job_t = std::variant<seal_job_t, raw_job_t, bury_job_t, look_job_t>;

// By the keeper.
struct seal_result_t {
    ulid_t id;
    std::optional<sealed_t> sealed;
    bool early = false; // its files have changed lately: again soon, no failure
    std::string error;
    double seconds = 0;
};
struct bury_result_t {
    ulid_t id;
    std::string error; // empty: done
};
struct look_result_t {
    std::string probe;
    bool readable = false;
    std::unordered_set<ulid_t> ids;
};
struct sweep_result_t {
    std::string probe;
    std::string error;            // its directory cannot be read
    std::vector<ulid_t> unsealed; // captures with raw files there, of which the catalogue has no sealed file
    uint64_t strays = 0;          // files that belong to nobody
    std::string example;          // name of one
};
struct room_result_t {
    archive_view_t view;
    std::vector<victim_t> victims;
};
using keeper_result_t =
    std::variant<seal_result_t, bury_result_t, look_result_t, sweep_result_t, room_result_t>;

// Whose answer a tag brings.
struct asker_t {
    std::optional<ulid_t> id; // none: a rule in a LIST that no running part explains
    std::string probe;
    ip_addr_t addr = {};
    bool is_poll = false;
};

struct alarm_note_t {
    std::string key;
    std::string probe;
    severity_t severity = severity_t::WARNING;
    std::string text; // empty: it is over
};

struct asked_t {
    ask_t ask;
    asker_t asker;
};

struct notes_t {
    bool durable = false;
    std::vector<audit_t> audit;
    std::vector<kept_answer_t> kept_answers;
    std::map<std::string, std::vector<asked_t>> asks; // by probe
    std::vector<job_t> jobs;
    std::vector<alarm_note_t> alarms;
    std::vector<std::string> log;
};

} // namespace kestrune::manager
