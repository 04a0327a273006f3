#include "common/printable.h"
#include "rules_manager/capture_script.h"
#include "support/control_fixture.h"

namespace {

TEST(FileNames, TakeTheFirstFreeVersionThatFitsAndEndAt999)
{
    // A rule's number, the files present, and the name that it takes ("": refused).
    for (const auto &[id, versions, expected] : {std::tuple{7U, 3, std::string("web_7_3")},
                                                 {12345, 99, "web_12345_99"},
                                                 {12345, 100, ""}, // _12345_100 takes ten characters
                                                 {99999999, 0, "web_99999999"},
                                                 {99999999, 1, ""},
                                                 {123456, 1, "web_123456_1"},
                                                 {1234567, 1, ""},
                                                 {100000000, 0, ""}}) {
        registry_t registry;
        rwlock_write(&registry.rm.lock);
        registry.rm.next_rule_id = id;
        rwlock_write_unlock(&registry.rm.lock);
        registry.create_versions("web_" + std::to_string(id), versions);
        EXPECT_EQ(registry.add(1, BOTH, 10, 10, "web"), expected.empty() ? RM_NOT_ADDED : RM_OK) << id;
        EXPECT_EQ(registry.rules(), expected.empty() ? 0 : 1);
        EXPECT_TRUE(registry.exists(expected)) << expected;
    }
    registry_t registry; // the rule stays without a capture
    registry.create_versions("web_0", 1000);
    EXPECT_EQ(registry.add(1, BOTH, 10, 1000, "web"), RM_OK);
    EXPECT_TRUE(registry.finishes());
    EXPECT_TRUE(registry.exists("web_0_999")); // not this rule's to delete
}

TEST(FileNames, HistoryFilesFollowTheLiveFileForTheFirst64QueuesWithARing)
{
    registry_t registry(66, 1000);
    registry.set_script("touch \"$1.called\"");
    hc_disable(registry.history[1]);
    registry.create_versions("web_0", 1);
    EXPECT_EQ(registry.add(1, BOTH, 1, 1, "web"), RM_OK);
    for (const std::string queue : {"", "_hc_0", "_hc_63"}) {
        EXPECT_TRUE(registry.exists("web_0_1" + queue)) << queue;
    }
    EXPECT_FALSE(registry.exists("web_0_1_hc_1") || registry.exists("web_0_1_hc_64"));
    EXPECT_TRUE(registry.finishes()); // without a packet: its files go, no script is called
    for (const auto &file : std::filesystem::directory_iterator(registry.directory)) {
        EXPECT_EQ(file.path().filename(), "web_0");
    }
}

TEST(Rules, AddingAgainRenewsWidensOrFails)
{
    registry_t registry(1, 10000);
    connection_t connection;
    EXPECT_EQ(registry.add(1, SRC, 10, 100, "webserver"), RM_OK);
    EXPECT_EQ(registry.register_client(connection), RM_OK);
    EXPECT_EQ(registry.add(1, SRC, 20, 200, "web"), RM_OK); // a leading part of the name
    EXPECT_EQ(registry.detail(1).packet_limit, 20U);
    EXPECT_EQ(registry.detail(1).direction, SRC);
    EXPECT_EQ(registry.add(1, DST, 20, 200, "webserver"), RM_OK);
    EXPECT_EQ(registry.add(1, SRC, 5, 5, "webserverx"), RM_OTHER_NAME);
    EXPECT_TRUE(connection.client.is_quiet()); // it is the same rule
    EXPECT_EQ(registry.drop(1, BOTH), RM_OK);
    EXPECT_EQ(registry.add(1, BOTH, 5, 5, "web"), RM_NOT_LIVE);
    EXPECT_TRUE(registry.finishes());
    EXPECT_EQ(registry.add(1, BOTH, 5, 5, "other"), RM_OK);
    EXPECT_TRUE(registry.exists("other_1"));
}

TEST(Rules, ARefusedLiveCaptureHoldsNoSearchBack)
{
    registry_t registry(2, 5000);
    const ip_addr_t addr = numbered_address(1);
    const std::string path = registry.directory + "taken";
    ASSERT_EQ(lc_add_rule(registry.live, &addr, BOTH, 1, 1, path.c_str()), LC_OK);
    ASSERT_EQ(registry.add(1, BOTH, 10, 10, "web"), RM_OK);
    EXPECT_TRUE(registry.finishes());
}

TEST(Rules, LookUpsWithoutEndDoNotKeepAnAddWaiting)
{
    registry_t registry;
    for (uint32_t i = 0; i < 3000; i++) {
        ASSERT_EQ(registry.add(i, BOTH, 0, 0, "rule"), RM_OK);
    }
    std::atomic<bool> added{false};
    std::atomic<int> looked_up{0};
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::vector<std::jthread> readers;
    for (int i = 0; i < 16; i++) {
        readers.emplace_back([&] {
            for (; !added && std::chrono::steady_clock::now() < give_up; looked_up++) {
                (void)registry.detail(5000);
            }
        });
    }
    EXPECT_TRUE(wait_until([&] { return looked_up > 500; })); // they overlap
    EXPECT_EQ(registry.add(5001, BOTH, 0, 0, "rule"), RM_OK);
    EXPECT_LT(std::chrono::steady_clock::now(), give_up);
    added = true;
}

TEST(Clients, RegistrationsEndAt128AndAFailedIncidentTakesItsOwnBack)
{
    registry_t registry;
    connection_t gone, full, good;
    std::string incidents;
    for (uint32_t i = 0; i < RM_MAX_CLIENTS; i++) {
        EXPECT_EQ(registry.register_client(i == 0 ? gone : i == 1 ? full : good), RM_OK);
        incidents += i > 1 ? incident(0, 1) : "";
    }
    EXPECT_EQ(registry.register_client(good), RM_ALL_REGISTERED);
    shutdown(gone.server.fd, SHUT_WR);
    full.fill();
    EXPECT_EQ(registry.add(1, SRC, 0, 0, "a"), RM_OK);
    EXPECT_EQ(good.client.receive(incidents.size()), incidents);
    for (const int fd : {gone.server.fd, full.server.fd, -1}) { // -1 stands in the free slots
        EXPECT_EQ(rm_unregister_client(&registry.rm, fd), RM_NOT_REGISTERED);
    }
    EXPECT_EQ(rm_unregister_client(&registry.rm, good.server.fd), RM_OK); // one of many
    rm_forget_client(&registry.rm, good.server.fd);
    EXPECT_EQ(rm_unregister_client(&registry.rm, good.server.fd), RM_NOT_REGISTERED);
    EXPECT_EQ(registry.register_client(good), RM_OK);
}

TEST(Clients, RegisterAndLeaveBesideEachOther)
{
    registry_t registry;
    connection_t connections[2];
    const auto come_and_go = [&](connection_t *connection) {
        for (int i = 0; i < 1000; i++) {
            EXPECT_EQ(registry.register_client(*connection), RM_OK);
            EXPECT_EQ(rm_unregister_client(&registry.rm, connection->server.fd), RM_OK);
        }
    };
    std::jthread(come_and_go, &connections[0]), come_and_go(&connections[1]);
}

TEST(Channel, AnUpdateThatGoesOutInPartEndsTheStream)
{
    connection_t connection;
    std::string bytes(1 << 24, 'x');
    iovec part = {bytes.data(), bytes.size()};
    EXPECT_FALSE(rm_channel_update(&connection.channel, &part, 1, static_cast<uint32_t>(bytes.size())));
    const std::string received = connection.client.receive_all();
    EXPECT_LT(received.size(), bytes.size());
    EXPECT_FALSE(received.empty());
    part.iov_len = 1;
    EXPECT_FALSE(rm_channel_update(&connection.channel, &part, 1, 1));
    const uint8_t byte = 0;
    rm_reply_t reply = {&byte, 1, 0};
    EXPECT_EQ(rm_channel_reply(&connection.channel, &reply), RM_FAILED);
}

TEST(Channel, NoUpdateLandsInAReplyThatWaitsForRoom)
{
    connection_t connection;
    const std::string reply(1 << 24, 'r');
    std::thread handler([&] {
        rm_reply_t rest = {reinterpret_cast<const uint8_t *>(reply.data()),
                           static_cast<uint32_t>(reply.size()), 0};
        while (rm_channel_reply(&connection.channel, &rest) == RM_WAITS) {
            ASSERT_TRUE(rm_channel_wait(&connection.channel, &rest));
        }
        EXPECT_EQ(rest.size, 0U);
    });
    const auto mid_message = [&] {
        mutex_lock(&connection.channel.lock);
        const bool waits = connection.channel.mid_message;
        mutex_unlock(&connection.channel.lock);
        return waits;
    };
    ASSERT_TRUE(wait_until(mid_message));
    char update = 'u';
    iovec part = {&update, 1};
    std::string received;
    while (mid_message() && received.size() < reply.size()) { // there is room in the way again and again
        EXPECT_FALSE(rm_channel_update(&connection.channel, &part, 1, 1) && mid_message());
        received += connection.client.receive(1 << 16);
    }
    received += connection.client.receive(reply.size() - received.size());
    EXPECT_TRUE(received == reply);
    handler.join();
    EXPECT_TRUE(rm_channel_update(&connection.channel, &part, 1, 1));
    EXPECT_EQ(connection.client.receive(1), "u");
}

TEST(Monitor, AnnouncesEveryChangeAndTheEndOfARule)
{
    registry_t registry(2, 10000);
    connection_t connection;
    registry.history[1]->search_pause_ms = 300;
    EXPECT_EQ(registry.add(8, BOTH, 0, 0, "first"), RM_OK);
    EXPECT_TRUE(registry.finishes()); // the second queue pauses now
    EXPECT_EQ(registry.register_client(connection), RM_OK);
    registry.ring_packet(0, 1, 9);
    registry.ring_packet(0, 9, 1);
    EXPECT_EQ(registry.add(1, BOTH, 4, 1000, "web"), RM_OK);
    registry.live_packet(1, 9);
    EXPECT_TRUE(wait_until([&] { return registry.search_ended(0, 1); }));
    registry.pass(); // collects the first queue's search
    EXPECT_TRUE(wait_until([&] { return registry.search_ended(1, 1); }));
    registry.pass();
    registry.pass(); // nothing new
    EXPECT_EQ(connection.client.receive(35), incident(1, 1) + capture(1, 25));
    EXPECT_TRUE(connection.client.is_quiet());
    EXPECT_FALSE(registry.exists("web_1_hc_1")); // stayed empty
    EXPECT_EQ(registry.detail(1).history_progress, 100);
    for (int i = 0; i < 3; i++) {
        registry.live_packet(9, 1);
    }
    registry.pass();
    const std::string end = capture(1, 100) + visual(1, 2, 4, "web_1_hc_0", "web_1");
    EXPECT_EQ(connection.client.receive(end.size()), end);
    EXPECT_EQ(registry.rules(), 0);
}

TEST(Monitor, TheUpdatesOfOnePassComeInOrder)
{
    registry_t registry;
    connection_t connection;
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(registry.add(i, SRC, 0, 0, "a"), RM_OK);
    }
    EXPECT_EQ(registry.register_client(connection), RM_OK);
    registry.pass();
    const std::string expected = capture(2, 100) + capture(1, 100) + capture(0, 100) +
                                 visual(0, 0, 0, "", "") + visual(1, 0, 0, "", "") + visual(2, 0, 0, "", "");
    EXPECT_EQ(connection.client.receive(expected.size()), expected);
}

