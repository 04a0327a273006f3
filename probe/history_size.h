// The size of the plugin's history when the command line gives none: the plugin's own
// default may be more than the machine has.
#pragma once

#include "common/host_interface.h"

#include <string>

namespace probe {

// The parameters, with a buffer_size in MiB added if the plugin has this option and they do not contain it: a
// quarter of what this process could still take, at most 8192. Logs it.
std::string with_history_size(const std::string &params, const config_option_t *options);

} // namespace probe
