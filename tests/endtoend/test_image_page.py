"""What docs/kestrix-image.md shows is what the program prints."""
import os
import re

from harness import ROOT
from image_machine import ImageMachineTest
from kestrix_image import make_image, seeded_disk

PAGE = os.path.join(ROOT, "docs", "kestrix-image.md")
CHUNK = 4096


def console_commands():
    """Each command of the page with the lines that stand below it."""
    commands = []
    with open(PAGE, encoding="utf-8") as file:
        for line in file:
            if line.startswith("    $ "):
                commands.append((line[6:].split(), []))
            elif line.startswith("    ") and commands and commands[-1] is not None:
                commands[-1][1].append(line[4:].rstrip("\n"))
            elif not line.strip():
                continue
            elif commands and commands[-1] is not None:
                commands.append(None)
    return [command for command in commands if command is not None]


class Page(ImageMachineTest):
    def week(self):
        sunday = bytearray(seeded_disk(4 * CHUNK, 1)) + bytes(CHUNK)
        monday = bytearray(sunday)
        monday[CHUNK:2 * CHUNK] = seeded_disk(CHUNK, 2)
        tuesday = bytearray(monday)
        tuesday[2 * CHUNK:3 * CHUNK] = seeded_disk(CHUNK, 3)
        first = make_image(self.path("sunday.kstx"), bytes(sunday))
        second = make_image(self.path("monday.kstx"), bytes(monday), base=first)
        make_image(self.path("tuesday.kstx"), bytes(tuesday), base=second)
        return bytes(tuesday)

    def prepare(self, words, tuesday):
        """What a command wants that is not there yet."""
        if "tuesday.disk" in words and not os.path.exists(self.path("tuesday.disk")):
            self.file("tuesday.disk", tuesday)
        if "damaged.kstx" in words and not os.path.exists(self.path("damaged.kstx")):
            content = bytearray(self.file_bytes("sunday.kstx"))
            content[64 + 5 * 72 + 2 * CHUNK] ^= 1
            self.file("damaged.kstx", content)

    def test_every_command_of_the_page_prints_what_the_page_shows(self):
        tuesday = self.week()
        commands = console_commands()
        self.assertGreater(len(commands), 8)
        for words, shown in commands:
            self.assertEqual(words[0], "kestrix-image")
            self.prepare(words, tuesday)
            with self.subTest(" ".join(words)):
                run = self.image_program(*words[1:])
                self.assertEqual((run.out + run.err).decode().splitlines(), shown)

    def test_the_page_lists_every_subcommand_and_no_other(self):
        with open(PAGE, encoding="utf-8") as file:
            listed = re.findall(r"^    kestrix-image ([a-z]+) ", file.read(), re.M)
        told = self.image_program("--help").out.decode()
        self.assertEqual(listed, re.findall(r"^  ([a-z]+)  ", told.split("Subcommands:")[1], re.M))
