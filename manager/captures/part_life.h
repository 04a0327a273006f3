// The life of a part: what each observation makes of it. docs/manager.md draws the states.
//
// Threads: the captures thread only. Everything here changes memory and notes what is to be done; nothing is sent
// or told before the turn is committed.
#pragma once

#include "captures/book.h"
#include "captures/notes.h"
#include "captures/tracks.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestrune::manager {

constexpr uint64_t ADDRESS_WAIT_NS = 20'000'000'000; // for another rule of the address to go
constexpr uint64_t FIND_WAIT_NS = 20'000'000'000;    // for a lost request to show itself
constexpr uint64_t VISUAL_WAIT_NS = 2'000'000'000;   // from the LIST that lacks a rule
constexpr uint64_t REFUSED_GONE_NS = 10'000'000'000; // nobody listens: the probe's process ended
constexpr uint64_t SILENT_GONE_NS = 60'000'000'000;  // no answer, counted from the time limit
constexpr uint32_t MONITOR_PASS_S = 7;               // the plugin's check, and our polling
constexpr uint64_t LOOKUP_KEPT_NS = 600'000'000'000; // after its end

class part_life_t {
public:
    part_life_t(book_t *book, tracks_t *tracks) : book_(book), tracks_(tracks) {}

    // Begins a turn. The notes are borrowed until the next one.
    void begin(const now_t &now, notes_t *notes);

    // A part of a new capture: sent, or failed when the probe is down.
    void request(entry_t *entry, size_t part);
    // A part that is not asked for, and why.
    void fail(entry_t *entry, size_t part, const std::string &error);
    // The running rule gets the capture's limits anew.
    void renew(entry_t *entry, size_t part);
    // The capture's stop_at is set.
    void stop(entry_t *entry, size_t part);
    // A part from the catalogue, at start.
    void resume(entry_t *entry, size_t part);
    // Raw files came of a part that had failed.
    void revive(entry_t *entry, size_t part);

    void answered(entry_t *entry, size_t part, uint64_t session, const answer_t &answer);
    void listed(entry_t *entry, size_t part, uint64_t session, bool shown);
    void looked(entry_t *entry, size_t part, bool files);
    void session_began(entry_t *entry, size_t part);
    void session_ended(entry_t *entry, size_t part);
    void incident(entry_t *entry, size_t part, uint32_t rule);
    void progress(entry_t *entry, size_t part, uint8_t percent);
    void visual(entry_t *entry, size_t part, const visual_t &visual);
    void tick(entry_t *entry, size_t part);
    // Something else changed: the capture's state follows from its parts.
    void follow(entry_t *entry);

private:
    void send(entry_t *entry, size_t part);
    void ask_part(entry_t *entry, size_t part, ask_kind_t kind);
    void add_answered(entry_t *entry, size_t part, uint64_t session, outcome_t outcome);
    void detail_answered(entry_t *entry, size_t part, const answer_t &answer);
    void detail_refused(entry_t *entry, size_t part);
    void detail_foreign(entry_t *entry, size_t part);
    void remove_answered(entry_t *entry, size_t part, outcome_t outcome);
    void listed_sent(entry_t *entry, size_t part, bool shown);
    void listed_standing(entry_t *entry, size_t part, bool shown);
    void listed_find(entry_t *entry, size_t part, bool shown);
    void record(entry_t *entry, size_t part, const detail_t &detail);
    void search(entry_t *entry, size_t part, live_t live);
    void find(entry_t *entry, size_t part);
    void judge(entry_t *entry, size_t part);
    void tick_down(entry_t *entry, size_t part, const track_t &track);
    void wait_for_address(entry_t *entry, size_t part);
    bool address_is_ours(const entry_t &entry, size_t part) const;
    void over(entry_t *entry, size_t part, bool gone = false);
    ended_by_t cause(const entry_t &entry, size_t part, bool gone) const;
    track_t &track_of(const entry_t &entry, size_t part);

    book_t *book_;
    tracks_t *tracks_;
    now_t now_;
    notes_t *notes_ = nullptr;
};

} // namespace kestrune::manager
