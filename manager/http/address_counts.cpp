#include "http/address_counts.h"

#include "http/limits.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace kestrune::manager {

std::string counted_address(const std::string &address)
{
    in6_addr six = {};
    char buffer[INET6_ADDRSTRLEN];
    if (inet_pton(AF_INET6, address.c_str(), &six) != 1) {
        return address;
    }
    std::memset(six.s6_addr + 8, 0, 8);
    return std::string(inet_ntop(AF_INET6, &six, buffer, sizeof buffer)) + "/64";
}

unsigned address_counts_t::add(const std::string &address, steady_time_t now)
{
    const std::string key = counted_address(address);
    auto found = minutes_.find(key);
    if (found == minutes_.end()) {
        make_room();
        found = minutes_.emplace(key, minute_t{0, now}).first;
    } else if (now - found->second.begin >= WRONG_TOKENS_PERIOD) {
        found->second = {0, now};
    }
    return ++found->second.count;
}

std::vector<address_counts_t::entry_t> address_counts_t::take_old(steady_time_t now)
{
    std::vector<entry_t> old;
    for (auto minute = minutes_.begin(); minute != minutes_.end();) {
        if (now - minute->second.begin < WRONG_TOKENS_PERIOD) {
            ++minute;
            continue;
        }
        old.push_back({minute->first, minute->second.count});
        minute = minutes_.erase(minute);
    }
    return old;
}

void address_counts_t::make_room()
{
    if (minutes_.size() < WRONG_ADDRESSES_MAX) {
        return;
    }
    const auto oldest = std::min_element(minutes_.begin(), minutes_.end(), [](const auto &a, const auto &b) {
        return a.second.begin < b.second.begin;
    });
    minutes_.erase(oldest);
}

} // namespace kestrune::manager
