// Which capture serves a request: what runs already, what must be begun. A pure decision.
#pragma once

#include "captures/book.h"

#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

struct cover_t {
    std::vector<ulid_t> running;     // captures that cover something of it
    std::vector<std::string> probes; // for a new capture; may be empty
    std::optional<ulid_t> conflict;  // a running capture of another direction, without `renew`
};

// For one address of the request; `probes` are those asked for.
cover_t cover(book_t *book, const ip_addr_t &addr, const capture_request_t &request,
              const std::vector<std::string> &probes);

// A live capture of the address runs at this probe, or may begin to.
bool live_runs(book_t *book, const ip_addr_t &addr, const std::string &probe);

// Nothing of it runs or waits: it may be deleted, and the captures thread needs it no longer.
bool may_go(const capture_t &capture);

} // namespace kestrune::manager
