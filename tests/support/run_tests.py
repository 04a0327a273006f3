"""unittest.main for ctest: exit status 77 when everything was skipped, and skips in the form that scripts/test
lists. And what tests have in common."""

import os
import sys
import tempfile
import unittest

SKIPPED = 77


class InFolder(unittest.TestCase):
    """Has a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrune_test_")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def text(self, name):
        with open(self.path(name), encoding="utf-8") as file:
            return file.read()


def main():
    result = unittest.main(verbosity=2, exit=False).result
    for test, reason in result.skipped:
        name = test.id() if hasattr(test, "id") else str(test)
        print("[  SKIPPED ] %s (%s)" % (name.replace("__main__.", "").split(" ")[-1].strip("()"), reason))
    if not result.wasSuccessful():
        sys.exit(1)
    executed = result.testsRun - sum(1 for test, _ in result.skipped if isinstance(test, unittest.TestCase))
    sys.exit(0 if executed > 0 else SKIPPED)
