"""The whole product under load for long: a probe that replays as fast as it can, clients that ask for anything at
any time, some of them badly. Afterwards nothing has crashed, grown, stalled or been miscounted.

  soak.py [SECONDS]     600 by default; KESTRUNE_BUILD names the folder with the probe

Prints its figures; exit status 0 only when all is well."""

import collections
import errno
import multiprocessing
import os
import queue
import random
import socket
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
from control_client import CAPTURE, FAIL, INCIDENT, SUCCESS, VISUAL, Client, key_of  # noqa: E402
from probe_process import WEB, Probe, built, wait_until  # noqa: E402

PROCESSES, THREADS = 4, 16  # 64 clients
ROUNDS = 5  # with a look at the process after each
STALL_S = 1.0
GROWTH_KIB = 16 * 1024
REPORT_S = 120  # that the last rules may take to finish
NAMES = ("web", "a name with blanks", "it's \"quoted\" $HOME", "täg")
UNRECOGNIZED = 2


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

    def run(self, stop):
        actions = ((self.add, 30), (self.remove, 12), (self.rules, 12), (self.detail, 15), (self.history, 12),
                   (self.heavy, 3), (self.switch, 1), (self.register, 3), (self.malformed, 4), (self.reconnect, 2))
        calls = [action for action, _ in actions]
        weights = [weight for _, weight in actions]
        while not stop.is_set():
            try:
                self.client = self.client or Client(self.port)
                self.random.choices(calls, weights)[0]()
            except (OSError, ValueError) as error:
                self.wrong.append("%s: %r" % (type(error).__name__, error))
                self.client = None
            stop.wait(self.random.uniform(0, 0.1))
        if self.client:
            self.client.close()

    def timed(self, what, call, expected):
        began = time.monotonic()
        answer = call()
        self.longest[what] = max(self.longest[what], time.monotonic() - began)
        self.counts[what] += 1
        if expected and answer not in expected:
            self.wrong.append("%s was answered %r" % (what, answer))
        self.client.updates.clear()
        return answer

    def any_address(self):
        return self.random.choice(self.pool)

    def add(self):
        packets = self.random.choice((0, 1, 50, 2000))
        arguments = (self.any_address(), packets, self.random.randint(1, 6), self.random.choice(NAMES),
                     self.random.randrange(3))
        self.timed("ADD", lambda: self.client.add(*arguments), (SUCCESS, FAIL))

    def remove(self):
        address, direction = self.any_address(), self.random.choice((0, 1, 2, 2))
        self.timed("REMOVE", lambda: self.client.remove(address, direction), (SUCCESS, FAIL))

    def rules(self):
        self.timed("LIST", lambda: self.client.rules(self.random.randrange(4)), None)

    def detail(self):
        self.timed("DETAIL", lambda: self.client.detail(self.any_address()), None)

    def history(self):
        info = self.timed("HISTORY INFO", self.client.history, None)
        if info["queues"] != 2 or info["free"] > info["size"]:
            self.wrong.append("HISTORY INFO: %r" % info)

    def heavy(self):
        size = self.random.choice((0, 5, 20, 20, 200, 2**32 - 1))
        self.timed("REQ_HS", lambda: self.client.set_heavy_size(size), (SUCCESS,))

    def switch(self):
        if self.random.random() < 0.4:
            self.timed("HISTORY OFF", self.client.history_off, (SUCCESS, FAIL))
        else:
            size = self.random.randint(1, 8)
            self.timed("HISTORY ON", lambda: self.client.history_on(size), (SUCCESS, FAIL))

    def register(self):
        self.timed("INFO", lambda: self.client.ask(5, self.random.choice((4, 5))), (SUCCESS, FAIL))

    def reconnect(self):
        self.client.close()
        self.client = None

    def malformed(self):
        """A stream that is no request, or not all of one, on a connection of its own."""
        self.reconnect()
        address = key_of(self.any_address())
        stream, answer = self.random.choice((
            (bytes((0, 8, 2, 3)), b""),  # unknown version: closed without an answer
            (self.random.randbytes(40), b""),
            (bytes((0, 9, 9, 0)), bytes((0, 9, UNRECOGNIZED, 0))),
            (bytes((0, 9, 4, 1)), bytes((0, 9, UNRECOGNIZED, 0))),
            (bytes((0, 9, 0, 2)) + address + bytes(8) + b"\x20cut", b""),
            (bytes((0, 9, 3)), b""),
            (bytes((0, 9, 0, 2)) + address + struct.pack("<IIB", 1, 1, 4) + b"../x", bytes((0, 9, FAIL, 0))),
            (bytes((0, 9, 0, 2)) + address + struct.pack("<IIB", 1, 1, 200) + bytes(200), bytes((0, 9, FAIL, 0))),
        ))
        with socket.create_connection(("127.0.0.1", self.port), 30) as connection:
            received = b""
            try:
                connection.sendall(stream)
                connection.shutdown(socket.SHUT_WR)
                while piece := connection.recv(4096):
                    received += piece
            except OSError as error:
                if error.errno not in (errno.ECONNRESET, errno.ENOTCONN, errno.EPIPE):  # closed with bytes unread
                    raise
        self.counts["malformed"] += 1
        if received != answer:
            self.wrong.append("%r was answered %r" % (stream[:40], received))


