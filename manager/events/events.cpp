#include "events/events.h"

#include <algorithm>
#include <utility>

namespace kestrune::manager {

capture_event_t event_of(const capture_t &capture)
{
    capture_event_t event;
    event.id = capture.id;
    event.addr = capture.addr;
    event.direction = capture.direction;
    event.state = capture.state;
    event.percent = percent(capture);
    event.live_packets = live_packets(capture);
    event.history_packets = history_packets(capture);
    event.requested_at = capture.requested_at;
    event.requested_by = capture.requested_by;
    event.ended_at = capture.ended_at;
    event.file = capture.file;
    event.hold = capture.hold.has_value();
    event.lookup = capture.lookup_until != 0;
    return event;
}

events_t::events_t(uint64_t epoch) : epoch_(epoch) {}

void events_t::publish(event_body_t body)
{
    {
        const hold_lock_t held(lock_);
        append_locked(std::move(body));
    }
    wake();
}

void events_t::append_locked(event_body_t body)
{
    log_.push_back(std::make_shared<const event_t>(event_t{++last_, std::move(body)}));
    if (log_.size() > EVENTS_KEPT) {
        log_.pop_front();
    }
}

void events_t::wake() const
{
    if (wake_) {
        wake_();
    }
}

missed_events_t events_t::after(uint64_t number, size_t most) const
{
    const hold_lock_t held(lock_);
    missed_events_t missed;
    missed.last = last_;
    const uint64_t first = last_ - log_.size() + 1; // of the log; behind the last when it is empty
    missed.reset = number > last_ || number + 1 < first;
    if (!missed.reset) {
        const auto begin = log_.begin() + static_cast<std::ptrdiff_t>(number + 1 - first);
        const auto count = std::min(most, static_cast<size_t>(log_.end() - begin));
        missed.events.assign(begin, begin + static_cast<std::ptrdiff_t>(count));
    }
    return missed;
}

uint64_t events_t::last() const
{
    const hold_lock_t held(lock_);
    return last_;
}

void events_t::raise(const std::string &key, const std::string &probe, severity_t severity,
                     const std::string &text, uint64_t now)
{
    {
        const hold_lock_t held(lock_);
        const auto [found, added] = alarms_.try_emplace(key, alarm_t{key, probe, severity, text, now, 0});
        alarm_t &alarm = found->second;
        if (!added && alarm.text == text && alarm.severity == severity) {
            return;
        }
        alarm.severity = severity;
        alarm.text = text;
        append_locked(alarm);
    }
    wake();
}

void events_t::end(const std::string &key, uint64_t now)
{
    {
        const hold_lock_t held(lock_);
        const auto found = alarms_.find(key);
        if (found == alarms_.end()) {
            return;
        }
        alarm_t alarm = std::move(found->second);
        alarms_.erase(found);
        alarm.ended_at = now;
        append_locked(std::move(alarm));
    }
    wake();
}

std::vector<alarm_t> events_t::alarms() const
{
    std::vector<alarm_t> alarms;
    {
        const hold_lock_t held(lock_);
        for (const auto &[key, alarm] : alarms_) {
            alarms.push_back(alarm);
        }
    }
    std::ranges::stable_sort(alarms, {}, &alarm_t::since);
    return alarms;
}

} // namespace kestrune::manager
