#include "live_capture/live_capture.h"

#include "common/progress.h"
#include "common/settings.h"
#include "support/file_limit.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <pthread.h>
#include <random>
#include <thread>

namespace {

constexpr uint32_t LONG = 3600; // seconds
constexpr uint32_t MANY = 1000; // packets

const ip_addr_t A = numbered_address(1);
const ip_addr_t B = numbered_address(2);
const ip_addr_t OTHER = numbered_address(3); // never watched

class LiveCapture : public testing::Test {
protected:
    LiveCapture() { test_host::reset(); }
    ~LiveCapture() override { lc_destroy(live); }

    int add(const ip_addr_t &ip, const std::string &name, uint32_t direction = BOTH, uint32_t packets = MANY,
            uint32_t seconds = LONG)
    {
        return lc_add_rule(live, &ip, direction, packets, seconds, dir.path(name).c_str());
    }

    int filter(const ip_addr_t &src, const ip_addr_t &dst, uint32_t length = 60)
    {
        static constexpr uint8_t data[2000] = {};
        return lc_filter(live, &src, &dst, data, length, 1);
    }

    [[nodiscard]] size_t records(const std::string &name) const { return read_pcap(dir.path(name)).size(); }

    // Change an item in place, as time and other threads would.
    template <typename F>
    void edit(const ip_addr_t &ip, F change)
    {
        fhf_lock_t *row;
        lc_item_t *item = lc_find_locked(live, &ip, &row);
        ASSERT_NE(item, nullptr);
        change(item);
        fhf_unlock(row);
    }

    std::optional<lc_addr_info_t> info(const ip_addr_t &ip)
    {
        lc_addr_info_t out;
        return lc_addr_info(live, &ip, &out) == LC_OK ? std::optional(out) : std::nullopt;
    }

