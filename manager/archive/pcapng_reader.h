// Reads a sealed file (archive/pcapng.h) from its begin to its end: hash, length, and what it holds. It knows the
// blocks that the manager writes and no others.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kestrune::manager {

struct pcapng_content_t {
    uint64_t bytes = 0;
    std::string sha256;
    std::vector<std::string> interfaces; // names
    std::vector<uint64_t> packets;       // by interface
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    std::string
        wrong; // a sentence: what is no sealed file about it; the hash is of the whole file all the same
};

// From the descriptor's position on. `what` names it. Throws std::system_error, and stopped_t when `stop` says so
// (asked for each piece of some hundred KiB).
pcapng_content_t read_pcapng(int fd, const std::string &what, const std::function<bool()> &stop = {});

} // namespace kestrune::manager
