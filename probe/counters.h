// What the probe counts. Each group is written by one thread and read by the main thread at any time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace probe {

class counter_t {
public:
    // Only by the thread that owns the counter.
    void add(uint64_t value = 1) { set(get() + value); }
    void set(uint64_t value) { value_.store(value, std::memory_order_relaxed); }
    uint64_t get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> value_ = 0;
};

// Of a thread that reads packets. read = handed on (all queues) + not_ip + truncated,
// once all packets are handed over.
struct alignas(64) reader_counters_t {
    counter_t read;
    counter_t not_ip;
    counter_t truncated; // captured bytes end before the addresses
    counter_t clamped;   // handed on with the first 65535 bytes, the limit of a packet record
    counter_t kernel_dropped;
    counter_t interface_dropped; // by the interface, for all readers; the first one counts
};

// Of a thread that hands packets on.
struct alignas(64) queue_counters_t {
    counter_t handed_on;
    counter_t flows;         // begun
    counter_t flows_active;  // in the table
    counter_t flows_evicted; // ended because the table was full
};

struct counter_groups_t {
    std::vector<const reader_counters_t *> readers; // borrowed; at least one. On an interface one per queue
    std::vector<const queue_counters_t *> queues;   // borrowed
};

struct totals_t {
    uint64_t read;
    uint64_t kernel_dropped;
};
totals_t totals(const counter_groups_t &groups);

// One line: "counters: read=7451 handed_on=7451 handed_on_0=7451 not_ip=0 ...".
std::string counters_text(const counter_groups_t &groups);

} // namespace probe
