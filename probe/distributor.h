// Hands the packets of one reading thread to several queue threads, in batches, so that a packet costs a copy
// and no lock. A lane (one per queue) owns a fixed number of batches, which circulate:
//
//   free batches --> reader fills one --> full batches, oldest first --> queue thread --> free batches
//
// A reader that runs ahead waits for a free batch: nothing is dropped, and memory is bounded.
//
// Threads: the reader calls take, flush and finish; each queue thread calls run on its own lane.
#pragma once

#include "probe/packet_sink.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace probe {

// Packets in transit, with their bytes.
class batch_t {
public:
    batch_t();

    bool room_for(uint16_t length) const;
    void add(const parsed_packet_t &packet, const uint8_t *data, uint16_t length);
    bool empty() const { return entries_.empty(); }
    void clear();
    void hand_to(packet_sink_t *sink) const;

private:
    struct entry_t {
        parsed_packet_t packet;
        uint32_t offset; // of its bytes
        uint16_t length;
    };

    std::vector<entry_t> entries_;
    std::vector<uint8_t> bytes_;
};

class lane_t {
public:
    lane_t();

    // Reader: a free batch; waits for one.
    batch_t *take_free();
    // Reader: give a filled batch to the queue thread.
    void give_full(batch_t *batch);
    // Reader: no batch follows.
    void finish();
    // Queue thread: hand every packet to the sink until the reader has finished and nothing is left. When the
    // sink throws, discard the rest, so that the reader never waits in vain, and rethrow.
    void run(packet_sink_t *sink);

private:
    batch_t *take_full(); // null: finished
    void give_free(batch_t *batch);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<batch_t>> batches_;
    std::vector<batch_t *> free_; // these three under mutex_
    std::deque<batch_t *> full_;
    bool finished_ = false;
};

class distributor_t final : public packet_sink_t {
public:
    explicit distributor_t(uint32_t queue_count);

    void take(const parsed_packet_t &packet, const uint8_t *data, uint16_t length) override;
    void flush() override;
    void finish();
    lane_t &lane(uint32_t queue) { return *lanes_[queue].lane; }

private:
    struct filling_t {
        std::unique_ptr<lane_t> lane;
        batch_t *batch; // being filled; null: none
    };

    void pass_on(filling_t *filling);

    std::vector<filling_t> lanes_;
};

} // namespace probe
