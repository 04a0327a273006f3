#include "system/probe_support.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

uint32_t u32_at(const std::string &bytes, size_t at)
{
    uint32_t value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// The plugin's hash.
std::string hash_text(const char *data, size_t size)
{
    uint64_t value = 0xCBF29CE484222325;
    for (size_t i = 0; i < size; i++) {
        value = (value ^ static_cast<uint8_t>(data[i])) * 0x100000001B3;
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, value);
    return text;
}

std::string field(std::istringstream *line)
{
    std::string text;
    std::getline(*line, text, '|');
    return text;
}

} // namespace

std::string example(const std::string &name)
{
    return KESTRUNE_SOURCE_DIR "/examples/pcaps/" + name;
}

std::string built(const std::string &name)
{
    return KESTRUNE_BUILD_DIR "/" + name;
}

std::vector<packet_t> read_handed(const std::string &path, uint32_t queues)
{
    std::vector<packet_t> packets;
    for (uint32_t queue = 0; queue < queues; queue++) {
        std::istringstream text(read_text(path + "." + std::to_string(queue)));
        std::string line;
        while (std::getline(text, line)) {
            std::istringstream fields(line);
            packet_t packet = {};
            packet.queue = queue;
            fields >> packet.src >> packet.dst >> packet.length >> packet.timestamp >> packet.counter >>
                packet.hash;
            std::getline(fields, packet.rest);
            packets.push_back(packet);
        }
    }
    return packets;
}

std::vector<packet_t> read_expected(const std::string &file)
{
    const std::string bytes = read_text(file);
    child_process_t tshark({"tshark", "-n", "-r", file, "-T", "fields", "-E", "separator=|", "-e", "ip.src",
                            "-e", "ipv6.src", "-e", "ip.dst", "-e", "ipv6.dst", "-e", "tcp.stream"});
    if (bytes.size() < 24 || u32_at(bytes, 0) != 0xA1B2C3D4 || tshark.wait() != 0) {
        throw std::runtime_error("cannot read " + file + ": " + tshark.err());
    }
    std::istringstream lines(tshark.out());
    std::vector<packet_t> packets;
    for (size_t at = 24; at < bytes.size(); at += 16 + packets.back().length) {
        std::string text;
        std::getline(lines, text);
        std::istringstream line(text);
        packet_t packet = {};
        packet.src = field(&line);
        packet.src += field(&line);
        packet.dst = field(&line);
        packet.dst += field(&line);
        packet.stream = field(&line);
        packet.timestamp = u32_at(bytes, at) * uint64_t{1000000000} + u32_at(bytes, at + 4) * uint64_t{1000};
        packet.length = u32_at(bytes, at + 8);
        packet.hash = hash_text(bytes.data() + at + 16, packet.length);
        packets.push_back(packet);
    }
    return packets;
}

std::vector<std::string> identities(const std::vector<packet_t> &packets)
{
    std::vector<std::string> texts;
    for (const packet_t &packet : packets) {
        if (!packet.src.empty()) {
            texts.push_back(packet.src + " " + packet.dst + " " + std::to_string(packet.length) + " " +
                            packet.hash);
        }
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

size_t check_connections(const std::vector<packet_t> &handed, const std::vector<packet_t> &expected)
{
    std::map<std::string, std::string> stream_of;
    for (const packet_t &packet : expected) {
        stream_of[packet.hash] = packet.stream;
    }
    std::map<std::string, std::pair<uint32_t, uint32_t>> seen; // queue and packets
    std::set<uint32_t> queues;
    for (const packet_t &packet : handed) {
        const std::string &stream = stream_of[packet.hash];
        auto &[queue, packets] = seen.try_emplace(stream, packet.queue, 0).first->second;
        EXPECT_EQ(queue, packet.queue) << "connection " << stream;
        EXPECT_EQ(packets++, packet.counter) << "connection " << stream;
        queues.insert(packet.queue);
    }
    return queues.size();
}

int64_t counter(const std::string &out, const std::string &name)
{
    const size_t line = out.rfind("counters:");
    const size_t at = line == std::string::npos ? line : out.find(" " + name + "=", line);
    return at == std::string::npos ? -1 : std::stoll(out.substr(at + name.size() + 2));
}
