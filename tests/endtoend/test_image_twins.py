"""Looking for twins: how much work it is, what it shows meanwhile, that it reads the medium, and who waits for what was
made whole.
"""
import os
import resource
import shutil
import subprocess

from harness import MIB, SANITIZERS, TIME_LIMIT, is_sanitized, needs
from image_machine import FOUND, GOOD, ImageMachineTest, why_no_medium
from kestrix_image import HEADER, flip_byte, seeded_disk

CHUNK = 4096


def table_end(chunks):
    return HEADER.size + 72 * chunks


class TwinTest(ImageMachineTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("twins"))

    def copy_without_data(self, name, chunks):
        """An image and, under that name, what is left of it when all behind its table is cut off."""
        self.file(name, self.file_bytes("twins/t")[:table_end(chunks)])


class Work(TwinTest):
    def limited(self, seconds, *arguments):
        """The status of a run that may take so much of a core, which is many times what it needs."""
        done = subprocess.run([self.imageProgram, *arguments], cwd=self.images, timeout=TIME_LIMIT, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                              env={**SANITIZERS, **os.environ},
                              preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds)))
        return done.returncode

    def test_chunks_that_are_all_equal_are_no_more_work_than_others(self):
        chunks = 20000 if is_sanitized() else 100000
        self.image("twins/t", bytes(chunks), chunkSize=1, sectorSize=1)
        self.copy_without_data("a", chunks)
        for command in ("extract", "repair"):
            with self.subTest(command):
                self.assertEqual(self.limited(10, command, "a", "--out", command, "--twins", "twins", "--quiet",
                                              "--json"), GOOD)
        self.assertEqual(self.file_bytes("extract"), bytes(chunks))
        self.assertEqual(self.file_bytes("repair"), self.file_bytes("twins/t"))

    def reads_of(self, path, *arguments):
        """How often the program reads the file."""
        trace = os.path.join(self.folder, "trace")
        done = subprocess.run(["strace", "-f", "-qq", "-o", trace, "-e", "trace=pread64", "-P", path,
                               self.imageProgram, *arguments], cwd=self.images, timeout=TIME_LIMIT, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env={**SANITIZERS, **os.environ})
        self.assertEqual(done.returncode, GOOD, done)
        with open(trace, encoding="utf-8") as file:
            return sum("pread64(" in line for line in file)

    def test_a_twin_is_read_once_for_all_that_are_equal(self):
        disk = seeded_disk(CHUNK, 1) * 50 + seeded_disk(CHUNK, 2) * 50
        for password in (None, b"secret"):
            self.image("twins/t", disk, password)
            self.copy_without_data("a", 100)
            self.file("p", b"secret\n")
            for command in ("extract", "repair"):
                reads = self.reads_of(self.path("twins/t"), command, "a", "--out", "o", "--twins", "twins",
                                      "--password-file", "p")
                self.assertLessEqual(reads, 10, (command, "header and table, twice for repair, and two chunks"))
                self.assertEqual(self.file_bytes("o"), disk if command == "extract" else self.file_bytes("twins/t"))
                os.unlink(self.path("o"))

    def test_equal_chunks_larger_than_a_buffer_are_all_found(self):
        piece = seeded_disk(9 * MIB, 1)
        self.image("twins/t", piece * 3, chunkSize=9 * MIB)
        self.copy_without_data("a", 3)
        self.assertEqual(self.image_program("extract", "a", "--out", "o", "--twins", "twins").status, GOOD)
        self.assertTrue(self.file_bytes("o") == piece * 3)

    def test_a_twin_that_is_bad_leaves_its_equals_to_the_next_one(self):
        disk = seeded_disk(CHUNK, 1) * 4
        self.image("twins/t", disk)
        self.copy_without_data("a", 4)
        flip_byte(self.path("twins/t"), table_end(4))
        status, said = self.ask("extract", "a", "--out", "o", "--twins", "twins")
        self.assertEqual((status, len(said["twins"])), (GOOD, 4))
        self.assertEqual(said["notes"], ["twins/t: chunk 0: its digest is not the recorded one"])


