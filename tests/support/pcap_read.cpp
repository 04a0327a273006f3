#include "support/pcap_read.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

uint32_t u32_at(const std::string &bytes, size_t at)
{
    uint32_t value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

} // namespace

std::string file_bytes(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::vector<pcap_record_t> read_pcap(const std::string &path, size_t *torn)
{
    const std::string bytes = file_bytes(path);
    if (bytes.size() < 24 || u32_at(bytes, 0) != 0xa1b23c4d || u32_at(bytes, 20) != 1) {
        throw std::runtime_error(path + ": no nanosecond Ethernet pcap file");
    }
    std::vector<pcap_record_t> records;
    size_t at = 24;
    while (bytes.size() - at >= 16 && bytes.size() - at - 16 >= u32_at(bytes, at + 8)) {
        const uint32_t length = u32_at(bytes, at + 8);
        records.push_back({u32_at(bytes, at) * uint64_t{1000000000} + u32_at(bytes, at + 4),
                           u32_at(bytes, at + 12), bytes.substr(at + 16, length)});
        at += 16 + size_t{length};
    }
    if (torn != nullptr) {
        *torn = bytes.size() - at;
    } else if (at != bytes.size()) {
        throw std::runtime_error(path + ": torn record");
    }
    return records;
}
