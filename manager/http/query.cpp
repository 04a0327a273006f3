#include "http/query.h"

#include "client/text_forms.h"
#include "forms/forms.h"
#include "model/times.h"

#include <algorithm>
#include <charconv>

namespace kestrune::manager {
namespace {

constexpr size_t TEXT_MAX = 256; // bytes of one value; cursors are shorter

int digit_of(char c)
{
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

std::string decode(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? digit_of(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? digit_of(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            throw form_error_t("", "the query has a % without two hexadecimal digits");
        }
        result += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return result;
}

ip_addr_t parse_address_parameter(const std::string &text)
{
    try {
        return parse_address(text);
    } catch (const std::invalid_argument &error) {
        throw form_error_t("address", error.what());
    }
}

std::vector<capture_state_t> parse_states(std::string_view text)
{
    std::vector<capture_state_t> states;
    while (true) {
        const size_t comma = std::min(text.find(','), text.size());
        const std::optional<capture_state_t> state = parse_capture_state(text.substr(0, comma));
        if (!state) {
            throw form_error_t(
                "state", "a state is requested, recording, searching, finished, sealed, failed or deleted");
        }
        states.push_back(*state);
        if (comma == text.size()) {
            return states;
        }
        text.remove_prefix(comma + 1);
    }
}

void parse_sort(std::string_view text, capture_query_t *query)
{
    static constexpr std::pair<std::string_view, sort_t> SORTS[] = {{"time", sort_t::TIME},
                                                                    {"address", sort_t::ADDRESS},
                                                                    {"packets", sort_t::PACKETS},
                                                                    {"bytes", sort_t::BYTES}};
    query->descending = text.starts_with('-');
    const std::string_view name = text.substr(query->descending ? 1 : 0);
    const auto *const found = std::find_if(std::begin(SORTS), std::end(SORTS),
                                           [name](const auto &sort) { return sort.first == name; });
    if (found == std::end(SORTS)) {
        throw form_error_t(
            "sort", "sort is time, address, packets or bytes, or with - before it for the other order");
    }
    query->sort = found->second;
}

} // namespace

query_t::query_t(std::string_view text)
{
    while (!text.empty()) {
        const std::string_view item = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(item.size() + 1, text.size()));
        if (item.empty()) {
            continue;
        }
        const size_t equals = std::min(item.find('='), item.size());
        const std::string name = decode(item.substr(0, equals));
        const std::string value = decode(item.substr(std::min(equals + 1, item.size())));
        const auto control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
        if (value.size() > TEXT_MAX || std::any_of(value.begin(), value.end(), control)) {
            throw form_error_t(printable(name),
                               "a parameter has at most 256 bytes and no control characters");
        }
        if (!parameters_.emplace(name, value).second) {
            throw form_error_t(printable(name), "the parameter stands there twice");
        }
    }
}

std::optional<std::string> query_t::take(const std::string &name)
{
    const auto found = parameters_.extract(name);
    return found ? std::optional(std::move(found.mapped())) : std::nullopt;
}

std::optional<uint64_t> query_t::take_number(const std::string &name, uint64_t least, uint64_t most)
{
    const std::optional<std::string> text = take(name);
    if (!text) {
        return std::nullopt;
    }
    uint64_t value = 0;
    const char *end = text->data() + text->size();
    const auto [rest, error] = std::from_chars(text->data(), end, value);
    if (text->empty() || rest != end || error != std::errc() || value < least || value > most) {
        throw form_error_t(name, name + " is a number from " + std::to_string(least) + " to " +
                                     std::to_string(most));
    }
    return value;
}

std::optional<uint64_t> query_t::take_time(const std::string &name)
{
    const std::optional<std::string> text = take(name);
    if (!text) {
        return std::nullopt;
    }
    const std::optional<uint64_t> time = parse_time(*text);
    if (!time) {
        throw form_error_t(name, name + " is a time like 2026-11-23T07:42:30Z");
    }
    return time;
}

void query_t::finish() const
{
    if (!parameters_.empty()) {
        throw form_error_t(printable(parameters_.begin()->first), "there is no such parameter");
    }
}

capture_query_t parse_capture_query(std::string_view text)
{
    query_t parameters(text);
    capture_query_t query;
    if (const auto address = parameters.take("address")) {
        query.addr = parse_address_parameter(*address);
    }
    query.probe = parameters.take("probe").value_or("");
    if (const auto states = parameters.take("state")) {
        query.states = parse_states(*states);
    }
    query.since = parameters.take_time("since").value_or(0);
    query.until = parameters.take_time("until").value_or(0);
    query.text = parameters.take("text").value_or("");
    parse_sort(parameters.take("sort").value_or("-time"), &query);
    query.limit = static_cast<uint32_t>(parameters.take_number("limit", 1, 1000).value_or(100));
    query.cursor = parameters.take("cursor").value_or("");
    parameters.finish();
    return query;
}

} // namespace kestrune::manager
