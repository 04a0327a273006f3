// The bodies of a probe's other two threads. Both end when the context's `stop` is given. Inside of probes/.
#pragma once

#include "probes/context.h"

#include <functional>

namespace kestrune::manager {

// `probe-upd`: the updates session. Every update is told as it comes. `ended` is called after each session that stood.
void run_updates(const context_t &context, const std::function<void()> &ended);

// `probe-met`: reads the probe's metrics each 5 s.
void run_metrics(const context_t &context);

} // namespace kestrune::manager
