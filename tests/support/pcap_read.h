// Files, descriptors and threads as tests see them; capture files read independently of the writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct pcap_record_t {
    uint64_t timestamp;   // nanoseconds since the epoch
    uint32_t full_length; // of the packet before it was cut
    std::string data;
    bool operator==(const pcap_record_t &other) const = default;
};

// Every whole record of the file; throws std::runtime_error when it is no nanosecond Ethernet pcap file. A
// torn end is an error too, unless `torn` takes the number of its bytes.
std::vector<pcap_record_t> read_pcap(const std::string &path, size_t *torn = nullptr);

// The whole content, "" where there is no such file.
std::string file_bytes(const std::string &path);

// Open descriptors and threads of this process: what a test must leave as it found them.
std::pair<long, long> resources();

// A fresh directory that is removed with everything in it at the end.
class temp_dir_t {
public:
    temp_dir_t();
    ~temp_dir_t();
    temp_dir_t(const temp_dir_t &) = delete;
    temp_dir_t &operator=(const temp_dir_t &) = delete;
    std::string path(const std::string &name = "") const { return root + "/" + name; }

private:
    std::string root;
};
