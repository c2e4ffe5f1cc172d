"""What the suites of a whole appliance share. scripts/test runs them, as root of a private machine. A single test:

    lab/private_root $PWD python3 $PWD/tests/apply.py STAGED-PACKAGE Apply.test_undo
"""

import difflib
import os
import unittest

from appliance import ETC, PACKAGE, read, run

CUSTOM = PACKAGE + "/etc/customize/postfix/main.cf"
# The folders that a change of the configuration may touch.
FOLDERS = (ETC, PACKAGE + "/etc/settings", PACKAGE + "/etc/customize", "/usr/nubo/etc/pam-config")


def files(*folders):
    """Each file below the folders, by path: a line with its mode and owner, then its text. Without folders: FOLDERS."""
    found = {}
    for top in folders or FOLDERS:
        for folder, _, names in os.walk(top):
            for path in (os.path.join(folder, name) for name in names):
                status = os.lstat(path)
                found[path] = f"{status.st_mode:o} {status.st_uid}:{status.st_gid}\n{read(path)}"
    return found


class ApplianceTest(unittest.TestCase):
    maxDiff = None

    def assert_same(self, before, after, message=""):
        """Compares texts by path, such as files() returns; a failure shows how they differ."""
        shown = []
        for path in sorted(before.keys() | after.keys()):
            texts = before.get(path, "").splitlines(True), after.get(path, "").splitlines(True)
            shown += difflib.unified_diff(*texts, path, path, n=0)
        if shown:
            self.fail("\n" + "".join(shown) + message)

    def run_program(self, *command, status=0):
        """Runs a program that has to end with this status. Returns what it printed."""
        result = run(*command)
        printed = result.stdout + result.stderr
        self.assertEqual(result.returncode, status, f"{' '.join(command)}\n{printed}")
        return printed
