// The counters over HTTP for Prometheus: GET /metrics on an address of its own.
//
// Two threads with a low priority accept connections and answer one request each. A client's use is bounded:
// half a second for the request, two seconds in all, 4 KiB per request, and a hundred answers a second for
// all clients. Waiting connections stay in the kernel.
//
// Source of the format: Prometheus' text-based exposition format, version 0.0.4.
#pragma once

#include "probe/counters.h"
#include "probe/stop_event.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace probe {

struct metrics_source_t {
    std::string interface; // "": files
    double start_s = 0;    // of the probe, since the Unix epoch
    counter_groups_t groups;
};

std::string metrics_text(const metrics_source_t &source);

class metrics_server_t {
public:
    // Bind to "ADDRESS:PORT", an IPv6 address in brackets. Throws error_t when it cannot.
    explicit metrics_server_t(const std::string &address);
    ~metrics_server_t(); // stops at once, whatever the clients do
    metrics_server_t(const metrics_server_t &) = delete;
    metrics_server_t &operator=(const metrics_server_t &) = delete;

    // Answers with this text from now on; the server's threads call the function for each request.
    void start(std::function<std::string()> text);

private:
    class http_t;

    void serve();
    void answer(int fd);

    int fd_;
    stop_event_t stop_;
    std::unique_ptr<http_t> http_;
    std::vector<std::thread> threads_;
};

} // namespace probe
