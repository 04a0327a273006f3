// The command line of kestrune-manager.
#pragma once

#include <filesystem>
#include <optional>

namespace kestrune::manager {

enum exit_status_t : int { STATUS_DONE = 0, STATUS_FAILED = 1, STATUS_USAGE = 2 };

struct options_t {
    std::filesystem::path config; // empty: none
    std::filesystem::path state;
    bool check = false; // read the configuration, say what is wrong, end
    bool url = false;   // print a link to the page, with a token, end
};

// Nothing, or the exit status: the help was printed, or the usage is wrong and was explained on standard error.
std::optional<int> parse_options(int argc, char **argv, options_t *options);

} // namespace kestrune::manager
