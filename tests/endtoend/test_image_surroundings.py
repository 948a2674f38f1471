"""kestrix-image where what lies around an image is not as it should be: twins that can't be had, files that are named
twice, a header that tells of more disk than there are chunks, too few handles, names that mean something to others.
"""
import fcntl
import os
import resource
import struct
import subprocess

from harness import SANITIZERS, TIME_LIMIT, is_sanitized
from image_machine import COMMAND_LINE, FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import flip_byte, make_chain, seeded_disk

CHUNK = 4096
DATA = 64 + 72 * 4  # where the chunks of an image of four chunks begin


class SurroundingsTest(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(3 * CHUNK + 100, 1)
        os.mkdir(self.path("twins"))

    def damaged_image(self):
        """An image with a bad chunk, its second one."""
        image = self.image("a", self.content)
        flip_byte(self.path("a"), DATA + CHUNK)
        return image

    def left(self):
        return sorted(set(os.listdir(self.images)) - {"a", "twins", "p"})


class Twins(SurroundingsTest):
    def test_places_that_are_not_there_are_refused_though_nothing_is_wanted_of_them(self):
        self.image("a", self.content)
        for command in ("extract", "repair"):
            for words in (("--twins", "twinz"), ("--twin-disk", "7")):
                with self.subTest((command, words)):
                    status, said = self.ask(command, "a", "--out", "o", *words)
                    self.assertEqual((status, said["result"], self.left()), (IMPOSSIBLE, "nothing", []))

    def test_the_disk_and_its_map_are_two_files(self):
        self.damaged_image()
        run = self.image_program("extract", "a", "--out", "o", "--keep-going", "--map", "o")
        self.assertEqual((run.status, self.left()), (COMMAND_LINE, []))
        run = self.image_program("extract", "a", "--out", "o", "--keep-going", "--map", "./o")
        self.assertEqual((run.status, self.left()), (IMPOSSIBLE, []))

    def test_a_password_is_not_asked_for_where_no_twin_is_sealed(self):
        self.damaged_image()
        self.image("twins/t", self.content)
        for command in ("extract", "repair"):
            status, _ = self.ask(command, "a", "--out", "o", "--twins", "twins", "--password-file", "absent")
            self.assertEqual(status, GOOD)
            os.unlink(self.path("o"))

    def test_a_password_that_can_not_be_had_is_noted_and_other_twins_serve(self):
        self.damaged_image()
        self.image("twins/s", self.content, b"secret")
        self.image("twins/t", self.content)
        status, said = self.ask("extract", "a", "--out", "o", "--twins", "twins", "--password-file", "absent")
        self.assertEqual((status, said["twins"]), (GOOD, [{"chunk": 1, "from": "twins/t"}]))
        self.assertRegex(said["notes"][0], "^absent: the password file can't be opened: ")

    def test_a_twin_that_is_being_written_is_noted(self):
        self.damaged_image()
        self.image("twins/t", self.content)
        with open(self.path("twins/t"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            for command in ("extract", "repair"):
                status, said = self.ask(command, "a", "--out", "o", "--twins", "twins")
                self.assertEqual((status, said["notes"]),
                                 (FOUND, ["twins/t: it can't be opened: another program is writing it"]))

    def test_a_twin_that_is_damaged_itself_is_noted(self):
        self.damaged_image()
        self.image("twins/t", self.content)
        flip_byte(self.path("twins/t"), DATA + CHUNK + 1)
        status, said = self.ask("extract", "a", "--out", "o", "--twins", "twins")
        self.assertEqual((status, said["notes"]),
                         (FOUND, ["twins/t: chunk 1: its digest is not the recorded one"]))

    def test_a_disk_that_ends_before_the_chunk_is_noted(self):
        self.damaged_image()
        self.disk(1, self.content[:CHUNK])
        status, said = self.ask("extract", "a", "--out", "o", "--twin-disk", "1")
        self.assertEqual(status, FOUND)
        self.assertRegex(said["notes"][0], "^PhysicalDrive1: the place of chunk 1 can't be read: ")


class Headers(SurroundingsTest):
    def make_short_table(self):
        """An image whose disk is 5000 bytes longer than what it has chunks for."""
        def grow(record):
            record.header.diskSize += 5000
        self.image("a", self.content[:3 * CHUNK], edit=grow)

    def test_what_an_image_has_no_chunks_for_is_not_equal(self):
        self.make_short_table()
        self.file("raw", self.content[:3 * CHUNK] + bytes(5000))
        status, said = self.ask("compare", "a", "--file", "raw")
        self.assertEqual((status, said["result"], said["comparedBytes"]), (FOUND, "different", 3 * CHUNK))
        self.assertEqual(said["ranges"], [{"diskOffset": 3 * CHUNK, "lengthBytes": 5000, "state": "notInImage"}])

    def test_compared_bytes_are_those_of_the_disk_and_not_what_lies_behind(self):
        self.image("a", self.content)
        self.file("raw", self.content + bytes(5000))
        self.assertEqual(self.ask("compare", "a", "--file", "raw")[1]["comparedBytes"], len(self.content))

    def test_an_image_without_chunks_for_its_disks_end_is_damaged_though_verify_accepts_it(self):
        self.make_short_table()
        self.assertEqual(self.kestrix("verify", "--in", "a").status, 0)
        status, said = self.ask("check", "a")
        image, = said["images"]
        self.assertEqual((status, image["verdict"], image["verify"]), (FOUND, "damaged", "accepts"))
        self.assertEqual((image["bytesWithoutChunks"], image["badChunks"]), (5000, []))
        printed = self.image_program("check", "a").out.decode()
        self.assertIn("\n  it has no chunks for the last 5000 bytes of its disk\n", printed)
        self.assertIn("\n  kestrix verify accepts it: ", printed)

    def test_what_an_image_has_no_chunks_for_is_not_extracted_as_whole(self):
        self.make_short_table()
        status, said = self.ask("extract", "a", "--out", "o")
        self.assertEqual((status, said["result"], self.left()), (FOUND, "nothing", []))
        status, said = self.ask("extract", "a", "--out", "o", "--keep-going", "--map", "m")
        self.assertEqual((status, said["result"], said["bytesWithoutChunks"]), (FOUND, "holes", 5000))
        self.assertEqual(self.file_bytes("o"), self.content[:3 * CHUNK] + bytes(5000))

    def test_a_thin_image_whose_version_is_damaged_keeps_its_trailer(self):
        base = self.image("base", seeded_disk(len(self.content), 2))
        self.image("a", self.content, base=base)  # which stores every chunk itself
        with open(self.path("a"), "r+b") as file:
            file.seek(8)
            file.write(struct.pack("<I", 2))
        status, said = self.ask("repair", "a", "--out", "o")
        self.assertEqual((status, said["result"], self.file_size("o")), (FOUND, "lacking", -1))


class Bases(SurroundingsTest):
    def base_of(self, status):
        """What tree says of the base of the thin image, and its headline."""
        told, said = self.ask("tree", ".")
        self.assertEqual(told, status)
        image, = [image for image in said["images"] if image["file"] == "b"]
        return image["base"]["state"], self.image_program("tree", ".").out.split(b"\n", maxsplit=1)[0]

    def make_chain(self):
        """A thin image on one that is thin itself, and so has a trailer that can be damaged."""
        base = self.image("a", self.content, base=self.image("full", self.content))
        self.image("b", seeded_disk(len(self.content), 2), base=base)

    def test_a_base_that_is_damaged_was_not_replaced(self):
        self.make_chain()
        whole = self.file_bytes("a")
        for content in (whole[:-1], whole[:DATA - 1]):
            self.file("a", content)
            self.assertEqual(self.base_of(FOUND)[0], "damaged")
        flip = bytearray(whole[:-1])
        flip[40] ^= 1  # the epoch, which makes it another image
        self.file("a", flip)
        self.assertEqual(self.base_of(FOUND)[0], "replaced")
        self.file("a", b"something")
        self.assertEqual(self.base_of(FOUND)[0], "replaced")

    def test_a_base_that_can_not_be_looked_at_was_not_replaced(self):
        self.make_chain()
        with open(self.path("a"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.base_of(IMPOSSIBLE)[0], "unreadable")

    def test_not_every_chain_is_there_where_a_file_can_not_be_looked_at(self):
        self.make_chain()
        self.image("other", self.content)
        with open(self.path("other"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.base_of(IMPOSSIBLE), ("present", b".: 3 images, 1 file UNREADABLE"))


class Limits(SurroundingsTest):
    def limited(self, handles, *arguments):
        return subprocess.run([self.imageProgram, *arguments], cwd=self.images, timeout=TIME_LIMIT, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env={**SANITIZERS, **os.environ},
                              preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (handles, handles)))

    def test_a_lack_of_handles_is_no_damage(self):
        if is_sanitized():  # its run-time takes handles of its own
            return
        make_chain(self.images, 5)
        outcomes = set()
        for handles in range(4, 20):
            for arguments in (("check", "level04.kstx", "-j", "2"),
                              ("extract", "level04.kstx", "--out", "o", "--keep-going", "--map", "m")):
                with self.subTest((handles, arguments[0])):
                    run = self.limited(handles, *arguments)
                    outcomes.add(run.returncode)
                    self.assertIn(run.returncode, (GOOD, IMPOSSIBLE), run)
                    self.assertNotIn(b"DAMAGED", run.stdout)
                    for name in ("o", "m"):
                        self.assertEqual(self.file_size(name) >= 0,
                                         run.returncode == GOOD and arguments[0] == "extract")
                        if self.file_size(name) >= 0:
                            os.unlink(self.path(name))
        self.assertEqual(outcomes, {GOOD, IMPOSSIBLE})


class FailingCalls(SurroundingsTest):
    """The program under strace, which makes its calls fail, or tells their order."""

    def traced(self, *arguments):
        return subprocess.run(["strace", "-f", "-qq", "-o", self.path("trace"), *arguments], cwd=self.images,
                              check=False, timeout=TIME_LIMIT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, env={**SANITIZERS, **os.environ})

    def test_an_image_on_a_file_system_without_locks_is_read_as_kestrix_reads_it(self):
        self.image("a", self.content)
        for error in ("ENOLCK", "EOPNOTSUPP", "ENOSYS", "EINTR:when=1"):
            run = self.traced("-e", f"inject=flock:error={error}", self.imageProgram, "check", "a")
            self.assertEqual(run.returncode, GOOD, (error, run))
        run = self.traced("-e", "inject=flock:error=EIO", self.imageProgram, "check", "a")
        self.assertEqual(run.returncode, IMPOSSIBLE, run)

    def test_a_base_that_can_not_be_looked_at_is_not_missing(self):
        base = self.image("a", self.content)
        self.image("b", self.content, base=base)
        for call in ("stat", "newfstatat"):
            run = self.traced("-e", f"inject={call}:error=EACCES", "-P", "./a", "-P", "a", self.imageProgram, "check",
                              "b")
            self.assertNotIn(b"DAMAGED", run.stdout, run)
            self.assertIn(run.returncode, (GOOD, IMPOSSIBLE), run)

    def opens_of(self, path, *rules):
        """A comparison of disk 1: its exit status, the calls that opened it, and those that forget what was cached."""
        run = self.traced("-e", "trace=openat,open,fadvise64", "-P", path, *rules, self.imageProgram, "compare", "a",
                          "--disk", "1")
        with open(self.path("trace"), encoding="utf-8") as file:
            lines = [line.split(None, 1)[1] for line in file]
        drops = [line for line in lines if "DONTNEED" in line]
        return run.returncode, [line for line in lines if "open" in line], drops

    def test_where_a_disk_takes_no_direct_reads_what_the_system_remembers_of_it_is_dropped(self):
        self.system_disk()
        self.disk(1, self.content)
        self.image("a", self.content)
        path = self.disk_path(1)
        status, opens, drops = self.opens_of(path)
        self.assertEqual((status, drops), (GOOD, []))
        direct = next(i for i, line in enumerate(opens, 1) if "O_DIRECT" in line)
        status, opens, drops = self.opens_of(path, "-e", f"inject=openat:error=EINVAL:when={direct}")
        self.assertEqual(status, GOOD)
        self.assertEqual(len(drops), len([line for line in opens if "EINVAL" not in line and "O_DIRECT" not in line]))
        self.assertNotEqual(drops, [])

    def test_a_map_gets_its_name_when_its_disk_has_nothing_left_to_wait_for(self):
        self.damaged_image()
        run = self.traced("-y", "-e", "trace=fsync,renameat2", self.imageProgram, "extract", "a", "--out", "o",
                          "--keep-going", "--map", "m")
        self.assertEqual(run.returncode, FOUND, run)
        with open(self.path("trace"), encoding="utf-8") as file:
            calls = [line.split(None, 1)[1] for line in file]
        disk = next(i for i, call in enumerate(calls) if call.startswith("fsync(") and "/o." in call)
        named = next(i for i, call in enumerate(calls) if call.startswith("renameat2(") and '"m"' in call)
        self.assertLess(disk, named, calls)


class Names(SurroundingsTest):
    def test_an_empty_name_is_no_name(self):
        self.damaged_image()
        for words in (("--out", ""), ("--out", "o", "--twins", ""), ("--out", "o", "--keep-going", "--map", "")):
            run = self.image_program("extract", "a", *words)
            self.assertEqual((run.status, self.left()), (COMMAND_LINE, []), words)
        for words in (("repair", "a", "--out", ""), ("compare", "a", "--file", "")):
            self.assertEqual(self.image_program(*words).status, COMMAND_LINE)

    def test_a_name_in_brackets_is_one_name(self):
        self.image("a", self.content)
        self.image("[a]", self.content)
        flip_byte(self.path("[a]"), DATA)
        status, said = self.ask("check", "[a]")
        self.assertEqual((status, [image["image"] for image in said["images"]]), (FOUND, ["[a]"]))
        self.assertEqual(self.ask("check", "a", "a")[0], GOOD)
        self.assertEqual(self.ask("extract", "a", "--out", "[o]")[0], GOOD)
        self.assertEqual(self.file_bytes("[o]"), self.content)
        self.assertEqual(self.ask("compare", "a", "--file", "[o]")[0], GOOD)
        self.assertEqual([file["file"] for file in self.ask("info", "[a]", "a")[1]["files"]], ["[a]", "a"])

    def test_controls_of_two_bytes_do_not_reach_a_terminal(self):
        base = self.image("a", self.content)
        self.image("b", self.content, base=base, baseName="\u009b31m\u00e9".encode())
        self.assertIn("base: ??31m\u00e9\n".encode(), self.image_program("info", "b").out)
