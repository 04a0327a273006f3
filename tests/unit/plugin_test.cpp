#include "plugin/plugin.h"

#include "common/log.h"
#include "support/fault.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <vector>

namespace {

using params_t = std::map<std::string, std::string>;

// Let the host's parser find these items in the parameter string.
void set_params(const params_t &params)
{
    test_host::on_config([params](const char *, config_option_t *options) {
        static std::deque<std::string> kept; // the plugin may point into the host's strings
        for (config_option_t *option = options; option->kind != CONFIG_END; option++) {
            const auto item = params.find(option->name);
            if (item == params.end()) {
                continue;
            }
            if (option->kind == CONFIG_INT) {
                *static_cast<int32_t *>(option->target) = std::stoi(item->second);
            } else {
                *static_cast<char **>(option->target) = kept.emplace_back(item->second).data();
            }
        }
        return 0;
    });
}

plugin_private_t *start(int32_t queues, params_t params = {})
{
    params.insert({{"port", "0"}, {"buffer_size", "0"}});
    set_params(params);
    return plugin_process_init("", nullptr, nullptr, queues);
}

std::vector<std::string> texts()
{
    std::vector<std::string> all;
    for (const test_host::message_t &message : test_host::messages()) {
        all.push_back(message.text);
    }
    return all;
}

std::string last_error()
{
    std::string text;
    for (const test_host::message_t &message : test_host::messages()) {
        text = message.level == LOG_ERROR ? message.text : text;
    }
    return text;
}

// Every test leaves the process as it found it: no thread and no descriptor more, no path set.
class Plugin : public testing::Test {
protected:
    void SetUp() override
    {
        test_host::reset();
        default_buffer_size = 8192;
        local_verbose_level = 0;
        hc_heavy_size = 20;
        descriptors = open_descriptors().size();
        threads = thread_count();
    }

    void TearDown() override
    {
        fault::fail_call(0);
        fault::fail_function("");
        plugin_process_shutdown(nullptr); // releases the paths of a failed start
        EXPECT_EQ(ks_exp_file_path, nullptr);
        EXPECT_EQ(ks_capture_script, nullptr);
        expect_nothing_left();
    }

    void expect_nothing_left() const
    {
        EXPECT_EQ(open_descriptors().size(), descriptors);
        EXPECT_TRUE(wait_until([&] { return thread_count() == threads; })) << "threads left";
    }

    temp_dir_t files;
    size_t descriptors = 0;
    int threads = 0;
};

TEST_F(Plugin, DescribesItselfAndHandsItsOptionsAndTheirDefaultsToTheHostsParser)
{
    const plugin_desc_t *description = plugin_process_desc();
    EXPECT_STREQ(description->name, "kestrune");
    EXPECT_EQ(description->reserved_0, 0);
    EXPECT_EQ(description->reserved_4, 4);
    const std::string help = description->info;
    EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 6);
    EXPECT_TRUE(help.starts_with("Plugin to do live and hitory capture of traffic to files in libpcap format "
                                 "with configurable\n  filter.\nParameters:\n  port=<port number>   Comm"));
    EXPECT_TRUE(help.ends_with("\n                 Default path of script folder is:/usr/bin/kestrune"));
    EXPECT_EQ(plugin_process_filter(nullptr, 1), 0);
    EXPECT_EQ(vantor_api_version, 4);
    EXPECT_EQ(plugin_type, 4);

