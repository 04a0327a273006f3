#include "client/ctl/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kestrune {

namespace {

constexpr const char *FOOTER = R"(
Several -s steer several probes side by side; each answer names its probe.
Data goes to standard output, everything else to standard error. With --json every answer and every error is one
JSON object on one line of standard output.

Exit status: 0 done, 1 failed, 2 wrong usage, 3 cannot connect, 4 refused by the plugin, 124 --wait ran out of time,
130 interrupted. With several probes: the highest of them.

Examples:
  kestrunectl history on 512M
  kestrunectl add 10.0.0.1 -c 1000 -t 5m --wait
  grep sshd /var/log/auth.log | kestrunectl add --from - -c 1000
  kestrunectl -s probe1 -s [2001:db8::7]:4000 list
  kestrunectl watch --json | jq .
  kestrunectl merge web_7 web_7_hc_0 web_7_hc_1 -o web_7.pcap
  kestrunectl verify /var/lib/kestrune/archive)";

// No limit: as many as CLI11 can count.
constexpr int MANY = CLI::detail::expected_max_vector_size;

constexpr const char *ADD_FOOTER = R"(
The files appear in the probe's export directory as NAME_ID and, from the history buffers, NAME_ID_hc_QUEUE. Without -n
the name is the address and the time, 192.0.2.17-20261123T051203Z; an address that has a rule keeps that rule's name,
and its limits count from now.

--from finds addresses in lines of any text; '#' begins a comment. Several addresses are sent without waiting for each
other; each gets a result, and a summary follows. An address that did not get the requested live capture is reported
(exit status 4).

--wait stays until the rules are finished and prints their files and packet counts. When interrupted, it removes the
rules that are new; those that existed before stay, with their limits renewed. When --wait-time runs out, all stay.)";

template <typename T>
struct named_t {
    const char *name;
    T value;
};

// An option whose value one of the parsers of text_forms.h reads.
template <typename T, typename P>
CLI::Option *add_parsed(CLI::App *app, const char *names, T *place, P parse, const char *help)
{
    return app->add_option_function<std::string>(
        names,
        [place, parse](const std::string &text) {
            try {
                *place = parse(text);
            } catch (const std::invalid_argument &error) {
                throw CLI::ValidationError(error.what());
            }
        },
        help);
}

template <typename T, size_t N>
T choose(const std::string &text, const named_t<T> (&choices)[N])
{
    std::string known;
    for (const named_t<T> &choice : choices) {
        if (text == choice.name) {
            return choice.value;
        }
        known += (known.empty() ? "" : ", ") + std::string(choice.name);
    }
    throw std::invalid_argument("'" + printable(text) + "' is none of " + known);
}

uint8_t parse_direction(const std::string &text)
{
    static constexpr named_t<uint8_t> CHOICES[] = {{"src", SRC}, {"dst", DST}, {"both", BOTH}};
    return choose(text, CHOICES);
}

colour_t parse_colour(const std::string &text)
{
    static constexpr named_t<colour_t> CHOICES[] = {
        {"auto", colour_t::AUTO}, {"always", colour_t::ALWAYS}, {"never", colour_t::NEVER}};
    return choose(text, CHOICES);
}

uint32_t parse_count(const std::string &text, uint32_t least)
{
    const bool digits =
        !text.empty() && text.size() <= 10 && text.find_first_not_of("0123456789") == std::string::npos;
    const uint64_t value = digits ? std::stoull(text) : 0;
    if (!digits || value < least || value > std::numeric_limits<uint32_t>::max()) {
        throw std::invalid_argument("'" + printable(text) + "' is not a number from " +
                                    std::to_string(least) + " to 4294967295");
    }
    return static_cast<uint32_t>(value);
}

std::chrono::milliseconds parse_time(const std::string &text)
{
    const std::chrono::milliseconds time = parse_duration(text);
    if (time.count() == 0) {
        throw std::invalid_argument("'" + printable(text) + "' is no time to wait");
    }
    if (time > std::chrono::hours(24 * 366)) {
        throw std::invalid_argument("'" + printable(text) + "' is longer than a year");
    }
    return time;
}

class builder_t {
public:
    explicit builder_t(CLI::App *app) : app_(app)
    {
        app->require_subcommand(1);
        app->fallthrough();
        app->set_version_flag("--version", "kestrunectl " KESTRUNE_VERSION);
        add_parsed(app, "--color", &options_.colour, parse_colour,
                   "auto (default; obeys NO_COLOR), always, never")
            ->type_name("WHEN");
        app->add_flag("--json", options_.json, "one JSON object per answer");
        app->add_option("-s,--server", servers_,
                        "a probe, HOST, HOST:PORT or [IPV6]:PORT (default 127.0.0.1:37564); may be repeated")
            ->type_name("PROBE")
            ->allow_extra_args(false);
        add_parsed(app, "--timeout", &time_, parse_time,
                   "for connecting (default 5s) and for each answer (10s)")
            ->type_name("TIME");
        add();
        rules();
        history();
        others();
        app->footer(FOOTER); // last, since subcommands inherit it
    }

