// What the threads of one probe share. Inside of probes/.
#pragma once

#include "client/session.h"
#include "config/settings.h"
#include "probes/probes.h"
#include "probes/record.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace kestrune::manager {

using steady_t = std::chrono::steady_clock;
using milliseconds_t = std::chrono::milliseconds;

constexpr milliseconds_t CONNECT_TIME{3000};
constexpr milliseconds_t ANSWER_TIME{10000};
constexpr milliseconds_t BACKOFF_MIN{200};
constexpr milliseconds_t BACKOFF_MAX{10000};
constexpr milliseconds_t STEADY_TIME{1000}; // a session that stood so long begins the back-off anew

// An event descriptor that wakes whoever polls it. It stays readable until it is taken.
class signal_t {
public:
    signal_t(); // throws client_error_t (LOCAL)
    ~signal_t();
    signal_t(const signal_t &) = delete;
    signal_t &operator=(const signal_t &) = delete;
    void give() const;
    void take() const;
    int fd() const { return fd_; }

private:
    int fd_; // owned
};

struct context_t {
    probe_settings_t settings;
    probe_sink_t sink;                    // thread-safe
    std::atomic<uint64_t> *session_count; // borrowed; sessions of all probes so far
    record_t *record;                     // borrowed
    signal_t stop;                        // once given, never taken
    signal_t came_back; // the requests session began: the updates one should not wait longer

    uint64_t next_session() const { return session_count->fetch_add(1) + 1; }
    session_options_t session_options() const { return {CONNECT_TIME, ANSWER_TIME, stop.fd()}; }
    bool stopped() const { return pause(milliseconds_t{0}); }
    // True when it is time to stop. `wake`, if any, ends the pause as well, and is taken.
    bool pause(milliseconds_t time, const signal_t *wake = nullptr) const;
};

// Of one connection that comes and goes: 0.2 s, doubled up to 10 s.
class backoff_t {
public:
    // How long to wait after a session that stood so long (0: none did).
    milliseconds_t after(milliseconds_t stood);

private:
    milliseconds_t next_ = BACKOFF_MIN;
};

// The sentence for an error of a session.
std::string sentence(const client_error_t &error);

} // namespace kestrune::manager