TEST(Monitor, AHistoryListIsCutAtTheLastWholeName)
{
    constexpr size_t LONG = 20000, ROOM = MSG_TEXT_WIRE_MAX - 3 * LONG - 3; // behind three names and commas
    registry_t registry(4);
    std::string texts[4];
    char *names[4] = {};
    rm_rule_t rule = {};
    rule.hist_files = names;
    for (const auto &[last, expected] : {std::pair{ROOM, ROOM + 3 * LONG + 3}, {ROOM + 1, 3 * LONG + 2}}) {
        for (size_t i = 0; i < 4; i++) {
            texts[i] = registry.directory + std::string(i < 3 ? LONG : last, 'n');
            names[i] = texts[i].data();
        }
        EXPECT_TRUE(rm_compose_history_list(&registry.rm, &rule));
        EXPECT_EQ(std::strlen(registry.rm.filenames), expected);
    }
}

// A rule of this name that comes to its end with one live packet and one history packet per queue.
void finish_rule_named(registry_t *registry, const std::string &name)
{
    for (size_t i = 0; i < registry->history.size(); i++) {
        registry->ring_packet(i, 1, 9);
    }
    EXPECT_EQ(registry->add(1, SRC, 1, 1000, name), RM_OK);
    registry->live_packet(1, 9);
    EXPECT_TRUE(registry->finishes());
}

