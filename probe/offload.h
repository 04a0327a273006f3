// Whether a network interface merges received packets. A capture then contains
// packets that were never on the wire.
//
// Threads: any. Source: ethtool requests of the Linux kernel (linux/ethtool.h), which need no privilege.
#pragma once

#include <string>

namespace probe {

// The command that stops merging, "ethtool -K eth0 gro off"; nothing when the
// interface does not merge packets or does not say.
std::string command_against_merging(const std::string &interface);

} // namespace probe
