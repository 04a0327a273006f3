// Tells the service manager how the service does (sd_notify(3)), by NOTIFY_SOCKET; does nothing without it.
#pragma once

#include <string>

namespace kestrune::manager {

// For instance "READY=1\nSTATUS=2 probes". Main's thread.
void notify_service(const std::string &text);

} // namespace kestrune::manager
