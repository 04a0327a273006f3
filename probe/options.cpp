#include "probe/options.h"

#include "probe/plugin_module.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>

namespace probe {
namespace {

constexpr uint32_t QUEUES_MAX = 255;
constexpr double SECONDS_MAX = 1e9;

constexpr const char *ABOUT =
    "Reads packets from capture files or a network interface and hands them, with their flows, to a process\n"
    "plugin, which it loads from a shared object. Packets that are not IP are counted and not handed on.";

constexpr const char *MORE = R"(Counters:
  The end of a run and SIGUSR1 print one line on standard output, "counters: NAME=VALUE ...":
  read             packets read; the sum of handed_on, not_ip and truncated
  handed_on        packets handed to the plugin; handed_on_0, handed_on_1, ...: of each queue
  not_ip           packets of other protocols
  truncated        packets whose captured bytes end before their addresses
  clamped          packets handed on with their first 65535 bytes only
  flows            flows begun; flows_active: in the tables now; flows_evicted: ended to make room
  kernel_dropped   packets that the kernel lost because the probe was too slow

Signals:
  SIGINT, SIGTERM  stop cleanly, with exit status 0
  SIGUSR1          print the counters

Exit status:
  0 done or stopped, 1 failed (one line on standard error says why), 2 usage

Log lines go to standard error with time and level, or in the journal's <N> form when it reads them.

Examples:
  kestrune-probe -r day1.pcap -r day2.pcapng -q 4 --speed 0 --stay -P "export_path=/data;buffer_size=1024"
  kestrune-probe -r sample.pcap --loop 0 --rebase -v 3 -P "port=37564;export_path=/tmp/out"
  kestrune-probe -i eth0 -q 2 -P "port=37564;export_path=/data;buffer_size=8192")";

// "" (the option alone) is 1, "v", "vv", ... one more each (-vvv is 3), else a number.
std::string read_verbosity(const std::string &text, int32_t *verbosity)
{
    if (std::all_of(text.begin(), text.end(), [](char c) { return c == 'v'; })) {
        *verbosity = static_cast<int32_t>(text.size()) + 1;
        return "";
    }
    int number = 0;
    if (!CLI::detail::lexical_cast(text, number) || number < -1 || number > 5) {
        return "--verbose takes a number from -1 to 5, not " + text;
    }
    *verbosity = number;
    return "";
}

// Help that fits a terminal: the descriptions are wrapped, and say the default instead of the type's checks.
class formatter_t : public CLI::Formatter {
public:
    formatter_t() { column_width(COLUMN); }

    std::string make_option_opts(const CLI::Option *option) const override
    {
        const std::string type = option->get_type_name();
        return option->get_type_size() == 0 ? "" : " " + type.substr(0, type.find(':')); // without its checks
    }

