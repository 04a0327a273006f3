// Packets from four queues while rules come, change and go: every file holds exactly what was counted for it.
// Runs four seconds; with KESTRUNE_LONG set, twenty.
#include "live_capture/live_capture.h"

#include "common/progress.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t QUEUES = 4;
constexpr uint32_t WATCHED = 32; // addresses 0 .. 31 come and go, the others are never watched
constexpr uint32_t ADDRESSES = 96;

using random_t = std::independent_bits_engine<std::mt19937, 32, uint32_t>;

// What a packet says of itself; the bytes behind it repeat the low byte of the number.
struct payload_t {
    uint32_t queue;
    uint32_t src;
    uint32_t dst;
    uint32_t number; // rising in each queue
};

std::string bytes_of(const payload_t &payload)
{
    std::string bytes(sizeof payload + payload.number % 150, static_cast<char>(payload.number));
    std::memcpy(bytes.data(), &payload, sizeof payload);
    return bytes;
}

// Packets with one watched address only: their result tells that they stand in one of that address's files.
using counts_t = std::array<std::array<uint64_t, WATCHED>, QUEUES>;

bool single(const payload_t &payload)
{
    return (payload.src < WATCHED) != (payload.dst < WATCHED);
}

void send_packets(live_capture_t *live, uint32_t queue, const std::atomic<bool> *stop,
                  std::array<uint64_t, WATCHED> *written)
{
    random_t random(queue + 1);
    for (uint32_t number = 0; !stop->load(std::memory_order_relaxed); number++) {
        const uint32_t src = random() % ADDRESSES;
        const uint32_t dst = (src + 1 + random() % (ADDRESSES - 1)) % ADDRESSES;
        const payload_t payload = {queue, src, dst, number};
        const std::string data = bytes_of(payload);
        const ip_addr_t source = numbered_address(src);
        const ip_addr_t destination = numbered_address(dst);
        const int result =
            lc_filter(live, &source, &destination, reinterpret_cast<const uint8_t *>(data.data()),
                      static_cast<uint32_t>(data.size()), number);
        if (single(payload)) {
            (*written)[std::min(src, dst)] += static_cast<uint64_t>(result);
        }
    }
}

struct rule_t {
    bool active = false;
    std::string path;
    std::array<bool, 2> sides; // SRC, DST: whether the rule has ever matched this side
};

class steering_t {
public:
    explicit steering_t(live_capture_t *live) : live_(live) {}

    void step()
    {
        const uint32_t number = random_() % WATCHED;
        const ip_addr_t ip = numbered_address(number);
        rule_t &rule = rules_[number];
        const uint32_t direction = random_() % 3;
        const uint32_t what = rule.active ? random_() % 8 : 8;
        if (what == 8) {
            rule = {true, dir_.path(std::to_string(files++)), {direction != DST, direction != SRC}};
            ASSERT_EQ(lc_add_rule(live_, &ip, direction, 1 + random_() % 2000, 1 + random_() % 3,
                                  rule.path.c_str()),
                      LC_OK);
        } else if (what == 0) {
            ASSERT_EQ(lc_update_rule(live_, &ip, direction, random_() % 500, random_() % 3), LC_OK);
            rule.sides = {true, true};
        } else if (what == 1) {
            rule.sides = {rule.sides[SRC] || direction != DST, rule.sides[DST] || direction != SRC};
            ASSERT_EQ(lc_change_direction(live_, &ip, direction), LC_OK);
        } else if (what == 2) {
            drop(number);
        } else if (what == 3) {
            ASSERT_LT(progress_percent(lc_progress(live_, &ip, 0)), 100);
        } else if (const uint64_t progress = lc_progress(live_, &ip, 1);
                   progress_percent(progress) == PROGRESS_DONE) {
            check(number, progress_packets(progress));
        }
    }

    void drop_all()
    {
        for (uint32_t number = 0; number < WATCHED; number++) {
            if (rules_[number].active) {
                drop(number);
            }
        }
    }

    counts_t found = {}; // single packets in the files so far
    uint64_t records = 0;
    uint64_t files = 0;

private:
    // Out of the stream of packets.
    void drop(uint32_t number)
    {
        const ip_addr_t ip = numbered_address(number);
        uint32_t packets = 0;
        ASSERT_EQ(lc_drop_rule(live_, &ip, &packets), LC_OK);
        check(number, packets);
    }

    // The closed file of an address: whole records, as many as were counted, each of this address and of a
    // side that the rule matched, in order for each queue.
    void check(uint32_t number, uint32_t packets)
    {
        rules_[number].active = false;
        const std::vector<pcap_record_t> file = read_pcap(rules_[number].path);
        std::filesystem::remove(rules_[number].path);
        ASSERT_EQ(file.size(), packets);
        std::array<int64_t, QUEUES> last = {-1, -1, -1, -1};
        for (const pcap_record_t &record : file) {
            payload_t payload;
            ASSERT_GE(record.data.size(), sizeof payload);
            std::memcpy(&payload, record.data.data(), sizeof payload);
            ASSERT_LT(payload.queue, QUEUES);
            ASSERT_EQ(record.timestamp, payload.number);
            ASSERT_EQ(record.data, bytes_of(payload));
            ASSERT_TRUE((payload.src == number && rules_[number].sides[SRC]) ||
                        (payload.dst == number && rules_[number].sides[DST]));
            ASSERT_GT(payload.number, last[payload.queue]);
            last[payload.queue] = payload.number;
            found[payload.queue][number] += single(payload) ? 1 : 0;
        }
        records += file.size();
    }

    live_capture_t *live_;
    temp_dir_t dir_;
    random_t random_{4711};
    std::array<rule_t, WATCHED> rules_;
};

TEST(LiveCaptureThreads, EveryFileHoldsExactlyThePacketsCountedForIt)
{
    const auto duration = std::chrono::seconds(std::getenv("KESTRUNE_LONG") != nullptr ? 20 : 4);
    test_host::reset(-2);
    const auto descriptors = open_descriptors();
    live_capture_t *live = lc_init();
    steering_t steering(live);
    std::atomic<bool> stop{false};
    counts_t written = {};
    std::vector<std::thread> threads;
    for (uint32_t queue = 0; queue < QUEUES; queue++) {
        threads.emplace_back(send_packets, live, queue, &stop, &written[queue]);
    }
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && !testing::Test::HasFatalFailure()) {
        steering.step();
    }
    stop.store(true);
    for (std::thread &thread : threads) {
        thread.join();
    }
    steering.drop_all();
    lc_destroy(live);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(steering.found, written);
    EXPECT_GT(steering.files, WATCHED) << "addresses were added again";
    EXPECT_GT(steering.records, 1000U);
    std::printf("%lu files, %lu records\n", steering.files, steering.records);
}

} // namespace
