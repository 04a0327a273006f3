// The built probe on capture files, with a plugin that writes down what it is handed.
#include "support/test_host.h"
#include "system/probe_support.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *WEB = "web-dualstack-tls.pcap";
constexpr const char *TAGGED = "vlan-qinq-icmp.pcap"; // 20 IP packets of 26, 35.4 s

uint64_t now_ns()
{
    return static_cast<uint64_t>(
        std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
}

class Probe : public testing::Test {
protected:
    std::vector<std::string> command(const std::vector<std::string> &arguments) const
    {
        std::vector<std::string> argv = {built("kestrune-probe"), "-p", built("probe_test_plugin.so"), "-P",
                                         "out=" + dir.path("handed")};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    }

    std::vector<packet_t> handed(uint32_t queues = 1) const
    {
        return read_handed(dir.path("handed"), queues);
    }

    std::string write(const std::string &name, const std::string &bytes) const
    {
        std::ofstream(dir.path(name), std::ios::binary) << bytes;
        return dir.path(name);
    }

    void await_start(const child_process_t &probe) const
    {
        ASSERT_TRUE(wait_until([&] { return probe.err().find("witness: started") != std::string::npos; }));
    }

    // Run to the end; the exit status.
    int run(const std::vector<std::string> &arguments)
    {
        child_process_t probe(command(arguments));
        const int status = probe.wait();
        out = probe.out();
        err = probe.err();
        return status;
    }

    temp_dir_t dir;
    std::string out;
    std::string err;
};

class ProbeQueues : public Probe, public testing::WithParamInterface<uint32_t> {};

std::string little_endian(uint32_t value)
{
    std::string text(sizeof value, 0);
    std::memcpy(text.data(), &value, sizeof value);
    return text;
}

std::string pcap_header(uint32_t magic, uint32_t link_type)
{
    return little_endian(magic) + std::string("\2\0\4\0\0\0\0\0\0\0\0\0", 12) + little_endian(262144) +
           little_endian(link_type);
}

std::string record(uint32_t seconds, uint32_t fraction, const std::string &bytes)
{
    const auto size = static_cast<uint32_t>(bytes.size());
    return little_endian(seconds) + little_endian(fraction) + little_endian(size) + little_endian(size) +
           bytes;
}

const std::string IPV4_PACKET("\x45\0\0\x14\0\0\0\0\x40\x11\0\0\x0a\0\0\1\x0a\0\0\2", 20);
const std::string IPV4_FRAME = std::string(12, 2) + std::string("\x08\0", 2) + IPV4_PACKET;

} // namespace

TEST_P(ProbeQueues, ReplayHandsOverExactlyTheIpPacketsOfTheFile)
{
    if (!program_exists("tshark")) {
        GTEST_SKIP() << "tshark is missing";
    }
    const uint32_t queues = GetParam();
    ASSERT_EQ(
        run({"-r", example(WEB), "-q", std::to_string(queues), "--speed", "0", "--idle-timeout", "1000"}), 0);
    EXPECT_EQ(err, "");
    const std::vector<packet_t> expected = read_expected(example(WEB));
    const std::vector<packet_t> packets = handed(queues);
    EXPECT_EQ(identities(packets), identities(expected));
    EXPECT_EQ(check_connections(packets, expected), queues);
    EXPECT_EQ(counter(out, "read"), 7451);
    EXPECT_EQ(counter(out, "handed_on"), 7451);
    EXPECT_EQ(counter(out, "flows"), 334);
    for (const packet_t &packet : packets) {
        EXPECT_EQ(packet.rest, ""); // always the queue's own thread
    }
    if (queues == 1) {
        EXPECT_TRUE(
            std::equal(packets.begin(), packets.end(), expected.begin(), expected.end(),
                       [](const packet_t &a, const packet_t &b) { return a.timestamp == b.timestamp; }));
    }
}
INSTANTIATE_TEST_SUITE_P(Queues, ProbeQueues, testing::Values(1, 4));

TEST_F(Probe, LoopedTimestampsRiseAndFilesAreReadInOrder)
{
    ASSERT_EQ(
        run({"-r", example(TAGGED), "-r", example("ipv6-fragments.pcap"), "--loop", "3", "--speed", "0"}), 0);
    const std::vector<packet_t> packets = handed();
    ASSERT_EQ(packets.size(), 3 * (20U + 36U));
    EXPECT_EQ(counter(out, "not_ip"), 3 * 6);
    for (size_t i = 1; i < packets.size(); i++) {
        // Recorded in 2010 and 2009, so that the second file is moved on in the first pass, too.
        EXPECT_LE(packets[i - 1].timestamp, packets[i].timestamp) << i;
        EXPECT_EQ(packets[i].hash, packets[i % 56].hash);
    }
    EXPECT_EQ(packets[19].timestamp - packets[0].timestamp, packets[75].timestamp - packets[56].timestamp);
}

