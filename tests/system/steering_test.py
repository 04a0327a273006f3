"""kestrunectl against the plugin in the probe: what it says is what the plugin does."""

import os
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from probe_process import WATCHED, WEB, Probe, built, wait_until  # noqa: E402

IPV4, IPV6 = WATCHED
HALF = 3726
REFUSED, NO_CONNECTION, FAILED, TIMED_OUT, INTERRUPTED = 4, 3, 1, 124, 130


class Steering(unittest.TestCase):
    def setUp(self):
        self.packets = pcap_files.read(WEB)
        self.probe = Probe("-r", "-", "--speed", "0", "-q", "2", "-v", "4", params="buffer_size=64")
        self.addCleanup(self.probe.close)

    def feed(self, first, last):
        header = pcap_files.pcap_header() if first == 0 else b""
        self.probe.feed(header + pcap_files.records(self.packets[first:last]))
        self.probe.wait_handed_on(last)

    def refuse(self, *arguments):
        status, answer = self.probe.ctl(*arguments)
        self.assertEqual((status, answer["ok"], answer["status"]), (REFUSED, False, REFUSED), answer)
        return answer["error"]

    def count(self, packets, address, sides):
        """Packets with the address on one of the sides (0 source, 1 destination), Ethernet without tags."""
        key = socket.inet_pton(socket.AF_INET6 if ":" in address else socket.AF_INET, address)
        begin = 22 if len(key) == 16 else 26
        places = [begin + side * len(key) for side in sides]
        kind = b"\x86\xdd" if len(key) == 16 else b"\x08\x00"
        return sum(1 for _, data in packets
                   if data[12:14] == kind and any(data[at:at + len(key)] == key for at in places))

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
        self.assertEqual({key: shown[key] for key in ("direction", "name", "packets", "packet_limit", "time_limit_s")},
                         {"direction": "both", "name": "web traffic", "packets": 500, "packet_limit": 500,
                          "time_limit_s": 3600})
        self.check_finished(watch, limited, "web traffic_0", 500, self.count(self.packets[:HALF], IPV4, (0, 1)))
        self.check_finished(watch, only, None, 0, self.count(self.packets[:HALF], IPV6, (0,)))
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

    def test_history_and_threshold_follow_the_requests(self):
        status = self.probe.do("history", "status")
        self.assertEqual((status["on"], status["queues"], status["size_bytes"], status["packets"]),
                         (True, 2, 64 << 20, 0))
        self.assertEqual(status["heavy_size"], 20)
        self.assertIn("on already", self.refuse("history", "on", "32M"))
        self.probe.do("history", "off")
        self.assertIn("off already", self.refuse("history", "off"))
        self.assertFalse(self.probe.do("history", "status")["on"])
        self.feed(0, 100)
        self.probe.do("history", "on", "32M")
        self.probe.do("heavy", "4000000000")
        self.feed(100, HALF)
        status = self.probe.do("history", "status")
        self.assertEqual((status["packets"], status["size_bytes"], status["heavy_size"]),
                         (HALF - 100, 32 << 20, 4000000000))

    def test_each_outcome_has_its_exit_status(self):
        self.assertIn("no rule", self.refuse("remove", IPV4))
        self.refuse("show", IPV6)
        self.probe.do("add", IPV4, "-n", "one")
        self.assertIn("another name", self.refuse("add", IPV4, "-n", "two"))
        self.assertEqual(self.probe.do("add", IPV4, "-n", "one", "-c", "7")["packet_limit"], 7)
        self.refuse("remove", "192.168.0.18")
        waiter = self.probe.add_and_wait(IPV6, "-n", "interrupted")
        waiter.interrupt()
        status, (answer,) = self.probe.finish_ctl(waiter)
        self.assertEqual((status, answer["status"]), (INTERRUPTED, INTERRUPTED))
        self.refuse("show", IPV6)  # an interrupted wait ends the live capture
        status, answer = self.probe.ctl("add", "10.0.0.1", "--wait", "--wait-time", "1s")
        self.assertEqual((status, answer["finished"]), (TIMED_OUT, False))
        self.assertIn("10.0.0.1", self.probe.rules())
        port = self.probe.port
        self.assertEqual(self.probe.stop(), 0)
        gone = subprocess.run([built("kestrunectl"), "-s", "127.0.0.1:%d" % port, "list"], capture_output=True,
                              text=True, check=False)
        self.assertEqual((gone.returncode, gone.stdout), (NO_CONNECTION, ""))

    def test_several_probes_are_steered_at_once(self):
        with Probe("-r", "-", params="buffer_size=8") as other:
            second = "127.0.0.1:%d" % other.port
            status, lines = self.probe.finish_ctl(self.probe.start_ctl("-s", second, "add", IPV4))
            self.assertEqual(status, 0)
            self.assertEqual({line["probe"] for line in lines}, {second, "127.0.0.1:%d" % self.probe.port})
            other.do("history", "off")
            status, lines = self.probe.finish_ctl(self.probe.start_ctl("-s", second, "history", "off"))
            self.assertEqual((status, {line["probe"]: line["ok"] for line in lines}),
                             (REFUSED, {second: False, "127.0.0.1:%d" % self.probe.port: True}))

    def test_merge_keeps_every_packet_and_overwrites_nothing(self):
        with tempfile.TemporaryDirectory(prefix="kestrune_e2e_") as folder:
            parts = [os.path.join(folder, "part %d" % number) for number in range(3)]
            for number, path in enumerate(parts):
                pcap_files.write(path, self.packets[number::3])
            merged = os.path.join(folder, "merged")
            self.assertEqual(self.probe.do("merge", *parts, "-o", merged)["packets"], len(self.packets))
            self.assertEqual(sorted(pcap_files.read(merged)), sorted(self.packets))
            self.assertEqual(self.probe.ctl("merge", *parts, "-o", merged)[0], FAILED)
            self.assertEqual(self.probe.ctl("merge", parts[0], folder + "/none", "-o", folder + "/new")[0], FAILED)


if __name__ == "__main__":
    run_tests.main()
