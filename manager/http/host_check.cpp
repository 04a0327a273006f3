#include "http/host_check.h"

#include "config/settings.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

namespace kestrune::manager {
namespace {

struct host_port_t {
    std::string host; // lower case, an IPv6 address without brackets and canonical
    std::string port; // empty: none
    bool literal = false;
};

std::string lower(std::string_view text)
{
    std::string result(text);
    for (char &c : result) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return result;
}

std::optional<std::string> canonical_ipv6(const std::string &text)
{
    in6_addr address = {};
    char buffer[INET6_ADDRSTRLEN];
    if (inet_pton(AF_INET6, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return inet_ntop(AF_INET6, &address, buffer, sizeof buffer);
}

bool is_ipv4(const std::string &text)
{
    in_addr address = {};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_port(std::string_view text)
{
    return text.size() <= 5 && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<host_port_t> parse_bracketed(const std::string &text)
{
    const size_t end = text.find(']');
    if (end == std::string::npos) {
        return std::nullopt;
    }
    const std::optional<std::string> address = canonical_ipv6(text.substr(1, end - 1));
    const std::string rest = text.substr(end + 1);
    if (!address || (!rest.empty() && (rest[0] != ':' || !is_port(rest.substr(1))))) {
        return std::nullopt;
    }
    return host_port_t{*address, rest.empty() ? "" : rest.substr(1), true};
}

std::optional<host_port_t> parse_host_port(std::string_view given)
{
    const std::string text = lower(given);
    if (text.empty()) {
        return std::nullopt;
    }
    if (text[0] == '[') {
        return parse_bracketed(text);
    }
    const size_t colon = std::min(text.find(':'), text.size());
    host_port_t result = {text.substr(0, colon), colon < text.size() ? text.substr(colon + 1) : "", false};
    if (result.host.empty() || !is_port(result.port)) {
        return std::nullopt;
    }
    if (result.host.back() == '.') { // a name with its root
        result.host.pop_back();
    }
    result.literal = is_ipv4(result.host);
    return result;
}

} // namespace

host_check_t::host_check_t(const std::string &listen_host, const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        names_.push_back(lower(name));
    }
    const std::string host = canonical_ipv6(listen_host).value_or(listen_host);
    any_literal_ = host == "0.0.0.0" || host == "::";
    names_.push_back(host);
    if (is_loopback(host) || any_literal_) {
        names_.emplace_back("localhost");
    }
}

bool host_check_t::host_allowed(std::string_view host) const
{
    const std::optional<host_port_t> asked = parse_host_port(host);
    if (!asked) {
        return false;
    }
    return (any_literal_ && asked->literal) ||
           std::find(names_.begin(), names_.end(), asked->host) != names_.end();
}

bool host_check_t::origin_allowed(std::string_view origin, std::string_view host)
{
    const std::string text = lower(origin);
    const bool tls = text.starts_with("https://");
    if (!tls && !text.starts_with("http://")) {
        return false;
    }
    const std::string standard = tls ? "443" : "80";
    const std::optional<host_port_t> from = parse_host_port(text.substr(text.find("//") + 2));
    const std::optional<host_port_t> to = parse_host_port(host);
    if (!from || !to || from->host != to->host) {
        return false;
    }
    return (from->port.empty() ? standard : from->port) == (to->port.empty() ? standard : to->port);
}

} // namespace kestrune::manager
