#include "probes/metrics.h"

#include "client/error.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <strings.h>

namespace kestrune::manager {

namespace {

constexpr std::string_view PREFIX = "kestrune_probe_";
constexpr double COUNT_MAX = 9e18; // what a counter of 64 bits may hold, with room for a sum
constexpr size_t RECEIVE_SIZE = 16384;

[[noreturn]] void malformed(const std::string &what)
{
    throw client_error_t(failure_t::MALFORMED, "the probe's metrics: " + what);
}

// Cuts the text behind the first mark and returns what was before it.
std::string_view cut(std::string_view *text, char mark)
{
    const size_t at = text->find(mark);
    const std::string_view before = text->substr(0, at);
    text->remove_prefix(at == std::string_view::npos ? text->size() : at + 1);
    return before;
}

// The number behind a sample's name and labels. A label's value may hold '}' and blanks, but stands in quotes.
double sample_value(std::string_view rest)
{
    if (rest.starts_with('{')) {
        bool quoted = false;
        size_t at = 1;
        for (; at < rest.size() && (quoted || rest[at] != '}'); at++) {
            if (rest[at] == '\\') {
                at++; // with what it escapes
            } else if (rest[at] == '"') {
                quoted = !quoted;
            }
        }
        rest.remove_prefix(std::min(at + 1, rest.size()));
    }
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    double value = -1;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
    const bool whole = end == rest.data() + rest.size() || *end == ' ' || *end == '\r';
    if (error != std::errc() || !whole || !(value >= 0 && value <= COUNT_MAX)) {
        malformed("a sample without a number");
    }
    return value;
}

constexpr std::string_view HEADER_END = "\r\n\r\n";

// Bytes of the whole answer, when its header is there and says so.
std::optional<size_t> answer_size(std::string_view answer)
{
    static constexpr std::string_view NAME = "content-length:";
    const size_t end = answer.find(HEADER_END);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    for (std::string_view header = answer.substr(0, end); !header.empty();) {
        std::string_view line = cut(&header, '\n');
        if (line.size() < NAME.size() || strncasecmp(line.data(), NAME.data(), NAME.size()) != 0) {
            continue;
        }
        line.remove_prefix(std::min(line.find_first_not_of(' ', NAME.size()), line.size()));
        size_t size = 0;
        if (std::from_chars(line.data(), line.data() + line.size(), size).ec != std::errc() ||
            size > METRICS_SIZE_MAX) {
            malformed("an answer of a wrong length");
        }
        return end + HEADER_END.size() + size;
    }
    return std::nullopt;
}

// True for an answer without a length, which ends where the connection does.
bool ends_at_close(std::string_view answer)
{
    return answer.find(HEADER_END) != std::string_view::npos && !answer_size(answer);
}

std::string body_of(const std::string &answer)
{
    if (!answer.starts_with("HTTP/1.") || answer.substr(8, 4) != " 200") {
        malformed("an answer other than 200");
    }
    return answer.substr(answer.find(HEADER_END) + HEADER_END.size());
}

} // namespace

probe_counters_t parse_metrics(std::string_view text)
{
    static constexpr std::array<std::string_view, 4> NAMES = {"start_time_seconds", "read_packets_total",
                                                              "kernel_dropped_packets_total",
                                                              "interface_dropped_packets_total"};
    std::array<std::optional<double>, NAMES.size()> sums;
    while (!text.empty()) {
        std::string_view line = cut(&text, '\n');
        if (!line.starts_with(PREFIX)) {
            continue;
        }
        line.remove_prefix(PREFIX.size());
        const size_t name_size = std::min(line.find_first_of("{ "), line.size());
        for (size_t i = 0; i < NAMES.size(); i++) {
            if (line.substr(0, name_size) == NAMES[i]) {
                sums[i] = std::min(sums[i].value_or(0) + sample_value(line.substr(name_size)), COUNT_MAX);
            }
        }
    }
    for (size_t i = 1; i < NAMES.size(); i++) {
        if (!sums[i]) {
            malformed(std::string(PREFIX) + std::string(NAMES[i]) + " is missing");
        }
    }
    return {sums[0].value_or(0), static_cast<uint64_t>(*sums[1]), static_cast<uint64_t>(*sums[2]),
            static_cast<uint64_t>(*sums[3])};
}

std::string fetch_metrics(const endpoint_t &endpoint, const std::string &path, deadline_t deadline,
                          int interrupt_fd)
{
    socket_t socket(endpoint, deadline, interrupt_fd);
    const std::string request = "GET " + path + " HTTP/1.0\r\nHost: " + endpoint.text() +
                                "\r\nAccept: text/plain\r\nConnection: close\r\n\r\n";
    socket.send({reinterpret_cast<const uint8_t *>(request.data()), request.size()}, deadline, interrupt_fd);
    std::string answer;
    std::array<uint8_t, RECEIVE_SIZE> room;
    std::optional<size_t> size; // of the whole answer, once its header has said so
    while (!size || answer.size() < *size) {
        size_t received = 0;
        try {
            received = socket.receive(room, deadline, interrupt_fd);
        } catch (const client_error_t &error) {
            if (error.failure() != failure_t::CLOSED || !ends_at_close(answer)) {
                throw;
            }
            break;
        }
        if (received == 0) {
            throw client_error_t(failure_t::TIMEOUT, "the probe's metrics did not come in time");
        }
        answer.append(reinterpret_cast<const char *>(room.data()), received);
        if (answer.size() > METRICS_SIZE_MAX) {
            malformed("more than 1 MiB");
        }
        size = size ? size : answer_size(answer);
    }
    return body_of(answer);
}

} // namespace kestrune::manager
