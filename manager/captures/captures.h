// The life of captures: one thread that owns all whose life is not over, and the keeper, who does the archive's
// work. docs/manager.md draws the states and says what is written before who is told.
//
// Threads: any for the face; nothing here blocks but start, reload and stop. `done` is called on the captures
// thread (on the caller's after stop), without a lock held, and must not block.
#pragma once

#include "archive/archive.h"
#include "catalogue/catalogue.h"
#include "config/settings.h"
#include "events/events.h"
#include "model/capture.h"
#include "model/receipt.h"
#include "probes/probes.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

enum class result_t : uint8_t {
    CREATED,         // 201: at least one capture is new
    OK,              // 200
    BAD_VALUE,       // 400, with the field
    NOT_FOUND,       // 404
    WRONG_STATE,     // 409
    OTHER_DIRECTION, // 409
    OTHER_BODY,      // 422: the key was used with another body
    NO_ROOM,         // 507
    BROKEN,          // 503: the catalogue cannot be written, or the manager stops
};

struct reply_t {
    result_t result = result_t::OK;
    std::string text;  // a sentence for the caller; empty when it went well
    std::string field; // BAD_VALUE: for instance probes[1]
    std::vector<capture_t> captures;
};
using done_t = std::function<void(reply_t)>;

constexpr std::array<double, 10> SEALING_BOUNDS_S = {0.01, 0.05, 0.1, 0.5, 1, 5, 10, 60, 300, 1800};

struct captures_stats_t {
    bool ready = false;     // the state is rebuilt
    uint64_t turned_at = 0; // monotonic, the last turn of the thread
    bool catalogue_writable = true;
    uint64_t sealing_failures = 0;
    std::array<uint64_t, SEALING_BOUNDS_S.size() + 1> sealing_counts = {}; // by bound, the last: above all
    double sealing_seconds = 0;
};

// Borrowed; they outlive the captures.
struct neighbours_t {
    catalogue_t *catalogue = nullptr;
    archive_t *archive = nullptr;
    probes_t *probes = nullptr;
    events_t *events = nullptr;
};

class captures_t {
public:
    virtual ~captures_t() = default;
    // Rebuilds the state from the catalogue and begins the threads. Throws catalogue_error_t.
    virtual void start() = 0;
    virtual void reload(const settings_t &settings) = 0; // limits, archive, probes
    virtual void stop() = 0; // answers what waits with BROKEN; waits for the threads
    virtual void observe(observation_t observation) = 0; // the probes' sink

    // Answered when every part was, or after a second. `key.key` empty: none.
    virtual void record(capture_request_t request, caller_t caller, request_key_t key, done_t done) = 0;
    virtual void stop_capture(const ulid_t &id, caller_t caller, done_t done) = 0;
    virtual void hold(const ulid_t &id, bool on, std::string why, caller_t caller, done_t done) = 0;
    virtual void erase(const ulid_t &id, caller_t caller, done_t done) = 0; // files go afterwards
    virtual void lookup(const ip_addr_t &addr, std::vector<std::string> probes, caller_t caller,
                        done_t done) = 0;
    virtual void keep_lookup(const ulid_t &id, caller_t caller, done_t done) = 0;
    virtual void drop_lookup(const ulid_t &id, caller_t caller, done_t done) = 0;
    // A row of another room: download, refused, history, heavy, ticket, tokens, reload. `at` is set here when 0.
    virtual void audit(audit_t row) = 0;

    virtual captures_stats_t stats() const = 0;
    virtual archive_view_t archive_view() const = 0;
};

std::unique_ptr<captures_t> make_captures(const settings_t &settings, const neighbours_t &neighbours);

} // namespace kestrune::manager
