"""Pairs of virtual interfaces in their own network namespace: NAME-in receives what is sent into NAME-out, and nothing
else. Skips the tests where this is impossible."""

import os
import subprocess
import unittest

from probe_process import missing

SETUP = """set -e
ip netns add "$0"
ip netns exec "$0" sh -c 'for i in all default; do echo 1 > /proc/sys/net/ipv6/conf/$i/disable_ipv6; done'
ip -n "$0" link set lo up
for pair; do
    ip -n "$0" link add "$pair-out" mtu 9000 type veth peer name "$pair-in" mtu 9000
    ip -n "$0" link set "$pair-out" up
    ip -n "$0" link set "$pair-in" up
done
"""


def run(*argv):
    return subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)


class Namespace:
    def __init__(self, *pairs):
        absent = missing("ip", "tcpreplay")
        if absent:
            raise unittest.SkipTest("missing: " + " ".join(absent))
        self.name = "ks_test_%d" % os.getpid()
        self.inside = ("ip", "netns", "exec", self.name)
        made = run("sh", "-c", SETUP, self.name, *pairs)
        if made.returncode != 0:
            self.close()
            raise unittest.SkipTest("no network namespace: " + made.stderr.strip())

    def close(self):
        run("ip", "netns", "del", self.name)

    def send(self, pair, path):
        sent = run(*self.inside, "tcpreplay", "-q", "--topspeed", "-i", pair + "-out", path)
        assert sent.returncode == 0, sent.stderr
