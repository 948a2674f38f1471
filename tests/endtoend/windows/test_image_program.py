"""kestrix-image.exe under Wine: the same images, the same words of JSON, the same files as on Linux."""
import json
import os
import shutil

import image_machine
from image_machine import FOUND, GOOD, IMPOSSIBLE
from kestrix_image import seeded_disk
from wine import PREFIX, WindowsTest

CHUNK = 4096
PROGRAM = os.path.join(image_machine.ROOT, "build", "windows", "kestrix-image.exe")


class ImageProgram(WindowsTest):
    def setUp(self):
        super().setUp()
        self.assertTrue(os.path.isfile(PROGRAM), f"{PROGRAM} is missing")
        self.imageProgram = shutil.copy2(PROGRAM, os.path.join(PREFIX, "program", "kestrix-image.exe"))
        self.file("p", b"secret\n")
        self.secret = ("--password-file", "p")
        self.content = seeded_disk(3 * CHUNK + 100, 1)
        self.newContent = self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:]
        self.base = self.image("a.kstx", self.content, b"secret")
        self.image("b.kstx", self.newContent, b"secret", self.base)

    def ask(self, *arguments):
        run = self.start_under_wine(self.imageProgram, *arguments, "--json").finish()
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        image_machine.form_of(arguments[0]).validate(said)
        return run.status, said

    def test_a_sealed_chain_is_checked_and_extracted(self):
        status, said = self.ask("check", "b.kstx", *self.secret)
        self.assertEqual((status, said["images"][0]["checkedBytes"]), (GOOD, len(self.content)))
        self.assertEqual(self.ask("extract", "b.kstx", "--out", "ö.raw", *self.secret)[0], GOOD)
        self.assertEqual(self.file_bytes("ö.raw"), self.newContent)
        self.assertEqual(self.ask("extract", "b.kstx", "--out", "ö.raw", *self.secret)[0], IMPOSSIBLE)

    def test_damage_is_found_and_repaired_to_the_byte(self):
        os.mkdir(self.path("twins"))
        shutil.copy(self.path("a.kstx"), self.path("twins"))
        whole = self.file_bytes("a.kstx")
        damaged = bytearray(whole)
        damaged[-1] ^= 1
        self.file("a.kstx", damaged)
        status, said = self.ask("check", "b.kstx", *self.secret)
        self.assertEqual((status, [chunk["chunk"] for chunk in said["images"][0]["badChunks"]]), (FOUND, [3]))
        self.assertEqual(self.ask("repair", "a.kstx", "--out", "new", "--twins", "twins", *self.secret)[0], GOOD)
        self.assertEqual(self.file_bytes("new"), whole)

    def test_tables_tell_the_same_as_on_linux(self):
        self.file("disk", self.newContent)
        for words in (["info", "a.kstx", "b.kstx"], ["diff", "a.kstx", "b.kstx"],
                      ["compare", "b.kstx", "--file", "disk"],
                      ["compare", "a.kstx", "--file", "disk"], ["tree", "."]):
            with self.subTest(words):
                linux = image_machine.Started([image_machine.image_program_copy(), *words, "--json"],
                                              self.images).finish()
                status, said = self.ask(*words)
                self.assertEqual((status, said), (linux.status, json.loads(linux.out)))

    def test_a_disk_that_answers_nothing_is_impossible(self):
        self.assertEqual(self.ask("compare", "a.kstx", "--disk", "9")[0], IMPOSSIBLE)
