"""One request's whole road, on a real capture: packets from the probe through the plugin into files, rules from
kestrunectl in a pause half-way. Live and history files together must hold what tcpdump finds in the capture."""

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
from namespace import Namespace  # noqa: E402
from probe_process import WATCHED, WEB, Probe, missing  # noqa: E402

EVERY_PACKET = 2**32 - 1
WITH_TAG = "vlan 42 and host %s"


def found_by_tcpdump(capture, expression):
    run = subprocess.run(["tcpdump", "-r", capture, "-w", "-", "--time-stamp-precision=nano", expression],
                         capture_output=True, check=True)
    return pcap_files.parse(run.stdout)


def tagged_copy(folder):
    path = os.path.join(folder, "tagged.pcap")
    subprocess.run(["tcprewrite", "--enet-vlan=add", "--enet-vlan-tag=42", "--enet-vlan-cfi=0", "--enet-vlan-pri=0",
                    "-i", WEB, "-o", path], check=True, capture_output=True)
    return path


def frames(packets):
    return collections.Counter(frame for _, frame in packets)


def by_flow(packets):
    flows = collections.defaultdict(list)
    for packet in packets:
        flows[pcap_files.flow_of(packet[1])].append(packet)
    return flows


class Road:
    """A probe that gets a capture in two halves, with a rule for each watched address between them."""

    def __init__(self, capture, expression="host %s", heavy=EVERY_PACKET):
        self.packets = pcap_files.read(capture)
        middle = len(self.packets) // 2
        self.halves = self.packets[:middle], self.packets[middle:]
        self.wanted = {address: found_by_tcpdump(capture, expression % address) for address in WATCHED}
        self.heavy = heavy
        self.probe.do("heavy", str(heavy))

    def send_first_half(self):
        self.send(0)
        self.probe.wait_counted("handed_on", len(self.halves[0]))

    def add_rules(self):
        self.commands = {address: self.probe.add_and_wait(address, "-n", "rule of " + address[:4])
                         for address in WATCHED}

    def send_second_half(self):
        self.send(1)
        self.probe.wait_counted("handed_on", len(self.packets))
        self.ended_ns = time.time_ns()
        for address in WATCHED:
            self.probe.do("remove", address)

    def finish(self):
        self.answers = {}
        for address, command in self.commands.items():
            status, (self.answers[address],) = self.probe.finish_ctl(command)
            assert status == 0, self.answers[address]

    def expected(self, address):
        """What belongs into the history files, and what into the live file."""
        seen = collections.Counter()
        first, before = set(self.halves[0]), set()
        for packet in self.halves[0]:
            flow = pcap_files.flow_of(packet[1])
            seen[flow] += 1
            if seen[flow] <= self.heavy:
                before.add(packet)
        return ([packet for packet in self.wanted[address] if packet in before],
                [packet for packet in self.wanted[address] if packet not in first])

    def files(self, address):
        """The same as found, each file by itself."""
        answer = self.answers[address]
        return ([pcap_files.read(self.probe.capture(name)) for name in answer["history_files"]],
                pcap_files.read(self.probe.capture(answer["live_file"])))


class Replay(Road):
    """From a pipe."""

    def __init__(self, capture, queues, **options):
        # Flows end by their ports alone: "the first packets of a flow" is then the capture's business.
        self.probe = Probe("-r", "-", "--speed", "0", "-q", str(queues), "--idle-timeout", "100000",
                           "--active-timeout", "100000", params="buffer_size=64")
        super().__init__(capture, **options)
        self.probe.feed(pcap_files.pcap_header())

    def send(self, half):
        self.probe.feed(pcap_files.records(self.halves[half]))


class Wire(Road):
    """Over a pair of interfaces."""

    def __init__(self, capture, net, pair, **options):
        self.net, self.pair = net, pair
        self.began_ns = time.time_ns()
        self.probe = Probe("-i", pair + "-in", "-q", "2", params="buffer_size=64", prefix=net.inside)
        super().__init__(capture, **options)

    def send(self, half):
        path = self.probe.path("half")
        pcap_files.write(path, self.halves[half])
        self.net.send(self.pair, path)


