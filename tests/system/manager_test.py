"""The manager with real probes, and with ones that fail in any message. KESTRUNE_LONG kills it and them 200 times."""

import collections
import glob
import hashlib
import http.client
import os
import random
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import control  # noqa: E402
import pcap_files  # noqa: E402
import run_tests  # noqa: E402
from manager_process import LoopingProbe, Manager, read_pcapng  # noqa: E402
from probe_process import LIMIT_S, WATCHED, WEB, Probe, built, missing, wait_until  # noqa: E402

LONG = bool(os.environ.get("KESTRUNE_LONG"))
OVER = ("sealed", "failed", "deleted")


def parts(capture):
    return {part["probe"]: part for part in capture["parts"]}


def verify(archive):
    run = subprocess.run([built("kestrunectl"), "verify", archive], capture_output=True, text=True, check=False)
    if run.returncode != 0:
        raise AssertionError(run.stdout + run.stderr)


class ManagerTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrune_test_")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def start(self, process):
        self.addCleanup(process.kill)
        process.start()
        return process


class EndToEnd(ManagerTest):
    """One capture over three probes, each of which gets the first half of the packets before the request and the
    second one while it records."""

    def test_the_sealed_file_holds_what_tcpdump_finds_at_every_probe(self):
        absent = missing("tcpdump", "tshark", "capinfos")
        if absent:
            self.skipTest("missing: " + " ".join(absent))
        packets = pcap_files.read(WEB)
        halves = packets[:len(packets) // 2], packets[len(packets) // 2:]
        probes = {}
        for queues, name in ((1, "north"), (2, "south"), (4, "east")):
            probe = probes[name] = Probe("-r", "-", "--speed", "0", "-q", str(queues), params="buffer_size=64")
            self.addCleanup(probe.close)
            probe.do("heavy", str(2**32 - 1))
            probe.feed(pcap_files.pcap_header() + pcap_files.records(halves[0]))
            probe.wait_counted("handed_on", len(halves[0]))
        manager = self.start(Manager(self.folder, [
            {"name": name, "address": "127.0.0.1:%d" % probe.port, "files": probe.export} for name, probe in probes.items()]))
        wait_until(lambda: [probe["state"] for probe in manager.get("probes")["probes"]] == ["up"] * 3, manager.text)
        made = manager.record(*WATCHED, reason="test", packets=10**6, seconds=3600)
        for capture in made:
            self.assertEqual({part["state"] for part in capture["parts"]}, {"recording"}, capture)
        for probe in probes.values():
            probe.feed(pcap_files.records(halves[1]))
            probe.wait_counted("handed_on", len(packets))
        for capture in made:
            manager.ask("POST", "captures/%s/stop" % capture["id"])
        for capture in made:
            self.check(manager, manager.wait_capture(capture["id"], lambda now: now["state"] in OVER), list(probes), halves)
        verify(manager.archive)
        for probe in probes.values():
            wait_until(lambda probe=probe: not probe.captures(), lambda probe=probe: str(probe.captures()))
        self.assertEqual(manager.stop(), 0, manager.text())

    def check(self, manager, capture, probes, halves):
        self.assertEqual(capture["state"], "sealed", capture)
        found = subprocess.run(["tcpdump", "-r", WEB, "-w", "-", "--time-stamp-precision=nano", "host " + capture["address"]],
                               capture_output=True, check=True).stdout
        wanted = pcap_files.parse(found)
        first = set(halves[0])
        expected = {"history": sorted(packet for packet in wanted if packet in first),
                    "live": sorted(packet for packet in wanted if packet not in first)}
        data = manager.ask("GET", "captures/%s/pcap" % capture["id"]).body
        self.assertEqual((capture["file"]["bytes"], capture["file"]["sha256"]), (len(data), hashlib.sha256(data).hexdigest()))
        sealed, _ = read_pcapng(data)
        self.assertEqual([packet[1] for packet in sealed], sorted(packet[1] for packet in sealed))
        for probe in probes:
            for origin, there in expected.items():
                self.assertTrue(there == sorted(packet[1:] for packet in sealed if packet[0].startswith(probe + "/" + origin)),
                                (probe, origin))
            part = parts(capture)[probe]
            self.assertEqual((part["live_packets"], part["history_packets"], part["ended_by"]),
                             (len(expected["live"]), len(expected["history"]), "removed"))
        path = os.path.join(manager.folder_of(capture), capture["id"] + ".pcapng")
        shown = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "frame.interface_name"], capture_output=True,
                               text=True, check=True).stdout.split()
        self.assertEqual(collections.Counter(shown), collections.Counter(packet[0] for packet in sealed))
        counted = subprocess.run(["capinfos", "-cMTr", path], capture_output=True, text=True, check=True).stdout.split()
        self.assertEqual(int(counted[-1]), len(wanted) * 3)
        summary = manager.get("captures/%s/summary" % capture["id"])
        self.assertEqual((summary["packets"], sum(sum(origin["packets"]) for origin in summary["origins"])),
                         (len(sealed), len(sealed)))