    temp_dir_t dir;
    long descriptors = resources().first; // without any capture
    live_capture_t *live = lc_init();
};

TEST_F(LiveCapture, DirectionLimitAndEndTimeDecideWhatIsWritten)
{
    const ip_addr_t watched[] = {numbered_address(10), numbered_address(11), numbered_address(12)};
    for (uint32_t direction : {SRC, DST, BOTH}) {
        ASSERT_EQ(add(watched[direction], std::to_string(direction), direction), LC_OK);
        EXPECT_EQ(filter(watched[direction], OTHER), direction != DST ? 1 : 0);
        EXPECT_EQ(filter(OTHER, watched[direction]), direction != SRC ? 1 : 0);
    }
    EXPECT_EQ(filter(OTHER, OTHER), 0);
    EXPECT_EQ(filter(watched[SRC], watched[DST]), 1) << "into both files";
    EXPECT_EQ(filter(watched[DST], watched[SRC]), 0);
    EXPECT_EQ(filter(watched[BOTH], watched[BOTH]), 1) << "twice into one file";
    EXPECT_EQ((std::array{records("0"), records("1"), records("2")}), (std::array<size_t, 3>{2, 2, 4}));

    ASSERT_EQ(add(A, "packets", BOTH, 3), LC_OK);
    EXPECT_EQ(filter(A, A) + filter(A, A), 2) << "the limit falls between the two sides";
    EXPECT_EQ(filter(A, OTHER), 0);
    EXPECT_EQ(records("packets"), 3U);

    ASSERT_EQ(add(B, "time"), LC_OK);
    edit(B, [](lc_item_t *item) { item->end_time = time(nullptr) + 1; });
    EXPECT_EQ(filter(B, OTHER), 1);
    edit(B, [](lc_item_t *item) { item->end_time = time(nullptr) - 1; });
    EXPECT_EQ(filter(B, OTHER), 0);
    EXPECT_EQ(records("time"), 1U);
}

TEST_F(LiveCapture, RefusedRulesLeaveNoDescriptorAndNoEntry)
{
    ASSERT_EQ(add(A, "a"), LC_OK);
    ASSERT_EQ(filter(A, OTHER), 1);
    const std::string before = file_bytes(dir.path("a"));
    EXPECT_EQ(add(B, "a"), LC_NOT_OPENED);
    EXPECT_EQ(file_bytes(dir.path("a")), before) << "an existing file is never touched";
    EXPECT_EQ(add(B, "none/b"), LC_NOT_OPENED);
    {
        const file_limit_t full(0);
        EXPECT_EQ(add(B, "full"), LC_NOT_WRITTEN);
    }
    EXPECT_EQ(add(A, "again"), LC_NOT_TAKEN);
    EXPECT_EQ(resources().first, descriptors + 1);
    EXPECT_EQ(filter(B, OTHER), 0);
    EXPECT_EQ(filter(A, OTHER), 1);
    EXPECT_EQ(records("a"), 2U);
}

TEST_F(LiveCapture, UpdateCountsFromNowAndKeepsTheError)
{
    ASSERT_EQ(add(A, "a", SRC, 5), LC_OK);
    edit(A, [](lc_item_t *item) { item->packets = 5; });
    ASSERT_EQ(lc_update_rule(live, &A, SRC, 10, 60), LC_OK);
    EXPECT_EQ(info(A)->packet_limit, 15U);
    EXPECT_NEAR(static_cast<double>(info(A)->end_time - time(nullptr)), 60, 1);
    EXPECT_EQ(filter(OTHER, A), 0) << "the same direction stays";
    EXPECT_EQ(filter(A, OTHER), 1) << "a stopped capture runs again";

    ASSERT_EQ(lc_update_rule(live, &A, DST, UINT32_MAX, UINT32_MAX), LC_OK);
    EXPECT_EQ(info(A)->packet_limit, UINT32_MAX);
    EXPECT_EQ(filter(OTHER, A), 1) << "another direction makes it both";
    edit(A, [](lc_item_t *item) { item->start_time -= 100; });
    ASSERT_EQ(lc_update_rule(live, &A, BOTH, 1, UINT32_MAX), LC_OK);
    EXPECT_EQ(info(A)->end_time, info(A)->start_time + UINT32_MAX);

    edit(A, [](lc_item_t *item) { item->error = ENOSPC; });
    ASSERT_EQ(lc_update_rule(live, &A, BOTH, 10, 60), LC_OK);
    EXPECT_EQ(filter(A, A), 0);
    ASSERT_EQ(lc_change_direction(live, &A, SRC), LC_OK);
    edit(A, [](lc_item_t *item) { EXPECT_EQ(item->direction, SRC); });
    edit(A, [](lc_item_t *item) { EXPECT_EQ(item->error, ENOSPC); });

    EXPECT_EQ(lc_drop_rule(live, &A), LC_OK);
    EXPECT_EQ(resources().first, descriptors);
    EXPECT_EQ(filter(A, A), 0);
    EXPECT_EQ(lc_drop_rule(live, &A), LC_UNKNOWN);
    EXPECT_EQ(lc_update_rule(live, &A, BOTH, 1, 1), LC_UNKNOWN);
    EXPECT_EQ(lc_change_direction(live, &A, SRC), LC_UNKNOWN);
    EXPECT_FALSE(info(A).has_value());
    EXPECT_EQ(lc_progress(live, &A, 0), progress_value(PROGRESS_DONE, 0));
    EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, 0));
}

TEST_F(LiveCapture, ProgressIsTheLargerShareAndBelow100WhileOpen)
{
    struct case_t {
        uint32_t packets, packet_limit;
        int elapsed, span; // seconds
        int error;
        int percent;
    };
    constexpr case_t cases[] = {
        {5, 10, 20, 100, 0, 50},
        {1, 10, 20, 100, 0, 20},
        {50'000'000, 100'000'000, 0, 100, 0, 50},
        {UINT32_MAX - 1, UINT32_MAX, 0, 100, 0, 99},
        {10, 10, 0, 100, 0, 99},  // stopped by its limit
        {1, 10, 200, 100, 0, 99}, // by its time
        {1, 10, 20, 100, EIO, 20},
        {0, 0, 20, 100, 0, 99}, // no limit and no span to divide by
        {1, 10, 0, 0, 0, 99},
        {2, 10, -50, 100, 0, 20}, // the clock was set back
    };
    ASSERT_EQ(add(A, "a"), LC_OK);
    for (const case_t &c : cases) {
        uint64_t value;
        time_t before;
        do { // a case is measured within one second
            before = time(nullptr);
            edit(A, [&](lc_item_t *item) {
                item->packets = c.packets;
                item->packet_limit = c.packet_limit;
                item->start_time = before - c.elapsed;
                item->end_time = item->start_time + c.span;
                item->error = c.error;
            });
            value = lc_progress(live, &A, 0);
        } while (time(nullptr) != before);
        EXPECT_EQ(value, progress_value(static_cast<int8_t>(c.percent), c.packets)) << &c - cases;
    }
    EXPECT_TRUE(info(A).has_value());
}

