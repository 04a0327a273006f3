#include "config/settings.h"

#include "config/toml_table.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <limits>
#include <unistd.h>

namespace kestrune::manager {
namespace {

namespace fs = std::filesystem;

constexpr size_t PROBES_MAX = 64;
constexpr uint64_t MIB = 1024ULL * 1024;
constexpr uint64_t MIB_MAX = std::numeric_limits<int64_t>::max() / MIB;
constexpr uint64_t SECONDS_MAX = 604'800;
constexpr uint64_t ADDRESSES_MAX = 1000;
constexpr uint64_t UINT32_ANY = std::numeric_limits<uint32_t>::max();
constexpr size_t NAME_SIZE_MAX = 63;
constexpr const char *HTTP_PORT = "80";
constexpr std::string_view METRICS_SCHEME = "http://";
constexpr std::string_view NAME_CHARACTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";

bool is_name(const std::string &text)
{
    return !text.empty() && text.size() <= NAME_SIZE_MAX &&
           text.find_first_not_of(NAME_CHARACTERS) == text.npos &&
           text.find_first_not_of('.') != text.npos; // "." and ".." mean something else in paths
}

bool is_literal(const std::string &host)
{
    in6_addr address = {};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

// Empty: the manager may list, read and delete files there.
std::string wrong_with_directory(const fs::path &path)
{
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        return path.string() + ": " + (error ? error.message() : std::strerror(ENOTDIR));
    }
    if (access(path.c_str(), R_OK | W_OK | X_OK) != 0) {
        return path.string() + ": " + std::strerror(errno) +
               "; the manager lists, reads and deletes files there";
    }
    return "";
}

// ADDRESS:PORT with a literal address.
bool parse_listen(const std::string &text, http_settings_t *http)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    const bool digits =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == port.npos;
    if (!digits || std::stoul(port) > 65535 || !is_literal(host) ||
        bracketed != (host.find(':') != host.npos)) {
        return false;
    }
    http->host = host;
    http->port = static_cast<uint16_t>(std::stoul(port));
    return true;
}

class reader_t {
public:
    reader_t(const fs::path &file, const toml::table &root) : file_(file), root_(file, "", root) {}

    void read(settings_t *settings)
    {
        if (const toml::table *table = root_.take_table("http")) {
            read_http(*table, &settings->http);
        }
        if (const toml::table *table = root_.take_table("limits")) {
            read_limits(*table, &settings->limits);
        }
        if (const toml::table *table = root_.take_table("archive")) {
            read_archive(*table, &settings->archive);
        }
        const std::vector<const toml::table *> probes = root_.take_tables("probe");
        root_.finish();
        for (const toml::table *table : probes) {
            read_probe(*table, settings);
        }
    }

private:
    void read_http(const toml::table &from, http_settings_t *http)
    {
        toml_table_t table(file_, "http", from);
        const auto listen = table.take_string("listen");
        if (listen && !parse_listen(listen->value, http)) {
            table.fail(listen->line,
                       "http.listen is to be ADDRESS:PORT with a literal address, an IPv6 one in brackets");
        }
        if (const auto token_file = table.take_string("token_file")) {
            http->token_file = absolute(table, *token_file, "http.token_file");
        }
        for (const located_t<std::string> &name : table.take_strings("names")) {
            if (!is_name(name.value)) {
                table.fail(name.line, "http.names has host names without port");
            }
            http->names.push_back(name.value);
        }
        if (const auto insecure = table.take_bool("insecure")) {
            http->insecure = insecure->value;
        }
        if (const auto behind_proxy = table.take_bool("behind_proxy")) {
            http->behind_proxy = behind_proxy->value;
        }
        table.finish();
        if (!http->insecure && !is_loopback(http->host)) {
            table.fail(listen->line,
                       "http.listen is beyond loopback, where tokens and packets cross the network in the "
                       "clear; insecure = true admits it");
        }
    }

