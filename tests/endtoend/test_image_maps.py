"""The map of extract, as GNU ddrescue takes it: the command that page and manual page show, as it stands there, fills
what is missing.
"""
import os
import re

from harness import ROOT
from image_machine import FOUND, GOOD, ImageMachineTest
from kestrix_image import HEADER, flip_byte, seeded_disk

CHUNK = 4096
TABLE = HEADER.size + 72 * 4  # bytes before the data of a disk of four chunks


def shown_commands():
    """The commands of ddrescue that the page and the manual page show, as words."""
    found = []
    for name in ("kestrix-image.md", "man/kestrix-image.1.scd"):
        with open(os.path.join(ROOT, "docs", name), encoding="utf-8") as file:
            found += [line.split() for line in re.findall(r"^(?:    |\t)(ddrescue .*)$", file.read(), re.M)]
    return found


class Map(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.disk = seeded_disk(3 * CHUNK + 100, 1)

    def extract(self, status):
        told, said = self.ask("extract", "a", "--out", "disk.raw", "--keep-going", "--map", "disk.map")
        self.assertEqual(told, status)
        return said

    def blocks(self):
        """Begin, length and status of each block of the map."""
        with open(self.path("disk.map"), encoding="ascii") as file:
            lines = [line.split() for line in file if not line.startswith("#")]
        return lines[0][1], [(int(begin, 16), int(size, 16), status) for begin, size, status in lines[1:]]

    def test_the_command_that_is_shown_fills_the_holes(self):
        commands = shown_commands()
        self.assertEqual(len(commands), 2)
        for words in commands:
            self.assertEqual(len(words), 4, words)  # the source, the file, the map, and no option
            self.image("a", self.disk)
            flip_byte(self.path("a"), TABLE + CHUNK)
            self.extract(FOUND)
            self.assertEqual(self.blocks(), ("?", [(0, CHUNK, "+"), (CHUNK, CHUNK, "?"),
                                                   (2 * CHUNK, CHUNK + 100, "+")]))
            source = self.file("disk", self.disk)
            self.must("ddrescue", self.path(source), self.path("disk.raw"), self.path("disk.map"))
            self.assertEqual(self.file_bytes("disk.raw"), self.disk)
            self.assertEqual(self.blocks()[0], "+")
            for name in ("disk.raw", "disk.map"):
                os.unlink(self.path(name))

    def test_an_end_without_chunks_is_told_apart_and_filled_as_well(self):
        def grow(record):
            record.header.diskSize += 2 * CHUNK
        whole = self.disk[:3 * CHUNK] + seeded_disk(2 * CHUNK, 9)
        self.image("a", whole[:3 * CHUNK], edit=grow)
        flip_byte(self.path("a"), HEADER.size + 72 * 3 + 2 * CHUNK)
        said = self.extract(FOUND)
        self.assertEqual(said["bytesWithoutChunks"], 2 * CHUNK)
        self.assertEqual(self.blocks(), ("?", [(0, 2 * CHUNK, "+"), (2 * CHUNK, CHUNK, "?"),
                                               (3 * CHUNK, 2 * CHUNK, "/")]))
        source = self.file("disk", whole)
        self.must("ddrescue", self.path(source), self.path("disk.raw"), self.path("disk.map"))
        self.assertEqual(self.file_bytes("disk.raw"), whole)

    def test_of_a_whole_disk_there_is_nothing_left_to_do(self):
        self.image("a", self.disk)
        self.extract(GOOD)
        self.assertEqual(self.blocks(), ("+", [(0, len(self.disk), "+")]))
