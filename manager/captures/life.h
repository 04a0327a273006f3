// The captures thread without its thread: commands, observations and the keeper's results in; a transaction, and
// what follows from it, out. A turn:
//
//   begin; any number of commands, observe, kept, tick; commit what changes() says; then settle(), which gives
//   what is to be done, or undo(). Then the caller answers the turn's commands, and gives the observations again
//   in a later turn.
//
// Threads: the captures thread only. Reads of the catalogue (captures that are over) block on the disk.
#pragma once

#include "captures/captures.h"
#include "captures/notes.h"
#include "captures/part_life.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrune::manager {

constexpr uint64_t ANSWER_WAIT_NS = 1'000'000'000; // for the probes, before a request is answered
constexpr size_t POLL_MOST = 50;                   // DETAILs a turn and probe
constexpr uint64_t POLL_NS = 1'000'000'000;        // between turns

// What settle() leaves to the thread.
struct effects_t {
    std::vector<std::pair<std::string, batch_t>> batches;
    std::vector<job_t> jobs;
    std::vector<event_body_t> events;
    std::vector<alarm_note_t> alarms;
    std::vector<std::string> log;
    std::vector<std::pair<done_t, reply_t>> answers;
};

class life_t {
public:
    life_t(const settings_t &settings, const neighbours_t &neighbours);
    void configure(const settings_t &settings, const now_t &now);

    void begin(const now_t &now);
    void rebuild(std::vector<capture_t> unfinished); // in the first turn
    void record(const capture_request_t &request, const caller_t &caller, const request_key_t &key,
                done_t done);
    void stop(const ulid_t &id, const caller_t &caller, done_t done);
    void hold(const ulid_t &id, bool on, const std::string &why, const caller_t &caller, done_t done);
    void erase(const ulid_t &id, const caller_t &caller, done_t done);
    void lookup(const ip_addr_t &addr, const std::vector<std::string> &probes, const caller_t &caller,
                done_t done);
    void keep_lookup(const ulid_t &id, const caller_t &caller, done_t done);
    void drop_lookup(const ulid_t &id, const caller_t &caller, done_t done);
    void audit(audit_t row);
    void observe(const observation_t &observation);
    void kept(const keeper_result_t &result);
    void tick();

    changes_t changes() const; // valid until settle or undo
    durability_t durability() const { return notes_.durable ? durability_t::DURABLE : durability_t::ORDERLY; }
    effects_t settle();
    void undo(); // answers nobody

    bool is_idle() const { return book_.size() == 0; }
    effects_t give_up(); // answers everyone who waits: the manager stops, or cannot go on

private:
    struct waiter_t { // a request whose parts are not all answered
        std::vector<ulid_t> ids;
        bool created = false;
        uint64_t until = 0; // monotonic
        done_t done;
    };
    struct pending_t { // an answer of this turn
        done_t done;
        reply_t reply; // captures are filled in by ids
        std::vector<ulid_t> ids;
    };

    // Commands.
    bool check(const capture_request_t &request, std::vector<std::string> *probes, const done_t &done);
    bool answer_from_key(const caller_t &caller, const request_key_t &key, const done_t &done);
    entry_t &create(const ip_addr_t &addr, const capture_request_t &request, const caller_t &caller,
                    const std::vector<std::string> &probes, bool is_lookup = false);
    void renew(entry_t *entry, const capture_request_t &request, const caller_t &caller);
    void stop_entry(entry_t *entry, const std::string &why);
    void erase_entry(entry_t *entry, const std::string &cause);
    entry_t *take_lookup(const ulid_t &id, const done_t &done);
    entry_t *take(const ulid_t &id); // from memory, else from the catalogue for this turn
    void refuse(const done_t &done, result_t result, const std::string &text, const std::string &field = {});
    void answer(const done_t &done, result_t result, std::vector<ulid_t> ids);
    void note_audit(const caller_t &caller, const char *action, const std::string &object,
                    const std::string &detail);
    probe_view_t view_of(const std::string &probe);

    // Observations.
    void see(const session_began_t &seen);
    void see(const session_ended_t &seen);
    void see(const answers_t &seen);
    void see(const listed_t &seen);
    void see(const updated_t &seen);
    void see_orphan(const std::string &probe, const asker_t &asker, const answer_t &answer);
    // function(entry, part) for the parts of a probe that are not over.
    using part_function_t = std::function<void(entry_t *, size_t)>;
    void for_parts(const std::string &probe, const part_function_t &function);
    // The same for the parts whose rule this is; a look-up, since updates come by the thousand.
    void for_rule(const std::string &probe, uint32_t rule, const part_function_t &function);
    bool is_explained(const std::string &probe, const ip_addr_t &addr); // by a part that is not over
    void see_visual(const std::string &probe, const visual_t &visual);

    // The keeper's results.
    void see(const seal_result_t &seen);
    void see(const bury_result_t &seen);
    void see(const look_result_t &seen);
    void see(const sweep_result_t &seen);
    void see(const room_result_t &seen);
    void seal(entry_t *entry, const sealed_t &sealed);
    void tick_entry(entry_t *entry);
    void note_drops(part_t *part);

    // After the commit.
    void settle_asks(effects_t *effects);
    void settle_polls();
    void poll(const std::string &probe, entry_t *entry, std::vector<asked_t> *asks);
    void settle_entries(effects_t *effects);
    void settle_answers(effects_t *effects);
    void answer_waiters(effects_t *effects);
    bool is_settled(const entry_t &entry) const;
    std::vector<capture_t> captures_of(const std::vector<ulid_t> &ids);

    settings_t settings_;
    neighbours_t neighbours_;
    ulid_maker_t ids_;
    book_t book_;
    tracks_t tracks_;
    part_life_t parts_;
    archive_view_t room_;

    now_t now_;
    notes_t notes_; // of this turn
    std::vector<pending_t> pending_;
    std::vector<waiter_t> new_waiters_;
    std::vector<uint64_t> used_tags_;
    std::map<std::string, probe_view_t> views_; // read in this turn

    std::vector<waiter_t> waiters_;
    std::unordered_map<uint64_t, asker_t> askers_; // by tag
    uint64_t last_tag_ = 0;
    std::vector<std::string> looks_; // probes whose files are to be looked at; not undone
};

} // namespace kestrune::manager
