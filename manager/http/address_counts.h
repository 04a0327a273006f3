// Counts by network address, each for a minute from its first. At most WRONG_ADDRESSES_MAX addresses: the one that
// began first is forgotten for a new one, so a table that strangers fill takes a bounded place.
//
// Threads: one.
#pragma once

#include <chrono>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrune::manager {

using steady_time_t = std::chrono::steady_clock::time_point;

// What of a client's address is counted: an IPv4 address, of an IPv6 address the first 64 bits, since a host has all
// addresses below them.
std::string counted_address(const std::string &address);

class address_counts_t {
public:
    struct entry_t {
        std::string address;
        unsigned count;
    };

    // Counts one more; its number in this minute, from 1.
    unsigned add(const std::string &address, steady_time_t now);
    // Forgets and returns what began more than a minute ago.
    std::vector<entry_t> take_old(steady_time_t now);

private:
    struct minute_t {
        unsigned count;
        steady_time_t begin;
    };
    void make_room();

    std::unordered_map<std::string, minute_t> minutes_;
};

} // namespace kestrune::manager
