#include "client/session.h"

#include <array>

namespace kestrune {

namespace {

constexpr size_t RECEIVE_SIZE = 65536;
// Updates kept while nobody takes them; far above what a probe sends in the time of one request.
constexpr size_t UPDATES_SIZE_MAX = size_t{16} << 20;

deadline_t in(std::chrono::milliseconds time)
{
    return std::chrono::steady_clock::now() + time;
}

std::array<uint8_t, MSG_VALUE_SIZE> encode_value(uint32_t value)
{
    std::array<uint8_t, MSG_VALUE_SIZE> bytes = {};
    msg_writer_t out = msg_writer(bytes.data(), bytes.size());
    msg_put_u32(&out, value);
    return bytes;
}

} // namespace

session_t::session_t(const endpoint_t &endpoint, const session_options_t &options)
    : options_(options), socket_(endpoint, in(options.connect_time), options.interrupt_fd)
{
}

void session_t::add(const add_request_t &add)
{
    if (add.name.empty() || add.name.size() > MSG_NAME_MAX) {
        throw client_error_t(failure_t::LOCAL, "a rule's name has 1 to 127 bytes");
    }
    std::array<uint8_t, MSG_ADD_SIZE + MSG_NAME_MAX> payload = {};
    msg_writer_t out = msg_writer(payload.data(), payload.size());
    const auto length = static_cast<uint8_t>(add.name.size());
    msg_encode_add(&out, {add.addr, add.packet_limit, add.time_limit_s, length});
    msg_put_bytes(&out, add.name.data(), length);
    request_success(msg_action::ADD, add.direction, std::span(payload).first(out.used));
}

void session_t::remove(const ip_addr_t &addr, uint8_t direction)
{
    request_success(msg_action::REMOVE, direction, addr.bytes);
}

rule_list_t session_t::list(uint8_t filter)
{
    return request_answer<rule_list_t>(msg_action::LIST, filter, {});
}

detail_t session_t::detail(const ip_addr_t &addr)
{
    auto detail = request_answer<detail_t>(msg_action::DETAIL, BOTH, addr.bytes);
    if (!(detail.fields.addr == addr)) {
        end(failure_t::MALFORMED, "the probe answered for another address");
    }
    return detail;
}

void session_t::history_on(uint32_t size_mb)
{
    request_success(msg_action::HISTORY, msg_target::ON, encode_value(size_mb));
}

void session_t::history_off()
{
    request_success(msg_action::HISTORY, msg_target::OFF, {});
}

msg_hb_info_t session_t::history_info()
{
    return request_answer<msg_hb_info_t>(msg_action::HISTORY, msg_target::INFO, {});
}

void session_t::updates_on()
{
    request_success(msg_action::INFO, msg_target::ON, {});
}

void session_t::updates_off()
{
    request_success(msg_action::INFO, msg_target::OFF, {});
}

void session_t::set_heavy_size(uint32_t packets)
{
    request_success(msg_action::REQ_HS, msg_target::HEAVY_SIZE, encode_value(packets));
}

std::optional<update_t> session_t::next_update(deadline_t deadline)
{
    if (!updates_.empty()) {
        auto [update, size] = std::move(updates_.front());
        updates_.pop_front();
        updates_size_ -= size;
        return std::move(update);
    }
    check_in_step();
    std::optional<message_t> message;
    try {
        message = next_message(deadline, options_.interrupt_fd);
    } catch (const client_error_t &error) {
        over_ = error.failure() != failure_t::INTERRUPTED;
        throw;
    }
    if (message && !std::holds_alternative<update_t>(*message)) {
        end(failure_t::MALFORMED, "the probe answered without having been asked");
    }
    return message ? std::optional(std::get<update_t>(std::move(*message))) : std::nullopt;
}

message_t session_t::request(uint8_t action, uint8_t target, std::span<const uint8_t> payload)
{
    check_in_step();
    const deadline_t deadline = in(options_.answer_time);
    std::vector<uint8_t> bytes(MSG_HEADER_SIZE);
    msg_writer_t out = msg_writer(bytes.data(), MSG_HEADER_SIZE);
    msg_encode_header(&out, msg_request(action, target));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    over_ = true; // until the reply is here
    socket_.send(bytes, deadline, options_.finish_requests ? NO_INTERRUPT : options_.interrupt_fd);
    message_t reply = await_reply(deadline);
    const status_t *status = std::get_if<status_t>(&reply);
    if (status != nullptr && status->code == msg_code::UNRECOGNIZED) {
        over_ = !payload.empty(); // which the probe takes for requests
        throw client_error_t(failure_t::UNRECOGNIZED, "the probe does not know this request", action);
    }
    over_ = false;
    if (status != nullptr && status->code == msg_code::FAIL) {
        throw client_error_t(failure_t::REFUSED, "the probe answered FAIL", action);
    }
    return reply;
}

message_t session_t::await_reply(deadline_t deadline)
{
    const int interrupt_fd = options_.finish_requests ? NO_INTERRUPT : options_.interrupt_fd;
    for (;;) {
        std::optional<message_t> message = next_message(deadline, interrupt_fd);
        if (message && !std::holds_alternative<update_t>(*message)) {
            return std::move(*message);
        }
        if (message) {
            keep(std::get<update_t>(std::move(*message)), message_size_);
        }
        if (!message || std::chrono::steady_clock::now() >= deadline) {
            end(failure_t::TIMEOUT,
                "no answer within " + std::to_string(options_.answer_time.count()) + " ms");
        }
    }
}

void session_t::request_success(uint8_t action, uint8_t target, std::span<const uint8_t> payload)
{
    request_answer<status_t>(action, target, payload);
}

template <typename T>
T session_t::request_answer(uint8_t action, uint8_t target, std::span<const uint8_t> payload)
{
    message_t reply = request(action, target, payload);
    if (!std::holds_alternative<T>(reply)) {
        end(failure_t::MALFORMED, "the probe answered another request than the one it was sent");
    }
    return std::get<T>(std::move(reply));
}

// The next message, decoded from what has come or comes until the deadline; nothing when it did not come
// whole.
std::optional<message_t> session_t::next_message(deadline_t deadline, int interrupt_fd)
{
    for (bool waited = false;; waited = true) {
        const std::span<const uint8_t> input = std::span(input_).subspan(input_used_);
        if (std::optional<message_t> message = decode_message(input, &message_size_)) {
            input_used_ += message_size_;
            return message;
        }
        if (waited && std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(input_used_));
        input_used_ = 0;
        std::array<uint8_t, RECEIVE_SIZE> room;
        const size_t received = socket_.receive(room, deadline, interrupt_fd);
        input_.insert(input_.end(), room.begin(), room.begin() + received);
    }
}

void session_t::keep(update_t update, size_t size)
{
    if (updates_size_ + size > UPDATES_SIZE_MAX) {
        end(failure_t::MALFORMED, "the probe sends updates without end");
    }
    updates_.emplace_back(std::move(update), size);
    updates_size_ += size;
}

void session_t::check_in_step() const
{
    if (over_) {
        throw client_error_t(failure_t::CLOSED, "the connection was given up after an earlier error");
    }
}

void session_t::end(failure_t failure, const std::string &text)
{
    over_ = true;
    throw client_error_t(failure, text);
}

} // namespace kestrune
