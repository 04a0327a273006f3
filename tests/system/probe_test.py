"""The built probe on capture files and interfaces, with a plugin that writes down what it is handed."""

import collections
import ipaddress
import os
import signal
import struct
import subprocess
import time
import unittest

import pcap_files
import run_tests
from namespace import Namespace, run
from probe_process import FRAGMENTS, TAGGED, WEB, ProbeProcess, built, missing, wait_until

IPV4_PACKET = bytes.fromhex("45000014 00000000 40110000 0a000001 0a000002")
IPV4_FRAME = bytes(12) + b"\x08\x00" + IPV4_PACKET
WLAN = 105  # a link type
AT_ONCE = ("--speed", "0")

Packet = collections.namedtuple("Packet", "queue timestamp flow_packets foreign_thread src dst frame")


class Witness(ProbeProcess):
    """The probe with that plugin."""

    def plugin_arguments(self):
        return "-p", built("probe_test_plugin.so"), "-P", "out=" + self.path("handed")

    def wait_started(self):
        wait_until(lambda: os.path.exists(self.path("handed.0")), lambda: "the start: " + self.text("err"))

    def handed(self, queues=1):
        """Each queue's packets in order, as far as they are in its file."""
        packets = []
        for queue in range(queues):
            with open(self.path("handed.%d" % queue), "rb") as file:
                data = file.read()
            at = 0
            while at + 48 <= len(data):
                time_ns, flow_packets, length, version, foreign, src, dst = struct.unpack_from("<QIHBB16s16s", data, at)
                frame = data[at + 48:at + 48 + length]
                size = 4 if version == 4 else 16  # least significant byte first
                packets.append(Packet(queue, time_ns, flow_packets, foreign, src[size - 1::-1], dst[size - 1::-1],
                                      frame))
                at += 48 + length
        return packets


def witness(*arguments, **options):
    """A probe that has run to its end."""
    probe = Witness(*arguments, **options)
    probe.status = probe.wait()
    return probe


def expected_packets(path):
    """The IP packets of a file as tshark sees them: (source, destination, frame, number of the TCP connection)."""
    fields = [option for name in ("ip.src", "ipv6.src", "ip.dst", "ipv6.dst", "tcp.stream") for option in ("-e", name)]
    lines = subprocess.run(["tshark", "-n", "-r", path, "-T", "fields", "-E", "separator=|", *fields],
                           capture_output=True, text=True, check=True).stdout.splitlines()
    packets = []
    for line, (_, frame) in zip(lines, pcap_files.read(path), strict=True):
        src4, src6, dst4, dst6, stream = line.split("|")
        if src4 + src6:
            packets.append((ipaddress.ip_address(src4 + src6).packed, ipaddress.ip_address(dst4 + dst6).packed, frame,
                            stream))
    return packets


class ProbeTest(unittest.TestCase):
    def check_packets(self, packets, expected, queues):
        """Every packet once; every TCP connection in one queue, its counter rising from 0 by 1; all queues in use."""
        self.assertTrue(collections.Counter((packet.src, packet.dst, packet.frame) for packet in packets) ==
                        collections.Counter((src, dst, frame) for src, dst, frame, _ in expected))
        self.assertFalse(any(packet.foreign_thread for packet in packets))
        stream_of = {frame: stream for _, _, frame, stream in expected}
        connections = collections.defaultdict(list)
        for packet in packets:
            connections[stream_of[packet.frame]].append((packet.queue, packet.flow_packets))
        connections.pop("", None)
        for stream, seen in connections.items():
            queue = seen[0][0]
            self.assertEqual(seen, [(queue, number) for number in range(len(seen))], "connection " + stream)
        self.assertEqual({seen[0][0] for seen in connections.values()}, set(range(queues)))