TEST_F(Probe, RebasedReplayKeepsThePaceFromNow)
{
    const uint64_t before = now_ns();
    ASSERT_EQ(run({"-r", example(TAGGED), "--rebase", "--speed", "100", "-q", "2"}), 0);
    const uint64_t after = now_ns();
    std::vector<packet_t> packets = handed(2);
    ASSERT_EQ(packets.size(), 20U);
    std::sort(packets.begin(), packets.end(),
              [](const packet_t &a, const packet_t &b) { return a.timestamp < b.timestamp; });
    EXPECT_GE(packets.front().timestamp, before);
    // Between the file's first and last IP packet lie 19.020 s.
    ASSERT_EQ(run({"-r", example(TAGGED), "--speed", "0"}), 0);
    const std::vector<packet_t> recorded = handed();
    const uint64_t distance = (recorded.back().timestamp - recorded.front().timestamp) / 100;
    EXPECT_NEAR(static_cast<double>(packets.back().timestamp - packets.front().timestamp),
                static_cast<double>(distance), 2);
    EXPECT_GE(after - before, distance); // it was waited for
    EXPECT_LE(packets.back().timestamp, after);
}

TEST_F(Probe, NanosecondsAndOtherLinkTypesAreRead)
{
    const std::string nano = pcap_header(0xA1B23C4D, 1) + record(5, 123456789, IPV4_FRAME);
    const std::string raw = pcap_header(0xA1B2C3D4, 101) + record(6, 7, IPV4_PACKET);
    ASSERT_EQ(run({"-r", write("nano.pcap", nano), "-r", write("raw.pcap", raw), "--speed", "0"}), 0) << err;
    const std::vector<packet_t> packets = handed();
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[0].timestamp, 5123456789U);
    EXPECT_EQ(packets[1].timestamp, 6000007000U);
    EXPECT_EQ(packets[0].length, IPV4_FRAME.size());
    EXPECT_EQ(packets[1].length, IPV4_FRAME.size());
    EXPECT_EQ(packets[1].src, "10.0.0.1");
    EXPECT_EQ(packets[1].counter, 1U); // the same flow
}

TEST_F(Probe, AFileThatEndsInACutRecordIsReadUpToIt)
{
    const std::string bytes = read_text(example(TAGGED));
    ASSERT_EQ(run({"-r", write("cut", bytes.substr(0, bytes.size() - 3)), "--speed", "0", "--loop", "2"}), 0);
    EXPECT_EQ(counter(out, "read"), 2 * 25);
    EXPECT_NE(err.find(" WARNING " + dir.path("cut") + " ends in a cut record; read up to it\n"),
              std::string::npos);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
}

TEST_F(Probe, FailuresEndWithTheirStatusAndOneLine)
{
    const std::string damaged = pcap_header(0xA1B2C3D4, 1) + record(1, 0, IPV4_FRAME) +
                                std::string(16, '\xFF') + std::string(400, 'x');
    struct row_t {
        int status;
        std::vector<std::string> arguments;
        std::string text;
    };
    const row_t rows[] = {
        {1,
         {"-r", dir.path("none")},
         "ERROR cannot read " + dir.path("none") + ": No such file or directory"},
        {1, {"-r", write("text", "no capture file, but long enough")}, "text: unknown file format"},
        {1, {"-r", write("empty", "")}, "cannot read " + dir.path("empty") + ": truncated dump file"},
        {1, {"-r", write("damaged", damaged), "--speed", "0"}, "damaged is damaged: "},
        {1, {"-r", write("damaged", damaged), "--speed", "0", "-q", "3"}, "damaged is damaged: "},
        {1, {"-r", write("wlan", pcap_header(0xA1B2C3D4, 105))}, "wlan has link type IEEE802_11;"},
        {1, {"-i", "no_such_if0"}, "cannot capture on no_such_if0: no such interface"},
        {1, {"-r", example(TAGGED), "-p", "/none.so"}, "cannot load the plugin: /none.so: cannot open"},
        {1, {"-r", example(TAGGED), "-P", "refuse=1"}, "plugin witness did not start"},
        {2, {"-r", example(TAGGED), "--no-such-option"}, "kestrune-probe: "},
        {2, {}, "a source is needed"},
        {2, {"-r", "x", "-i", "y"}, "excludes"},
        {2, {"-r", "x", "-q", "0"}, "--queues"},
        {2, {"-r", "x", "--speed", "-1"}, "--speed"},
        {2, {"-i", "x", "--loop", "2"}, "--loop requires --read"},
        {2, {"-r", "-", "--loop", "2"}, "standard input"},
    };
    for (const row_t &row : rows) {
        EXPECT_EQ(run(row.arguments), row.status) << row.text;
        EXPECT_NE(err.find(row.text), std::string::npos) << row.text << " is not in " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
    EXPECT_EQ(run({"-r", example(TAGGED), "-P", "out=/x;buffer=1"}), 1);
    EXPECT_NE(err.find("parameter \"buffer=1\": no such parameter"), std::string::npos) << err;
    EXPECT_EQ(run({"-r", dir.path("damaged"), "--speed", "0"}), 1);
    EXPECT_EQ(handed().size(), 1U); // what stands before the damage was handed on
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_NE(out.find("--rebase"), std::string::npos);
}

TEST_P(ProbeQueues, SignalsPrintCountersAndStopCleanly)
{
    child_process_t probe(
        command({"-r", example(WEB), "--loop", "0", "--speed", "5", "-q", std::to_string(GetParam())}));
    ASSERT_TRUE(wait_until([&] { return !handed(GetParam()).empty(); })) << probe.err();
    probe.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return counter(probe.out(), "handed_on") > 0; }));
    const int64_t seen = counter(probe.out(), "handed_on");
    ASSERT_TRUE(wait_until([&] {
        probe.signal(SIGUSR1);
        return counter(probe.out(), "handed_on") > seen; // goes on after a report
    }));
    probe.signal(GetParam() == 1 ? SIGINT : SIGTERM);
    EXPECT_EQ(probe.wait(), 0);
    EXPECT_EQ(probe.err(), "");
    EXPECT_EQ(counter(probe.out(), "handed_on"), static_cast<int64_t>(handed(GetParam()).size()));
    EXPECT_EQ(counter(probe.out(), "read"), counter(probe.out(), "handed_on"));
}

