// Shared by the benches: addresses to watch, packets without any of them, and
// libpcap's filter of the same addresses.
#pragma once

#include "common/ip_addr.h"
#include "storage/fhf_table.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <pcap/pcap.h>
#include <random>
#include <string>
#include <vector>

namespace traffic {

constexpr size_t PACKETS = 8192; // of one batch: too many for a branch predictor to learn
constexpr size_t FRAME_SIZE = 60;

// The two addresses of a packet.
struct ends_t {
    ip_addr_t src;
    ip_addr_t dst;
};

using frame_t = std::array<uint8_t, FRAME_SIZE>; // Ethernet, IPv4, UDP

inline ip_addr_t address(uint32_t ipv4)
{
    uint8_t bytes[4];
    std::memcpy(bytes, &ipv4, sizeof bytes);
    return ip_addr_from_ipv4(bytes);
}

inline uint32_t ipv4_of(const ip_addr_t &addr)
{
    uint32_t ipv4;
    std::memcpy(&ipv4, addr.bytes + 4, sizeof ipv4);
    return ipv4;
}

// Random addresses of 10.0.0.0/8 that fit into the table, as many as requested.
template <typename Insert>
std::vector<ip_addr_t> watch(size_t count, Insert insert)
{
    std::mt19937 random(1);
    std::vector<ip_addr_t> watched;
    while (watched.size() < count) {
        const ip_addr_t addr = address(0x0a000000U | (random() & 0xffffffU));
        if (insert(addr)) {
            watched.push_back(addr);
        }
    }
    return watched;
}

// Random packets between addresses of 172.16.0.0/12, none of them watched.
inline std::vector<ends_t> unwatched_packets(size_t count = PACKETS)
{
    std::mt19937 random(2);
    std::vector<ends_t> packets(count);
    for (ends_t &packet : packets) {
        packet.src = address(0xac100000U | (random() & 0xfffffU));
        packet.dst = address(0xac100000U | (random() & 0xfffffU));
    }
    return packets;
}

inline frame_t frame_of(const ends_t &packet)
{
    frame_t frame = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0, 0x45, 0, 0, 46, 0, 0, 0, 0, 64, 17};
    const uint32_t src = __builtin_bswap32(ipv4_of(packet.src));
    const uint32_t dst = __builtin_bswap32(ipv4_of(packet.dst));
    std::memcpy(&frame[26], &src, sizeof src);
    std::memcpy(&frame[30], &dst, sizeof dst);
    return frame;
}

inline std::vector<frame_t> frames_of(const std::vector<ends_t> &packets)
{
    std::vector<frame_t> frames(packets.size());
    std::transform(packets.begin(), packets.end(), frames.begin(), frame_of);
    return frames;
}

// "host A or host B ..."; without addresses "less 1", which matches nothing either.
inline std::string filter_text(const std::vector<ip_addr_t> &addresses)
{
    std::string text;
    for (const ip_addr_t &addr : addresses) {
        text += (text.empty() ? "host " : " or host ") + std::string(ip_addr_text(addr).text);
    }
    return text.empty() ? "less 1" : text;
}

// Processor time of one of `count` things on its thread.
inline benchmark::Counter time_each(double count)
{
    return {count, benchmark::Counter::kIsRate | benchmark::Counter::kInvert};
}

// The optimised filter program of this many hosts. Compiling 1000 hosts takes most of a minute, so each
// program is compiled once and kept.
inline const bpf_program &filter_program(size_t hosts)
{
    static std::map<size_t, bpf_program> programs;
    const auto [entry, is_new] = programs.try_emplace(hosts);
    if (is_new) {
        const auto watched = watch(hosts, [](const ip_addr_t &) { return true; });
        pcap_t *pcap = pcap_open_dead(DLT_EN10MB, 65535);
        if (pcap_compile(pcap, &entry->second, filter_text(watched).c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
            std::fprintf(stderr, "%s\n", pcap_geterr(pcap));
            std::abort();
        }
        pcap_close(pcap);
    }
    return entry->second;
}

// libpcap's compiled filter of `hosts` addresses on the unwatched packets, in memory.
inline void bpf_filter(benchmark::State &state)
{
    const bpf_program &program = filter_program(static_cast<size_t>(state.range(0)));
    const std::vector<frame_t> frames = frames_of(unwatched_packets());
    for (auto _ : state) {
        for (const frame_t &frame : frames) {
            benchmark::DoNotOptimize(::bpf_filter(program.bf_insns, frame.data(), FRAME_SIZE, FRAME_SIZE));
        }
    }
    state.counters["each"] = time_each(static_cast<double>(state.iterations() * PACKETS));
}

} // namespace traffic
