// Captures on a network interface: one handle per queue, all in one PACKET_FANOUT group that the kernel
// divides by flow hash. The kernel's hash is the same for both directions of a flow and ignores the ports of
// fragments, so a flow stays in one queue.
//
// Handles capture from the moment they are opened, before the group is complete and the plugin ready. Packets
// with a timestamp from before run() are therefore left out: they may be in several queues.
//
// Threads: open by the main thread; each handle's run by its own queue's thread.
#pragma once

#include "probe/counters.h"
#include "probe/link_type.h"
#include "probe/packet_sink.h"
#include "probe/stop_event.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <pcap/pcap.h>
#include <string>
#include <vector>

namespace probe {

struct interface_options_t {
    std::string name;
    uint32_t queue_count = 1;
    uint32_t kernel_buffer_mib = 32; // per queue
    bool promiscuous = true;
};

class interface_capture_t {
public:
    // One capture per queue. Throws error_t: no such interface, missing privilege, link type, fan-out.
    static std::vector<std::unique_ptr<interface_capture_t>> open(const interface_options_t &options);

    // Hand packets that arrive from `start_ns` (wall clock) on to the sink until a stop is requested. Throws
    // error_t when the interface fails.
    void run(uint64_t start_ns, const stop_event_t &stop, reader_counters_t *counters, packet_sink_t *sink);

private:
    explicit interface_capture_t(const interface_options_t &options);
    void join_fanout(std::optional<uint16_t> *group);
    void count_drops(reader_counters_t *counters);

    std::string name_;
    std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap_;
    link_type_t link_type_ = link_type_t::ETHERNET;
    bool first_ = false;        // counts the interface's own drops, which all handles see
    bool counting_ = false;     // drops from before run() do not count
    uint32_t kernel_drops_ = 0; // as libpcap counts, modulo 2^32
    uint32_t interface_drops_ = 0;
};

} // namespace probe
