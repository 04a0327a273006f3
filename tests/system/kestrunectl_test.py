"""kestrunectl as a program, against stand-ins for the plugin's control port, and merging capture files. KESTRUNECTL
names the program."""

import json
import os
import pty
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
from fake_probe import ADD, BOTH, DETAIL, INFO, LIST, FakeProbe, Server, key_of  # noqa: E402

PROGRAM = os.environ["KESTRUNECTL"]
LIMIT_S = 60  # that no call may take


def start(*arguments, **options):
    return subprocess.Popen([PROGRAM, *arguments], text=True, env={**os.environ, "TERM": "xterm"},
                            **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})


def finish(process):
    out, err = process.communicate(timeout=LIMIT_S)
    return process.returncode, out, err


def ctl(*arguments):
    return finish(start(*arguments))


class WithProbe(unittest.TestCase):
    def setUp(self):
        self.probe = FakeProbe().__enter__()
        self.addCleanup(self.probe.__exit__)

    def start(self, *arguments, **options):
        return start("-s", self.probe.name, *arguments, **options)

    def ctl(self, *arguments):
        return finish(self.start(*arguments))

    def json(self, *arguments):
        """The one object that is printed."""
        status, out, err = self.ctl("--json", *arguments)
        self.assertEqual((err, out.count("\n")), ("", 1))
        answer = json.loads(out)
        self.assertEqual((answer["probe"], answer["ok"], answer.get("status", 0)),
                         (self.probe.name, status == 0, status))
        return answer


class Commands(WithProbe):
    def test_wrong_command_lines_end_with_2_and_say_why(self):
        cases = (
            ((), "a command is needed"),
            (("history",), "history status"),
            (("add",), "ADDRESS"),
            (("add", "www.example.org"), "host name"),
            (("add", "10.0.0.1", "-t", "5x"), "90s"),
            (("add", "10.0.0.1", "-d", "up"), "src, dst, both"),
            (("add", "10.0.0.1", "--history-only", "-c", "5"), "history-only"),
            (("add", "10.0.0.1", "--wait-time", "5s"), "wait"),
            (("history", "on", "512"), "512M"),
            (("list", "--all", "-d", "src"), "excludes"),
            (("-s", "probe:http", "list"), "port"),
            (("merge", "a"), "output"),
        )
        for arguments, words in cases:
            with self.subTest(arguments):
                status, out, err = ctl(*arguments)
                self.assertEqual((status, out), (2, ""))
                self.assertIn(words, err)
        status, out, err = ctl("--json", "fetch")
        self.assertEqual((status, json.loads(out)["status"], err), (2, 2, ""))

    def test_add_sends_what_was_asked_for(self):
        answer = self.json("add", "::ffff:10.0.0.1", "-d", "dst", "-c", "7", "-t", "1h30m", "-n", "my rule")
        self.assertEqual(answer, {"probe": self.probe.name, "command": "add", "ok": True, "address": "10.0.0.1",
                                  "direction": "dst", "name": "my rule", "packet_limit": 7, "time_limit_s": 5400})
        self.json("add", "2001:db8::1", "--history-only")
        rules = [[rule[field] for field in ("direction", "limit", "time", "name")]
                 for rule in (self.probe.rules[key_of("10.0.0.1")], self.probe.rules[key_of("2001:db8::1")])]
        self.assertEqual(rules, [[1, 7, 5400, "my rule"], [2, 0, 0, "2001-db8--1"]])
        status, _, err = self.ctl("add", "10.0.0.1", "-n", "another")
        self.assertEqual((status, "the name 'my rule'" in err), (4, True), err)
        status, _, err = self.ctl("add", "2001:db8::1", "-n", "another")  # nothing is told of one without live capture
        self.assertEqual(status, 4)
        for cause in ("another name", "history", "memory"):
            self.assertIn(cause, err)

    def test_list_show_and_remove(self):
        self.ctl("add", "10.0.0.1", "-d", "src", "-n", "web")
        self.ctl("add", "2001:db8::1")
        self.assertEqual(self.json("list")["rules"], [{"address": "2001:db8::1", "direction": "both"},
                                                      {"address": "10.0.0.1", "direction": "src"}])
        self.assertEqual(len(self.json("list", "-d", "src")["rules"]), 1)
        self.assertEqual([line.split() for line in self.ctl("list", "--all")[1].splitlines()],
                         [["2001:db8::1", "both"], ["10.0.0.1", "src"]])
        self.assertEqual(self.json("show", "10.0.0.1")["name"], "web")
        self.assertIn("0 of 100000", self.ctl("show", "10.0.0.1")[1])
        self.assertTrue(self.json("remove", "10.0.0.1")["ok"])
        status, out, err = self.ctl("remove", "10.0.0.1")
        self.assertEqual((status, out), (4, ""))
        self.assertIn("'list'", err)

    def test_several_probes_answer_in_order_and_the_highest_status_counts(self):
        with FakeProbe() as gone:
            pass
        with FakeProbe() as other:
            other.add("10.0.0.9")
            both = ("-s", self.probe.name, "-s", other.name, "list")
            self.assertEqual(ctl(*both)[1].splitlines()[0], other.name + ":")
            for probes, expected in (((), (0, [True, True])), (("-s", gone.name), (3, [False, True, True]))):
                status, out, _ = ctl("--json", *probes, *both)
                answers = [json.loads(line) for line in out.splitlines()]
                self.assertEqual((status, [answer["ok"] for answer in answers]), expected)
                self.assertEqual([answer["probe"] for answer in answers[-2:]], [self.probe.name, other.name])
            self.assertIn(gone.name, ctl("-s", gone.name, *both)[2])

    def test_an_unanswered_request_is_interrupted(self):
        self.probe.silent.add(LIST)
        process = self.start("list")
        self.probe.wait_asked(LIST)
        process.send_signal(signal.SIGINT)
        self.assertEqual(finish(process)[0], 130)

    def test_a_closed_output_is_a_failure(self):
        reader, writer = os.pipe()
        os.close(reader)
        process = self.start("--json", "list", stdout=writer)
        os.close(writer)
        self.assertEqual(finish(process)[0], 1)


