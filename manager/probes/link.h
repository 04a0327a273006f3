// One probe with its threads. Inside of probes/.
//
// Threads: probe-req and probe-upd, and probe-met where the probe's metrics are known; started by the constructor,
// told to end by request_stop, joined by the destructor.
#pragma once

#include "probes/context.h"
#include "probes/requests.h"

#include <thread>
#include <vector>

namespace kestrune::manager {

class link_t {
public:
    // `sessions` and `events` are borrowed.
    link_t(const probe_settings_t &settings, uint32_t min_reach_s, const probe_sink_t &sink,
           std::atomic<uint64_t> *sessions, events_t *events);
    ~link_t();
    link_t(const link_t &) = delete;
    link_t &operator=(const link_t &) = delete;
    void request_stop();
    void join(); // after request_stop

    const probe_settings_t &settings() const { return context_.settings; }
    requests_t &requests() { return requests_; }
    record_t &record() { return record_; }

private:
    record_t record_;
    context_t context_;
    requests_t requests_;
    std::vector<std::thread> threads_;
};

} // namespace kestrune::manager