TEST_F(LiveCapture, ClosingModeEndsWhatHasStopped)
{
    void (*const stops[])(lc_item_t *) = {[](lc_item_t *item) { item->packet_limit = item->packets; },
                                          [](lc_item_t *item) { item->end_time = time(nullptr); },
                                          [](lc_item_t *item) { item->error = ENOSPC; }};
    for (const auto &stop : stops) {
        ASSERT_EQ(add(A, std::to_string(&stop - stops)), LC_OK);
        ASSERT_EQ(filter(A, A), 1);
        EXPECT_LT(progress_percent(lc_progress(live, &A, 1)), 100) << "running";
        edit(A, stop);
        EXPECT_LT(progress_percent(lc_progress(live, &A, 2)), 100) << "only bit 0 counts";
        EXPECT_EQ(lc_progress(live, &A, 3), progress_value(PROGRESS_DONE, 2));
        EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, 0));
        EXPECT_EQ(resources().first, descriptors);
    }
}

struct doomed_t {
    live_capture_t *live;
    int written;
    bool survived;
};

// Has no locals: the address sanitizer keeps the frames of a cancelled thread poisoned.
void *write_and_die(void *argument)
{
    static constexpr uint8_t data[60] = {};
    auto *doomed = static_cast<doomed_t *>(argument);
    pthread_cancel(pthread_self());
    doomed->written = lc_filter(doomed->live, &A, &OTHER, data, sizeof data, 1);
    pthread_testcancel();
    doomed->survived = true;
    return nullptr;
}

// A packet thread of the host with a cancellation pending writes its packet and dies with no row held.
TEST_F(LiveCapture, CancelledPacketThreadHoldsNoRow)
{
    ASSERT_EQ(add(A, "a"), LC_OK);
    doomed_t doomed = {live, 0, false};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, write_and_die, &doomed), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(doomed.written, 1);
    EXPECT_FALSE(doomed.survived) << "the cancellation was lost";
    EXPECT_EQ(filter(A, OTHER), 1);
    EXPECT_EQ(records("a"), 2U);
}

// The capture on the full disk stops with its error; the other one goes on, and everything counted reads
// back.
TEST_F(LiveCapture, AFailedWriteStopsItsOwnCaptureOnly)
{
    const file_limit_t limit(50'000);
    ASSERT_EQ(add(A, "full"), LC_OK);
    ASSERT_EQ(add(B, "other"), LC_OK);
    uint32_t written = 0;
    while (filter(A, OTHER, 1000) == 1) {
        written++;
    }
    EXPECT_EQ(filter(A, OTHER), 0) << "the error stays";
    edit(A, [](lc_item_t *item) { EXPECT_EQ(item->error, ENOSPC); });
    EXPECT_EQ(filter(A, B), 1);
    EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, written));
    size_t torn = 0; // of the record that found no room
    EXPECT_EQ(read_pcap(dir.path("full"), &torn).size(), written);
    EXPECT_EQ(written, 50'000U / 1016);
    EXPECT_EQ(records("other"), 1U);
    lc_clean(live);
    EXPECT_EQ(resources().first, descriptors);
}

// Packets from four queues while rules come, change and go: every file holds exactly what was counted for it.
// Runs three seconds; with KESTRUNE_LONG set, twenty.
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

// Packets with one watched address: their result tells that they stand in one of that address's files.
using counts_t = std::array<std::array<uint64_t, WATCHED>, QUEUES>;

bool single(const payload_t &payload)
{
    return (payload.src < WATCHED) != (payload.dst < WATCHED);
}

class Steering : public LiveCapture {
protected:
    void send_packets(uint32_t queue)
    {
        random_t random(queue + 1);
        for (uint32_t number = 0; !stop; number++) {
            const uint32_t src = random() % ADDRESSES;
            const uint32_t dst = (src + 1 + random() % (ADDRESSES - 1)) % ADDRESSES;
            const payload_t payload = {queue, src, dst, number};
            const std::string data = bytes_of(payload);
            const ip_addr_t source = numbered_address(src), destination = numbered_address(dst);
            const int result =
                lc_filter(live, &source, &destination, reinterpret_cast<const uint8_t *>(data.data()),
                          static_cast<uint32_t>(data.size()), number);
            if (single(payload)) {
                written[queue][std::min(src, dst)] += static_cast<uint64_t>(result);
            }
        }
    }