    options_t finish()
    {
        for (CLI::App *app = app_; !app->get_subcommands().empty();) {
            app = app->get_subcommands().front();
            if (const auto found = commands_.find(app); found != commands_.end()) {
                options_.command = found->second;
            }
        }
        if (servers_.empty()) {
            servers_.emplace_back("127.0.0.1");
        }
        for (const std::string &server : servers_) {
            options_.probes.push_back(parse_endpoint(server));
        }
        if (time_) {
            options_.connect_time = options_.answer_time = *time_;
        }
        if (options_.command == command_t::ADD) {
            finish_add();
        }
        finish_addresses();
        return options_;
    }

private:
    CLI::App *command(CLI::App *parent, command_t which, const char *name, const char *help)
    {
        CLI::App *sub = parent->add_subcommand(name, help);
        sub->fallthrough();
        commands_[sub] = which;
        return sub;
    }

    CLI::Option *addresses(CLI::App *sub, const char *help, int most)
    {
        const auto take = [this](const std::vector<std::string> &texts) {
            try {
                for (const std::string &text : texts) {
                    options_.addrs.push_back(parse_address(text));
                }
            } catch (const std::invalid_argument &error) {
                throw CLI::ValidationError(error.what());
            }
        };
        return sub->add_option_function<std::vector<std::string>>("ADDRESS", take, help)
            ->expected(1, most)
            ->type_name("");
    }

    void add()
    {
        CLI::App *sub = command(app_, command_t::ADD, "add", "record the packets of addresses");
        addresses(sub, "IPv4 or IPv6 addresses", MANY);
        sub->add_option("-f,--from", options_.from,
                        "also the addresses found in this text file (-: standard input); may be repeated")
            ->type_name("FILE")
            ->allow_extra_args(false);
        add_parsed(sub, "-d,--direction", &options_.direction, parse_direction,
                   "packets with the address as src, dst or both (default)")
            ->type_name("DIRECTION");
        const auto count = [](const std::string &text) { return parse_count(text, 1); };
        CLI::Option *packets = add_parsed(sub, "-c,--packets", &options_.packets, count,
                                          "end the live capture after this many packets (default 100000)")
                                   ->type_name("PACKETS");
        CLI::Option *time = add_parsed(sub, "-t,--time", &options_.time_limit_s, parse_time_limit,
                                       "end the live capture after this time, 90s, 5m, 1h (default 5m)")
                                ->type_name("TIME");
        name_ = sub->add_option("-n,--name", options_.name,
                                "the name of the rules (default: made from address and time)")
                    ->type_name("NAME");
        sub->add_flag("--history-only", options_.history_only,
                      "only what the history buffers hold, no live capture")
            ->excludes(packets)
            ->excludes(time);
        CLI::Option *wait = sub->add_flag("-w,--wait", options_.wait, "stay until the rules are finished");
        add_parsed(sub, "--wait-time", &options_.wait_time, parse_time, "how long --wait stays at most")
            ->type_name("TIME")
            ->needs(wait);
        sub->footer(ADD_FOOTER);
    }

    void rules()
    {
        CLI::App *sub = command(app_, command_t::REMOVE, "remove", "end the live capture of addresses");
        addresses(sub, "IPv4 or IPv6 addresses", MANY)->required();
        add_parsed(sub, "-d,--direction", &options_.direction, parse_direction,
                   "drop only this side of the rule: src, dst, both (default)")
            ->type_name("DIRECTION");

        sub = command(app_, command_t::LIST, "list", "list the rules with their state, newest first");
        CLI::Option *direction = add_parsed(sub, "-d,--direction", &options_.filter, parse_direction,
                                            "only rules of exactly this direction: src, dst, both")
                                     ->type_name("DIRECTION");
        CLI::Option *brief = sub->add_flag("-b,--brief", options_.brief, "addresses alone, one in a line");
        sub->add_flag("-W,--watch", options_.repeat, "show the rules again every second until stopped")
            ->excludes(brief);
        sub->add_flag("--all", all_, "rules of every direction (default)")->excludes(direction);

        sub = command(app_, command_t::SHOW, "show", "show how far a running live capture has come");
        addresses(sub, "IPv4 or IPv6 address", 1)->required();
    }