TEST_P(ProbeQueues, APipeThatPausesHoldsNeitherPacketsNorAStopBack)
{
    const std::string bytes = read_text(example(TAGGED));
    const std::string path = dir.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int pipe = open(path.c_str(), O_RDWR | O_CLOEXEC);
    child_process_t probe(command({"-r", path, "--speed", "0", "-q", std::to_string(GetParam()), "-v"}));
    const auto fed = static_cast<ssize_t>(bytes.size() - 3); // up to the middle of the last of 26 records
    ASSERT_EQ(::write(pipe, bytes.data(), static_cast<size_t>(fed)), fed);
    await_start(probe);
    EXPECT_TRUE(wait_until([&] {
        probe.signal(SIGUSR1);
        return counter(probe.out(), "read") == 25 &&
               counter(probe.out(), "handed_on") + counter(probe.out(), "not_ip") == 25;
    })) << probe.out();
    probe.signal(SIGTERM);
    EXPECT_EQ(probe.wait(), 0);
    EXPECT_EQ(probe.err().find("WARNING"), std::string::npos) << probe.err();
    close(pipe);
}

TEST_F(Probe, StayAndDelayServeUntilStopped)
{
    child_process_t stays(command({"-r", example(TAGGED), "--speed", "0", "--stay", "-v", "3"}));
    await_start(stays);
    ASSERT_TRUE(wait_until([&] {
        stays.signal(SIGUSR1);
        return counter(stays.out(), "handed_on") == 20;
    }));
    stays.signal(SIGTERM);
    EXPECT_EQ(stays.wait(), 0);
    EXPECT_NE(stays.err().find(" INFO(1) witness: started with 1 queues\n"), std::string::npos);
    EXPECT_NE(stays.err().find("stopping"), std::string::npos); // by the signal, not at the end of the file

    child_process_t waits(command({"-r", example(TAGGED), "--speed", "0", "--delay", "1000", "-v"}));
    await_start(waits);
    waits.signal(SIGINT);
    EXPECT_EQ(waits.wait(), 0);
    EXPECT_EQ(counter(waits.out(), "read"), 0);
}

TEST_F(Probe, FullFilesAndClosedPipesDoNotEndIt)
{
    const std::string run_probe = "exec \"$0\" -p \"$1\" -P out=\"$2\" -r \"$3\" --speed 0";
    child_process_t limited({"bash", "-c", "ulimit -f 8; " + run_probe, built("kestrune-probe"),
                             built("probe_test_plugin.so"), dir.path("limited"), example(WEB)});
    EXPECT_EQ(limited.wait(), 0);
    EXPECT_EQ(read_text(dir.path("limited.0")).size(), 8U * 1024);

    child_process_t piped({"bash", "-c", "exec 3> >(true); wait $!; " + run_probe + " >&3",
                           built("kestrune-probe"), built("probe_test_plugin.so"), dir.path("piped"),
                           example(WEB)});
    EXPECT_EQ(piped.wait(), 0);
    EXPECT_GT(read_text(dir.path("piped.0")).size(), 8U * 1024);
}

TEST_F(Probe, LogLinesCarryTimeAndLevelOrTheJournalsPriority)
{
    const std::string no_file = "exec \"$0\" -r /none";
    child_process_t plain({"bash", "-c", "JOURNAL_STREAM=1:2 " + no_file, built("kestrune-probe")});
    EXPECT_EQ(plain.wait(), 1);
    int year = 0;
    int microseconds = 0;
    char level[16] = "";
    EXPECT_EQ(
        sscanf(plain.err().c_str(), "%4d-%*2d-%*2dT%*2d:%*2d:%*2d.%6d%*5s %15s", &year, &microseconds, level),
        3)
        << plain.err();
    EXPECT_GE(year, 2025);
    EXPECT_STREQ(level, "ERROR");
    child_process_t journal({"bash", "-c", "JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) " + no_file,
                             built("kestrune-probe")});
    EXPECT_EQ(journal.wait(), 1);
    EXPECT_EQ(journal.err(), "<3>cannot read /none: No such file or directory\n");
}
