// The flows of one queue, with their packet counts. A flow ends when it was idle or active for too long (its
// next packet begins a new one), or when the table is full and it has been idle for longest.
//
// Time is taken from the packets. A timestamp older than the flow's newest ends nothing.
//
// Threads: one table belongs to one queue's thread. Memory grows with the flows, up to the limit.
#pragma once

#include "common/host_interface.h"
#include "probe/packet_parser.h"

#include <cstdint>
#include <tsl/hopscotch_map.h>
#include <vector>

namespace probe {

struct flow_limits_t {
    uint64_t active_ns = 300'000'000'000; // a flow's longest life
    uint64_t idle_ns = 30'000'000'000;    // without a packet
    uint32_t flow_count = 262144;         // flows in the table, at least 1
};

class flow_table_t {
public:
    explicit flow_table_t(const flow_limits_t &limits);

    // The flow of a packet, created if necessary. Its counter holds the packets before this one; the caller
    // adds the packet once it is handed on. Valid until the next call. Throws std::bad_alloc.
    host_flow_t &find(const flow_key_t &key, uint64_t timestamp_ns);

    uint64_t begun() const { return begun_; }     // flows since the start
    uint64_t evicted() const { return evicted_; } // of them, ended because the table was full
    uint64_t size() const { return index_.size(); }

private:
    static constexpr uint32_t NONE = UINT32_MAX;

    struct entry_t {
        host_flow_t record;
        flow_key_t key;
        uint64_t first_ns;
        uint64_t last_ns;
        uint32_t newer; // neighbours in the order of the last packet
        uint32_t older;
    };

    struct hash_t {
        uint64_t seed; // random, so that no sender can choose flows that share a bucket
        size_t operator()(const flow_key_t &key) const { return flow_hash(key, seed); }
    };

    bool idle(const entry_t &entry, uint64_t now_ns) const;
    uint32_t insert(const flow_key_t &key, uint64_t timestamp_ns);
    void remove(uint32_t slot);
    void link_newest(uint32_t slot);
    void unlink(uint32_t slot);

    flow_limits_t limits_;
    tsl::hopscotch_map<flow_key_t, uint32_t, hash_t> index_; // key to slot
    std::vector<entry_t> slots_;
    std::vector<uint32_t> free_;
    uint32_t newest_ = NONE;
    uint32_t oldest_ = NONE;
    uint64_t begun_ = 0;
    uint64_t evicted_ = 0;
};

} // namespace probe
