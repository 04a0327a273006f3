#!/usr/bin/env python3
"""The manager's figures, with their goals.

    bench/manager_bench.py [BUILD [NAME ...]]      NAME: rule, thousand, download, scrape, catalogue

BUILD is build/release by default. State, archive and raw files lie in TMPDIR, whose disk is measured beside them. The
exit status is 1 when a goal is missed.
"""

import collections
import contextlib
import os
import socket
import sqlite3
import statistics
import sys
import tempfile
import threading
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
BUILD = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release")
os.environ["KESTRUNE_BUILD"] = BUILD
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
import control  # noqa: E402
from manager_process import LoopingProbe, Manager  # noqa: E402
from probe_process import WATCHED, WEB, wait_until  # noqa: E402

PROBES = 64
CAPTURES = 100_000
ADDRESSES = 1000  # that they are of
missed = []


def tell(what, figure, goal=None, met=True):
    print("%-66s %-26s %s" % (what, figure, "" if goal is None else "goal %s%s" % (goal, "" if met else ": MISSED")), flush=True)
    if not met:
        missed.append(what)


def spread(seconds):
    """Median and 99th percentile in ms."""
    return statistics.median(seconds) * 1000, statistics.quantiles(seconds, n=100)[98] * 1000


def took(action):
    began = time.perf_counter()
    result = action()
    return time.perf_counter() - began, result


def fsyncs(folder, count=300):
    with open(os.path.join(folder, "fsync"), "wb") as file:
        def one():
            file.write(bytes(4096))
            file.flush()
            os.fdatasync(file.fileno())
        return spread([took(one)[0] for _ in range(count)])


def addresses(count, net=10):
    return ["%d.%d.%d.%d" % (net, i >> 16 & 255, i >> 8 & 255, i & 255) for i in range(1, count + 1)]


@contextlib.contextmanager
def running(**options):
    """A manager with one real probe."""
    with tempfile.TemporaryDirectory(prefix="kestrune_bench_") as folder:
        probe = LoopingProbe(folder, "a", WEB, **options)
        probe.start()
        manager = Manager(folder, [probe.settings()])
        try:
            manager.start()
            wait_until(lambda: manager.get("probes/a")["state"] == "up", manager.text)
            yield manager, folder
        finally:
            manager.kill()
            probe.kill()


def states(captures):
    return [capture["parts"][0]["state"] for capture in captures]


def bench_rule():
    with running() as (manager, folder), contextlib.closing(manager.connect()) as connection:
        manager.record(*addresses(100), packets=10**6, seconds=3600)
        before = fsyncs(folder)
        times = []
        for address in addresses(200, net=11):
            body = {"addresses": [address], "packets": 10**6, "seconds": 3600}
            seconds, answer = took(lambda: manager.ask("POST", "captures", body, connection))
            times.append(seconds)
            capture, = answer.json["captures"]
            assert states([capture]) == ["recording"], capture
            manager.ask("POST", "captures/%s/stop" % capture["id"])
        disk = [min(pair) for pair in zip(before, fsyncs(folder))]
        median, late = spread(times)
        tell("fsync of this disk, median / p99", "%.2f / %.2f ms" % tuple(disk))
        tell("POST until the rule stands, 100 captures running, median", "%.2f ms" % median, "5 ms + fsync", median < 5 + disk[0])
        tell("the same, p99", "%.2f ms" % late, "20 ms + fsync", late < 20 + disk[1])


