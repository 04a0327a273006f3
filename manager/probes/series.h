// What a probe measured over the last 24 hours, in steps of 10 s: reach of the rings, packets a second, drops a
// second. Inside of probes/.
//
// A ring of SERIES_STEPS slots, 24 bytes each (207 KiB a probe, however long it runs). A step's slot is its number
// modulo the ring's length, and holds the number beside the values: a slot of another number is a step that was not
// measured. So gaps, restarts and clocks that are set need no bookkeeping.
//
// Threads: none of its own; the owner's lock guards it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace kestrune::manager {

constexpr uint32_t SERIES_STEP_S = 10;
constexpr uint32_t SERIES_STEPS = 24 * 3600 / SERIES_STEP_S;

// Of one step, or of several put together. Nothing where it was not measured.
struct series_point_t {
    std::optional<double> reach_avg_s;
    std::optional<double> reach_min_s;
    std::optional<double> reach_max_s;
    std::optional<double> packets_per_s;
    std::optional<double> drops_per_s;
};

class series_ring_t {
public:
    series_ring_t() : slots_(SERIES_STEPS) {}

    // now_s: seconds since the epoch. Several readings of a step: the least min, the greatest max, the mean avg.
    void add_reach(int64_t now_s, uint32_t avg_s, uint32_t min_s, uint32_t max_s);
    // packets and drops that were counted in the `elapsed_s` before now, above 0.
    void add_rates(int64_t now_s, double packets, double drops, double elapsed_s);

    // The point of the steps from `begin_s` (a multiple of SERIES_STEP_S) to before `end_s`: the least min, the
    // greatest max, the mean of everything else.
    series_point_t read(int64_t begin_s, int64_t end_s) const;

private:
    struct slot_t {
        uint32_t step = 0; // its number, seconds since the epoch / SERIES_STEP_S
        uint32_t reach_avg_s = 0;
        uint32_t reach_min_s = 0; // above reach_max_s: not measured
        uint32_t reach_max_s = 0;
        float packets_per_s = 0; // below 0: not measured
        float drops_per_s = 0;
    };
    slot_t *slot_of(int64_t now_s);

    std::vector<slot_t> slots_;
    // Of the step that is measured now.
    uint64_t reach_sum_s_ = 0;
    uint32_t reach_count_ = 0;
    double packets_ = 0;
    double drops_ = 0;
    double elapsed_s_ = 0;
    uint32_t step_ = 0;
};

} // namespace kestrune::manager
