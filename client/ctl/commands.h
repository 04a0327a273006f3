// The commands, each on one probe. A thread per probe runs one of these.
#pragma once

#include "client/ctl/answer.h"
#include "client/session.h"

namespace kestrune {

// The options of a session for this command line.
session_options_t session_options(const options_t &options);

// Adds the rule. Throws client_error_t; REFUSED says so when the address has a rule of another name.
void add_rule(session_t *session, const options_t &options);

// Adds the rule, stays until it is finished and answers with its files. Progress goes to standard error.
// Throws client_error_t; INTERRUPTED after the rule was removed.
answer_t add_and_wait(session_t *session, const options_t &options, const endpoint_t &endpoint,
                      console_t *console);

// Prints the probe's updates on standard output until interrupted (INTERRUPTED) or until the session fails.
void watch(session_t *session, const options_t &options, const endpoint_t &endpoint, console_t *console);

} // namespace kestrune
