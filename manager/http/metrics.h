// The text of /metrics, in Prometheus' text format 0.0.4. No address stands in a label.
#pragma once

#include "captures/captures.h"
#include "catalogue/catalogue.h"
#include "http/counters.h"
#include "model/probe.h"
#include "model/receipt.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrune::manager {

struct metrics_t {
    std::vector<probe_view_t> probes;
    totals_t totals;
    captures_stats_t captures;
    archive_view_t archive;
    size_t alarms = 0;
    uint64_t started_at = 0; // wall clock, ns
};

std::string metrics_text(const metrics_t &metrics, const http_counters_t &counters);

} // namespace kestrune::manager
