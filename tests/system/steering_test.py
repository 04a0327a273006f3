"""kestrunectl against the plugin in the probe: what it says is what the plugin does."""

import os
import socket
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from probe_process import WATCHED, WEB, Probe, wait_until  # noqa: E402

IPV4, IPV6 = WATCHED
HALF = 3726
INTERRUPTED = 130


class Steering(unittest.TestCase):
    def setUp(self):
        self.packets = pcap_files.read(WEB)
        self.probe = Probe("-r", "-", "--speed", "0", "-q", "2", "-v", "4", params="buffer_size=64")
        self.addCleanup(self.probe.close)

    def feed(self, first, last):
        header = pcap_files.pcap_header() if first == 0 else b""
        self.probe.feed(header + pcap_files.records(self.packets[first:last]))
        self.probe.wait_counted("handed_on", last)

    def count(self, address, sides):
        """Packets of the first half with the address on one of the sides (0 source, 1 destination)."""
        key = socket.inet_pton(socket.AF_INET6 if ":" in address else socket.AF_INET, address)
        begin = 22 if len(key) == 16 else 26
        places = [slice(begin + side * len(key), begin + (side + 1) * len(key)) for side in sides]
        return sum(1 for _, data in self.packets[:HALF] if key in [data[place] for place in places])

    def test_a_rules_life_is_the_same_in_every_view(self):
        self.probe.do("heavy", str(len(self.packets)))
        watch = self.probe.start_ctl("watch")
        wait_until(lambda: "register client" in self.probe.text("err"), "the watcher")
        self.feed(0, HALF)
        limited = self.probe.add_and_wait(IPV4, "-c", "500", "-t", "1h", "-n", "web traffic")
        only = self.probe.add_and_wait(IPV6, "-d", "src", "--history-only")
        self.assertEqual(self.probe.rules(), [IPV6, IPV4])
        self.probe.do("heavy", "0")  # a search that is yet to come would take packets of this same second
        self.assertEqual([rule["address"] for rule in self.probe.do("list", "-d", "src")["rules"]], [IPV6])
        self.feed(HALF, len(self.packets))
        shown = self.probe.do("show", IPV4)
        self.assertEqual([shown[key] for key in ("direction", "name", "packets", "packet_limit", "time_limit_s")],
                         ["both", "web traffic", 500, 500, 3600])
        self.check_finished(watch, limited, "web traffic_0", 500, self.count(IPV4, (0, 1)))
        self.check_finished(watch, only, None, 0, self.count(IPV6, (0,)))
        self.assertEqual(self.probe.rules(), [])
        watch.interrupt()
        self.assertEqual(self.probe.finish_ctl(watch)[0], INTERRUPTED)
        self.assertEqual(self.probe.stop(), 0)

    def check_finished(self, watch, waiter, live_file, live_packets, history_packets):
        status, (answer,) = self.probe.finish_ctl(waiter)
        self.assertEqual((status, answer["ok"], answer["finished"]), (0, True, True), answer)
        self.assertEqual((answer["live_file"], answer["live_packets"], answer["history_packets"]),
                         (live_file, live_packets, history_packets))
        found = [pcap_files.read(self.probe.capture(name)) for name in answer["history_files"]]
        self.assertEqual(sum(map(len, found)), history_packets)
        if live_file:
            self.assertEqual(len(pcap_files.read(self.probe.capture(live_file))), live_packets)
        wait_until(lambda: any(event["event"] == "visual" and event["rule"] == answer["rule"]
                               for event in watch.lines), "the watcher's report")
        events = [event for event in watch.lines if event["rule"] == answer["rule"]]
        self.assertEqual({event["address"] for event in events}, {answer["address"]})
        self.assertEqual([events[0]["event"], events[-2]["event"], events[-1]["event"]],
                         ["incident", "capture", "visual"])
        self.assertEqual(events[-2]["progress"], 100)
        for field in ("live_file", "live_packets", "history_files", "history_packets"):
            self.assertEqual(events[-1][field], answer[field])


if __name__ == "__main__":
    run_tests.main()
