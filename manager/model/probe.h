// What is known of a probe.
#pragma once

#include "model/capture.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

enum class probe_state_t : uint8_t { UP, DOWN, INCOMPATIBLE };
std::string_view text_of(probe_state_t state);

struct history_view_t {
    bool on = false;
    uint64_t size_bytes = 0;
    uint64_t free_bytes = 0;
    uint32_t packets = 0;
    reach_t reach;
};

struct probe_view_t {
    std::string name;
    std::string address; // HOST:PORT
    probe_state_t state = probe_state_t::DOWN;
    uint64_t since = 0;
    std::optional<uint32_t> queues;
    std::optional<history_view_t> history;
    std::optional<uint32_t> heavy; // packets of a flow that the history keeps
    std::optional<uint32_t> rules;
    std::optional<uint64_t> packets; // since the probe's start
    std::optional<drops_t> drops;    // the same
    std::string error;               // a sentence; empty: none
};

// Columns of one length, a value a step; nothing where the step was not measured.
using column_t = std::vector<std::optional<double>>;

struct series_t {
    uint64_t from = 0;
    uint32_t step_s = 0;
    column_t reach_avg;
    column_t reach_min;
    column_t reach_max;
    column_t packets_per_s;
    column_t drops_per_s;
};

} // namespace kestrune::manager
