#include "probe/flow_table.h"

#include <gtest/gtest.h>
#include <list>
#include <random>

namespace {

// Hand one packet on; the counter that the plugin would see.
uint32_t packet(probe::flow_table_t *table, uint64_t number, uint64_t timestamp_ns)
{
    return table->find({{number, 0, 1, 0, 0}}, timestamp_ns).packets++;
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

// Bound, order of eviction, time-outs and counters.
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
    EXPECT_GT(table.begun(), table.evicted());
}
