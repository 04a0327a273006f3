// A control connection to one probe: a function per request, and the probe's updates, which may come at any
// time on the same connection (docs/protocol.md).
//
//   request    sent whole; then messages are read until the reply comes. Updates before it are kept.
//   requests   sent ahead of the replies, at most REQUESTS_AHEAD; replies come in the order of the requests.
//   update     the oldest kept one, or the next that comes.
//
// Every wait is bounded: each reply by the session's answer time, next_update by its deadline. Some errors
// leave the two sides in step: REFUSED, UNRECOGNIZED for a single request without payload, and an interrupted
// next_update. After any other error the session is over, and each further call throws CLOSED.
//
// Threads: a session belongs to one thread at a time.
#pragma once

#include "client/error.h"
#include "client/messages.h"
#include "client/socket.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kestrune {

struct session_options_t {
    std::chrono::milliseconds connect_time{5000}; // name service and all addresses together
    std::chrono::milliseconds answer_time{10000}; // from a request to the end of its reply
    int interrupt_fd = NO_INTERRUPT;              // borrowed; when readable, waits throw INTERRUPTED
    bool finish_requests = false;                 // interrupts end only connecting and next_update
};

// Requests sent but not yet answered. They and their replies fit into the smallest socket buffers, so neither
// side can wait for the other to read.
constexpr size_t REQUESTS_AHEAD = 64;

struct add_request_t {
    ip_addr_t addr = {};
    uint8_t direction = BOTH;
    uint32_t packet_limit = 0; // 0 in either limit: no live capture, history only
    uint32_t time_limit_s = 0;
    std::string name; // 1 to 127 bytes
};

class session_t {
public:
    // Connects; throws client_error_t (CONNECT, NO_LISTENER, INTERRUPTED).
    session_t(const endpoint_t &endpoint, const session_options_t &options);

    // Requests. All throw client_error_t: REFUSED for a FAIL, UNRECOGNIZED, TIMEOUT,
    // CLOSED, MALFORMED, VERSION, INTERRUPTED.
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

    // The same for many addresses, without waiting for a reply before the next request. They throw as above,
    // except REFUSED. `taken` and `details` are empty at first and get an item for each answered request;
    // after an error they are shorter than the requests. `taken`: whether the plugin carried it out.
    void add_many(std::span<const add_request_t> requests, std::vector<bool> *taken);
    void remove_many(std::span<const ip_addr_t> addrs, uint8_t direction, std::vector<bool> *taken);
    // Nothing for an address without a running live capture.
    void detail_many(std::span<const ip_addr_t> addrs, std::vector<std::optional<detail_t>> *details);

    // The oldest update not taken yet; waits for one until the deadline. Nothing when none came. Throws
    // client_error_t: CLOSED, MALFORMED, VERSION, INTERRUPTED.
    std::optional<update_t> next_update(deadline_t deadline);

private:
    struct request_t {
        uint8_t action;
        uint8_t target;
        std::vector<uint8_t> payload;
    };
    static request_t add_request(const add_request_t &add);
    void exchange(size_t count, const std::function<request_t(size_t)> &make,
                  const std::function<void(size_t, message_t)> &take);
    void exchange_status(size_t count, const std::function<request_t(size_t)> &make,
                         std::vector<bool> *taken);
    template <typename T = status_t>
    T ask(const request_t &request);
    template <typename T>
    T expect(message_t reply);
    detail_t expect_detail(message_t reply, const ip_addr_t &addr);
    message_t await_reply(deadline_t deadline);
    std::optional<message_t> next_message(deadline_t deadline, int interrupt_fd);
    void keep(update_t update, size_t size);
    void check_in_step() const;
    [[noreturn]] void end(failure_t failure, const std::string &text);

    session_options_t options_;
    socket_t socket_;
    std::vector<uint8_t> input_;                      // received
    size_t input_used_ = 0;                           // decoded bytes of it
    size_t message_size_ = 0;                         // bytes of the message decoded last
    std::deque<std::pair<update_t, size_t>> updates_; // with their bytes on the wire
    size_t updates_size_ = 0;                         // sum of their bytes
    bool over_ = false;
};

} // namespace kestrune
