#include "http/event_text.h"

#include "forms/forms.h"

#include <charconv>

namespace kestrune::manager {
namespace {

constexpr size_t WRITTEN_MAX = 512;                  // events whose text is kept
constexpr size_t EVENTS_AT_ONCE = 256;               // taken from the log
constexpr size_t TEXT_AT_ONCE = size_t{64} * 1024;   // bytes after which a listener gets no more at once
constexpr const char *BEGINNING = "retry: 2000\n\n"; // milliseconds until a browser asks again

// EPOCH-NUMBER.
bool parse_id(const std::string &text, uint64_t *epoch, uint64_t *number)
{
    const char *end = text.data() + text.size();
    const auto [dash, wrong_epoch] = std::from_chars(text.data(), end, *epoch);
    if (wrong_epoch != std::errc() || dash == end || *dash != '-') {
        return false;
    }
    const auto [rest, wrong_number] = std::from_chars(dash + 1, end, *number);
    return wrong_number == std::errc() && rest == end;
}

struct typed_t {
    const char *type;
    std::string data;
};

typed_t typed(const event_body_t &body)
{
    if (const auto *probe = std::get_if<probe_view_t>(&body)) {
        return {"probe", json_of(*probe)};
    }
    if (const auto *capture = std::get_if<capture_event_t>(&body)) {
        return {"capture", json_of(*capture)};
    }
    return {"alarm", json_of(std::get<alarm_t>(body))};
}

} // namespace

std::string event_text_t::id_text(uint64_t number) const
{
    return "id: " + std::to_string(events_->epoch()) + "-" + std::to_string(number) + "\n";
}

std::string event_text_t::begin(const std::string &last_event_id, uint64_t *place)
{
    *place = events_->last();
    if (last_event_id.empty()) {
        return BEGINNING;
    }
    uint64_t epoch = 0;
    uint64_t number = 0;
    if (parse_id(last_event_id, &epoch, &number) && epoch == events_->epoch() &&
        !events_->after(number, 1).reset) {
        *place = number;
        return BEGINNING;
    }
    return BEGINNING + id_text(*place) + "event: reset\ndata: {}\n\n";
}

std::string event_text_t::next(uint64_t *place, bool *lost)
{
    const missed_events_t missed = events_->after(*place, EVENTS_AT_ONCE);
    *lost = missed.reset;
    std::string text;
    for (const auto &event : missed.events) {
        text += text_of(*event);
        *place = event->number;
        if (text.size() >= TEXT_AT_ONCE) {
            break;
        }
    }
    return text;
}

const std::string &event_text_t::text_of(const event_t &event)
{
    const auto found = written_.find(event.number);
    if (found != written_.end()) {
        return found->second;
    }
    const typed_t form = typed(event.body);
    if (written_.size() >= WRITTEN_MAX) {
        written_.erase(written_.begin());
    }
    return written_[event.number] =
               id_text(event.number) + "event: " + form.type + "\ndata: " + form.data + "\n\n";
}

} // namespace kestrune::manager
