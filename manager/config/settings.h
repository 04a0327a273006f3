// The manager's configuration as plain values, and the TOML file that gives them (docs/manager.toml).
#pragma once

#include "client/text_forms.h"
#include "model/capture.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrune::manager {

struct http_settings_t {
    std::string host = "127.0.0.1"; // a literal address
    uint16_t port = 8564;           // 0: any free one (tests)
    std::filesystem::path token_file;
    std::vector<std::string> names;
    bool insecure = false;
    bool behind_proxy = false;
};

struct limit_settings_t {
    limits_t standard{100'000, 300};
    limits_t most{100'000'000, 86'400};
    uint32_t max_addresses = 1000;
    uint32_t min_reach_s = 0; // 0: no alarm
};

struct archive_settings_t {
    std::filesystem::path directory;
    uint64_t quota_bytes = 0; // 0: none
    uint64_t min_free_bytes = uint64_t{1024} << 20;
    uint32_t max_age_days = 0; // 0: no limit
};

struct probe_settings_t {
    std::string name;
    endpoint_t endpoint;
    std::filesystem::path files; // empty: not on this machine
    // The probe's metrics, http://HOST:PORT/PATH; nothing: not known.
    std::optional<endpoint_t> metrics;
    std::string metrics_path;
    bool operator==(const probe_settings_t &other) const
    {
        return name == other.name && endpoint.text() == other.endpoint.text() && files == other.files &&
               metrics.has_value() == other.metrics.has_value() &&
               (!metrics || metrics->text() == other.metrics->text()) && metrics_path == other.metrics_path;
    }
};

struct settings_t {
    std::filesystem::path state_directory;
    http_settings_t http;
    limit_settings_t limits;
    archive_settings_t archive;
    std::vector<probe_settings_t> probes; // 1 to 64
};

// Its text is one line: FILE:LINE: what is wrong.
class settings_error_t : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Whether a literal address is one of this machine's loopback.
bool is_loopback(const std::string &host);

// Reads a file; without one, the defaults. All paths become absolute. Throws settings_error_t.
settings_t read_settings(const std::filesystem::path &file, const std::filesystem::path &state_directory);

} // namespace kestrune::manager
