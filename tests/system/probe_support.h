// What the tests of the built probe share: the probe with the plugin that writes down what it is handed, and
// the packets of a capture file to compare that with.
#pragma once

#include "support/child_process.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// A packet as the plugin was handed it, or of a capture file, by itself and as tshark sees it.
struct packet_t {
    std::string src, dst; // empty: not IP
    uint32_t length;
    uint64_t timestamp;
    std::string hash;
    // Of one that was handed over
    uint32_t queue;
    uint32_t counter;
    std::string rest; // of the line: empty
    // Of one in a file
    std::string stream; // number of the TCP connection
};

std::string example(const std::string &name);
std::string built(const std::string &name);

// What the plugin wrote to PATH.0, PATH.1, ...; each queue's packets in order.
std::vector<packet_t> read_handed(const std::string &path, uint32_t queues);
// Every packet of a microsecond Ethernet pcap file; needs tshark.
std::vector<packet_t> read_expected(const std::string &file);
// Addresses, length and hash of each, sorted: what must be equal whatever the queues.
std::vector<std::string> identities(const std::vector<packet_t> &packets);
// Every TCP connection of the file has reached one queue, its counter rising from 0 by 1; the queues in use.
size_t check_connections(const std::vector<packet_t> &handed, const std::vector<packet_t> &expected);
// Value of a counter in the last line of counters, or -1.
int64_t counter(const std::string &out, const std::string &name);
