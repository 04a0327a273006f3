// Configuration files. A line is KEY = VALUE, where KEY is a long option of the command line
// without its dashes; '#' begins a comment at the start of a line or of a word; blank lines
// are skipped. A flag takes true or false.
//
// Threads: one.
#pragma once

#include <string>
#include <vector>

namespace probe {

struct config_item_t {
    std::string key;
    std::string value;
    std::string where; // "FILE:LINE"
};

// The items of a file in their order. A file named with a leading '-' may be missing. Throws error_t, with
// file and line, when the file cannot be read or a line is no item.
std::vector<config_item_t> read_config(const std::string &name);

} // namespace probe
