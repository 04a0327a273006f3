"""The probe as a service: configuration files, notifications, metrics, starts that cannot work, GRO."""

import os
import re
import signal
import socket
import subprocess
import time
import unittest
import urllib.request

import run_tests
from namespace import Namespace, run
from probe_process import LIMIT_S, TAGGED, WEB, Probe, ProbeProcess, built, listening_port, missing, wait_until

WITNESS = ("-p", built("probe_test_plugin.so"))
PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging")
AT_ONCE = ("-r", TAGGED, "--speed", "0")


class Plain(ProbeProcess):
    def plugin_arguments(self):
        return ()


def probe(*arguments):
    return subprocess.run([built("kestrune-probe"), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT_S, check=False)


def listener():
    taken = socket.socket()
    taken.bind(("0.0.0.0", 0))
    taken.listen()
    return taken, taken.getsockname()[1]


class Configuration(run_tests.InFolder):
    def config(self, name, text):
        return "--config=" + self.write(name, text.encode())

    def test_a_later_file_wins_and_the_command_line_over_all(self):
        first = self.config("first", "# comment\n\n queues=2 # two\nstay = false\nverbose = 1\nparams = out=%s/o\n"
                            % self.folder)
        second = self.config("second", "queues = 3\nparams = refuse=1\n")
        for arguments, queues in (((first,), 2), ((second, first), 2), ((first, second), 3),
                                  ((first, second, "-q", "1"), 1), (("-q", "1", first, "--config=-/none"), 1)):
            with self.subTest(arguments):
                done = probe(*arguments, *AT_ONCE, *WITNESS, "-P", "refuse=0")  # parameters of all count
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn("witness: started with %d queues" % queues, done.stderr)
                self.assertTrue(os.path.exists(self.folder + "/o.0"))

    def test_every_line_of_the_packaged_files_is_good(self):
        for name in ("probe.conf", "probe-IFACE.conf"):
            with open(os.path.join(PACKAGING, name), encoding="utf-8") as file:
                text = re.sub("^#(?=[a-z])", "", file.read(), flags=re.MULTILINE)
            done = probe(self.config(name, text), "--plugin-info")
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertGreaterEqual(text.count("\nparams = "), 1)

    def test_an_error_names_file_and_line(self):
        for text, where, words in (("queues=0", 1, "range"), ("\nno-such = 1", 2, "no-such"), ("word", 1, "KEY = VALUE"),
                                   ("stay = maybe", 1, "maybe"), ("config = x", 1, "config"), ("= 1", 1, "KEY"),
                                   ("history = 5T", 1, "5T"), ("verbose=9", 1, "9"), ("heavy = -1", 1, "heavy"),
                                   ("history = 2097152G", 1, "2097152G"), ("metrics = ::1:80", 1, "brackets")):
            with self.subTest(text):
                done = probe(self.config("bad", text), *AT_ONCE, *WITNESS)
                self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1))
                self.assertRegex(done.stderr, r"/bad:%d: .*%s" % (where, re.escape(words)))
        self.assertEqual(probe("--config", self.folder + "/none", *AT_ONCE, *WITNESS).returncode, 2)

    def test_history_and_heavy_reach_the_plugin(self):
        done = probe("--history", "1G", "-P", "port=0;buffer_size=1", *AT_ONCE)
        self.assertEqual(done.returncode, 2, done.stderr)
        for size, heavy, expected in (("64", 20, 64 << 20), ("96M", 1, 96 << 20), ("0", 4294967295, 0)):
            with Probe("-r", TAGGED, "--stay", "--history", size, "--heavy", str(heavy)) as started:
                rings = started.do("history", "status")
                self.assertEqual((rings["size_bytes"], rings["heavy_size"]), (expected, heavy))

    def test_capture_files_have_their_mode_under_any_umask(self):
        strict = ("sh", "-c", 'umask 077; exec "$@"', "strict")
        with Probe("-r", TAGGED, "--stay", "--history", "8", prefix=strict) as started:
            started.do("add", "192.0.2.1")
            self.assertEqual({os.stat(started.capture(name)).st_mode & 0o777 for name in started.captures()}, {0o640})
            self.assertEqual(len(started.captures()), 2)

    def test_a_start_that_cannot_work_ends_with_what_to_change(self):
        taken, port = listener()
        with taken:
            cases = (((*AT_ONCE, "-P", "port=%d" % port), "port %d is taken; .*-P port=N" % port),
                     ((*AT_ONCE, "-P", "port=0;x=1"), "wrong; .*-P"),
                     ((*AT_ONCE, "--history", "900000G"), "--history"),
                     ((*AT_ONCE, "-P", "export_path=/none/"), "directory /none/; .*export_path="),
                     ((*AT_ONCE, "--metrics", "127.0.0.1:%d" % port), "in use; .*--metrics"),
                     ((*AT_ONCE, "--heavy", "1", *WITNESS), "--heavy"),
                     (("-i", "no_such_if0"), "no such interface; .*--interface"))
            for arguments, words in cases:
                with self.subTest(arguments):
                    small = () if "--history" in arguments else ("--history", "8")
                    done = probe(*arguments, *(() if WITNESS[1] in arguments else small))
                    self.assertEqual(done.returncode, 1)
                    self.assertRegex(done.stderr.splitlines()[-1], " ERROR .*" + words)


    def test_paths_that_no_rule_could_use_are_warned_of_at_the_start(self):
        as_nobody = ("setpriv", "--reuid=65534", "--clear-groups") if os.geteuid() == 0 else ()
        with Probe("-r", TAGGED, "--stay", "--history", "8", params="export_path=/;capture_script=none",
                   prefix=as_nobody) as started:
            warnings = re.findall(" WARNING (.*)", started.text("err"))
            self.assertEqual(len(warnings), 2)
            self.assertIn("written to the directory /: Permission denied", warnings[0])
            self.assertIn("/usr/bin/kestrune/none cannot be read", warnings[1])