    void read_limits(const toml::table &from, limit_settings_t *limits)
    {
        toml_table_t table(file_, "limits", from);
        const auto most_packets = table.take_number("max_packets", 1, UINT32_ANY);
        const auto most_seconds = table.take_number("max_seconds", 1, SECONDS_MAX);
        const auto packets = table.take_number("packets", 1, UINT32_ANY);
        const auto seconds = table.take_number("seconds", 1, SECONDS_MAX);
        const auto addresses = table.take_number("max_addresses", 1, ADDRESSES_MAX);
        const auto min_reach = table.take_number("min_reach_s", 0, UINT32_ANY);
        table.finish();
        set(most_packets, &limits->most.packets);
        set(most_seconds, &limits->most.seconds);
        set(packets, &limits->standard.packets);
        set(seconds, &limits->standard.seconds);
        set(addresses, &limits->max_addresses);
        set(min_reach, &limits->min_reach_s);
        if (limits->standard.packets > limits->most.packets) {
            table.fail((packets ? packets : most_packets)->line,
                       "limits.packets is above limits.max_packets");
        }
        if (limits->standard.seconds > limits->most.seconds) {
            table.fail((seconds ? seconds : most_seconds)->line,
                       "limits.seconds is above limits.max_seconds");
        }
    }

    void read_archive(const toml::table &from, archive_settings_t *archive)
    {
        toml_table_t table(file_, "archive", from);
        if (const auto directory = table.take_string("directory")) {
            archive->directory = absolute(table, *directory, "archive.directory");
            std::error_code error;
            if (fs::exists(archive->directory, error) && !fs::is_directory(archive->directory, error)) {
                table.fail(directory->line, archive->directory.string() + ": " + std::strerror(ENOTDIR));
            }
        }
        if (const auto quota = table.take_number("quota_mb", 0, MIB_MAX)) {
            archive->quota_bytes = quota->value * MIB;
        }
        if (const auto free = table.take_number("min_free_mb", 0, MIB_MAX)) {
            archive->min_free_bytes = free->value * MIB;
        }
        set(table.take_number("max_age_days", 0, UINT32_ANY), &archive->max_age_days);
        table.finish();
    }

    void read_probe(const toml::table &from, settings_t *settings)
    {
        toml_table_t table(file_, "probe", from);
        const auto name = table.take_string("name");
        const auto address = table.take_string("address");
        const auto files = table.take_string("files");
        const auto metrics = table.take_string("metrics");
        table.finish();
        if (!name || !address) {
            table.fail(table.line(), "a [[probe]] needs name and address");
        }
        if (settings->probes.size() == PROBES_MAX) {
            table.fail(table.line(), "more than " + std::to_string(PROBES_MAX) + " probes");
        }
        probe_settings_t probe;
        probe.name = name->value;
        if (!is_name(probe.name)) {
            table.fail(name->line, "probe.name has 1 to 63 characters of A-Z a-z 0-9 . _ -");
        }
        probe.endpoint = parse_endpoint_at(table, *address, "probe.address");
        if (files) {
            probe.files = absolute(table, *files, "probe.files");
            const std::string wrong = wrong_with_directory(probe.files);
            if (!wrong.empty()) {
                table.fail(files->line, wrong);
            }
            probe.files = fs::canonical(probe.files);
        }
        if (metrics) {
            read_metrics(table, *metrics, &probe);
        }
        check_unlike_others(table, probe, settings->probes, name->line);
        settings->probes.push_back(probe);
    }

    static void check_unlike_others(const toml_table_t &table, const probe_settings_t &probe,
                                    const std::vector<probe_settings_t> &others, uint32_t line)
    {
        for (const probe_settings_t &other : others) {
            if (other.name == probe.name) {
                table.fail(line, "two probes have the name " + probe.name);
            }
            if (other.endpoint.text() == probe.endpoint.text()) {
                table.fail(line,
                           "the probes " + other.name + " and " + probe.name + " have the same address");
            }
            if (!probe.files.empty() && other.files == probe.files) {
                table.fail(line, "the probes " + other.name + " and " + probe.name +
                                     " have the same files; each needs a "
                                     "directory of its own");
            }
        }
    }

