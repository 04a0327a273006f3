// Capture files, read independently of the writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct pcap_record_t {
    uint64_t timestamp;   // nanoseconds since the epoch
    uint32_t full_length; // of the packet before it was cut
    std::string data;
    bool operator==(const pcap_record_t &other) const = default;
};

// Every whole record of the file. Throws std::runtime_error when it is no nanosecond Ethernet pcap file. A
// torn end is an error too, unless `torn` receives the number of its bytes.
std::vector<pcap_record_t> read_pcap(const std::string &path, size_t *torn = nullptr);

// The whole content; "" for a missing file.
std::string file_bytes(const std::string &path);
