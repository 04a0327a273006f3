"""The example capture scripts, called as the plugin calls them: through the shell, with the arguments in double
quotes. KESTRUNECTL names the program that merges."""

import datetime
import os
import struct
import subprocess
import tempfile
import unittest

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "capture-scripts")
HEADER = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1)


def write(path, times):
    with open(path, "wb") as file:
        file.write(HEADER)
        for nanoseconds in times:
            file.write(struct.pack("<IIII", 1000, nanoseconds, 4, 4) + b"data")


def times_of(path):
    with open(path, "rb") as file:
        data = file.read()
    assert data[:24] == HEADER
    return [struct.unpack_from("<I", data, at + 4)[0] for at in range(24, len(data), 20)]


class CaptureScripts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="capture scripts ")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def run_script(self, script, live, history=None, **environment):
        command = 'bash %s "%s" ' % (os.path.join(SCRIPTS, script), live)
        if history is not None:
            command += '"%s"' % ",".join(history)
        return subprocess.run(command, shell=True, env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True, timeout=60)

    def files(self):
        return sorted(os.listdir(self.folder))

    def test_merge_joins_live_and_history_files(self):
        live = self.path("a rule_7")
        history = [live + "_hc_0", live + "_hc_1"]
        write(live, [30, 40])
        write(history[0], [10, 25])
        write(history[1], [20, 30])
        result = self.run_script("merge-files", live, history)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(times_of(live + ".pcap"), [10, 20, 25, 30, 30, 40])
        self.assertEqual(len(self.files()), 4)
        # A second run must not replace the merged file.
        self.assertNotEqual(self.run_script("merge-files", live, history).returncode, 0)

    def test_merge_takes_what_there_is(self):
        for live, history, expected in (("web_1", None, "web_1.pcap"), ("web_2", [], "web_2.pcap"),
                                        ("", ["web_3_hc_1"], "web_3.pcap")):
            if live:
                live = self.path(live)
                write(live, [5])
            if history:
                history = [self.path(name) for name in history]
                write(history[0], [5])
            result = self.run_script("merge-files", live, history, KESTRUNE_REMOVE_PARTS="1")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(self.files(), [expected])
            self.assertEqual(times_of(self.path(expected)), [5])
            os.remove(self.path(expected))
        self.assertEqual(self.run_script("merge-files", "", []).returncode, 0)

    def test_merge_keeps_the_parts_when_it_fails(self):
        live = self.path("web_4")
        write(live, [5])
        result = self.run_script("merge-files", live, [self.path("missing")], KESTRUNE_REMOVE_PARTS="1")
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(self.files(), ["web_4"])

    def test_files_move_into_the_folder_of_the_day(self):
        days = {datetime.date.today().isoformat()}
        live = self.path("a rule_7")
        for content in (b"first", b"second", b"third"):
            for name in ("a rule_7", "a rule_7_hc_0"):
                with open(self.path(name), "wb") as file:
                    file.write(content + name.encode())
            result = self.run_script("move-to-dated-folder", live, [live + "_hc_0"])
            self.assertEqual(result.returncode, 0, result.stderr)
        days.add(datetime.date.today().isoformat())
        folders = self.files()
        self.assertLessEqual(set(folders), days)
        if len(folders) == 1:
            self.assertEqual(sorted(os.listdir(self.path(folders[0]))),
                             ["a rule_7", "a rule_7.1", "a rule_7.2", "a rule_7_hc_0", "a rule_7_hc_0.1",
                              "a rule_7_hc_0.2"])
            with open(os.path.join(self.path(folders[0]), "a rule_7.2"), "rb") as file:
                self.assertEqual(file.read(), b"thirda rule_7")

    def test_moving_nothing_and_a_missing_file(self):
        self.assertEqual(self.run_script("move-to-dated-folder", "").returncode, 0)
        self.assertEqual(self.run_script("move-to-dated-folder", "", []).returncode, 0)
        self.assertNotEqual(self.run_script("move-to-dated-folder", self.path("missing")).returncode, 0)


if __name__ == "__main__":
    unittest.main()
