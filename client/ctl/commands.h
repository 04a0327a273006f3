// Commands that consist of one request.
#pragma once

#include "client/ctl/options.h"
#include "client/ctl/results.h"
#include "client/session.h"

#include <vector>

namespace kestrune {

// Throws client_error_t.
std::vector<answer_t> ask(session_t *session, const options_t &options, const endpoint_t &endpoint);
answer_t merge(const options_t &options);
// An answer for each capture below the paths.
std::vector<answer_t> verify(const options_t &options);

} // namespace kestrune
