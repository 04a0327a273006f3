"""The example capture scripts, called as the plugin calls them: through the shell, with the arguments in double
quotes. KESTRUNECTL names the program that merges."""

import datetime
import os
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pcap_files  # noqa: E402

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "capture-scripts")


class CaptureScripts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="capture scripts ")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.live = self.path("a rule_7")
        self.history = [self.live + "_hc_0", self.live + "_hc_1"]

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, path, *times):
        pcap_files.write(path, [(time_ns, b"data") for time_ns in times])

    def times_of(self, name):
        return [time_ns for time_ns, _ in pcap_files.read(self.path(name))]

    def run_script(self, script, live, history=None, **environment):
        """True when it succeeded."""
        command = 'bash %s "%s" ' % (os.path.join(SCRIPTS, script), live)
        if history is not None:
            command += '"%s"' % ",".join(history)
        return subprocess.run(command, shell=True, env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                              timeout=60).returncode == 0

    def files(self):
        return sorted(os.listdir(self.folder))

    def test_merge_joins_live_and_history_files(self):
        self.write(self.live, 30, 40)
        self.write(self.history[0], 10, 25)
        self.write(self.history[1], 20, 30)
        self.assertTrue(self.run_script("merge-files", self.live, self.history))
        self.assertEqual(self.times_of("a rule_7.pcap"), [10, 20, 25, 30, 30, 40])
        self.assertEqual(len(self.files()), 4)
        # A second run must not replace the merged file.
        self.assertFalse(self.run_script("merge-files", self.live, self.history))

    def test_merge_takes_what_there_is(self):
        for live, history in ((self.live, None), (self.live, []), ("", self.history[1:])):
            for path in filter(None, (live, *(history or ()))):
                self.write(path, 5)
            self.assertTrue(self.run_script("merge-files", live, history, KESTRUNE_REMOVE_PARTS="1"))
            self.assertEqual(self.files(), ["a rule_7.pcap"])
            self.assertEqual(self.times_of("a rule_7.pcap"), [5])
            os.remove(self.live + ".pcap")
        self.assertTrue(self.run_script("merge-files", "", []))

    def test_merge_keeps_the_parts_when_it_fails(self):
        self.write(self.live, 5)
        self.assertFalse(self.run_script("merge-files", self.live, [self.path("missing")], KESTRUNE_REMOVE_PARTS="1"))
        self.assertEqual(self.files(), ["a rule_7"])

    def test_files_move_into_the_folder_of_the_day(self):
        days = {datetime.date.today().isoformat()}
        for number in (1, 2, 3):
            self.write(self.live, number)
            self.write(self.history[0], number)
            self.assertTrue(self.run_script("move-to-dated-folder", self.live, self.history[:1]))
        days.add(datetime.date.today().isoformat())
        folders = self.files()
        self.assertLessEqual(set(folders), days)
        if len(folders) == 1:
            self.assertEqual(sorted(os.listdir(self.path(folders[0]))),
                             [name + end for name in ("a rule_7", "a rule_7_hc_0") for end in ("", ".1", ".2")])
            self.assertEqual(self.times_of(os.path.join(folders[0], "a rule_7.2")), [3])
        self.assertTrue(self.run_script("move-to-dated-folder", ""))
        self.assertTrue(self.run_script("move-to-dated-folder", "", []))
        self.assertFalse(self.run_script("move-to-dated-folder", self.path("missing")))


if __name__ == "__main__":
    unittest.main()