TEST(Script, HearsAnyNameAsItIsAndTheShellRunsNothingOfIt)
{
    std::filesystem::remove("hit"); // of a run that failed
    for (const std::string name :
         {"web", "with blanks  two", "quote\"d 'x'", "$(touch hit)", "`touch hit`", "$HOME", "back\\slash\\",
          "new\nline", "!! * ? ~ ; & | > hit #", "-n", "\xff\xc3\xa4"}) {
        registry_t registry(2, 10000);
        const std::string arguments = registry.scripts.path("arguments");
        registry.set_script("printf '%s\\n' \"$#\" \"$@\" > " + arguments);
        finish_rule_named(&registry, name);
        const std::string live = registry.directory + name + "_0";
        EXPECT_EQ(file_bytes(arguments), "2\n" + live + "\n" + live + "_hc_0," + live + "_hc_1\n") << name;
        EXPECT_FALSE(registry.exists("hit") || std::filesystem::exists("hit"));
        for (const test_host::message_t &message : test_host::messages()) {
            EXPECT_EQ(message.text.find('\n'), std::string::npos) << message.text;
        }
    }
}

TEST(Script, GetsOneArgumentWithoutHistoryAndItsResultIsReported)
{
    for (const auto &[script, result] : {std::pair{"echo \"$#\" > \"$1.args\"", "1\n"},
                                         {"exit 3", "Return value: 768, by calling script: 'bash "},
                                         {"", "Return value: 32512, by calling script: 'bash "}}) {
        registry_t registry;
        registry.set_script(script);
        if (*script == '\0') {
            std::filesystem::remove(ks_capture_script); // there is none
        }
        finish_rule_named(&registry, "a");
        EXPECT_TRUE(file_bytes(registry.directory + "a_0.args") == result || test_host::logged(result));
    }
}