class ProbeOnFiles(ProbeTest, run_tests.InFolder):
    @unittest.skipIf(missing("tshark"), "tshark is missing")
    def test_replay_hands_over_exactly_the_ip_packets_of_the_file(self):
        expected = expected_packets(WEB)
        for queues in (1, 4):
            with witness("-r", WEB, "-q", str(queues), *AT_ONCE, "--idle-timeout", "1000") as probe:
                self.assertEqual((probe.status, probe.text("err")), (0, ""))
                packets, counters = probe.handed(queues), probe.last_counters()
            self.check_packets(packets, expected, queues)
            self.assertEqual([counters[name] for name in ("read", "handed_on", "flows")], [7451, 7451, 334])
            if queues == 1:
                self.assertEqual([packet.timestamp for packet in packets],
                                 [time_ns for time_ns, _ in pcap_files.read(WEB)])

    def test_looped_timestamps_rise_and_files_are_read_in_order(self):
        # Recorded in 2010 and 2009, so that the second file is moved on in the first pass, too.
        with witness("-r", TAGGED, "-r", FRAGMENTS, "--loop", "3", *AT_ONCE) as probe:
            packets = probe.handed()
            self.assertEqual((probe.status, probe.last_counters()["not_ip"]), (0, 3 * 6))
        self.assertEqual([packet.frame for packet in packets], [packet.frame for packet in packets[:20 + 36]] * 3)
        times = [packet.timestamp for packet in packets]
        self.assertEqual(times, sorted(times))
        self.assertEqual(times[19] - times[0], times[56 + 19] - times[56])

    def test_rebased_replay_keeps_the_pace_from_now(self):
        before = time.time_ns()
        with witness("-r", TAGGED, "--rebase", "--speed", "100", "-q", "2") as probe:
            times = sorted(packet.timestamp for packet in probe.handed(2))
        self.assertEqual(len(times), 20)
        self.assertTrue(before <= times[0] and times[-1] <= time.time_ns())
        self.assertAlmostEqual(times[-1] - times[0], 8_580_081_000 / 100, delta=2)  # a hundredth of what was recorded

    def test_a_file_that_ends_in_a_cut_record_is_read_up_to_it(self):
        with open(TAGGED, "rb") as file:
            cut = self.write("cut", file.read()[:-3])
        with witness("-r", cut, *AT_ONCE, "--loop", "2") as probe:
            self.assertEqual((probe.status, probe.last_counters()["read"]), (0, 2 * 25))
            self.assertRegex(probe.text("err"), r"^\S+ WARNING %s ends in a cut record; read up to it\n$" % cut)

    def test_failures_end_with_their_status_and_one_line(self):
        damaged = self.write("damaged", pcap_files.pcap_header() + pcap_files.records([(1, IPV4_FRAME)]) +
                             b"\xff" * 16 + bytes(400))
        none = os.path.join(self.folder, "none")
        cases = (
            (1, ("-r", none), "ERROR cannot read %s: No such file or directory" % none),
            (1, ("-r", self.write("text", b"no capture file, but long enough")), "text: unknown file format"),
            (1, ("-r", damaged, *AT_ONCE), "damaged is damaged: "),
            (1, ("-r", damaged, *AT_ONCE, "-q", "3"), "damaged is damaged: "),
            (1, ("-r", self.write("wlan", pcap_files.pcap_header(link_type=WLAN))), "wlan has link type IEEE802_11;"),
            (1, ("-i", "no_such_if0"), "cannot capture on no_such_if0: no such interface"),
            (1, ("-r", TAGGED, "-p", "/none.so"), "cannot load the plugin: /none.so: cannot open"),
            (1, ("-r", TAGGED, "-P", "refuse=1"), "plugin witness did not start"),
            (2, (), "a source is needed"),
            (2, ("-r", "x", "-i", "y"), "excludes"),
            (2, ("-i", "x", "--loop", "2"), "--loop requires --read"),
            (2, ("-r", "-", "--loop", "2"), "standard input"),
        )
        for status, arguments, words in cases:
            with self.subTest(arguments), witness(*arguments) as probe:
                self.assertEqual(probe.status, status)
                self.assertIn(words, probe.text("err"))
                self.assertEqual(probe.text("err").count("\n"), 1)
                if arguments == ("-r", damaged, *AT_ONCE):
                    self.assertEqual(len(probe.handed()), 1, "what stands before the damage")
        with witness("-r", TAGGED, "-P", "out=/x;buffer=1") as probe:  # and a line of the plugin's start
            self.assertEqual(probe.status, 1)
            self.assertIn('parameter "buffer=1": no such parameter', probe.text("err"))

    def test_signals_print_counters_and_stop_cleanly(self):
        for queues, number in ((1, signal.SIGINT), (4, signal.SIGTERM)):
            with Witness("-r", WEB, "--loop", "0", "--speed", "5", "-q", str(queues)) as probe:
                probe.wait_started()
                probe.wait_counted("handed_on", 1)
                probe.wait_counted("handed_on", probe.last_counters()["handed_on"] + 1)
                self.assertEqual((probe.stop(number), probe.text("err")), (0, ""))
                counters = probe.last_counters()
                self.assertEqual(counters["handed_on"], len(probe.handed(queues)))
                self.assertEqual(counters["handed_on"], counters["read"])

    def test_a_pipe_that_pauses_holds_neither_packets_nor_a_stop_back(self):
        with open(TAGGED, "rb") as file:
            up_to_the_middle_of_the_last_record = file.read()[:-3]
        for queues in (1, 4):
            with Witness("-r", "-", *AT_ONCE, "-q", str(queues)) as probe:
                probe.feed(up_to_the_middle_of_the_last_record)
                probe.wait_started()
                wait_until(lambda: {"read": 25, "handed_on": 20, "not_ip": 5}.items() <= probe.counters().items(),
                           lambda: probe.text("out"))
                self.assertEqual((probe.stop(), probe.text("err")), (0, ""))

    def test_stay_and_delay_serve_until_stopped(self):
        with Witness("-r", TAGGED, *AT_ONCE, "--stay", "-v", "3") as probe:
            probe.wait_started()
            probe.wait_counted("handed_on", 20)
            self.assertEqual(probe.stop(), 0)
            self.assertIn(" INFO(1) witness: started with 1 queues\n", probe.text("err"))
            self.assertIn("stopping", probe.text("err"), "by the signal, not at the end of the file")
        with Witness("-r", TAGGED, *AT_ONCE, "--delay", "1000") as probe:
            probe.wait_started()
            self.assertEqual((probe.stop(signal.SIGINT), probe.last_counters()["read"]), (0, 0))

    def test_log_lines_carry_time_and_level_or_the_journals_priority(self):
        with witness("-r", "/none", env={"JOURNAL_STREAM": "1:2"}) as probe:
            self.assertRegex(probe.text("err"), r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}\S+ ERROR cannot read /none")
        journal = ("bash", "-c", 'JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) exec "$@"', "journal")
        with witness("-r", "/none", prefix=journal) as probe:
            self.assertEqual(probe.text("err"), "<3>cannot read /none: No such file or directory\n")


