// watch: a line per update, and on a terminal a bar per running rule.
#pragma once

#include "client/ctl/console.h"
#include "client/ctl/options.h"
#include "client/ctl/printer.h"
#include "client/session.h"

namespace kestrune {

// Prints the probe's updates on standard output until interrupted (INTERRUPTED) or until the session fails.
[[noreturn]] void watch(session_t *session, const options_t &options, const endpoint_t &endpoint,
                        console_t *console, printer_t *printer);

} // namespace kestrune
