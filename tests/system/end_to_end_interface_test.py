"""The same road on a network interface: a capture is sent into one end of a pair in a network namespace of its own,
the probe captures at the other, and rules are added in a pause half-way."""

import collections
import os
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from probe_process import WATCHED, WEB, Probe, missing  # noqa: E402

TAG = 42
EVERY_PACKET = str(2**32 - 1)
SETUP = """set -e
ip netns add "$0"
ip netns exec "$0" sh -c 'for i in all default; do echo 1 > /proc/sys/net/ipv6/conf/$i/disable_ipv6; done'
ip -n "$0" link set lo up
for pair in plain tagged; do
    ip -n "$0" link add "$pair-out" mtu 9000 type veth peer name "$pair-in" mtu 9000
    ip -n "$0" link set "$pair-out" up
    ip -n "$0" link set "$pair-in" up
done
"""


def run(*argv):
    return subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)


class Half:
    """One half of the capture as a file, with the bytes of the packets that tcpdump finds for each address."""

    def __init__(self, packets, path, expression):
        self.path = path
        self.count = len(packets)
        pcap_files.write(path, packets)
        self.wanted = {}
        for address in WATCHED:
            found = subprocess.run(["tcpdump", "-r", path, "-w", "-", "--time-stamp-precision=nano",
                                    expression % address], capture_output=True, check=True)
            self.wanted[address] = collections.Counter(frame for _, frame in pcap_files.parse(found.stdout))


class Wire:
    """A pair of interfaces with a probe at its end."""

    def __init__(self, namespace, pair, capture, folder, expression):
        self.inside = ("ip", "netns", "exec", namespace)
        self.pair = pair
        packets = pcap_files.read(capture)
        middle = len(packets) // 2
        self.halves = [Half(half, os.path.join(folder, "%s.%d" % (pair, number)), expression)
                       for number, half in enumerate((packets[:middle], packets[middle:]))]
        self.began_ns = time.time_ns()
        self.probe = Probe("-i", pair + "-in", "-q", "2", params="buffer_size=64", prefix=self.inside)
        self.probe.do("heavy", EVERY_PACKET)

    def send(self, half):
        sent = run(*self.inside, "tcpreplay", "-q", "--topspeed", "-i", self.pair + "-out", half.path)
        assert sent.returncode == 0, sent.stderr

    def send_first_half(self):
        self.send(self.halves[0])

    def add_rules(self):
        self.probe.wait_handed_on(self.halves[0].count)
        self.commands = {address: self.probe.add_and_wait(address) for address in WATCHED}

    def send_second_half(self):
        self.send(self.halves[1])
        self.probe.wait_handed_on(self.halves[0].count + self.halves[1].count)
        self.ended_ns = time.time_ns()
        for address in WATCHED:
            self.probe.do("remove", address)

    def finish(self):
        self.answers = {}
        for address, command in self.commands.items():
            status, lines = self.probe.finish_ctl(command)
            assert status == 0 and len(lines) == 1, (lines, command.errors)
            self.answers[address] = lines[0]


class EndToEndInterface(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        absent = missing("ip", "tcpdump", "tcpreplay", "tcprewrite")
        if absent:
            raise unittest.SkipTest("missing: " + " ".join(absent))
        namespace = "ks_e2e_%d" % os.getpid()
        cls.addClassCleanup(run, "ip", "netns", "del", namespace)
        made = run("sh", "-c", SETUP, namespace)
        if made.returncode != 0:
            raise unittest.SkipTest("no network namespace: " + made.stderr.strip())
        folder = tempfile.TemporaryDirectory(prefix="kestrune_e2e_")
        cls.addClassCleanup(folder.cleanup)
        tagged = os.path.join(folder.name, "tagged.pcap")
        subprocess.run(["tcprewrite", "--enet-vlan=add", "--enet-vlan-tag=%d" % TAG, "--enet-vlan-cfi=0",
                        "--enet-vlan-pri=0", "-i", WEB, "-o", tagged], check=True, capture_output=True)
        cls.wires = {}
        for pair, capture, expression in (("plain", WEB, "host %s"), ("tagged", tagged, "vlan 42 and host %s")):
            cls.wires[pair] = Wire(namespace, pair, capture, folder.name, expression)
            cls.addClassCleanup(cls.wires[pair].probe.close)
        for step in (Wire.send_first_half, Wire.add_rules, Wire.send_second_half, Wire.finish):
            for wire in cls.wires.values():
                step(wire)

    def check(self, wire):
        for address in WATCHED:
            answer = wire.answers[address]
            history = [pcap_files.read(wire.probe.capture(name)) for name in answer["history_files"]]
            live = pcap_files.read(wire.probe.capture(answer["live_file"]))
            self.check_bytes([packet for file in history for packet in file], wire.halves[0].wanted[address])
            self.check_bytes(live, wire.halves[1].wanted[address])
            self.assertEqual(answer["history_packets"], sum(map(len, history)))
            self.assertEqual(answer["live_packets"], len(live))
            for file in history:
                self.check_times(wire, file)
            for flow in {pcap_files.flow_of(frame) for _, frame in live}:
                self.check_times(wire, [packet for packet in live if pcap_files.flow_of(packet[1]) == flow])
        self.assertEqual(wire.probe.stop(), 0, wire.probe.text("err"))
        counters = wire.probe.last_counters()
        self.assertEqual(counters["kernel_dropped"], 0)
        self.assertEqual(counters["handed_on"], sum(half.count for half in wire.halves))

    def check_bytes(self, packets, wanted):
        self.assertGreater(len(packets), 100)
        self.assertEqual(collections.Counter(frame for _, frame in packets), wanted)

    def check_times(self, wire, packets):
        """The kernel's: those of one queue rise, with true nanoseconds, and lie within the test."""
        times = [nanoseconds for nanoseconds, _ in packets]
        self.assertEqual(times, sorted(times))
        self.assertTrue(wire.began_ns < times[0] and times[-1] < wire.ended_ns)
        self.assertTrue(any(nanoseconds % 1000 for nanoseconds in times) or len(times) < 5)

    def test_files_hold_what_was_sent(self):
        self.check(self.wires["plain"])

    def test_tagged_packets_keep_their_tags(self):
        self.check(self.wires["tagged"])


if __name__ == "__main__":
    run_tests.main()
