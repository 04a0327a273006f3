// The connections (inside of http/): one thread for all of them, which never blocks, and workers that answer.
// docs/manager.md has their limits.
//
// Threads: start and stop belong to main; wake may be called by any.
#pragma once

#include "http/counters.h"
#include "http/gate.h"
#include "http/message.h"
#include "http/routes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrune::manager {

// What a listener of the events gets, as text of an event stream (https://html.spec.whatwg.org/#server-sent-events).
class event_source_t {
public:
    virtual ~event_source_t() = default;
    // A new listener, who had `last_event_id` (empty: nothing yet). Sets its place; the text is sent first.
    virtual std::string begin(const std::string &last_event_id, uint64_t *place) = 0;
    // Some of what came after the place, which moves on; empty: nothing yet. `lost`: what comes next is gone.
    virtual std::string next(uint64_t *place, bool *lost) = 0;
};

// Called once, from any thread, also late or never.
using answer_to_t = std::function<void(http_answer_t)>;

struct http_handlers_t {
    // Routes with ROUTE_QUICK, on the http thread.
    std::function<http_answer_t(const http_request_t &, const route_t &)> quick;
    // All others, on a worker. May throw: 500.
    std::function<void(const http_request_t &, const route_t &, answer_to_t)> work;
};

struct engine_settings_t {
    std::string host; // a literal address
    uint16_t port = 0;
};

class http_engine_t {
public:
    // All are borrowed, except the handlers. Throws std::runtime_error when the address cannot be listened on.
    http_engine_t(const engine_settings_t &settings, gate_t *gate, event_source_t *events,
                  http_counters_t *counters, http_handlers_t handlers);
    ~http_engine_t();
    http_engine_t(const http_engine_t &) = delete;
    http_engine_t &operator=(const http_engine_t &) = delete;

    uint16_t port() const; // the one that was chosen when the settings have 0

    void start();
    // Accepts no more, lets answers under way end for some seconds, then ends all connections and threads.
    void stop();
    // There are new events. Does not block.
    void wake();

private:
    class inside_t;
    std::shared_ptr<inside_t> inside_;
};

} // namespace kestrune::manager
