// A TCP connection. Every wait ends, at its deadline or when an interrupt descriptor becomes readable.
#pragma once

#include "client/text_forms.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrune {

using deadline_t = std::chrono::steady_clock::time_point;

constexpr int NO_INTERRUPT = -1;

class socket_t {
public:
    // Resolves the host and tries all its addresses in turn, each with its share of the
    // time left. Throws client_error_t: CONNECT with the reason, NO_LISTENER when each refused, INTERRUPTED. The
    // interrupt descriptor is borrowed and only polled.
    socket_t(const endpoint_t &endpoint, deadline_t deadline, int interrupt_fd);
    ~socket_t();
    socket_t(const socket_t &) = delete;
    socket_t &operator=(const socket_t &) = delete;

    // Sends everything. Throws client_error_t: TIMEOUT, CLOSED, INTERRUPTED.
    void send(std::span<const uint8_t> bytes, deadline_t deadline, int interrupt_fd);
    // Waits for bytes and takes as many as have come; 0: none before the deadline. With a deadline in the
    // past it still takes what has come already. Throws client_error_t: CLOSED, INTERRUPTED.
    size_t receive(std::span<uint8_t> room, deadline_t deadline, int interrupt_fd);

private:
    int fd_ = -1; // owned, close-on-exec, non-blocking
};

} // namespace kestrune
