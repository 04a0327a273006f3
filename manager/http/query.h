// The parameters of a request's query, strictly: each once, none that nobody knows.
#pragma once

#include "model/capture.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::manager {

// All throw form_error_t with the parameter's name.
class query_t {
public:
    // Of application/x-www-form-urlencoded: "%XX", and "+" for a blank. UTF-8 without control characters.
    explicit query_t(std::string_view text);

    std::optional<std::string> take(const std::string &name);
    std::optional<uint64_t> take_number(const std::string &name, uint64_t least, uint64_t most);
    std::optional<uint64_t> take_time(const std::string &name); // nanoseconds since the epoch
    void finish() const;                                        // nothing is left

private:
    std::map<std::string, std::string> parameters_;
};

// The parameters of GET /captures.
capture_query_t parse_capture_query(std::string_view text);

} // namespace kestrune::manager
