#include "probe/distributor.h"
#include "probe/error.h"
#include "probe/link_type.h"
#include "probe/replay_clock.h"

#include <atomic>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <stdexcept>
#include <thread>

namespace {

using times_t = std::vector<uint64_t>;

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

TEST_F(ProbeReplayClock, PlainTimestampsAreTheRecordedOnes)
{
    auto plain = clock({.speed = 0});
    EXPECT_EQ(play(&plain, {1000, 3000, 2000}), (times_t{1000, 3000, 2000}));
    EXPECT_EQ(play(&plain, {500, 600}), (times_t{500, 600}));
    EXPECT_EQ(plain.next(700).monotonic_ns, 0U);
}

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

namespace {

using bytes_t = std::vector<uint8_t>;

struct link_row_t {
    const char *name;
    bytes_t header;
    bytes_t source;
    int dlt;
    uint16_t ethertype;
};

} // namespace

TEST(ProbeLinkType, LinkHeadersBecomeEthernetHeaders)
{
    const bytes_t none(6, 0);
    const bytes_t mac = {2, 4, 6, 8, 10, 12};
    const link_row_t rows[] = {
        {"raw IPv4", {}, none, DLT_RAW, 0x0800},
        {"raw IPv4 by its own number", {}, none, DLT_IPV4, 0x0800},
        {"loopback, little endian", {2, 0, 0, 0}, none, DLT_NULL, 0x0800},
        {"loopback, big endian", {0, 0, 0, 2}, none, DLT_NULL, 0x0800},
        {"OpenBSD loopback", {0, 0, 0, 24}, none, DLT_LOOP, 0x86DD},
        {"FreeBSD IPv6", {28, 0, 0, 0}, none, DLT_NULL, 0x86DD},
        {"macOS IPv6", {30, 0, 0, 0}, none, DLT_NULL, 0x86DD},
        {"loopback, AppleTalk", {16, 0, 0, 0}, none, DLT_NULL, 0xFFFF},
        {"cooked", {0, 0, 0, 1, 0, 6, 2, 4, 6, 8, 10, 12, 0, 0, 8, 0}, mac, DLT_LINUX_SLL, 0x0800},
        {"cooked, tagged", {0, 0, 0, 1, 0, 6, 2, 4, 6, 8, 10, 12, 0, 0, 0x81, 0}, mac, DLT_LINUX_SLL, 0x8100},
        {"cooked, no address", {0, 0, 2, 4, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9, 8, 0}, none, DLT_LINUX_SLL, 0x0800},
        {"cooked netlink", {0, 0, 3, 0x38, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0}, none, DLT_LINUX_SLL, 0xFFFF},
        {"cooked v2",
         {0x86, 0xDD, 0, 0, 0, 0, 0, 3, 0, 1, 0, 6, 2, 4, 6, 8, 10, 12, 0, 0},
         mac,
         DLT_LINUX_SLL2,
         0x86DD},
    };
    const bytes_t payload = {0x45, 0, 0, 20, 1, 2, 3};
    for (const link_row_t &row : rows) {
        probe::ethernet_maker_t maker(probe::link_type_of(row.dlt, "x"));
        bytes_t captured = row.header;
        captured.insert(captured.end(), payload.begin(), payload.end());
        const probe::frame_t frame = maker.make(captured.data(), static_cast<uint32_t>(captured.size()));
        ASSERT_EQ(frame.size, 14 + payload.size()) << row.name;
        EXPECT_EQ(bytes_t(frame.data, frame.data + 6), none) << row.name;
        EXPECT_EQ(bytes_t(frame.data + 6, frame.data + 12), row.source) << row.name;
        EXPECT_EQ(frame.data[12] << 8 | frame.data[13], row.ethertype) << row.name;
        EXPECT_EQ(bytes_t(frame.data + 14, frame.data + frame.size), payload) << row.name;
        for (uint32_t cut = 0; cut < row.header.size(); cut++) {
            const bytes_t exact(captured.begin(), captured.begin() + cut);
            EXPECT_EQ(maker.make(exact.data(), cut).size, 0U) << row.name << " cut to " << cut;
        }
    }
}

TEST(ProbeLinkType, RawPacketsAreTakenByTheirVersionAndOthersAreRefusedByName)
{
    probe::ethernet_maker_t raw(probe::link_type_of(DLT_RAW, "x"));
    const uint8_t ipv6 = 0x60;
    const uint8_t neither = 0x50;
    EXPECT_EQ(raw.make(&ipv6, 1).data[12], 0x86);
    EXPECT_EQ(raw.make(&neither, 1).data[12], 0xFF);
    EXPECT_EQ(raw.make(nullptr, 0).size, 0U);
    try {
        probe::link_type_of(DLT_IEEE802_11, "wlan.pcap");
        ADD_FAILURE() << "802.11 was accepted";
    } catch (const probe::error_t &error) {
        EXPECT_NE(std::string(error.what()).find("wlan.pcap has link type IEEE802_11;"), std::string::npos);
    }
}

namespace {

// Keeps the timestamps, or throws at one of them.
class recording_sink_t final : public probe::packet_sink_t {
public:
    void take(const probe::parsed_packet_t &packet, const uint8_t *data, uint16_t length) override
    {
        if (packet.header.timestamp == throw_at) {
            throw std::runtime_error("sink");
        }
        timestamps.push_back(packet.header.timestamp);
        intact = intact && length == packet.header.timestamp % 1500 + 1 &&
                 data[length - 1] == static_cast<uint8_t>(packet.header.timestamp);
    }