class BadServers(unittest.TestCase):
    def serve(self, reply):
        """A server that answers with these bytes and holds the line, or hangs up (None)."""
        def conversation(connection):
            if connection.recv(4) and reply is not None:
                connection.sendall(reply)
                while connection.recv(4096):
                    pass

        server = Server(conversation).__enter__()
        self.addCleanup(server.__exit__)
        return server.name

    def test_rubbish_silence_and_hanging_up_are_errors_in_time(self):
        commands = (("list",), ("add", "10.0.0.1", "--wait"), ("watch",))
        list_header = bytes((0, 9, 3, 0))
        cases = (
            (b"220 mail.example.org ESMTP\r\n", "another version", commands),
            (b"", "no answer", commands),
            (None, "connection", commands),
            (list_header + b"\2\0\0\0" + bytes(20), "no answer", commands[:1]),  # half of two rules
            (list_header + b"\xff" * 4, "", commands[:1]),
        )
        for reply, words, asked in cases:
            name = self.serve(reply)
            for arguments in asked:
                with self.subTest(reply=reply, command=arguments):
                    began = time.monotonic()
                    status, out, err = ctl("-s", name, "--timeout", "300ms", *arguments)
                    self.assertLess(time.monotonic() - began, 20)
                    self.assertEqual((status, out), (1, ""), err)
                    self.assertRegex(err, "^kestrunectl: .*" + words)

    def test_no_connection_is_3_in_time(self):
        with FakeProbe() as gone:
            pass
        full = socket.create_server(("127.0.0.1", 0), backlog=0)  # does not answer once its queue is full
        address = full.getsockname()
        waiting = [socket.socket() for _ in range(4)]
        for client in waiting:
            client.setblocking(False)
            client.connect_ex(address)
        for name in (gone.name, "no-such-host.invalid", "127.0.0.1:%d" % address[1]):
            status, _, err = ctl("-s", name, "--timeout", "300ms", "list")
            self.assertEqual(status, 3, err)
        for sock in [full, *waiting]:
            sock.close()

    def test_what_a_probe_sends_cannot_steer_the_terminal(self):
        with FakeProbe() as probe:
            probe.add("10.0.0.1", name="\033[2J\xff")
            self.assertNotIn("\033", ctl("-s", probe.name, "show", "10.0.0.1")[1])
            self.assertTrue(json.loads(ctl("--json", "-s", probe.name, "show", "10.0.0.1")[1])["ok"])


