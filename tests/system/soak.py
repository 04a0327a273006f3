"""The whole product under load for long: a probe that replays as fast as it can, clients that ask for anything at
any time, some of them badly. Afterwards nothing has crashed, grown, stalled or been miscounted.

  soak.py [SECONDS]     600 by default; KESTRUNE_BUILD names the folder with the probe

Prints its figures; exit status 0 only when all is well."""

import collections
import errno
import multiprocessing
import os
import random
import socket
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
from control_client import CAPTURE, INCIDENT, VISUAL, Client  # noqa: E402
from fake_probe import (ADD, ALL, BOTH, FAIL, HISTORY, INFO, LIST, OFF, ON, SUCCESS, UNRECOGNIZED,  # noqa: E402
                        header, key_of)
from probe_process import WEB, Probe, built, wait_until  # noqa: E402

PROCESSES, THREADS = 4, 16  # 64 clients
ROUNDS = 5  # with a look at the process after each
STALL_S = 1.0
GROWTH_KIB = 16 * 1024
REPORT_S = 120  # that the last rules may take to finish
NAMES = ("web", "a name with blanks", "it's \"quoted\" $HOME", "täg")


def addresses():
    """Every address of the capture, and some that it does not have."""
    found = {"10.255.0.%d" % number for number in range(8)} | {"2001:db8::%x" % number for number in range(8)}
    for _, data in pcap_files.read(WEB):
        for key in pcap_files.flow_of(data)[1:]:
            family = socket.AF_INET6 if len(key[0]) == 16 else socket.AF_INET
            found.add(socket.inet_ntop(family, key[0]))
    return sorted(found)


class Asker:
    """One client: random requests on a connection that is now and then replaced. Notes how long each answer took."""

    def __init__(self, port, pool, seed):
        self.port = port
        self.pool = pool
        self.random = random.Random(seed)
        self.client = None
        self.counts = collections.Counter()
        self.longest = collections.defaultdict(float)
        self.wrong = []

    def requests(self):
        """(weight, name, request, answers that are right or None for any)."""
        pick, number = self.pick, self.random.randrange
        either = (SUCCESS, FAIL)
        return (
            (30, "ADD", lambda: self.client.add(pick(self.pool), pick((0, 1, 50, 2000)), number(1, 7), pick(NAMES),
                                                number(3)), either),
            (12, "REMOVE", lambda: self.client.remove(pick(self.pool), pick((0, 1, 2, 2))), either),
            (12, "LIST", lambda: self.client.rules(number(4)), None),
            (15, "DETAIL", lambda: self.client.detail(pick(self.pool)), None),
            (12, "HISTORY INFO", self.history_is_right, (True,)),
            (3, "REQ_HS", lambda: self.client.set_heavy_size(pick((0, 5, 20, 20, 200, 2**32 - 1))), (SUCCESS,)),
            (0.6, "HISTORY ON", lambda: self.client.history_on(number(1, 9)), either),
            (0.4, "HISTORY OFF", lambda: self.client.history_off(), either),
            (3, "INFO", lambda: self.client.ask(INFO, pick((ON, OFF))), either),
            (4, "malformed", self.malformed_is_answered_rightly, (True,)),
            (2, "reconnect", self.disconnect, None),
        )

    def run(self, end):
        requests = self.requests()
        weights = [weight for weight, *_ in requests]
        while time.monotonic() < end:
            try:
                self.client = self.client or Client(self.port)
                self.make(*self.random.choices(requests, weights)[0])
            except (OSError, ValueError) as error:
                self.wrong.append(repr(error))
                self.client = None
            time.sleep(self.random.uniform(0, 0.1))
        self.disconnect()

    def make(self, _, name, request, expected):
        began = time.monotonic()
        answer = request()
        self.longest[name] = max(self.longest[name], time.monotonic() - began)
        self.counts[name] += 1
        if expected and answer not in expected:
            self.wrong.append("%s was answered %r" % (name, answer))
        if self.client:
            self.client.updates.clear()

    def pick(self, choices):
        return self.random.choice(choices)

    def disconnect(self):
        if self.client:
            self.client.close()
        self.client = None

    def history_is_right(self):
        info = self.client.history()
        return info["queues"] == 2 and info["free"] <= info["size"] or info

    def malformed_is_answered_rightly(self):
        """A stream that is no request, or not all of one, on a connection of its own."""
        self.disconnect()
        add = bytes((0, 9, ADD, BOTH)) + key_of(self.pick(self.pool)) + struct.pack("<II", 1, 1)
        stream, answer = self.pick((
            (bytes((0, 8, LIST, ALL)), b""),  # unknown version: closed without an answer
            (self.random.randbytes(40), b""),
            (bytes((0, 9, 9, 0)), header(UNRECOGNIZED)),
            (bytes((0, 9, HISTORY, 1)), header(UNRECOGNIZED)),
            (add + b"\x20cut", b""),
            (bytes((0, 9, 3)), b""),
            (add + b"\x04../x", header(FAIL)),
            (add + b"\xc8" + bytes(200), header(FAIL)),
        ))
        received = b""
        with socket.create_connection(("127.0.0.1", self.port), 30) as connection:
            try:
                connection.sendall(stream)
                connection.shutdown(socket.SHUT_WR)
                while piece := connection.recv(4096):
                    received += piece
            except OSError as error:
                if error.errno not in (errno.ECONNRESET, errno.ENOTCONN, errno.EPIPE):  # closed with bytes unread
                    raise
        return received == answer or (stream, received)