    uint64_t throw_at = UINT64_MAX;
    std::vector<uint64_t> timestamps;
    bool intact = true;
};

// Send `count` packets of many flows through the distributor.
void distribute(probe::distributor_t *distributor, uint64_t count)
{
    bytes_t data(1500);
    for (uint64_t i = 0; i < count; i++) {
        probe::parsed_packet_t packet = {};
        packet.header.timestamp = i;
        packet.key.words[0] = i % 97;
        const auto length = static_cast<uint16_t>(i % 1500 + 1);
        data[length - 1U] = static_cast<uint8_t>(i);
        distributor->take(packet, data.data(), length);
    }
    distributor->finish();
}

} // namespace

TEST(ProbeDistributor, EveryPacketReachesOneQueueIntactAndInOrder)
{
    constexpr uint32_t QUEUES = 3;
    probe::distributor_t distributor(QUEUES);
    recording_sink_t sinks[QUEUES];
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < QUEUES; i++) {
        threads.emplace_back([&, i] { distributor.lane(i).run(&sinks[i]); });
    }
    distribute(&distributor, 50000);
    size_t total = 0;
    for (uint32_t i = 0; i < QUEUES; i++) {
        threads[i].join();
        EXPECT_TRUE(sinks[i].intact);
        EXPECT_TRUE(std::is_sorted(sinks[i].timestamps.begin(), sinks[i].timestamps.end()));
        EXPECT_GT(sinks[i].timestamps.size(), 50000U / QUEUES / 2); // no queue is left without work
        total += sinks[i].timestamps.size();
    }
    EXPECT_EQ(total, 50000U);
}

TEST(ProbeDistributor, AFailingQueueDoesNotStopTheReader)
{
    probe::distributor_t distributor(1);
    recording_sink_t sink;
    sink.throw_at = 1000;
    std::atomic<bool> thrown = false;
    std::thread queue([&] {
        try {
            distributor.lane(0).run(&sink);
        } catch (const std::runtime_error &) {
            thrown = true;
        }
    });
    distribute(&distributor, 50000);
    queue.join();
    EXPECT_TRUE(thrown);
    EXPECT_EQ(sink.timestamps.size(), 1000U);
}
