"""The manual pages and completions against what the programs say of themselves. KESTRUNE_BUILD names the folder of the
programs."""

import glob
import os
import re
import shutil
import subprocess
import unittest

from control import FakeProbe

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
BUILD = os.environ["KESTRUNE_BUILD"]
OPTION = r"--?[A-Za-z][\w-]*"


def options_of_help(program, *command):
    """Every option of the program and of its commands, from the lines that describe one."""
    text = subprocess.run([program, *command, "--help"], check=True, capture_output=True, text=True, timeout=30).stdout
    options = set()
    for names in re.findall(r"^ +(%s(?:,%s)*)" % (OPTION, OPTION), text, re.MULTILINE):
        options.update(names.split(","))
    commands = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    for name in re.findall(r"^  (\S+)", commands[1] if commands else "", re.MULTILINE):
        options |= options_of_help(program, *command, name)
    return options


def options_of_page(path):
    """Every option that an item of a list describes."""
    with open(path, encoding="utf-8") as file:
        items = re.findall(r"^\.It (Fl .*)", file.read(), re.MULTILINE)
    return {"-" + ("-" if dashes else "") + name
            for item in items for dashes, name in re.findall(r"\bFl (Fl |-)?([A-Za-z][\w-]*)", item)}


class Manual(unittest.TestCase):
    def test_pages_describe_exactly_the_options_of_the_programs(self):
        for path in glob.glob(os.path.join(ROOT, "docs", "man", "*.[18]")):
            name = os.path.basename(path)[:-2]
            if os.path.exists(program := os.path.join(BUILD, name)):
                with self.subTest(name):
                    self.assertEqual(options_of_page(path), options_of_help(program))

    def test_completions_know_every_option(self):
        options = {option for option in options_of_help(os.path.join(BUILD, "kestrunectl")) if option[1] == "-"}
        for name in ("kestrunectl.bash", "_kestrunectl"):
            with open(os.path.join(ROOT, "packaging", "completions", name), encoding="utf-8") as file:
                self.assertEqual(options - set(re.findall(OPTION, file.read())), set(), name)

    def test_bash_completes_commands_values_and_addresses_of_rules(self):
        with FakeProbe() as probe:
            probe.add("10.0.0.1")
            probe.add("2001:db8::1")
            server = "kestrunectl -s %s " % probe.name
            cases = (("kestrunectl li", "list"), ("kestrunectl add -d ", "src dst both"),
                     (server + "show ", "2001:db8::1 10.0.0.1"), (server + "remove 10.0.0.1 2001:", "db8::1"))
            for line, expected in cases:
                script = ('source "$0"; COMP_LINE=$1 COMP_POINT=${#1}; PATH=$2:$PATH; _kestrunectl kestrunectl; '
                          'echo "${COMPREPLY[*]}"')
                path = os.path.join(ROOT, "packaging", "completions", "kestrunectl.bash")
                out = subprocess.run(["bash", "-c", script, path, line, BUILD], capture_output=True, text=True)
                self.assertEqual((out.stdout, out.stderr), (expected + "\n", ""), line)

    @unittest.skipIf(shutil.which("mandoc") is None, "needs mandoc")
    def test_pages_are_well_formed(self):
        for path in glob.glob(os.path.join(ROOT, "docs", "man", "*")):
            lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", path], capture_output=True, text=True)
            self.assertEqual((lint.returncode, lint.stdout), (0, ""))


if __name__ == "__main__":
    unittest.main()
