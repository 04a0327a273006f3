// Merges capture files: the live file and the history files of a rule into one file in time order.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kestrune {

struct merge_options_t {
    std::vector<std::string> inputs; // pcap or pcapng, of one link type
    std::string output;
    bool overwrite = false;                            // replace an existing output
    bool cut = false;                                  // accept inputs that end in a cut record
    std::function<bool()> stop = [] { return false; }; // asked per packet; true aborts
};

struct merge_result_t {
    std::vector<uint64_t> packets; // by input
    std::vector<bool> cut;         // by input: it ends in a cut record
    uint64_t total = 0;
    uint64_t first_ns = 0; // since the epoch; 0 without packets
    uint64_t last_ns = 0;
};

// Writes every packet of every input, unchanged, to the output in time order. Packets of the same time keep
// the order of the inputs, then their order in the file. The inputs need not be in order themselves (the
// queues of a probe share a live file). The output is a pcap file with nanosecond times, mode 0640. It
// appears under its name only when it is complete, so it may also be one of the inputs.
//
// Memory: 24 bytes a packet for the order, no packet data. Inputs in order are read sequentially.
// Throws client_error_t: LOCAL (also for an input that ends in a cut record, unless `cut` allows it:
// nothing may be lost silently), INTERRUPTED.
merge_result_t merge_files(const merge_options_t &options);

} // namespace kestrune
