// The text forms that people write and read: addresses, probes, sizes, durations, names. A parser throws
// std::invalid_argument with a sentence for the user.
#pragma once

#include "common/ip_addr.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace kestrune {

// A rule's address: dotted IPv4, or IPv6 in any form of inet_pton, also in brackets. An IPv4-mapped address
// (::ffff:1.2.3.4) gives the IPv4 key, since its packets carry that. Refused are host names, networks, zones,
// and the few IPv6 addresses whose key the plugin takes for IPv4.
ip_addr_t parse_address(std::string_view text);

// Where a probe listens.
struct endpoint_t {
    std::string host;         // name or address, without brackets
    std::string port;         // decimal
    std::string text() const; // HOST:PORT, an IPv6 host in brackets
};

// HOST, HOST:PORT, [IPV6]:PORT, or IPV6 alone. The default port is 37564.
endpoint_t parse_endpoint(std::string_view text);

// "500ms", "90s", "5m", "1h30m", or a number of seconds.
std::chrono::milliseconds parse_duration(std::string_view text);
// The same without fractions of a second, 1 to 4294967295 s, for a rule's time limit.
uint32_t parse_time_limit(std::string_view text);
// "512M", "8G", "1T" (also MB, MiB and so on) in units of 1048576 bytes.
uint32_t parse_size_mb(std::string_view text);

// Throws when a rule should not have this name: it becomes part of file names, of a comma-separated list and
// of a shell command on the probe.
void check_rule_name(std::string_view name);
// A name that does not repeat, for a rule without a given one: the address with '-' for ':', and the time in
// UTC, "192.0.2.17-20261123T051203Z".
std::string dated_rule_name(const ip_addr_t &addr, std::time_t now);

std::string format_duration(uint64_t seconds);
std::string format_bytes(uint64_t bytes);
// Replaces control characters with '?', so that text from a probe cannot control a terminal.
std::string printable(std::string_view text);

} // namespace kestrune
