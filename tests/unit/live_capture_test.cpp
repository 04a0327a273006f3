#include "live_capture/live_capture.h"

#include "common/progress.h"
#include "common/settings.h"
#include "support/capture_files.h"
#include "support/fault.h"
#include "support/file_limit.h"
#include "support/test_host.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr uint32_t LONG = 3600; // seconds
constexpr uint32_t MANY = 1000; // packets

ip_addr_t addr(uint32_t number)
{
    const uint8_t bytes[4] = {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8), 0, 10};
    return ip_addr_from_ipv4(bytes);
}

const ip_addr_t A = addr(1);
const ip_addr_t B = addr(2);
const ip_addr_t OTHER = addr(3); // never watched

class LiveCapture : public testing::Test {
protected:
    LiveCapture()
    {
        test_host::reset();
        local_verbose_level = 0;
    }
    ~LiveCapture() override
    {
        lc_destroy(live);
        local_verbose_level = 0;
    }

    int add(const ip_addr_t &ip, const std::string &name, uint32_t direction = BOTH, uint32_t packets = MANY,
            uint32_t seconds = LONG)
    {
        return lc_add_rule(live, &ip, direction, packets, seconds, dir.file(name).c_str());
    }

    int filter(const ip_addr_t &src, const ip_addr_t &dst, uint32_t length = 60)
    {
        static constexpr uint8_t data[2000] = {};
        return lc_filter(live, &src, &dst, data, length, 1);
    }

    [[nodiscard]] size_t records(const std::string &name) const
    {
        const pcap_file_t file = read_pcap(dir.file(name));
        EXPECT_TRUE(file.valid && file.torn == 0) << name;
        return file.records.size();
    }

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
    size_t descriptors = open_descriptors(); // without any capture
    live_capture_t *live = lc_init();
};

TEST_F(LiveCapture, DirectionDecidesWhichSideIsWritten)
{
    const std::array<ip_addr_t, 3> watched = {addr(10), addr(11), addr(12)}; // SRC, DST, BOTH
    for (uint32_t direction : {SRC, DST, BOTH}) {
        ASSERT_EQ(add(watched[direction], std::to_string(direction), direction), LC_OK);
        EXPECT_EQ(filter(watched[direction], OTHER), direction != DST ? 1 : 0);
        EXPECT_EQ(filter(OTHER, watched[direction]), direction != SRC ? 1 : 0);
    }
    EXPECT_EQ(filter(OTHER, OTHER), 0);
    EXPECT_EQ(filter(watched[SRC], watched[DST]), 1) << "into both files";
    EXPECT_EQ(filter(watched[DST], watched[SRC]), 0);
    EXPECT_EQ(filter(watched[BOTH], watched[BOTH]), 1) << "twice into one file";
    EXPECT_EQ(records("0"), 2U);
    EXPECT_EQ(records("1"), 2U);
    EXPECT_EQ(records("2"), 4U);
}

TEST_F(LiveCapture, NothingIsWrittenBeyondPacketLimitOrEndTime)
{
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
    const bytes_t before = file_bytes(dir.file("a"));
    const size_t open_before = open_descriptors();

    EXPECT_EQ(add(B, "a"), LC_NOT_OPENED);
    EXPECT_EQ(file_bytes(dir.file("a")), before) << "an existing file is never touched";
    EXPECT_EQ(add(B, "none/b"), LC_NOT_OPENED);
    EXPECT_EQ(test_host::count("kestrune: Live_capture: Rule not added: failed to open file"), 2);
    EXPECT_TRUE(test_host::logged("kestrune: Live_capture: Open failed: File exists"));
    {
        const file_limit_t full(0);
        EXPECT_EQ(add(B, "full"), LC_NOT_WRITTEN);
    }
    EXPECT_TRUE(test_host::logged("kestrune: Live_capture: Rule not added: write to file failed"));
    EXPECT_TRUE(test_host::logged("kestrune: Live_capture: Write failed: File too large"));
    EXPECT_EQ(add(A, "again"), LC_NOT_TAKEN);
    EXPECT_TRUE(test_host::logged("kestrune: Listener: Rule not added: failed to add rule to the table"));
    EXPECT_EQ(records("again"), 0U);
    EXPECT_EQ(open_descriptors(), open_before);
    EXPECT_EQ(filter(B, OTHER), 0);
    EXPECT_EQ(filter(A, OTHER), 1);
    EXPECT_EQ(records("a"), 2U);
}

