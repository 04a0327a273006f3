// The probe's own metrics, as kestrune-probe --metrics serves them (text format 0.0.4). Inside of probes/.
#pragma once

#include "client/socket.h"
#include "client/text_forms.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrune::manager {

constexpr size_t METRICS_SIZE_MAX = size_t{1} << 20; // bytes of an answer, with its header

// Counters of the samples' sums over their labels.
struct probe_counters_t {
    double start_s = 0; // since the epoch; 0 when the probe does not say
    uint64_t packets = 0;
    uint64_t kernel_drops = 0;
    uint64_t interface_drops = 0;
};

// Reads the samples of kestrune_probe_read_packets_total, kestrune_probe_kernel_dropped_packets_total,
// kestrune_probe_interface_dropped_packets_total and kestrune_probe_start_time_seconds. Throws client_error_t
// (MALFORMED) when one of the counters is missing or has no number. Other lines are passed over.
probe_counters_t parse_metrics(std::string_view text);

// GET over a connection of its own. Throws client_error_t: CONNECT, NO_LISTENER, TIMEOUT (not done by the
// deadline), CLOSED (an answer that ends early), MALFORMED (another status than 200, or more than METRICS_SIZE_MAX),
// INTERRUPTED.
std::string fetch_metrics(const endpoint_t &endpoint, const std::string &path, deadline_t deadline,
                          int interrupt_fd);

} // namespace kestrune::manager
