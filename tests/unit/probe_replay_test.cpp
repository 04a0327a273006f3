#include "probe/distributor.h"
#include "probe/link_type.h"
#include "probe/replay_clock.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

namespace {

using times_t = std::vector<uint64_t>;
using bytes_t = std::vector<uint8_t>;

bytes_t operator+(bytes_t left, const bytes_t &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class ProbeReplayClock : public testing::Test {
protected:
    probe::replay_clock_t clock(const probe::replay_mode_t &mode)
    {
        return {mode, [this] { return wall; }, [this] { return monotonic; }};
    }

    // Timestamps of one file's packets.
    static times_t play(probe::replay_clock_t *clock, times_t recorded)
    {
        clock->file_begins();
        for (uint64_t &time : recorded) {
            time = clock->next(time).timestamp_ns;
        }
        return recorded;
    }

    uint64_t wall = 5'000'000;
    uint64_t monotonic = 100;
};

} // namespace

TEST_F(ProbeReplayClock, LoopedTimestampsKeepRisingWithTheirDistances)
{
    const std::pair<times_t, times_t> files[] = {
        {{10000, 10300}, {10000, 10300}}, {{50000, 50100}, {50000, 50100}}, // the gap between files stays
        {{10000, 10300}, {51100, 51400}}, {{50000, 50100}, {91100, 91200}},
        {{10000, 10300}, {92200, 92500}}, {{9000, 9001}, {93500, 93501}}, // recorded before the one in front
    };
    auto looped = clock({.speed = 0, .looped = true});
    for (const auto &[recorded, expected] : files) {
        EXPECT_EQ(play(&looped, recorded), expected);
    }
}

TEST_F(ProbeReplayClock, RebasedTimestampsBeginNowAndFollowThePace)
{
    auto rebased = clock({.rebased = true});
    EXPECT_EQ(
        play(&rebased, {1'609'829'736'669'007'001, 1'609'829'736'669'007'004, 1'609'829'736'669'006'901}),
        (times_t{5'000'000, 5'000'003, 4'999'900}));
    wall = 4'000'000; // set back meanwhile
    EXPECT_EQ(play(&rebased, {77, 80}), (times_t{5'000'004, 5'000'007}));

    auto fast = clock({.speed = 4, .rebased = true});
    EXPECT_EQ(play(&fast, {1000, 1400, 600}), (times_t{4'000'000, 4'000'100, 3'999'900}));

    auto fastest = clock({.speed = 0, .rebased = true});
    EXPECT_EQ(play(&fastest, {1000, 9000, 5}), (times_t{4'000'000, 4'000'001, 4'000'002}));
    wall = 8'000'000;
    EXPECT_EQ(fastest.next(6).timestamp_ns, 8'000'000U);
}

TEST_F(ProbeReplayClock, PacketsAreDueAtTheirDistanceDividedByTheSpeed)
{
    auto half = clock({.speed = 0.5});
    EXPECT_EQ(half.next(1000).monotonic_ns, 100U);
    EXPECT_EQ(half.next(1010).monotonic_ns, 120U);
    EXPECT_EQ(half.next(900).monotonic_ns, 0U); // unsorted, long due
    monotonic = 5000;
    half.file_begins(); // recorded a year later, due at once
    EXPECT_EQ(half.next(1'000'000'000'000).monotonic_ns, 5000U);
    EXPECT_EQ(half.next(1'000'000'000'050).monotonic_ns, 5100U);
}

TEST(ProbeLinkType, LinkHeadersBecomeEthernetHeaders)
{
    const bytes_t none(6, 0);
    const bytes_t mac = {2, 4, 6, 8, 10, 12};
    struct row_t {
        const char *name;
        int dlt;
        bytes_t header, source, ethertype;
    };
    const bytes_t cooked = {0, 0, 0, 1, 0, 6, 2, 4, 6, 8, 10, 12, 0, 0};
    const bytes_t cooked_v2 = {0x86, 0xDD, 0, 0, 0, 0, 0, 3, 0, 1, 0, 6, 2, 4, 6, 8, 10, 12, 0, 0};
    const bytes_t no_address = {0, 0, 2, 4, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9, 8, 0};
    const bytes_t netlink = {0, 0, 3, 0x38, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0};
    const row_t rows[] = {
        {"raw IPv4", DLT_RAW, {}, none, {8, 0}},
        {"raw IPv4 by its own number", DLT_IPV4, {}, none, {8, 0}},
        {"loopback, little endian", DLT_NULL, {2, 0, 0, 0}, none, {8, 0}},
        {"loopback, big endian", DLT_NULL, {0, 0, 0, 2}, none, {8, 0}},
        {"OpenBSD loopback", DLT_LOOP, {0, 0, 0, 24}, none, {0x86, 0xDD}},
        {"FreeBSD IPv6", DLT_NULL, {28, 0, 0, 0}, none, {0x86, 0xDD}},
        {"macOS IPv6", DLT_NULL, {30, 0, 0, 0}, none, {0x86, 0xDD}},
        {"loopback, AppleTalk", DLT_NULL, {16, 0, 0, 0}, none, {0xFF, 0xFF}},
        {"cooked", DLT_LINUX_SLL, cooked + bytes_t{8, 0}, mac, {8, 0}},
        {"cooked, tagged", DLT_LINUX_SLL, cooked + bytes_t{0x81, 0}, mac, {0x81, 0}},
        {"cooked, no address", DLT_LINUX_SLL, no_address, none, {8, 0}},
        {"cooked netlink", DLT_LINUX_SLL, netlink, none, {0xFF, 0xFF}},
        {"cooked v2", DLT_LINUX_SLL2, cooked_v2, mac, {0x86, 0xDD}},
    };
    const bytes_t payload = {0x45, 0, 0, 20, 1, 2, 3};
    for (const row_t &row : rows) {
        probe::ethernet_maker_t maker(probe::link_type_of(row.dlt, "x"));
        const bytes_t captured = row.header + payload;
        const probe::frame_t frame = maker.make(captured.data(), static_cast<uint32_t>(captured.size()));
        EXPECT_EQ(bytes_t(frame.data, frame.data + frame.size), none + row.source + row.ethertype + payload)
            << row.name;
        for (uint32_t cut = 0; cut < row.header.size(); cut++) {
            const bytes_t exact(captured.begin(), captured.begin() + cut);
            EXPECT_EQ(maker.make(exact.data(), cut).size, 0U) << row.name << " cut to " << cut;
        }
    }
}

namespace {

// Keeps the timestamps, or throws at one of them.
class recording_sink_t final : public probe::packet_sink_t {
public:
    void take(const probe::parsed_packet_t &packet, const uint8_t *data, uint16_t length) override
    {
        const uint64_t timestamp = packet.header.timestamp;
        if (timestamp >= throw_at) {
            throw std::runtime_error("sink");
        }
        timestamps.push_back(timestamp);
        intact =
            intact && length == timestamp % 1500 + 1 && data[length - 1] == static_cast<uint8_t>(timestamp);
    }

