// The Range field of a request for a file (RFC 9110, section 14). One range is served; several, or another unit, are
// answered with the whole file, which the standard allows.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrune::manager {

enum class range_result_t { WHOLE, PART, UNSATISFIABLE };

struct byte_range_t {
    range_result_t result = range_result_t::WHOLE;
    uint64_t offset = 0; // PART
    uint64_t length = 0; // PART
};

// `size` is the file's. A field that is not well-formed counts as if it were not there.
byte_range_t parse_range(std::string_view field, uint64_t size);

// Whether the Range field counts: there is no If-Range, or it is exactly this entity tag (quoted, strong).
bool range_applies(std::optional<std::string_view> if_range, std::string_view etag);

// If-None-Match: a list of entity tags or "*", compared weakly.
bool matches_etag(std::string_view if_none_match, std::string_view etag);

} // namespace kestrune::manager
