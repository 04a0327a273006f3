#include "probe/options.h"

#include "probe/config_file.h"
#include "probe/error.h"
#include "probe/params.h"
#include "probe/plugin_module.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <sstream>

namespace probe {
namespace {

constexpr uint32_t QUEUES_MAX = 255;
constexpr double SECONDS_MAX = 1e9;
constexpr uint64_t MIB_PER_GIB = 1024;

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
  interface_dropped  packets that the interface itself lost

Signals:
  SIGINT, SIGTERM  stop cleanly, with exit status 0
  SIGUSR1          print the counters

Exit status:
  0 done or stopped, 1 failed (one line on standard error says why), 2 usage

Log lines go to standard error with time and level, or in the journal's <N> form when it reads them.

Examples:
  kestrune-probe -r day1.pcap -r day2.pcapng -q 4 --speed 0 --stay -P "export_path=/data;buffer_size=1024"
  kestrune-probe -r sample.pcap --loop 0 --rebase -v 3 -P "port=37564;export_path=/tmp/out"
  kestrune-probe -i eth0 -q 2 --history 8G -P "port=37564;export_path=/data"
  kestrune-probe --config /etc/kestrune/probe.conf -i eth0 -P export_path=/data)";

// "" (the option alone) is 1; each further v adds one (-vvv is 3); otherwise a number.
std::string read_verbosity(const std::string &text, int32_t *verbosity)
{
    if (std::all_of(text.begin(), text.end(), [](char c) { return c == 'v'; })) {
        *verbosity = static_cast<int32_t>(text.size()) + 1;
        return "";
    }
    int number = 0;
    if (!CLI::detail::lexical_cast(text, number) || number < -1 || number > 5) {
        return "--verbose takes a number from 0 to 5, not " + text;
    }
    *verbosity = number;
    return "";
}

// "512", "512M" (MiB) or "4G" (GiB).
bool read_mib(const std::string &text, uint64_t *mib)
{
    const char *end = text.data() + text.size();
    const auto [unit, result] = std::from_chars(text.data(), end, *mib);
    if (result != std::errc() || *mib > INT32_MAX || end - unit > 1) {
        return false;
    }
    if (unit != end && (*unit == 'G' || *unit == 'g')) {
        *mib *= MIB_PER_GIB;
    } else if (unit != end && *unit != 'M' && *unit != 'm') {
        return false;
    }
    return *mib <= INT32_MAX; // the plugin's number has 32 bits
}

std::string check_size(const std::string &text)
{
    uint64_t mib = 0;
    return read_mib(text, &mib) ? "" : "a size is a number of MiB, or with M (MiB) or G (GiB), not " + text;
}

std::string check_address(const std::string &text)
{
    const size_t colon = text.rfind(':');
    const bool good = colon != std::string::npos && colon > 0 && colon + 1 < text.size() &&
                      (text.find(':') == colon || text.front() == '[');
    return good ? "" : "ADDRESS:PORT is needed, an IPv6 address in brackets, not " + text;
}

// Help that fits a terminal: wraps the descriptions and shows the default instead of the type's checks.
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

// Options that are stored in another form.
struct parsed_t {
    std::vector<std::string> configs;
    std::vector<std::string> params;
    std::string history;
    double active_s = 300;
    double idle_s = 30;
    bool no_promiscuous = false;
};

void add_sources(CLI::App *app, options_t *options)
{
    const std::string group = "Source, one of";
    CLI::Option *read =
        app->add_option(
               "-r,--read", options->replay.files,
               "Read this pcap or pcapng file (- is standard input); may be given again, files are read "
               "in this order. Link types: Ethernet; raw IP, BSD loopback and Linux cooked, which get an "
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
        ->configurable(false)
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

void add_queues_and_plugin(CLI::App *app, options_t *options, parsed_t *parsed)
{
    app->add_option("-q,--queues", options->queue_count,
                    "Processing queues, each with a thread; both directions of a flow go to one queue")
        ->check(CLI::Range(1U, QUEUES_MAX))
        ->type_name("N")
        ->capture_default_str();
    app->add_option(
           "--config", parsed->configs,
           "Read options from this file: lines KEY = VALUE, where KEY is a long option, # begins a comment. "
           "May be given again; a later file wins, and the command line wins over all. A file named "
           "-FILE may be missing")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->configurable(false)
        ->type_name("FILE");
    app->add_option("--delay", options->delay_s,
                    "Let the plugin serve its clients this long before the first packet")
        ->check(CLI::Range(0.0, SECONDS_MAX))
        ->type_name("SECONDS");
    app->add_option("-p,--plugin", options->plugin_path, "The plugin's shared object")
        ->type_name("FILE")
        ->capture_default_str();
    app->add_option(
           "-P,--params", parsed->params,
           "The plugin's parameters: KEY=VALUE items separated by ';' or blanks; see --plugin-info. May "
           "be given again: all items count, and the last value of a key")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("ITEMS");
    app->add_option(
           "--history", parsed->history,
           "Memory of the plugin's history, all queues together, in MiB or with M or G (the plugin's "
           "parameter buffer_size)")
        ->check(check_size)
        ->type_name("SIZE");
    app->add_option("--heavy", options->heavy,
                    "Packets of a flow that has had this many stay out of the plugin's history")
        ->type_name("N");
    app->add_option("--metrics", options->metrics_address,
                    "Serve the counters for Prometheus under http://ENDPOINT/metrics; ADDRESS:PORT, an IPv6 "
                    "address in brackets")
        ->check(check_address)
        ->type_name("ENDPOINT");
    app->add_option_function<std::string>(
           "-v,--verbose",
           [options](const std::string &text) {
               const std::string error = read_verbosity(text, &options->verbosity);
               if (!error.empty()) {
                   throw CLI::ValidationError(error);
               }
           },
           "Log informational messages up to this level (1 to 5; 0: errors and warnings only); -v alone is "
           "1, -vvv is 3")
        ->expected(0, 1)
        ->type_name("LEVEL");
}

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
                    "Flows per queue; when there are more, the flow idle for longest ends")
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

// Checks that CLI11's rules cannot express.
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

// Checks an item as a command-line option, so that the error names the line.
std::string argument_of(CLI::App *app, const config_item_t &item)
{
    const std::string name = "--" + item.key;
    CLI::Option *option = app->get_option_no_throw(name);
    if (option == nullptr || !option->get_configurable()) {
        throw error_t(item.where + ": there is no option \"" + item.key + "\"");
    }
    try {
        // get_flag_value checks a flag's value the way the command line does.
        option->add_result(option->get_items_expected_max() == 0 ? option->get_flag_value(name, item.value)
                                                                 : item.value);
        option->run_callback();
        option->clear();
    } catch (const CLI::Error &error) {
        throw error_t(item.where + ": " + error.what());
    }
    return name + "=" + item.value;
}

// The configuration files that the command line names.
std::vector<std::string> config_files(int argc, const char *const *argv)
{
    std::vector<std::string> files;
    CLI::App app;
    app.set_help_flag();
    app.allow_extras();
    app.add_option("--config", files)->allow_extra_args(false);
    app.parse(argc, argv);
    return files;
}

// Configuration files are parsed first, so that the command line wins.
void parse(CLI::App *app, int argc, const char *const *argv)
{
    std::vector<std::string> arguments;
    for (const std::string &file : config_files(argc, argv)) {
        for (const config_item_t &item : read_config(file)) {
            arguments.push_back(argument_of(app, item));
        }
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    std::reverse(arguments.begin(), arguments.end()); // the library's order
    app->parse(arguments);
}

// The parameters with the history's size, which may be given in only one way.
std::string joined_params(const parsed_t &parsed)
{
    std::string params;
    for (const std::string &items : parsed.params) {
        params += (params.empty() ? "" : ";") + items;
    }
    if (parsed.history.empty()) {
        return params;
    }
    if (find_parameter(params, "buffer_size")) {
        throw CLI::ValidationError("--history and the parameter buffer_size= exclude each other");
    }
    uint64_t mib = 0;
    read_mib(parsed.history, &mib);
    return params + (params.empty() ? "" : ";") + "buffer_size=" + std::to_string(mib);
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
    app.set_version_flag("--version", "kestrune-probe " KESTRUNE_VERSION, "Print the version and end");
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    options->plugin_path = default_plugin_path();
    parsed_t parsed;
    add_sources(&app, options);
    add_replay(&app, options);
    add_queues_and_plugin(&app, options, &parsed);
    add_flows_and_interface(&app, options, &parsed);
    try {
        parse(&app, argc, argv);
        check(*options);
        options->plugin_params = joined_params(parsed);
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help() << std::flush;
        return STATUS_DONE;
    } catch (const CLI::CallForVersion &version) {
        std::cout << version.what() << "\n" << std::flush;
        return STATUS_DONE;
    } catch (const std::runtime_error &error) { // of CLI11, or error_t
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