class Kills(ManagerTest):
    """Requests go on while the manager and a probe are killed at random moments. In the end everything that was promised
    is there once, and nothing else."""

    KILLS = 200 if LONG else 6
    POOL = (*WATCHED, "8.8.8.8", "192.0.2.1", "2001:db8::1", "1.1.1.1", "198.51.100.7")

    def test_nothing_promised_is_lost_or_doubled(self):
        self.seed = int(os.environ.get("KESTRUNE_SEED", time.time_ns() % 2**32))
        self.random = random.Random(self.seed)
        self.probes = [self.start(LoopingProbe(self.folder, name, WEB)) for name in ("a", "b")]
        self.manager = self.start(Manager(self.folder, [probe.settings() for probe in self.probes]))
        self.answered = {}  # id -> the capture as it was answered first
        self.deleted = set()
        self.keys = {}  # of the requests: body and ids
        self.renewed = set()
        self.ending = False
        self.posting = threading.Event()
        self.failure = None
        client = threading.Thread(target=self.ask_on)
        client.start()
        try:
            for _ in range(self.KILLS):
                time.sleep(self.random.uniform(0.05, 1.5))
                victim = self.random.choice([self.manager, self.manager, *self.probes])
                if self.random.random() < 0.7:  # in the middle of a request
                    self.posting.clear()
                    self.posting.wait(5)
                    time.sleep(self.random.uniform(0, 0.006))
                victim.kill()
                time.sleep(self.random.choice([0, 0, self.random.uniform(0, 1)]))
                victim.start()
        finally:
            self.ending = True
            client.join()
        with self.subTest(seed=self.seed):
            self.assertIsNone(self.failure)
            self.check_end()

    # The client

    def ask_on(self):
        choices = random.Random(self.seed + 1)
        number = 0
        try:
            while not self.ending:
                number += 1
                if choices.random() < 0.7 or not self.answered:
                    self.post(choices, "key-%d" % number)
                else:
                    self.change(choices)
                time.sleep(choices.uniform(0, 0.05))
        except Exception as error:  # pylint: disable=broad-except  # told by the main thread
            self.failure = error

    def insist(self, *arguments, **headers):
        """Asks until there is an answer. Between a kill and the start nobody listens."""
        end = time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            try:
                answer = self.manager.ask(*arguments, **headers)
                if answer.status not in (500, 503):
                    return answer
            except (OSError, http.client.HTTPException):
                pass
            time.sleep(0.01)
        raise AssertionError("no answer to %r" % (arguments,))

    def post(self, choices, key):
        body = {"addresses": choices.sample((*self.POOL, "10.0.%d.1" % choices.randrange(256)), choices.randint(1, 2)), "packets": choices.randint(1, 3000),
                "seconds": choices.randint(1, 3), "renew": choices.random() < 0.2}
        if choices.random() < 0.3:
            body["probes"] = [choices.choice("ab")]
        if choices.random() < 0.2:
            body = {"addresses": body["addresses"], "history_only": True}
        self.posting.set()
        answer = self.insist("POST", "captures", body, Idempotency_Key=key)
        if answer.status not in (200, 201):
            raise AssertionError("POST %r: %d %s" % (body, answer.status, answer.body))
        self.keys[key] = body, [capture["id"] for capture in answer.json["captures"]]
        for capture in answer.json["captures"]:
            self.answered.setdefault(capture["id"], capture)
            if body.get("renew"):
                self.renewed.add(capture["id"])

    def change(self, choices):
        chosen = choices.choice(list(self.answered))
        if choices.random() < 0.3:  # a key is honoured, also by the next process
            key = choices.choice(list(self.keys))
            body, ids = self.keys[key]
            again = self.insist("POST", "captures", body, Idempotency_Key=key).json["captures"]
            assert [capture["id"] for capture in again] == ids, (key, ids, again)
        elif choices.random() < 0.5:
            self.insist("POST", "captures/%s/stop" % chosen)
        elif self.insist("DELETE", "captures/" + chosen).status == 204:
            self.deleted.add(chosen)

    # What must be true in the end

    def check_end(self):
        manager = self.manager
        captures = wait_until(lambda: self.all_over(), lambda: "%r %s" % (
            [capture for capture in manager.all_captures() if capture["state"] not in OVER][:3], manager.text()[-3000:]))
        self.assertEqual(set(captures), set(self.answered))
        self.assertTrue(self.deleted <= {name for name, capture in captures.items() if capture["state"] == "deleted"})
        causes = collections.Counter()
        for name, capture in captures.items():
            stood = any(part["state"] in ("recording", "searching") for part in self.answered[name]["parts"])
            self.assertFalse(stood and capture["state"] == "failed", capture)
            causes.update(part["error"] or part["state"] for part in capture["parts"])
            if capture["state"] == "sealed":
                self.check_sealed(capture)
        print(len(captures), "captures:", dict(causes), file=sys.stderr)
        self.assertGreater(sum(capture["state"] == "sealed" for capture in captures.values()), 0)
        manager.stop()
        manager.start()  # sweeps
        for probe in self.probes:
            wait_until(lambda probe=probe: not self.ours_in(probe), lambda probe=probe: "orphans: %r" % self.ours_in(probe))
        verify(manager.archive)
        self.assertEqual({path.split(os.sep)[-2] for path in glob.glob(manager.archive + "/*/*/manifest.json")},
                         {name for name, capture in captures.items() if capture["state"] == "sealed"})
        self.assertEqual(glob.glob(manager.archive + "/*/*/*.part"), [])

    def all_over(self):
        captures = {capture["id"]: capture for capture in self.manager.all_captures()}
        return captures if all(capture["state"] in OVER for capture in captures.values()) else None

    @staticmethod
    def ours_in(probe):
        return [name for name in os.listdir(probe.export) if name[26:27] == "_"]

    def check_sealed(self, capture):
        answer = self.manager.ask("GET", "captures/%s/pcap" % capture["id"])
        self.assertEqual(hashlib.sha256(answer.body).hexdigest(), capture["file"]["sha256"], capture)
        packets, names = read_pcapng(answer.body)
        self.assertEqual(len(packets), capture["file"]["packets"])
        self.assertEqual(len(names), len(set(names)))
        by_probe = collections.Counter((name.split("/")[0], *rest) for name, *rest in packets)
        self.assertEqual([packet for packet, times in by_probe.items() if times > 1][:1], [], capture)
        for part in self.manager.get("captures/%s/manifest" % capture["id"])["parts"]:
            origins = [source["origin"] for source in part["sources"]]
            # One rule's files. A renewal that meets a probe which has just come back makes another rule there.
            self.assertTrue(capture["id"] in self.renewed or len(origins) == len(set(origins)), part)
        for name, part in parts(capture).items():
            counted = [sum(1 for packet in packets if packet[0].startswith(name + origin)) for origin in ("/live", "/history")]
            self.assertEqual(counted, [part["live_packets"], part["history_packets"]], capture)