class Notifications(run_tests.InFolder):
    def test_the_service_manager_hears_of_start_life_and_stop(self):
        for name in (self.path("notify"), "@kestrune_test_%d" % os.getpid()):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager, self.subTest(name):
                manager.bind(name.replace("@", "\0", 1))
                manager.settimeout(LIMIT_S)
                env = {"NOTIFY_SOCKET": name, "WATCHDOG_USEC": "600000"}
                with Plain(*AT_ONCE, *WITNESS, "--stay", "-q", "2", env=env) as started:
                    self.assertTrue(manager.recv(4096).startswith(b"READY=1\nSTATUS=queues: 2, packets: 0, "))
                    seen, times = b"", []
                    while b"packets: 26" not in seen or len(times) < 4:
                        seen = manager.recv(4096)
                        times.append(time.monotonic())
                        self.assertTrue(seen.startswith(b"WATCHDOG=1\nSTATUS="), seen)
                    self.assertGreater(times[-1] - times[1], 0.15, "it does not flood")
                    self.assertEqual(started.stop(), 0)
                    while not seen.startswith(b"STOPPING=1"):
                        seen = manager.recv(4096)
        # Of another process: no watchdog; and without enforcement of the unit's addresses a warning.
        with Plain(*AT_ONCE, *WITNESS, env={"NOTIFY_SOCKET": self.path("none")}) as started:
            self.assertEqual(started.wait(), 0)
            self.assertIn("the control port is open to other machines", started.text("err"))


class Metrics(unittest.TestCase):
    def setUp(self):
        taken, self.port = listener()
        taken.close()
        self.probe = Plain("-r", WEB, "--speed", "0", "--stay", "-q", "2", *WITNESS, "--metrics",
                           "127.0.0.1:%d" % self.port)
        self.addCleanup(self.probe.close)
        wait_until(lambda: listening_port(self.probe.process.pid), lambda: self.probe.text("err"))
        self.probe.wait_counted("handed_on", 7451)

    def metrics(self):
        with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % self.port, timeout=LIMIT_S) as response:
            self.assertEqual(response.headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
            return response.read().decode()

    def test_they_hold_every_counter_of_the_line(self):
        text, line = self.metrics(), self.probe.counters()
        values = {}
        for name, value in re.findall(r"^kestrune_probe_(\w+?)(?:{queue=\"\d+\"})? (\d+)$", text, re.MULTILINE):
            name = re.sub("(_packets)?_total$", "", name)
            values[name] = values.get(name, 0) + int(value)
        self.assertEqual(values, {name: value for name, value in line.items() if name[-2] != "_"})
        self.assertIn('handed_on_packets_total{queue="1"} %d\n' % line["handed_on_1"], text)
        self.assertRegex(text, r'info{version="\d+\.\d+\.\d+",interface=""} 1\n')

    @unittest.skipIf(missing("promtool"), "promtool is missing")
    def test_promtool_has_nothing_to_say(self):
        checked = subprocess.run(["promtool", "check", "metrics"], input=self.metrics(), capture_output=True, text=True,
                                 check=False)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))

    def ask(self, request):
        with socket.create_connection(("127.0.0.1", self.port), LIMIT_S) as client:
            client.sendall(request)
            return b"".join(iter(lambda: client.recv(65536), b""))

    def test_clients_that_hang_or_ask_for_too_much_hold_nothing(self):
        size = len(self.metrics())
        for request, begin in ((b"GET /metrics HTTP/1.1\r\nAccept-Encoding: br\r\nRange: bytes=%s0-9\r\n\r\n"
                                % (b"0-9," * 900), b"HTTP/1.1 200"), (b"GET / HTTP/1.1\r\n\r\n", b"HTTP/1.1 404"),
                               (b"POST / HTTP/1.1\r\nContent-Length: 99999999\r\n\r\nx", b"HTTP/1.1 413"),
                               (b"GET /metrics HT", b"")):
            answer = self.ask(request)
            self.assertTrue(answer.startswith(begin) and len(answer) < size + 500, answer)
        hanging = [socket.create_connection(("127.0.0.1", self.port)) for _ in range(4)]
        self.metrics()
        hanging += [socket.create_connection(("127.0.0.1", self.port)) for _ in range(4)]
        self.assertLessEqual(len(os.listdir("/proc/%d/fd" % self.probe.process.pid)), 12)
        self.assertEqual(self.probe.stop(signal.SIGTERM), 0)
        for client in hanging:
            client.close()


class OnAnInterface(unittest.TestCase):
    @unittest.skipIf(missing("ethtool"), "ethtool is missing")
    def test_an_interface_that_merges_packets_is_warned_of(self):
        net = Namespace("wire")
        self.addCleanup(net.close)
        for state, warned in (("on", True), ("off", False)):
            self.assertEqual(run(*net.inside, "ethtool", "-K", "wire-in", "gro", state).returncode, 0)
            with Plain("-i", "wire-in", *WITNESS, "-v", prefix=net.inside) as started:
                wait_until(lambda: "capturing on" in started.text("err"), lambda: started.text("err"))
                self.assertEqual("'ethtool -K wire-in gro off'" in started.text("err"), warned)
                self.assertEqual(started.stop(), 0)


if __name__ == "__main__":
    run_tests.main()
