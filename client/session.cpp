#include "client/session.h"

#include <array>
#include <iterator>

namespace kestrune {

namespace {

constexpr size_t RECEIVE_SIZE = 65536;
// Size limit of kept updates; far above what a probe sends during one request.
constexpr size_t UPDATES_SIZE_MAX = size_t{16} << 20;

deadline_t in(std::chrono::milliseconds time)
{
    return std::chrono::steady_clock::now() + time;
}

std::string seconds_text(std::chrono::milliseconds time)
{
    const bool whole = time.count() % 1000 == 0;
    return whole ? std::to_string(time.count() / 1000) + "s" : std::to_string(time.count()) + "ms";
}

std::vector<uint8_t> bytes_of(uint32_t value)
{
    std::vector<uint8_t> bytes(MSG_VALUE_SIZE);
    msg_writer_t out = msg_writer(bytes.data(), MSG_VALUE_SIZE);
    msg_put_u32(&out, value);
    return bytes;
}

std::vector<uint8_t> bytes_of(const ip_addr_t &addr)
{
    return {std::begin(addr.bytes), std::end(addr.bytes)};
}

bool is_status(const message_t &reply, uint8_t code)
{
    const status_t *status = std::get_if<status_t>(&reply);
    return status != nullptr && status->code == code;
}

} // namespace

session_t::session_t(const endpoint_t &endpoint, const session_options_t &options)
    : options_(options), socket_(endpoint, in(options.connect_time), options.interrupt_fd)
{
}

void session_t::add(const add_request_t &request)
{
    ask(add_request(request));
}

void session_t::remove(const ip_addr_t &addr, uint8_t direction)
{
    ask({msg_action::REMOVE, direction, bytes_of(addr)});
}

rule_list_t session_t::list(uint8_t filter)
{
    return ask<rule_list_t>({msg_action::LIST, filter, {}});
}

detail_t session_t::detail(const ip_addr_t &addr)
{
    return expect_detail(ask<detail_t>({msg_action::DETAIL, BOTH, bytes_of(addr)}), addr);
}

void session_t::history_on(uint32_t size_mb)
{
    ask({msg_action::HISTORY, msg_target::ON, bytes_of(size_mb)});
}

void session_t::history_off()
{
    ask({msg_action::HISTORY, msg_target::OFF, {}});
}

msg_hb_info_t session_t::history_info()
{
    return ask<msg_hb_info_t>({msg_action::HISTORY, msg_target::INFO, {}});
}

void session_t::updates_on()
{
    ask({msg_action::INFO, msg_target::ON, {}});
}

void session_t::updates_off()
{
    ask({msg_action::INFO, msg_target::OFF, {}});
}

void session_t::set_heavy_size(uint32_t packets)
{
    ask({msg_action::REQ_HS, msg_target::HEAVY_SIZE, bytes_of(packets)});
}

void session_t::add_many(std::span<const add_request_t> requests, std::vector<bool> *taken)
{
    exchange_status(
        requests.size(), [&](size_t i) { return add_request(requests[i]); }, taken);
}

void session_t::remove_many(std::span<const ip_addr_t> addrs, uint8_t direction, std::vector<bool> *taken)
{
    const auto make = [&](size_t i) { return request_t{msg_action::REMOVE, direction, bytes_of(addrs[i])}; };
    exchange_status(addrs.size(), make, taken);
}

void session_t::detail_many(std::span<const ip_addr_t> addrs, std::vector<std::optional<detail_t>> *details)
{
    exchange(
        addrs.size(),
        [&](size_t i) {
            return request_t{msg_action::DETAIL, BOTH, bytes_of(addrs[i])};
        },
        [&](size_t i, message_t reply) {
            details->push_back(is_status(reply, msg_code::FAIL)
                                   ? std::nullopt
                                   : std::optional(expect_detail(std::move(reply), addrs[i])));
        });
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

session_t::request_t session_t::add_request(const add_request_t &add)
{
    if (add.name.empty() || add.name.size() > MSG_NAME_MAX) {
        throw client_error_t(failure_t::LOCAL, "a rule's name has 1 to 127 bytes");
    }
    const auto length = static_cast<uint8_t>(add.name.size());
    std::vector<uint8_t> payload(MSG_ADD_SIZE + length);
    msg_writer_t out = msg_writer(payload.data(), MSG_ADD_SIZE + length);
    msg_encode(&out, msg_add_t{add.addr, add.packet_limit, add.time_limit_s, length});
    msg_put_bytes(&out, add.name.data(), length);
    return {msg_action::ADD, add.direction, std::move(payload)};
}

// Sends the requests that `make` returns and passes each reply to `take`. Requests go out in batches; the
// next follows when half of the last is answered.
void session_t::exchange(size_t count, const std::function<request_t(size_t)> &make,
                         const std::function<void(size_t, message_t)> &take)
{
    check_in_step();
    const int interrupt_fd = options_.finish_requests ? NO_INTERRUPT : options_.interrupt_fd;
    std::vector<uint8_t> bytes;
    std::deque<request_t> ahead; // sent, without their replies
    size_t sent = 0;
    for (size_t done = 0; done < count; done++) {
        const deadline_t deadline = in(options_.answer_time);
        bytes.clear();
        while (ahead.size() < REQUESTS_AHEAD && sent < count &&
               (!bytes.empty() || ahead.size() <= REQUESTS_AHEAD / 2)) {
            const request_t &request = ahead.emplace_back(make(sent++));
            bytes.resize(bytes.size() + MSG_HEADER_SIZE);
            msg_writer_t out = msg_writer(&bytes[bytes.size() - MSG_HEADER_SIZE], MSG_HEADER_SIZE);
            msg_encode(&out, msg_request(request.action, request.target));
            bytes.insert(bytes.end(), request.payload.begin(), request.payload.end());
        }
        over_ = true; // until all replies have come
        socket_.send(bytes, deadline, interrupt_fd);
        message_t reply = await_reply(deadline);
        const request_t request = std::move(ahead.front());
        ahead.pop_front();
        if (is_status(reply, msg_code::UNRECOGNIZED)) {
            over_ = count > 1 || !request.payload.empty(); // the probe takes it for requests
            throw client_error_t(failure_t::UNRECOGNIZED, "the probe does not know this request",
                                 request.action);
        }
        take(done, std::move(reply));
    }
    over_ = false;
}

void session_t::exchange_status(size_t count, const std::function<request_t(size_t)> &make,
                                std::vector<bool> *taken)
{
    exchange(count, make, [&](size_t, message_t reply) {
        taken->push_back(expect<status_t>(std::move(reply)).code == msg_code::SUCCESS);
    });
}

template <typename T>
T session_t::ask(const request_t &request)
{
    std::optional<message_t> reply;
    exchange(
        1, [&](size_t) { return request; }, [&](size_t, message_t message) { reply = std::move(message); });
    if (is_status(*reply, msg_code::FAIL)) {
        throw client_error_t(failure_t::REFUSED, "the probe answered FAIL", request.action);
    }
    return expect<T>(std::move(*reply));
}

template <typename T>
T session_t::expect(message_t reply)
{
    if (!std::holds_alternative<T>(reply)) {
        end(failure_t::MALFORMED, "the probe answered another request than the one it was sent");
    }
    return std::get<T>(std::move(reply));
}

detail_t session_t::expect_detail(message_t reply, const ip_addr_t &addr)
{
    auto detail = expect<detail_t>(std::move(reply));
    if (!(detail.fields.addr == addr)) {
        end(failure_t::MALFORMED, "the probe answered for another address");
    }
    return detail;
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
            end(failure_t::TIMEOUT, "no answer within " + seconds_text(options_.answer_time));
        }
    }
}

// The next message, decoded from received bytes or from bytes that arrive before the
// deadline; nothing when it is incomplete by then.
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