TEST_F(LiveCapture, NinthAddressOfARowIsRefused)
{
    std::array<int, LC_TABLE_ROWS> in_row = {};
    for (uint32_t number = 0;; number++) {
        const ip_addr_t ip = addr(number);
        const uint64_t row = fhf_place_of(live->ip_table, ip.bytes).row;
        const int result = add(ip, std::to_string(number));
        ASSERT_EQ(result, in_row[row] < 8 ? LC_OK : LC_NOT_TAKEN);
        if (++in_row[row] == 9) {
            break;
        }
    }
}

TEST_F(LiveCapture, UpdateCountsFromNowAndKeepsTheError)
{
    ASSERT_EQ(add(A, "a", SRC, 5), LC_OK);
    edit(A, [](lc_item_t *item) { item->packets = 5; });
    ASSERT_EQ(lc_update_rule(live, &A, SRC, 10, 60), LC_OK);
    const time_t now = time(nullptr);
    EXPECT_EQ(info(A)->packet_limit, 15U);
    EXPECT_NEAR(static_cast<double>(info(A)->end_time), static_cast<double>(now + 60), 1);
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
    edit(A, [](lc_item_t *item) {
        EXPECT_EQ(item->direction, SRC);
        EXPECT_EQ(item->error, ENOSPC);
    });
}

TEST_F(LiveCapture, DroppedAndUnknownAddresses)
{
    ASSERT_EQ(add(A, "a"), LC_OK);
    EXPECT_EQ(lc_drop_rule(live, &A), LC_OK);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(filter(A, A), 0);
    EXPECT_EQ(lc_drop_rule(live, &A), LC_UNKNOWN);
    EXPECT_EQ(lc_update_rule(live, &A, BOTH, 1, 1), LC_UNKNOWN);
    EXPECT_EQ(lc_change_direction(live, &A, SRC), LC_UNKNOWN);
    lc_addr_info_t untouched = {1, 2, 3, 4};
    EXPECT_EQ(lc_addr_info(live, &A, &untouched), LC_UNKNOWN);
    EXPECT_EQ(untouched.packet_limit, 2U);
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
        {0, 10, 0, 100, 0, 0},
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
        const auto set = [&](lc_item_t *item) {
            item->packets = c.packets;
            item->packet_limit = c.packet_limit;
            item->start_time = time(nullptr) - c.elapsed;
            item->end_time = item->start_time + c.span;
            item->error = c.error;
        };
        uint64_t value;
        time_t before;
        do { // a case is measured within one second
            before = time(nullptr);
            edit(A, set);
            value = lc_progress(live, &A, 0);
        } while (time(nullptr) != before);
        EXPECT_EQ(value, progress_value(static_cast<int8_t>(c.percent), c.packets)) << &c - cases;
    }
    EXPECT_TRUE(info(A).has_value());
}

TEST_F(LiveCapture, ClosingModeEndsWhatHasStopped)
{
    struct case_t {
        int32_t own_level;
        void (*stop)(lc_item_t *);
        int messages; // "has reached the limit", and "errno state"
        int errno_messages;
    };
    const case_t cases[] = {
        {3, [](lc_item_t *item) { item->packet_limit = item->packets; }, 1, 0},
        {3, [](lc_item_t *item) { item->end_time = time(nullptr); }, 1, 0},
        {3, [](lc_item_t *item) { item->error = ENOSPC; }, 1, 1},
        {2, [](lc_item_t *item) { item->error = ENOSPC; }, 0, 0},
    };
    int number = 0;
    for (const case_t &c : cases) {
        test_host::reset();
        local_verbose_level = c.own_level;
        ASSERT_EQ(add(A, std::to_string(number++)), LC_OK);
        ASSERT_EQ(filter(A, A), 1);
        EXPECT_LT(progress_percent(lc_progress(live, &A, 1)), 100) << "running";
        edit(A, c.stop);
        edit(A, [](lc_item_t *item) { item->start_time = time(nullptr) - 7; });
        EXPECT_LT(progress_percent(lc_progress(live, &A, 2)), 100) << "only bit 0 counts";
        EXPECT_EQ(lc_progress(live, &A, 3), progress_value(PROGRESS_DONE, 2));
        EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, 0));
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(
            test_host::count("kestrune: Live capture: Live capture of ip 10.0.0.1 has reached the limit. "
                             "Packets: 2 , Time: 7.000000 s") +
                test_host::count("Packets: 2 , Time: 8.000000 s"),
            c.messages);
        EXPECT_EQ(test_host::count("kestrune: Live capture: Closing file because of errno state"),
                  c.errno_messages);
    }
}

