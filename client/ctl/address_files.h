// add --from.
#pragma once

#include "client/ctl/options.h"

#include <string>
#include <vector>

namespace kestrune {

// Adds the addresses found in the files, each once; returns a sentence for each one left out. Throws
// client_error_t (LOCAL) when a file cannot be read or there is no address at all.
std::vector<std::string> read_address_files(options_t *options);

} // namespace kestrune
