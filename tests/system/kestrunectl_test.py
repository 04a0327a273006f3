"""kestrunectl as a program, against stand-ins for the plugin's control port. KESTRUNECTL names the program."""

import json
import os
import pty
import re
import signal
import socket
import socketserver
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from fake_probe import ADD, DETAIL, INFO, LIST, FakeProbe, key_of  # noqa: E402

PROGRAM = os.environ["KESTRUNECTL"]
LIMIT = 60  # seconds that no call may take


def start(*arguments, **options):
    environment = {**os.environ, "TERM": "xterm"}
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.PIPE)
    return subprocess.Popen([PROGRAM, *arguments], text=True, env=environment, **options)


def finish(process):
    out, err = process.communicate(timeout=LIMIT)
    return process.returncode, out, err


def ctl(*arguments, **options):
    return finish(start(*arguments, **options))


class Port(socketserver.TCPServer):
    """A server of one fixed behaviour: serve(connection) for one connection after the other."""

    def __init__(self, serve):
        super().__init__(("127.0.0.1", 0), lambda connection, *_: serve(connection))
        self.name = "127.0.0.1:%d" % self.server_address[1]

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=(0.01,)).start()
        return self

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()

    def handle_error(self, *_):
        pass  # the client has hung up


def hold(connection):
    while connection.recv(4096):
        pass


class WithProbe(unittest.TestCase):
    def setUp(self):
        self.probe = FakeProbe().__enter__()
        self.addCleanup(self.probe.__exit__)


class Usage(unittest.TestCase):
    def test_wrong_command_lines_end_with_2_and_say_why(self):
        cases = (
            ((), "a command is needed"),
            (("history",), "history status"),
            (("fetch",), "a command is needed"),
            (("add",), "ADDRESS"),
            (("add", "www.example.org"), "host name"),
            (("add", "10.0.0.0/8"), "network"),
            (("add", "10.0.0.1", "-c", "0"), "1 to"),
            (("add", "10.0.0.1", "-t", "5x"), "90s"),
            (("add", "10.0.0.1", "-d", "up"), "src, dst, both"),
            (("add", "10.0.0.1", "-n", "a/b"), "name"),
            (("add", "10.0.0.1", "--history-only", "-c", "5"), "history-only"),
            (("add", "10.0.0.1", "--wait-time", "5s"), "wait"),
            (("history", "on", "512"), "512M"),
            (("heavy", "-1"), ""),
            (("list", "--all", "-d", "src"), "excludes"),
            (("-s", "probe:http", "list"), "port"),
            (("merge", "a"), "output"),
        )
        for arguments, words in cases:
            with self.subTest(arguments):
                status, out, err = ctl(*arguments)
                self.assertEqual((status, out), (2, ""))
                self.assertIn(words, err)
                status, out, err = ctl("--json", *arguments)
                self.assertEqual((status, err), (2, ""))
                self.assertEqual(json.loads(out)["status"], 2)


