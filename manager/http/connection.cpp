#include "http/connection.h"

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <cerrno>
#include <sys/sendfile.h>

namespace kestrune::manager {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;

constexpr size_t BUFFER_MAX = size_t{2} * HEADER_MAX; // a header and what came behind it
constexpr std::chrono::seconds WORK_TIME{60};
constexpr std::string_view CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n";

struct known_field_t {
    beast::http::field name;
    std::optional<std::string> http_fields_t::*place;
    bool may_repeat;
};

constexpr known_field_t KNOWN_FIELDS[] = {
    {beast::http::field::host, &http_fields_t::host, false},
    {beast::http::field::origin, &http_fields_t::origin, false},
    {beast::http::field::authorization, &http_fields_t::authorization, false},
    {beast::http::field::content_type, &http_fields_t::content_type, false},
    {beast::http::field::range, &http_fields_t::range, false},
    {beast::http::field::if_range, &http_fields_t::if_range, false},
    {beast::http::field::if_none_match, &http_fields_t::if_none_match, true},
    {beast::http::field::accept_encoding, &http_fields_t::accept_encoding, true},
    {beast::http::field::expect, &http_fields_t::expect, false},
};
struct other_field_t {
    const char *name;
    std::optional<std::string> http_fields_t::*place;
    bool may_repeat;
};
constexpr other_field_t OTHER_FIELDS[] = {
    {"Idempotency-Key", &http_fields_t::idempotency_key, false},
    {"Last-Event-ID", &http_fields_t::last_event_id, false},
    {"X-Forwarded-For", &http_fields_t::forwarded_for, true},
};

template <typename F>
void take_field(const beast::http::fields &from, const F &field, http_fields_t *to)
{
    const auto [begin, end] = from.equal_range(field.name);
    for (auto line = begin; line != end; ++line) {
        std::optional<std::string> &place = to->*field.place;
        const std::string value(line->value());
        if (!place) {
            place = value;
        } else if (field.may_repeat) {
            *place += ", " + value;
        } else {
            to->repeated = std::string(line->name_string());
        }
    }
}

// The parser takes any other encoding for a request without a body, and the body for the next request. A proxy that
// knows where that body ends would then pass on what somebody else asks for as a request of its own
// (RFC 9112, sections 6.1 and 11.2).
bool has_known_encoding(const beast::http::fields &fields, bool chunked)
{
    const auto count = fields.count(beast::http::field::transfer_encoding);
    return count == 0 || (count == 1 && chunked &&
                          beast::iequals(fields[beast::http::field::transfer_encoding], "chunked"));
}

} // namespace

connection_t::connection_t(std::shared_ptr<connections_t> shared, asio::ip::tcp::socket socket,
                           std::string from)
    : shared_(std::move(shared)), socket_(std::move(socket)), timer_(shared_->io), from_(std::move(from)),
      since_(std::chrono::steady_clock::now()), buffer_(BUFFER_MAX)
{
}

void connection_t::start()
{
    error_t ignored; // answers are slower without it, and right
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket_.native_non_blocking(true, ignored);
    read_header();
}

// Deadlines

void connection_t::enter(state_t state, std::chrono::steady_clock::duration time)
{
    state_ = state;
    since_ = std::chrono::steady_clock::now();
    arm(time);
}

void connection_t::arm(std::chrono::steady_clock::duration time)
{
    moved_ = 0;
    timer_.expires_after(time);
    timer_.async_wait([self = shared_from_this(), number = ++deadline_number_](const error_t &error) {
        if (!error && number == self->deadline_number_) {
            self->on_deadline();
        }
    });
}

void connection_t::on_deadline()
{
    error_t ignored;
    switch (state_) {
    case state_t::HEADER:
    case state_t::BODY:
        if (timed_out_) {
            break;
        }
        timed_out_ = true; // the reading ends with an error, and is answered then
        socket_.cancel(ignored);
        arm(LEFTOVER_TIME); // it goes on where bytes had come just before
        return;
    case state_t::WORK:
        ++request_number_; // the answer comes too late
        answer(problem(503, "the manager is too slow just now"));
        return;
    case state_t::STREAM:
        if (!writing_) {
            out_ = ":\n\n";
            stream_more();
            return;
        }
        break;
    default:
        break;
    }
    end();
}

