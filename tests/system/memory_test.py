"""The history's size against the memory that there is: in a memory control group, where /proc/meminfo is hidden, and
without a size among the parameters."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

import run_tests
from probe_process import BUILD, WEB, Probe, wait_until

MIB = 1 << 20
HOLD = "import sys; held = b'x' * (int(sys.argv[1]) << 20); print(len(held), flush=True); sys.stdin.read()"
FILL = "import sys; open(sys.argv[1], 'wb').write(b'x' * (100 << 20)); open(sys.argv[1], 'ab').write(b'x' * (100 << 20))"
HIDE = ("unshare", "--mount", "sh", "-c", 'mount -t proc -o subset=pid proc /proc && exec "$@"', "sh")


class MemoryGroup:
    """A memory control group with a limit, and one in it without; skips where there can be none."""

    def __init__(self, limit_mib):
        top, limit = "/sys/fs/cgroup/memory", "memory.limit_in_bytes"
        if not os.path.isdir(top):
            top, limit = "/sys/fs/cgroup", "memory.max"
        self.path = os.path.join(top, "ks_test_%d" % os.getpid())
        try:
            os.makedirs(os.path.join(self.path, "inner"))
            with open(os.path.join(self.path, limit), "w", encoding="ascii") as file:
                file.write(str(limit_mib * MIB))
        except OSError as error:
            self.remove()
            raise unittest.SkipTest("no memory control group: %s" % error) from error
        self.inside = ("sh", "-c", 'echo $$ >"$0/inner/cgroup.procs" && exec "$@"', self.path)

    def remove(self):
        for path in (os.path.join(self.path, "inner"), self.path):
            if os.path.isdir(path):
                os.rmdir(path)


def start(test, *arguments, **options):
    probe = Probe("-r", WEB, "--speed", "0", "--stay", *arguments, **options)
    test.addCleanup(probe.close)
    return probe


def resident_mib(probe):
    with open("/proc/%d/statm" % probe.process.pid, encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE") // MIB


class Memory(unittest.TestCase):
    def test_a_client_gets_what_the_control_group_has_left(self):
        group = MemoryGroup(700)
        self.addCleanup(group.remove)
        holder = subprocess.Popen([*group.inside, sys.executable, "-c", HOLD, "120"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        self.addCleanup(lambda: (holder.communicate(), None))
        holder.stdout.readline()
        with tempfile.NamedTemporaryFile(dir=BUILD) as file:  # its pages can be dropped
            subprocess.run([*group.inside, sys.executable, "-c", FILL, file.name], check=True)
            probe = start(self, "-q", "2", prefix=group.inside, params="buffer_size=0")
            for size in ("1G", "690M", "570M"):
                status, answer = probe.ctl("history", "on", size)
                self.assertEqual(status, 4, answer)
                self.assertIn("lacks memory", answer["error"])
            before = resident_mib(probe)
            probe.do("history", "on", "400M")
            wait_until(lambda: resident_mib(probe) >= before + 390, "the ring's memory")
            self.assertEqual(probe.stop(), 0)

    def test_an_administrator_gets_more_and_is_told(self):
        group = MemoryGroup(300)
        self.addCleanup(group.remove)
        probe = start(self, prefix=group.inside, params="buffer_size=1024")
        told = re.findall(r"buffer_size is 1024 MB and (\d+) MB of memory", probe.text("err"))
        self.assertEqual(len(told), 1, probe.text("err"))
        self.assertLess(int(told[0]), 300)
        probe.wait_counted("handed_on", 7451)
        status = probe.do("history", "status")
        self.assertEqual((status["on"], status["size_bytes"]), (True, 1024 * MIB))
        self.assertLess(resident_mib(probe), 250)  # only what packets filled
        self.assertEqual(probe.stop(), 0)

    def test_that_the_system_does_not_tell_is_logged_once(self):
        tried = subprocess.run([*HIDE, "true"], stderr=subprocess.PIPE, text=True, check=False)
        if tried.returncode != 0:
            self.skipTest("no mount of its own: " + tried.stderr.strip())
        probe = start(self, prefix=HIDE, params="buffer_size=16")
        for words in (("off",), ("on", "64M"), ("off",), ("on", "32M")):
            probe.do("history", *words)
        self.assertEqual(probe.text("err").count("/proc/meminfo cannot be read"), 1, probe.text("err"))
        self.assertEqual(probe.ctl("history", "on", "100T")[0], 4)

    def test_without_a_size_the_probe_takes_a_quarter(self):
        group = MemoryGroup(400)
        self.addCleanup(group.remove)
        probe = start(self, prefix=group.inside)
        size = int(re.search(r"the history takes (\d+) MiB, a quarter", probe.text("err")).group(1))
        self.assertTrue(50 <= size <= 100, size)
        self.assertEqual(probe.do("history", "status")["size_bytes"], size * MIB)
        self.assertNotIn("the history takes", start(self, params="buffer_size=1").text("err"))


if __name__ == "__main__":
    run_tests.main()
