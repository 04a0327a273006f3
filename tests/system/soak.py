"""The probe with the plugin under load for long: packets as fast as it can replay them, clients that ask for anything at
any time. Afterwards nothing has crashed, grown or stalled. (What the files hold is checked by
oracle_test.)

  soak.py [SECONDS]     120 by default; KESTRUNE_BUILD names the folder with the probe

Prints its figures; exit status 0 only when all is well."""

import collections
import os
import random
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402
from control import FAIL, INFO, OFF, ON, SUCCESS, Client  # noqa: E402
from probe_process import WEB, Probe, wait_until  # noqa: E402

CLIENTS = 64
ROUNDS = 3  # with a look at the process after each
STALL_S = 1.0
GROWTH_KIB = 16 * 1024
FINISH_S = 120  # that the last rules may take
EITHER = (SUCCESS, FAIL)


def addresses():
    """Every address of the capture, and some that it does not have."""
    found = {"10.255.0.%d" % number for number in range(8)} | {"2001:db8::%x" % number for number in range(8)}
    for _, data in pcap_files.read(WEB):
        for key in pcap_files.flow_of(data)[1:]:
            found.add(socket.inet_ntop(socket.AF_INET6 if len(key[0]) == 16 else socket.AF_INET, key[0]))
    return sorted(found)


class Asker(threading.Thread):
    """One client: random requests on a connection that is now and then replaced, until a time."""

    def __init__(self, port, pool, seed, end):
        super().__init__()
        self.port, self.pool, self.random, self.end = port, pool, random.Random(seed), end
        self.client = Client(port)
        self.longest = collections.defaultdict(float)
        self.asked, self.wrong = 0, []
        self.start()

    def requests(self):
        """(weight, name, request, answers that are right or None for any)."""
        pick, number = self.random.choice, self.random.randrange
        return (
            (30, "ADD", lambda: self.client.add(pick(self.pool), pick((0, 1, 50, 2000)), number(1, 7), "soak",
                                                number(3)), EITHER),
            (12, "REMOVE", lambda: self.client.remove(pick(self.pool), number(3)), EITHER),
            (12, "LIST", lambda: self.client.rules(number(4)), None),
            (15, "DETAIL", lambda: self.client.detail(pick(self.pool)), None),
            (12, "HISTORY INFO", lambda: self.client.history()["queues"], (2,)),
            (3, "REQ_HS", lambda: self.client.set_heavy_size(pick((0, 20, 2**32 - 1))), (SUCCESS,)),
            (0.6, "HISTORY ON", lambda: self.client.history_on(number(1, 9)), EITHER),
            (0.4, "HISTORY OFF", lambda: self.client.history_off(), EITHER),
            (3, "INFO", lambda: self.client.ask(INFO, pick((ON, OFF))), EITHER),
            (2, "reconnect", self.reconnect, None),
        )

    def run(self):
        requests = self.requests()
        weights = [weight for weight, *_ in requests]
        while time.monotonic() < self.end:
            _, name, request, expected = self.random.choices(requests, weights)[0]
            began = time.monotonic()
            try:
                answer = request()
                if expected and answer not in expected:
                    self.wrong.append("%s was answered %r" % (name, answer))
            except (OSError, ValueError) as error:
                self.wrong.append("%s: %r" % (name, error))
                self.reconnect()
            self.longest[name] = max(self.longest[name], time.monotonic() - began)
            self.asked += 1
            self.client.updates.clear()
            time.sleep(self.random.uniform(0, 0.1))
        self.client.close()

    def reconnect(self):
        self.client.close()
        self.client = Client(self.port)


def state_of(probe):
    """Threads and descriptors, and memory, which is only comparable while the rings are off."""
    pid = probe.process.pid
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        fields = dict(line.split(":", 1) for line in status)
    return int(fields["Threads"]), len(os.listdir("/proc/%d/fd" % pid)), int(fields["VmRSS"].split()[0])


def run_round(probe, seconds, number, problems):
    """Clients for this time, then quiet: the state of the process."""
    pool, end = addresses(), time.monotonic() + seconds
    before, began = probe.counters()["handed_on"], time.monotonic()
    askers = [Asker(probe.port, pool, number * CLIENTS + client, end) for client in range(CLIENTS)]
    for asker in askers:
        asker.join()
        problems += asker.wrong
        problems += ["%s took %.2f s" % (name, took) for name, took in asker.longest.items()
                     if took > STALL_S and name != "HISTORY OFF"]  # which waits for a search
    speed = (probe.counters()["handed_on"] - before) / (time.monotonic() - began)
    with Client(probe.port) as client:
        client.history_off()
        wait_until(lambda: client.rules() == [], "the last rules", FINISH_S)
    wait_until(lambda: state_of(probe)[1] <= probe.quiet[1] and state_of(probe)[0] <= probe.quiet[0],
               lambda: "%r became %r" % (probe.quiet, state_of(probe)), 30)
    for name in probe.captures():
        os.remove(probe.capture(name))
    print("%d requests, %d packets/s; then %d threads, %d descriptors, %d KiB"
          % (sum(asker.asked for asker in askers), speed, *state_of(probe)), flush=True)
    if speed < 1000:
        problems.append("%d packets/s: too little happened" % speed)
    return state_of(probe)


def main():
    seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 120
    problems = []
    # With a single arena the allocator keeps little for later, and growth is the program's own.
    with Probe("-r", WEB, "--speed", "0", "--loop", "0", "-q", "2", params="buffer_size=0",
               env={"MALLOC_ARENA_MAX": "1"}) as probe:
        probe.quiet = state_of(probe)
        states = [run_round(probe, seconds / ROUNDS, number, problems) for number in range(ROUNDS)]
        if states[-1][2] > states[0][2] + GROWTH_KIB:
            problems.append("memory has grown: %r" % states)
        if (status := probe.stop()) != 0:
            problems.append("the probe ended with %d" % status)
        if "Sanitizer" in probe.text("err") or "runtime error" in probe.text("err"):
            problems.append(probe.text("err")[-20000:])
    for problem in problems[:50]:
        print("PROBLEM: " + problem)
    print("%d problems" % len(problems))
    return 0 if not problems else 1


if __name__ == "__main__":
    sys.exit(main())
