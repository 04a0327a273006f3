// The last events, for listeners, and the alarms. Anyone may publish; the wake function tells the server that
// there is something new. Events are plain values; their text is made in forms/.
//
// Threads: any. Nothing here blocks.
#pragma once

#include "model/capture.h"
#include "model/lock.h"
#include "model/probe.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kestrune::manager {

constexpr size_t EVENTS_KEPT = 10'000;

enum class severity_t : uint8_t { WARNING, ERROR };

struct alarm_t {
    std::string key;   // probe-down/NAME, reach/NAME, drops/NAME, disk, catalogue, sealing/ID, files/NAME
    std::string probe; // empty: none
    severity_t severity = severity_t::WARNING;
    std::string text;
    uint64_t since = 0;
    uint64_t ended_at = 0; // 0: not over
};

// A capture's fields that an event tells.
struct capture_event_t {
    ulid_t id;
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
    capture_state_t state = capture_state_t::REQUESTED;
    uint8_t percent = 0;
    uint64_t live_packets = 0;
    uint64_t history_packets = 0;
    uint64_t requested_at = 0;
    std::string requested_by;
    uint64_t ended_at = 0;
    std::optional<file_t> file;
    bool hold = false;
    bool lookup = false; // one that is not kept
};
capture_event_t event_of(const capture_t &capture);

using event_body_t = std::variant<probe_view_t, capture_event_t, alarm_t>;

struct event_t {
    uint64_t number = 0; // from 1
    event_body_t body;
};

struct missed_events_t {
    bool reset = false; // some are no longer here, or the number is of another epoch
    std::vector<std::shared_ptr<const event_t>> events;
    uint64_t last = 0; // number of the newest event there is
};

class events_t {
public:
    // The epoch distinguishes the runs of the manager: an event's id is EPOCH-NUMBER.
    explicit events_t(uint64_t epoch);
    uint64_t epoch() const { return epoch_; }

    void publish(event_body_t body);
    // What came after this event, at most `most` of it. A number above `last` is none of this epoch.
    missed_events_t after(uint64_t number, size_t most) const;
    uint64_t last() const;

    // An alarm that is raised already, with the same text, stays as it is. Both publish what changed.
    void raise(const std::string &key, const std::string &probe, severity_t severity, const std::string &text,
               uint64_t now);
    void end(const std::string &key, uint64_t now);
    std::vector<alarm_t> alarms() const; // oldest first

    // Called after each publication, without a lock held; must not block. Set it before other threads run.
    void on_news(std::function<void()> wake) { wake_ = std::move(wake); }

private:
    void append_locked(event_body_t body) KS_REQUIRES(lock_);
    void wake() const;

    const uint64_t epoch_;
    std::function<void()> wake_;
    mutable lock_t lock_;
    uint64_t last_ KS_GUARDED_BY(lock_) = 0;
    std::deque<std::shared_ptr<const event_t>> log_ KS_GUARDED_BY(lock_); // the newest EVENTS_KEPT, in order
    std::map<std::string, alarm_t> alarms_ KS_GUARDED_BY(lock_);          // those that are not over, by key
};

} // namespace kestrune::manager