    std::string make_option_desc(const CLI::Option *option) const override
    {
        const std::string &standard = option->get_default_str();
        std::istringstream words(option->get_description() +
                                 (standard.empty() ? "" : " (default: " + standard + ")"));
        std::string text;
        size_t line = 0;
        for (std::string word; words >> word; line += word.size() + 1) {
            if (line > 0 && line + word.size() > WIDTH - COLUMN) {
                text += "\n";
                line = 0;
            }
            text += (line > 0 ? " " : "") + word;
        }
        return text;
    }

private:
    static constexpr size_t COLUMN = 26;
    static constexpr size_t WIDTH = 100;
};

void add_sources(CLI::App *app, options_t *options)
{
    const std::string group = "Source, one of";
    CLI::Option *read =
        app->add_option(
               "-r,--read", options->replay.files,
               "Read this pcap or pcapng file (- is standard input); may be given again, files are read "
               "in this order. Link types: Ethernet; raw IP, BSD loopback and Linux cooked get an "
               "Ethernet header")
            ->type_name("FILE")
            ->allow_extra_args(false)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->group(group);
    CLI::Option *interface =
        app->add_option("-i,--interface", options->interface.name, "Capture on this network interface")
            ->type_name("NAME")
            ->excludes(read)
            ->group(group);
    app->add_flag("--plugin-info", options->plugin_info,
                  "Print the plugin's name and the description of its parameters, and end")
        ->excludes(read)
        ->excludes(interface)
        ->group(group);
}

void add_replay(CLI::App *app, options_t *options)
{
    CLI::Option *read = app->get_option("--read");
    const auto group = [read](CLI::Option *option) {
        option->group("Replay of files (with --read)")->needs(read);
    };
    group(app->add_option("--speed", options->replay.speed,
                          "Factor of the recorded pace: 2 is twice as fast, 0 as fast as possible")
              ->check(CLI::Range(0.0, 1e9))
              ->type_name("FACTOR")
              ->capture_default_str());
    group(app->add_option("--loop", options->replay.passes,
                          "Read all files this many times, 0 for ever; timestamps are moved on so that they "
                          "keep rising")
              ->type_name("N")
              ->capture_default_str());
    group(
        app->add_flag("--rebase", options->replay.rebase,
                      "Move timestamps to now: the first packet carries the present time, the others follow "
                      "at the replay's pace (with --speed 0: the time at which each is handed on)"));
    group(app->add_flag("--stay", options->stay,
                        "After the last packet keep the plugin serving its clients until stopped"));
}

void add_queues_and_plugin(CLI::App *app, options_t *options)
{
    app->add_option("-q,--queues", options->queue_count,
                    "Processing queues, each with a thread; both directions of a flow go to one queue")
        ->check(CLI::Range(1U, QUEUES_MAX))
        ->type_name("N")
        ->capture_default_str();
    app->add_option("--delay", options->delay_s,
                    "Let the plugin serve its clients this long before the first packet")
        ->check(CLI::Range(0.0, SECONDS_MAX))
        ->type_name("SECONDS");
    app->add_option("-p,--plugin", options->plugin_path, "The plugin's shared object")
        ->type_name("FILE")
        ->capture_default_str();
    app->add_option("-P,--params", options->plugin_params,
                    "The plugin's parameters: KEY=VALUE items separated by ';' or blanks; see --plugin-info")
        ->type_name("ITEMS");
    app->add_option_function<std::string>(
           "-v,--verbose",
           [options](const std::string &text) {
               const std::string error = read_verbosity(text, &options->verbosity);
               if (!error.empty()) {
                   throw CLI::ValidationError(error);
               }
           },
           "Log informational messages up to this level (1 to 5; 0: errors only); -v alone is 1, -vvv is 3")
        ->expected(0, 1)
        ->type_name("LEVEL");
}

// What is stored in another form.
struct parsed_t {
    double active_s = 300;
    double idle_s = 30;
    bool no_promiscuous = false;
};

void add_flows_and_interface(CLI::App *app, options_t *options, parsed_t *parsed)
{
    const auto time_out = [app](const char *name, double *value, const char *text) {
        app->add_option(name, *value, text)
            ->check(CLI::Range(0.001, SECONDS_MAX))
            ->type_name("SECONDS")
            ->capture_default_str()
            ->group("Flows");
    };
    time_out("--active-timeout", &parsed->active_s,
             "A flow ends after this time, the next packet begins another");
    time_out("--idle-timeout", &parsed->idle_s, "A flow ends after this time without a packet");
    app->add_option("--flows", options->flows.flow_count,
                    "Flows per queue; when there are more, the one idle for longest ends")
        ->check(CLI::Range(1U, 1U << 30))
        ->type_name("N")
        ->capture_default_str()
        ->group("Flows");
    CLI::Option *interface = app->get_option("--interface");
    app->add_option("--kernel-buffer", options->interface.kernel_buffer_mib,
                    "The kernel's packet buffer of each queue, in MiB")
        ->check(CLI::Range(1U, 2047U))
        ->type_name("MIB")
        ->capture_default_str()
        ->needs(interface)
        ->group("Network interface (with --interface)");
    app->add_flag("--no-promiscuous", parsed->no_promiscuous,
                  "Do not ask the interface for other machines' packets")
        ->needs(interface)
        ->group("Network interface (with --interface)");
}

uint64_t to_ns(double seconds)
{
    return static_cast<uint64_t>(seconds * 1e9);
}

// What CLI11's rules cannot say.
void check(const options_t &options)
{
    const auto &files = options.replay.files;
    if (files.empty() && options.interface.name.empty() && !options.plugin_info) {
        throw CLI::ValidationError("a source is needed: --read FILE or --interface NAME");
    }
    if (std::find(files.begin(), files.end(), "-") != files.end() &&
        (options.replay.passes != 1 || files.size() > 1)) {
        throw CLI::ValidationError("standard input can be read once, and alone");
    }
}

std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

} // namespace

std::optional<int> parse_options(int argc, const char *const *argv, options_t *options)
{
    CLI::App app(ABOUT, "kestrune-probe");
    app.footer(MORE);
    app.formatter(std::make_shared<formatter_t>());
    app.set_help_flag("-h,--help", "Print this help and end");
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    options->plugin_path = default_plugin_path();
    parsed_t parsed;
    add_sources(&app, options);
    add_replay(&app, options);
    add_queues_and_plugin(&app, options);
    add_flows_and_interface(&app, options, &parsed);
    try {
        app.parse(argc, argv);
        check(*options);
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help() << std::flush;
        return STATUS_DONE;
    } catch (const CLI::Error &error) {
        std::cerr << "kestrune-probe: " << one_line(error.what()) << " (--help lists the options)\n";
        return STATUS_USAGE;
    }
    options->interface.queue_count = options->queue_count;
    options->interface.promiscuous = !parsed.no_promiscuous;
    options->flows.active_ns = to_ns(parsed.active_s);
    options->flows.idle_ns = to_ns(parsed.idle_s);
    return std::nullopt;
}

} // namespace probe
