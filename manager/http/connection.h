// One connection (inside of http/). It belongs to the http thread, except while a worker has it (WORK, and FILE while
// `with_worker_`): the worker then posts back.
//
//     header --- refused ---> answer, then the rest of the body is thrown away, end
//       |
//      body --> work --> answer --> file --+--> idle --> header
//                  |                       +--> end
//                  +---> stream ... end
//
// Every state but WORK of a piece has a deadline, which belongs to the whole step.
#pragma once

#include "http/counters.h"
#include "http/engine.h"
#include "http/limits.h"
#include "http/workers.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace kestrune::manager {

class connection_t;

// What the connections share. All but `io`, `workers` and `counters` belong to the http thread.
struct connections_t {
    boost::asio::io_context io{1};
    gate_t *gate = nullptr;
    event_source_t *events = nullptr;
    http_counters_t *counters = nullptr;
    http_handlers_t handlers;
    workers_t workers;
    std::set<std::shared_ptr<connection_t>> all;
    bool stopping = false;
    std::atomic<bool> ended{false}; // nothing is posted any more
};

class connection_t : public std::enable_shared_from_this<connection_t> {
public:
    connection_t(std::shared_ptr<connections_t> shared, boost::asio::ip::tcp::socket socket,
                 std::string from);

    void start();
    // Ends it at once, or as soon as the worker gives it back.
    void end();
    // Ends it unless an answer is under way.
    void end_when_quiet();
    // There are new events.
    void wake();

    // For choosing whose place a new connection takes: of those that wait for their client the one that never had a
    // token, then the one that has waited for longest. One whose refusal is not taken is no better than one that asks
    // nothing.
    bool may_give_way() const
    {
        return state_ == state_t::IDLE || state_ == state_t::HEADER || state_ == state_t::LEFTOVER ||
               (state_ == state_t::ANSWER && request_.role == role_t::NONE);
    }
    std::pair<bool, std::chrono::steady_clock::time_point> worth() const { return {had_token_, since_}; }

private:
    enum class state_t { IDLE, HEADER, BODY, WORK, ANSWER, FILE, STREAM, LEFTOVER, ENDED };
    using error_t = boost::system::error_code;
    using parser_t = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void enter(state_t state, std::chrono::steady_clock::duration time);
    void arm(std::chrono::steady_clock::duration time);
    void on_deadline();

    void wait_for_request();
    void read_header();
    void on_header(const error_t &error);
    void fill_request();
    void read_body();
    void on_body(const error_t &error);
    void on_bad_request(const error_t &error);

    void work();
    void answer(http_answer_t answer);
    void write();
    void on_written(const error_t &error, size_t size);
    void on_answered();
    void finish();
    void throw_away();

    void send_piece();
    void on_piece(uint64_t sent, int error);
    void moved(uint64_t size);

    void begin_stream();
    void stream_more();
    void watch_listener();

    std::shared_ptr<connections_t> shared_; // outlives socket and timer
    boost::asio::ip::tcp::socket socket_;
    boost::asio::steady_timer timer_;
    const std::string from_;
    state_t state_ = state_t::IDLE;
    std::chrono::steady_clock::time_point since_; // of the state
    uint64_t deadline_number_ = 0;                // of the timer's present wait
    uint64_t request_number_ = 0;
    bool timed_out_ = false;

    boost::beast::flat_buffer buffer_;
    std::optional<parser_t> parser_;
    http_request_t request_;
    const route_t *route_ = nullptr;
    bool had_token_ = false; // a right one, in any request so far
    bool keep_alive_ = false;
    bool body_unread_ = false;

    http_answer_t answer_;
    std::string out_; // being written
    size_t out_sent_ = 0;
    uint64_t moved_ = 0; // bytes since the deadline was set
    bool with_worker_ = false;
    bool doomed_ = false; // ends when the worker gives it back

    bool writing_ = false; // STREAM
    uint64_t place_ = 0;   // STREAM: number of the last event sent
    uint64_t thrown_away_ = 0;
    std::array<char, 2048> scratch_;
};

} // namespace kestrune::manager
