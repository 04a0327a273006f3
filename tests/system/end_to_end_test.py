"""One request's whole road, on a real capture: packets from the probe through the plugin into files, rules from
kestrunectl in a pause half-way. Live and history files together must hold what tcpdump finds in the capture."""

import collections
import os
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from probe_process import WATCHED, WEB, Probe, missing  # noqa: E402

TAG = 42
EVERY_PACKET = str(2**32 - 1)


def found_by_tcpdump(capture, expression):
    """What `tcpdump -r` finds; the packets' numbers in the capture are unknown to it."""
    run = subprocess.run(["tcpdump", "-r", capture, "-w", "-", "--time-stamp-precision=nano", expression],
                         capture_output=True, check=True)
    return pcap_files.parse(run.stdout)


def tagged_copy(folder):
    path = os.path.join(folder, "tagged.pcap")
    subprocess.run(["tcprewrite", "--enet-vlan=add", "--enet-vlan-tag=%d" % TAG, "--enet-vlan-cfi=0",
                    "--enet-vlan-pri=0", "-i", WEB, "-o", path], check=True, capture_output=True)
    return path


class Replay:
    """A probe that is fed a capture in two halves, with a rule for each watched address between them."""

    def __init__(self, capture, queues, expression="host %s", heavy=EVERY_PACKET):
        self.packets = pcap_files.read(capture)
        self.middle = len(self.packets) // 2
        self.heavy = int(heavy)
        self.wanted = {address: found_by_tcpdump(capture, expression % address) for address in WATCHED}
        # Flows end by their ports alone: "the first packets of a flow" is then the capture's business.
        self.probe = Probe("-r", "-", "--speed", "0", "-q", str(queues), "--idle-timeout", "100000",
                           "--active-timeout", "100000", params="buffer_size=64")
        self.probe.do("heavy", heavy)

    def feed_first_half(self):
        self.probe.feed(pcap_files.pcap_header() + pcap_files.records(self.packets[:self.middle]))

    def add_rules(self):
        self.probe.wait_handed_on(self.middle)
        self.commands = {address: self.probe.add_and_wait(address, "-n", "rule of " + address[:4])
                         for address in WATCHED}

    def feed_second_half(self):
        self.probe.feed(pcap_files.records(self.packets[self.middle:]))
        self.probe.wait_handed_on(len(self.packets))
        for address in WATCHED:
            self.probe.do("remove", address)

    def finish(self):
        self.answers = {}
        for address, command in self.commands.items():
            status, lines = self.probe.finish_ctl(command)
            assert status == 0 and len(lines) == 1, (lines, command.errors)
            self.answers[address] = lines[0]

    def halves(self, address):
        """What belongs into the history files, and what into the live file."""
        seen = collections.Counter()
        before = collections.Counter()
        for packet in self.packets[:self.middle]:
            flow = pcap_files.flow_of(packet[1])
            seen[flow] += 1
            before[packet] += 1 if seen[flow] <= self.heavy else 0
        first = collections.Counter(self.packets[:self.middle])
        history = [packet for packet in self.wanted[address] if before[packet] > 0]
        live = [packet for packet in self.wanted[address] if first[packet] == 0]
        return history, live


class EndToEnd(unittest.TestCase):
    """All replays run side by side: they spend their time waiting for the searches and the monitor."""

    @classmethod
    def setUpClass(cls):
        cls.absent = missing("tcpdump", "tcprewrite")
        if "tcpdump" in cls.absent:
            raise unittest.SkipTest("missing: tcpdump")
        folder = tempfile.TemporaryDirectory(prefix="kestrune_e2e_")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        cls.plain = [cls.start(WEB, queues) for queues in (1, 2, 4)]
        cls.few = [cls.start(WEB, queues, heavy=heavy) for queues, heavy in ((1, "20"), (4, "20"), (2, "3"))]
        cls.tagged = []
        if not cls.absent:
            cls.tagged.append(cls.start(tagged_copy(cls.folder), 2, expression="vlan %d and host %%s" % TAG))
        for step in (Replay.feed_first_half, Replay.add_rules, Replay.feed_second_half, Replay.finish):
            for replay in cls.plain + cls.few + cls.tagged:
                step(replay)

    @classmethod
    def start(cls, *arguments, **options):
        replay = Replay(*arguments, **options)
        cls.addClassCleanup(replay.probe.close)
        return replay

    def check_all(self, replays):
        for replay in replays:
            for address in WATCHED:
                self.check(replay, address)
            self.assertEqual(replay.probe.stop(), 0, replay.probe.text("err"))
            self.assertEqual(replay.probe.text("err"), "")
            self.assertEqual(replay.probe.last_counters()["handed_on"], len(replay.packets))

    def check(self, replay, address):
        history, live = replay.halves(address)
        self.assertGreater(min(len(history), len(live)), 100)
        answer = replay.answers[address]
        self.assertEqual((answer["live_packets"], answer["history_packets"]), (len(live), len(history)))
        self.check_names(replay, address, answer)
        paths = [replay.probe.capture(name) for name in (answer["live_file"], *answer["history_files"])]
        files = [pcap_files.read(path) for path in paths]
        self.check_packets(replay.wanted[address], live, files[:1], pcap_files.flow_of)
        self.check_packets(replay.wanted[address], history, files[1:], lambda frame: None)
        self.check_merged(replay, paths, files)

    def check_names(self, replay, address, answer):
        live = "rule of %s_%d" % (address[:4], answer["rule"])
        self.assertEqual(answer["live_file"], live)
        named = [answer["live_file"], *answer["history_files"]]
        self.assertEqual(named, [name for name in replay.probe.captures() if name.startswith(live)])

    def check_packets(self, capture_order, expected, files, stream_of):
        """Together exactly the expected packets; in each file those of one stream in the order of the capture. A
        queue's file is one stream; the live file is written by all queues, and has a stream per flow."""
        self.assertEqual(collections.Counter(packet for file in files for packet in file),
                         collections.Counter(expected))
        places = {packet: number for number, packet in enumerate(capture_order)}
        self.assertEqual(len(places), len(capture_order), "packets of the capture are told apart")
        for file in files:
            last = collections.defaultdict(lambda: -1)
            for packet in file:
                stream = stream_of(packet[1])
                self.assertGreater(places[packet], last[stream])
                last[stream] = places[packet]

    def check_merged(self, replay, paths, files):
        merged = os.path.join(self.folder, "merged")
        self.assertEqual(replay.probe.do("merge", "--force", *paths, "-o", merged)["packets"], sum(map(len, files)))
        packets = pcap_files.read(merged)
        self.assertEqual(collections.Counter(packets), collections.Counter(packet for file in files for packet in file))
        times = [nanoseconds for nanoseconds, _ in packets]
        self.assertEqual(times, sorted(times))

    def test_live_and_history_files_hold_what_the_capture_holds(self):
        self.check_all(self.plain)

    def test_tagged_packets_keep_their_tags(self):
        if self.absent:
            self.skipTest("missing: " + " ".join(self.absent))
        self.check_all(self.tagged)

    def test_history_holds_the_first_packets_of_each_flow(self):
        self.check_all(self.few)


if __name__ == "__main__":
    run_tests.main()