    // One random change of the rules.
    void step()
    {
        const uint32_t number = random_number() % WATCHED;
        const ip_addr_t ip = numbered_address(number);
        rule_t &rule = rules[number];
        const uint32_t direction = random_number() % 3;
        const uint32_t what = rule.active ? random_number() % 8 : 8;
        if (what == 8) {
            rule = {true, std::to_string(files++), {direction != DST, direction != SRC}};
            ASSERT_EQ(add(ip, rule.name, direction, 1 + random_number() % 2000, 1 + random_number() % 3),
                      LC_OK);
        } else if (what == 0) {
            ASSERT_EQ(lc_update_rule(live, &ip, direction, random_number() % 500, random_number() % 3),
                      LC_OK);
            rule.sides = {true, true};
        } else if (what == 1) {
            rule.sides = {rule.sides[SRC] || direction != DST, rule.sides[DST] || direction != SRC};
            ASSERT_EQ(lc_change_direction(live, &ip, direction), LC_OK);
        } else if (what == 2) {
            drop(number);
        } else if (what == 3) {
            ASSERT_LT(progress_percent(lc_progress(live, &ip, 0)), 100);
        } else if (const uint64_t progress = lc_progress(live, &ip, 1);
                   progress_percent(progress) == PROGRESS_DONE) {
            check(number, progress_packets(progress));
        }
    }

    // Out of the stream of packets.
    void drop(uint32_t number)
    {
        const ip_addr_t ip = numbered_address(number);
        uint32_t packets = 0;
        ASSERT_EQ(lc_drop_rule(live, &ip, &packets), rules[number].active ? LC_OK : LC_UNKNOWN);
        if (rules[number].active) {
            check(number, packets);
        }
    }

    // The closed file of an address: whole records, as many as were counted, each of this address and of a
    // side that the rule matched, in order for each queue.
    void check(uint32_t number, uint32_t packets)
    {
        rule_t &rule = rules[number];
        rule.active = false;
        const std::vector<pcap_record_t> file = read_pcap(dir.path(rule.name));
        std::filesystem::remove(dir.path(rule.name));
        ASSERT_EQ(file.size(), packets);
        std::array<int64_t, QUEUES> last = {-1, -1, -1, -1};
        for (const pcap_record_t &record : file) {
            payload_t payload;
            ASSERT_GE(record.data.size(), sizeof payload);
            std::memcpy(&payload, record.data.data(), sizeof payload);
            ASSERT_LT(payload.queue, QUEUES);
            ASSERT_EQ(record.timestamp, payload.number);
            ASSERT_EQ(record.data, bytes_of(payload));
            ASSERT_TRUE((payload.src == number && rule.sides[SRC]) ||
                        (payload.dst == number && rule.sides[DST]));
            ASSERT_GT(payload.number, last[payload.queue]);
            last[payload.queue] = payload.number;
            found[payload.queue][number] += single(payload) ? 1 : 0;
        }
        packets_found += packets;
    }

    struct rule_t {
        bool active = false;
        std::string name;
        std::array<bool, 2> sides; // SRC, DST: whether the rule has ever matched this side
    };
    std::array<rule_t, WATCHED> rules;
    random_t random_number{4711};
    std::atomic<bool> stop{false};
    counts_t written = {};
    counts_t found = {}; // single packets in the files so far
    uint64_t packets_found = 0;
    uint64_t files = 0;
};

TEST_F(Steering, EveryFileHoldsExactlyThePacketsCountedForIt)
{
    const auto duration = std::chrono::seconds(std::getenv("KESTRUNE_LONG") != nullptr ? 20 : 3);
    test_host::reset(-2);
    std::vector<std::jthread> threads;
    for (uint32_t queue = 0; queue < QUEUES; queue++) {
        threads.emplace_back([this, queue] { send_packets(queue); });
    }
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && !HasFatalFailure()) {
        step();
    }
    stop = true;
    threads.clear(); // joined
    for (uint32_t number = 0; number < WATCHED; number++) {
        drop(number);
    }
    EXPECT_EQ(resources().first, descriptors);
    EXPECT_EQ(found, written);
    EXPECT_GT(files, WATCHED) << "addresses were added again";
    EXPECT_GT(packets_found, 1000U);
}

} // namespace
