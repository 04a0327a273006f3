// What the server counts of itself, for /metrics.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrune::manager {

struct http_counters_t {
    static constexpr unsigned STATUS_FIRST = 200;
    static constexpr unsigned STATUS_END = 600;

    std::array<std::atomic<uint64_t>, STATUS_END - STATUS_FIRST> answers{}; // by status
    std::atomic<size_t> listeners{0};                                       // event streams now

    void count(unsigned status)
    {
        if (status >= STATUS_FIRST && status < STATUS_END) {
            answers[status - STATUS_FIRST].fetch_add(1, std::memory_order_relaxed);
        }
    }
};

} // namespace kestrune::manager
