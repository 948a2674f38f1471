"""The scripts that judge the tree: what they hold against it can fail."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import harness
from harness import ROOT

# Copies what is digested, in pieces of so many bytes.
COPYING = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>
int EVP_DigestUpdate(void *context, const char *data, size_t count)
{
    static char copy[PIECE];
    int (*update)(void *, const void *, size_t) = dlsym(RTLD_NEXT, "EVP_DigestUpdate");
    for (size_t i = 0; i + PIECE <= count; i += PIECE) {
        memcpy(copy, data + i, PIECE);
    }
    return update(context, data, count);
}
"""
AGAIN = "run again after a silent end under Wine: "


def script(root, name, *arguments, **environment):
    """Exit status and what was printed."""
    done = subprocess.run([os.path.join(root, "scripts", name), *arguments], cwd=root, check=False, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={**os.environ, **environment})
    return done.returncode, done.stdout


class ScriptTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="scripts-")
        self.addCleanup(shutil.rmtree, self.folder)

    def file(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def text(self, *path):
        with open(os.path.join(self.folder, *path), encoding="utf-8") as file:
            return file.read()


class CountResults(ScriptTest):
    def counted(self, suites, **files):
        self.file("ctest.xml", f"<testsuite>{suites}</testsuite>")
        for name, cases in files.items():
            self.file(name + ".xml", f"<testsuite>{cases}</testsuite>")
        status, printed = script(ROOT, "count-results", self.folder)
        return status, printed.splitlines()

    def test_each_test_of_each_suite_is_counted_and_a_skip_says_why(self):
        suites = '<testcase name="one" status="run"/><testcase name="two, three" status="run"/>'
        self.assertEqual(self.counted(suites, **{"two-three": """
            <testcase classname="A" name="a"/><testcase classname="A" name="b"><skipped message="no  root"/></testcase>
            """}), (0, ["skipped: two, three: A.b: no root", "2 passed, 0 failed, 1 skipped"]))

    def test_what_failed_is_a_failure_whether_a_test_or_only_its_suite_did(self):
        suites = '<testcase name="one" status="fail"><failure/></testcase>'
        self.assertEqual(self.counted(suites), (1, ["0 passed, 1 failed, 0 skipped"]))
        self.assertEqual(self.counted(suites, one='<testcase name="a"/>'), (1, ["1 passed, 1 failed, 0 skipped"]))
        self.assertEqual(self.counted(suites, one='<testcase name="a"><failure/></testcase><testcase name="b"/>'),
                         (1, ["1 passed, 1 failed, 0 skipped"]))

    def test_where_nothing_ran_nothing_is_well(self):
        self.assertEqual(self.counted(""), (1, ["0 passed, 0 failed, 0 skipped"]))

    def test_runs_that_were_made_again_under_wine_are_told(self):
        self.assertEqual(self.counted(f"""
            <testcase name="one" status="run"><system-out>dots\n{AGAIN}2\nthe end</system-out></testcase>
            <testcase name="two" status="run"><system-out>{AGAIN}0\n</system-out></testcase>"""),
                         (0, [f"one: {AGAIN}2", "2 passed, 0 failed, 0 skipped"]))

    def test_their_number_is_among_the_last_lines_of_their_suite(self):
        done = subprocess.run([sys.executable, "-m", "pytest", "tests/endtoend/windows/test_windows_program.py", "-k",
                               "SilentEnd"], cwd=ROOT, check=True, text=True, stdout=subprocess.PIPE)
        self.assertIn(AGAIN + "0", done.stdout.splitlines()[-3:])

    def test_ctest_keeps_more_of_what_a_suite_says_than_its_beginning(self):
        with open(os.path.join(ROOT, "CMakePresets.json"), encoding="utf-8") as file:
            size = re.search(r'"maxPassedTestOutputSize": (\d+)', file.read())
        self.assertGreaterEqual(int(size.group(1)), 65536)


class Figures(ScriptTest):
    """A tree of its own, with a history of one commit."""

    def setUp(self):
        super().setUp()
        for name in ("docs/development", "docs/figures", "scripts", "tests"):
            shutil.copytree(os.path.join(ROOT, name), os.path.join(self.folder, name))
        self.git("init", "--quiet")
        self.git("add", ".")
        self.git("-c", "user.name=a", "-c", "user.email=a@b", "commit", "--quiet", "--message=all")
        self.laws = self.git("rev-parse", "HEAD").strip()

    def git(self, *arguments):
        return subprocess.run(["git", *arguments], cwd=self.folder, check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def rows(self, *laws):
        """A table with a row for each target and the commit of its laws."""
        head = "target\texecutions\tseconds\tedges\tfindings\tlaws\n"
        self.file("docs/figures/fuzz.tsv", head + "".join(f"{target}\t5\t3600\t7\t0\t{law}\n" for target, law in laws))

    def kept(self):
        return [line.split("\t")[0] for line in self.text("docs", "figures", "fuzz.tsv").splitlines()][1:]

    def test_a_row_of_other_laws_goes_and_the_page_says_that_its_target_was_not_run(self):
        self.rows(("images", self.laws[:12]), ("tracker", "0123456789ab"), ("verify", ""))
        self.assertEqual(script(self.folder, "figures", "--check"),
                         (1, "docs/figures/fuzz.tsv: the row of tracker is not of today's laws: 0123456789ab\n"))
        self.assertEqual(script(self.folder, "figures"), (0, ""))
        self.assertEqual(self.kept(), ["images"])
        self.assertEqual(script(self.folder, "figures", "--check"), (0, ""))
        told = re.search(r"^Not run for a figure since their laws last changed: (.*)\.$",
                         self.text("docs", "development", "trust.md"), re.MULTILINE).group(1).split(", ")
        self.assertIn("tracker", told)
        self.assertNotIn("images", told)

    def test_a_row_of_laws_that_are_changed_and_not_committed_goes(self):
        self.rows(("images", self.laws))
        with open(os.path.join(self.folder, "tests", "fuzz", "images.cpp"), "a", encoding="utf-8") as file:
            file.write("// another law\n")
        self.assertEqual(script(self.folder, "figures"), (0, ""))
        self.assertEqual(self.kept(), [])

    def test_a_page_that_says_something_else_than_its_tables_is_refused(self):
        self.rows()
        self.assertEqual(script(self.folder, "figures"), (0, ""))
        self.assertEqual(script(self.folder, "figures", "--check"), (0, ""))
        self.rows(("images", self.laws))
        self.assertEqual(script(self.folder, "figures", "--check"),
                         (1, "docs/development/trust.md doesn't say what the tables do\n"))


class FuzzFigures(ScriptTest):
    """The function with which a slice of fuzzing writes down what it came to, run alone."""

    def table_after(self, before, *slices):
        self.file("fuzz.tsv", "".join(f"{line}\n" for line in before))
        with open(os.path.join(ROOT, "scripts", "fuzz"), encoding="utf-8") as file:
            function = re.search(r"^add_figures\(\) \{\n.*?^\}\n", file.read(), re.MULTILINE | re.DOTALL).group()
        calls = "".join(f"laws[{slice_.split()[0]}]={law}; add_figures {slice_}\n" for law, slice_ in slices)
        subprocess.run(["bash", "-euc", f"declare -A laws; figures={self.folder}\n{function}{calls}"], check=True)
        return self.text("fuzz.tsv").splitlines()

    HEAD = "target\texecutions\tseconds\tedges\tfindings\tlaws"

    def test_a_slice_adds_to_what_was_run_of_the_same_laws_and_to_nothing_else(self):
        before = [self.HEAD, "images\t100\t60\t7\t1\t12e4", "verify\t5\t6\t7\t0\tab"]
        self.assertEqual(self.table_after(before, ("12e4", "images 20 30 9 0"), ("12e4", "images 1 1 8 1")),
                         [self.HEAD, "verify\t5\t6\t7\t0\tab", "images\t121\t91\t9\t2\t12e4"])

    def test_a_slice_of_other_laws_begins_anew_though_they_look_like_the_same_number(self):
        before = [self.HEAD, "images\t100\t60\t7\t1\t12e4"]
        self.assertEqual(self.table_after(before, ("120000", "images 20 30 5 0")),
                         [self.HEAD, "images\t20\t30\t5\t0\t120000"])

    def test_the_first_slice_of_all_makes_the_table(self):
        self.assertEqual(self.table_after([], ("ab", "images 20 30 5 0")), [self.HEAD, "images\t20\t30\t5\t0\tab"])


class Instructions(ScriptTest):
    def refused(self, piece=None):
        """What is found wrong with a program that copies what it digests, on a disk of two chunks."""
        preload = {}
        if piece:
            preload["LD_PRELOAD"] = os.path.join(self.folder, "copying.so")
            subprocess.run(["gcc", "-shared", "-fPIC", "-O1", "-fno-builtin", f"-DPIECE={piece}", "-o",
                            preload["LD_PRELOAD"], self.file("copying.c", COPYING)], check=True)
        status, said = script(ROOT, "check-instructions", harness.PROGRAM, KESTRIX_CHUNKS="2", **preload)
        self.assertEqual(status, 1)
        return set(re.findall(r"^verify: (.*)$", said, re.MULTILINE))

    def test_what_the_program_spends_beside_the_digest_has_limits(self):
        start = "everything else takes too much"  # the start alone, on so small a disk
        self.assertEqual(self.refused(), {start})
        self.assertEqual(self.refused(4 << 20), {start, "whole chunks may be copied or filled 0 times"})
        self.assertEqual(self.refused(64 << 10), {start, "other copies and fills take too much"})


if __name__ == "__main__":
    unittest.main()
