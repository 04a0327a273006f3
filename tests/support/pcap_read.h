// Capture files read back field by field, for comparing them with what should be in them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pcap_record_t {
    uint64_t timestamp; // nanoseconds since the epoch
    uint32_t full_length;
    std::string data;
    bool operator==(const pcap_record_t &other) const = default;
};

// Every record of the file; throws std::runtime_error when it is no nanosecond Ethernet pcap file or ends
// torn.
std::vector<pcap_record_t> read_pcap(const std::string &path);

// Names of the open descriptors' targets, and the number of threads of this process.
std::vector<std::string> open_descriptors();
int thread_count();

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
