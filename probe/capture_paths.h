// The paths among the plugin's parameters that it first needs when it has a rule: too late for an operator who
// has long turned to something else.
#pragma once

#include "common/host_interface.h"

#include <string>

namespace probe {

// Log a warning when the plugin has the option export_path and cannot write there, or has the option
// capture_script and cannot read the script. Never fails: both can be mended while the plugin runs.
void check_capture_paths(const std::string &params, const config_option_t *options);

} // namespace probe
