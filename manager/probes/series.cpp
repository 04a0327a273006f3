#include "probes/series.h"

#include <algorithm>

namespace kestrune::manager {

namespace {

class mean_t {
public:
    void add(double value)
    {
        sum_ += value;
        count_++;
    }
    std::optional<double> value() const { return count_ > 0 ? std::optional(sum_ / count_) : std::nullopt; }

private:
    double sum_ = 0;
    double count_ = 0;
};

} // namespace

series_ring_t::slot_t *series_ring_t::slot_of(int64_t now_s)
{
    const auto step = static_cast<uint32_t>(now_s / SERIES_STEP_S);
    slot_t &slot = slots_[step % SERIES_STEPS];
    if (slot.step != step) {
        slot = {step, 0, 1, 0, -1, -1};
    }
    if (step_ != step) {
        step_ = step;
        reach_sum_s_ = reach_count_ = 0;
        packets_ = drops_ = elapsed_s_ = 0;
    }
    return &slot;
}

void series_ring_t::add_reach(int64_t now_s, uint32_t avg_s, uint32_t min_s, uint32_t max_s)
{
    slot_t *slot = slot_of(now_s);
    const bool first = slot->reach_min_s > slot->reach_max_s;
    reach_sum_s_ += avg_s;
    reach_count_++;
    slot->reach_avg_s = static_cast<uint32_t>(reach_sum_s_ / reach_count_);
    slot->reach_min_s = first ? min_s : std::min(slot->reach_min_s, min_s);
    slot->reach_max_s = std::max({first ? 0 : slot->reach_max_s, max_s, slot->reach_min_s});
}

void series_ring_t::add_rates(int64_t now_s, double packets, double drops, double elapsed_s)
{
    slot_t *slot = slot_of(now_s);
    packets_ += packets;
    drops_ += drops;
    elapsed_s_ += elapsed_s;
    slot->packets_per_s = static_cast<float>(packets_ / elapsed_s_);
    slot->drops_per_s = static_cast<float>(drops_ / elapsed_s_);
}

series_point_t series_ring_t::read(int64_t begin_s, int64_t end_s) const
{
    mean_t reach_avg;
    mean_t packets;
    mean_t drops;
    series_point_t point;
    for (int64_t time_s = begin_s; time_s < end_s; time_s += SERIES_STEP_S) {
        const auto step = static_cast<uint32_t>(time_s / SERIES_STEP_S);
        const slot_t &slot = slots_[step % SERIES_STEPS];
        if (slot.step != step) {
            continue;
        }
        if (slot.reach_min_s <= slot.reach_max_s) {
            reach_avg.add(slot.reach_avg_s);
            point.reach_min_s =
                std::min<double>(point.reach_min_s.value_or(slot.reach_min_s), slot.reach_min_s);
            point.reach_max_s =
                std::max<double>(point.reach_max_s.value_or(slot.reach_max_s), slot.reach_max_s);
        }
        if (slot.packets_per_s >= 0) {
            packets.add(slot.packets_per_s);
            drops.add(slot.drops_per_s);
        }
    }
    point.reach_avg_s = reach_avg.value();
    point.packets_per_s = packets.value();
    point.drops_per_s = drops.value();
    return point;
}

} // namespace kestrune::manager
