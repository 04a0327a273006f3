"""A rule added while packets run as fast as the probe reads them. Between its offering to the rings and the start of
its live capture packets may be missing: how many and for how long is printed; all others are there, once.

The packets are numbered, and carry the time at which the probe handed them on. KESTRUNE_LONG gives more rounds."""

import collections
import os
import struct
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from control_client import Client  # noqa: E402
from fake_probe import SUCCESS  # noqa: E402
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


def streams(packets):
    """Per flow its packets, as (time, number in the flow)."""
    flows = collections.defaultdict(list)
    for time_ns, data in packets:
        number, = struct.unpack_from(">I", data, 42)
        flows[number % FLOWS].append((time_ns, number // FLOWS))
    return flows


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

    def finish(self):
        """The packets fed."""
        self.last = self.chunks + CHUNKS_AFTER
        self.join()
        return self.chunks * CHUNK


class AddAtSpeed(unittest.TestCase):
    def start(self, queues, megabytes):
        self.probe = Probe("-r", "-", "--speed", "0", "--rebase", "-q", str(queues),
                           params="buffer_size=%d" % megabytes)
        self.addCleanup(self.probe.close)
        self.client = Client(self.probe.port)
        self.addCleanup(self.client.close)
        self.assertEqual(self.client.set_heavy_size(2**32 - 1), SUCCESS)
        self.feeder = Feeder(self.probe)

    def add(self, address, name):
        """Add a rule: the times before and after it."""
        before = time.time_ns()
        self.assertEqual(self.client.add(address, name=name), SUCCESS)
        return before, time.time_ns()

    def wait_searched(self):
        wait_until(lambda: self.client.history()["rules"] == 0, "the searches have begun")

    def finish(self, name):
        """The rest of the packets, every search, a clean end: the number of packets fed, and of a rule what each of
        its history files holds, and the live file."""
        fed = self.feeder.finish()
        self.probe.wait_counted("handed_on", fed)
        self.wait_searched()
        self.assertEqual((self.probe.stop(), self.probe.text("err")), (0, ""))
        files = {file: pcap_files.read(self.probe.capture(file)) for file in self.probe.captures()
                 if file.startswith(name + "_")}
        live = [file for file in files if "_hc_" not in file]
        self.assertEqual(len(live), 1)
        return fed, [packets for file, packets in files.items() if file not in live], files[live[0]]

    def check_run(self, stream):
        """One after the other, nothing twice and nothing left out, at times that rise."""
        for (time_before, before), (time_after, after) in zip(stream, stream[1:]):
            self.assertEqual(after, (before + 1) % OF_FLOW)
            self.assertGreaterEqual(time_after, time_before)

    def check_rule(self, what, fed, history, live, times):
        """Everything before and after one window, once each; `fed` packets, or None when the history's beginning was
        overwritten. Per queue the packets missing."""
        live = streams(live)
        windows = []
        for stored in map(streams, history):
            missing, last, first = 0, 0, 2**64
            for flow, stream in stored.items():
                self.check_run(stream)
                self.check_run(live[flow])
                self.assertEqual(live[flow][-1][1], OF_FLOW - 1, "up to the last packet")
                if fed is None:
                    left = (live[flow][0][1] - stream[-1][1] - 1) % OF_FLOW
                else:
                    self.assertEqual(stream[0][1], 0, "from the first packet on")
                    left = fed // FLOWS - len(stream) - len(live[flow])
                    self.assertGreaterEqual(left, 0)
                missing += left
                last = max(last, stream[-1][0])
                first = min(first, live[flow][0][0])
            windows.append(missing)
            print("%s: %d packets missing, %.0f us between history and live capture"
                  % (what, missing, (first - last) / 1000), flush=True)
            self.assertGreater(last, times[0] - SECOND // 2, "up to the request")
            self.assertLess(first, times[1] + SECOND // 2, "from the answer on")
        self.assertEqual(sum(map(len, map(streams, history))), len(live))
        return windows

    def test_packets_are_missing_in_the_window_only(self):
        for queues in (1, 2) * ROUNDS:
            self.start(queues, 2048)
            wait_until(lambda: self.feeder.chunks >= CHUNKS_BEFORE, "chunks fed")
            times = self.add(ADDRESSES[0], "speed")
            fed, history, live = self.finish("speed")
            stored = sum(history, [])
            rate = 2 * len(stored) * 1000 / (max(stored)[0] - min(stored)[0])  # the other address has as many
            self.check_rule("%d queue(s), %.2f million packets/s" % (queues, rate), fed, history, live, times)
            self.probe.close()

    def test_full_ring_gives_all_that_it_holds(self):
        self.start(1, 8)
        wait_until(lambda: self.feeder.chunks * CHUNK > 2 * self.client.history()["packets"] + CHUNK, "a full ring")
        held = self.client.history()["packets"]
        times = self.add(ADDRESSES[0], "full")
        _, history, live = self.finish("full")
        self.check_rule("full ring of %d packets" % held, None, history, live, times)
        self.assertGreaterEqual(len(history[0]), held // 2 - FLOWS, "half of the packets are this address's")

    def test_rule_added_in_the_pause_between_searches_misses_nothing(self):
        self.start(1, 2048)
        wait_until(lambda: self.feeder.chunks >= CHUNKS_BEFORE, "chunks fed")
        self.add(ADDRESSES[0], "first")
        self.wait_searched()
        # The history takes packets up to the second of the rule: keep clear of a second's end, and of its beginning,
        # when the plugin's clock, which moves in ticks, may still show the second before.
        wait_until(lambda: SECOND // 10 < time.time_ns() % SECOND < SECOND * 6 // 10, "the middle of a second")
        times = self.add(ADDRESSES[1], "second")
        fed, history, live = self.finish("second")
        windows = self.check_rule("in the pause", fed, history, live, times)
        if times[0] // SECOND == times[1] // SECOND:
            self.assertEqual(windows, [0])


if __name__ == "__main__":
    run_tests.main()
