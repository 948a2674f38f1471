"""What file(1) tells of images by the magic file."""
import os
import shutil
import subprocess
import unittest

import kestrix_image
from harness import ROOT, MachineTest

MAGIC = os.path.join(ROOT, "share", "magic", "kestrix")


@unittest.skipUnless(shutil.which("file"), "file is missing")
class Magic(MachineTest):
    def told(self, *arguments):
        done = subprocess.run(["file", "--brief", "-m", MAGIC, *arguments], cwd=self.images, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.rstrip("\n")

    def change(self, name, offset, content):
        with open(self.path(name), "r+b") as file:
            file.seek(offset)
            file.write(content)

    def test_kind_seal_and_sizes_are_told(self):
        disk = kestrix_image.seeded_disk(5 * 4096 + 512, 1)
        base = self.image("full", disk)
        self.image("sealed", disk, b"password")
        self.image("thin", disk, base=base)
        sizes = "disk of 20992 bytes in sectors of 512, 6 chunks of 4096 bytes"
        for name, words in (("full", "full, plain"), ("sealed", "full, sealed"), ("thin", "thin, plain")):
            with self.subTest(name):
                self.assertEqual(self.told(name), f"Kestrix disk image, {words}, {sizes}")
        self.assertEqual(self.told("--extension", "full"), "kstx")

    def test_numbers_are_unsigned_and_a_version_that_nobody_knows_is_told_as_that(self):
        self.image("full", bytes(4096))
        self.change("full", 12, b"\xff" * 8)
        self.assertIn(f"disk of {2**64 - 1} bytes", self.told("full"))
        for version in (0, 1, 4, 2**32 - 1):
            self.change("full", 8, version.to_bytes(4, "little"))
            self.assertIn(f"image, of unknown version {version}, plain", self.told("full"))

    def test_what_is_no_image_is_none(self):
        self.image("full", bytes(4096))
        self.change("full", 0, bytes(8))
        self.assertNotIn("Kestrix", self.told("full"))


if __name__ == "__main__":
    unittest.main()
