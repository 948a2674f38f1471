"""Disks and images beside one another, where one of them can't be read or is of another kind."""
import json
import os
import subprocess

from harness import SANITIZERS, TIME_LIMIT
from image_machine import FOUND, IMPOSSIBLE, ImageMachineTest, form_of
from kestrix_image import seeded_disk

CHUNK = 4096


class Beside(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.disk_ = seeded_disk(4 * CHUNK, 1)
        self.image("a", self.disk_)

    def compare(self, when, *words):
        """A comparison with a raw file of which the reads are bad that when names."""
        done = subprocess.run(["strace", "-f", "-qq", "-o", self.path("trace"), "-e",
                               f"inject=pread64:error=EIO:when={when}", "-P", self.path("raw"), self.imageProgram,
                               "compare", "a", "--file", "raw", "--cached", "-j", "1", *words],
                              cwd=self.images, check=False, timeout=TIME_LIMIT, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, env={**SANITIZERS, **os.environ})
        self.assertEqual(done.stderr, b"")
        return done.returncode, done.stdout.decode()

    def compare_as_json(self, when):
        status, text = self.compare(when, "--json")
        said = json.loads(text)
        form_of("compare").validate(said)
        return status, said

    def test_one_bad_read_makes_the_status_and_a_difference_elsewhere_is_named_all_the_same(self):
        self.file("raw", self.disk_[:3 * CHUNK] + bytes(CHUNK))
        status, said = self.compare_as_json(2)
        self.assertEqual((status, said["result"], said["comparedBytes"]), (IMPOSSIBLE, "unreadable", 3 * CHUNK))
        self.assertEqual(said["ranges"], [{"diskOffset": CHUNK, "lengthBytes": CHUNK, "state": "unreadable"},
                                          {"diskOffset": 3 * CHUNK, "lengthBytes": CHUNK, "state": "differs"}])
        self.assertEqual(said["says"], "Input/output error")
        status, text = self.compare(2)
        self.assertEqual((status, text.splitlines()[:2]), (IMPOSSIBLE, [
            "raw: DIFFERENT from a: 1 chunk of 4", "  1 chunk of 4 can't be read: Input/output error"]))

    def test_a_disk_that_can_not_be_read_is_not_called_different(self):
        self.file("raw", self.disk_)
        status, text = self.compare("1+")
        self.assertEqual((status, text.splitlines()), (IMPOSSIBLE, [
            "raw: NOT WHOLLY READ: equal to a as far as it was: 0 bytes compared",
            "  4 chunks of 4 can't be read: Input/output error",
            f"  disk bytes 0 to {4 * CHUNK}, 16.00 KiB: unreadable"]))
        self.assertEqual(self.ask("compare", "a", "--file", "raw")[1]["says"], None)

    def test_disks_of_two_sector_sizes_are_not_equal_and_neither_image_stands_on_the_other(self):
        self.image("b", self.disk_, sectorSize=4096)
        for pair, says in ((("a", "b"), "512 and of 4096"), (("b", "a"), "4096 and of 512")):
            status, said = self.ask("diff", *pair)
            self.assertEqual((status, said["result"], said["differentChunks"], said["thinBytes"], said["ranges"]),
                             (FOUND, "different", 0, None, []))
            self.assertIn(f"\n  neither can stand on the other: their disks have sectors of {says} bytes\n",
                          self.image_program("diff", *pair).out.decode())
