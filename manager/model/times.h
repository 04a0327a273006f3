// Times: nanoseconds since the Unix epoch, UTC, at most TIME_MAX; 0 stands for none. RFC 3339 in text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::manager {

constexpr uint64_t TIME_MAX_NS = INT64_MAX; // as the catalogue stores them; the year 2262

std::string time_text(uint64_t ns); // 2026-11-23T07:42:30.000000001Z
// RFC 3339 with any offset and zero to nine digits of a second, from 1970 to 2262.
std::optional<uint64_t> parse_time(std::string_view text);
std::string date_text(uint64_t ns); // 2026-11-23

} // namespace kestrune::manager
