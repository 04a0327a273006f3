#include "http/range.h"

#include <algorithm>
#include <charconv>
#include <strings.h>

namespace kestrune::manager {
namespace {

constexpr std::string_view UNIT = "bytes=";

std::string_view trim(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// Digits only. A number beyond 64 bits is beyond every file.
std::optional<uint64_t> parse_position(std::string_view text)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return error == std::errc::result_out_of_range ? UINT64_MAX : value;
}

byte_range_t part(uint64_t offset, uint64_t length)
{
    return {range_result_t::PART, offset, length};
}

} // namespace

byte_range_t parse_range(std::string_view field, uint64_t size)
{
    constexpr byte_range_t WHOLE = {};
    constexpr byte_range_t UNSATISFIABLE = {range_result_t::UNSATISFIABLE, 0, 0};
    if (field.size() < UNIT.size() || strncasecmp(field.data(), UNIT.data(), UNIT.size()) != 0) {
        return WHOLE;
    }
    const std::string_view range = trim(field.substr(UNIT.size()));
    const size_t dash = range.find('-');
    if (dash == std::string_view::npos || range.find(',') != std::string_view::npos) {
        return WHOLE;
    }
    const std::string_view last_text = range.substr(dash + 1);
    const std::optional<uint64_t> last = parse_position(last_text);
    if (dash == 0) { // the last so many bytes
        if (!last) {
            return WHOLE;
        }
        const uint64_t length = std::min(*last, size);
        return length == 0 ? UNSATISFIABLE : part(size - length, length);
    }
    const std::optional<uint64_t> first = parse_position(range.substr(0, dash));
    if (!first || (!last && !last_text.empty()) || (last && *last < *first)) {
        return WHOLE;
    }
    if (*first >= size) {
        return UNSATISFIABLE;
    }
    const uint64_t end = last ? std::min(*last, size - 1) : size - 1;
    return part(*first, end - *first + 1);
}

bool range_applies(std::optional<std::string_view> if_range, std::string_view etag)
{
    return !if_range || trim(*if_range) == etag;
}

bool matches_etag(std::string_view if_none_match, std::string_view etag)
{
    while (!if_none_match.empty()) {
        const size_t comma = std::min(if_none_match.find(','), if_none_match.size());
        std::string_view tag = trim(if_none_match.substr(0, comma));
        if (tag.starts_with("W/")) {
            tag.remove_prefix(2);
        }
        if (tag == etag || tag == "*") {
            return true;
        }
        if_none_match.remove_prefix(std::min(comma + 1, if_none_match.size()));
    }
    return false;
}

} // namespace kestrune::manager
