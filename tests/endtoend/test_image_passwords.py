"""A password that is another one looks like broken seals everywhere; who asks for a rescue is told so, and not that
each chunk is lost.
"""
import os

from image_machine import FOUND, GOOD, ImageMachineTest
from kestrix_image import HEADER, flip_byte, seeded_disk

CHUNK = 4096
TABLE = HEADER.size + 72 * 4  # bytes before the data of a disk of four chunks
SUSPICION = "no sealed chunk opens: perhaps the password is another"


class AnotherPassword(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.file("right", b"secret\n")
        self.file("wrong", b"sceret\n")
        self.disk = seeded_disk(3 * CHUNK + 100, 1)
        self.image("a", self.disk, b"secret")
        os.mkdir(self.path("tw"))
        self.image("tw/t", self.disk)

    def ask_with(self, password, *words):
        for name in ("o", "m"):
            if os.path.exists(self.path(name)):
                os.unlink(self.path(name))
        return self.ask(*words, "--out", "o", "--password-file", password)

    def test_repair_suspects_it_and_blames_no_more_than_the_first_chunk(self):
        flip_byte(self.path("a"), TABLE)
        status, said = self.ask_with("wrong", "repair", "a", "--twins", "tw")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertEqual(said["lacks"][0], "the right password: " + SUSPICION)
        self.assertEqual(len(said["lacks"]), 2)
        self.assertIn("tw/t has it, but under the recorded nonce it gives another tag", said["lacks"][1])
        self.assertEqual(self.ask_with("right", "repair", "a", "--twins", "tw")[1]["lacks"], [])

    def test_repair_suspects_it_also_where_there_is_no_twin(self):
        status, said = self.ask_with("wrong", "repair", "a")
        self.assertEqual((status, said["lacks"][0]), (FOUND, "the right password: " + SUSPICION))

    def test_an_image_of_which_no_chunk_is_sound_is_made_whole_without_a_word_of_passwords(self):
        whole = self.file_bytes("a")
        for i in range(4):
            flip_byte(self.path("a"), TABLE + CHUNK * i + 3)
        status, said = self.ask_with("right", "repair", "a", "--twins", "tw")
        self.assertEqual((status, said["result"], said["lacks"]), (GOOD, "whole", []))
        self.assertEqual(self.file_bytes("o"), whole)

    def test_extract_suspects_it_and_one_sound_chunk_is_enough_not_to(self):
        flip_byte(self.path("a"), TABLE)
        for words in ((), ("--keep-going", "--map", "m"), ("--twins", ".")):
            status, said = self.ask_with("wrong", "extract", "a", *words)
            self.assertEqual((status, said["notes"][0]), (FOUND, SUSPICION), words)
        self.assertIn(f"\n  note: {SUSPICION}\n",
                      self.image_program("extract", "a", "--out", "p", "--password-file", "wrong").out.decode())
        for words in (("--keep-going", "--map", "m"), ("--twins", ".")):
            self.assertEqual(self.ask_with("right", "extract", "a", *words)[1]["notes"], [], words)

    def test_a_plain_image_has_no_password(self):
        self.image("a", self.disk)
        flip_byte(self.path("a"), TABLE)
        self.assertEqual(self.ask_with("wrong", "extract", "a", "--keep-going", "--map", "m")[1]["notes"], [])