    void history()
    {
        CLI::App *sub = app_->add_subcommand("history", "the buffers of past packets");
        sub->require_subcommand(1);
        sub->fallthrough();
        CLI::App *on = command(sub, command_t::HISTORY_ON, "on", "turn the buffers of all queues on");
        add_parsed(on, "SIZE", &options_.size_mb, parse_size_mb,
                   "of all buffers together, 512M, 8G (default: 195 KiB each, for trials)")
            ->type_name("");
        command(sub, command_t::HISTORY_OFF, "off", "turn the buffers off and forget what they hold");
        command(sub, command_t::HISTORY_STATUS, "status", "show the state of the buffers");
    }

    void others()
    {
        CLI::App *sub = command(app_, command_t::HEAVY, "heavy",
                                "keep only the first packets of each flow in the history");
        const auto count = [](const std::string &text) { return parse_count(text, 0); };
        add_parsed(sub, "N", &options_.heavy, count, "packets of a flow; 0 keeps none")
            ->required()
            ->type_name("");

        command(app_, command_t::WATCH, "watch", "show all updates until stopped");

        sub = command(app_, command_t::MERGE, "merge",
                      "merge capture files of this machine into one in the order of time");
        sub->add_option("FILE", options_.inputs,
                        "files to merge; at equal times the first file's packets come first")
            ->required()
            ->type_name("");
        sub->add_option("-o,--output", options_.output, "the merged file")->required()->type_name("OUT");
        sub->add_flag("--force", options_.force, "replace OUT when it exists");
        sub->add_flag("--cut", options_.cut, "accept files that end in a cut record (from a full disk)");

        sub = command(app_, command_t::VERIFY, "verify",
                      "check captures that kestrune-manager sealed: manifests, lengths, hashes");
        sub->add_option("PATH", options_.inputs,
                        "captures' folders, manifests or sealed files, or an archive")
            ->required()
            ->type_name("");
    }

    void finish_add()
    {
        if (options_.history_only) {
            options_.packets = options_.time_limit_s = 0;
        }
        if (name_->count() != 0) {
            check_rule_name(options_.name);
        }
        options_.now = std::time(nullptr);
        if (options_.addrs.empty() && options_.from.empty()) {
            throw std::invalid_argument("ADDRESS or --from FILE is required");
        }
    }

    // The addresses of the command line, each once.
    void finish_addresses()
    {
        std::vector<ip_addr_t> once;
        for (const ip_addr_t &addr : options_.addrs) {
            if (std::find(once.begin(), once.end(), addr) == once.end()) {
                once.push_back(addr);
            }
        }
        options_.addrs = std::move(once);
        options_.several = options_.addrs.size() > 1 || !options_.from.empty();
    }

    CLI::App *app_;
    options_t options_;
    std::vector<std::string> servers_;
    std::optional<std::chrono::milliseconds> time_;
    CLI::Option *name_ = nullptr; // owned by app_
    bool all_ = false;            // the default, stated
    std::map<const CLI::App *, command_t> commands_;
};

// CLI11 reports only that a command is required, even when an unknown one was given.
std::string usage_text(const CLI::App &app, const CLI::ParseError &error)
{
    if (dynamic_cast<const CLI::RequiredError *>(&error) == nullptr ||
        std::string_view(error.what()) != "A subcommand is required") {
        return error.what();
    }
    const std::vector<CLI::App *> chosen = app.get_subcommands();
    const CLI::App &parent = chosen.empty() ? app : *chosen.front();
    std::string text = "a command is needed:";
    for (const CLI::App *sub : parent.get_subcommands(nullptr)) {
        text += " " + (&parent == &app ? "" : parent.get_name() + " ") + sub->get_name() + ",";
    }
    text.pop_back();
    return text;
}

} // namespace

const char *command_name(command_t command)
{
    static constexpr const char *NAMES[] = {"add",        "remove",      "list",           "show",
                                            "history on", "history off", "history status", "heavy",
                                            "watch",      "merge",       "verify"};
    return NAMES[static_cast<size_t>(command)];
}

command_line_t parse_command_line(int argc, char **argv)
{
    const bool json =
        std::any_of(argv, argv + argc, [](const char *arg) { return std::string_view(arg) == "--json"; });
    CLI::App app(
        "Steer the kestrune plugin of one or several probes: record the traffic of chosen addresses.",
        "kestrunectl");
    builder_t builder(&app);
    try {
        app.parse(argc, argv);
        return {builder.finish(), EXIT_DONE, "", json};
    } catch (const CLI::Success &help) {
        app.exit(help);
        return {std::nullopt, EXIT_DONE, "", json};
    } catch (const CLI::ParseError &error) {
        return {std::nullopt, EXIT_USAGE, usage_text(app, error), json};
    } catch (const std::invalid_argument &error) {
        return {std::nullopt, EXIT_USAGE, error.what(), json};
    }
}

} // namespace kestrune