    std::vector<std::string> seen;
    test_host::on_config([&](const char *params, config_option_t *options) {
        EXPECT_STREQ(params, "the string");
        for (; options->kind != CONFIG_END; options++) {
            const char *text = options->kind == CONFIG_INT ? "" : *static_cast<char **>(options->target);
            seen.push_back(options->name + ("/" + std::to_string(options->kind)) + "/" +
                           (options->kind == CONFIG_INT
                                ? std::to_string(*static_cast<int32_t *>(options->target))
                            : text != nullptr ? text
                                              : "(null)"));
        }
        EXPECT_EQ(options->name, nullptr);
        EXPECT_EQ(options->target, nullptr);
        return 1;
    });
    EXPECT_EQ(plugin_process_init("the string", nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(seen, (std::vector<std::string>{"port/1/37564", "pexadev/1//dev/pexacard/0",
                                              "capture_script/1/(null)", "export_path/1/(null)",
                                              "verbose/0/0", "buffer_size/0/8192"}));
    EXPECT_EQ(texts(), std::vector<std::string>{"kestrune: Plugin: Failed to parse input arguments"});
}

TEST_F(Plugin, RefusesParametersWithTheirMessage)
{
    struct case_t {
        int32_t queues;
        params_t params;
        std::string error;
    };
    const std::string range = "kestrune: ", buffer = "kestrune: Failed to create history buffer";
    for (const case_t &c :
         {case_t{1, {{"export_path", ""}}, "kestrune: Plugin: Failed to read export path."},
          {1, {{"port", "no-such-service"}}, "kestrune: Listener spawn failed: Invalid argument"},
          {1, {{"buffer_size", "-1"}}, buffer}, // as unsigned, far more than there is
          {0, {}, range},
          {-1, {}, range},
          {INT32_MIN, {}, range},
          {MAX_QUEUES + 1, {}, range},
          {1,
           {{"export_path", files.path("absent")}},
           "kestrune: Plugin: Could not access the export directory"}}) {
        test_host::reset();
        EXPECT_EQ(start(c.queues, c.params), nullptr);
        EXPECT_TRUE(test_host::logged(c.error)) << c.error;
        EXPECT_TRUE(last_error().starts_with("kestrune: ")) << c.queues;
    }
    EXPECT_EQ(ks_exp_file_path, files.path("absent") + "/"); // until the next start
    plugin_private_t *most = start(MAX_QUEUES);
    EXPECT_NE(most, nullptr);
    plugin_process_shutdown(most);
    fault::fail_function("mmap"); // the size is logged, no memory is needed
    EXPECT_EQ(start(3, {{"buffer_size", "8192"}}), nullptr);
    EXPECT_TRUE(test_host::logged("Buffer of size 2863311530 B could not be allocated"));
    EXPECT_EQ(ks_exp_file_path, nullptr);
}

TEST_F(Plugin, TakesPathsVerbosityAndHistorySizeAndReleasesThePathsAtTheStop)
{
    const std::string plain = files.path("out");
    std::filesystem::create_directory(plain);
    struct case_t {
        const char *slash, *megabytes;
        int host, own, verbosity;
        uint64_t ring;
    };
    for (const case_t &c : {case_t{"", "1", 3, 1, 3, 349525}, {"/", "0", 1, 4, 4, 0}}) {
        test_host::reset(c.host);
        testing::internal::CaptureStdout();
        plugin_private_t *plugin = start(3, {{"export_path", plain + c.slash},
                                             {"capture_script", "notify.sh"},
                                             {"pexadev", "anything"},
                                             {"buffer_size", c.megabytes},
                                             {"verbose", std::to_string(c.own)}});
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(ks_exp_file_path, plain + "/");
        EXPECT_EQ(ks_exp_file_path_len, static_cast<int32_t>(plain.size() + 1));
        EXPECT_STREQ(ks_capture_script, "/usr/bin/kestrune/notify.sh");
        EXPECT_EQ(local_verbose_level, c.verbosity);
        for (int32_t i = 0; i < 3; i++) {
            const plugin_instance_t *instance = plugin_process_init_queue(plugin, i);
            EXPECT_EQ(instance, plugin->instances + i);
            EXPECT_EQ(instance->live, plugin->live);
            EXPECT_EQ(instance->history, plugin->history[i]);
            hc_info_t info = {};
            hc_info(plugin->history[i], &info);
            EXPECT_EQ(info.size, c.ring);
            EXPECT_EQ(plugin->history[i]->enabled.load(), c.ring != 0 ? 1 : 0);
        }
        plugin_process_shutdown(plugin);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(ks_exp_file_path_len, 0);
        EXPECT_EQ(local_verbose_level, c.verbosity);
    }
}

TEST_F(Plugin, LogsAStartAndAStopInOrder)
{
    test_host::reset(LOG_EVENT);
    plugin_private_t *plugin = start(2, {{"export_path", files.path()}, {"capture_script", "notify.sh"}});
    ASSERT_NE(plugin, nullptr);
    plugin_process_shutdown(plugin);
    std::vector<std::string> logged;
    for (const test_host::message_t &message : test_host::messages()) {
        EXPECT_EQ(message.flag, 1) << message.text;
        logged.push_back(std::to_string(message.level) + " " + message.text);
    }
    EXPECT_EQ(logged, (std::vector<std::string>{
                          "1 kestrune: Export path for files set: " + files.path(),
                          "3 kestrune: Capture script is: /usr/bin/kestrune/notify.sh",
                          "1 kestrune: Initializing...",
                          "3 kestrune: Kestrune started",
                          "3 kestrune: Rules manager thread created",
                          "1 kestrune: Initialization done! Plugin is running...",
                          "3 kestrune: Cleaning up private structures",
                          "3 kestrune: Cleaning listener",
                          "3 kestrune: Cleaning live capture filter",
                          "3 kestrune: Cleaning history buffer 0",
                          "3 kestrune: Cleaning history buffer 1",
                          "3 kestrune: Plugin shutdown",
                      }));
}

TEST_F(Plugin, EveryFailedStepIsUndoneAndTheNextStartSucceeds)
{
    const params_t params = {
        {"buffer_size", "12"}, {"export_path", files.path("out")}, {"capture_script", "x"}};
    std::filesystem::create_directory(files.path("out"));
    std::set<std::string> errors;
    std::set<std::vector<std::string>> buffer_teardowns;
    std::string tolerated;
    int n = 1;
    for (;; n++) {
        test_host::reset(LOG_EVENT);
        fault::fail_call(n);
        plugin_private_t *plugin = start(4, params);
        const std::string failed = fault::failed();
        fault::fail_call(0);
        if (plugin != nullptr) {
            plugin_process_shutdown(plugin);
            if (failed.empty()) {
                break;
            }
            tolerated += failed + ": " + last_error() + "\n";
            continue;
        }
        EXPECT_FALSE(failed.empty());
        EXPECT_FALSE(last_error().empty()) << failed << " failed in silence, call " << n;
        errors.insert(last_error());
        const std::vector<std::string> all = texts();
        const auto found = std::find(all.begin(), all.end(), "kestrune: Failed to create history buffer");
        buffer_teardowns.emplace(found == all.end() ? found : found + 1, all.end());
        expect_nothing_left();
    }
    // The monitor's buffer is made anew when it is needed.
    EXPECT_EQ(tolerated, "calloc: kestrune: Rules manager: Allocation of filenames buffer failed\n");
    EXPECT_GT(n, 40);
    for (const char *error : {"kestrune: Plugin: Failed to allocate path.",
                              "kestrune: Plugin: Allocation error. Path for script was not allocated",
                              "kestrune: Failed to allocate memory in Plugin (plugin_private_t)",
                              "kestrune: Failed to create live capture filter",
                              "kestrune: Failed to allocate prive structures for instances",
                              "kestrune: Failed to allocate memory for kestrune structures",
                              "kestrune: Failed to create history buffer",
                              "kestrune: Listener spawn failed: Cannot allocate memory",
                              "kestrune: Listener spawn failed: Resource temporarily unavailable",
                              "kestrune: Listener spawn failed: Address already in use"}) {
        EXPECT_EQ(errors.count(error), 1U) << error;
    }
    const std::vector<std::string> third_of_four = {"kestrune: Cleaning live capture filter",
                                                    "kestrune: Cleaning history buffer 0",
                                                    "kestrune: Cleaning history buffer 1"};
    EXPECT_EQ(buffer_teardowns.count(third_of_four), 1U);
}

TEST_F(Plugin, MessagesGoToTheHostOrToStandardOutputByLevel)
{
    struct case_t {
        int32_t level, host, own;
        bool to_host, to_stdout;
    };
    for (const case_t &c :
         {case_t{3, 3, 0, true, false}, case_t{3, 4, 5, true, false}, case_t{3, 1, 4, false, true},
          case_t{3, 2, 3, false, true}, case_t{3, 2, 2, false, false}, case_t{LOG_ERROR, -1, 5, true, false},
          case_t{LOG_ERROR, -2, 5, false, false}}) {
        test_host::reset(c.host);
        local_verbose_level = c.own;
        testing::internal::CaptureStdout();
        errno = EDOM;
        if (c.level == LOG_ERROR) {
            KS_ERROR("kestrune: Plugin: %d of %s", 7, "nine");
        } else {
            KS_INFO(c.level, "kestrune: Plugin: %d of %s", 7, "nine");
        }
        EXPECT_EQ(errno, EDOM);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  c.to_stdout ? "INFO(3) kestrune: Plugin: 7 of nine\n" : "");
        EXPECT_EQ(texts(), c.to_host ? std::vector<std::string>{"kestrune: Plugin: 7 of nine"}
                                     : std::vector<std::string>{});
    }
    local_verbose_level = 0;
}

// A running plugin of one queue with history, and what reaches it.
class PacketPath : public Plugin {
protected:
    void SetUp() override
    {
        Plugin::SetUp();
        plugin = start(1, {{"buffer_size", "1"}});
        ASSERT_NE(plugin, nullptr);
        instance = plugin_process_init_queue(plugin, 0);
    }
    void TearDown() override
    {
        plugin_process_shutdown(plugin);
        Plugin::TearDown();
    }