class Trouble(ManagerTest):
    """Probes that hang, cut a message short, die in it or lie, in each message; and a good one beside them."""

    MESSAGES = (control.ADD, control.LIST, control.DETAIL, control.HISTORY, control.INFO, "update")

    def test_a_probe_that_fails_in_any_message_holds_up_nobody(self):
        good = Probe("-r", "-", params="buffer_size=1")
        self.addCleanup(good.close)
        fakes = {}
        for message in self.MESSAGES:
            for trouble in ("silent", "cut", "die", bytes((0, 9, 77, 0))):
                fake = control.FakeProbe()
                fake.__enter__()
                self.addCleanup(fake.__exit__)
                fakes["m%s-%s" % (message, trouble if isinstance(trouble, str) else "lie")] = fake, message, trouble
        settings = [{"name": "good", "address": "127.0.0.1:%d" % good.port, "files": good.export}]
        settings += [{"name": name, "address": fake.name} for name, (fake, _, _) in fakes.items()]
        manager = self.start(Manager(self.folder, settings))

        def all_up():
            return all(probe["state"] == "up" for probe in manager.get("probes")["probes"])
        wait_until(all_up, manager.text)
        for fake, message, trouble in fakes.values():
            with fake.lock:
                if trouble == "silent":
                    fake.silent.add(message)
                else:
                    fake.spoilt[message] = trouble
        for address in ("10.0.0.1", "10.0.0.2"):
            began = time.monotonic()
            capture, = manager.record(address, seconds=3600)
            self.assertLess(time.monotonic() - began, 2)
            self.assertEqual(parts(capture)["good"]["state"], "recording", capture)
            time.sleep(1.5)  # the polls of the other probes meet their trouble
        self.assertEqual(manager.ask("GET", "/healthz").status, 200)
        manager.ask("POST", "captures/%s/stop" % capture["id"])
        manager.wait_capture(capture["id"], lambda now: parts(now)["good"]["state"] == "finished", 20)
        for fake, _, _ in fakes.values():
            with fake.lock:
                fake.silent.clear()
                fake.spoilt.clear()
        wait_until(all_up, lambda: str([(probe["name"], probe["error"]) for probe in manager.get("probes")["probes"]]))


if __name__ == "__main__":
    run_tests.main()
