"""What extract gets out of a chain that can't be opened to its end: the table of the image that is asked for has the
digest of every chunk, so that with --keep-going, or with twins, each sound chunk that is there finds its way.
"""
import fcntl
import os
import subprocess

from harness import SANITIZERS, TIME_LIMIT
from image_machine import FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import HEADER, flip_byte, seeded_disk

CHUNK = 4096
TABLE = HEADER.size + 72 * 4  # bytes before the data of a disk of four chunks
KEEP_GOING = ("--keep-going", "--map", "m")


class BrokenChain(ImageMachineTest):
    """The image b stands on a, which stands on full; each stores a chunk of its own, and the rest lies below."""

    def setUp(self):
        super().setUp()
        disk = seeded_disk(3 * CHUNK + 100, 1)
        full = self.image("full", disk)
        disk = seeded_disk(CHUNK, 2) + disk[CHUNK:]
        base = self.image("a", disk, base=full)
        self.disk = disk[:CHUNK] + seeded_disk(CHUNK, 3) + disk[2 * CHUNK:]
        self.image("b", self.disk, base=base)
        self.images_ = {"full", "a", "b"}

    def extract(self, *words):
        for name in ("o", "m"):
            if os.path.exists(self.path(name)):
                os.unlink(self.path(name))
        return self.ask("extract", "b", "--out", "o", *words)

    def left(self):
        return sorted(set(os.listdir(self.images)) - self.images_)

    def cut(self, name, bytesToCut):
        self.file(name, self.file_bytes(name)[:-bytesToCut])

    def check_rescued(self, says, missing):
        """That the chain, whose fault is worded so, gives what is not missing, and with its own files as twins all."""
        status, said = self.extract()
        self.assertEqual((status, said["result"], self.left()), (FOUND, "nothing", []))
        self.assertRegex(said["fault"], says)
        status, said = self.extract(*KEEP_GOING)
        self.assertEqual((status, said["result"], [bad["chunk"] for bad in said["badChunks"]]),
                         (FOUND, "holes", missing))
        self.assertRegex(said["notes"][0], says)
        expected = bytearray(self.disk)
        for chunk in missing:
            expected[chunk * CHUNK:(chunk + 1) * CHUNK] = bytes(len(self.disk[chunk * CHUNK:(chunk + 1) * CHUNK]))
        self.assertEqual(self.file_bytes("o"), expected)
        self.check_filled(GOOD)

    def check_filled(self, status):
        for words in (("--twins", "."), ("--twins", ".", *KEEP_GOING)):
            filled, said = self.extract(*words)
            self.assertEqual((filled, said["result"]), (status, "whole"), said)
            self.assertEqual(self.file_bytes("o"), self.disk)

    def test_a_bit_of_a_base_s_epoch_costs_the_chunks_below_and_twins_give_them_back(self):
        flip_byte(self.path("a"), 37)
        self.check_rescued("^a: it is not the image that b was made against", [0, 2, 3])

    def test_a_bit_in_the_table_of_the_lowest_base_leaves_what_lies_above(self):
        flip_byte(self.path("full"), HEADER.size + 72 + 60)  # the tag of a chunk that b stores anew
        self.check_rescued("^full: it is not the image that a was made against", [2, 3])

    def test_a_base_that_is_renamed_is_found_by_what_it_holds(self):
        os.rename(self.path("a"), self.path("other"))
        self.images_.add("other")
        self.check_rescued("^b: the image that it stands on is missing: ", [0, 2, 3])

    def test_a_base_that_is_missing_costs_what_it_stored_and_no_more(self):
        os.unlink(self.path("a"))
        status, said = self.extract("--twins", ".", *KEEP_GOING)
        self.assertEqual((status, [bad["chunk"] for bad in said["badChunks"]]), (FOUND, [0]))
        self.assertEqual(self.file_bytes("o"), bytes(CHUNK) + self.disk[CHUNK:])
        status, said = self.extract("--twins", ".")
        self.assertEqual((status, said["result"], self.left()), (FOUND, "nothing", []))
        self.assertRegex(said["notes"][0], "^b: the image that it stands on is missing: ")

    def test_the_trailer_of_the_image_itself_or_of_its_base_is_not_needed_for_what_it_stores(self):
        for name, missing in (("b", [0, 2, 3]), ("a", [2, 3])):
            whole = self.file_bytes(name)
            for place in (len(whole) - 1, TABLE + CHUNK + 3):
                flip_byte(self.path(name), place)
                self.check_rescued(f"^{name}: its trailer, which names the base, is ", missing)
                self.file(name, whole)
            self.cut(name, 20)
            self.check_rescued(f"^{name}: its trailer, which names the base, is ", missing)
            self.file(name, whole)

    def test_the_person_is_told_why_chunks_are_missing(self):
        flip_byte(self.path("a"), 37)
        printed = self.image_program("extract", "b", "--out", "o", *KEEP_GOING).out.decode()
        self.assertRegex(printed, "(?m)^b: 3 chunks MISSING from o; what is missing stands in m$")
        self.assertRegex(printed, "(?m)^  note: a: it is not the image that b was made against")

    def test_a_base_that_another_program_writes_is_waited_for(self):
        with open(self.path("a"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            status, said = self.extract("--twins", ".", *KEEP_GOING)
        self.assertEqual((status, said["result"], self.left()), (IMPOSSIBLE, "nothing", []))
        self.check_filled(GOOD)

    def test_a_base_whose_table_lies_on_a_bad_place_ends_the_chain(self):
        run = subprocess.run(["strace", "-f", "-qq", "-o", self.path("trace"), "-e",
                              "inject=pread64:error=EIO:when=2", "-P", self.path("a"), self.imageProgram, "extract",
                              "b", "--out", "o", *KEEP_GOING], cwd=self.images, check=False, timeout=TIME_LIMIT,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             env={**SANITIZERS, **os.environ})
        self.assertEqual(run.returncode, FOUND, run)
        self.assertIn(b"  note: a: its chunk table can't be read: ", run.stdout)
        self.assertEqual(self.file_bytes("o"),
                         bytes(CHUNK) + self.disk[CHUNK:2 * CHUNK] + bytes(len(self.disk) - 2 * CHUNK))
