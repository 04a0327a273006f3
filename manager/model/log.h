// Log lines on standard error, one write each, so that lines of several threads never mix:
//
//   2026-11-23T07:42:30.123456789Z WARNING the probe eth0 is not reachable
//   <4>the probe eth0 is not reachable     when standard error is the journal (JOURNAL_STREAM), which adds the time
//
// Never a token, never packet data. Threads: any.
#pragma once

#include <string_view>

namespace kestrune::manager {

void log_error(std::string_view text);
void log_warning(std::string_view text);
void log_info(std::string_view text);

} // namespace kestrune::manager
