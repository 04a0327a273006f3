// The session options of a command line.
#pragma once

#include "client/ctl/options.h"
#include "client/session.h"

namespace kestrune {

session_options_t session_options(const options_t &options);

} // namespace kestrune
