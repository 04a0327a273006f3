// What the history tests share: a clock that the test sets (the program is linked with --wrap=time), packets
// that tell who they are, and a plain model of the ring.
#pragma once

#include "common/progress.h"
#include "history_capture/history_filter.h"
#include "history_capture/history_ring.h"
#include "history_capture/history_rules.h"
#include "history_capture/history_search.h"
#include "history_capture/packet_path.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <atomic>
#include <deque>
#include <gtest/gtest.h>
#include <numeric>

inline std::atomic<time_t> test_clock{1000}; // what time() answers

extern "C" __attribute__((used)) inline time_t __wrap_time(time_t *)
{
    return test_clock.load();
}

struct packet_t {
    ip_addr_t src;
    ip_addr_t dst;
    std::string data;
    uint64_t timestamp;
};

// Packet number n of this many bytes; the bytes depend on n.
inline packet_t make_packet(uint64_t n, uint32_t length, uint8_t src, uint8_t dst)
{
    static const std::string bytes = [] {
        std::string counting(1 << 17, '\0');
        std::iota(counting.begin(), counting.end(), '\0');
        return counting;
    }();
    return {numbered_address(src), numbered_address(dst), bytes.substr(n * 31 % 256, length), n};
}

inline int32_t enqueue(history_capture_t *hc, const packet_t &packet)
{
    return hc_enqueue(hc, &packet.src, &packet.dst, reinterpret_cast<const uint8_t *>(packet.data.data()),
                      static_cast<uint32_t>(packet.data.size()), packet.timestamp);
}

// A ring and the directory of its files.
class ring_t {
public:
    explicit ring_t(uint64_t size, uint32_t pause_ms = 0) : hc(hc_init(size))
    {
        hc->search_pause_ms = pause_ms;
    }
    ~ring_t() { hc_destroy(hc); }

    int32_t add(uint8_t number, uint8_t direction, const std::string &name) const
    {
        return hc_add_rule(hc, key(number), direction, files.path(name).c_str());
    }
    int32_t hold(uint8_t number, const std::string &name) const
    {
        return hc_hold_rule(hc, key(number), BOTH, files.path(name).c_str());
    }
    // Packets of 100 bytes with these numbers, up to the last and without it.
    void put(uint64_t first, uint64_t last, uint8_t src, uint8_t dst) const
    {
        for (uint64_t n = first; n < last; n++) {
            EXPECT_EQ(enqueue(hc, make_packet(n, 100, src, dst)), HC_OK);
        }
    }
    void release(uint8_t number) const { hc_release_rule(hc, key(number)); }
    uint64_t progress(uint8_t number, uint8_t remove = 0) const
    {
        return hc_search_progress(hc, key(number), remove);
    }
    static const ip_addr_t *key(uint8_t number)
    {
        static thread_local ip_addr_t addr;
        return &(addr = numbered_address(number));
    }
    bool finishes(uint8_t number) const
    {
        return wait_until(
            [&] { return progress_percent(progress(number)) == PROGRESS_DONE && hc->searching == 0; });
    }
    // Whatever is added now waits: the search thread has made a run and pauses (give the ring a long pause).
    void let_rules_wait() const
    {
        ASSERT_EQ(add(99, BOTH, "first"), HC_OK);
        ASSERT_TRUE(finishes(99));
    }
    hc_info_t info() const
    {
        hc->oldest_looked_ms = 0; // as if nobody had asked for a while
        hc_info_t out = {};
        hc_info(hc, &out);
        return out;
    }

    history_capture_t *hc;
    temp_dir_t files;
};

// The ring as it is defined, without a byte of it: which records are in it and where they begin. A record
// takes its bytes and, before the end of the buffer, those that no header fits into; the oldest record also
// holds the unused bytes between `freed` (where the last dropped record ended) and the end of the buffer.
class ring_model_t {
public:
    struct record_t {
        packet_t packet;
        uint64_t at;
        int64_t time;
    };

    explicit ring_model_t(uint64_t ring_size) : size(ring_size), freed(ring_size) {}

    bool add(const packet_t &packet, int64_t time)
    {
        const uint64_t length = std::min<size_t>(packet.data.size(), HC_MAX_DATA);
        const uint64_t total = HC_RECORD_HEADER + length;
        if (total > size) {
            return false;
        }
        while (!records.empty() && collides(total)) {
            drop();
        }
        const uint64_t at = next + HC_RECORD_HEADER > size ? 0 : next;
        packet_t stored = packet;
        stored.data.resize(length);
        records.push_back({std::move(stored), at, time});
        next = at + total < size ? at + total : at + total - size;
        return true;
    }

    std::deque<record_t> records; // oldest first
    uint64_t next = 0;
    uint64_t size;

private:
    bool collides(uint64_t total) const
    {
        const uint64_t oldest = records.front().at;
        const bool holds_end = freed + HC_RECORD_HEADER > size; // oldest == 0 then
        if (oldest == next) {
            return true; // full
        }
        if (next + HC_RECORD_HEADER > size) { // [0, total), and the rest of the buffer skipped
            return holds_end || oldest >= next || oldest < total;
        }
        if (next + total >= size) { // reaches the end, may go on at 0
            return holds_end || oldest >= next || oldest < next + total - size;
        }
        const auto taken = [&](uint64_t at) { return at >= next && at < next + total; };
        return taken(oldest) || (holds_end && taken(freed));
    }

    void drop()
    {
        const record_t &oldest = records.front();
        freed = (oldest.at + HC_RECORD_HEADER + oldest.packet.data.size()) % size;
        records.pop_front();
        if (records.empty()) {
            freed = size;
            next = 0;
        }
    }

    uint64_t freed;
};
