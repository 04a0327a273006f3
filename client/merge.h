// Merging capture files: the live file and the history files of a rule as one file in time order.
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
    bool cut = false;                                  // take inputs that end in a cut record up to it
    std::function<bool()> stop = [] { return false; }; // asked per packet; true gives up
};

struct merge_result_t {
    std::vector<uint64_t> packets; // by input
    std::vector<bool> cut;         // by input: it ends in a cut record
    uint64_t total = 0;
    uint64_t first_ns = 0; // since the epoch; 0 without packets
    uint64_t last_ns = 0;
};

// Writes every packet of every input, unchanged, to the output in the order of their times; packets of one
// time in the order of the inputs, then of their places in the file. The inputs need not be in order
// themselves (the queues of a probe share a live file). The output is a pcap file with nanosecond times, mode
// 0640; it appears under its name only when it is complete, so it may also be one of the inputs.
//
// Memory: 24 bytes a packet for the order, no packet data. Inputs that are in order are read from front to
// end. Throws client_error_t: LOCAL (also for an input that is cut short, unless that is allowed: nothing may
// be lost silently), INTERRUPTED.
merge_result_t merge_files(const merge_options_t &options);

} // namespace kestrune
