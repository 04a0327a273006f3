// What is known of one probe: its state, what it said last, a day of measurements. Publishes the `probe` event when
// its state, its rules or its settings change (not for reach and packets, which change with each look), and keeps the
// alarms probe-down, reach and drops. Inside of probes/.
//
// Threads: any. came_up, went_down and polled belong to the requests thread, counted and not_counted to the one that
// scrapes. Publishes without the lock held.
#pragma once

#include "client/messages.h"
#include "config/settings.h"
#include "events/events.h"
#include "model/lock.h"
#include "model/probe.h"
#include "probes/metrics.h"
#include "probes/series.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrune::manager {

class record_t {
public:
    // `events` is borrowed.
    record_t(const probe_settings_t &settings, uint32_t min_reach_s, events_t *events);
    // Ends the probe's alarms.
    void retire();
    void set_min_reach(uint32_t seconds) { min_reach_s_ = seconds; }

    void came_up();
    // DOWN or INCOMPATIBLE; what the probe said is no longer known.
    void went_down(probe_state_t state, const std::string &error);
    void polled(const msg_hb_info_t &info, std::optional<size_t> rule_count);

    void counted(const probe_counters_t &counters);
    void not_counted(const std::string &error);

    // The updates connection's error, empty: it stands.
    void set_updates_error(const std::string &error);

    probe_view_t view() const;
    series_t series(uint64_t from_ns, uint32_t step_s) const;

private:
    void tell_changes();
    void check_reach(const msg_hb_info_t &info);
    void check_drops(uint64_t dropped);
    probe_view_t view_locked() const KS_REQUIRES(lock_);

    const std::string name_;
    events_t *const events_;
    std::atomic<uint32_t> min_reach_s_; // 0: no alarm

    mutable lock_t lock_;
    probe_view_t view_ KS_GUARDED_BY(lock_); // its error: of the requests session
    std::string updates_error_ KS_GUARDED_BY(lock_);
    std::string metrics_error_ KS_GUARDED_BY(lock_);
    series_ring_t ring_ KS_GUARDED_BY(lock_);

    std::optional<probe_view_t> told_;         // requests thread: as published last
    std::optional<probe_counters_t> counters_; // scraping thread: the last
    uint64_t counted_ns_ = 0;                  // the same, monotonic
    uint64_t dropped_ns_ = 0;                  // the same, drops were last seen to grow; 0: never
};

} // namespace kestrune::manager