def bench_thousand():
    with running() as (manager, _):
        body = {"addresses": addresses(1000), "packets": 10**6, "seconds": 3600}
        seconds, answer = took(lambda: manager.ask("POST", "captures", body))
        captures = answer.json["captures"]
        open_parts = states(captures).count("requested")
        tell("1,000 addresses in one request", "%.0f ms" % (seconds * 1000), "1 s", seconds < 1 and open_parts == 0)
        tell("   not answered by the probe by then", "%d" % open_parts)
        ids = [capture["id"] for capture in captures]
        wait_until(lambda: "requested" not in states(manager.all_captures()), manager.text)
        after = {capture["id"]: capture["parts"][0] for capture in manager.all_captures()}
        refused = [after[name] for name in ids if after[name]["state"] != "recording"]
        causes = collections.Counter("%s, live %s: %s" % (part["state"], part["live"], part["error"]) for part in refused)
        tell("   of these without a live capture", "%d %s" % (len(refused), dict(causes)))


def received(connection):
    room = bytearray(1 << 20)
    total = 0
    while (size := connection.recv_into(room)) > 0:
        total += size
    return total


def bare(path, port_of):
    """Serves the file once over a bare socket."""
    with socket.create_server(("127.0.0.1", 0)) as server, open(path, "rb") as file:
        port_of.append(server.getsockname()[1])
        connection, _ = server.accept()
        with connection:
            connection.sendfile(file)


def bare_download(path):
    port_of = []
    server = threading.Thread(target=bare, args=(path, port_of))
    server.start()
    wait_until(lambda: port_of, "the port")
    with socket.create_connection(("127.0.0.1", port_of[0])) as connection:
        seconds, size = took(lambda: received(connection))
    server.join()
    return size / seconds


def download(manager, capture):
    with socket.create_connection(("127.0.0.1", manager.port)) as connection:
        connection.sendall(("GET /api/v1/captures/%s/pcap HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nAuthorization: Bearer %s\r\n"
                            "Connection: close\r\n\r\n" % (capture["id"], manager.port, manager.token)).encode())
        seconds, size = took(lambda: received(connection))
    assert size >= capture["file"]["bytes"], size
    return size / seconds


def bench_download():
    with running(speed=0, params="buffer_size=1") as (manager, _):
        capture, = manager.record(WATCHED[0], packets=400_000, seconds=60)
        capture = manager.wait_capture(capture["id"], lambda now: now["state"] in ("sealed", "failed"))
        path = os.path.join(manager.folder_of(capture), capture["id"] + ".pcapng")
        manager_rates, bare_rates = [], []
        for _ in range(7):
            manager_rates.append(download(manager, capture))
            bare_rates.append(bare_download(path))
        ratio = statistics.median(manager_rates) / statistics.median(bare_rates)
        tell("download of %d MB beside a bare socket" % (capture["file"]["bytes"] >> 20), "%.2f (%.0f beside %.0f MB/s)" % (
            ratio, statistics.median(manager_rates) / 1e6, statistics.median(bare_rates) / 1e6), "0.8", ratio >= 0.8)


def cpu_s(pid):
    total = 0
    for task in os.listdir("/proc/%d/task" % pid):
        with open("/proc/%d/task/%s/schedstat" % (pid, task), encoding="ascii") as file:
            total += int(file.read().split()[0])
    return total / 1e9


@contextlib.contextmanager
def many_probes(folder):
    with contextlib.ExitStack() as stack:
        fakes = [stack.enter_context(control.FakeProbe()) for _ in range(PROBES)]
        manager = Manager(folder, [{"name": "p%d" % i, "address": fake.name} for i, fake in enumerate(fakes)])
        stack.callback(manager.kill)
        manager.start()
        wait_until(lambda: all(probe["state"] == "up" for probe in manager.get("probes")["probes"]), manager.text)
        yield manager


def bench_scrape():
    with tempfile.TemporaryDirectory(prefix="kestrune_bench_") as folder, many_probes(folder) as manager, \
            contextlib.closing(manager.connect()) as connection:
        scrape(manager, connection)


