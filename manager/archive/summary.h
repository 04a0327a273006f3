// Counts the packets of a capture while they are sealed: by time step and origin, by conversation, protocol and port.
//
// Time steps: 1, 2 or 5 times a power of ten, at most 600, which is known only at the end. So packets are counted in
// steps of a power of ten; as soon as five of them together would be more than 600, ten become one.
//
// Memory: 48 KiB an origin, 8 MiB for 65,536 conversations, 2 MiB for ports; however many packets there are.
#pragma once

#include "archive/sorted_input.h"
#include "model/receipt.h"
#include "probe/packet_parser.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrune::manager {

constexpr size_t SUMMARY_STEPS = 600;
constexpr size_t SUMMARY_TOP = 20; // conversations and ports that are listed
constexpr size_t CONVERSATIONS_KEPT = 65'536;

class summary_maker_t {
public:
    explicit summary_maker_t(const ip_addr_t &addr, size_t origin_count);
    void add(const record_t &record); // times must not descend
    // Everything but the id and the origins' names.
    summary_t finish();

private:
    struct count_t {
        uint64_t packets = 0;
        uint64_t bytes = 0;
        void add(uint64_t length)
        {
            packets++;
            bytes += length;
        }
    };
    struct address_t { // as a number
        uint64_t low = 0;
        uint64_t high = 0;
        bool operator==(const address_t &) const = default;
    };
    struct flow_t {
        probe::flow_key_t key = {};
        std::array<count_t, 2> counts; // from the first address of the key, from the second
        uint64_t first_ns = 0;
        uint64_t last_ns = 0;
        uint64_t bytes() const { return counts[0].bytes + counts[1].bytes; }
    };

    void count_time(const record_t &record);
    void widen_steps();
    void count_packet(const record_t &record, const probe::parsed_packet_t &packet);
    flow_t *flow_of(const probe::flow_key_t &key);
    void index_flows(size_t slots);
    void index_flow(uint32_t number);
    void forget_small();
    void fill_origins(summary_t *summary) const;
    void fill_conversations(summary_t *summary);
    void fill_shares(summary_t *summary) const;
    conversation_t conversation_of(const flow_t &flow) const;

    const address_t captured_;
    uint64_t packets_ = 0;
    uint64_t bytes_ = 0;
    uint64_t first_ns_ = 0;
    uint64_t last_ns_ = 0;
    uint64_t step_ns_ = 1;
    uint64_t step_end_ns_ = 0;                  // of the step that counts now
    size_t step_ = 0;                           // its number
    std::vector<std::vector<count_t>> origins_; // by origin, step
    std::vector<flow_t> flows_;
    std::vector<uint32_t>
        slots_; // numbers of flows plus 1, open addressing; at least four times as many as flows
    uint64_t flows_forgotten_ = 0;
    size_t last_flow_ = 0;
    std::array<count_t, 257> protocols_; // the last: no IP
    std::array<std::vector<count_t>, 2> ports_;
};

// The text of summary.json.
std::string summary_text(const summary_t &summary);

} // namespace kestrune::manager