def ask_all(port, pool, process, end):
    """A process of clients, until this time: what each of them noted."""
    askers = [Asker(port, pool, process * THREADS + number) for number in range(THREADS)]
    threads = [threading.Thread(target=asker.run, args=(end,)) for asker in askers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return [(asker.counts, asker.longest, asker.wrong) for asker in askers]


def check_report(folder, rule, history_packets, live_packets, history_files, live_file):
    """Counts the packets in the files of a finished rule and deletes them; an error when they are not as reported."""
    paths = [os.path.join(folder, name) for name in (*history_files, live_file) if name]
    counts = [len(pcap_files.read(path)) for path in paths]
    live = counts[-1] if live_file else 0
    if (sum(counts) - live, live) != (history_packets, live_packets):
        raise ValueError("rule %d: %r packets in %r, but %d of the history and %d live ones were reported"
                         % (rule, counts, paths, history_packets, live_packets))
    for path in paths:
        os.remove(path)
    return sum(counts)


class Collector(threading.Thread):
    """The one client that is registered throughout: has the files of every finished rule checked."""

    def __init__(self, port, check):
        super().__init__()
        self.client = Client(port)
        if self.client.register() != SUCCESS:
            raise RuntimeError("no registration")
        self.check = check
        self.added, self.finished, self.checks = set(), set(), []
        self.failure = None
        self.stopping = threading.Event()
        self.start()

    def run(self):
        try:
            while not self.stopping.is_set():
                kind, *fields = self.client.next_update(1) or (None,)
                if kind == INCIDENT:
                    self.added.add(fields[0])
                elif kind == VISUAL:
                    self.finished.add(fields[0])
                    self.checks.append(self.check(*fields))
                elif kind == CAPTURE and fields[1] > 100:
                    raise ValueError("%d %%" % fields[1])
        except (OSError, ValueError) as error:
            self.failure = repr(error)

    def stop(self):
        self.stopping.set()
        self.join()
        self.client.close()


def process_state(probe):
    """Memory, threads and descriptors; the memory of the rings is only comparable while they are off."""
    pid = probe.process.pid
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        fields = dict(line.split(":", 1) for line in status)
    return {"rss_kib": int(fields["VmRSS"].split()[0]), "threads": int(fields["Threads"]),
            "descriptors": len(os.listdir("/proc/%d/fd" % pid))}


def sanitized():
    with open(built("kestrune-probe"), "rb") as program:
        data = program.read()
    return b"__tsan_init" in data or b"__asan_init" in data


class Soak:
    def __init__(self, probe, seconds):
        self.probe = probe
        self.seconds = seconds
        self.pool = addresses()
        self.problems = []
        self.counts = collections.Counter()
        self.longest = collections.defaultdict(float)
        self.states = []
        self.slowest = float("inf")  # packets/s
        self.context = multiprocessing.get_context("fork")

    def run(self):
        with self.context.Pool(1) as checkers:
            collector = Collector(self.probe.port, lambda *fields: checkers.apply_async(
                check_report, (self.probe.export, *fields)))
            try:
                for _ in range(ROUNDS):
                    self.round(self.seconds / ROUNDS)
                    self.quiet(collector)
            finally:
                collector.stop()
            checked = self.checked_packets(collector.checks)
        self.judge(collector, checked)
        self.print_figures(checked)

    def checked_packets(self, checks):
        """Packets in the files of each rule that were as they should be."""
        packets = []
        for check in checks:
            try:
                packets.append(check.get(REPORT_S))
            except (OSError, ValueError, struct.error, multiprocessing.TimeoutError) as error:
                self.problems.append("files: %r" % error)
        return packets

    def round(self, seconds):
        """Let the clients ask for this time."""
        end = time.monotonic() + seconds
        with self.context.Pool(PROCESSES) as processes:
            asked = processes.starmap_async(ask_all, [(self.probe.port, self.pool, number, end)
                                                      for number in range(PROCESSES)])
            while time.monotonic() < end and self.probe.process.poll() is None:
                self.sample_speed(min(5, max(end - time.monotonic(), 1)))
            try:
                for counts, longest, wrong in sum(asked.get(REPORT_S), []):
                    self.counts += counts
                    for name, took in longest.items():
                        self.longest[name] = max(self.longest[name], took)
                    self.problems += wrong
            except multiprocessing.TimeoutError:
                self.problems.append("a client does not end")

    def sample_speed(self, seconds):
        before, began = self.probe.counters()["handed_on"], time.monotonic()
        time.sleep(seconds)
        speed = (self.probe.counters()["handed_on"] - before) / (time.monotonic() - began)
        self.slowest = min(self.slowest, speed)

    def quiet(self, collector):
        """Wait until every rule has finished and its report is here, turn the history off, and look at the process."""
        with Client(self.probe.port) as client:
            client.history_off()
            wait_until(lambda: client.rules() == [], "the last rules", REPORT_S)
        wait_until(lambda: collector.failure or collector.added == collector.finished,
                   lambda: "reports of rules %r" % sorted(collector.added - collector.finished), REPORT_S)
        # The last connection's thread and descriptor go when its handler is joined.
        before = self.states[-1] if self.states else None
        wait_until(lambda: before is None or self.is_back_at(before),
                   lambda: "%r became %r" % (before, process_state(self.probe)), 30)
        self.states.append(process_state(self.probe))

    def is_back_at(self, before):
        now = process_state(self.probe)
        return all(now[what] <= before[what] for what in ("threads", "descriptors"))

    def judge(self, collector, checked):
        first, last = self.states[0], self.states[-1]
        if last["rss_kib"] > first["rss_kib"] + GROWTH_KIB and not sanitized():
            self.problems.append("memory has grown: %r, then %r" % (first, last))
        for what, seconds in self.longest.items():
            # Switching the history off waits for a search to end.
            if seconds > STALL_S and what not in ("HISTORY OFF", "malformed"):
                self.problems.append("%s took %.2f s" % (what, seconds))
        if collector.failure:
            self.problems.append("the client with updates: " + collector.failure)
        if not checked or self.slowest < 1000:
            self.problems.append("%d rules, %d packets/s: too little happened" % (len(checked), self.slowest))
        for name in self.probe.captures():  # a rule that a table refused leaves a file with a header alone
            if os.path.getsize(self.probe.capture(name)) != pcap_files.HEADER_SIZE:
                self.problems.append("nobody was told of the file " + name)

    def print_figures(self, checked):
        print("requests: " + ", ".join("%s %d" % item for item in sorted(self.counts.items())))
        print("longest answers: " + ", ".join("%s %.0f ms" % (what, seconds * 1000)
                                              for what, seconds in sorted(self.longest.items())))
        print("%d rules finished, their files checked: %d packets" % (len(checked), sum(checked)))
        print("packets/s, the slowest five seconds: %d" % self.slowest)
        print("quiet between the rounds: " + "; ".join(", ".join("%s %d" % item for item in state.items())
                                                       for state in self.states))


def main():
    seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 600
    # With a single arena the allocator keeps little for later, and growth is the program's own.
    with Probe("-r", WEB, "--speed", "0", "--loop", "0", "-q", "2", params="buffer_size=4",
               env={"MALLOC_ARENA_MAX": "1"}) as probe:
        soak = Soak(probe, seconds)
        soak.run()
        status = probe.stop()
        if status != 0:
            soak.problems.append("the probe ended with %d" % status)
        if "Sanitizer" in probe.text("err") or "runtime error" in probe.text("err"):
            soak.problems.append(probe.text("err")[-20000:])
    for problem in soak.problems[:50]:
        print("PROBLEM: " + problem)
    print("%d problems" % len(soak.problems))
    return 0 if not soak.problems else 1


if __name__ == "__main__":
    sys.exit(main())