class EndToEnd(unittest.TestCase):
    """All roads side by side: they spend their time waiting for the searches and the monitor."""

    @classmethod
    def setUpClass(cls):
        absent = missing("tcpdump", "tcprewrite")
        if absent:
            raise unittest.SkipTest("missing: " + " ".join(absent))
        folder = tempfile.TemporaryDirectory(prefix="kestrune_test_")
        cls.addClassCleanup(folder.cleanup)
        tagged = tagged_copy(folder.name)
        cls.replays = [cls.make(Replay, WEB, queues) for queues in (1, 2, 4)]
        cls.replays += [cls.make(Replay, WEB, queues, heavy=heavy) for queues, heavy in ((1, 20), (4, 20), (2, 3))]
        cls.replays.append(cls.make(Replay, tagged, 2, expression=WITH_TAG))
        cls.wires = []
        try:
            net = Namespace("plain", "tagged")
            cls.addClassCleanup(net.close)
            cls.wires = [cls.make(Wire, WEB, net, "plain"), cls.make(Wire, tagged, net, "tagged", expression=WITH_TAG)]
        except unittest.SkipTest as reason:
            cls.no_wires = str(reason)
        for step in (Road.send_first_half, Road.add_rules, Road.send_second_half, Road.finish):
            for road in cls.replays + cls.wires:
                step(road)

    @classmethod
    def make(cls, kind, *arguments, **options):
        road = kind(*arguments, **options)
        cls.addClassCleanup(road.probe.close)
        return road

    def check_end(self, road):
        for address in WATCHED:
            self.check_answer(road, address)
        self.assertEqual((road.probe.stop(), road.probe.text("err")), (0, ""))
        self.assertEqual(road.probe.last_counters()["handed_on"], len(road.packets))

    def check_answer(self, road, address):
        answer = road.answers[address]
        history, live = road.expected(address)
        self.assertGreater(min(len(history), len(live)), 100)
        self.assertEqual((answer["live_packets"], answer["history_packets"]), (len(live), len(history)))
        name = "rule of %s_%d" % (address[:4], answer["rule"])
        self.assertEqual(answer["live_file"], name)
        self.assertEqual([name, *answer["history_files"]],
                         [file for file in road.probe.captures() if file.startswith(name)])

    def check_times(self, wire, packets):
        """The kernel's: they rise, with true nanoseconds, and lie within the test."""
        times = [time_ns for time_ns, _ in packets]
        self.assertEqual(times, sorted(times))
        self.assertTrue(wire.began_ns < times[0] and times[-1] < wire.ended_ns)
        self.assertTrue(any(time_ns % 1000 for time_ns in times) or len(times) < 5)

    def test_files_of_a_replay_hold_every_packet_in_its_place(self):
        for replay in self.replays:
            self.check_end(replay)
            for address in WATCHED:
                expected_history, expected_live = replay.expected(address)
                history, live = replay.files(address)
                self.assertTrue(sorted(sum(history, [])) == sorted(expected_history))
                for file in history:  # of a queue: in the order of the capture
                    members = set(file)
                    self.assertTrue(file == [packet for packet in expected_history if packet in members])
                self.assertTrue(by_flow(live) == by_flow(expected_live))

    def test_files_of_an_interface_hold_every_packet_that_was_sent(self):
        if not self.wires:
            self.skipTest(self.no_wires)
        for wire in self.wires:
            self.check_end(wire)
            self.assertEqual(wire.probe.last_counters()["kernel_dropped"], 0)
            for address in WATCHED:
                expected_history, expected_live = wire.expected(address)
                history, live = wire.files(address)
                self.assertTrue(frames(sum(history, [])) == frames(expected_history))
                self.assertTrue(frames(live) == frames(expected_live))
                for packets in (*history, *by_flow(live).values()):
                    self.check_times(wire, packets)


if __name__ == "__main__":
    run_tests.main()
