// Adds the rules of a command line.
#pragma once

#include "client/ctl/options.h"
#include "client/ctl/results.h"
#include "client/session.h"

#include <span>
#include <vector>

namespace kestrune {

// Adds a rule for each address. Without a name on the command line, each rule gets a name that does not
// repeat; an address that already has a rule keeps that rule's name, and its limits are renewed. SUCCESS does
// not promise a live capture, so a DETAIL request checks it afterwards. One answer per address, in the order
// of the command line. Throws client_error_t when the session fails.
std::vector<answer_t> add_rules(session_t *session, const options_t &options, const endpoint_t &endpoint);

// The answer that summarises those of several addresses.
answer_t summary_of(std::span<const answer_t> answers, const options_t &options, const endpoint_t &endpoint);

} // namespace kestrune
