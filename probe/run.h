// One run of the probe: sources opened, plugin loaded and started, packets handed on by one thread per queue,
// plugin stopped and unloaded.
#pragma once

#include "probe/options.h"

namespace probe {

// Returns when the packets end (unless --stay) or a signal stops the run. Throws error_t when a source or the
// plugin fails; the plugin has then been shut down.
void run(const options_t &options);

} // namespace probe
