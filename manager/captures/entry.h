// A capture whose life is not over, as the captures thread has it: what is in the catalogue, and what is known
// of each part beside that.
#pragma once

#include "model/capture.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

// Both clocks in nanoseconds: `wall` for what is written down, `mono` for deadlines.
struct now_t {
    uint64_t wall = 0;
    uint64_t mono = 0;
};

enum class phase_t : uint8_t {
    WAITING, // for another rule of its address to go; nothing was sent
    SENT,    // an ADD went out; its answer, or DETAIL and LIST behind it, are awaited
    STANDS,  // its rule was seen in this session
    FIND,    // whether it stands must be found out by LIST, DETAIL and files
    OVER,
};

// The present of a part. All times are monotonic; 0: none.
struct run_t {
    phase_t phase = phase_t::OVER;
    bool add_out = false; // asked and not answered
    bool detail_out = false;
    bool remove_out = false;
    bool acked = false;            // SENT: the ADD succeeded
    bool refused = false;          // SENT: it failed
    bool detail_refused = false;   // no live capture runs under the address
    bool lost = false;             // a session ended while it stood
    bool looked = false;           // its files were looked for since it is in FIND
    bool files = false;            // there are some
    bool told_over = false;        // a VISUAL came while an ADD was out
    uint8_t refusals = 0;          // ADDs that failed while LIST lacked the address
    std::optional<bool> shown;     // by the last LIST behind the ADD
    std::optional<uint32_t> rule;  // its id in this session of updates
    uint64_t until = 0;            // WAITING, FIND: then given up
    uint64_t gone_since = 0;       // a LIST lacked it; its VISUAL is awaited
    uint64_t stood_at = 0;         // the ADD succeeded
    uint64_t seen_at = 0;          // DETAIL had our name
    uint64_t live_over_at = 0;     // DETAIL had it no longer
    uint32_t seen_elapsed_s = 0;   // as that DETAIL said
    uint32_t said_live_before = 0; // packets of rules that ended before a renewal began another
    uint32_t said_history_before = 0;
};

// Its rule has stood at the probe.
inline bool stood(const part_t &part)
{
    return part.started_at != 0;
}

enum class sealing_t : uint8_t { NONE, QUEUED, LATER };

struct entry_t {
    capture_t capture;
    std::string name;        // of its rules: the id as text
    std::vector<run_t> runs; // one a part
    sealing_t sealing = sealing_t::NONE;
    uint64_t seal_at = 0;    // LATER: then
    uint32_t seal_tries = 0; // that failed
    bool bury_out = false;
    uint64_t bury_at = 0; // next attempt
    uint64_t told_at = 0; // its last event
    capture_state_t told_state = capture_state_t::REQUESTED;
};

} // namespace kestrune::manager