class Commands(WithProbe):
    def ctl(self, *arguments):
        return ctl("-s", self.probe.name, *arguments)

    def json(self, *arguments):
        status, out, err = self.ctl("--json", *arguments)
        self.assertEqual(err, "")
        self.assertEqual(out.count("\n"), 1)
        answer = json.loads(out)
        self.assertEqual(answer["probe"], self.probe.name)
        self.assertEqual(answer["ok"], status == 0)
        self.assertEqual(answer.get("status", 0), status)
        return answer

    def test_add_sends_what_was_asked_for(self):
        answer = self.json("add", "::ffff:10.0.0.1", "-d", "dst", "-c", "7", "-t", "1h30m", "-n", "my rule")
        self.assertEqual(answer, {"probe": self.probe.name, "command": "add", "ok": True, "address": "10.0.0.1",
                                  "direction": "dst", "name": "my rule", "packet_limit": 7, "time_limit_s": 5400})
        rule = self.probe.rules[key_of("10.0.0.1")]
        self.assertEqual((rule["direction"], rule["limit"], rule["time"], rule["name"]), (1, 7, 5400, "my rule"))
        self.json("add", "2001:db8::1", "--history-only")
        rule = self.probe.rules[key_of("2001:db8::1")]
        self.assertEqual((rule["direction"], rule["limit"], rule["time"], rule["name"]), (2, 0, 0, "2001-db8--1"))

    def test_list_show_and_remove(self):
        self.assertEqual(self.ctl("list"), (0, "", "no rules\n"))
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
        self.assertIn("'list'", self.json("show", "10.0.0.1")["error"])

    def test_a_refused_add_names_the_possible_causes(self):
        self.ctl("add", "10.0.0.1", "-n", "one")
        status, _, err = self.ctl("add", "10.0.0.1", "-n", "two")
        self.assertEqual(status, 4)
        for cause in ("another name", "history", "memory"):
            self.assertIn(cause, err)

    def test_history_and_heavy(self):
        self.assertFalse(self.json("history", "status")["on"])
        self.assertEqual(self.json("history", "off")["status"], 4)
        self.assertTrue(self.json("history", "on", "2G")["ok"])
        self.assertEqual(self.probe.history_mb, 2048)
        self.assertIn("off", self.json("history", "on", "2G")["error"])
        self.assertEqual(self.json("history", "status")["size_bytes"], 2 << 30)
        self.assertIn("2.0 GiB", self.ctl("history", "status")[1])
        self.assertTrue(self.json("history", "off")["ok"])
        self.assertTrue(self.json("history", "on")["ok"])
        self.assertEqual(self.probe.history_mb, 0)
        self.assertTrue(self.json("heavy", "4294967295")["ok"])
        self.assertEqual(self.probe.heavy_size, 4294967295)

    def test_several_probes_answer_in_order_and_the_highest_status_counts(self):
        with Port(hold) as gone:
            pass
        with FakeProbe() as other:
            other.add("10.0.0.9")
            both = ("-s", self.probe.name, "-s", other.name, "list")
            self.assertEqual(ctl(*both)[1].splitlines()[0], other.name + ":")
            status, out, _ = ctl("--json", *both)
            self.assertEqual(status, 0)
            self.assertEqual([json.loads(line)["probe"] for line in out.splitlines()], [self.probe.name, other.name])
            status, out, _ = ctl("-s", gone.name, "--json", *both)
            self.assertEqual(status, 3)
            self.assertEqual([json.loads(line)["ok"] for line in out.splitlines()], [False, True, True])
            status, _, err = ctl("-s", gone.name, *both)
            self.assertIn(gone.name, err)

    def test_an_unanswered_request_is_interrupted(self):
        self.probe.silent.add(LIST)
        process = start("-s", self.probe.name, "list")
        self.probe.wait(lambda: (LIST, 3) in self.probe.requests)
        process.send_signal(signal.SIGINT)
        self.assertEqual(finish(process)[0], 130)

    def test_a_closed_output_is_a_failure_without_noise(self):
        reader, writer = os.pipe()
        os.close(reader)
        process = start("-s", self.probe.name, "history", "status", stdout=writer)
        os.close(writer)
        self.assertEqual(finish(process)[0], 1)