void connection_t::end()
{
    if (state_ == state_t::ENDED) {
        return;
    }
    if (with_worker_) {
        doomed_ = true;
        return;
    }
    if (state_ == state_t::STREAM) {
        shared_->counters->listeners.fetch_sub(1, std::memory_order_relaxed);
    }
    state_ = state_t::ENDED;
    ++deadline_number_;
    ++request_number_;
    timer_.cancel();
    error_t ignored;
    socket_.close(ignored);
    shared_->all.erase(shared_from_this());
}

void connection_t::end_when_quiet()
{
    if (state_ != state_t::BODY && state_ != state_t::WORK && state_ != state_t::ANSWER &&
        state_ != state_t::FILE) {
        end();
    }
}

// Reading

void connection_t::wait_for_request()
{
    if (shared_->stopping) {
        end();
        return;
    }
    if (buffer_.size() > 0) {
        read_header();
        return;
    }
    buffer_.shrink_to_fit();
    enter(state_t::IDLE, IDLE_TIME);
    socket_.async_wait(asio::ip::tcp::socket::wait_read, [self = shared_from_this()](const error_t &error) {
        if (error) {
            self->end();
        } else {
            self->read_header();
        }
    });
}

void connection_t::read_header()
{
    parser_.emplace();
    parser_->header_limit(HEADER_MAX);
    parser_->body_limit(UINT64_MAX); // the gate has the word first
    enter(state_t::HEADER, HEADER_TIME);
    beast::http::async_read_header(
        socket_, buffer_, *parser_,
        [self = shared_from_this()](const error_t &error, size_t) { self->on_header(error); });
}

void connection_t::on_header(const error_t &error)
{
    if (state_ != state_t::HEADER) {
        return;
    }
    if (error) {
        on_bad_request(error);
        return;
    }
    fill_request();
    body_unread_ = !parser_->is_done();
    route_ = nullptr;
    std::optional<http_answer_t> refusal;
    if (!has_known_encoding(parser_->get(), request_.chunked)) {
        body_unread_ = true; // of a length that nobody knows
        refusal = problem(400, "the only Transfer-Encoding that is understood is chunked");
    } else if (request_.fields.expect && !beast::iequals(*request_.fields.expect, "100-continue")) {
        refusal = problem(417, "the only expectation that is met is 100-continue");
    } else {
        refusal = shared_->gate->check(&request_, &route_);
        had_token_ = had_token_ || request_.role != role_t::NONE;
    }
    if (refusal) {
        refusal->close = refusal->close || body_unread_;
        answer(std::move(*refusal));
    } else if (body_unread_) {
        read_body();
    } else {
        work();
    }
}

void connection_t::fill_request()
{
    const auto &message = parser_->get();
    request_ = {};
    request_.method = std::string(message.method_string());
    request_.target = std::string(message.target());
    for (const known_field_t &field : KNOWN_FIELDS) {
        take_field(message, field, &request_.fields);
    }
    for (const other_field_t &field : OTHER_FIELDS) {
        take_field(message, field, &request_.fields);
    }
    request_.chunked = parser_->chunked();
    if (const auto length = parser_->content_length()) {
        request_.length = *length;
    }
    request_.caller.from = from_;
    keep_alive_ = message.keep_alive();
}

void connection_t::read_body()
{
    enter(state_t::BODY, BODY_TIME);
    parser_->body_limit(BODY_MAX);
    if (request_.fields.expect) {
        asio::async_write(socket_, asio::buffer(CONTINUE),
                          [self = shared_from_this()](const error_t &, size_t) {
                              // An error shows in the reading.
                          });
    }
    beast::http::async_read(
        socket_, buffer_, *parser_,
        [self = shared_from_this()](const error_t &error, size_t) { self->on_body(error); });
}

void connection_t::on_body(const error_t &error)
{
    if (state_ != state_t::BODY) {
        return;
    }
    if (error) {
        on_bad_request(error);
        return;
    }
    body_unread_ = false;
    request_.body = std::move(parser_->get().body());
    if (request_.body.empty()) { // chunked, and nothing in it
        answer(problem(400, "a body is missing"));
        return;
    }
    work();
}

