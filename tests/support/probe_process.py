"""The built probe as a process, and with the built plugin also steered with the built kestrunectl. KESTRUNE_BUILD names
the folder that holds them."""

import glob
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

BUILD = os.environ["KESTRUNE_BUILD"]
PCAPS = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", "examples", "pcaps"))
WEB = os.path.join(PCAPS, "web-dualstack-tls.pcap")  # 7451 packets, all IP
TAGGED = os.path.join(PCAPS, "vlan-qinq-icmp.pcap")  # 26 packets, 20 of them IP
FRAGMENTS = os.path.join(PCAPS, "ipv6-fragments.pcap")  # 36 packets, all IP
WATCHED = ("192.168.0.17", "2601:647:4b02:1d20:fd05:6f66:ecce:8bc7")
LIMIT_S = 90  # that nothing may take, on a slow machine with a sanitizer


def built(name):
    return os.path.join(BUILD, name)


def missing(*programs):
    """The missing programs, for a visible skip."""
    return [name for name in programs if shutil.which(name) is None]


def wait_until(condition, what, limit_s=LIMIT_S):
    """Polls until the condition's value is true, and returns it."""
    end = time.monotonic() + limit_s
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("waited %d s in vain: %s" % (limit_s, what() if callable(what) else what))
        time.sleep(0.01)


def listening_port(pid):
    """The TCP port on which the process listens, 0 when there is none (yet)."""
    inodes = set()
    for path in glob.glob("/proc/%d/fd/*" % pid):
        try:
            inodes.update(re.findall(r"^socket:\[(\d+)\]", os.readlink(path)))
        except OSError:
            continue  # closed meanwhile
    for path in glob.glob("/proc/%d/net/tcp*" % pid):
        with open(path, encoding="ascii") as table:
            for row in [line.split() for line in table][1:]:
                if row[3] == "0A" and row[9] in inodes:
                    return int(row[1].rsplit(":", 1)[1], 16)
    return 0


class Command:
    """A kestrunectl --json in the background, whose output goes to a file."""

    def __init__(self, argv):
        self.output = tempfile.TemporaryFile()
        self.process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=self.output)

    @property
    def lines(self):
        """The objects that it has printed so far."""
        data = os.pread(self.output.fileno(), 1 << 26, 0)
        return [json.loads(line) for line in data[:data.rfind(b"\n") + 1].splitlines()]

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)

    def finish(self):
        """Exit status and the objects that it printed."""
        try:
            self.process.wait(LIMIT_S)
        finally:
            self.process.kill()
        lines = self.lines
        self.output.close()
        return self.process.returncode, lines


class ProbeProcess:
    """Starts at once; use it as a context manager. Its standard input is a pipe, its output goes to files."""

    def __init__(self, *arguments, prefix=(), env=None):
        self.folder = tempfile.mkdtemp(prefix="kestrune_test_")
        self.prefix = prefix
        argv = [*prefix, built("kestrune-probe"), *self.plugin_arguments(), *arguments]
        with open(self.path("out"), "wb") as out, open(self.path("err"), "wb") as err:
            self.process = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=out, stderr=err,
                                            env={**os.environ, **(env or {})})

    def plugin_arguments(self):
        raise NotImplementedError

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends everything, in any state; may be called again."""
        self.process.kill()
        self.process.wait()
        try:
            self.process.stdin.close()
        except OSError:
            pass
        shutil.rmtree(self.folder, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.folder, name)

    def text(self, name):
        with open(self.path(name), encoding="utf-8") as file:
            return file.read()

    def feed(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def counters(self):
        """The probe's current counters."""
        seen = self.text("out").count("\n")
        self.process.send_signal(signal.SIGUSR1)
        wait_until(lambda: self.text("out").count("\n") > seen, "counters")
        return self.last_counters()

    def last_counters(self):
        line = self.text("out").splitlines()[-1]
        return {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", line)}

    def wait_counted(self, counter, count):
        wait_until(lambda: self.counters()[counter] >= count, lambda: "%d packets: %s" % (count, self.text("out")))

    def stop(self, number=signal.SIGTERM):
        """Stop it as an operator does: the exit status."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        return self.process.wait(LIMIT_S)


class Probe(ProbeProcess):
    """With the plugin; returns once that listens."""

    def __init__(self, *arguments, params="", **options):
        self.params = params
        self.waiting = []
        super().__init__(*arguments, **options)
        try:
            self.port = wait_until(self._find_port, lambda: "no port; " + self.text("err"))
        except BaseException:
            self.close()
            raise

    def plugin_arguments(self):
        self.export = self.path("captures")
        os.mkdir(self.export)
        return "-P", "port=0;export_path=%s;%s" % (self.export, self.params)

    def _find_port(self):
        if self.process.poll() is not None:
            raise AssertionError("the probe ended with %d: %s" % (self.process.returncode, self.text("err")))
        return listening_port(self.process.pid)

    def close(self):
        self.process.kill()
        while self.waiting:
            command = self.waiting.pop()
            command.process.kill()
            command.finish()
        super().close()

    def capture(self, name):
        """Path of a capture file."""
        return os.path.join(self.export, name)

    def captures(self):
        return sorted(os.listdir(self.export))

    def start_ctl(self, *arguments):
        command = Command([*self.prefix, built("kestrunectl"), "--json", "-s", "127.0.0.1:%d" % self.port, *arguments])
        self.waiting.append(command)
        return command

    def finish_ctl(self, command):
        self.waiting.remove(command)
        return command.finish()

    def ctl(self, *arguments):
        """Exit status and the one object that kestrunectl printed."""
        status, (answer,) = self.finish_ctl(self.start_ctl(*arguments))
        return status, answer

    def do(self, *arguments):
        """The same for a command that must succeed."""
        status, answer = self.ctl(*arguments)
        assert status == 0 and answer["ok"], answer
        return answer

    def add_and_wait(self, *arguments):
        """add --wait; returns once the rule is there."""
        command = self.start_ctl("add", *arguments, "--wait")
        wait_until(lambda: arguments[0] in self.rules() or command.process.poll() is not None, "the rule")
        return command

    def rules(self):
        return [rule["address"] for rule in self.do("list")["rules"]]
