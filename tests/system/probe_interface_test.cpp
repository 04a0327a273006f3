// The built probe on an interface: a pair of virtual ones in a network namespace of its own.
#include "support/test_host.h"
#include "system/probe_support.h"

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// A namespace with the pair "out" and "in": what is sent to the one arrives at the other, and nothing else.
class namespace_t {
public:
    namespace_t() : name_("ks_probe_" + std::to_string(getpid()))
    {
        const std::string script = "set -e; ip netns add \"$0\"\n"
                                   "ip netns exec \"$0\" sh -c 'for i in all default; do"
                                   " echo 1 > /proc/sys/net/ipv6/conf/$i/disable_ipv6; done'\n"
                                   "ip -n \"$0\" link add out mtu 9000 type veth peer name in mtu 9000\n"
                                   "ip -n \"$0\" link set out up; ip -n \"$0\" link set in up";
        child_process_t setup({"sh", "-c", script, name_});
        usable_ = setup.wait() == 0;
        why_ = setup.err();
    }
    ~namespace_t() { child_process_t({"ip", "netns", "del", name_}).wait(); }
    namespace_t(const namespace_t &) = delete;
    namespace_t &operator=(const namespace_t &) = delete;

    bool usable() const { return usable_; }
    const std::string &why() const { return why_; }
    std::vector<std::string> inside(const std::vector<std::string> &command) const
    {
        std::vector<std::string> argv = {"ip", "netns", "exec", name_};
        argv.insert(argv.end(), command.begin(), command.end());
        return argv;
    }

private:
    std::string name_;
    bool usable_;
    std::string why_;
};

class ProbeInterface : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char *program : {"ip", "tcpreplay", "tshark"}) {
            if (!program_exists(program)) {
                GTEST_SKIP() << program << " is missing";
            }
        }
        if (!net.usable()) {
            GTEST_SKIP() << "no network namespace: " << net.why();
        }
    }

    std::vector<std::string> probe(const std::string &queues) const
    {
        return net.inside({built("kestrune-probe"), "-i", "in", "-q", queues, "-v", "--idle-timeout", "1000",
                           "-p", built("probe_test_plugin.so"), "-P", "out=" + dir.path("handed")});
    }

    void send(const std::string &file)
    {
        child_process_t sender(net.inside({"tcpreplay", "-q", "--topspeed", "-i", "out", example(file)}));
        ASSERT_EQ(sender.wait(), 0) << sender.err();
    }

    namespace_t net;
    temp_dir_t dir;
};

class ProbeInterfaceQueues : public ProbeInterface, public testing::WithParamInterface<uint32_t> {};

} // namespace

TEST_P(ProbeInterfaceQueues, EveryPacketArrivesOnceAndConnectionsStayTogether)
{
    const uint32_t queues = GetParam();
    child_process_t capture(probe(std::to_string(queues)));
    ASSERT_TRUE(wait_until([&] { return capture.err().find("capturing on in") != std::string::npos; }))
        << capture.err();
    send("web-dualstack-tls.pcap");
    send("vlan-qinq-icmp.pcap");
    const int64_t total = 7451 + 26;
    wait_until([&] {
        capture.signal(SIGUSR1);
        return counter(capture.out(), "read") >= total;
    });
    capture.signal(SIGTERM);
    ASSERT_EQ(capture.wait(), 0) << capture.err();
    EXPECT_EQ(counter(capture.out(), "read"), total);
    EXPECT_EQ(counter(capture.out(), "kernel_dropped"), 0);
    EXPECT_EQ(counter(capture.out(), "not_ip"), 6);

    std::vector<packet_t> expected = read_expected(example("web-dualstack-tls.pcap"));
    const std::vector<packet_t> tagged = read_expected(example("vlan-qinq-icmp.pcap"));
    expected.insert(expected.end(), tagged.begin(), tagged.end());
    const std::vector<packet_t> packets = read_handed(dir.path("handed"), queues);
    EXPECT_EQ(identities(packets), identities(expected)); // tags included: the bytes are compared
    std::vector<packet_t> connections;
    std::map<uint32_t, uint64_t> newest;
    for (const packet_t &packet : packets) {
        EXPECT_LE(newest[packet.queue], packet.timestamp);
        newest[packet.queue] = packet.timestamp;
        if (packet.src.find("10.") != 0) { // the tagged file holds no TCP
            connections.push_back(packet);
        }
    }
    EXPECT_EQ(check_connections(connections, expected), queues);
}
INSTANTIATE_TEST_SUITE_P(Queues, ProbeInterfaceQueues, testing::Values(1, 2));

TEST_F(ProbeInterface, AnInterfaceThatVanishesEndsTheRun)
{
    child_process_t capture(probe("2"));
    ASSERT_TRUE(wait_until([&] { return capture.err().find("capturing on in") != std::string::npos; }));
    ASSERT_EQ(child_process_t(net.inside({"ip", "link", "del", "in"})).wait(), 0);
    EXPECT_EQ(capture.wait(), 1);
    EXPECT_NE(capture.err().find("ERROR capturing on in failed: "), std::string::npos) << capture.err();
}

TEST_F(ProbeInterface, AMissingPrivilegeIsNamed)
{
    if (!program_exists("setpriv")) {
        GTEST_SKIP() << "setpriv is missing";
    }
    child_process_t capture(
        net.inside({"setpriv", "--bounding-set=-net_raw,-net_admin", "--inh-caps=-net_raw,-net_admin",
                    built("kestrune-probe"), "-i", "in", "-p", built("probe_test_plugin.so")}));
    EXPECT_EQ(capture.wait(), 1);
    EXPECT_NE(capture.err().find("cannot capture on in: permission denied; root or CAP_NET_RAW is needed"),
              std::string::npos)
        << capture.err();
}
