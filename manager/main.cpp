// kestrune-manager: puts the rooms together, and takes the signals.
#include "archive/archive.h"
#include "captures/captures.h"
#include "catalogue/catalogue.h"
#include "common/clock.h"
#include "config/settings.h"
#include "events/events.h"
#include "http/server.h"
#include "model/log.h"
#include "notify.h"
#include "options.h"
#include "probes/probes.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <malloc.h>
#include <string>
#include <unistd.h>

namespace kestrune::manager {
namespace {

namespace fs = std::filesystem;

constexpr int ARENAS_MAX = 4; // of malloc: up to 130 threads would each keep one
constexpr const char *CATALOGUE_NAME = "catalogue.sqlite";

// The signals that main waits for. Blocked before any thread begins, so that all threads have them blocked.
sigset_t block_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // sendfile to a client that has gone
    return signals;
}

void make_directory(const fs::path &path, fs::perms mode)
{
    if (fs::create_directories(path)) {
        fs::permissions(path, mode);
    }
}

std::string url_of(const http_settings_t &http, uint16_t port)
{
    const bool six = http.host.find(':') != std::string::npos;
    return "http://" + (six ? "[" + http.host + "]" : http.host) + ":" + std::to_string(port);
}

std::string status_text(const settings_t &settings)
{
    return std::to_string(settings.probes.size()) + (settings.probes.size() == 1 ? " probe" : " probes");
}

// All rooms in the order in which they need each other; they end in the other order.
class daemon_t {
public:
    daemon_t(options_t options, settings_t settings)
        : options_(std::move(options)), settings_(std::move(settings)), events_(wall_now_ns())
    {
        make_directory(settings_.state_directory, fs::perms::owner_all);
        make_directory(settings_.archive.directory,
                       fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
        catalogue_ = open_catalogue(settings_.state_directory / CATALOGUE_NAME);
        archive_ = make_archive(settings_.archive, settings_.probes);
        probes_ = make_probes([this](observation_t seen) { captures_->observe(std::move(seen)); }, &events_);
        captures_ = make_captures(settings_, {catalogue_.get(), archive_.get(), probes_.get(), &events_});
        http_ = make_http_server(
            settings_, {captures_.get(), catalogue_.get(), archive_.get(), probes_.get(), &events_});
    }
    daemon_t(const daemon_t &) = delete;
    daemon_t &operator=(const daemon_t &) = delete;

    // What asks ends first, then what is asked; nobody calls a room that is gone.
    ~daemon_t()
    {
        http_->stop();
        captures_->stop();
        probes_->stop();
    }

    void start()
    {
        captures_->start();
        probes_->configure(settings_.probes, settings_.limits.min_reach_s);
        http_->start();
        const std::string url = url_of(settings_.http, http_->port());
        log_info("kestrune-manager " KESTRUNE_VERSION " at " + url + ", state in " +
                 settings_.state_directory.string());
        tell_link();
    }

    // Keeps the running configuration when the new one is wrong.
    void reload()
    {
        try {
            settings_t settings = read_settings(options_.config, options_.state);
            keep_what_needs_a_restart(&settings);
            http_->reload(settings);
            captures_->reload(settings);
            probes_->configure(settings.probes, settings.limits.min_reach_s);
            settings_ = std::move(settings);
            log_info("the configuration was read anew: " + status_text(settings_));
        } catch (const std::exception &error) { // whatever it is, the captures go on
            log_error(std::string("the configuration before stays: ") + error.what());
        }
    }

    const settings_t &settings() const { return settings_; }

private:
    // A link with a token is for a person's eyes: it goes to a terminal, never to a log.
    void tell_link() const
    {
        if (isatty(STDERR_FILENO) == 1) {
            std::fprintf(stderr, "open %s\n", page_url(settings_.http, http_->port()).c_str());
        } else {
            log_info("kestrune-manager --url with the same --config and --state prints a link to the page, "
                     "with a token");
        }
    }

    void keep_what_needs_a_restart(settings_t *settings) const
    {
        if (settings->http.host != settings_.http.host || settings->http.port != settings_.http.port) {
            log_warning("http.listen needs a restart");
        }
        if (settings->archive.directory != settings_.archive.directory) {
            log_warning("archive.directory needs a restart");
        }
        settings->http.host = settings_.http.host;
        settings->http.port = settings_.http.port;
        settings->archive.directory = settings_.archive.directory;
    }

    const options_t options_;
    settings_t settings_;
    events_t events_;
    std::unique_ptr<catalogue_t> catalogue_;
    std::unique_ptr<archive_t> archive_;
    std::unique_ptr<probes_t> probes_;
    std::unique_ptr<captures_t> captures_;
    std::unique_ptr<http_server_t> http_;
};

void run(const options_t &options, const settings_t &settings)
{
    mallopt(M_ARENA_MAX, ARENAS_MAX);
    const sigset_t signals = block_signals();
    daemon_t manager(options, settings);
    manager.start();
    notify_service("READY=1\nSTATUS=" + status_text(manager.settings()));
    for (;;) {
        const int number = sigwaitinfo(&signals, nullptr);
        if (number == SIGHUP) {
            manager.reload();
            notify_service("STATUS=" + status_text(manager.settings()));
        } else if (number > 0) {
            break;
        }
    }
    notify_service("STOPPING=1");
    log_info("stopping");
}

} // namespace
} // namespace kestrune::manager

int main(int argc, char **argv)
{
    using namespace kestrune::manager;
    try {
        options_t options;
        if (const std::optional<int> status = parse_options(argc, argv, &options)) {
            return *status;
        }
        const settings_t settings = read_settings(options.config, options.state);
        if (options.check) {
            check_http(settings);
            return STATUS_DONE;
        }
        if (options.url) {
            std::printf("%s\n", page_url(settings.http, settings.http.port).c_str());
            return STATUS_DONE;
        }
        run(options, settings);
        return STATUS_DONE;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "kestrune-manager: %s\n", error.what());
        return STATUS_FAILED;
    }
}
