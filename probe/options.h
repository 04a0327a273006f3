// The command line and the configuration files.
#pragma once

#include "probe/capture_file.h"
#include "probe/capture_interface.h"
#include "probe/flow_table.h"

#include <cstdint>
#include <optional>
#include <string>

namespace probe {

enum : int { STATUS_DONE = 0, STATUS_FAILED = 1, STATUS_USAGE = 2 };

struct options_t {
    replay_options_t replay; // without files: capture on the interface
    interface_options_t interface;
    uint32_t queue_count = 1;
    bool stay = false;  // after the last packet, until stopped
    double delay_s = 0; // before the first packet
    std::string plugin_path;
    std::string plugin_params;     // with the history's size
    std::optional<uint32_t> heavy; // the plugin's threshold; none: its own
    std::string metrics_address;   // empty: no metrics
    bool plugin_info = false;      // print the plugin's description only
    int32_t verbosity = 0;
    flow_limits_t flows;
};

// Read the command line and the configuration files that it names. Returns an exit status when the program
// has nothing more to do: help is on standard output, or one line about a usage error on standard error.
std::optional<int> parse_options(int argc, const char *const *argv, options_t *options);

} // namespace probe
