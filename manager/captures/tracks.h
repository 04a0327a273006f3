// What the captures thread knows of each probe's connections. None of it is in the catalogue, so nothing of it is
// undone: observations that are applied a second time leave the same.
#pragma once

#include "captures/book.h"
#include "config/settings.h"

#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kestrune::manager {

struct track_t {
    bool configured = false;
    bool local = false;
    uint64_t session = 0;       // of requests; 0: none
    uint64_t ended = 0;         // the last session of requests that ended
    uint64_t updates = 0;       // of updates; 0: none
    uint64_t down_wall = 0;     // since then there is no session of requests
    uint64_t down_mono = 0;     // the same
    uint64_t refused_since = 0; // monotonic; nobody has listened since; 0: somebody may
    std::string text;           // why it is down

    size_t polls_out = 0;     // DETAILs of the last turn that are not answered
    uint64_t polled_at = 0;   // monotonic
    ulid_t polled;            // the last one in turn
    bool look_wanted = false; // for files of its parts
    bool look_out = false;
    std::unordered_map<uint32_t, ip_addr_t> rules;    // of our parts, by id in this session of updates
    std::unordered_set<ip_addr_t, addr_hash_t> asked; // unexplained rules whose name was asked for
    std::vector<ip_addr_t> to_ask;
};

using tracks_t = std::map<std::string, track_t>;

} // namespace kestrune::manager
