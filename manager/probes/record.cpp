#include "probes/record.h"

#include "common/clock.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

namespace {

constexpr uint64_t DROPS_ALARM_NS = 60 * NS_PER_S; // it ends when none came for so long
constexpr uint64_t SERIES_S = uint64_t{SERIES_STEPS} * SERIES_STEP_S;

int64_t now_s()
{
    return static_cast<int64_t>(wall_now_ns() / NS_PER_S);
}

// What an event is worth.
bool same_to_a_listener(const probe_view_t &a, const probe_view_t &b)
{
    const auto history = [](const probe_view_t &view) {
        return view.history ? std::pair(view.history->on, view.history->size_bytes)
                            : std::pair(false, uint64_t{0});
    };
    return a.state == b.state && a.error == b.error && a.queues == b.queues && history(a) == history(b) &&
           a.heavy == b.heavy && a.rules == b.rules;
}

} // namespace

record_t::record_t(const probe_settings_t &settings, uint32_t min_reach_s, events_t *events)
    : name_(settings.name), events_(events), min_reach_s_(min_reach_s)
{
    const hold_lock_t held(lock_);
    view_.name = settings.name;
    view_.address = settings.endpoint.text();
    view_.since = wall_now_ns();
    view_.error = "no connection yet";
}

void record_t::retire()
{
    for (const char *alarm : {"probe-down/", "reach/", "drops/", "files/"}) {
        events_->end(alarm + name_, wall_now_ns());
    }
}

void record_t::came_up()
{
    {
        const hold_lock_t held(lock_);
        view_.state = probe_state_t::UP;
        view_.since = wall_now_ns();
        view_.error.clear();
    }
    events_->end("probe-down/" + name_, wall_now_ns());
}

void record_t::went_down(probe_state_t state, const std::string &error)
{
    const uint64_t now = wall_now_ns();
    {
        const hold_lock_t held(lock_);
        view_.since = view_.state == state ? view_.since : now;
        view_.state = state;
        view_.error = error;
        view_.queues.reset();
        view_.history.reset();
        view_.heavy.reset();
        view_.rules.reset();
    }
    events_->end("reach/" + name_, now);
    events_->raise("probe-down/" + name_, name_, severity_t::ERROR, error, now);
    tell_changes();
}

void record_t::polled(const msg_hb_info_t &info, std::optional<size_t> rule_count)
{
    {
        const hold_lock_t held(lock_);
        const reach_t reach = {info.time_span_avg_s, info.time_span_min_s, info.time_span_max_s};
        view_.queues = info.queue_count;
        view_.history = history_view_t{info.size > 0, info.size, info.free, info.packets, reach};
        view_.heavy = info.heavy_size;
        if (rule_count) {
            view_.rules = static_cast<uint32_t>(*rule_count);
        }
        if (info.size > 0) {
            ring_.add_reach(now_s(), reach.avg, reach.min, reach.max);
        }
    }
    check_reach(info);
    tell_changes();
}

void record_t::check_reach(const msg_hb_info_t &info)
{
    const uint32_t least = min_reach_s_;
    if (least == 0 || info.size == 0 || info.time_span_min_s >= least) {
        events_->end("reach/" + name_, wall_now_ns());
        return;
    }
    events_->raise("reach/" + name_, name_, severity_t::WARNING,
                   "the history reaches back less than " + std::to_string(least) + " s", wall_now_ns());
}

void record_t::counted(const probe_counters_t &counters)
{
    const uint64_t now = monotonic_now_ns();
    const auto drops = [](const probe_counters_t &of) { return of.kernel_drops + of.interface_drops; };
    const bool goes_on = counters_ && counters.start_s == counters_->start_s &&
                         counters.packets >= counters_->packets && drops(counters) >= drops(*counters_);
    const uint64_t dropped = goes_on ? drops(counters) - drops(*counters_) : 0;
    {
        const hold_lock_t held(lock_);
        metrics_error_.clear();
        view_.packets = counters.packets;
        view_.drops = drops_t{counters.kernel_drops, counters.interface_drops};
        if (goes_on && now > counted_ns_) {
            ring_.add_rates(now_s(), static_cast<double>(counters.packets - counters_->packets),
                            static_cast<double>(dropped),
                            static_cast<double>(now - counted_ns_) / static_cast<double>(NS_PER_S));
        }
    }
    counters_ = counters;
    counted_ns_ = now;
    check_drops(dropped);
}

void record_t::check_drops(uint64_t dropped)
{
    const uint64_t now = monotonic_now_ns();
    if (dropped > 0) {
        dropped_ns_ = now;
        events_->raise("drops/" + name_, name_, severity_t::WARNING,
                       "packets are dropped before the probe sees them", wall_now_ns());
    } else if (dropped_ns_ != 0 && now - dropped_ns_ > DROPS_ALARM_NS) {
        dropped_ns_ = 0;
        events_->end("drops/" + name_, wall_now_ns());
    }
}

void record_t::not_counted(const std::string &error)
{
    const hold_lock_t held(lock_);
    metrics_error_ = error;
    view_.packets.reset();
    view_.drops.reset();
}

void record_t::set_updates_error(const std::string &error)
{
    const hold_lock_t held(lock_);
    updates_error_ = error;
}

void record_t::tell_changes()
{
    probe_view_t now = view();
    if (!told_ || !same_to_a_listener(*told_, now)) {
        told_ = now;
        events_->publish(std::move(now));
    }
}

probe_view_t record_t::view_locked() const
{
    probe_view_t view = view_;
    if (view.error.empty() && !updates_error_.empty()) {
        view.error = "no updates: " + updates_error_;
    } else if (view.error.empty() && !metrics_error_.empty()) {
        view.error = "no metrics: " + metrics_error_;
    }
    return view;
}

probe_view_t record_t::view() const
{
    const hold_lock_t held(lock_);
    return view_locked();
}

series_t record_t::series(uint64_t from_ns, uint32_t step_s) const
{
    const auto now = static_cast<uint64_t>(now_s());
    const uint64_t earliest = now > SERIES_S ? now - SERIES_S + SERIES_STEP_S : 0;
    const uint64_t from = std::max(from_ns / NS_PER_S, earliest) / SERIES_STEP_S * SERIES_STEP_S;
    series_t series;
    series.from = from * NS_PER_S;
    series.step_s = step_s;
    const hold_lock_t held(lock_);
    for (uint64_t begin = from; begin <= now; begin += step_s) {
        const uint64_t end = std::min(begin + step_s, now + 1);
        const series_point_t point = ring_.read(static_cast<int64_t>(begin), static_cast<int64_t>(end));
        series.reach_avg.push_back(point.reach_avg_s);
        series.reach_min.push_back(point.reach_min_s);
        series.reach_max.push_back(point.reach_max_s);
        series.packets_per_s.push_back(point.packets_per_s);
        series.drops_per_s.push_back(point.drops_per_s);
    }
    return series;
}

} // namespace kestrune::manager
