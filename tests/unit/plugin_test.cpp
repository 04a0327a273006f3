#include "plugin/plugin.h"

#include "common/log.h"
#include "history_capture/history_state.h"
#include "support/fault.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/process.h"
#include "support/test_host.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <vector>

// What happens when this thread asks for the time, as the live capture does in the middle of a look.
static thread_local std::function<void()> on_time;

extern "C" time_t __real_time(time_t *);
extern "C" time_t __wrap_time(time_t *);
time_t __wrap_time(time_t *out)
{
    if (on_time) {
        on_time();
    }
    return __real_time(out);
}

namespace {

using params_t = std::map<std::string, std::string>;

plugin_private_t *start(int32_t queues, params_t params = {})
{
    params.insert({{"port", "0"}, {"buffer_size", "0"}});
    test_host::set_params(params);
    return plugin_process_init("", nullptr, nullptr, queues);
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
        before = resources();
    }

    void TearDown() override
    {
        EXPECT_EQ(ks_exp_file_path, nullptr);
        EXPECT_EQ(ks_exp_file_path_len, 0);
        EXPECT_EQ(ks_capture_script, nullptr);
        expect_nothing_left();
    }

    void expect_nothing_left() const
    {
        EXPECT_TRUE(resources_fall_to(before)) << "threads or descriptors left";
    }

    temp_dir_t files;
    std::pair<long, long> before;
};

