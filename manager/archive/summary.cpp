#include "archive/summary.h"

#include "common/clock.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace kestrune::manager {

namespace {

enum : uint8_t { ICMP = 1, TCP = 6, UDP = 17, ICMPV6 = 58 };

constexpr size_t SLOTS_MIN = 1024; // a power of two
constexpr size_t SLOTS_SHARE = 4;  // slots for each flow
constexpr size_t NO_IP = 256;
constexpr size_t PORTS = 65536;
constexpr uint64_t DECADE = 10;

uint8_t protocol_of(const probe::flow_key_t &key)
{
    return static_cast<uint8_t>(key.words[4] >> 32);
}

bool is_ipv4(const probe::flow_key_t &key)
{
    return static_cast<uint8_t>(key.words[4] >> 40) == 4;
}

uint16_t port_of(const probe::flow_key_t &key, size_t end)
{
    return static_cast<uint16_t>(key.words[4] >> (16 * end));
}

// In place of ports ICMP has identifiers there, which would divide its conversations.
probe::flow_key_t conversation_key(probe::flow_key_t key)
{
    const uint8_t protocol = protocol_of(key);
    if (protocol == ICMP || protocol == ICMPV6) {
        key.words[4] &= ~uint64_t{UINT32_MAX};
    }
    return key;
}

std::string protocol_name(size_t protocol)
{
    switch (protocol) {
    case ICMP:
        return "icmp";
    case TCP:
        return "tcp";
    case UDP:
        return "udp";
    case ICMPV6:
        return "icmpv6";
    case NO_IP:
        return "other";
    default:
        return "ip-" + std::to_string(protocol);
    }
}

std::string address_text(const probe::flow_key_t &key, size_t end)
{
    std::array<uint8_t, 16> bytes = {};
    std::memcpy(bytes.data(), &key.words[2 * end], bytes.size());
    const ip_addr_t addr = is_ipv4(key) ? ip_addr_from_ipv4(bytes.data()) : ip_addr_from_ipv6(bytes.data());
    return ip_addr_text(addr).text;
}

uint64_t steps_between(uint64_t first_ns, uint64_t last_ns, uint64_t step_ns)
{
    return last_ns / step_ns - first_ns / step_ns + 1;
}

void keep_largest(std::vector<share_t> *shares, size_t most)
{
    std::stable_sort(shares->begin(), shares->end(),
                     [](const share_t &a, const share_t &b) { return a.bytes > b.bytes; });
    shares->resize(std::min(shares->size(), most));
}

} // namespace

summary_maker_t::summary_maker_t(const ip_addr_t &addr, size_t origin_count)
    : captured_([&addr] {
          address_t number;
          if (ip_addr_is_ipv4(addr)) {
              std::memcpy(&number.low, addr.bytes + 4, 4);
          } else {
              std::memcpy(&number.low, addr.bytes, 8);
              std::memcpy(&number.high, addr.bytes + 8, 8);
          }
          return number;
      }()),
      origins_(origin_count), slots_(SLOTS_MIN)
{
}

void summary_maker_t::add(const record_t &record)
{
    if (packets_ == 0) {
        first_ns_ = record.time_ns;
        step_end_ns_ = record.time_ns + 1;
    }
    packets_++;
    bytes_ += record.length;
    last_ns_ = record.time_ns;
    count_time(record);
    probe::parsed_packet_t packet;
    if (probe::parse_packet(record.data, record.captured, record.time_ns, &packet) == probe::verdict_t::IP) {
        count_packet(record, packet);
    } else {
        protocols_[NO_IP].add(record.length);
    }
}

void summary_maker_t::count_time(const record_t &record)
{
    if (record.time_ns >= step_end_ns_) {
        while (steps_between(first_ns_, record.time_ns, 5 * step_ns_) > SUMMARY_STEPS) {
            widen_steps();
        }
        const uint64_t step = record.time_ns / step_ns_;
        step_ = step - first_ns_ / step_ns_;
        step_end_ns_ = (step + 1) * step_ns_;
    }
    std::vector<count_t> &counts = origins_[record.origin];
    if (counts.size() <= step_) {
        counts.resize(step_ + 1);
    }
    counts[step_].add(record.length);
}

void summary_maker_t::widen_steps()
{
    const uint64_t begin = first_ns_ / step_ns_;
    for (std::vector<count_t> &counts : origins_) {
        size_t size = 0;
        for (size_t i = 0; i < counts.size(); i++) {
            const size_t to = (begin + i) / DECADE - begin / DECADE;
            const count_t count = counts[i];
            if (to >= size) {
                size = to + 1;
                counts[to] = count;
            } else {
                counts[to].packets += count.packets;
                counts[to].bytes += count.bytes;
            }
        }
        counts.resize(size);
    }
    step_ns_ *= DECADE;
}

void summary_maker_t::count_packet(const record_t &record, const probe::parsed_packet_t &packet)
{
    const probe::flow_key_t key = conversation_key(packet.key);
    const uint8_t protocol = protocol_of(key);
    flow_t *flow = flow_of(key);
    if (flow->first_ns == 0) {
        flow->first_ns = record.time_ns;
    }
    flow->last_ns = record.time_ns;
    address_t src;
    std::memcpy(&src, packet.header.addr.ipv6.src, packet.header.ip_version == 4 ? 4 : sizeof src);
    flow->counts[src == address_t{key.words[0], key.words[1]} ? 0 : 1].add(record.length);
    protocols_[protocol].add(record.length);
    const uint16_t port = std::min(port_of(key, 0), port_of(key, 1));
    if ((protocol == TCP || protocol == UDP) && (key.words[4] & UINT32_MAX) != 0) {
        std::vector<count_t> &ports = ports_[protocol == UDP];
        ports.resize(PORTS);
        ports[port].add(record.length);
    }
}