class ProbeOnAnInterface(ProbeTest):
    def setUp(self):
        self.net = Namespace("wire")
        self.addCleanup(self.net.close)

    def start(self, queues):
        probe = Witness("-i", "wire-in", "-q", str(queues), "-v", "--idle-timeout", "1000", prefix=self.net.inside)
        self.addCleanup(probe.close)
        wait_until(lambda: "capturing on wire-in" in probe.text("err"), lambda: probe.text("err"))
        return probe

    @unittest.skipIf(missing("tshark"), "tshark is missing")
    def test_every_packet_arrives_once_and_connections_stay_together(self):
        expected = expected_packets(WEB) + expected_packets(TAGGED)  # tags included: the bytes are compared
        for queues in (1, 2):
            began_ns = time.time_ns()
            probe = self.start(queues)
            self.net.send("wire", WEB)
            self.net.send("wire", TAGGED)
            probe.wait_counted("read", 7451 + 26)
            self.assertEqual(probe.stop(), 0, probe.text("err"))
            counters = probe.last_counters()
            self.assertEqual([counters[name] for name in ("read", "kernel_dropped", "not_ip")], [7451 + 26, 0, 6])
            packets = probe.handed(queues)
            self.check_packets(packets, expected, queues)
            for queue in range(queues):  # the kernel's times rise, with true nanoseconds, and lie within the test
                times = [packet.timestamp for packet in packets if packet.queue == queue]
                self.assertEqual(times, sorted(times))
                self.assertTrue(began_ns < times[0] and times[-1] < time.time_ns())
                self.assertTrue(any(time_ns % 1000 for time_ns in times))

    def test_an_interface_that_vanishes_ends_the_run(self):
        probe = self.start(2)
        self.assertEqual(run(*self.net.inside, "ip", "link", "del", "wire-in").returncode, 0)
        self.assertEqual(probe.wait(), 1)
        self.assertIn("ERROR capturing on wire-in failed: ", probe.text("err"))

    @unittest.skipIf(missing("setpriv"), "setpriv is missing")
    def test_a_missing_privilege_is_named(self):
        unprivileged = ("setpriv", "--bounding-set=-net_raw,-net_admin", "--inh-caps=-net_raw,-net_admin")
        with witness("-i", "wire-in", prefix=(*self.net.inside, *unprivileged)) as probe:
            self.assertEqual(probe.status, 1)
            self.assertIn("cannot capture on wire-in: permission denied; root or CAP_NET_RAW is needed",
                          probe.text("err"))


if __name__ == "__main__":
    run_tests.main()
