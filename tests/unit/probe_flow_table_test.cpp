#include "probe/flow_table.h"

#include <gtest/gtest.h>
#include <list>
#include <random>

namespace {

constexpr uint64_t S = 1'000'000'000;

probe::flow_key_t key(uint64_t number)
{
    return {{number, 0, 1, 0, 0}};
}

// Hand one packet on; the counter that the plugin would see.
uint32_t packet(probe::flow_table_t *table, uint64_t number, uint64_t timestamp_ns)
{
    return table->find(key(number), timestamp_ns).packets++;
}

// The same rules over a list that is searched from end to end.
class model_t {
public:
    explicit model_t(const probe::flow_limits_t &limits) : limits_(limits) {}

    uint32_t packet(uint64_t number, uint64_t now)
    {
        for (auto flow = flows_.begin(); flow != flows_.end(); ++flow) {
            if (flow->number == number) {
                const bool idle = now > flow->last && now - flow->last >= limits_.idle_ns;
                const bool outlived = now > flow->first && now - flow->first >= limits_.active_ns;
                if (idle || outlived) {
                    flow->packets = 0;
                    flow->first = now;
                }
                flow->last = std::max(flow->last, now);
                flows_.splice(flows_.begin(), flows_, flow);
                return flows_.front().packets++;
            }
        }
        if (flows_.size() >= limits_.flow_count) {
            flows_.pop_back();
        }
        flows_.push_front({number, now, now, 1});
        return 0;
    }

private:
    struct flow_t {
        uint64_t number, first, last;
        uint32_t packets;
    };
    probe::flow_limits_t limits_;
    std::list<flow_t> flows_; // last packet first
};

} // namespace

TEST(ProbeFlowTable, CounterHoldsThePacketsBeforeThisOne)
{
    probe::flow_table_t table({});
    for (uint32_t i = 0; i < 100; i++) {
        EXPECT_EQ(packet(&table, 1, i), i);
    }
    EXPECT_EQ(packet(&table, 2, 100), 0U);
    EXPECT_EQ(table.size(), 2U);
    EXPECT_EQ(table.begun(), 2U);
}

TEST(ProbeFlowTable, IdleAndActiveTimeOutsEndAFlow)
{
    probe::flow_table_t table({.active_ns = 100 * S, .idle_ns = 30 * S});
    packet(&table, 1, 1000 * S);
    EXPECT_EQ(packet(&table, 1, 1030 * S - 1), 1U);
    EXPECT_EQ(packet(&table, 1, 1060 * S - 1), 0U); // idle for 30 s
    EXPECT_EQ(packet(&table, 1, 1080 * S), 1U);
    EXPECT_EQ(packet(&table, 1, 1109 * S), 2U);
    EXPECT_EQ(packet(&table, 1, 1138 * S), 3U);
    EXPECT_EQ(packet(&table, 1, 1160 * S - 2), 4U);
    EXPECT_EQ(packet(&table, 1, 1160 * S - 1), 0U); // active for 100 s
    EXPECT_EQ(packet(&table, 1, 900 * S), 1U);      // from the past: ends nothing, and does not make it older
    EXPECT_EQ(packet(&table, 1, 1189 * S), 2U);
    EXPECT_EQ(table.begun(), 3U);
}

TEST(ProbeFlowTable, IdleFlowsLeaveTheTableAsOthersArrive)
{
    probe::flow_table_t table({});
    for (uint64_t i = 0; i < 1000; i++) {
        packet(&table, i, 1 * S);
    }
    for (uint64_t i = 0; i < 500; i++) {
        packet(&table, 5000, 100 * S);
    }
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table.evicted(), 0U);
}

TEST(ProbeFlowTable, FullTableEndsTheFlowIdleForLongest)
{
    probe::flow_table_t table({.flow_count = 3});
    packet(&table, 1, 1);
    packet(&table, 2, 2);
    packet(&table, 3, 3);
    packet(&table, 1, 4);
    packet(&table, 4, 5); // ends 2
    EXPECT_EQ(table.evicted(), 1U);
    EXPECT_EQ(table.size(), 3U);
    EXPECT_EQ(packet(&table, 1, 6), 2U);
    EXPECT_EQ(packet(&table, 3, 7), 1U);
    EXPECT_EQ(packet(&table, 2, 8), 0U);
}

TEST(ProbeFlowTable, AgreesWithAListSearchedFromEndToEnd)
{
    const probe::flow_limits_t limits = {.active_ns = 3000, .idle_ns = 400, .flow_count = 50};
    probe::flow_table_t table(limits);
    model_t model(limits);
    std::mt19937_64 random(20250101);
    std::exponential_distribution<double> popular(0.05);
    uint64_t now = 10000;
    for (int i = 0; i < 200000; i++) {
        now += random() % 8;
        const uint64_t number = static_cast<uint64_t>(popular(random));
        ASSERT_EQ(packet(&table, number, now), model.packet(number, now)) << i;
        ASSERT_LE(table.size(), limits.flow_count);
    }
    EXPECT_GT(table.evicted(), 1000U);
}
