// One queue: its flow table and the plugin instance that gets its packets.
//
// Threads: one, the queue's own; the counters may be read by others.
#pragma once

#include "probe/counters.h"
#include "probe/flow_table.h"
#include "probe/packet_sink.h"
#include "probe/plugin_module.h"

namespace probe {

class packet_queue_t final : public packet_sink_t {
public:
    packet_queue_t(update_function_t update, void *instance, const flow_limits_t &limits)
        : update_(update), instance_(instance), flows_(limits)
    {
    }

    // Hand one packet to the plugin. The flow's counter holds the packets before this one, so a threshold of
    // N passes exactly the first N packets of a flow.
    void take(const parsed_packet_t &packet, const uint8_t *data, uint16_t length) override
    {
        host_flow_t &flow = flows_.find(packet.key, packet.header.timestamp);
        host_packet_t record = {};
        record.header = &packet.header;
        record.data = data;
        record.length = length;
        update_(instance_, &flow, &record);
        flow.packets += flow.packets != UINT32_MAX ? 1 : 0;
        counters_.handed_on.add();
        counters_.flows.set(flows_.begun());
        counters_.flows_active.set(flows_.size());
        counters_.flows_evicted.set(flows_.evicted());
    }

    const queue_counters_t &counters() const { return counters_; }

private:
    update_function_t update_;
    void *instance_; // the plugin's
    flow_table_t flows_;
    queue_counters_t counters_;
};

} // namespace probe
