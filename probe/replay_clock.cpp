#include "probe/replay_clock.h"

#include <algorithm>
#include <utility>

namespace probe {
namespace {

constexpr uint64_t GAP_NS = 1000; // between a shifted file and the packet before it

// `base + distance`, at least 0: a packet may be older than the file's first one (an unsorted file).
uint64_t add_distance(uint64_t base, double distance)
{
    constexpr double LIMIT = 9.2e18;
    const auto whole = static_cast<int64_t>(std::clamp(distance, -LIMIT, LIMIT));
    if (whole < 0) {
        const uint64_t back = static_cast<uint64_t>(-whole);
        return back < base ? base - back : 0;
    }
    return base + static_cast<uint64_t>(whole);
}

} // namespace

replay_clock_t::replay_clock_t(const replay_mode_t &mode, clock_t wall, clock_t monotonic)
    : mode_(mode), wall_(std::move(wall)), monotonic_(std::move(monotonic))
{
}

void replay_clock_t::begin_file(uint64_t recorded_ns)
{
    first_of_file_ = false;
    file_first_ns_ = recorded_ns;
    if (mode_.speed > 0) {
        file_monotonic_ns_ = monotonic_();
    }
    if (mode_.rebased) {
        file_wall_ns_ = std::max(wall_(), newest_ns_ + 1);
    } else if (mode_.looped && newest_ns_ != 0 && recorded_ns + shift_ns_ <= newest_ns_) {
        shift_ns_ = newest_ns_ + GAP_NS - recorded_ns;
    }
}

// `base_ns` plus the packet's distance from the file's first one, at the replay's speed.
uint64_t replay_clock_t::scaled(uint64_t recorded_ns, uint64_t base_ns) const
{
    if (mode_.speed == 1 && recorded_ns >= file_first_ns_) { // exact to the nanosecond
        return base_ns + (recorded_ns - file_first_ns_);
    }
    const auto distance = static_cast<double>(static_cast<int64_t>(recorded_ns - file_first_ns_));
    return add_distance(base_ns, distance / mode_.speed);
}

replay_clock_t::due_t replay_clock_t::next(uint64_t recorded_ns)
{
    if (first_of_file_) {
        begin_file(recorded_ns);
    }
    due_t due = {0, recorded_ns + shift_ns_};
    if (mode_.speed > 0) {
        due.monotonic_ns = scaled(recorded_ns, file_monotonic_ns_);
    }
    if (mode_.rebased) {
        due.timestamp_ns =
            mode_.speed > 0 ? scaled(recorded_ns, file_wall_ns_) : std::max(wall_(), newest_ns_ + 1);
    }
    newest_ns_ = std::max(newest_ns_, due.timestamp_ns);
    return due;
}

} // namespace probe