def scrape(manager, connection):
    pid = manager.process.pid
    begin = cpu_s(pid)
    time.sleep(5)
    idle = (cpu_s(pid) - begin) / 5
    begin = cpu_s(pid)
    count = 500
    seconds, _ = took(lambda: [manager.ask("GET", "/metrics", None, connection) for _ in range(count)])
    used = (cpu_s(pid) - begin - idle * seconds) / count
    text = manager.ask("GET", "/metrics", None, connection).body.decode()
    assert text.count("\nkestrune_probe_up{") == PROBES, text
    tell("a scrape of %d probes, processor time" % PROBES, "%.2f ms" % (used * 1000), "5 ms", used < 0.005)
    tell("%d probes polled each second, no request: processor" % PROBES, "%.1f %%" % (idle * 100))


def fill(database, like):
    """Copies one sealed capture until there are CAPTURES of ADDRESSES addresses."""
    with contextlib.closing(sqlite3.connect(database)) as catalogue, catalogue:
        tables = {}
        for table, key in (("captures", "id"), ("parts", "capture")):
            cursor = catalogue.execute("SELECT * FROM %s WHERE %s = ?" % (table, key), (like,))
            tables[table] = [column[0] for column in cursor.description], cursor.fetchall()
        for number in range(CAPTURES):
            new_id = like[:6] + (number + 1).to_bytes(10, "big")
            for table, (columns, rows) in tables.items():
                for row in rows:
                    new = dict(zip(columns, row))
                    new["id" if table == "captures" else "capture"] = new_id
                    if table == "captures":
                        new.update(address=bytes((4, 10, 9, number % ADDRESSES >> 8, number % ADDRESSES & 255)),
                                   requested_at=new["requested_at"] - number * 10**9)
                    catalogue.execute("INSERT INTO %s VALUES (%s)" % (table, ",".join("?" * len(columns))), list(new.values()))


def bench_catalogue():
    with tempfile.TemporaryDirectory(prefix="kestrune_bench_") as folder:
        probe = LoopingProbe(folder, "a", WEB)
        probe.start()
        manager = Manager(folder, [probe.settings()])
        manager.start()
        wait_until(lambda: manager.get("probes/a")["state"] == "up", manager.text)
        capture, = manager.record(WATCHED[0], packets=100, seconds=5)
        manager.wait_capture(capture["id"], lambda now: now["state"] == "sealed")
        manager.stop()
        probe.kill()
        database, = [path for path in (os.path.join(manager.state, name) for name in os.listdir(manager.state))
                     if open(path, "rb").read(6) == b"SQLite"]
        with contextlib.closing(sqlite3.connect(database)) as catalogue:
            like, = catalogue.execute("SELECT id FROM captures WHERE state = 4").fetchone()
        fill(database, like)
        with many_probes(folder) as many, contextlib.closing(many.connect()) as connection:
            times = []
            for number in range(200):
                path = "captures?address=10.9.%d.%d" % (number * 5 >> 8, number * 5 & 255)
                seconds, answer = took(lambda path=path: many.ask("GET", path, None, connection))
                assert len(answer.json["captures"]) == CAPTURES // ADDRESSES, answer.json
                times.append(seconds)
            median, late = spread(times)
            tell("%d captures filtered by address (100 found), median / p99" % CAPTURES, "%.2f / %.2f ms" % (median, late), "20 ms",
                 late < 20)
            scrape(many, connection)
            assert len(many.all_captures("sealed")) == CAPTURES + 1
            with open("/proc/%d/status" % many.process.pid, encoding="ascii") as status:
                memory = {line.split(":")[0]: int(line.split()[1]) / 1024 for line in status if line.startswith(("VmRSS", "VmHWM"))}
            tell("memory, %d probes and %d captures (most / now)" % (PROBES, CAPTURES),
                 "%.0f / %.0f MB" % (memory["VmHWM"], memory["VmRSS"]), "150 MB", memory["VmHWM"] < 150)


def main():
    names = sys.argv[2:] or ["rule", "thousand", "download", "scrape", "catalogue"]
    for name in names:
        globals()["bench_" + name]()
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