def ask_all(port, pool, process, stop, results):
    """A process of clients, until told to stop."""
    askers = [Asker(port, pool, process * THREADS + number) for number in range(THREADS)]
    threads = [threading.Thread(target=asker.run, args=(stop,)) for asker in askers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for asker in askers:
        results.put((asker.counts, dict(asker.longest), asker.wrong))


def count_records(path):
    """Packets of a capture file; ValueError when it does not end with a whole record."""
    with open(path, "rb") as file:
        data = file.read()
    return len(pcap_files.parse(data))


def check_files(folder, reports, results):
    """A process that compares the files of each report with its figures and deletes them."""
    checked, packets, wrong = 0, 0, []
    while report := reports.get():
        rule, history_packets, live_packets, history_files, live_file = report
        try:
            history = [count_records(os.path.join(folder, name)) for name in history_files]
            live = count_records(os.path.join(folder, live_file)) if live_file else 0
        except (OSError, ValueError, struct.error) as error:
            wrong.append("rule %d: %r" % (rule, error))
            continue
        if (sum(history), live) != (history_packets, live_packets):
            wrong.append("rule %d: %d history and %d live packets in the files, %d and %d reported"
                         % (rule, sum(history), live, history_packets, live_packets))
        for name in (*history_files, *([live_file] if live_file else [])):
            os.remove(os.path.join(folder, name))
        checked += 1
        packets += sum(history) + live
    results.put((checked, packets, wrong))


class Collector(threading.Thread):
    """The one client that is registered throughout: hands every finished rule's report on."""

    def __init__(self, port, reports):
        super().__init__()
        self.client = Client(port)
        if self.client.register() != SUCCESS:
            raise RuntimeError("no registration")
        self.reports = reports
        self.added, self.finished = set(), set()
        self.failure = None
        self.stopping = threading.Event()
        self.start()

    def run(self):
        try:
            while not self.stopping.is_set():
                update = self.client.next_update(1)
                if update is None:
                    continue
                if update[0] == INCIDENT:
                    self.added.add(update[1])
                elif update[0] == VISUAL:
                    self.finished.add(update[1])
                    self.reports.put(update[1:])
                elif update[0] != CAPTURE or update[2] > 100:
                    raise ValueError(repr(update))
        except (OSError, ValueError) as error:
            self.failure = repr(error)

    def stop(self):
        self.stopping.set()
        self.join()
        self.client.close()


def process_state(pid):
    """Memory, threads and descriptors; the memory of the rings is only comparable while they are off."""
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
        self.slowest = None  # packets/s
        self.context = multiprocessing.get_context("fork")

    def run(self):
        reports, results = self.context.Queue(), self.context.Queue()
        checker = self.context.Process(target=check_files, args=(self.probe.export, reports, results))
        checker.start()
        collector = Collector(self.probe.port, reports)
        try:
            for _ in range(ROUNDS):
                self.round(self.seconds / ROUNDS)
                self.quiet(collector)
        finally:
            collector.stop()
            reports.put(None)
            try:
                checked, packets, wrong = results.get(timeout=REPORT_S)
            except queue.Empty:
                checked, packets, wrong = 0, 0, ["the files were not checked in time"]
                checker.kill()
            checker.join()
        self.problems += wrong
        self.judge(collector, checked)
        self.print_figures(checked, packets)

    def round(self, seconds):
        """Let the clients ask for this time."""
        stop, results = self.context.Event(), self.context.Queue()
        processes = [self.context.Process(target=ask_all, args=(self.probe.port, self.pool, number, stop, results))
                     for number in range(PROCESSES)]
        for process in processes:
            process.start()
        end = time.monotonic() + seconds
        while time.monotonic() < end and self.probe.process.poll() is None:
            self.sample_speed(min(5, max(end - time.monotonic(), 1)))
        stop.set()
        try:
            for _ in range(PROCESSES * THREADS):
                self.take(*results.get(timeout=REPORT_S))
        except queue.Empty:
            self.problems.append("a client does not end")
            for process in processes:
                process.kill()
        for process in processes:
            process.join()

    def sample_speed(self, seconds):
        before, began = self.probe.counters()["handed_on"], time.monotonic()
        time.sleep(seconds)
        speed = (self.probe.counters()["handed_on"] - before) / (time.monotonic() - began)
        self.slowest = speed if self.slowest is None else min(self.slowest, speed)

    def take(self, counts, longest, wrong):
        self.counts += counts
        for what, seconds in longest.items():
            self.longest[what] = max(self.longest[what], seconds)
        self.problems += wrong

    def quiet(self, collector):
        """Wait until every rule has finished and its report is here, turn the history off, and look at the process."""
        with Client(self.probe.port) as client:
            client.history_off()
            wait_until(lambda: client.rules() == [], "the last rules", REPORT_S)
        wait_until(lambda: collector.failure or collector.added == collector.finished,
                   lambda: "reports of rules %r" % sorted(collector.added - collector.finished), REPORT_S)
        # The last connection's thread and descriptor go when its handler is joined.
        before = self.states[-1] if self.states else None
        wait_until(lambda: self.same_as(before) or before is None, lambda: "%r became %r" % (
            before, process_state(self.probe.process.pid)), 30)
        self.states.append(process_state(self.probe.process.pid))

    def same_as(self, before):
        now = process_state(self.probe.process.pid)
        return before and all(now[what] <= before[what] for what in ("threads", "descriptors"))

    def judge(self, collector, checked):
        first, last = self.states[0], self.states[-1]
        if last["rss_kib"] > first["rss_kib"] + GROWTH_KIB and not sanitized():
            self.problems.append("memory has grown: %r, then %r" % (first, last))
        for what, seconds in self.longest.items():
            if seconds > STALL_S and what != "HISTORY OFF":  # which waits for a search to end
                self.problems.append("%s took %.2f s" % (what, seconds))
        if collector.failure:
            self.problems.append("the client with updates: " + collector.failure)
        if checked == 0 or self.slowest < 1000:
            self.problems.append("%d rules, %d packets/s: too little happened" % (checked, self.slowest))
        for name in self.probe.captures():  # a rule that a table refused leaves a file with a header alone
            if os.path.getsize(self.probe.capture(name)) != pcap_files.HEADER_SIZE:
                self.problems.append("nobody was told of the file " + name)

    def print_figures(self, checked, packets):
        print("requests: " + ", ".join("%s %d" % item for item in sorted(self.counts.items())))
        print("longest answers: " + ", ".join("%s %.0f ms" % (what, seconds * 1000)
                                              for what, seconds in sorted(self.longest.items())))
        print("%d rules finished, their files checked: %d packets" % (checked, packets))
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
