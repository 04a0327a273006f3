"""unittest.main for ctest: exit status 77 when everything was skipped, and skips in the form that scripts/test
lists."""

import sys
import unittest

SKIPPED = 77


def main():
    result = unittest.main(verbosity=2, exit=False).result
    for test, reason in result.skipped:
        name = test.id() if hasattr(test, "id") else str(test)
        print("[  SKIPPED ] %s (%s)" % (name.replace("__main__.", "").split(" ")[-1].strip("()"), reason))
    if not result.wasSuccessful():
        sys.exit(1)
    executed = result.testsRun - sum(1 for test, _ in result.skipped if isinstance(test, unittest.TestCase))
    sys.exit(0 if executed > 0 else SKIPPED)
