#include "common/ip_addr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>

bool ip_addr_is_ipv4(const ip_addr_t &addr)
{
    static constexpr uint8_t ones[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    static constexpr uint8_t zeros[8] = {};
    return std::memcmp(addr.bytes, ones, sizeof ones) == 0 &&
           std::memcmp(addr.bytes + 8, zeros, sizeof zeros) == 0;
}

ip_addr_text_t ip_addr_text(const ip_addr_t &addr)
{
    ip_addr_text_t out = {};
    uint8_t network_order[16];
    if (ip_addr_is_ipv4(addr)) {
        std::reverse_copy(addr.bytes + 4, addr.bytes + 8, network_order);
        inet_ntop(AF_INET, network_order, out.text, sizeof out.text);
    } else {
        std::reverse_copy(std::begin(addr.bytes), std::end(addr.bytes), network_order);
        inet_ntop(AF_INET6, network_order, out.text, sizeof out.text);
    }
    return out;
}
