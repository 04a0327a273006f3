// What the routes do (inside of http/): requests become calls of the rooms, their results become answers. Knows no
// connection.
//
// Threads: workers; what a room answers comes on its own thread. Lives as long as an answer is owed.
#pragma once

#include "http/counters.h"
#include "http/engine.h"
#include "http/pages.h"
#include "http/server.h"
#include "http/tickets.h"
#include "model/lock.h"

#include <memory>
#include <string>
#include <string_view>

namespace kestrune::manager {

class api_t : public std::enable_shared_from_this<api_t> {
public:
    // All borrowed; they outlive every answer that is owed.
    api_t(const limit_settings_t &limits, const http_neighbours_t &rooms, tickets_t *tickets,
          const http_counters_t *counters);

    void replace_limits(const limit_settings_t &limits);

    // The routes with ROUTE_QUICK, but for the events: memory only.
    http_answer_t quick(const http_request_t &request, const route_t &route) const;
    // All others. `answer` is called once, here or later on another thread.
    void work(const http_request_t &request, const route_t &route, const answer_to_t &answer);

private:
    struct task_t; // a request on its way: what it asks, and where its answer goes
    using task_ptr_t = std::shared_ptr<const task_t>;

    void dispatch(const task_ptr_t &task);
    void dispatch_capture(const task_ptr_t &task);
    void dispatch_lookup(const task_ptr_t &task);

    http_answer_t ready() const;
    http_answer_t metrics() const;
    http_answer_t list_probes() const;
    http_answer_t get_probe(const std::string &name) const;
    http_answer_t get_series(const http_request_t &request) const;
    void change_probe(const task_ptr_t &task, const probe_change_t &change, const std::string &action,
                      const std::string &detail);

    void record(const task_ptr_t &task);
    http_answer_t list_captures(const http_request_t &request) const;
    http_answer_t get_capture(const http_request_t &request) const;
    http_answer_t get_pcap(const http_request_t &request) const;
    http_answer_t get_manifest(const http_request_t &request) const;
    http_answer_t get_summary(const http_request_t &request) const;
    http_answer_t make_ticket(const http_request_t &request) const;
    http_answer_t get_lookup(const http_request_t &request) const;
    http_answer_t list_audit(const http_request_t &request) const;

    capture_t find(const http_request_t &request) const; // throws the answer 404
    limit_settings_t limits() const;
    void audit(const caller_t &caller, const std::string &action, const std::string &object,
               const std::string &detail) const;

    const http_neighbours_t rooms_;
    tickets_t *const tickets_;
    const http_counters_t *const counters_;
    const uint64_t started_at_;
    const pages_t pages_;
    mutable lock_t lock_;
    limit_settings_t limits_ KS_GUARDED_BY(lock_);
};

} // namespace kestrune::manager