void connection_t::on_bad_request(const error_t &error)
{
    namespace http = beast::http;
    body_unread_ = true;
    http_answer_t refusal;
    if (timed_out_ && buffer_.size() == 0 && state_ == state_t::HEADER) {
        end(); // nothing was asked
        return;
    }
    if (timed_out_) {
        refusal = problem(408, "the request did not come to its end in time");
    } else if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        refusal = problem(431, "the header is larger than 16 KiB");
    } else if (error == http::error::body_limit) {
        refusal = problem(413, "the body is larger than 1 MiB");
    } else if (error == http::error::end_of_stream || error == http::error::partial_message ||
               error.category() != http::make_error_code(http::error::bad_method).category()) {
        end();
        return;
    } else {
        refusal = problem(400, "the request is not well-formed: " + error.message());
    }
    refusal.close = true;
    answer(std::move(refusal));
}

// Answering

void connection_t::work()
{
    if (route_->action == action_t::EVENTS) {
        begin_stream();
        return;
    }
    if ((route_->flags & ROUTE_QUICK) != 0) {
        answer(shared_->handlers.quick(request_, *route_));
        return;
    }
    enter(state_t::WORK, WORK_TIME);
    answer_to_t reply = [self = shared_from_this(), number = ++request_number_](http_answer_t answer) {
        if (self->shared_->ended.load()) {
            return;
        }
        auto kept = std::make_shared<http_answer_t>(std::move(answer));
        asio::post(self->shared_->io, [self, number, kept] {
            if (self->state_ == state_t::WORK && number == self->request_number_) {
                self->answer(std::move(*kept));
            }
        });
    };
    auto request = std::make_shared<http_request_t>(request_);
    auto job = [handle = &shared_->handlers.work, request, route = route_, reply] {
        try {
            (*handle)(*request, *route, reply);
        } catch (const std::exception &) {
            reply(problem(500, "the manager failed at this request"));
        }
    };
    if (!shared_->workers.add(std::move(job), WAITING_MAX)) {
        http_answer_t refusal = problem(503, "too many requests wait already");
        refusal.fields.emplace_back("Retry-After", "1");
        answer(std::move(refusal));
    }
}

void connection_t::answer(http_answer_t answer)
{
    shared_->counters->count(answer.status);
    keep_alive_ = keep_alive_ && !answer.close && !answer.stream && !shared_->stopping && !timed_out_;
    out_ = header_text(answer, keep_alive_);
    if (request_.method == "HEAD") {
        answer.file.reset();
    } else {
        out_ += answer.body;
    }
    answer_ = std::move(answer);
    answer_.body.clear();
    out_sent_ = 0;
    enter(answer_.stream ? state_t::STREAM : state_t::ANSWER, ANSWER_TIME);
    writing_ = true;
    write();
}

void connection_t::write()
{
    socket_.async_write_some(
        asio::buffer(out_.data() + out_sent_, out_.size() - out_sent_),
        [self = shared_from_this()](const error_t &error, size_t size) { self->on_written(error, size); });
}

void connection_t::on_written(const error_t &error, size_t size)
{
    if (state_ != state_t::ANSWER && state_ != state_t::STREAM) {
        return;
    }
    if (error) {
        end();
        return;
    }
    out_sent_ += size;
    moved(size);
    if (out_sent_ < out_.size()) {
        write();
        return;
    }
    out_.clear();
    out_sent_ = 0;
    if (state_ == state_t::STREAM) {
        writing_ = false;
        stream_more();
    } else {
        on_answered();
    }
}

// A listener has to take anything at all, an answer has to move on.
void connection_t::moved(uint64_t size)
{
    moved_ += size;
    if (moved_ >= ANSWER_STEP || state_ == state_t::STREAM) {
        arm(ANSWER_TIME);
    }
}

void connection_t::on_answered()
{
    if (answer_.file && answer_.file->length > 0) {
        state_ = state_t::FILE;
        send_piece();
    } else {
        finish();
    }
}

void connection_t::finish()
{
    answer_ = {};
    request_ = {};
    if (keep_alive_) {
        wait_for_request();
    } else if (body_unread_) {
        throw_away();
    } else {
        end();
    }
}

