#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string>

namespace kestrune::manager {
namespace {

constexpr const char *ABOUT =
    "Knows one or several probes, keeps a catalogue of captures, seals their files into an archive,\n"
    "and is asked over HTTP.";

constexpr const char *MORE = R"(
Signals:
  SIGINT, SIGTERM  stop cleanly, with exit status 0; captures go on at the probes
  SIGHUP           read the configuration and the tokens anew

Exit status:
  0 stopped, or nothing wrong with the configuration; 1 failed (one line on standard error says why); 2 usage

Without a file: the probe at 127.0.0.1:37564 with its files in ./captures, the interface at http://127.0.0.1:8564.

Examples:
  kestrune-manager
  kestrune-manager -c /etc/kestrune/manager.toml --check
  kestrune-manager -c manager.toml --state /var/tmp/manager
  kestrune-manager -c manager.toml --state /var/tmp/manager --url)";

std::filesystem::path default_state()
{
    const char *state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return std::filesystem::path(state) / "kestrune";
    }
    const char *home = std::getenv("HOME");
    return home != nullptr && home[0] == '/' ? std::filesystem::path(home) / ".local/state/kestrune"
                                             : std::filesystem::path();
}

} // namespace

std::optional<int> parse_options(int argc, char **argv, options_t *options)
{
    CLI::App app(ABOUT, "kestrune-manager");
    std::string config;
    std::string state = default_state().string();
    app.add_option("-c,--config", config, "configuration in TOML; see manager.toml(5)")->type_name("FILE");
    app.add_option(
           "--state", state,
           "catalogue, tokens, and the archive unless it is configured (default: $XDG_STATE_HOME/kestrune)")
        ->type_name("DIR");
    app.add_flag("--check", options->check, "read the configuration, say what is wrong with it, and end");
    app.add_flag("--url", options->url,
                 "print a link to the page, with a token, and end; the manager may be running");
    app.set_version_flag("--version", "kestrune-manager " KESTRUNE_VERSION);
    app.footer(MORE);
    try {
        app.parse(argc, argv);
        if (state.empty()) {
            throw CLI::ValidationError("--state is needed, as neither XDG_STATE_HOME nor HOME is set");
        }
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? STATUS_DONE : STATUS_USAGE;
    }
    options->config = config;
    options->state = state;
    return std::nullopt;
}

} // namespace kestrune::manager
