// add --wait.
#pragma once

#include "client/ctl/console.h"
#include "client/ctl/options.h"
#include "client/ctl/results.h"
#include "client/session.h"

#include <functional>

namespace kestrune {

// Adds the rules, waits until they are finished and answers with their files: an answer per address as
// it comes, and a summary of several. Progress goes to standard error. Throws client_error_t;
// INTERRUPTED after removing the new rules.
void add_and_wait(session_t *session, const options_t &options, const endpoint_t &endpoint,
                  console_t *console, const std::function<void(answer_t)> &give);

} // namespace kestrune
