"""What tree says of a folder in which something is damaged: no image is called free on which one may stand that could
be mended, and no file that was an image is called another file or a capture that never ended.
"""
import os
import re
import subprocess

from harness import SANITIZERS, TIME_LIMIT
from image_machine import FOUND, GOOD, ImageMachineTest
from kestrix_image import HEADER, TRAILER_MAGIC, flip_byte, seeded_disk

CHUNK = 4096
TABLE = HEADER.size + 72 * 4  # bytes before the data of a disk of four chunks


class DamagedFolder(ImageMachineTest):
    """The image b stands on a."""

    def setUp(self):
        super().setUp()
        self.disk = seeded_disk(3 * CHUNK + 100, 1)
        base = self.image("a", self.disk)
        self.image("b", seeded_disk(CHUNK, 2) + self.disk[CHUNK:], base=base)

    def tree(self):
        """Its exit status, its object, and its lines by the name that they begin with."""
        status, said = self.ask("tree", ".")
        lines = self.image_program("tree", ".").out.decode().splitlines()
        return status, said, {line.split(":")[0].strip(): line for line in lines}

    def overwrite(self, name, place, content):
        whole = self.file_bytes(name)
        self.file(name, whole[:place] + content + whole[place + len(content):])

    def check_base_is_not_free(self):
        status, said, lines = self.tree()
        self.assertEqual((status, said["result"]), (FOUND, "broken"))
        self.assertNotIn("nothing stands on it", lines["a"])
        self.assertIn("nothing that can be read stands on it", lines["a"])
        return said

    def test_an_image_that_lost_its_magic_or_its_version_leaves_its_base_in_need(self):
        for place in range(12):
            with self.subTest(place):
                flip_byte(self.path("b"), place)
                said = self.check_base_is_not_free()
                version = place == 8  # which is now that of a full image
                self.assertEqual([item["file"] for item in said["damaged"]], [] if version else ["b"])
                flip_byte(self.path("b"), place)
        self.assertEqual(self.tree()[0], GOOD)

    def test_an_image_whose_beginning_is_zeros_leaves_its_base_in_need(self):
        whole = self.file_bytes("b")
        for length in (HEADER.size, HEADER.size + 72, HEADER.size + 100):
            with self.subTest(length):
                self.overwrite("b", 0, bytes(length))
                said = self.check_base_is_not_free()
                self.assertEqual([item["file"] for item in said["damaged"]], ["b"])
                self.assertIn("its header is gone", said["damaged"][0]["says"])
                self.file("b", whole)

    def test_what_has_neither_header_nor_table_is_unfinished_and_may_yet_stand_on_something(self):
        whole = self.file_bytes("b")
        for begin in (0, HEADER.size):
            self.file("b", whole[:begin] + bytes(TABLE - begin) + whole[TABLE:])
            status, said, lines = self.tree()
            self.assertEqual((status, [item["file"] for item in said["unfinished"]]), (GOOD, ["b"]))
            self.assertIn("nothing that can be read stands on it", lines["a"])

    def test_a_capture_that_never_ended_is_no_damage_whatever_it_holds(self):
        for data in (bytes(8), b"data", seeded_disk(10 * CHUNK, 7), self.file_bytes("a")):
            self.file("begun", bytes(TABLE) + data)
            status, said, lines = self.tree()
            self.assertEqual((status, [item["file"] for item in said["unfinished"]]), (GOOD, ["begun"]))
            self.assertIn("nothing stands on it", lines["b"])

    def test_text_that_speaks_of_trailers_is_no_image(self):
        self.file("notes", TRAILER_MAGIC + b" is how a trailer begins" + bytes(40))
        status, said, lines = self.tree()
        self.assertEqual((status, [item["file"] for item in said["other"]]), (GOOD, ["notes"]))
        self.assertIn("nothing stands on it", lines["b"])

    def test_a_base_whose_header_is_zeros_was_not_replaced(self):
        for length in (HEADER.size, TABLE):
            self.overwrite("a", 0, bytes(length))
            status, said, lines = self.tree()
            self.assertEqual((status, said["images"][0]["base"]["state"]), (FOUND, "damaged"))
            self.assertIn("its base a is DAMAGED", lines["b"])

    def test_bytes_too_many_are_damage_as_for_check(self):
        os.unlink(self.path("b"))
        self.file("a", self.file_bytes("a") + b"123")
        status, said, lines = self.tree()
        self.assertEqual((status, said["result"], said["images"][0]["bytesTooMany"]), (FOUND, "broken", 3))
        self.assertIn(", 3 bytes TOO MANY; chain of 1", lines["a"])
        self.assertEqual(lines["."], ".: 1 image, 0 with a BROKEN chain, 1 DAMAGED")

    def test_the_beginning_of_a_header_tells_no_geometry(self):
        self.file("cut", self.file_bytes("a")[:40])
        status, said = self.ask("info", "cut")
        self.assertEqual((status, said["files"][0]["state"], "header" in said["files"][0]), (FOUND, "damaged", False))
        self.assertEqual(self.image_program("info", "cut").out, b"cut:\n  DAMAGED: cut: its header is cut off\n")


class LargeTable(ImageMachineTest):
    def test_it_is_announced_piece_by_piece_before_it_is_read(self):
        step, least, entry = 65536, 512, 72  # entries between two announcements, bytes of a chunk and of an entry
        count = 3 * step
        self.image("large", bytes(count * least), chunkSize=least)
        subprocess.run(["strace", "-f", "-qq", "-o", self.path("trace"), "-e", "trace=fadvise64", "-P",
                        self.path("large"), self.imageProgram, "tree", "."], cwd=self.images, check=True,
                       timeout=TIME_LIMIT, stdout=subprocess.DEVNULL, env={**SANITIZERS, **os.environ})
        announced = re.findall(r"fadvise64\(\d+, (\d+), (\d+), POSIX_FADV_WILLNEED\)",
                               self.file_bytes("trace").decode())
        ahead = [(int(start), int(length)) for start, length in announced if int(length) >= step * entry]
        self.assertEqual(ahead, [(HEADER.size + first * entry, min(2 * step, count - first) * entry)
                                 for first in range(0, count, step)])
