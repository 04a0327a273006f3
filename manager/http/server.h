// The HTTP interface. One thread serves all connections, four work on requests.
#pragma once

#include "archive/archive.h"
#include "captures/captures.h"
#include "catalogue/catalogue.h"
#include "config/settings.h"
#include "events/events.h"
#include "probes/probes.h"

#include <cstdint>
#include <memory>
#include <stdexcept>

namespace kestrune::manager {

// It cannot listen, or the token file is wrong: one line.
class http_error_t : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Borrowed; they outlive the server.
struct http_neighbours_t {
    captures_t *captures = nullptr;
    catalogue_t *catalogue = nullptr;
    archive_t *archive = nullptr;
    probes_t *probes = nullptr;
    events_t *events = nullptr;
};

class http_server_t {
public:
    virtual ~http_server_t() = default;
    virtual void start() = 0; // binds, then begins the threads; throws http_error_t
    virtual uint16_t port() const = 0;
    virtual void
    reload(const settings_t &settings) = 0; // names, tokens, limits; throws http_error_t, changing nothing
    virtual void stop() = 0;                // waits for the threads
};

// The page's address with a token, for a person at a terminal. `port` is the one that is listened on. Throws http_error_t.
std::string page_url(const http_settings_t &settings, uint16_t port);

// What is wrong with the token file, if there is one; throws http_error_t.
void check_http(const settings_t &settings);

// Make it before other threads publish events; start it once the captures run.
std::unique_ptr<http_server_t> make_http_server(const settings_t &settings,
                                                const http_neighbours_t &neighbours);

} // namespace kestrune::manager
