// The built probe with the built plugin on real captures: every IP packet of the file is handed over, and all
// of them are in the history.
#include "support/control_client.h"
#include "support/pcap_read.h"
#include "support/test_host.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

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

std::string text_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// A probe that reads a capture from a pipe: it waits for packets until the test lets them come, and serves
// its clients afterwards.
class probe_t {
public:
    explicit probe_t(uint32_t queues)
    {
        const std::string pipe = files.path("pipe");
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        const std::string command =
            "echo $$ > " + files.path("pid") +
            " && exec " KESTRUNE_BUILD_DIR "/kestrune-probe -r - --speed 0 --stay -q " +
            std::to_string(queues) + " -P 'port=0;buffer_size=64;export_path=" + files.path() + "' < " + pipe;
        output = popen(command.c_str(), "re");
        input.open(pipe, std::ios::binary); // waits for the other end
    }
    ~probe_t()
    {
        if (output != nullptr) {
            kill(pid(), SIGKILL);
            pclose(output);
        }
    }
    probe_t(const probe_t &) = delete;
    probe_t &operator=(const probe_t &) = delete;

    uint16_t port() const
    {
        uint16_t found = 0;
        EXPECT_TRUE(wait_until([&] { return (found = listening_port(pid())) != 0; }, 30000));
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
        kill(pid(), SIGTERM);
        for (int c = 0; (c = fgetc(output)) != EOF;) {
            text += static_cast<char>(c);
        }
        const int status = pclose(output);
        output = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Of the line "counters: NAME=VALUE ..." at the end; -1 when it is not there.
    int64_t counter(const std::string &name) const
    {
        const size_t line = text.rfind("counters:");
        const size_t at = line == std::string::npos ? line : text.find(" " + name + "=", line);
        return at == std::string::npos ? -1 : std::stoll(text.substr(at + name.size() + 2));
    }

private:
    pid_t pid() const { return static_cast<pid_t>(std::stol(text_of(files.path("pid")))); }

    temp_dir_t files;
    std::ofstream input;
    FILE *output;
    std::string text;
};

class Replay : public testing::TestWithParam<std::tuple<capture_t, uint32_t>> {};

TEST_P(Replay, TheHistoryHoldsEveryIpPacketOfTheFile)
{
    const auto &[capture, queues] = GetParam();
    const std::string bytes = text_of(std::string(KESTRUNE_SOURCE_DIR "/examples/pcaps/") + capture.file);
    ASSERT_GT(bytes.size(), 24U);
    probe_t probe(queues);
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