    static void read_metrics(const toml_table_t &table, const located_t<std::string> &url,
                             probe_settings_t *probe)
    {
        if (!url.value.starts_with(METRICS_SCHEME)) {
            table.fail(url.line, "probe.metrics is to begin with http://");
        }
        const std::string rest = url.value.substr(METRICS_SCHEME.size());
        const size_t slash = std::min(rest.find('/'), rest.size());
        std::string place = rest.substr(0, slash);
        const size_t colon = place.rfind(':');
        if (colon == std::string::npos || place.back() == ']') {
            place.append(":").append(HTTP_PORT);
        }
        probe->metrics = parse_endpoint_at(table, {place, url.line}, "probe.metrics");
        probe->metrics_path = slash < rest.size() ? rest.substr(slash) : "/";
        const auto blank = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7F; };
        if (std::any_of(rest.begin(), rest.end(), blank)) {
            table.fail(url.line, "probe.metrics is no URL");
        }
    }

    static endpoint_t parse_endpoint_at(const toml_table_t &table, const located_t<std::string> &text,
                                        const std::string &key)
    {
        try {
            return parse_endpoint(text.value);
        } catch (const std::invalid_argument &error) {
            table.fail(text.line, key + ": " + error.what());
        }
    }

    static fs::path absolute(const toml_table_t &table, const located_t<std::string> &text,
                             const std::string &key)
    {
        if (text.value.empty() || text.value.find('\0') != std::string::npos) {
            table.fail(text.line, key + " is no path");
        }
        return fs::absolute(text.value).lexically_normal();
    }

    static void set(const std::optional<located_t<uint64_t>> &number, uint32_t *place)
    {
        if (number) {
            *place = static_cast<uint32_t>(number->value);
        }
    }

    const fs::path file_;
    toml_table_t root_;
};

toml::table parse_file(const fs::path &file)
{
    std::error_code error;
    if (fs::is_directory(file, error)) {
        throw settings_error_t(file.string() + ": " + std::strerror(EISDIR));
    }
    if (access(file.c_str(), R_OK) != 0) {
        throw settings_error_t(file.string() + ": " + std::strerror(errno));
    }
    try {
        return toml::parse_file(file.string());
    } catch (const toml::parse_error &wrong) {
        throw settings_error_t(file.string() + ":" + std::to_string(wrong.source().begin.line) + ": " +
                               std::string(wrong.description()));
    }
}

probe_settings_t standard_probe()
{
    probe_settings_t probe;
    probe.name = "local";
    probe.endpoint = parse_endpoint("127.0.0.1:37564");
    probe.files = fs::absolute("captures");
    const std::string wrong = wrong_with_directory(probe.files);
    if (!wrong.empty()) {
        throw settings_error_t(wrong + "; without a [[probe]] in a configuration file, the probe's files are "
                                       "expected there");
    }
    probe.files = fs::canonical(probe.files);
    return probe;
}

} // namespace

bool is_loopback(const std::string &host)
{
    in_addr four = {};
    in6_addr six = {};
    if (inet_pton(AF_INET, host.c_str(), &four) == 1) {
        return (ntohl(four.s_addr) >> 24) == IN_LOOPBACKNET;
    }
    return inet_pton(AF_INET6, host.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

settings_t read_settings(const fs::path &file, const fs::path &state_directory)
{
    settings_t settings;
    settings.state_directory = fs::absolute(state_directory).lexically_normal();
    settings.http.token_file = settings.state_directory / "tokens";
    settings.archive.directory = settings.state_directory / "archive";
    if (!file.empty()) {
        const toml::table root = parse_file(file);
        reader_t(file, root).read(&settings);
    }
    if (settings.probes.empty()) {
        settings.probes.push_back(standard_probe());
    }
    return settings;
}

} // namespace kestrune::manager
