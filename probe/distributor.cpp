#include "probe/distributor.h"

#include <exception>

namespace probe {
namespace {

constexpr size_t BATCH_PACKETS = 256;
constexpr size_t BATCH_BYTES = size_t{256} * 1024; // more than the longest packet
constexpr size_t LANE_BATCHES = 8;
static_assert(BATCH_BYTES >= PACKET_LENGTH_MAX);

} // namespace

batch_t::batch_t()
{
    entries_.reserve(BATCH_PACKETS);
    bytes_.reserve(BATCH_BYTES);
}

bool batch_t::room_for(uint16_t length) const
{
    return entries_.size() < BATCH_PACKETS && bytes_.size() + length <= BATCH_BYTES;
}

void batch_t::add(const parsed_packet_t &packet, const uint8_t *data, uint16_t length)
{
    entries_.push_back({packet, static_cast<uint32_t>(bytes_.size()), length});
    bytes_.insert(bytes_.end(), data, data + length);
}

void batch_t::clear()
{
    entries_.clear();
    bytes_.clear();
}

void batch_t::hand_to(packet_sink_t *sink) const
{
    for (const entry_t &entry : entries_) {
        sink->take(entry.packet, bytes_.data() + entry.offset, entry.length);
    }
}

lane_t::lane_t()
{
    for (size_t i = 0; i < LANE_BATCHES; i++) {
        batches_.push_back(std::make_unique<batch_t>());
        free_.push_back(batches_.back().get());
    }
}

batch_t *lane_t::take_free()
{
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [this] { return !free_.empty(); });
    batch_t *batch = free_.back();
    free_.pop_back();
    return batch;
}

void lane_t::give_full(batch_t *batch)
{
    {
        const std::lock_guard guard(mutex_);
        full_.push_back(batch);
    }
    changed_.notify_one();
}

void lane_t::finish()
{
    {
        const std::lock_guard guard(mutex_);
        finished_ = true;
    }
    changed_.notify_one();
}

batch_t *lane_t::take_full()
{
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [this] { return !full_.empty() || finished_; });
    if (full_.empty()) {
        return nullptr;
    }
    batch_t *batch = full_.front();
    full_.pop_front();
    return batch;
}

void lane_t::give_free(batch_t *batch)
{
    batch->clear();
    {
        const std::lock_guard guard(mutex_);
        free_.push_back(batch);
    }
    changed_.notify_one();
}

void lane_t::run(packet_sink_t *sink)
{
    std::exception_ptr failure;
    while (batch_t *batch = take_full()) {
        try {
            if (!failure) {
                batch->hand_to(sink);
            }
        } catch (...) {
            failure = std::current_exception();
        }
        give_free(batch);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

distributor_t::distributor_t(uint32_t queue_count) : lanes_(queue_count)
{
    for (filling_t &filling : lanes_) {
        filling = {std::make_unique<lane_t>(), nullptr};
    }
}

void distributor_t::take(const parsed_packet_t &packet, const uint8_t *data, uint16_t length)
{
    filling_t &filling = lanes_[flow_queue(packet.key, static_cast<uint32_t>(lanes_.size()))];
    if (filling.batch != nullptr && !filling.batch->room_for(length)) {
        pass_on(&filling);
    }
    if (filling.batch == nullptr) {
        filling.batch = filling.lane->take_free();
    }
    filling.batch->add(packet, data, length);
}

void distributor_t::pass_on(filling_t *filling)
{
    if (filling->batch != nullptr) {
        filling->lane->give_full(filling->batch);
        filling->batch = nullptr;
    }
}

void distributor_t::flush()
{
    for (filling_t &filling : lanes_) {
        pass_on(&filling);
    }
}

void distributor_t::finish()
{
    flush();
    for (filling_t &filling : lanes_) {
        filling.lane->finish();
    }
}

} // namespace probe
