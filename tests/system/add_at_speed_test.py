"""A rule added while packets run as fast as the probe reads them. Between its offering to the rings and the start of
its live capture packets may be missing: how many and for how long is printed; all others are there, once.

The packets are numbered, and carry the time at which the probe handed them on. KESTRUNE_LONG gives more rounds."""

import collections
import os
import statistics
import struct
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from control_client import SUCCESS, Client  # noqa: E402
from probe_process import Probe, wait_until  # noqa: E402

FLOWS = 8  # the first half of them of the first address
CHUNK = 16384  # packets, the same ones again and again
OF_FLOW = CHUNK // FLOWS
ADDRESSES = ("10.9.0.1", "10.9.0.2")
CHUNKS_BEFORE = 6
CHUNKS_AFTER = 3
ROUNDS = 20 if os.environ.get("KESTRUNE_LONG") else 2
SECOND = 10**9


def frame(number):
    flow = number % FLOWS
    source = bytes((10, 9, 0, 1 + flow // (FLOWS // 2)))
    ip = struct.pack(">BBHHHBBH", 0x45, 0, 46, 0, 0, 64, 17, 0) + source + bytes((10, 8, 0, 1))
    udp = struct.pack(">HHHH", 4000 + flow, 9, 26, 0)
    return bytes(12) + b"\x08\x00" + ip + udp + struct.pack(">I", number) + bytes(14)


def number_of(data):
    return struct.unpack_from(">I", data, 42)[0]


class Feeder(threading.Thread):
    """Writes chunks into the probe's input until told to stop; `chunks` counts those begun."""

    def __init__(self, probe):
        super().__init__()
        self.probe = probe
        self.chunk = pcap_files.records([(0, frame(number)) for number in range(CHUNK)])
        self.chunks = 0
        self.last = None  # feed up to this chunk
        self.start()

    def run(self):
        self.probe.feed(pcap_files.pcap_header())
        while self.last is None or self.chunks < self.last:
            self.chunks += 1
            self.probe.feed(self.chunk)

    def wait_for_more(self, chunks):
        target = self.chunks + chunks
        wait_until(lambda: self.chunks >= target, "chunks fed")

    def finish(self):
        """The packets fed."""
        self.last = self.chunks + CHUNKS_AFTER
        self.join()
        return self.chunks * CHUNK


class Rule:
    """What the files of one address hold."""

    def __init__(self, probe, name):
        files = [file for file in probe.captures() if file.startswith(name + "_")]
        self.history = {file: pcap_files.read(probe.capture(file)) for file in files if "_hc_" in file}
        self.live = pcap_files.read(probe.capture(next(file for file in files if "_hc_" not in file)))

    def streams(self, packets):
        """Per flow its packets, as (time, number in the flow)."""
        flows = collections.defaultdict(list)
        for nanoseconds, data in packets:
            flows[number_of(data) % FLOWS].append((nanoseconds, number_of(data) // FLOWS))
        return flows


class AddAtSpeed(unittest.TestCase):
    def start(self, queues, megabytes):
        probe = Probe("-r", "-", "--speed", "0", "--rebase", "-q", str(queues), params="buffer_size=%d" % megabytes)
        self.addCleanup(probe.close)
        client = Client(probe.port)
        self.addCleanup(client.close)
        self.assertEqual(client.set_heavy_size(2**32 - 1), SUCCESS)
        return probe, client

    def add(self, client, address, name):
        """Add a rule: the times before and after it."""
        before = time.time_ns()
        self.assertEqual(client.add(address, name=name), SUCCESS)
        return before, time.time_ns()

    def finish(self, probe, client, feeder):
        """The rest of the packets, every search, a clean end: the number of packets fed."""
        fed = feeder.finish()
        probe.wait_handed_on(fed)
        wait_until(lambda: client.history()["rules"] == 0, "the searches have begun")
        self.assertEqual(probe.stop(), 0, probe.text("err"))
        self.assertEqual(probe.text("err"), "")
        return fed

    def check_run(self, stream):
        """One after the other, nothing twice and nothing left out, at times that rise."""
        for (time_before, before), (time_after, after) in zip(stream, stream[1:]):
            self.assertEqual(after, (before + 1) % OF_FLOW)
            self.assertGreaterEqual(time_after, time_before)

    def check_rule(self, rule, fed, times, whole=True):
        """Everything before and after one window, once each; `whole`: from the first packet on. Per queue the
        packets missing and the nanoseconds between the last one before and the first one after."""
        live = rule.streams(rule.live)
        windows = []
        for packets in rule.history.values():
            missing, last, first = 0, 0, 2**64
            for flow, stream in rule.streams(packets).items():
                self.check_run(stream)
                self.check_run(live[flow])
                self.assertEqual(live[flow][-1][1], OF_FLOW - 1, "up to the last packet")
                if whole:
                    self.assertEqual(stream[0][1], 0, "from the first packet on")
                    left = fed // FLOWS - len(stream) - len(live[flow])
                    self.assertGreaterEqual(left, 0)
                else:
                    left = (live[flow][0][1] - stream[-1][1] - 1) % OF_FLOW
                missing += left
                last = max(last, stream[-1][0])
                first = min(first, live[flow][0][0])
            windows.append((missing, first - last))
            self.assertGreater(last, times[0] - SECOND // 2, "up to the request")
            self.assertLess(first, times[1] + SECOND // 2, "from the answer on")
        self.assertEqual(sum(len(rule.streams(packets)) for packets in rule.history.values()), len(live))
        return windows

    def report(self, what, windows, rate):
        lossy = [(missing, nanoseconds / 1000) for missing, nanoseconds in windows if missing]
        text = "%d of %d windows lost packets" % (len(lossy), len(windows))
        if lossy:
            missing, lengths = zip(*lossy)
            text += "; those: median %d packets, %.0f us, most %d packets, %.0f us" % (
                statistics.median(missing), statistics.median(lengths), max(missing), max(lengths))
        print("%s, %.2f million packets/s: %s" % (what, rate, text), flush=True)

    def measure(self, queues):
        windows = []
        rates = []
        for _ in range(ROUNDS):
            probe, client = self.start(queues, 2048)
            feeder = Feeder(probe)
            feeder.wait_for_more(CHUNKS_BEFORE)
            times = self.add(client, ADDRESSES[0], "speed")
            fed = self.finish(probe, client, feeder)
            rule = Rule(probe, "speed")
            windows += self.check_rule(rule, fed, times)
            packets = [packet for file in rule.history.values() for packet in file]
            span = max(packets)[0] - min(packets)[0]
            rates.append(2 * len(packets) * 1000 / span)  # the other address has as many
            probe.close()
        self.report("%d queue(s)" % queues, windows, statistics.median(rates))

    def test_one_queue_misses_packets_of_the_window_only(self):
        self.measure(1)

    def test_two_queues_miss_packets_of_their_windows_only(self):
        self.measure(2)

    def test_full_ring_gives_all_that_it_holds(self):
        probe, client = self.start(1, 8)
        feeder = Feeder(probe)
        wait_until(lambda: feeder.chunks * CHUNK > 2 * client.history()["packets"] + CHUNK, "a full ring")
        held = client.history()["packets"]
        times = self.add(client, ADDRESSES[0], "full")
        fed = self.finish(probe, client, feeder)
        rule = Rule(probe, "full")
        windows = self.check_rule(rule, fed, times, whole=False)
        found = sum(map(len, rule.history.values()))
        self.assertGreaterEqual(found, held // 2 - FLOWS, "half of the packets are this address's")
        print("full ring of %d packets: %d found, %d missing" % (held, found, windows[0][0]), flush=True)

    def test_rule_added_in_the_pause_between_searches_misses_nothing(self):
        probe, client = self.start(1, 2048)
        feeder = Feeder(probe)
        feeder.wait_for_more(CHUNKS_BEFORE)
        self.add(client, ADDRESSES[0], "first")
        wait_until(lambda: client.history()["rules"] == 0, "the first search has begun")
        # The history takes packets up to the second of the rule: keep clear of a second's end.
        wait_until(lambda: time.time_ns() % SECOND < SECOND * 6 // 10, "the middle of a second")
        times = self.add(client, ADDRESSES[1], "second")
        fed = self.finish(probe, client, feeder)
        windows = self.check_rule(Rule(probe, "second"), fed, times)
        if times[0] // SECOND == times[1] // SECOND:
            self.assertEqual([missing for missing, _ in windows], [0])


if __name__ == "__main__":
    run_tests.main()