TEST(Script, RunsWithNoSignalBlockedAndIsKilledWithItsChildrenWhenTheMonitorStops)
{
    // They write their processes down: a shell with a child, and a shell that leaves its process group.
    for (const char *script :
         {"sleep 1000 & echo $! $$ > pids; mv pids ready; wait",
          "exec python3 -c 'import os, time; os.setpgid(0, os.getpgid(os.getppid())); "
          "open(\"pids\", \"w\").write(str(os.getpid())); os.rename(\"pids\", \"ready\"); time.sleep(60)'"}) {
        const temp_dir_t directory;
        std::chrono::steady_clock::time_point begin;
        {
            registry_t registry(0, 0, 10); // passes are made by the monitor, which has every signal blocked
            registry.set_script("cd " + directory.path() + "; grep SigBlk /proc/self/status > status; " +
                                script);
            for (uint32_t i = 1; i < 5; i++) {
                EXPECT_EQ(registry.add(i, SRC, 1, 1000, "a"), RM_OK);
                registry.live_packet(i, 9);
            }
            ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(directory.path("ready")); }));
            begin = std::chrono::steady_clock::now();
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
        EXPECT_EQ(file_bytes(directory.path("status")), "SigBlk:\t0000000000000000\n");
        EXPECT_EQ(test_host::count("Calling script"), 1); // the other rules' scripts were not begun
        // An orphan is reaped by init, or stays a zombie where there is none.
        int pid = 0;
        for (std::ifstream pids(directory.path("ready")); pids >> pid;) {
            EXPECT_TRUE(wait_until([&] {
                const std::string stat = file_bytes("/proc/" + std::to_string(pid) + "/stat");
                return stat.empty() || stat.find(") Z ") != std::string::npos;
            }));
        }
        EXPECT_GT(pid, 0);
    }
}

TEST(Script, IsToldOfOnceWhileItRunsForLong)
{
    static const char *const notice = "The capture script still runs";
    registry_t registry;
    rm_script_notice_ms = 50;
    const std::string told = registry.scripts.path("told");
    registry.set_script("until [ -e " + told + " ]; do sleep 0.01; done; sleep 0.2; exit 3");
    std::thread teller([&] {
        EXPECT_TRUE(wait_until([] { return test_host::logged(notice); }));
        std::ofstream(told) << "told";
    });
    finish_rule_named(&registry, "a");
    teller.join();
    EXPECT_EQ(test_host::count(notice), 1);
    EXPECT_TRUE(test_host::logged("Return value: 768")); // its result is not lost
    rm_script_notice_ms = RM_SCRIPT_NOTICE_MS;
}

TEST(Printable, WritesControlCharactersOutAndCutsWhatDoesNotFit)
{
    printable_t space;
    EXPECT_STREQ(printable("a\xc3\xa4 b\\\x1b[2Ja\n\x7f", &space), "a\xc3\xa4 b\\\\x1b[2Ja\\x0a\\x7f");
    const std::string cut = printable(("\n" + std::string(PRINTABLE_SIZE, 'x')).c_str(), &space);
    EXPECT_LT(cut.size(), PRINTABLE_SIZE);
    EXPECT_TRUE(cut.ends_with("x..."));
}

} // namespace
