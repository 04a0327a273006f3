// What an error means to the user of a command: its exit status, and a sentence that says what to do next.
#pragma once

#include "client/ctl/options.h"
#include "client/ctl/results.h"
#include "client/error.h"

#include <string>

namespace kestrune {

// endpoint: null for errors on this machine.
answer_t failed_answer(const client_error_t &error, const options_t &options, const endpoint_t *endpoint);
// Why the plugin may have answered a request of this action with FAIL.
std::string refusal_text(int action, const ip_addr_t &addr, const options_t &options);

} // namespace kestrune
