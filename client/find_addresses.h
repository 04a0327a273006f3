// Finds the addresses in text of any kind: lists, logs, the output of other programs.
#pragma once

#include "common/ip_addr.h"

#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

struct found_addresses_t {
    std::vector<ip_addr_t> addrs;      // each once, in the order of the text
    std::vector<std::string> left_out; // "line 3: '10.0.0.0/8' is a network ...": no rule can watch it
};

// An address stands apart from letters and digits. A port behind it (10.0.0.1:443,
// [2001:db8::1]:443, and 10.0.0.1.443 as packet dumps have it) or a zone is dropped. '#' at the
// start of a line or after a blank begins a comment.
found_addresses_t find_addresses(std::string_view text);

} // namespace kestrune
