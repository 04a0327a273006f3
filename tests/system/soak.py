"""The probe with the plugin under load for long: packets as fast as it can replay them, and kestrunectl asking for
anything at any time. Afterwards nothing has crashed, grown or stalled. (What the files hold is checked by oracle_test.)

  soak.py [SECONDS]     120 by default; KESTRUNE_BUILD names the folder with the programs

Prints its figures; exit status 0 only when all is well."""

import os
import random
import sys
import threading
import time

from probe_process import WATCHED, WEB, Probe, wait_until

CLIENTS = 16
WATCHERS = 4
ROUNDS = 3  # with a look at the process after each
STALL_S = 1.0
GROWTH_KIB = 16 * 1024
FINISH_S = 120  # that the last rules may take
REFUSED = 4  # kestrunectl's status
POOL = (*WATCHED, "8.8.8.8", "224.0.0.251", *("10.255.0.%d" % number for number in range(8)))


def any_command(source):
    pick, side = source.choice, source.choice(("src", "dst", "both"))
    rule = ("add", pick(POOL), "-d", side, "-t", str(source.randint(1, 6)), "-n", "soak")
    return source.choices(
        ((*rule, "-c", str(pick((1, 50, 2000)))), (*rule[:4], "--history-only"), ("remove", pick(POOL), "-d", side),
         ("list", "--brief"), ("list",), ("show", pick(POOL)), ("history", "status"),
         ("heavy", str(pick((0, 20, 2**32 - 1)))), ("history", "on", "%dM" % source.randint(1, 8)), ("history", "off")),
        (20, 10, 12, 6, 6, 15, 12, 3, 0.6, 0.4))[0]


def steer(probe, seed, end, problems):
    """One client after the other: random commands until a time."""
    source = random.Random(seed)
    while time.monotonic() < end:
        words, began = any_command(source), time.monotonic()
        status, answer = probe.ctl(*words)
        took = time.monotonic() - began
        if status not in (0, REFUSED) or (took > STALL_S and words[-1] != "off"):  # which waits for a search
            problems.append("%s took %.2f s: %r" % (" ".join(words), took, answer))
        time.sleep(source.uniform(0, 0.1))


def state_of(probe):
    """Threads and descriptors, and memory, which is only comparable while the rings are off."""
    pid = probe.process.pid
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        fields = dict(line.split(":", 1) for line in status)
    return int(fields["Threads"]), len(os.listdir("/proc/%d/fd" % pid)), int(fields["VmRSS"].split()[0])


def run_round(probe, seconds, number, problems):
    """Clients for this time, then quiet: the state of the process."""
    before, began = probe.counters()["handed_on"], time.monotonic()
    watchers = [probe.start_ctl("watch") for _ in range(WATCHERS)]
    clients = [threading.Thread(target=steer, args=(probe, number * CLIENTS + client, began + seconds, problems))
               for client in range(CLIENTS)]
    for client in clients:
        client.start()
    for client in clients:
        client.join()
    for watcher in watchers:
        watcher.interrupt()
        if not probe.finish_ctl(watcher)[1]:
            problems.append("a watcher saw nothing")
    speed = (probe.counters()["handed_on"] - before) / (time.monotonic() - began)
    probe.ctl("history", "off")
    wait_until(lambda: probe.rules() == [], "the last rules", FINISH_S)
    wait_until(lambda: all(now <= quiet for now, quiet in zip(state_of(probe)[:2], probe.quiet)),
               lambda: "%r became %r" % (probe.quiet, state_of(probe)), 30)
    for name in probe.captures():
        os.remove(probe.capture(name))
    print("%d packets/s; then %d threads, %d descriptors, %d KiB" % (speed, *state_of(probe)), flush=True)
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
        if (status := probe.stop()) != 0 or "anitizer" in probe.text("err") or "runtime error" in probe.text("err"):
            problems.append("the probe ended with %d: %s" % (status, probe.text("err")[-20000:]))
    print("\n".join(["PROBLEM: " + problem for problem in problems[:50]] + ["%d problems" % len(problems)]))
    return 0 if not problems else 1


if __name__ == "__main__":
    sys.exit(main())