TEST_F(LiveCapture, CleaningClosesEveryFileAndNamesEveryAddress)
{
    for (const bool to_host : {true, false}) {
        test_host::reset(to_host ? 5 : 4);
        local_verbose_level = to_host ? 0 : 5;
        ip_addr_t ipv6 = {};
        ipv6.bytes[0] = 1;
        for (const ip_addr_t &ip : {A, B, ipv6}) {
            const std::string name = std::string(ip_addr_text(ip).text) + (to_host ? "h" : "o");
            ASSERT_EQ(add(ip, name), LC_OK);
        }
        testing::internal::CaptureStdout();
        lc_clean(live);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(test_host::count("kestrune: Live capture: Removing rule for ip "), to_host ? 3 : 0);
        for (const char *text : {"10.0.0.1", "10.0.0.2", "::1"}) {
            const std::string line = std::string("Live capture: Removing rule for ip ") + text;
            EXPECT_EQ(to_host ? test_host::logged("kestrune: " + line)
                              : out.find(line + "\n") != std::string::npos,
                      true)
                << text;
        }
        EXPECT_EQ(out.find("INFO"), std::string::npos);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    test_host::reset();
    lc_clean(live);
    lc_clean(nullptr);
    lc_clean_table(nullptr);
    lc_destroy(nullptr);
    EXPECT_TRUE(test_host::messages().empty());
}

TEST_F(LiveCapture, CreationReportsEveryFailingAllocation)
{
    int failures = 0;
    for (bool created = false; !created; failures++) {
        test_host::reset();
        fault::fail_call(failures + 1);
        live_capture_t *made = lc_init();
        fault::fail_call(0);
        created = made != nullptr;
        EXPECT_EQ(test_host::count("kestrune: Failed to allocate live capture structure"), created ? 0 : 1);
        EXPECT_EQ(test_host::logged("kestrune: Failed to allocate live capture structure - ip_table"),
                  !created && failures > 0);
        lc_destroy(made);
    }
    EXPECT_EQ(failures - 1, 7);
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
class FullDisk : public LiveCapture {
protected:
    void fill(const std::string &full, const std::string &other)
    {
        ASSERT_EQ(lc_add_rule(live, &A, BOTH, MANY, LONG, full.c_str()), LC_OK);
        ASSERT_EQ(lc_add_rule(live, &B, BOTH, MANY, LONG, other.c_str()), LC_OK);
        uint32_t written = 0;
        testing::internal::CaptureStderr();
        while (filter(A, OTHER, 1000) == 1) {
            written++;
        }
        EXPECT_EQ(filter(A, OTHER), 0) << "the error stays";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Writing pcap failed:: No space left on device\n");
        edit(A, [](lc_item_t *item) { EXPECT_EQ(item->error, ENOSPC); });
        EXPECT_EQ(filter(A, B), 1);
        EXPECT_EQ(lc_progress(live, &A, 1), progress_value(PROGRESS_DONE, written));
        EXPECT_GT(written, 10U);
        EXPECT_LT(written, MANY);
        EXPECT_EQ(read_pcap(full).records.size(), written);
        EXPECT_EQ(read_pcap(other).records.size(), 1U);
        lc_clean(live);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
};

TEST_F(FullDisk, FileSizeLimit)
{
    const file_limit_t limit(50'000);
    fill(dir.file("full"), dir.file("other"));
}

TEST_F(FullDisk, SmallFileSystem)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=128k") != 0) {
        GTEST_SKIP() << "mounting is not allowed here: " << std::strerror(errno);
    }
    const temp_dir_t elsewhere;
    fill(dir.file("full"), elsewhere.file("other"));
    EXPECT_EQ(umount(dir.path().c_str()), 0);
}

} // namespace