TEST_F(Plugin, DescribesItselfAndHandsItsOptionsAndTheirDefaultsToTheHostsParser)
{
    const plugin_desc_t *description = plugin_process_desc();
    EXPECT_STREQ(description->name, "kestrune");
    EXPECT_EQ(description->reserved_0, 0);
    EXPECT_EQ(description->reserved_4, 4);
    EXPECT_TRUE(
        std::string(description->info).starts_with("Plugin to do live and hitory capture of traffic"));
    EXPECT_EQ(plugin_process_filter(nullptr, 1), 0);
    EXPECT_EQ(vantor_api_version, 4);
    EXPECT_EQ(plugin_type, 4);

    std::string seen;
    test_host::on_config([&](const char *params, config_option_t *options) {
        EXPECT_STREQ(params, "the string");
        for (; options->kind != CONFIG_END; options++) {
            const char *text = options->kind == CONFIG_INT ? "" : *static_cast<char **>(options->target);
            seen += std::string(options->name) + "=" + (text != nullptr ? text : "(null)");
            seen +=
                options->kind == CONFIG_INT ? std::to_string(*static_cast<int32_t *>(options->target)) : "";
            seen += " ";
        }
        EXPECT_EQ(options->name, nullptr);
        return 1;
    });
    EXPECT_EQ(plugin_process_init("the string", nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(seen, "port=37564 pexadev=/dev/pexacard/0 capture_script=(null) export_path=(null) verbose=0 "
                    "buffer_size=8192 ");
    EXPECT_EQ(last_error(), "kestrune: Plugin: Failed to parse input arguments");
}

TEST_F(Plugin, RefusesParametersWithTheirMessage)
{
    struct case_t {
        int32_t queues;
        params_t params;
        std::string error;
    };
    for (const case_t &c :
         {case_t{1, {{"export_path", ""}}, "Plugin: Failed to read export path."},
          {1, {{"export_path", files.path("absent")}}, "Plugin: Could not access the export directory"},
          {1, {{"port", "no-such-service"}}, "Listener spawn failed: Invalid argument"},
          {1, {{"port", "65536"}}, "Listener spawn failed: Invalid argument"},
          {1, {{"buffer_size", "-1"}}, "Failed to create history buffer"}, // as unsigned, more than there is
          {0, {}, "Plugin: 0 processing queues"},
          {INT32_MIN, {}, "processing queues"},
          {MAX_QUEUES + 1, {}, "processing queues"}}) {
        test_host::reset();
        EXPECT_EQ(start(c.queues, c.params), nullptr);
        EXPECT_NE(last_error().find(c.error), std::string::npos) << last_error();
    }
    plugin_private_t *most = start(MAX_QUEUES);
    EXPECT_NE(most, nullptr);
    plugin_process_shutdown(most);
}

TEST_F(Plugin, TakesPathsVerbosityAndHistorySize)
{
    for (const auto &[path, host, own, verbosity] :
         {std::tuple{files.path("."), 3, 1, 3}, {files.path("./"), 1, 2, 2}}) {
        test_host::reset(host);
        plugin_private_t *plugin = start(3, {{"export_path", path},
                                             {"capture_script", "notify.sh"},
                                             {"buffer_size", "1"},
                                             {"verbose", std::to_string(own)}});
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(ks_exp_file_path, files.path("./"));
        EXPECT_EQ(ks_exp_file_path_len, static_cast<int32_t>(std::strlen(ks_exp_file_path)));
        EXPECT_STREQ(ks_capture_script, "/usr/bin/kestrune/notify.sh");
        EXPECT_EQ(local_verbose_level, verbosity);
        hc_info_t info = {};
        hc_info(plugin_process_init_queue(plugin, 2)->history, &info);
        EXPECT_EQ(info.size, 349525U);
        plugin_process_shutdown(plugin);
    }
}

// The listener's, the monitor's, the history's and the live capture's steps are among them.
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

TEST_F(Plugin, EveryFailedStepIsToldAndUndoneAndTheNextStartSucceeds)
{
    std::set<std::string> steps, errors;
    std::string tolerated;
    for (int n = 1;; n++) {
        test_host::reset();
        fault::fail_call(n);
        plugin_private_t *plugin =
            start(4, {{"buffer_size", "12"}, {"export_path", files.path()}, {"capture_script", "x"}});
        const std::string failed = fault::failed();
        fault::fail_call(0);
        if (failed.empty()) {
            EXPECT_NE(plugin, nullptr);
            plugin_process_shutdown(plugin);
            break;
        }
        steps.insert(failed);
        if (plugin != nullptr) {
            tolerated += last_error();
            plugin_process_shutdown(plugin);
        } else {
            EXPECT_FALSE(last_error().empty()) << failed << " failed in silence, call " << n;
            errors.insert(last_error());
        }
        expect_nothing_left();
    }
    // The monitor's buffer is made anew when it is needed.
    EXPECT_EQ(tolerated, "kestrune: Rules manager: Allocation of filenames buffer failed");
    EXPECT_EQ(steps, (std::set<std::string>{"aligned_alloc", "bind", "calloc", "mmap", "pthread_cond_init",
                                            "pthread_create", "pthread_mutex_init", "pthread_rwlock_init",
                                            "sem_init", "setsockopt", "socket"}));
    for (const char *reason : {"Cannot allocate memory", "Resource temporarily unavailable",
                               "Address already in use", "Too many open files", "Protocol not available"}) {
        EXPECT_EQ(errors.count(std::string("kestrune: Listener spawn failed: ") + reason), 1U) << reason;
    }
}

TEST_F(Plugin, MessagesGoToTheHostOrToStandardOutputByLevel)
{
    struct case_t {
        int32_t level, host, own;
        bool to_host, to_stdout;
    };
    for (const case_t &c : {case_t{3, 3, 0, true, false}, case_t{3, 1, 4, false, true},
                            case_t{3, 2, 3, false, true}, case_t{3, 2, 2, false, false},
                            case_t{LOG_ERROR, -1, 5, true, false}, case_t{LOG_ERROR, -2, 5, false, false}}) {
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
        EXPECT_EQ(test_host::count("kestrune: Plugin: 7 of nine"), c.to_host ? 1 : 0);
    }
}

TEST_F(Plugin, PacketsWithoutDataOrOfAnotherVersionAreIgnored)
{
    plugin_private_t *plugin = start(1, {{"buffer_size", "1"}});
    ASSERT_NE(plugin, nullptr);
    plugin_instance_t *instance = plugin_process_init_queue(plugin, 0);
    const ip_addr_t watched = numbered_address(1), other = numbered_address(2);
    ASSERT_EQ(lc_add_rule(plugin->live, &watched, BOTH, 1000, 1000, files.path("live").c_str()), LC_OK);
    const host_packet_t without = {};
    plugin_process_update(instance, nullptr, &without);
    for (const uint8_t version : std::initializer_list<uint8_t>{0, 4, 5, 7, 46, 255}) {
        for (const ip_addr_t &addr : {watched, other}) {
            const host_record_t record(version, addr, addr, "packet");
            plugin_process_update(instance, &record.flow, &record.packet);
        }
    }
    EXPECT_EQ(read_pcap(files.path("live")).size(), 2U); // of both sides, by the one IPv4 record
    EXPECT_EQ(instance->history->packets, 1U);           // what is live stays out
    plugin_process_shutdown(plugin);
}

// The live capture does not know the packet's source, and before the packet is in the ring a rule of another
// address is released, then the one of its source: it is looked up again both times and is live.
TEST_F(Plugin, PacketBetweenItsLookAndTheRingMeetsTheLiveCaptureThatBegan)
{
    plugin_private_t *plugin = start(1, {{"buffer_size", "1"}});
    ASSERT_NE(plugin, nullptr);
    history_capture_t *history = plugin->history[0];
    const ip_addr_t src = numbered_address(1), dst = numbered_address(2), other = numbered_address(3);
    const auto watch = [&](const ip_addr_t &addr, const char *name) {
        EXPECT_EQ(lc_add_rule(plugin->live, &addr, SRC, 9, 9, files.path(name).c_str()), LC_OK);
    };
    watch(dst, "unmatched"); // as the destination it only makes the look ask for the time
    ASSERT_EQ(hc_hold_rule(history, &src, BOTH, files.path("past").c_str()), HC_OK);
    ASSERT_EQ(hc_hold_rule(history, &other, BOTH, files.path("other").c_str()), HC_OK);
    int looks = 0;
    on_time = [&] {
        looks += history->appending == 0 ? 1 : 3; // in the ring already: it is too late
        if (looks == 1) {
            hc_release_rule(history, &other);
        } else if (looks == 2) {
            watch(src, "live");
            hc_release_rule(history, &src);
        }
    };
    const host_record_t record(4, src, dst, "packet");
    plugin_process_update(plugin_process_init_queue(plugin, 0), &record.flow, &record.packet);
    on_time = nullptr;
    EXPECT_EQ(read_pcap(files.path("live")).size(), 1U);
    EXPECT_EQ(history->packets, 0U);
    plugin_process_shutdown(plugin);
}

} // namespace
