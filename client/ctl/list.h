// list.
#pragma once

#include "client/ctl/options.h"
#include "client/ctl/printer.h"
#include "client/ctl/results.h"
#include "client/session.h"

namespace kestrune {

// The rules, with DETAIL of each unless only addresses are wanted. Throws client_error_t.
answer_t list_rules(session_t *session, const options_t &options, const endpoint_t &endpoint);

// Shows the rules repeatedly until interrupted (INTERRUPTED) or until the session fails.
[[noreturn]] void watch_list(session_t *session, const options_t &options, const endpoint_t &endpoint,
                             printer_t *printer);

} // namespace kestrune
