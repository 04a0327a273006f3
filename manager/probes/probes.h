// Sessions with the probes: two threads a probe, reconnecting. Requests go in as batches; everything that comes
// back is told to one sink, in the order in which it was seen on each connection.
//
// Threads: any for the face. The sink is called on a probe's threads, without a lock held, and must not block. For a
// probe that is not reachable, and for a name that is not known, submit and change answer at once (NOT_SENT, or the
// sentence), on the caller's thread.
// Probes are named as in the configuration.
#pragma once

#include "client/messages.h"
#include "config/settings.h"
#include "events/events.h"
#include "model/probe.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kestrune::manager {

enum class ask_kind_t : uint8_t { ADD, REMOVE, DETAIL, LIST };

struct ask_t {
    ask_kind_t kind = ask_kind_t::LIST;
    uint64_t tag = 0;         // the caller's; comes back with the answer
    ip_addr_t addr = {};      // all but LIST
    uint8_t direction = BOTH; // ADD, REMOVE
    limits_t limits;          // ADD; zeros: history only
    std::string name;         // ADD
};

// Requests that go out together, in their order; runs of one kind are sent ahead of their replies.
using batch_t = std::vector<ask_t>;

enum class outcome_t : uint8_t {
    DONE,     // SUCCESS, or for DETAIL a reply
    REFUSED,  // FAIL
    LOST,     // sent, perhaps only in part, and not answered
    NOT_SENT, // nothing of it went out
};

struct answer_t {
    ask_kind_t kind = ask_kind_t::LIST;
    uint64_t tag = 0;
    outcome_t outcome = outcome_t::NOT_SENT;
    std::optional<detail_t> detail; // DETAIL that was DONE
};

// A session number is never used again. Those of the updates connection are of the same series.
struct session_began_t {
    std::string probe;
    uint64_t session = 0;
    bool updates = false; // the updates connection (registered); else the one for requests
};
// Also told after each vain attempt to connect, with the same session 0.
struct session_ended_t {
    std::string probe;
    uint64_t session = 0;
    bool updates = false;
    bool refused = false; // nobody listens there: the process is gone
    uint64_t at = 0;
    std::string text; // a sentence
};
struct answers_t {
    std::string probe;
    uint64_t session = 0;          // 0: NOT_SENT for want of one
    std::vector<answer_t> answers; // of one run; a LIST comes as listed_t before its answer
};
// Polled, or asked for in a batch. What was answered before it on the same session was carried out before it.
struct listed_t {
    std::string probe;
    uint64_t session = 0;
    rule_list_t rules;
};
struct updated_t {
    std::string probe;
    uint64_t session = 0; // of the updates connection
    update_t update;
};
using observation_t = std::variant<session_began_t, session_ended_t, answers_t, listed_t, updated_t>;
using probe_sink_t = std::function<void(observation_t)>;

struct history_change_t {
    bool on = false;
    uint32_t size_mb = 0;
};
struct heavy_change_t {
    uint32_t packets = 0;
};
using probe_change_t = std::variant<history_change_t, heavy_change_t>;

class probes_t {
public:
    virtual ~probes_t() = default;
    // Begins the threads of these probes, ends those of probes that are no longer named or have another
    // address; the rest go on. Blocks until ended threads are gone. Main's thread only.
    virtual void configure(const std::vector<probe_settings_t> &probes, uint32_t min_reach_s) = 0;
    virtual void stop() = 0; // all threads; waits for them

    // Every ask of the batch gets exactly one answer.
    virtual void submit(const std::string &probe, batch_t batch) = 0;
    // `done` is called with an empty text when the probe did it (views show it then), else with a sentence; on another
    // thread, or at once (above). It must not block.
    virtual void change(const std::string &probe, const probe_change_t &change,
                        std::function<void(std::string)> done) = 0;

    virtual std::vector<probe_view_t> views() const = 0; // in the order of the configuration
    virtual std::optional<probe_view_t> view(const std::string &probe) const = 0;
    // `step_s` a multiple of 10; nothing for a name that is not known.
    virtual std::optional<series_t> series(const std::string &probe, uint64_t from,
                                           uint32_t step_s) const = 0;
};

// The real ones. They publish `probe` events and the alarms probe-down, reach and drops. `events` is borrowed.
std::unique_ptr<probes_t> make_probes(probe_sink_t sink, events_t *events);

} // namespace kestrune::manager
