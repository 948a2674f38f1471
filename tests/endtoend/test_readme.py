"""What README, the page of the five commands and the one about restores show is what the programs do.

The console blocks of the two pages are run in their order on one machine like that of the demo. Speeds differ from run
to run, and of a progress line the pages show the end.
"""
import os
import re
import shutil
import subprocess
import unittest

import harness

README = os.path.join(harness.ROOT, "README.md")
PAGES = [os.path.join(harness.ROOT, "docs", name) for name in ("commands.md", "restoring.md")]
DISK_BYTES = 42 * harness.MIB
TOP = """
```
scripts/demo    # captures, verifies and restores a small disk in an ordinary file, and shows every command
scripts/test    # every test; ends with one line of counts
```
"""


def text_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def console_commands(path):
    """Each command of the console blocks with the lines that the page shows for it."""
    commands = []
    for line in "".join(re.findall(r"^```console\n(.*?)^```", text_of(path), re.S | re.M)).splitlines():
        if line.startswith("$ "):
            commands.append((line[2:], []))
        else:
            commands[-1][1].append(line)
    return commands


def as_shown(line):
    """A line as a terminal leaves it, without its speed."""
    return re.sub(r"\(\d+\.\d MiB/s\)", "(- MiB/s)", line.split("\r")[-1]).rstrip()


class Readme(harness.MachineTest):
    def setUp(self):
        super().setUp()
        self.disk(0, 16 * harness.MIB)
        self.volume_c(0)
        self.disk(1, os.urandom(harness.MIB) * 42)
        self.disk(2, DISK_BYTES)

    def run_shown(self, command):
        words = command.split()
        self.assertEqual(words[0], "kestrix")
        run = self.kestrix(*words[1:])
        text = (run.out + run.err).decode("utf-8")
        return [as_shown(line) for line in text.rstrip("\n").split("\n")]

    def test_every_command_of_the_pages_prints_what_they_show(self):
        self.file("password.txt", b"a password\n")
        for page in PAGES:
            commands = console_commands(page)
            self.assertGreater(len(commands), 1)
            for command, shown in commands:
                if "--thin" in command:
                    with open(self.disk_path(1), "r+b") as disk:
                        disk.seek(20 * harness.MIB)
                        disk.write(b"changed since")
                with self.subTest(command):
                    self.assertEqual(self.run_shown(command), [as_shown(line) for line in shown])

    def test_the_first_image_and_the_first_restore_of_the_readme_work_as_they_stand_there(self):
        for name in ("kestrix-image", "kestrix-keep"):
            shutil.copy2(os.path.join(os.path.dirname(harness.PROGRAM), name), self.folder)
        capture, restore = re.findall(r"^```sh\n(.*?)^```", text_of(README), re.S | re.M)
        for block in (capture, restore):
            self.assertLessEqual(len(block.splitlines()), 6)
            done = subprocess.run(["sh", "-e", "-c", block], cwd=self.images, check=False, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=harness.TIME_LIMIT,
                                  env={**os.environ, "PATH": f"{self.folder}:{os.environ['PATH']}"})
            self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn("equal to full.kstx", done.stdout)
        self.assertEqual(self.disk_bytes(2), self.disk_bytes(1))

    def test_the_readme_is_short_and_begins_with_its_two_commands(self):
        text = text_of(README)
        self.assertLessEqual(len(text.splitlines()), 120)
        self.assertIn(TOP, text)
        self.assertLess(text.index(TOP), text.index("\n## "))


if __name__ == "__main__":
    unittest.main()
