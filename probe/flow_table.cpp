#include "probe/flow_table.h"

#include <random>

namespace probe {
namespace {

// How many idle flows one look-up removes at most: more than one, so that they cannot accumulate.
constexpr int EXPIRE_AT_ONCE = 2;

uint64_t random_seed()
{
    std::random_device device;
    return static_cast<uint64_t>(device()) << 32 | device();
}

} // namespace

flow_table_t::flow_table_t(const flow_limits_t &limits) : limits_(limits), index_(0, hash_t{random_seed()}) {}

bool flow_table_t::idle(const entry_t &entry, uint64_t now_ns) const
{
    return now_ns > entry.last_ns && now_ns - entry.last_ns >= limits_.idle_ns;
}

host_flow_t &flow_table_t::find(const flow_key_t &key, uint64_t timestamp_ns)
{
    for (int i = 0; i < EXPIRE_AT_ONCE && oldest_ != NONE && idle(slots_[oldest_], timestamp_ns); i++) {
        remove(oldest_);
    }
    const auto found = index_.find(key);
    if (found == index_.end()) {
        return slots_[insert(key, timestamp_ns)].record;
    }
    const uint32_t slot = found->second;
    entry_t &entry = slots_[slot];
    const bool outlived = timestamp_ns > entry.first_ns && timestamp_ns - entry.first_ns >= limits_.active_ns;
    if (outlived || idle(entry, timestamp_ns)) {
        entry.record = {};
        entry.first_ns = timestamp_ns;
        begun_++;
    }
    entry.last_ns = timestamp_ns > entry.last_ns ? timestamp_ns : entry.last_ns;
    if (slot != newest_) {
        unlink(slot);
        link_newest(slot);
    }
    return entry.record;
}

uint32_t flow_table_t::insert(const flow_key_t &key, uint64_t timestamp_ns)
{
    if (index_.size() >= limits_.flow_count) {
        remove(oldest_);
        evicted_++;
    }
    if (free_.empty()) {
        free_.reserve(slots_.size() + 1); // so that remove never allocates
        slots_.emplace_back();
        free_.push_back(static_cast<uint32_t>(slots_.size() - 1));
    }
    const uint32_t slot = free_.back();
    index_.insert({key, slot});
    free_.pop_back();
    slots_[slot] = {.record = {},
                    .key = key,
                    .first_ns = timestamp_ns,
                    .last_ns = timestamp_ns,
                    .newer = NONE,
                    .older = NONE};
    link_newest(slot);
    begun_++;
    return slot;
}

void flow_table_t::remove(uint32_t slot)
{
    index_.erase(slots_[slot].key);
    unlink(slot);
    free_.push_back(slot);
}

void flow_table_t::link_newest(uint32_t slot)
{
    slots_[slot].newer = NONE;
    slots_[slot].older = newest_;
    if (newest_ != NONE) {
        slots_[newest_].newer = slot;
    } else {
        oldest_ = slot;
    }
    newest_ = slot;
}

void flow_table_t::unlink(uint32_t slot)
{
    const entry_t &entry = slots_[slot];
    (entry.newer != NONE ? slots_[entry.newer].older : newest_) = entry.older;
    (entry.older != NONE ? slots_[entry.older].newer : oldest_) = entry.newer;
}

} // namespace probe
