"""The page of messages against the program's source: every text is there, and nothing else."""
import glob
import json
import os
import re
import subprocess
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LITERAL = r'L?"(?:[^"\\]|\\.)*"'
# Literals of src/ that no run shows: options and their values, names of devices and marks of the format.
NOT_SHOWN = {
    "list-disks", "capture", "verify", "restore", "consolidate",
    "--disk", "--out", "--in", "--base", "--incremental", "--thin", "--vss", "--encrypt", "--confirm",
    "--password-file", "", "-1", "YES", "rb", "?", "\\/", "\\/:", "\n", "%s", "KSTXDSK2", "KSTXBASE",
    "elements are plain bytes",
    "\\\\.\\Tallier", "\\\\.\\PhysicalDrive%d", "\\\\.\\C:", "\\Device\\", "\\\\?\\GLOBALROOT",
}
CONVERSION = re.compile(r"%[-0-9.]*(?:l|ll|z)?[a-zA-Z]")


def without_comments(text):
    return re.sub(rf"({LITERAL})|//[^\n]*", lambda found: found.group(1) or "", text)


def literals(text):
    """The string literals of a source, neighbours put together as the compiler does."""
    text = re.sub(r"^\s*#include.*$", "", without_comments(text), flags=re.M)
    for run in re.findall(rf"{LITERAL}(?:\s*{LITERAL})*", text):
        yield "".join(json.loads(literal.lstrip("L")) for literal in re.findall(LITERAL, run))


class MessagesPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(os.path.join(ROOT, "docs", "messages.json"), encoding="utf-8") as file:
            cls.messages = json.load(file)["messages"]

    def test_it_has_every_text_of_the_program_and_no_other(self):
        found = set()
        for path in glob.glob(os.path.join(ROOT, "src", "*", "*.*")):
            with open(path, encoding="utf-8") as file:
                found |= set(literals(file.read()))
        self.assertEqual(found - NOT_SHOWN, {message["text"] for message in self.messages})
        self.assertEqual(NOT_SHOWN - found, set())

    def test_it_names_each_value_that_a_text_shows(self):
        for message in self.messages:
            with self.subTest(message["text"]):
                conversions = CONVERSION.findall(message["text"].replace("%%", ""))
                self.assertEqual(len(conversions), len(message["values"]))

    def test_it_says_of_every_text_where_it_comes_from_what_is_now_and_what_comes_next(self):
        for message in self.messages:
            with self.subTest(message["text"]):
                self.assertEqual(set(message), {"group", "text", "values", "kind", "commands", "cause", "now", "next"})
                for part in ("cause", "now", "next"):
                    self.assertRegex(message[part], r"^[A-Z`-].*[.:]$")
                self.assertTrue(message["commands"])

    def test_it_is_made_of_the_file_for_programs(self):
        made = subprocess.run([sys.executable, os.path.join(ROOT, "scripts", "messages"), "--check"], check=False,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual((made.returncode, made.stderr), (0, ""))
