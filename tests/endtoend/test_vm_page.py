"""The page about running virtual machines: its commands do what it says."""
import os
import random
import re
import subprocess
import unittest

from guest_disks import GuestTest, why_no_guests
from harness import MIB, ROOT

PAGE = os.path.join(ROOT, "docs", "virtual-machines.md")


def page():
    with open(PAGE, encoding="utf-8") as file:
        return file.read()


@unittest.skipIf(why_no_guests(), why_no_guests())
class Page(GuestTest):
    def setUp(self):
        super().setUp()
        self.write(0, random.Random(1).randbytes(self.size))
        # Where the page says kestrix and kestrix-vm, this is what runs; the name of the guest's connection is left to
        # the machine.
        programs = os.path.join(self.folder, "bin")
        os.mkdir(programs)
        os.link(self.program, os.path.join(programs, "kestrix"))
        vm = os.path.join(programs, "kestrix-vm")
        with open(vm, "w", encoding="utf-8") as file:
            words = self.command("$1")
            file.write(f'#!/bin/sh\nexec "{words[0]}" "$@" --qmp "{self.qmp}" --state "{self.state}"\n')
        os.chmod(vm, 0o755)
        self.path_of_programs = f"{programs}:{os.environ['PATH']}"

    def shell(self, text):
        done = subprocess.run(["sh", "-e", "-c", text], cwd=self.images, env={**os.environ, "PATH":
                              self.path_of_programs}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False, timeout=120)
        self.assertEqual(done.returncode, 0, done.stdout.decode())
        return done.stdout.decode()

    def indented(self, word):
        """The commands of the page that begin so, each as a line."""
        found = re.findall(rf"^    ({word}.*)$", page(), re.M)
        self.assertTrue(found, word)
        return found

    def test_a_month_of_a_guest(self):
        self.assertIn("vda", self.shell("kestrix-vm disks"))
        captures = [line for line in self.indented("kestrix-vm capture") if "win2022 vda" in line]
        self.assertEqual(len(captures), 2)
        self.shell(captures[0])
        old = bytes(self.content)
        self.write(9 * MIB, b"the second day")
        text = self.shell(captures[1])
        self.check_lines(text)
        self.check_holds("01.kstx", old)
        self.check_holds("02.kstx", self.content)
        self.shell(self.indented("kestrix verify")[0])

    def check_lines(self, text):
        """The lines by which the page says that the tracker's proof is seen."""
        shown = re.search(r"look at three lines[^\n]*\n[^\n]*\n\n((?:    [^\n]*\n)+)", page()).group(1)
        self.assertEqual(len(shown.splitlines()), 3)
        for line in shown.splitlines():
            # All but the figures, which are those of another disk.
            pattern = re.sub(r"[0-9A-F]{14}|[0-9]+(?:\.[0-9]+)?", "#", line[4:].replace("win2022", "win#"))
            self.assertRegex(text, re.escape(pattern).replace("win\\#", "win2022").replace("\\#", "[0-9A-F.]+"))

    def test_all_disks_at_one_moment(self):
        for line in self.indented("kestrix-vm capture win2022 --all-disks"):
            self.shell(line)
        self.check_holds("vda-02.kstx", self.content)

    def test_a_restore_onto_a_new_file(self):
        self.shell("kestrix-vm capture win2022 vda --out 01.kstx")
        self.write(17 * MIB, b"newer")
        self.shell("kestrix-vm capture win2022 vda --out 02.kstx --base 01.kstx --thin")
        restore = page()[page().index("\n## Restoring\n"):]
        blocks = re.findall(r"^```sh\n(.*?)^```$", restore, re.M | re.S)
        self.assertEqual(len(blocks), 2)
        for block in blocks:
            self.shell(block)
        with open(self.path("restored.raw"), "rb") as file:
            self.assertTrue(file.read() == bytes(self.content))
        self.assertEqual(self.must("qemu-img", "compare", "-f", "raw", "-F", "qcow2", self.path("restored.raw"),
                                   self.path("restored.qcow2")), "Images are identical.")

    def test_every_text_that_the_page_quotes_is_one_of_the_program(self):
        self.assertIn("Not frozen: ", self.shell("kestrix-vm capture win2022 vda --out 01.kstx"))
        folder = os.path.join(ROOT, "companions", "kestrix-vm", "kestrix_vm")
        program = ""
        for name in sorted(os.listdir(folder)):
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                program += file.read() if name.endswith(".py") else ""
        for option in re.findall(r"`(--[a-z-]+)", page()):
            self.assertIn(f'"{option}"', program)
