#include "live_capture/packet_path.h"

#include "common/progress.h"
#include "common/settings.h"
#include "support/file_limit.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <gtest/gtest.h>
#include <pthread.h>

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

    lc_addr_info_t info(const ip_addr_t &ip)
    {
        lc_addr_info_t out = {};
        EXPECT_EQ(lc_addr_info(live, &ip, &out), LC_OK);
        return out;
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
    EXPECT_EQ(filter(watched[SRC], watched[DST]), 1) << "into both files";
    EXPECT_EQ(filter(watched[BOTH], watched[BOTH]), 1) << "twice into one file";
    EXPECT_TRUE(records("0") == 2 && records("1") == 2 && records("2") == 4);

    ASSERT_EQ(add(A, "packets", BOTH, 3), LC_OK);
    EXPECT_EQ(filter(A, A) + filter(A, A), 2) << "the limit falls between the two sides";
    EXPECT_EQ(filter(A, OTHER), 0);
    EXPECT_EQ(records("packets"), 3U);

    ASSERT_EQ(add(B, "time"), LC_OK);
    int taken;
    time_t now;
    do { // within one second
        now = time(nullptr);
        edit(B, [&](lc_item_t *item) { item->end_time = now; });
        taken = filter(B, OTHER);
    } while (time(nullptr) != now);
    EXPECT_EQ(taken, 1);
    edit(B, [&](lc_item_t *item) { item->end_time = now - 1; });
    EXPECT_EQ(filter(B, OTHER), 0);
}

TEST_F(LiveCapture, UpdateCountsFromNowAndKeepsTheError)
{
    ASSERT_EQ(add(A, "a", SRC, 5), LC_OK);
    edit(A, [](lc_item_t *item) { item->packets = 5; });
    ASSERT_EQ(lc_update_rule(live, &A, SRC, 10, 60), LC_OK);
    EXPECT_EQ(info(A).packet_limit, 15U);
    EXPECT_NEAR(static_cast<double>(info(A).end_time - time(nullptr)), 60, 1);
    EXPECT_EQ(filter(OTHER, A), 0) << "the same direction stays";
    EXPECT_EQ(filter(A, OTHER), 1) << "a stopped capture runs again";

    ASSERT_EQ(lc_update_rule(live, &A, DST, UINT32_MAX, UINT32_MAX), LC_OK);
    EXPECT_EQ(info(A).packet_limit, UINT32_MAX);
    EXPECT_EQ(filter(OTHER, A), 1) << "another direction makes it both";
    edit(A, [](lc_item_t *item) { item->start_time -= 100; });
    ASSERT_EQ(lc_update_rule(live, &A, BOTH, 1, UINT32_MAX), LC_OK);
    EXPECT_EQ(info(A).end_time, info(A).start_time + UINT32_MAX);

    edit(A, [](lc_item_t *item) { item->error = ENOSPC; });
    ASSERT_EQ(lc_update_rule(live, &A, BOTH, 10, 60), LC_OK);
    ASSERT_EQ(lc_change_direction(live, &A, SRC), LC_OK);
    EXPECT_EQ(filter(A, A), 0);

    EXPECT_EQ(lc_drop_rule(live, &A), LC_OK);
    for (const int32_t result :
         {lc_drop_rule(live, &A), lc_update_rule(live, &A, BOTH, 1, 1), lc_change_direction(live, &A, SRC)}) {
        EXPECT_EQ(result, LC_UNKNOWN);
    }
    EXPECT_EQ(lc_progress(live, &A, 0), progress_value(PROGRESS_DONE, 0));
    EXPECT_EQ(resources().first, descriptors);
}

TEST_F(LiveCapture, ProgressIsTheLargerShareAndBelow100WhileOpen)
{
    struct case_t {
        uint32_t packets, packet_limit;
        int elapsed, span; // seconds
        int percent;
    };
    constexpr case_t cases[] = {
        {5, 10, 20, 100, 50},  {1, 10, 20, 100, 20},  {UINT32_MAX - 1, UINT32_MAX, 0, 100, 99},
        {10, 10, 0, 100, 99},                         // stopped by its limit
        {1, 10, 200, 100, 99},                        // by its time
        {0, 0, 20, 100, 99},                          // no limit and no span to divide by
        {1, 10, 0, 0, 99},     {2, 10, -50, 100, 20}, // the clock was set back
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
            });
            value = lc_progress(live, &A, 0);
        } while (time(nullptr) != before);
        EXPECT_EQ(value, progress_value(static_cast<int8_t>(c.percent), c.packets)) << &c - cases;
    }
}

// Has no locals: the address sanitizer keeps the frames of a cancelled thread poisoned.
void *write_and_die(void *live)
{
    static constexpr uint8_t data[60] = {};
    pthread_cancel(pthread_self());
    (void)lc_filter(static_cast<live_capture_t *>(live), &A, &OTHER, data, sizeof data, 1);
    pthread_testcancel();
    return live;
}

// A packet thread of the host with a cancellation pending writes its packet and dies with no row held.
TEST_F(LiveCapture, CancelledPacketThreadHoldsNoRow)
{
    ASSERT_EQ(add(A, "a"), LC_OK);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, write_and_die, live), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
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
    EXPECT_EQ(filter(A, B), 1);
    EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, written));
    size_t torn = 0; // of the record that found no room
    EXPECT_EQ(read_pcap(dir.path("full"), &torn).size(), written);
    EXPECT_EQ(written, 50'000U / 1016);
    EXPECT_EQ(records("other"), 1U);
    lc_clean(live);
    EXPECT_EQ(resources().first, descriptors);
}

} // namespace
