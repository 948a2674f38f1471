"""kestrix-image check, on files of the independent writer: what it reads, finds and needs."""
import fcntl
import os
import shutil

from harness import MIB, is_sanitized, needs
from image_commands import CHUNK, TABLE, CommandTest
from image_machine import FOUND, GOOD, IMPOSSIBLE, why_no_medium
from kestrix_image import make_chain, seeded_disk


class Check(CommandTest):
    def test_each_chunk_of_a_chain_is_read_once_wherever_it_lies(self):
        make_chain(self.images, 10, b"secret")
        image = self.check_of("level09.kstx", *self.secret)
        self.assertEqual((image["verdict"], image["checkedBytes"]), ("sound", 4 * CHUNK))
        self.assertEqual(len(image["chain"]), 10)

    def test_all_bad_chunks_of_a_chain_are_named_with_their_file(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        self.flip("a", TABLE + 5)
        self.flip("a", TABLE + 3 * CHUNK)
        self.flip("a", TABLE + CHUNK)  # what b does not depend on
        self.flip("b", TABLE + 9)
        bad = [(chunk["file"], chunk["chunk"], chunk["diskOffset"], chunk["lengthBytes"], chunk["cause"])
               for chunk in self.check_of("b")["badChunks"]]
        self.assertEqual(bad, [("a", 0, 0, CHUNK, "digest"), ("b", 1, CHUNK, CHUNK, "digest"),
                               ("a", 3, 3 * CHUNK, 100, "digest")])

    def test_own_needs_no_base_and_checks_nothing_but_the_file(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        os.unlink(self.path("a"))
        self.assertEqual(self.check_of("b")["verdict"], "damaged")
        image = self.check_of("b", "--own")
        self.assertEqual((image["verdict"], image["checkedBytes"], image["verify"]), ("sound", CHUNK, None))
        self.flip("b", TABLE + 9)
        self.assertEqual([chunk["chunk"] for chunk in self.check_of("b", "--own")["badChunks"]], [1])

    def test_a_wrong_password_is_suspected_where_nothing_opens(self):
        self.image("a", self.content, b"another")
        run = self.image_program("check", "a", *self.secret)
        self.assertEqual(run.status, FOUND)
        self.assertIn(b"perhaps the password is another", run.out)
        self.assertEqual(self.image_program("check", "a").status, IMPOSSIBLE)

    def test_a_plain_image_asks_for_no_password_file(self):
        self.image("a", self.content)
        self.assertEqual(self.image_program("check", "a", "--password-file", "absent").status, GOOD)

    def test_a_file_that_is_being_written_is_not_checked(self):
        self.image("a", self.content)
        with open(self.path("a"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.check_of("a")["verdict"], "impossible")
        self.assertEqual(self.check_of("a")["verdict"], "sound")

    def test_a_chain_that_loops_takes_no_more_memory_than_one_of_its_length(self):
        def loop(record):
            record.trailer.baseName, record.trailer.nameLength = b"b", 1
            record.trailer.totalLength = 49
        chunks = 100000
        base = self.image("a", bytes(chunks), chunkSize=1)
        self.image("b", bytes(chunks), base=base, chunkSize=1, edit=loop)
        self.program = self.imageProgram
        once, looped = self.peak_memory("check", "a"), self.peak_memory("check", "b", status=1)
        self.assertLess(looped, once + 2 * 80 * chunks)

    def test_memory_is_bounded_by_threads_and_tables(self):
        content = bytes(64 * MIB)
        self.image("a", content, chunkSize=64 * MIB, password=b"secret")
        self.image("small", bytes(CHUNK), b"secret")
        self.program = self.imageProgram
        small, large = (self.peak_memory("check", name, "-j", "1", *self.secret) for name in ("small", "a"))
        self.assertLess(large, small + 17 * MIB)

    def test_chunks_that_are_lost_take_no_memory_to_speak_of(self):
        chunks, sound = 100000, self.path("sound/twin")
        content = b"".join(i.to_bytes(4, "little") for i in range(chunks))
        os.mkdir(os.path.dirname(sound))
        self.image("sound/twin", content, chunkSize=4)
        shutil.copy(sound, self.path("a"))
        with open(self.path("a"), "r+b") as file:
            file.seek(64 + 72 * chunks)
            file.write(bytes(byte ^ 0xFF for byte in content))
        self.image("small", content[:4], chunkSize=4)
        self.program = self.imageProgram
        small = self.peak_memory("extract", "small", "--out", "o1", "-j", "1", "--quiet")
        lost = self.peak_memory("extract", "a", "--out", "o2", "-j", "1", "--quiet", "--twins", os.path.dirname(sound))
        self.assertEqual(self.file_bytes("o2"), content)
        if not is_sanitized():
            inexactness = 512 * 1024  # of two figures: the system counts pages for each thread some dozens at a time
            self.assertLess(lost, small + 2 * 80 * chunks + inexactness, "the image and its twin")

    def test_what_the_tables_refuse_is_not_told_as_checked(self):
        def hollow(record):
            record.table[1].storedLength, record.data[1] = 0, b""
        self.image("a", self.content, edit=hollow)
        image = self.check_of("a")
        self.assertEqual(([bad["cause"] for bad in image["badChunks"]], image["checkedBytes"]),
                         (["notStored"], 2 * CHUNK + 100))

    def test_a_sealed_image_that_stores_nothing_asks_for_no_password_of_its_own(self):
        base = self.image("a", self.content)
        self.image("b", self.content, b"secret", base)
        self.assertEqual(self.check_of("b", "--own")["verdict"], "sound")
        self.assertEqual(self.check_of("b")["verdict"], "impossible")  # as for kestrix, which restores it
        self.assertEqual(self.ask("extract", "b", "--out", "o")[0], GOOD)
        self.assertEqual(self.file_bytes("o"), self.content)
        whole = self.file_bytes("b")
        self.file("b", whole[:64 + 72 * 4] + b"more" + whole[64 + 72 * 4:])
        self.assertEqual(self.ask("repair", "b", "--out", "new")[1]["result"], "whole")
        self.assertEqual(self.file_bytes("new"), whole)

    def read_from_device(self, *words):
        with open(self.path("a"), "rb") as file:
            file.read()  # so that the system remembers it
        self.program = self.imageProgram
        return self.measured(*words)["read_bytes"]

    @needs(why_no_medium)
    def test_the_medium_is_read_and_not_what_the_system_remembers_of_it(self):
        content = seeded_disk(8 * MIB, 3)
        self.image("a", content, chunkSize=MIB)
        self.disk(1, content)
        self.file("raw", content)
        for name in (self.path("a"), self.path("raw"), self.disk_path(1)):
            with open(name, "rb") as file:
                os.fsync(file.fileno())
        commands = (("check", "a"), ("compare", "a", "--disk", "1"), ("compare", "a", "--file", "raw"),
                    ("extract", "a", "--out", "o"))
        for words in commands:
            for name in ("raw", self.disk_path(1)):
                with open(self.path(name), "rb") as file:
                    file.read()
            with self.subTest(words):
                self.assertGreaterEqual(self.read_from_device(*words), len(content))
        os.unlink(self.path("o"))
        for words in commands[:-2]:
            for name in ("a", self.disk_path(1)):
                with open(self.path(name), "rb") as file:
                    file.read()
            with self.subTest(words):
                self.assertLess(self.read_from_device(*words, "--cached"), len(content) // 2)
