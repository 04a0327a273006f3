// The plugin's parameter string: items KEY=VALUE separated by ';' or blanks, stored through the plugin's
// table of options.
//
// Threads: the host's main thread only.
#pragma once

#include "common/host_interface.h"

#include <deque>
#include <string>

namespace probe {

class params_parser_t {
public:
    // Store every item through the option that it names; a key given twice counts the last time. Either all
    // items are good and stored, or nothing is: false, with a text in `error` that names the faulty item.
    // A string target gets a pointer to a copy that lives as long as the parser.
    [[nodiscard]] bool parse(const std::string &params, const config_option_t *options, std::string *error);

private:
    char *keep(const std::string &value);

    std::deque<std::string> kept_; // a deque: its strings never move
};

} // namespace probe
