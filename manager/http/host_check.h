// Which names this interface answers to. A page of another site that a browser of this network shows can make a name of
// its own point here; the Host field then has that name. A request that another site's page sends has its Origin.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::manager {

class host_check_t {
public:
    // listen_host: the literal address that is listened on, without brackets. names: further ones, without port.
    host_check_t(const std::string &listen_host, const std::vector<std::string> &names);

    // The name before the port counts; the port is not compared, since a tunnel or a proxy may have another.
    bool host_allowed(std::string_view host) const;

    // Whether an Origin names the host and port that this request went to. "null" does not.
    static bool origin_allowed(std::string_view origin, std::string_view host);

private:
    std::vector<std::string> names_; // lower case, an IPv6 address without brackets in its canonical form
    bool any_literal_ = false;       // listening on all addresses: every literal one is ours
};

} // namespace kestrune::manager
