"""The example capture scripts, called as the plugin calls them: through the shell, with the arguments in double
quotes."""

import os
import subprocess
import unittest

import pcap_files
from probe_process import built, wait_until
from run_tests import InFolder

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "capture-scripts")


class CaptureScripts(InFolder):
    def setUp(self):
        super().setUp()
        self.live = self.path("a rule_7")
        self.history = [self.live + "_hc_0", self.live + "_hc_1"]

    def write_file(self, path, *times):
        pcap_files.write(path, [(time_ns, b"data") for time_ns in times])

    def times_of(self, name):
        return [time_ns for time_ns, _ in pcap_files.read(self.path(name))]

    def run_script(self, script, live, history=None, **environment):
        """True when it succeeded."""
        command = 'bash %s "%s" ' % (os.path.join(SCRIPTS, script), live)
        if history is not None:
            command += '"%s"' % ",".join(history)
        return subprocess.run(command, shell=True, stdin=subprocess.DEVNULL, timeout=60, env={
            **os.environ, "KESTRUNECTL": built("kestrunectl"), **environment}).returncode == 0

    def files(self):
        return sorted(os.listdir(self.folder))

    def test_merge_joins_live_and_history_files_once(self):
        self.write_file(self.live, 30, 40)
        self.write_file(self.history[0], 10, 25)
        self.write_file(self.history[1], 20, 30)
        self.assertTrue(self.run_script("merge-files", self.live, self.history))
        self.assertEqual(self.times_of("a rule_7.pcap"), [10, 20, 25, 30, 30, 40])
        self.assertFalse(self.run_script("merge-files", self.live, self.history))

    def test_merge_takes_what_there_is(self):
        for live, history in ((self.live, None), (self.live, []), ("", self.history[1:])):
            for path in filter(None, (live, *(history or ()))):
                self.write_file(path, 5)
            self.assertTrue(self.run_script("merge-files", live, history, KESTRUNE_REMOVE_PARTS="1"))
            self.assertEqual(self.files(), ["a rule_7.pcap"])
            self.assertEqual(self.times_of("a rule_7.pcap"), [5])
            os.remove(self.live + ".pcap")
        self.assertTrue(self.run_script("merge-files", "", []))

    def test_merge_keeps_the_parts_when_it_fails(self):
        self.write_file(self.live, 5)
        self.assertFalse(self.run_script("merge-files", self.live, [self.path("missing")], KESTRUNE_REMOVE_PARTS="1"))
        self.assertEqual(self.files(), ["a rule_7"])

    def test_files_move_into_the_folder_of_the_day(self):
        for number in (1, 2):
            self.write_file(self.live, number)
            self.write_file(self.history[0], number)
            self.assertTrue(self.run_script("move-to-dated-folder", self.live, self.history[:1]))
        names = [name for _, _, files in os.walk(self.folder) for name in files]
        self.assertEqual(len(names), 4)
        if len(self.files()) == 1:  # not around midnight
            self.assertEqual(sorted(names), ["a rule_7", "a rule_7.1", "a rule_7_hc_0", "a rule_7_hc_0.1"])
            self.assertEqual(self.times_of(os.path.join(self.files()[0], "a rule_7.1")), [2])
        self.assertRegex(self.files()[0], r"^\d{4}-\d\d-\d\d$")
        self.assertTrue(self.run_script("move-to-dated-folder", ""))
        self.assertFalse(self.run_script("move-to-dated-folder", self.path("missing")))

    def test_a_long_job_is_detached_and_jobs_follow_each_other(self):
        job = self.path("job")
        self.write(job, b'#!/bin/sh\ncd "${0%/*}"\nps -o sid= -p $$ >>sessions\n'
                   b'until [ -e go ]; do sleep 0.01; done\nprintf "%s|" "$@" >>done\n')  # what it got
        self.assertFalse(self.run_script("run-detached", self.live, KESTRUNE_JOB=job))  # cannot be run: is told
        os.chmod(job, 0o700)
        self.assertTrue(self.run_script("run-detached", self.live, self.history, KESTRUNE_JOB=job))  # at once
        wait_until(lambda: os.path.exists(self.path("sessions")) and self.text("sessions"), "the job")
        self.assertTrue(self.run_script("run-detached", "", [], KESTRUNE_JOB=job))
        sessions = self.text("sessions").split()
        self.assertEqual(len(sessions), 1)  # the second waits for the first
        self.assertNotEqual(int(sessions[0]), os.getsid(0))
        self.write_file(self.path("go"))
        expected = "|".join([self.live, ",".join(self.history), "", ""]) + "|"
        wait_until(lambda: os.path.exists(self.path("done")) and self.text("done") == expected, expected)


if __name__ == "__main__":
    unittest.main()
