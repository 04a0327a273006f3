#include "plugin/plugin.h"

#include "common/log.h"
#include "history_capture/history_state.h"
#include "support/host_records.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <gtest/gtest.h>

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

std::string last_error()
{
    std::string text;
    for (const test_host::message_t &message : test_host::messages()) {
        text = message.level == LOG_ERROR ? message.text : text;
    }
    return text;
}

class Plugin : public testing::Test {
protected:
    Plugin()
    {
        test_host::reset();
        local_verbose_level = 0;
    }
    ~Plugin() override
    {
        if (plugin != nullptr) { // a start that was refused has nothing to release
            plugin_process_shutdown(plugin);
        }
        EXPECT_TRUE(ks_exp_file_path == nullptr && ks_exp_file_path_len == 0 && ks_capture_script == nullptr);
    }
    bool starts(int32_t queues, std::map<std::string, std::string> params = {})
    {
        params.insert({{"port", "0"}, {"buffer_size", "0"}});
        test_host::set_params(params);
        if (plugin != nullptr) { // the one before
            plugin_process_shutdown(plugin);
        }
        plugin = plugin_process_init("", nullptr, nullptr, queues);
        return plugin != nullptr;
    }
    void take(const host_record_t &record) const
    {
        plugin_process_update(plugin_process_init_queue(plugin, 0), &record.flow, &record.packet);
    }

    temp_dir_t files;
    plugin_private_t *plugin = nullptr;
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
    EXPECT_TRUE(vantor_api_version == 4 && plugin_type == 4);

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
        std::map<std::string, std::string> params;
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
        EXPECT_FALSE(starts(c.queues, c.params));
        EXPECT_NE(last_error().find(c.error), std::string::npos) << last_error();
    }
    EXPECT_TRUE(starts(MAX_QUEUES));
}

TEST_F(Plugin, TakesPathsVerbosityAndHistorySize)
{
    for (const auto &[path, host, own, verbosity] :
         {std::tuple{files.path("."), 3, 1, 3}, {files.path("./"), 1, 2, 2}}) {
        test_host::reset(host);
        ASSERT_TRUE(starts(3, {{"export_path", path},
                               {"capture_script", "notify.sh"},
                               {"buffer_size", "1"},
                               {"verbose", std::to_string(own)}}));
        EXPECT_EQ(ks_exp_file_path, files.path("./"));
        EXPECT_EQ(ks_exp_file_path_len, static_cast<int32_t>(std::strlen(ks_exp_file_path)));
        EXPECT_STREQ(ks_capture_script, "/usr/bin/kestrune/notify.sh");
        EXPECT_EQ(local_verbose_level, verbosity);
        hc_info_t info = {};
        hc_info(plugin_process_init_queue(plugin, 2)->history, &info);
        EXPECT_EQ(info.size, 349525U);
    }
}

// The listener's, the monitor's, the history's and the live capture's steps are among them.
TEST_F(Plugin, LogsAStartAndAStopInOrder)
{
    test_host::reset(LOG_EVENT);
    ASSERT_TRUE(starts(2, {{"export_path", files.path()}, {"capture_script", "notify.sh"}}));
    plugin_process_shutdown(std::exchange(plugin, nullptr));
    std::string logged;
    for (const test_host::message_t &message : test_host::messages()) {
        EXPECT_EQ(message.flag, 1) << message.text;
        logged += std::to_string(message.level) + " " + message.text + "\n";
    }
    EXPECT_EQ(logged, "1 kestrune: Export path for files set: " + files.path() + R"(
3 kestrune: Capture script is: /usr/bin/kestrune/notify.sh
1 kestrune: Initializing...
3 kestrune: Kestrune started
3 kestrune: Rules manager thread created
1 kestrune: Initialization done! Plugin is running...
3 kestrune: Cleaning up private structures
3 kestrune: Cleaning listener
3 kestrune: Cleaning live capture filter
3 kestrune: Cleaning history buffer 0
3 kestrune: Cleaning history buffer 1
3 kestrune: Plugin shutdown
)");
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

TEST_F(Plugin, PacketsWithoutDataOfAnotherVersionOrOfHeavyFlowsAreIgnored)
{
    ASSERT_TRUE(starts(1, {{"buffer_size", "1"}}));
    const ip_addr_t watched = numbered_address(1), other = numbered_address(2);
    ASSERT_EQ(lc_add_rule(plugin->live, &watched, BOTH, 1000, 1000, files.path("live").c_str()), LC_OK);
    const host_packet_t without = {};
    plugin_process_update(plugin_process_init_queue(plugin, 0), nullptr, &without);
    for (const uint8_t version : std::initializer_list<uint8_t>{0, 4, 5, 7, 46, 255}) {
        for (const ip_addr_t &addr : {watched, other}) {
            take({version, addr, addr, "packet"});
        }
    }
    EXPECT_EQ(read_pcap(files.path("live")).size(), 2U); // of both sides, by the one IPv4 record
    EXPECT_EQ(plugin->history[0]->packets, 1U);          // what is live stays out
    for (const uint32_t packets : {hc_heavy_size - 1, hc_heavy_size}) {
        take({4, other, other, "packet", 0, packets});
    }
    EXPECT_EQ(plugin->history[0]->packets, 2U); // and so does what is heavy
}

// The live capture does not know the packet's source, and before the packet is in the ring a rule of another
// address is released, then the one of its source: it is looked up again both times and is live.
TEST_F(Plugin, PacketBetweenItsLookAndTheRingMeetsTheLiveCaptureThatBegan)
{
    ASSERT_TRUE(starts(1, {{"buffer_size", "1"}}));
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
    take({4, src, dst, "packet"});
    on_time = nullptr;
    EXPECT_EQ(read_pcap(files.path("live")).size(), 1U);
    EXPECT_EQ(history->packets, 0U);
}

} // namespace
