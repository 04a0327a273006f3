// A control connection to one probe: a function per request, and the probe's updates, which may come at any
// time on the same connection (docs/protocol.md).
//
//   request    sent whole; then messages are taken until the reply is there. Updates before it are kept.
//   update     the oldest kept one, or the next that comes.
//
// Every wait is bounded: a request by the answer time of the session, next_update by its deadline. After any
// error other than REFUSED, UNRECOGNIZED of a request without payload, and an interrupted next_update, the
// two sides may be out of step and the session is over: each further call throws CLOSED.
//
// Threads: a session belongs to one thread at a time.
#pragma once

#include "client/error.h"
#include "client/messages.h"
#include "client/socket.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrune {

struct session_options_t {
    std::chrono::milliseconds connect_time{5000}; // for the name service and all addresses together
    std::chrono::milliseconds answer_time{10000}; // from a request to the end of its reply
    int interrupt_fd = NO_INTERRUPT;              // borrowed; when readable, waits throw INTERRUPTED
    bool finish_requests = false;                 // let interrupts end connecting and next_update only
};

struct add_request_t {
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
    uint32_t packet_limit = 0; // 0 in either limit: no live capture, history only
    uint32_t time_limit_s = 0;
    std::string name; // 1 to 127 bytes
};

class session_t {
public:
    // Connects; throws client_error_t (CONNECT, INTERRUPTED).
    session_t(const endpoint_t &endpoint, const session_options_t &options);

    // Requests. All throw client_error_t: REFUSED for a FAIL, UNRECOGNIZED, TIMEOUT, CLOSED, MALFORMED,
    // INTERRUPTED.
    void add(const add_request_t &request);
    void remove(const ip_addr_t &addr, uint8_t direction);
    rule_list_t list(uint8_t filter); // msg_target::SRC, DST, BOTH (exactly these) or ALL; newest first
    detail_t detail(const ip_addr_t &addr);
    void history_on(uint32_t size_mb); // all queues together; 0: the plugin's default for each
    void history_off();
    msg_hb_info_t history_info();
    void updates_on();
    void updates_off();
    void set_heavy_size(uint32_t packets);

    // The oldest update not taken yet, waiting for one until the deadline; nothing when none came.
    // Throws client_error_t: CLOSED, MALFORMED, INTERRUPTED.
    std::optional<update_t> next_update(deadline_t deadline);

private:
    message_t request(uint8_t action, uint8_t target, std::span<const uint8_t> payload);
    void request_success(uint8_t action, uint8_t target, std::span<const uint8_t> payload);
    template <typename T>
    T request_answer(uint8_t action, uint8_t target, std::span<const uint8_t> payload);
    message_t await_reply(deadline_t deadline);
    std::optional<message_t> next_message(deadline_t deadline, int interrupt_fd);
    void keep(update_t update, size_t size);
    void check_in_step() const;
    [[noreturn]] void end(failure_t failure, const std::string &text);

    session_options_t options_;
    socket_t socket_;
    std::vector<uint8_t> input_;                      // received
    size_t input_used_ = 0;                           // bytes of it that are decoded
    size_t message_size_ = 0;                         // bytes of the message decoded last
    std::deque<std::pair<update_t, size_t>> updates_; // with their bytes on the wire
    size_t updates_size_ = 0;                         // sum of these
    bool over_ = false;
};

} // namespace kestrune