    void watch(const ip_addr_t &addr, uint32_t direction, const std::string &file) const
    {
        ASSERT_EQ(lc_add_rule(plugin->live, &addr, direction, 1000, 1000, files.path(file).c_str()), LC_OK);
    }
    void hand_over(const host_record_t &record) const
    {
        plugin_process_update(instance, &record.flow, &record.packet);
    }
    uint32_t in_history() const
    {
        hc_info_t info;
        hc_info(instance->history, &info);
        return info.packets;
    }

    plugin_private_t *plugin = nullptr;
    plugin_instance_t *instance = nullptr;
};

TEST_F(PacketPath, RecordsWithoutDataOrOfAnotherVersionAreIgnored)
{
    watch(ip_addr_t{}, BOTH, "zero");
    watch(numbered_address(1), BOTH, "ipv4");
    const host_packet_t without = {};
    plugin_process_update(instance, nullptr, &without);
    for (const uint8_t version : std::initializer_list<uint8_t>{0, 5, 7, 46, 255}) {
        hand_over({version, ip_addr_t{}, ip_addr_t{}, "packet"});
        hand_over({version, numbered_address(1), numbered_address(1), "packet"});
    }
    EXPECT_EQ(in_history(), 0U);
    EXPECT_TRUE(read_pcap(files.path("zero")).empty());
    EXPECT_TRUE(read_pcap(files.path("ipv4")).empty());
}

TEST_F(PacketPath, KeysAreTheHeadersBytesAndWhatIsLiveStaysOutOfTheHistory)
{
    const ip_addr_t four = {{0xff, 0xff, 0xff, 0xff, 1, 0, 0, 10}};                       // 10.0.0.1
    const ip_addr_t six = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xb8, 0x0d, 0x01, 0x20}}; // 2001:db8::1
    ip_addr_t mapped = {}; // ::ffff:10.0.0.1, another address than 10.0.0.1
    std::memcpy(mapped.bytes, "\x01\x00\x00\x0a\xff\xff", 6);
    watch(four, SRC, "four");
    watch(six, DST, "six");
    hand_over({4, four, numbered_address(9), "from four", 1'000'000'007});
    hand_over({4, numbered_address(9), four, "to four", 2});
    hand_over({6, mapped, six, "to six", 3'999'999'999, 1000});
    hand_over({6, six, mapped, "from six", 4});
    EXPECT_EQ(read_pcap(files.path("four")), (std::vector<pcap_record_t>{{1'000'000'007, 9, "from four"}}));
    EXPECT_EQ(read_pcap(files.path("six")), (std::vector<pcap_record_t>{{3'999'999'999, 6, "to six"}}));
    EXPECT_EQ(in_history(), 2U);

    plugin->history[0]->search_pause_ms = 0; // what the history kept has the same keys
    ASSERT_EQ(hc_add_rule(instance->history, &six, SRC, files.path("past").c_str()), HC_OK);
    ASSERT_TRUE(wait_until(
        [&] { return static_cast<int8_t>(hc_search_progress(instance->history, &six, 0) & 0xFF) == 100; }));
    EXPECT_EQ(read_pcap(files.path("past")), (std::vector<pcap_record_t>{{4, 8, "from six"}}));
}

TEST_F(PacketPath, HeavyFlowsStayOutOfTheHistory)
{
    struct case_t {
        uint32_t threshold, counter, stored;
    };
    for (const case_t &c : {case_t{20, 19, 1}, case_t{20, 20, 0}, case_t{20, 0x80000000, 0}, case_t{0, 0, 0},
                            case_t{0x80000000, 20, 1}, case_t{UINT32_MAX, UINT32_MAX - 1, 1}}) {
        set_heavy_size(c.threshold);
        const uint32_t before = in_history();
        hand_over({4, numbered_address(1), numbered_address(2), "packet", 1, c.counter});
        EXPECT_EQ(in_history() - before, c.stored) << c.counter << " of " << c.threshold;
    }
}

} // namespace