class ShownMeanwhile(TwinTest):
    def check_shown(self, *words):
        for attempt in range(60):
            shown = self.run_on_terminal(0.005 * attempt, "extract", "a", "--out", "o", *words)
            os.unlink(self.path("o"))
            if "twins of what is bad" in shown:
                self.assertRegex(shown, r"\r\[[#.]{20}\] +\d+ %  [\d.]+ MiB/s  \d+:\d\d:\d\d left  twins of what is")
                return
        self.fail("no bar was shown")

    def test_a_bar_over_the_bytes_that_are_lost(self):
        disk = seeded_disk(64 * MIB, 1)
        self.image("twins/t", disk, chunkSize=64 * 1024)
        self.copy_without_data("a", 1024)
        self.disk(1, disk)
        self.check_shown("--twins", "twins")
        self.check_shown("--twin-disk", "1")


class Medium(TwinTest):
    def read_from_device(self, remembered, *words):
        """Bytes that came from a device while the program ran, though the system remembers this file."""
        with open(remembered, "rb") as file:
            os.fsync(file.fileno())
            file.read()
        process = subprocess.Popen([self.imageProgram, *words], cwd=self.images, stdout=subprocess.DEVNULL,
                                   env={**SANITIZERS, **os.environ})
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(process.returncode, GOOD)
        return usage.ru_inblock * 512

    def check_read(self, remembered, size, *words):
        with self.subTest(words):
            self.assertGreaterEqual(self.read_from_device(remembered, *words), size)

    @needs(why_no_medium)
    def test_a_base_is_read_from_the_medium_though_the_system_remembers_it(self):
        content = seeded_disk(8 * MIB, 3)
        base = self.image("a", content, chunkSize=MIB)
        self.image("b", bytes(MIB) + content[MIB:], base=base, chunkSize=MIB)
        self.check_read(self.path("a"), 7 * MIB, "check", "b")
        self.check_read(self.path("a"), 7 * MIB, "extract", "b", "--out", "o")

    @needs(why_no_medium)
    def test_what_is_repaired_and_its_twins_are_read_from_the_medium_though_the_system_remembers_them(self):
        content = seeded_disk(8 * MIB, 3)
        self.image("twins/t", content, chunkSize=MIB)
        shutil.copy(self.path("twins/t"), self.path("a"))
        flip_byte(self.path("a"), table_end(8))
        self.check_read(self.path("a"), 8 * MIB, "repair", "a", "--out", "o", "--twins", "twins")
        self.copy_without_data("a", 8)
        self.disk(1, content)
        for number, command in enumerate(("extract", "repair")):
            self.check_read(self.path("twins/t"), 8 * MIB, command, "a", "--out", f"folder{number}", "--twins", "twins")
            self.check_read(self.disk_path(1), 8 * MIB, command, "a", "--out", f"disk{number}", "--twin-disk", "1")


class WhoWaits(TwinTest):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(3 * CHUNK + 100, 1)
        base = self.image("a", self.content)
        self.image("b", seeded_disk(CHUNK, 2) + self.content[CHUNK:], base=base)
        for name in ("a", "b"):
            shutil.copy(self.path(name), self.path("twins/" + name))
        flip_byte(self.path("a"), table_end(4))

    def standing(self):
        status, said = self.ask("repair", "a", "--out", "o", "--twins", "twins")
        self.assertEqual((status, said["result"]), (GOOD, "whole"))
        os.unlink(self.path("o"))
        return [(image["file"], image["name"], image["folder"]) for image in said["standsOnIt"]]

    def test_what_has_its_base_in_the_folder_of_twins_waits_for_no_new_file(self):
        self.assertEqual(self.standing(), [("b", "a", "")])

    def test_what_has_lost_its_base_there_waits_as_well(self):
        os.rename(self.path("twins/a"), self.path("twins/other"))
        self.assertEqual(self.standing(), [("b", "a", ""), ("twins/b", "a", "twins/")])

    def test_what_waits_for_nothing_vouches_all_the_same(self):
        os.unlink(self.path("b"))
        before = self.image("before", self.content, epoch=4)
        self.image("c", self.content, base=before, baseName=b"a")
        self.assertEqual(self.standing(), [])
        os.unlink(self.path("twins/b"))
        status, said = self.ask("repair", "a", "--out", "o", "--twins", "twins")
        self.assertEqual((status, said["lacks"]), (FOUND, ["its header or table is not what c was made against"]))
