// A capture, its parts and what is said about them: plain values. docs/manager.md draws the states.
#pragma once

#include "common/ip_addr.h"
#include "model/ids.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

enum class part_state_t : uint8_t { REQUESTED, RECORDING, SEARCHING, FINISHED, FAILED };
enum class capture_state_t : uint8_t { REQUESTED, RECORDING, SEARCHING, FINISHED, SEALED, FAILED, DELETED };
constexpr size_t CAPTURE_STATE_COUNT = 7;
enum class live_t : uint8_t { NONE, UNKNOWN, RUNNING, REFUSED, OVER };
enum class ended_by_t : uint8_t { NONE, PACKETS, TIME, REMOVED, ERROR, PROBE_GONE, UNKNOWN };

// The words of openapi.yaml; ended_by_t::NONE is the empty text.
std::string_view text_of(part_state_t state);
std::string_view text_of(capture_state_t state);
std::string_view text_of(live_t live);
std::string_view text_of(ended_by_t ended_by);
std::string_view text_of_direction(uint8_t direction); // src, dst, both
std::optional<capture_state_t> parse_capture_state(std::string_view text);
std::optional<uint8_t> parse_direction(std::string_view text);

struct limits_t {
    uint32_t packets = 0;
    uint32_t seconds = 0;
    bool operator==(const limits_t &) const = default;
};

// How far the rings reach back, seconds, over the queues.
struct reach_t {
    uint32_t avg = 0;
    uint32_t min = 0;
    uint32_t max = 0;
    bool operator==(const reach_t &) const = default;
};

// Packets that were lost before the probe's plugin saw them.
struct drops_t {
    uint64_t kernel = 0;
    uint64_t interface = 0;
    bool operator==(const drops_t &) const = default;
};

struct part_t {
    std::string probe;
    bool local = false; // the probe's files are on this machine
    part_state_t state = part_state_t::REQUESTED;
    live_t live = live_t::UNKNOWN;
    bool sent = false;    // an ADD may have gone out
    bool removed = false; // our REMOVE succeeded
    uint8_t percent = 0;
    uint64_t live_packets = 0; // so far as told; those of the files once sealed
    uint64_t history_packets = 0;
    std::optional<uint32_t> said_live; // by the probe at the end
    std::optional<uint32_t> said_history;
    ended_by_t ended_by = ended_by_t::NONE;
    std::string error;                  // a sentence; empty: none
    uint64_t sent_at = 0;               // the last ADD (also a renewal): its commit
    uint64_t started_at = 0;            // the rule stood
    uint64_t ended_at = 0;              // seen to be over, or failed
    std::optional<reach_t> reach;       // when it was asked
    std::optional<uint32_t> heavy;      // the same
    std::optional<drops_t> drops_begin; // totals at the start
    std::optional<drops_t> drops;       // between start and end
    std::vector<std::string> elsewhere; // files at a probe that is not local, as it told them
};

struct file_t {
    uint64_t bytes = 0;
    uint64_t packets = 0;
    std::string sha256; // 64 hexadecimal digits
};

struct hold_t {
    std::string why;
    std::string by;
    uint64_t at = 0;
};

struct deleted_t {
    std::string cause;
    uint64_t at = 0;
    bool files_gone = false; // tombstone written, files unlinked
};

constexpr uint64_t LOOKUP_OPEN = INT64_MAX; // lookup_until of a lookup that is not sealed yet

struct capture_t {
    ulid_t id;
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
    capture_state_t state = capture_state_t::REQUESTED;
    std::string reason;
    std::string reference; // JSON text of an object; empty: none
    std::string requested_by;
    uint64_t requested_at = 0;
    uint64_t started_at = 0; // the first rule stood
    uint64_t ended_at = 0;   // the last part was over
    uint64_t sealed_at = 0;
    uint64_t stop_at = 0;           // a stop was asked for
    std::string stop_why;           // empty: by a person
    uint64_t lookup_until = 0;      // 0: no lookup, or one that was kept
    std::optional<limits_t> limits; // none: history only
    std::vector<part_t> parts;      // in the order of the configuration
    std::optional<file_t> file;
    std::string manifest_sha256;
    std::optional<hold_t> hold;
    std::string seal_error; // why it could not be sealed yet
    std::optional<deleted_t> deleted;

    bool has_local_part() const;
    // Files wait, or will wait, to be sealed: finished, not sealed, with a local part.
    bool waits_for_sealing() const;
};

// What a capture's parts make of it: REQUESTED, RECORDING, SEARCHING, FINISHED or FAILED.
capture_state_t state_of_parts(const std::vector<part_t> &parts);
bool is_over(const part_t &part); // finished or failed
uint64_t live_packets(const capture_t &capture);
uint64_t history_packets(const capture_t &capture);
uint8_t percent(const capture_t &capture); // of its parts that did not fail, the average; 100 once over

struct capture_request_t {
    std::vector<ip_addr_t> addrs;    // each once
    std::vector<std::string> probes; // empty: all
    uint8_t direction = BOTH;
    limits_t limits; // 0: the configured default
    bool history_only = false;
    std::string reason;
    std::string reference; // JSON text of an object; empty: none
    bool renew = false;
};

// Who asks, for requested_by and the audit.
struct caller_t {
    std::string who;  // name of the token; empty: nobody
    std::string from; // network address
};

// An Idempotency-Key. It is honoured for a day and belongs to one token.
struct request_key_t {
    std::string key; // empty: none
    std::string body_sha256;
};

struct kept_answer_t {
    std::string who;
    std::string key;
    std::string body_sha256;
    uint64_t at = 0;
    bool created = false;    // 201, else 200
    std::vector<ulid_t> ids; // in the order of the answer
};

struct audit_t {
    uint64_t number = 0; // given by the catalogue
    uint64_t at = 0;
    std::string who;
    std::string from;
    std::string action; // a word of openapi.yaml
    std::string object; // id or probe
    std::string detail;
};

enum class sort_t : uint8_t { TIME, ADDRESS, PACKETS, BYTES };

struct capture_query_t {
    std::optional<ip_addr_t> addr;
    std::string probe;                   // empty: any
    std::vector<capture_state_t> states; // empty: all but deleted
    uint64_t since = 0;                  // requested_at from here
    uint64_t until = 0;                  // requested_at before; 0: no end
    std::string text;                    // found in reason, requested_by or reference
    sort_t sort = sort_t::TIME;
    bool descending = true;
    uint32_t limit = 100;
    std::string cursor; // `next` of the page before; empty: the first page
};

struct capture_page_t {
    std::vector<capture_t> captures;
    std::string next; // empty: the last page
};

} // namespace kestrune::manager
