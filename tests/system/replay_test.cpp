// The built probe with the built plugin on real captures: every IP packet of the file is handed over, and all
// of them are in the history.
#include "support/control_client.h"
#include "support/test_host.h"
#include "system/probe_support.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

struct capture_t {
    const char *file;
    uint32_t packets;
    uint32_t ip; // of these
};

// As tshark counts them.
constexpr capture_t WEB = {"web-dualstack-tls.pcap", 7451, 7451};
constexpr capture_t TAGGED = {"vlan-qinq-icmp.pcap", 26, 20};
constexpr capture_t FRAGMENTS = {"ipv6-fragments.pcap", 36, 36};

// A probe that reads a capture from a pipe: it waits for packets until the test lets them come, and serves
// its clients afterwards.
class piped_probe_t {
public:
    explicit piped_probe_t(uint32_t queues)
        : process({"sh", "-c", "exec \"$0\" \"$@\" < \"$PIPE\"", built("kestrune-probe"), "-r", "-",
                   "--speed", "0", "--stay", "-q", std::to_string(queues), "-P",
                   "port=0;buffer_size=64;export_path=" + pipe.folder()}),
          input(pipe.path(), std::ios::binary) // waits for the other end
    {
    }

    uint16_t port() const
    {
        uint16_t found = 0;
        EXPECT_TRUE(wait_until([&] { return (found = listening_port(process.pid())) != 0; }, 30000));
        return found;
    }
    // These bytes and no more.
    void feed(const std::string &bytes)
    {
        input << bytes;
        input.close();
        EXPECT_TRUE(input.good());
    }
    // Stop it and wait for its end: the exit status.
    int stop()
    {
        process.signal(SIGTERM);
        return process.wait();
    }
    int64_t counter(const std::string &name) const { return ::counter(process.out(), name); }

private:
    // Its path is in the environment of what is started while it lives.
    class pipe_t {
    public:
        pipe_t()
        {
            EXPECT_EQ(mkfifo(path().c_str(), 0600), 0);
            setenv("PIPE", path().c_str(), 1);
        }
        std::string path() const { return dir.path("pipe"); }
        std::string folder() const { return dir.path(); }

    private:
        temp_dir_t dir;
    };

    pipe_t pipe;
    child_process_t process;
    std::ofstream input;
};

class Replay : public testing::TestWithParam<std::tuple<capture_t, uint32_t>> {};

TEST_P(Replay, TheHistoryHoldsEveryIpPacketOfTheFile)
{
    const auto &[capture, queues] = GetParam();
    const std::string bytes = read_text(example(capture.file));
    ASSERT_GT(bytes.size(), 24U);
    piped_probe_t probe(queues);
    control_client_t client(probe.port());
    ASSERT_EQ(client.set_heavy_size(UINT32_MAX), msg_code::SUCCESS);
    ASSERT_EQ(client.history().packets, 0U);
    probe.feed(bytes);
    msg_hb_info_t history = {};
    wait_until([&, ip = capture.ip] { return (history = client.history()).packets >= ip; }, 60000);
    EXPECT_EQ(history.packets, capture.ip);
    EXPECT_EQ(history.queue_count, queues);
    EXPECT_EQ(history.heavy_size, UINT32_MAX);
    EXPECT_EQ(probe.stop(), 0);
    EXPECT_EQ(probe.counter("read"), capture.packets);
    EXPECT_EQ(probe.counter("handed_on"), capture.ip);
    EXPECT_EQ(probe.counter("not_ip"), capture.packets - capture.ip);
    EXPECT_EQ(probe.counter("truncated"), 0);
    int64_t sum = 0;
    for (uint32_t i = 0; i < queues; i++) {
        sum += probe.counter("handed_on_" + std::to_string(i));
    }
    EXPECT_EQ(sum, capture.ip);
}

INSTANTIATE_TEST_SUITE_P(Captures, Replay,
                         testing::Combine(testing::Values(WEB, TAGGED, FRAGMENTS), testing::Values(1U, 4U)),
                         [](const auto &parameters) {
                             std::string name = std::get<0>(parameters.param).file;
                             name = name.substr(0, name.find('-'));
                             return name + "On" + std::to_string(std::get<1>(parameters.param));
                         });

} // namespace
