"""Each command of docs/browse.md that Linux can run, taken from the page and run on a disk that starts.

The plugin and the program are not installed here: in front of the PATH lie programs of their names that lead to them.
"""
import hashlib
import os
import re
import shlex
import subprocess

import harness
from file_systems import MIB
from nbdkit_server import PLUGIN
from test_browse import BROWSE, SURROUNDINGS, TIME_LIMIT, BrowseTest

PAGE = os.path.join(harness.ROOT, "docs", "browse.md")
LETTER = b"Dear Anna\n"
# Writes its own first sector over the second one and switches the machine off; if it can't write, it stays.
STARTS = bytes.fromhex("fa31c08ed88ec08ed0bc007cfbb80103b90200ba8000bb007ccd13721cb8015331dbcd15b80e5331dbb90201cd15"
                       "b80753bb0100b90300cd15f4ebfd")


def blocks():
    with open(PAGE, encoding="utf-8") as file:
        return re.findall(r"^```sh\n(.*?)^```", file.read(), re.S | re.M)


class Page(BrowseTest):
    def setUp(self):
        super().setUp()
        self.bin = self.path("bin")
        os.mkdir(self.bin)
        self.script("nbdkit", f"""
            words=()
            for word; do
                [ "$word" != kestrix ] || word={shlex.quote(PLUGIN)}
                words+=("$word")
            done
            PATH=${{PATH#*:}} exec nbdkit "${{words[@]}}" """)
        self.script("kestrix-browse", f'exec {shlex.quote(BROWSE)} "$@"')
        self.browsed = self.path("look")

    def script(self, name, text):
        path = os.path.join(self.bin, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write("#!/bin/bash\n" + text + "\n")
        os.chmod(path, 0o755)

    def run_block(self, block):
        with open(self.path("said"), "w+b") as said:
            done = subprocess.run(["bash", "-euo", "pipefail", "-c", block], cwd=self.images, stdin=subprocess.DEVNULL,
                                  stdout=said, stderr=said, timeout=TIME_LIMIT,
                                  env={**SURROUNDINGS, "PATH": f"{self.bin}:{os.environ['PATH']}"})
            said.seek(0)
            text = said.read().decode()
        self.assertEqual(done.returncode, 0, f"{block}\n{text}")
        return text

    def make_images(self):
        os.makedirs(os.path.join(self.maker.content, "home", "anna"))
        self.maker.put("content/home/anna/letter.txt", LETTER)
        disk = self.maker.disk("disk", "dos", [self.maker.ext4("p1", "homes")])
        with open(disk, "r+b") as file:
            file.write(STARTS)
        self.file("password.txt", b"secret\n")
        for name, password in (("last-month.kstx", None), ("sealed.kstx", b"secret")):
            self.image(name, self.file_bytes("disk"), password, chunkSize=MIB)

    def check_converted(self, kind):
        self.must("qemu-img", "convert", "-f", kind, "-O", "raw", self.path(f"disk.{kind}"), self.path("back"))
        self.assertTrue(self.file_bytes("back") == self.file_bytes("disk"), f"the {kind} holds another disk")

    def check_letter(self, name):
        self.assertEqual(self.file_bytes(name), LETTER)

    def test_every_command_of_the_page_does_what_the_page_says(self):
        self.make_images()
        before = hashlib.sha256(self.file_bytes("last-month.kstx")).digest()
        checks = [
            lambda said: (self.assertIn("ext4", said), self.check_letter("letter.txt")),
            lambda said: self.assertIn("homes", said),
            lambda said: self.check_letter("anna/letter.txt"),
            lambda said: [self.check_converted(kind) for kind in ("qcow2", "vhdx", "vmdk")],
            lambda said: self.check_converted("raw"),
            lambda said: self.assertIn("raw/disk.raw1", said),
            lambda said: None,
        ]
        self.assertEqual(len(blocks()), len(checks))
        for block, check in zip(blocks(), checks):
            with self.subTest(block):
                check(self.run_block(block))
                self.assertEqual(hashlib.sha256(self.file_bytes("last-month.kstx")).digest(), before)
        self.assertEqual(os.listdir(self.browsed), [])
        self.assertEqual(self.processes("last-month.kstx"), [])

    def test_the_page_mounts_nothing_that_the_commands_do_not_name(self):
        """A command that stands outside of the blocks that are run is one for Windows."""
        with open(PAGE, encoding="utf-8") as file:
            shown = [line.strip() for line in file if line.startswith("    ") and not line.strip().startswith("run :")]
        words = {line.lstrip("> ").split()[0] for line in shown}
        self.assertLessEqual(words, {"look.txt", "diskpart", "powershell", "kestrix", "--run"})
