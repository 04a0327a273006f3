"""kestrunectl as a program, against stand-ins for the plugin's control port, and merging capture files."""

import hashlib
import json
import os
import pty
import random
import re
import signal
import subprocess
import tempfile
import unittest

import pcap_files
from control import ADD, ALL, BOTH, DETAIL, INFO, LIST, FakeProbe, Server, key_of
from probe_process import built
from run_tests import InFolder

LIMIT_S = 60  # that no call may take


def start(*arguments, **options):
    return subprocess.Popen([built("kestrunectl"), *arguments], text=True, env={**os.environ, "TERM": "xterm"},
                            **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})


def finish(process):
    out, err = process.communicate(timeout=LIMIT_S)
    return process.returncode, out, err


def ctl(*arguments):
    return finish(start(*arguments))


def read_until(terminal, expression):
    shown = b""
    while not re.search(expression, shown):
        shown += os.read(terminal, 65536)
    return shown


class WithProbe(unittest.TestCase):
    def setUp(self):
        self.probe = FakeProbe().__enter__()
        self.addCleanup(self.probe.__exit__)

    def start(self, *arguments, **options):
        return start("-s", self.probe.name, *arguments, **options)

    def ctl(self, *arguments):
        return finish(self.start(*arguments))

    def terminal(self):
        """Its two ends."""
        ends = pty.openpty()
        for end in ends:
            self.addCleanup(os.close, end)
        return ends

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
            (("fetch", "10.0.0.1"), "'fetch' is no command"),
            (("history", "of"), "See kestrunectl history --help"),
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
        name = self.json("add", "2001:db8::1", "--history-only")["name"]
        self.assertRegex(name, r"^2001-db8--1-\d{8}T\d{6}Z$")
        rules = [[rule[field] for field in ("direction", "limit", "time", "name")]
                 for rule in (self.probe.rules[key_of("10.0.0.1")], self.probe.rules[key_of("2001:db8::1")])]
        self.assertEqual(rules, [[1, 7, 5400, "my rule"], [2, 0, 0, name]])
        for arguments in ((), ("-n", "my")):  # the name of the rule that is there
            renewed = self.json("add", "10.0.0.1", "-c", "9", *arguments)
            self.assertEqual((renewed["name"], renewed["renewed"]), ("my rule", True))
        status, _, err = self.ctl("add", "10.0.0.1", "-n", "another")
        self.assertEqual((status, "the name 'my rule'" in err), (4, True), err)
        status, _, err = self.ctl("add", "2001:db8::1", "-n", "another")  # nothing is told of one without live capture
        self.assertEqual(status, 4)
        for cause in ("another name", "history", "memory"):
            self.assertIn(cause, err)

    def test_many_addresses_get_a_result_each_and_a_summary(self):
        self.probe.add("10.0.0.1", name="web")
        many = ["10.1.%d.%d" % (i // 200, i % 200) for i in range(500)]
        with tempfile.NamedTemporaryFile("w", suffix=".log") as file:
            file.write("# 10.9.9.9\nfrom 10.0.0.2 port 10.0.0.0/8\n" + "\n".join(many))
            file.flush()
            arguments = ("add", "10.0.0.1", "10.0.0.2", "10.0.0.1", "-c", "3", "--from", file.name)
            status, out, err = self.ctl("--json", *arguments)
        *answers, summary = map(json.loads, out.splitlines())
        self.assertIn("10.0.0.0/8", err)
        self.assertEqual([answer["address"] for answer in answers], ["10.0.0.1", "10.0.0.2", *many])
        self.assertEqual((status, summary["ok"], summary["summary"]), (0, True, {
            "addresses": 502, "renewed": 1, "refused": 0, "without_capture": 0}))
        self.probe.full = True
        status, out, err = self.ctl("add", "10.0.0.3", "10.0.0.2", "-n", "web")
        self.assertEqual((status, out), (4, "2 addresses: 1 added, 1 without live capture, 1 refused\n"))
        self.assertRegex(err, "(?s)10.0.0.3 has a rule now, but no live capture.*10.0.0.2 is recorded already")
        status, out, err = self.ctl("remove", *many, "10.0.0.9")
        self.assertEqual((status, out.count("removed"), "no rule for 10.0.0.9" in err), (4, 500, True))
        process = self.start("add", "--from", "-", stdin=subprocess.PIPE)
        self.assertIn("no address", process.communicate("nothing\n")[1])
        self.assertEqual(process.returncode, 1)

    def test_list_show_and_remove(self):
        self.ctl("add", "10.0.0.1", "-d", "src", "-n", "web")
        self.ctl("add", "10.0.0.3", "--history-only")
        brief = [{"address": "10.0.0.3", "direction": "both"}, {"address": "10.0.0.1", "direction": "src"}]
        self.assertEqual(self.json("list", "--brief")["rules"], brief)
        self.assertEqual(self.probe.requests[-2:], [(ADD, BOTH), (LIST, ALL)])
        web = {"name": "web", "packets": 0, "packet_limit": 100000, "elapsed_s": 1, "time_limit_s": 300,
               "history_progress": 0}
        self.assertEqual(self.json("list")["rules"], [{**brief[0], "live": False}, {**brief[1], "live": True, **web}])
        self.assertEqual(len(self.json("list", "-d", "src")["rules"]), 1)
        self.assertEqual(self.ctl("list", "-b")[1], "10.0.0.3\n10.0.0.1\n")
        rows = [line.split() for line in self.ctl("list", "--all")[1].splitlines()]
        self.assertEqual(rows[1:], [["10.0.0.3", "both", "no", "live", "capture"],
                                    ["10.0.0.1", "src", "web", "0", "100000", "1s", "5m00s", "0%"]])
        self.assertEqual(self.json("show", "10.0.0.1")["name"], "web")
        self.assertIn("0 of 100000", self.ctl("show", "10.0.0.1")[1])
        self.assertTrue(self.json("remove", "10.0.0.1")["ok"])
        status, out, err = self.ctl("remove", "10.0.0.1")
        self.assertEqual((status, out, "'list'" in err), (4, "", True))

    def test_a_watched_list_is_painted_again_on_a_terminal(self):
        for number in range(100):
            self.probe.add("10.0.0.%d" % number)
        master, slave = self.terminal()
        process = self.start("list", "--watch", stdout=slave)
        shown = read_until(master, rb"10\.0\.0\.85(?s:.*)\.\.\. and \d+ lines more\S+\s*\S+$")
        self.assertEqual((shown.count(b"\033[2J"), b"10.0.0.1 " in shown), (1, False))
        self.probe.add("192.0.2.1")
        read_until(master, rb"192\.0\.2\.1 ")
        self.probe.hang_up()
        self.assertEqual(finish(process)[0], 1)

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

    def test_a_closed_output_is_a_failure(self):
        reader, writer = os.pipe()
        os.close(reader)
        process = self.start("--json", "list", stdout=writer)
        os.close(writer)
        self.assertEqual(finish(process)[0], 1)


class BadServers(unittest.TestCase):
    def test_rubbish_silence_and_hanging_up_are_errors_in_time(self):
        cases = ((b"220 mail.example.org ESMTP\r\n", "another version"), (b"", "no answer"), (None, "connection"))
        for reply, words in cases:
            def conversation(connection, reply=reply):  # answers and holds the line, or hangs up (None)
                connection.recv(4)
                while reply is not None and (connection.sendall(reply) or connection.recv(4096)):
                    reply = b""

            with Server(conversation) as server:
                for arguments in (("list",), ("add", "10.0.0.1", "--wait"), ("watch",)):
                    with self.subTest(reply=reply, command=arguments):
                        status, out, err = ctl("-s", server.name, "--timeout", "300ms", *arguments)
                        self.assertEqual((status, out), (1, ""), err)
                        self.assertRegex(err, "^kestrunectl: .*" + words)
        for name in (server.name, "no-such-host.invalid"):  # no connection
            self.assertEqual(ctl("-s", name, "--timeout", "300ms", "list")[0], 3)

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
        process = self.add()  # packets that were found but left no file
        self.probe.finish("10.0.0.1", live=b"web_0", history_packets=9)
        status, _, err = finish(process)
        self.assertEqual((status, "found 9 packets but left no file" in err), (1, True), err)

    def test_a_live_capture_that_ended_before_its_limits_is_pointed_out(self):
        for packets, early in ((6, True), (7, False)):
            process = self.add("--json", "-c", "7")
            self.probe.finish("10.0.0.1", live=b"web_0", live_packets=packets)
            status, out, _ = finish(process)
            self.assertEqual((status, "before its limits" in json.loads(out).get("hint", "")), (0, early))

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

    def test_many_rules_are_waited_for_together(self):
        addresses = ["10.0.0.%d" % i for i in range(1, 101)]
        self.probe.add("10.0.0.1", name="here before")
        for interrupted in (True, False):
            process = self.start("add", *addresses, "-c", "49", "--wait")
            self.probe.wait(lambda: len(self.probe.rules) == 100 and len(self.probe.connections) == 2)
            for address in addresses[:50 if interrupted else 100]:
                live = "%s_%d" % (self.probe.rules[key_of(address)]["name"], self.probe.rules[key_of(address)]["id"])
                self.probe.finish(address, live=live.encode(), live_packets=49)
            if interrupted:
                for _ in range(50):
                    process.stdout.readline()
                process.send_signal(signal.SIGTERM)
                status, out, err = finish(process)
                self.assertEqual((status, out, self.probe.rules), (130, "", {}))
                self.assertIn("50 rules were removed", err)
        status, out, err = finish(process)
        self.assertEqual((status, err), (0, ""))
        *lines, summary = out.splitlines()
        self.assertEqual(sorted(line.split()[0] for line in lines), sorted(addresses))
        self.assertEqual(summary, "100 addresses: 100 added; 100 finished with 4900 live packets and 0 history packets")

    def test_a_wait_ends_when_its_time_is_over_or_the_probe_fails(self):
        def forget_the_rule():  # and no update says so
            with self.probe.lock:
                self.probe.rules.clear()

        cases = (
            (("--wait-time", "300ms"), lambda: None, 124, "goes on"),
            (("--timeout", "200ms"), forget_the_rule, 124, "is finished, but"),
            (("--timeout", "500ms"), lambda: self.probe.silent.add(LIST), 1, "no answer"),
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
        master, slave = self.terminal()
        process = self.add(stderr=slave)
        rule = self.probe.rules[key_of("10.0.0.1")]
        rule["packets"] = 1234
        read_until(master, rb"1234/100000 packets  1s of 5m00s")
        self.probe.capture(rule["id"], 50)
        read_until(master, rb"#{10}\S*-{10}\]  50%")
        self.probe.finish("10.0.0.1", live=b"web_0", live_packets=1)
        status, out, _ = finish(process)
        self.assertEqual((status, "\033" in out), (0, False))


class Watch(WithProbe):
    def test_every_update_is_a_line_until_stopped_or_the_probe_is_lost(self):
        with FakeProbe() as other:
            process = self.start("-s", other.name, "watch", "--json")
            for probe in (self.probe, other):
                probe.wait(lambda probe=probe: probe.clients)
            self.probe.capture(99, 7)  # a rule that was there before
            self.probe.add("2001:db8::1")
            self.probe.finish("2001:db8::1", history=b"a_hc_0", history_packets=4)
            events = [json.loads(process.stdout.readline()) for _ in range(4)]
            self.assertEqual([(event["event"], event["address"], event.get("progress")) for event in events],
                             [("capture", None, 7), ("incident", "2001:db8::1", None),
                              ("capture", "2001:db8::1", 100), ("visual", "2001:db8::1", None)])
            self.assertEqual((events[3]["history_files"], events[3]["live_file"]), (["a_hc_0"], None))
            self.probe.hang_up()
            self.assertEqual(json.loads(process.stdout.readline())["status"], 1)
            other.add("10.0.0.1")
            self.assertEqual(json.loads(process.stdout.readline())["probe"], other.name)
            process.send_signal(signal.SIGINT)
            self.assertEqual(finish(process), (130, "", ""))


class Merge(InFolder):
    T0 = 1_700_000_000_000_000_000

    def write_packets(self, name, packets, **options):
        pcap_files.write(self.path(name), packets, **options)
        return self.path(name)

    def merge(self, *arguments):
        """Exit status and answer."""
        status, out, err = ctl("--json", "merge", *arguments)
        self.assertEqual(err, "")
        return status, json.loads(out)

    def test_packets_are_ordered_by_nanoseconds_and_ties_by_input(self):
        source = random.Random(1)
        inputs, every = [self.write_packets("empty", [])], []
        late = [(4_102_444_800_000_000_007, b"in 2100")]
        for number, magic in enumerate((pcap_files.NANOSECONDS, pcap_files.NANOSECONDS, pcap_files.MICROSECONDS)):
            unit = 1000 if number == 2 else 1  # out of order, with many ties
            packets = [(self.T0 + source.randrange(1000) * unit, b"%d %d" % (number, i)) for i in range(3000)] + late
            inputs.append(self.write_packets(str(number), packets[:3001 - number], magic=magic))
            every += packets[:3001 - number]
        every.sort(key=lambda packet: packet[0])
        status, answer = self.merge(*inputs, "-o", self.path("out put.pcap"))
        self.assertEqual((status, answer["packets"]), (0, len(every)))
        self.assertTrue(pcap_files.read(self.path("out put.pcap")) == every)
        self.assertEqual(os.stat(self.path("out put.pcap")).st_mode & 0o777, 0o640)

    def test_an_existing_output_stays_unless_forced(self):
        a, b = self.write_packets("a", [(1, b"a")]), self.write_packets("b", [(2, b"b")])
        self.assertEqual((self.merge(a, "-o", b)[0], pcap_files.read(b)), (1, [(2, b"b")]))
        self.assertEqual(self.merge(a, b, "--force", "-o", b)[0], 0)  # also when it is an input itself
        self.assertEqual(pcap_files.read(b), [(1, b"a"), (2, b"b")])

    def test_what_cannot_be_merged_leaves_no_output(self):
        whole = self.write_packets("whole", [(1, b"packet")])
        with open(whole, "rb") as file:
            data = file.read()
        for size in range(len(data)):
            self.write("cut", data[:size])
            for output, options, most in (("out", (), 0), ("allowed", ("--cut", "--force"), size - 24)):
                if size != pcap_files.HEADER_SIZE:
                    status, _ = self.merge(whole, self.path("cut"), "-o", self.path(output), *options)
                    self.assertEqual(status, 0 if most > 0 else 1, size)
        self.assertEqual(pcap_files.read(self.path("allowed")), [(1, b"packet")])
        os.remove(self.path("allowed"))
        for other in (self.write_packets("raw", [(1, b"packet")], link_type=101), self.path("missing"), self.folder):
            self.assertEqual(self.merge(whole, other, "-o", self.path("out"))[0], 1)
        self.assertEqual(self.merge(whole, "-o", self.path("no folder/out"))[0], 1)
        self.assertEqual(sorted(os.listdir(self.folder)), ["cut", "raw", "whole"])


class Verify(unittest.TestCase):
    ID = "01KAQ4A00000000000000000ZZ"

    def test_says_for_each_capture_what_is_wrong(self):
        with tempfile.TemporaryDirectory() as archive:
            for good in (True, False):
                folder = os.path.join(archive, "2026-11-23", self.ID[:-1] + "01"[good])
                os.makedirs(folder)
                with open(os.path.join(folder, "summary.json"), "w") as file:
                    file.write("{}")
                self.write_manifest(folder, hashlib.sha256(b"{}" if good else b"{ }").hexdigest())
            status, out, err = ctl("verify", archive)
            self.assertEqual((status, out.count("\n"), err.count("\n")), (1, 1, 1))
            self.assertRegex(out, self.ID[:-1] + "1/manifest.json: 0 packets, .* as they were sealed")
            self.assertRegex(err, self.ID[:-1] + "0/manifest.json: summary.json was changed")
            self.assertEqual(json.loads(ctl("--json", "verify", os.path.dirname(folder) + "/" + self.ID[:-1] + "1")[1])
                             ["good"], True)
            self.assertEqual(ctl("verify", os.path.join(archive, "none"))[0], 1)

    def write_manifest(self, folder, sha256):
        whole = {"format": "kestrune-manifest/1", "versions": {"manager": "1", "protocol": "0.9"}, "id": self.ID,
                 "address": "192.0.2.17", "direction": "both", "reason": None, "reference": None, "requested_by": "me",
                 "requested_at": None, "started_at": None, "ended_at": None, "sealed_at": "2026-11-23T07:42:30Z",
                 "limits": None, "origins": [], "parts": [],
                 "files": [{"name": "summary.json", "bytes": 2, "sha256": sha256, "packets": None, "first": None,
                            "last": None}]}
        text = json.dumps(whole, indent=2)[:-2]
        text += ',\n  "checksum": "%s"\n}\n' % hashlib.sha256(text.encode()).hexdigest()
        with open(os.path.join(folder, "manifest.json"), "w") as file:
            file.write(text)


if __name__ == "__main__":
    unittest.main()