    uint64_t throw_at = UINT64_MAX;
    times_t timestamps;
    bool intact = true;
};

} // namespace

TEST(ProbeDistributor, EveryPacketReachesOneQueueInOrderAlsoWhenAnotherQueueFails)
{
    constexpr uint32_t QUEUES = 3;
    constexpr uint64_t COUNT = 50000;
    for (const bool failing : {false, true}) {
        probe::distributor_t distributor(QUEUES);
        recording_sink_t sinks[QUEUES];
        sinks[0].throw_at = failing ? 1000 : UINT64_MAX;
        std::atomic<int> thrown = 0;
        std::vector<std::thread> threads;
        for (uint32_t i = 0; i < QUEUES; i++) {
            threads.emplace_back([&, i] {
                try {
                    distributor.lane(i).run(&sinks[i]);
                } catch (const std::runtime_error &) {
                    thrown++;
                }
            });
        }
        bytes_t data(1500);
        for (uint64_t time = 0; time < COUNT; time++) {
            probe::parsed_packet_t packet = {};
            packet.header.timestamp = time;
            packet.key.words[0] = time % 97; // flows
            data[time % 1500] = static_cast<uint8_t>(time);
            distributor.take(packet, data.data(), static_cast<uint16_t>(time % 1500 + 1));
        }
        distributor.finish();
        times_t all;
        for (uint32_t i = 0; i < QUEUES; i++) {
            threads[i].join();
            const times_t &times = sinks[i].timestamps;
            EXPECT_TRUE(sinks[i].intact && std::is_sorted(times.begin(), times.end()));
            EXPECT_GT(times.size(), failing && i == 0 ? 0 : COUNT / QUEUES / 2); // none is left without work
            all.insert(all.end(), times.begin(), times.end());
        }
        EXPECT_EQ(thrown, failing ? 1 : 0);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
        EXPECT_TRUE(failing || all.size() == COUNT);
    }
}
