// The events as listeners get them (inside of http/). One on the http thread; each event is written once for all.
#pragma once

#include "events/events.h"
#include "http/engine.h"

#include <cstdint>
#include <map>
#include <string>

namespace kestrune::manager {

class event_text_t : public event_source_t {
public:
    explicit event_text_t(const events_t *events) : events_(events) {} // borrowed
    std::string begin(const std::string &last_event_id, uint64_t *place) override;
    std::string next(uint64_t *place, bool *lost) override;

private:
    const std::string &text_of(const event_t &event);
    std::string id_text(uint64_t number) const;

    const events_t *const events_;
    std::map<uint64_t, std::string> written_; // of the last few, by number
};

} // namespace kestrune::manager