class Wait(WithProbe):
    def add(self, *arguments, **options):
        """add --wait, once it asks for the rule's progress."""
        before = self.probe.requests.count((DETAIL, BOTH))
        process = self.start("add", "10.0.0.1", "-n", "web", "--wait", *arguments, **options)
        self.probe.wait_asked(DETAIL, BOTH, before + 1)  # which comes after ADD
        return process

    def test_files_and_counts_are_printed(self):
        process = self.add()
        rule_id = self.probe.rules[key_of("10.0.0.1")]["id"]
        self.probe.add("10.0.0.2")
        self.probe.capture(rule_id, 40)
        self.probe.finish("10.0.0.2", live=b"not_ours", live_packets=1)
        self.probe.finish("10.0.0.1", live=b"web_0", history=b"web_0_hc_0,web_0_hc_1", live_packets=5,
                          history_packets=9)
        status, out, err = finish(process)
        self.assertEqual(status, 0, err)
        self.assertIn("5 live packets in web_0, 9 history packets in web_0_hc_0, web_0_hc_1", out)
        self.assertIn("10.0.0.1 40%\n", err)

    def test_an_interrupted_wait_removes_its_rule(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.add()
            process.send_signal(number)
            status, out, err = finish(process)
            self.assertEqual((status, out, self.probe.rules), (130, "", {}))
            self.assertIn("removed", err)

    def test_a_rule_that_was_there_is_renewed_followed_and_not_removed(self):
        self.probe.add("10.0.0.1", name="web", limit=5)
        process = self.add("--json", "-c", "70")
        process.send_signal(signal.SIGINT)
        status, out, _ = finish(process)
        self.assertEqual(status, 130)
        self.assertIn("goes on", json.loads(out)["error"])
        self.assertEqual(self.probe.rules[key_of("10.0.0.1")]["limit"], 70)

        process = self.add("--json")
        self.probe.add("10.0.0.2", name="web")
        self.probe.finish("10.0.0.2", live=b"webmail_0")
        self.probe.finish("10.0.0.1", live=b"web_0_1", live_packets=3)
        status, out, err = finish(process)
        answer = json.loads(out)
        self.assertEqual((status, answer["renewed"], answer["live_file"]), (0, True, "web_0_1"), err)

    def test_a_wait_ends_when_its_time_is_over_or_the_probe_fails(self):
        def forget_the_rule():  # and no update says so
            with self.probe.lock:
                self.probe.rules.clear()

        cases = (
            (("--wait-time", "300ms"), lambda: None, 124, "goes on"),
            (("--timeout", "200ms"), forget_the_rule, 124, "is finished, but"),
            (("--timeout", "500ms"), lambda: self.probe.silent.add(DETAIL), 1, "no answer"),
            ((), self.probe.hang_up, 1, "may go on"),
        )
        for arguments, happens, expected, words in cases:
            with self.subTest(arguments):
                process = self.add(*arguments)
                happens()
                status, out, err = finish(process)
                self.assertEqual((status, out), (expected, ""), err)
                self.assertIn(words, err)
        self.probe.silent.clear()
        for action, words in ((ADD, ""), (INFO, "updates")):
            self.probe.refuse.add(action)
            status, _, err = self.ctl("add", "10.0.0.1", "--wait")
            self.assertEqual(status, 4)
            self.assertIn(words, err)

    def test_a_terminal_shows_bars(self):
        master, slave = pty.openpty()
        process = self.add(stderr=slave)
        os.close(slave)
        rule = self.probe.rules[key_of("10.0.0.1")]
        rule["packets"] = 1234
        shown = b""
        while b"1234/100000 packets  1s of 5m00s" not in shown:
            shown += os.read(master, 4096)
        self.probe.capture(rule["id"], 50)
        while not re.search(rb"#{10}\S*-{10}\]  50%", shown):
            shown += os.read(master, 4096)
        self.probe.finish("10.0.0.1", live=b"web_0", live_packets=1)
        status, out, _ = finish(process)
        self.assertEqual(status, 0)
        self.assertNotIn("\033", out)
        os.close(master)


class Watch(WithProbe):
    def test_every_update_is_a_line_until_stopped(self):
        for arguments in ((), ("--json",)):
            process = self.start("watch", *arguments)
            self.probe.wait(lambda: self.probe.clients)
            self.probe.capture(99, 7)  # a rule that was there before
            self.probe.add("2001:db8::1")
            self.probe.capture(self.probe.rules[key_of("2001:db8::1")]["id"], 50)
            self.probe.finish("2001:db8::1", history=b"a_hc_0", history_packets=4)
            lines = [process.stdout.readline() for _ in range(5)]
            process.send_signal(signal.SIGINT)
            self.assertEqual(finish(process), (130, "", ""))
            self.probe.wait(lambda: not self.probe.clients)
            if arguments:
                events = [json.loads(line) for line in lines]
                self.assertEqual([(event["event"], event["address"], event.get("progress")) for event in events],
                                 [("capture", None, 7), ("incident", "2001:db8::1", None),
                                  ("capture", "2001:db8::1", 50), ("capture", "2001:db8::1", 100),
                                  ("visual", "2001:db8::1", None)])
                self.assertEqual((events[4]["history_files"], events[4]["live_file"]), (["a_hc_0"], None))
                self.assertEqual({event["probe"] for event in events}, {self.probe.name})
            else:
                self.assertIn("rule 99 7%", lines[0])
                self.assertIn("4 history packets in a_hc_0", lines[4])

    def test_a_lost_probe_is_reported_while_others_are_watched(self):
        with FakeProbe() as other:
            process = self.start("-s", other.name, "watch", "--json")
            self.probe.wait(lambda: self.probe.clients)
            other.wait(lambda: other.clients)
            self.probe.hang_up()
            self.assertEqual(json.loads(process.stdout.readline())["status"], 1)
            other.add("10.0.0.1")
            self.assertEqual(json.loads(process.stdout.readline())["event"], "incident")
            process.send_signal(signal.SIGINT)
            self.assertEqual(finish(process)[0], 130)


class Merge(unittest.TestCase):
    T0 = 1_700_000_000_000_000_000

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="merge test ")  # with blanks
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, packets, **options):
        pcap_files.write(self.path(name), packets, **options)
        return self.path(name)

    def merge(self, *arguments):
        """Exit status and answer."""
        status, out, err = ctl("--json", "merge", *arguments)
        self.assertEqual(err, "")
        return status, json.loads(out)

    def test_packets_are_ordered_by_nanoseconds_and_ties_by_input(self):
        source = random.Random(1)
        inputs, every = [], []
        for number in range(3):  # out of order, with many ties
            packets = [(self.T0 + source.randrange(1000), b"%d %d" % (number, i)) for i in range(3000)]
            inputs.append(self.write(str(number), packets))
            every += packets
        every.sort(key=lambda packet: packet[0])
        out = self.path("out put.pcap")
        status, answer = self.merge(*inputs, "-o", out)
        self.assertEqual((status, answer["packets"]), (0, 9000))
        self.assertTrue(pcap_files.read(out) == every)
        self.assertEqual(os.stat(out).st_mode & 0o777, 0o640)

    def test_microsecond_files_empty_files_and_late_times_are_taken(self):
        late = 4_102_444_800_000_000_007  # in 2100
        micro = self.write("micro", [(self.T0 + 3000, b"micro")], magic=pcap_files.MICROSECONDS)
        nano = self.write("nano", [(self.T0 + 2999, b"nano"), (late, b"late")])
        self.assertEqual(self.merge(micro, self.write("empty", []), nano, "-o", self.path("out"))[0], 0)
        self.assertEqual(pcap_files.read(self.path("out")),
                         [(self.T0 + 2999, b"nano"), (self.T0 + 3000, b"micro"), (late, b"late")])

    def test_an_existing_output_stays_unless_forced(self):
        a, b = self.write("a", [(1, b"a")]), self.write("b", [(2, b"b")])
        status, answer = self.merge(a, "-o", b)
        self.assertEqual((status, pcap_files.read(b)), (1, [(2, b"b")]))
        self.assertIn("--force", answer["error"])
        self.assertEqual(self.merge(a, b, "--force", "-o", b)[0], 0)  # also when it is an input itself
        self.assertEqual(pcap_files.read(b), [(1, b"a"), (2, b"b")])

    def test_what_cannot_be_merged_leaves_no_output(self):
        whole = self.write("whole", [(1, b"packet")])
        with open(whole, "rb") as file:
            data = file.read()
        for size in range(len(data)):
            with open(self.path("cut"), "wb") as file:
                file.write(data[:size])
            if size != pcap_files.HEADER_SIZE:
                self.assertEqual(self.merge(whole, self.path("cut"), "-o", self.path("out"))[0], 1, size)
                allowed = self.merge(whole, self.path("cut"), "--cut", "-o", self.path("allowed"), "--force")
                self.assertEqual(allowed[0], 0 if size > pcap_files.HEADER_SIZE else 1, size)
        self.assertEqual(pcap_files.read(self.path("allowed")), [(1, b"packet")])
        os.remove(self.path("allowed"))
        for other in (self.write("raw", [(1, b"packet")], link_type=101), self.path("missing"), self.folder):
            self.assertEqual(self.merge(whole, other, "-o", self.path("out"))[0], 1)
        self.assertEqual(self.merge(whole, "-o", self.path("no folder/out"))[0], 1)
        self.assertEqual(sorted(os.listdir(self.folder)), ["cut", "raw", "whole"])


if __name__ == "__main__":
    unittest.main()