class BadServers(unittest.TestCase):
    def failing(self, serve, *arguments, status=1):
        with Port(serve) as port:
            begin = time.monotonic()
            code, out, err = ctl("-s", port.name, "--timeout", "300ms", *arguments)
            self.assertLess(time.monotonic() - begin, 20)
        self.assertEqual((code, out), (status, ""), err)
        self.assertTrue(err.startswith("kestrunectl: "), err)
        return err

    def test_rubbish_silence_and_hanging_up_are_errors_in_time(self):
        def rubbish(connection):
            connection.recv(4)
            connection.sendall(b"220 mail.example.org ESMTP\r\n")
            hold(connection)

        def oversized(connection):
            connection.recv(4)
            connection.sendall(bytes((0, 9, 3, 0)) + b"\xff" * 4)
            hold(connection)

        def half(connection):
            connection.recv(4)
            connection.sendall(bytes((0, 9, 3, 0, 2, 0, 0, 0)) + bytes(20))
            hold(connection)

        for command in (("list",), ("add", "10.0.0.1"), ("add", "10.0.0.1", "--wait"), ("watch",)):
            with self.subTest(command):
                self.assertIn("another version", self.failing(rubbish, *command))
                self.assertIn("no answer", self.failing(hold, *command))
                self.assertIn("connection", self.failing(lambda connection: connection.recv(4), *command))
        self.assertIn("no answer", self.failing(half, "list"))
        self.failing(oversized, "list")

    def test_no_connection_is_3_in_time(self):
        with Port(hold) as port:
            pass
        full = socket.create_server(("127.0.0.1", 0), backlog=0)  # does not answer once its queue is full
        address = full.getsockname()
        waiting = [socket.socket() for _ in range(4)]
        for client in waiting:
            client.setblocking(False)
            client.connect_ex(address)
        for name in (port.name, "no-such-host.invalid", "127.0.0.1:%d" % address[1]):
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
    def start(self, *arguments):
        return start("-s", self.probe.name, "add", "10.0.0.1", "-n", "web", "--wait", *arguments)

    def test_files_and_counts_are_printed(self):
        for arguments in ((), ("--json",)):
            process = self.start(*arguments)
            rule = self.probe.wait_for_rule("10.0.0.1")
            self.probe.add("10.0.0.2")
            self.probe.capture(rule["id"], 40)
            self.probe.finish("10.0.0.2", live=b"not_ours", live_packets=1)
            self.probe.finish("10.0.0.1", live=b"web_0", history=b"web_0_hc_0,web_0_hc_1", live_packets=5,
                              history_packets=9)
            status, out, err = finish(process)
            self.assertEqual(status, 0, err)
            if arguments:
                answer = json.loads(out)
                self.assertEqual((answer["live_packets"], answer["history_packets"]), (5, 9))
                self.assertEqual(answer["history_files"], ["web_0_hc_0", "web_0_hc_1"])
                self.assertEqual((answer["rule"], answer["renewed"], err), (rule["id"], False, ""))
            else:
                self.assertIn("5 live packets in web_0, 9 history packets in web_0_hc_0, web_0_hc_1", out)
                self.assertIn("10.0.0.1 40%\n", err)

    def test_an_interrupted_wait_removes_its_rule(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start()
            self.probe.wait_for_rule("10.0.0.1")
            process.send_signal(number)
            status, out, err = finish(process)
            self.assertEqual((status, out), (130, ""))
            self.assertIn("removed", err)
            self.assertEqual(self.probe.rules, {})

    def test_a_rule_that_was_there_is_renewed_followed_and_not_removed(self):
        self.probe.add("10.0.0.1", name="web", limit=5)
        process = self.start("--json", "-c", "70")
        self.probe.wait(lambda: (DETAIL, 2) in self.probe.requests)
        process.send_signal(signal.SIGINT)
        status, out, _ = finish(process)
        self.assertEqual(status, 130)
        self.assertIn("goes on", json.loads(out)["error"])
        self.assertEqual(self.probe.rules[key_of("10.0.0.1")]["limit"], 70)

        process = self.start("--json")
        self.probe.wait(lambda: self.probe.requests.count((DETAIL, 2)) >= 3)
        self.probe.add("10.0.0.2", name="web")
        self.probe.finish("10.0.0.2", live=b"webmail_0")
        self.probe.finish("10.0.0.1", live=b"web_0_1", live_packets=3)
        status, out, err = finish(process)
        answer = json.loads(out)
        self.assertEqual((status, answer["renewed"], answer["live_file"]), (0, True, "web_0_1"), err)

    def test_the_wait_ends_when_its_time_is_over_and_the_rule_goes_on(self):
        status, out, err = finish(self.start("--wait-time", "300ms"))
        self.assertEqual((status, out), (124, ""))
        self.assertIn("goes on", err)
        self.assertIn(key_of("10.0.0.1"), self.probe.rules)

    def test_a_report_that_never_comes_is_not_awaited_for_ever(self):
        process = self.start("--timeout", "200ms", "--json")
        self.probe.wait_for_rule("10.0.0.1")
        self.probe.wait(lambda: (DETAIL, 2) in self.probe.requests)
        with self.probe.lock:
            self.probe.rules.clear()  # and no update says so
        status, out, _ = finish(process)
        self.assertEqual(status, 124)
        self.assertTrue(json.loads(out)["finished"])

    def test_a_probe_that_stops_answering_ends_the_wait(self):
        process = self.start("--timeout", "500ms")
        self.probe.wait(lambda: (DETAIL, 2) in self.probe.requests)
        self.probe.silent.add(DETAIL)
        status, _, err = finish(process)
        self.assertEqual(status, 1)
        self.assertIn("no answer", err)

    def test_a_lost_connection_and_refusals_end_the_wait(self):
        process = self.start()
        self.probe.wait_for_rule("10.0.0.1")
        self.probe.wait(lambda: (DETAIL, 2) in self.probe.requests)
        self.probe.hang_up()
        status, _, err = finish(process)
        self.assertEqual(status, 1)
        self.assertIn("may go on", err)
        self.probe.refuse.add(ADD)
        self.assertEqual(finish(self.start())[0], 4)
        self.probe.refuse.add(INFO)
        status, _, err = finish(self.start())
        self.assertEqual(status, 4)
        self.assertIn("updates", err)

    def test_a_terminal_shows_bars(self):
        master, slave = pty.openpty()
        process = start("-s", self.probe.name, "add", "10.0.0.1", "-n", "web", "--wait", stderr=slave)
        os.close(slave)
        rule = self.probe.wait_for_rule("10.0.0.1")
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
            process = start("-s", self.probe.name, "watch", *arguments)
            self.probe.wait(lambda: self.probe.clients)
            self.probe.capture(99, 7)  # a rule that was there before
            self.probe.add("2001:db8::1")
            rule_id = self.probe.rules[key_of("2001:db8::1")]["id"]
            self.probe.capture(rule_id, 50)
            self.probe.finish("2001:db8::1", history=b"a_hc_0", history_packets=4)
            lines = [process.stdout.readline() for _ in range(5)]
            process.send_signal(signal.SIGINT)
            status, rest, err = finish(process)
            self.assertEqual((status, rest, err), (130, "", ""))
            if arguments:
                events = [json.loads(line) for line in lines]
                self.assertEqual([event["event"] for event in events],
                                 ["capture", "incident", "capture", "capture", "visual"])
                self.assertEqual([event["address"] for event in events], [None] + ["2001:db8::1"] * 4)
                self.assertEqual([event.get("progress") for event in events], [7, None, 50, 100, None])
                self.assertEqual((events[4]["history_files"], events[4]["live_file"]), (["a_hc_0"], None))
                self.assertEqual({event["probe"] for event in events}, {self.probe.name})
            else:
                self.assertIn("rule 99 7%", lines[0])
                self.assertIn("4 history packets in a_hc_0", lines[4])

    def test_a_lost_probe_is_reported_while_others_are_watched(self):
        with FakeProbe() as other:
            process = start("-s", self.probe.name, "-s", other.name, "watch", "--json")
            self.probe.wait(lambda: self.probe.clients)
            other.wait(lambda: other.clients)
            self.probe.hang_up()
            self.assertEqual(json.loads(process.stdout.readline())["status"], 1)
            other.add("10.0.0.1")
            self.assertEqual(json.loads(process.stdout.readline())["event"], "incident")
            process.send_signal(signal.SIGINT)
            self.assertEqual(finish(process)[0], 130)


if __name__ == "__main__":
    unittest.main()
