// The plugin's parameter string: items KEY=VALUE separated by ';' or blanks, stored
// through the plugin's table of options.
//
// Threads: the host's main thread only.
#pragma once

#include "common/host_interface.h"

#include <deque>
#include <optional>
#include <string>

namespace probe {

// The option of this name, or null.
const config_option_t *find_option(const config_option_t *options, const std::string &name);

class params_parser_t {
public:
    // Store every item through the option that it names; of a repeated key the last value counts. Stores all
    // items or none: false, with a text in `error` that names the faulty item. A string target gets a pointer
    // to a copy that lives as long as the parser.
    [[nodiscard]] bool parse(const std::string &params, const config_option_t *options, std::string *error);

private:
    char *keep(const std::string &value);

    std::deque<std::string> kept_; // a deque: its strings never move
};

// The last value of a key in a parameter string.
std::optional<std::string> find_parameter(const std::string &params, const std::string &key);

} // namespace probe