// Packets come in bursts of one flow, so the last one is tried first.
summary_maker_t::flow_t *summary_maker_t::flow_of(const probe::flow_key_t &key)
{
    if (last_flow_ < flows_.size() && flows_[last_flow_].key == key) {
        return &flows_[last_flow_];
    }
    const size_t mask = slots_.size() - 1;
    for (size_t slot = probe::flow_hash(key, 0) & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
        if (flows_[slots_[slot] - 1].key == key) {
            last_flow_ = slots_[slot] - 1;
            return &flows_[last_flow_];
        }
    }
    if (flows_.size() == CONVERSATIONS_KEPT) {
        forget_small();
    }
    last_flow_ = flows_.size();
    flows_.push_back({});
    flows_.back().key = key;
    if (flows_.size() * SLOTS_SHARE > slots_.size()) {
        index_flows(2 * slots_.size());
    } else {
        index_flow(static_cast<uint32_t>(last_flow_));
    }
    return &flows_.back();
}

void summary_maker_t::index_flows(size_t slots)
{
    slots_.assign(slots, 0);
    for (uint32_t i = 0; i < flows_.size(); i++) {
        index_flow(i);
    }
}

void summary_maker_t::index_flow(uint32_t number)
{
    const size_t mask = slots_.size() - 1;
    size_t slot = probe::flow_hash(flows_[number].key, 0) & mask;
    while (slots_[slot] != 0) {
        slot = (slot + 1) & mask;
    }
    slots_[slot] = number + 1;
}

// Half of them, so that it is rare.
void summary_maker_t::forget_small()
{
    const size_t kept = CONVERSATIONS_KEPT / 2;
    std::nth_element(flows_.begin(), flows_.begin() + kept, flows_.end(),
                     [](const flow_t &a, const flow_t &b) { return a.bytes() > b.bytes(); });
    flows_forgotten_ += flows_.size() - kept;
    flows_.resize(kept);
    index_flows(slots_.size());
}

summary_t summary_maker_t::finish()
{
    summary_t summary;
    summary.packets = packets_;
    summary.bytes = bytes_;
    summary.first = first_ns_;
    summary.last = last_ns_;
    fill_origins(&summary);
    fill_conversations(&summary);
    fill_shares(&summary);
    return summary;
}

void summary_maker_t::fill_origins(summary_t *summary) const
{
    uint64_t factor = 1;
    for (const uint64_t next : {2U, 5U, 10U}) {
        if (steps_between(first_ns_, last_ns_, factor * step_ns_) > SUMMARY_STEPS) {
            factor = next;
        }
    }
    summary->step_ns = factor * step_ns_;
    const uint64_t begin = first_ns_ / summary->step_ns;
    summary->from = begin * summary->step_ns;
    const size_t steps = packets_ == 0 ? 0 : steps_between(first_ns_, last_ns_, summary->step_ns);
    for (const std::vector<count_t> &counts : origins_) {
        summary_origin_t &origin = summary->origins.emplace_back();
        origin.packets.resize(steps);
        origin.bytes.resize(steps);
        for (size_t i = 0; i < counts.size(); i++) {
            const size_t step = (first_ns_ / step_ns_ + i) / factor - begin;
            origin.packets[step] += counts[i].packets;
            origin.bytes[step] += counts[i].bytes;
        }
    }
}

void summary_maker_t::fill_conversations(summary_t *summary)
{
    const size_t listed = std::min(SUMMARY_TOP, flows_.size());
    std::partial_sort(flows_.begin(), flows_.begin() + static_cast<ptrdiff_t>(listed), flows_.end(),
                      [](const flow_t &a, const flow_t &b) {
                          return a.bytes() != b.bytes() ? a.bytes() > b.bytes() : a.first_ns < b.first_ns;
                      });
    for (size_t i = 0; i < listed; i++) {
        summary->conversations.push_back(conversation_of(flows_[i]));
    }
    summary->conversations_more = flows_forgotten_ + flows_.size() - listed;
}

conversation_t summary_maker_t::conversation_of(const flow_t &flow) const
{
    const size_t a = captured_ == address_t{flow.key.words[2], flow.key.words[3]} ? 1 : 0;
    conversation_t conversation;
    conversation.a = address_text(flow.key, a);
    conversation.b = address_text(flow.key, 1 - a);
    if ((flow.key.words[4] & UINT32_MAX) != 0) {
        conversation.a_port = port_of(flow.key, a);
        conversation.b_port = port_of(flow.key, 1 - a);
    }
    conversation.protocol = protocol_name(protocol_of(flow.key));
    conversation.packets = {flow.counts[a].packets, flow.counts[1 - a].packets};
    conversation.bytes = {flow.counts[a].bytes, flow.counts[1 - a].bytes};
    conversation.first = flow.first_ns;
    conversation.last = flow.last_ns;
    return conversation;
}

void summary_maker_t::fill_shares(summary_t *summary) const
{
    for (size_t i = 0; i < protocols_.size(); i++) {
        if (protocols_[i].packets > 0) {
            summary->protocols.push_back({protocol_name(i), protocols_[i].packets, protocols_[i].bytes});
        }
    }
    keep_largest(&summary->protocols, protocols_.size());
    for (const size_t udp : {0U, 1U}) {
        for (size_t port = 0; port < ports_[udp].size(); port++) {
            const count_t &count = ports_[udp][port];
            if (count.packets > 0) {
                summary->ports.push_back(
                    {(udp == 1 ? "udp/" : "tcp/") + std::to_string(port), count.packets, count.bytes});
            }
        }
    }
    keep_largest(&summary->ports, SUMMARY_TOP);
}

} // namespace kestrune::manager
