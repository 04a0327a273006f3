"""One request's whole road, on a real capture: packets from the probe through the plugin into files, rules from
kestrunectl in a pause half-way. Live and history files together must hold what tcpdump finds in the capture."""

import collections
import subprocess
import unittest

import pcap_files
import run_tests
from probe_process import WATCHED, WEB, Probe, missing, wait_until

EVERY_PACKET = 2**32 - 1


def found_by_tcpdump(capture, expression):
    run = subprocess.run(["tcpdump", "-r", capture, "-w", "-", "--time-stamp-precision=nano", expression],
                         capture_output=True, check=True)
    return pcap_files.parse(run.stdout)


def by_flow(packets):
    flows = collections.defaultdict(list)
    for packet in packets:
        flows[pcap_files.flow_of(packet[1])].append(packet)
    return flows


class Replay:
    """A probe that gets a capture in two halves from a pipe, with a rule for each watched address between them."""

    def __init__(self, capture, queues, expression="host %s", heavy=EVERY_PACKET):
        # Flows end by their ports alone: "the first packets of a flow" is then the capture's business.
        self.probe = Probe("-r", "-", "--speed", "0", "-q", str(queues), "--idle-timeout", "100000",
                           "--active-timeout", "100000", "-v", "4", params="buffer_size=64")
        self.packets = pcap_files.read(capture)
        middle = len(self.packets) // 2
        self.halves = self.packets[:middle], self.packets[middle:]
        self.wanted = {address: found_by_tcpdump(capture, expression % address) for address in WATCHED}
        self.heavy = heavy
        self.probe.do("heavy", str(heavy))
        self.watch = self.probe.start_ctl("watch")
        wait_until(lambda: "register client" in self.probe.text("err"), "the watcher")

    def send_first_half(self):
        self.probe.feed(pcap_files.pcap_header() + pcap_files.records(self.halves[0]))
        self.probe.wait_counted("handed_on", len(self.halves[0]))

    def add_rules(self):
        self.commands = {address: self.probe.add_and_wait(address, "-n", "rule of " + address[:4])
                         for address in WATCHED}

    def send_second_half(self):
        self.probe.feed(pcap_files.records(self.halves[1]))
        self.probe.wait_counted("handed_on", len(self.packets))
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


@unittest.skipIf(missing("tcpdump", "tcprewrite"), "tcpdump or tcprewrite is missing")
class EndToEnd(run_tests.InFolder):
    def make(self, *arguments, **options):
        replay = Replay(*arguments, **options)
        self.addCleanup(replay.probe.close)
        return replay

    def make_all(self):
        """All side by side: they spend their time waiting for the searches and the monitor."""
        tagged = self.path("tagged.pcap")
        subprocess.run(["tcprewrite", "--enet-vlan=add", "--enet-vlan-tag=42", "--enet-vlan-cfi=0",
                        "--enet-vlan-pri=0", "-i", WEB, "-o", tagged], check=True, capture_output=True)
        replays = [self.make(WEB, queues, heavy=heavy) for queues, heavy in
                   ((1, EVERY_PACKET), (2, EVERY_PACKET), (4, EVERY_PACKET), (1, 20), (4, 20), (2, 3))]
        replays.append(self.make(tagged, 2, expression="vlan 42 and host %s"))
        for step in (Replay.send_first_half, Replay.add_rules, Replay.send_second_half, Replay.finish):
            for replay in replays:
                step(replay)
        return replays

    def check_answer(self, replay, address, answer):
        history, live = replay.expected(address)
        self.assertGreater(min(len(history), len(live)), 100)
        self.assertEqual((answer["live_packets"], answer["history_packets"]), (len(live), len(history)))
        name = "rule of %s_%d" % (address[:4], answer["rule"])
        self.assertEqual(answer["live_file"], name)
        self.assertEqual([name, *answer["history_files"]],
                         [file for file in replay.probe.captures() if file.startswith(name)])
        wait_until(lambda: [event for event in replay.watch.lines if event["event"] == "visual"
                            and event["rule"] == answer["rule"]], "the watcher's report")
        events = [event for event in replay.watch.lines if event["rule"] == answer["rule"]]
        self.assertEqual({event["address"] for event in events}, {address})
        self.assertEqual((events[0]["event"], events[-2]["progress"]), ("incident", 100))
        for field in ("live_file", "live_packets", "history_files", "history_packets"):
            self.assertEqual(events[-1][field], answer[field])

    def test_files_of_a_replay_hold_every_packet_in_its_place(self):
        for replay in self.make_all():
            for address, answer in replay.answers.items():
                self.check_answer(replay, address, answer)
                expected_history, expected_live = replay.expected(address)
                history = [pcap_files.read(replay.probe.capture(name)) for name in answer["history_files"]]
                live = pcap_files.read(replay.probe.capture(answer["live_file"]))
                self.assertTrue(sorted(sum(history, [])) == sorted(expected_history))
                for file in history:  # of a queue: in the order of the capture
                    members = set(file)
                    self.assertTrue(file == [packet for packet in expected_history if packet in members])
                self.assertTrue(by_flow(live) == by_flow(expected_live))
            self.assertEqual((replay.probe.stop(), replay.probe.last_counters()["handed_on"]), (0, len(replay.packets)))


if __name__ == "__main__":
    run_tests.main()