// The client may still be sending. Closing now would make the kernel answer that with a reset, and the client would
// lose our answer.
void connection_t::throw_away()
{
    if (state_ != state_t::LEFTOVER) {
        enter(state_t::LEFTOVER, LEFTOVER_TIME);
        error_t ignored;
        socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
    socket_.async_read_some(asio::buffer(scratch_),
                            [self = shared_from_this()](const error_t &error, size_t size) {
                                self->thrown_away_ += size;
                                if (error || self->thrown_away_ > LEFTOVER_MAX) {
                                    self->end();
                                } else if (self->state_ == state_t::LEFTOVER) {
                                    self->throw_away();
                                }
                            });
}

// Files

// A worker reads from the disk, which may take long; the socket does not block.
void connection_t::send_piece()
{
    with_worker_ = true;
    auto job = [self = shared_from_this(), to = socket_.native_handle(), file = *answer_.file] {
        auto offset = static_cast<off_t>(file.offset);
        const uint64_t most = std::min(file.length, FILE_PIECE);
        uint64_t sent = 0;
        int error = 0;
        while (sent < most && error == 0) {
            const ssize_t size = sendfile(to, file.fd, &offset, most - sent);
            if (size > 0) {
                sent += static_cast<uint64_t>(size);
            } else if (size == 0) {
                error = EIO; // the file is shorter than it was
            } else if (errno != EINTR) {
                error = errno;
            }
        }
        if (!self->shared_->ended.load()) {
            asio::post(self->shared_->io, [self, sent, error] { self->on_piece(sent, error); });
        }
    };
    if (!shared_->workers.add(std::move(job), WAITING_MAX + CONNECTIONS_MAX)) {
        with_worker_ = false;
        end();
    }
}

void connection_t::on_piece(uint64_t sent, int error)
{
    with_worker_ = false;
    answer_.file->offset += sent;
    answer_.file->length -= sent;
    if (doomed_ || (error != 0 && error != EAGAIN)) {
        end();
        return;
    }
    moved(sent);
    if (answer_.file->length == 0) {
        finish();
        return;
    }
    if (error == 0) {
        send_piece();
        return;
    }
    socket_.async_wait(asio::ip::tcp::socket::wait_write, [self = shared_from_this()](const error_t &failed) {
        if (self->state_ != state_t::FILE) {
            return;
        }
        if (failed) {
            self->end();
        } else {
            self->send_piece();
        }
    });
}

// Events

void connection_t::begin_stream()
{
    if (shared_->counters->listeners.load(std::memory_order_relaxed) >= LISTENERS_MAX) {
        http_answer_t refusal = problem(503, "64 listeners are there already");
        refusal.fields.emplace_back("Retry-After", "10");
        answer(std::move(refusal));
        return;
    }
    http_answer_t head;
    head.content_type = "text/event-stream";
    head.stream = request_.method != "HEAD";
    head.fields.emplace_back("X-Accel-Buffering", "no"); // a proxy passes each event on at once
    if (head.stream) {
        head.body = shared_->events->begin(request_.fields.last_event_id.value_or(""), &place_);
        shared_->counters->listeners.fetch_add(1, std::memory_order_relaxed);
        error_t ignored; // the kernel would take megabytes for a listener that does not read
        socket_.set_option(asio::socket_base::send_buffer_size(ANSWER_STEP), ignored);
        watch_listener();
    }
    answer(std::move(head));
}

// Sends what waits in out_, else what came after the listener's place. A listener who is so slow that its next event
// is gone from the log has lost its place for good.
void connection_t::stream_more()
{
    if (out_.empty()) {
        bool lost = false;
        out_ = shared_->events->next(&place_, &lost);
        if (lost) {
            end();
            return;
        }
    }
    if (out_.empty()) {
        arm(COMMENT_PERIOD);
        return;
    }
    arm(ANSWER_TIME);
    writing_ = true;
    write();
}

void connection_t::wake()
{
    if (state_ == state_t::STREAM && !writing_) {
        stream_more();
    }
}

// A listener sends nothing more; its reading ends when it goes away.
void connection_t::watch_listener()
{
    socket_.async_read_some(asio::buffer(scratch_),
                            [self = shared_from_this()](const error_t &error, size_t) {
                                if (error) {
                                    self->end();
                                } else if (self->state_ == state_t::STREAM) {
                                    self->watch_listener();
                                }
                            });
}

} // namespace kestrune::manager
