#include "client/text_forms.h"

#include "protocol/message.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>

namespace kestrune {

namespace {

constexpr std::string_view DEFAULT_PORT = "37564";
constexpr std::string_view DIGITS = "0123456789";
constexpr uint64_t U32_MAX = std::numeric_limits<uint32_t>::max();
constexpr uint64_t PORT_MAX = std::numeric_limits<uint16_t>::max();

[[noreturn]] void refuse(std::string_view text, const std::string &why)
{
    throw std::invalid_argument("'" + printable(text) + "' " + why);
}

// A decimal number that is the whole text.
std::optional<uint64_t> number(std::string_view text)
{
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

std::string lower(std::string_view text)
{
    std::string low(text);
    std::transform(low.begin(), low.end(), low.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    return low;
}

ip_addr_t ipv4_key(const uint8_t network_order[4])
{
    uint8_t reversed[4];
    std::reverse_copy(network_order, network_order + 4, reversed);
    return ip_addr_from_ipv4(reversed);
}

ip_addr_t ipv6_key(std::string_view text, const uint8_t network_order[16])
{
    static constexpr uint8_t MAPPED[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (std::equal(MAPPED, MAPPED + 12, network_order)) {
        return ipv4_key(network_order + 12);
    }
    uint8_t reversed[16];
    std::reverse_copy(network_order, network_order + 16, reversed);
    const ip_addr_t key = ip_addr_from_ipv6(reversed);
    if (ip_addr_is_ipv4(key)) {
        refuse(text, std::string("cannot be watched: the plugin cannot tell this IPv6 address from the IPv4 "
                                 "address ") +
                         ip_addr_text(key).text);
    }
    return key;
}

std::string why_not_an_address(const std::string &text)
{
    if (text.empty()) {
        return "is not an IP address";
    }
    if (text.find('/') != std::string::npos) {
        return "is a network; a rule watches one address: give the addresses one by one";
    }
    if (text.find('%') != std::string::npos) {
        return "has a zone; packets carry none: give the address without '%' and what follows it";
    }
    if (const size_t colon = text.find(':'); colon != std::string::npos) {
        const bool port = colon == text.rfind(':') && text.find('.') < colon;
        return port ? "has a port; a rule records all ports of an address: give the address alone"
                    : "is not an IPv6 address (for example 2001:db8::1)";
    }
    if (text.find_first_not_of("0123456789.") == std::string::npos) {
        return "is not an IPv4 address: write four numbers of 0 to 255 without leading zeros (10.0.0.1)";
    }
    return "is a host name or no address at all; a rule watches an IP address: look the name up first "
           "(getent ahosts NAME) and give its addresses";
}

struct unit_t {
    std::string_view name;
    uint64_t factor;
};

uint64_t duration_unit(std::string_view text, std::string_view name)
{
    static constexpr std::array UNITS = {unit_t{"ms", 1},        unit_t{"s", 1000},
                                         unit_t{"", 1000},       unit_t{"m", 60'000},
                                         unit_t{"h", 3'600'000}, unit_t{"d", 86'400'000}};
    for (const unit_t &unit : UNITS) {
        if (unit.name == name) {
            return unit.factor;
        }
    }
    refuse(text, "is not a duration: write for example 90s, 5m or 1h30m");
}

} // namespace

ip_addr_t parse_address(std::string_view text)
{
    std::string bare(text);
    if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']' && bare.find(':') != std::string::npos) {
        bare = bare.substr(1, bare.size() - 2);
    }
    uint8_t network_order[16];
    const bool whole = bare.find('\0') == std::string::npos;
    if (whole && inet_pton(AF_INET, bare.c_str(), network_order) == 1) {
        return ipv4_key(network_order);
    }
    if (whole && inet_pton(AF_INET6, bare.c_str(), network_order) == 1) {
        return ipv6_key(text, network_order);
    }
    refuse(text, why_not_an_address(bare));
}

std::string endpoint_t::text() const
{
    return host.find(':') == std::string::npos ? host + ":" + port : "[" + host + "]:" + port;
}

endpoint_t parse_endpoint(std::string_view text)
{
    std::string_view host = text;
    std::string_view port = DEFAULT_PORT;
    const size_t colon = text.rfind(':');
    if (text.substr(0, 1) == "[") {
        const size_t bracket = text.find(']');
        if (bracket == std::string_view::npos || (bracket + 1 < text.size() && text[bracket + 1] != ':')) {
            refuse(text, "is not a probe: write HOST, HOST:PORT or [IPV6]:PORT");
        }
        host = text.substr(1, bracket - 1);
        port = bracket + 1 < text.size() ? text.substr(bracket + 2) : DEFAULT_PORT;
    } else if (colon != std::string_view::npos && text.find(':') == colon) {
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    const std::optional<uint64_t> value = number(port);
    if (!value || *value == 0 || *value > PORT_MAX) {
        refuse(text, "has no port of 1 to 65535 behind its colon");
    }
    if (host.empty() || host.find_first_of(" \t/") != std::string_view::npos) {
        refuse(text, "names no host: write HOST, HOST:PORT or [IPV6]:PORT");
    }
    return {std::string(host), std::to_string(*value)};
}

std::chrono::milliseconds parse_duration(std::string_view text)
{
    static constexpr uint64_t LONGEST = 1000 * U32_MAX;
    uint64_t total = 0;
    std::string_view rest = text;
    do {
        const std::string_view digits = rest.substr(0, rest.find_first_not_of(DIGITS));
        rest.remove_prefix(digits.size());
        const std::string_view name = rest.substr(0, rest.find_first_of(DIGITS));
        rest.remove_prefix(name.size());
        const uint64_t factor = duration_unit(text, name);
        const std::optional<uint64_t> value = number(digits);
        if (!value) {
            refuse(text, "is not a duration: write for example 90s, 5m or 1h30m");
        }
        if (*value > LONGEST / factor || total + *value * factor > LONGEST) {
            refuse(text, "is too long: at most 4294967295 seconds");
        }
        total += *value * factor;
    } while (!rest.empty());
    return std::chrono::milliseconds(total);
}

uint32_t parse_time_limit(std::string_view text)
{
    const auto milliseconds = static_cast<uint64_t>(parse_duration(text).count());
    if (milliseconds == 0 || milliseconds % 1000 != 0) {
        refuse(text,
               "is no time limit: give whole seconds, at least 1 (for no live capture: --history-only)");
    }
    return static_cast<uint32_t>(milliseconds / 1000);
}

uint32_t parse_size_mb(std::string_view text)
{
    const size_t digits = std::min(text.find_first_not_of(DIGITS), text.size());
    const std::string unit = lower(text.substr(digits));
    const std::optional<uint64_t> value = number(text.substr(0, digits));
    uint64_t factor = 0;
    if (unit == "m" || unit == "mb" || unit == "mib") {
        factor = 1;
    } else if (unit == "g" || unit == "gb" || unit == "gib") {
        factor = 1024;
    } else if (unit == "t" || unit == "tb" || unit == "tib") {
        factor = 1024ULL * 1024;
    }
    if (!value || factor == 0) {
        refuse(text, "is not a size: write a whole number with its unit, for example 512M or 8G");
    }
    if (*value == 0 || *value > U32_MAX / factor) {
        refuse(text, "is out of range: 1M to 4294967295M");
    }
    return static_cast<uint32_t>(*value * factor);
}

void check_rule_name(std::string_view name)
{
    if (name.empty() || name.size() > MSG_NAME_MAX) {
        refuse(name, "has " + std::to_string(name.size()) + " bytes; a rule's name has 1 to " +
                         std::to_string(MSG_NAME_MAX));
    }
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7F || std::string_view("/\"\\$`,").find(c) != std::string_view::npos) {
            refuse(name, "is no name for a rule: it becomes part of file names and of a shell command on the "
                         "probe, so it must not hold / \" \\ $ ` , or control characters");
        }
    }
}

std::string dated_rule_name(const ip_addr_t &addr, std::time_t now)
{
    std::string name = ip_addr_text(addr).text;
    std::replace(name.begin(), name.end(), ':', '-');
    std::tm parts = {};
    gmtime_r(&now, &parts);
    char time[32] = "";
    std::strftime(time, sizeof time, "-%Y%m%dT%H%M%SZ", &parts);
    return name + time;
}

std::string format_duration(uint64_t seconds)
{
    if (seconds < 60) {
        return std::to_string(seconds) + "s";
    }
    char text[48];
    if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%um%02us", static_cast<unsigned>(seconds / 60),
                      static_cast<unsigned>(seconds % 60));
    } else {
        std::snprintf(text, sizeof text, "%lluh%02um%02us", static_cast<unsigned long long>(seconds / 3600),
                      static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    }
    return text;
}

std::string format_bytes(uint64_t bytes)
{
    static constexpr std::array UNITS = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < UNITS.size()) {
        value /= 1024;
        unit++;
    }
    char text[48];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, UNITS.at(unit));
    return text;
}

std::string printable(std::string_view text)
{
    std::string clean(text);
    for (size_t i = 0; i < clean.size(); i++) {
        const auto byte = static_cast<unsigned char>(clean[i]);
        // In UTF-8, C1 controls are c2 80 to c2 9f. Some terminals obey them.
        const bool c1 = byte == 0xC2 && i + 1 < clean.size() &&
                        static_cast<unsigned char>(clean[i + 1]) >= 0x80 &&
                        static_cast<unsigned char>(clean[i + 1]) <= 0x9F;
        if (byte < ' ' || byte == 0x7F || c1) {
            clean[i] = '?';
            if (c1) {
                clean[i + 1] = '?';
            }
        }
    }
    return clean;
}

} // namespace kestrune
