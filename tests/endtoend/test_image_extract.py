"""kestrix-image extract and repair: what is written of images that are whole and of such as are not."""
import os
import shutil
import signal
import struct
import time

from harness import KIB, MIB, Started, needs, why_no_loop_devices
from image_commands import CHUNK, TABLE, CommandTest
from image_machine import FOUND, GOOD, IMPOSSIBLE
from kestrix_image import seeded_disk


def why_no_exfat():
    return None if shutil.which("mkfs.exfat") and shutil.which("mount.exfat-fuse") else "no exFAT over FUSE"


def why_no_ntfs():
    return None if shutil.which("mkfs.ntfs") and shutil.which("lowntfs-3g") else "no NTFS over FUSE"


class Extract(CommandTest):
    def extract(self, name, *words):
        return self.ask("extract", name, "--out", "o", *words)

    def test_the_file_is_the_disk_and_zeros_are_holes(self):
        disk = seeded_disk(MIB, 1) + bytes(MIB) + seeded_disk(64 * KIB, 2) + bytes(MIB) + b"end"
        self.image("a", disk, b"secret", chunkSize=MIB // 2)
        self.assertEqual(self.extract("a", *self.secret)[0], GOOD)
        self.assertTrue(self.file_bytes("o") == disk)
        self.assertLess(os.stat(self.path("o")).st_blocks * 512, MIB + 128 * KIB)

    def test_a_chunk_larger_than_a_buffer_is_extracted_too(self):
        disk = seeded_disk(20 * MIB + 3, 1)
        self.image("a", disk, b"secret", chunkSize=17 * MIB)
        self.assertEqual(self.extract("a", *self.secret)[0], GOOD)
        self.assertTrue(self.file_bytes("o") == disk)

    def test_a_bad_chunk_ends_it_without_a_file(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a")
        self.assertEqual((status, said["result"], self.left("a")), (FOUND, "nothing", []))
        self.assertEqual([chunk["chunk"] for chunk in said["badChunks"]], [1])

    def test_a_hole_is_left_and_ddrescuelog_reads_the_map(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a", "--keep-going", "--map", "m")
        self.assertEqual((status, said["result"]), (FOUND, "holes"))
        self.assertEqual(self.file_bytes("o"), self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:])
        self.must("ddrescuelog", "--show-status", self.path("m"))
        blocks = self.must("ddrescuelog", "--list-blocks=?", f"--block-size={CHUNK}", self.path("m"))
        self.assertEqual(blocks.split(), ["1"])

    def test_ddrescue_fills_the_hole_from_the_disk(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        self.extract("a", "--keep-going", "--map", "m")
        source = self.file("disk", self.content)
        self.must("ddrescue", "--retry-passes=1", self.path(source), self.path("o"), self.path("m"))
        self.assertEqual(self.file_bytes("o"), self.content)

    def test_a_bad_chunk_is_taken_from_a_twin_in_a_folder_or_on_a_disk(self):
        os.mkdir(self.path("twins"))
        self.image("a", self.content)
        self.image("twins/t", seeded_disk(CHUNK, 5) + self.content[CHUNK:2 * CHUNK], b"secret",
                   edit=lambda record: setattr(record.table[1], "diskOffset", 9))  # no fault of a twin's
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a", "--twins", "twins", *self.secret)
        self.assertEqual((status, said["twins"]), (GOOD, [{"chunk": 1, "from": "twins/t"}]))
        self.assertEqual(self.file_bytes("o"), self.content)
        os.unlink(self.path("o"))
        status, said = self.extract("a", "--twins", "twins")
        self.assertEqual((status, len(said["notes"])), (FOUND, 1))
        self.disk(1, self.content)
        status, said = self.extract("a", "--twin-disk", "1")
        self.assertEqual((status, said["twins"]), (GOOD, [{"chunk": 1, "from": "PhysicalDrive1"}]))
        self.assertEqual(self.file_bytes("o"), self.content)

    def test_where_twins_are_looked_for_is_opened_before_a_file_is_made(self):
        self.image("a", self.content)
        said = self.ask("extract", "a", "--out", "absent/o", "--twins", "nowhere")[1]
        self.assertIn("nowhere: ", said["fault"])

    @needs(why_no_exfat, why_no_loop_devices)
    def test_a_file_system_without_links_takes_it_and_nothing_is_replaced_there(self):
        folder = self.other_file_system(("mkfs.exfat",), ("mount.exfat-fuse",))
        self.image("a", self.content)
        out = os.path.join(folder, "o")
        self.assertEqual(self.ask("extract", "a", "--out", out)[0], GOOD)
        self.assertEqual((self.file_bytes(out), os.listdir(folder)), (self.content, ["o"]))
        self.assertEqual(self.ask("extract", "a", "--out", out)[0], IMPOSSIBLE)

    def test_nothing_that_is_there_is_replaced(self):
        self.image("a", self.content)
        self.file("o", b"mine")
        self.assertEqual(self.extract("a")[0], IMPOSSIBLE)
        self.assertEqual(self.file_bytes("o"), b"mine")
        os.unlink(self.path("o"))
        self.file("m", b"mine")
        self.flip("a", TABLE)
        self.assertEqual(self.extract("a", "--keep-going", "--map", "m")[0], IMPOSSIBLE)
        self.assertEqual((self.file_bytes("m"), self.left("a", "m")), (b"mine", []))

    def test_an_interrupt_leaves_nothing_and_a_kill_leaves_nothing_that_looks_finished(self):
        # Everything is read twice for a chunk that is larger than a buffer, which takes long enough.
        disk = seeded_disk(48 * MIB, 1)
        self.image("a", disk, b"secret", chunkSize=48 * MIB)
        for number, leaves in ((signal.SIGINT, 0), (signal.SIGTERM, 0), (signal.SIGKILL, 1)):
            started = Started([self.imageProgram, "extract", "a", "--out", "o", *self.secret], self.images)
            while not self.left("a") and started.process.poll() is None:
                time.sleep(0.001)
            started.signal(number)
            self.assertEqual(started.finish().status, -number)
            left = self.left("a")
            self.assertEqual((len(left), [name for name in left if not name.endswith(".unfinished")]), (leaves, []))
        self.assertEqual(self.ask("tree", ".")[1]["unfinished"][0]["file"], left[0])

    def test_a_full_disk_is_impossible_and_leaves_nothing(self):
        self.image("a", seeded_disk(MIB, 1), chunkSize=CHUNK)
        try:
            place = self.small_file_system(256 * KIB)
        except AssertionError:
            self.skipTest("mounts need root")
        run = self.image_program("extract", "a", "--out", os.path.join(place, "o"))
        self.assertEqual((run.status, os.listdir(place)), (IMPOSSIBLE, []))
        self.assertIn(b"No space left on device", run.err)


class Repair(CommandTest):
    def repair(self, name, *words):
        return self.ask("repair", name, "--out", "o", *words)

    def chain(self, password):
        os.mkdir(self.path("twins"))
        base = self.image("a", self.content, password)
        self.image("b", self.changed(1), password, base)
        for name in ("a", "b"):
            shutil.copy(self.path(name), self.path("twins/" + name))

    def test_a_chain_is_made_whole_file_by_file_to_the_byte(self):
        for password in (None, b"secret"):
            with self.subTest(password):
                self.chain(password)
                for name, chunks in (("a", (0, 3)), ("b", (1,))):
                    whole = self.file_bytes(name)
                    for i, _ in enumerate(chunks):
                        self.flip(name, TABLE + 3 * CHUNK * i + 7)
                    status, said = self.repair(name, "--twins", "twins", *self.secret)
                    self.assertEqual((status, said["result"]), (GOOD, "whole"))
                    self.assertEqual([twin["chunk"] for twin in said["twins"]], list(chunks))
                    self.assertEqual(self.file_bytes("o"), whole)
                    os.unlink(self.path("o"))
                    self.file(name, whole)
                shutil.rmtree(self.path("twins"))

    def test_who_stands_on_it_and_where_it_is_looked_for_is_told(self):
        self.chain(None)
        os.rename(self.path("a"), self.path("renamed"))
        self.flip("renamed", TABLE)
        status, said = self.repair("renamed", "--twins", "twins")
        self.assertEqual(status, GOOD)
        self.assertIn({"file": "b", "name": "a", "folder": ""}, said["standsOnIt"])

    def test_a_file_that_was_cut_or_has_bytes_too_many_is_made_whole(self):
        self.chain(None)
        whole = self.file_bytes("a")
        for content in (whole[:-150], whole + b"more", whole[:TABLE]):
            self.file("a", content)
            self.assertEqual(self.repair("a", "--twins", "twins")[1]["result"], "whole")
            self.assertEqual(self.file_bytes("o"), whole)
            os.unlink(self.path("o"))

    def test_a_disk_is_a_twin_too(self):
        self.image("a", self.content, b"secret")
        whole = self.file_bytes("a")
        self.flip("a", TABLE + CHUNK)
        self.disk(2, self.content)
        self.assertEqual(self.repair("a", "--twin-disk", "2", *self.secret)[0], GOOD)
        self.assertEqual(self.file_bytes("o"), whole)

    def test_what_is_lacking_is_named_and_nothing_is_written(self):
        self.chain(b"secret")
        twins = ("--twins", "twins", *self.secret)
        damages = {"no twin of it": 64 + 72 * 2 + 12 + 3, "gives another tag": 64 + 72 * 2 + 44,
                   "names another place": 64 + 72, "about whether the image is sealed": 36}
        whole = self.file_bytes("a")
        os.unlink(self.path("b"))
        for says, place in damages.items():
            self.flip("a", place)
            status, said = self.repair("a", *twins)
            self.assertEqual((status, said["result"]), (FOUND, "lacking"), says)
            self.assertIn(says, " ".join(said["lacks"]))
            self.file("a", whole)
        self.assertEqual(self.left("a", "twins"), [])

    def test_a_sector_that_the_chunks_or_the_base_contradict_is_lacking(self):
        self.chain(None)
        for place in (64 + 72 * 4 + 5, 20):  # a chunk, and the size of a sector: 513
            self.flip("a", place)
        os.unlink(self.path("b"))
        status, said = self.repair("a", "--twins", "twins")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("about the sectors", " ".join(said["lacks"]))
        shutil.copy(self.path("twins/a"), self.path("a"))
        content = bytearray(self.file_bytes("twins/b"))
        content[20:24] = struct.pack("<I", 1024)
        content[TABLE + 5] ^= 1
        self.file("b", content)
        os.unlink(self.path("twins/b"))
        self.disk(2, self.changed(1))
        status, said = self.repair("b", "--twin-disk", "2")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("nothing vouches for the trailer", " ".join(said["lacks"]))

    @needs(why_no_ntfs, why_no_loop_devices)
    def test_a_name_whose_case_changed_is_lacking_where_the_file_system_minds_none(self):
        folder = self.other_file_system(("mkfs.ntfs", "-F", "-Q"), ("lowntfs-3g", "-o", "ignore_case"))
        base = self.image("other/base", self.content)
        self.image("other/b", self.changed(1), base=base)
        place = self.file_bytes("other/b").rindex(b"base")
        content = bytearray(self.file_bytes("other/b"))
        content[place] ^= 0x20
        content[TABLE + 5] ^= 1
        self.file("other/b", content)
        self.disk(2, self.changed(1))
        status, said = self.repair("other/b", "--twin-disk", "2")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("letter by letter", " ".join(said["lacks"]))
        self.assertEqual(sorted(os.listdir(folder)), ["b", "base"])

    def test_a_header_that_changed_is_told_by_what_stands_on_it(self):
        self.chain(None)
        self.flip("a", 37)  # the epoch
        status, said = self.repair("a")
        self.assertEqual((status, said["lacks"]), (FOUND, ["its header or table is not what b was made against"]))

    def test_a_sound_image_is_not_written_anew(self):
        self.chain(None)
        status, said = self.repair("b")
        self.assertEqual((status, said["result"], self.left("a", "b", "twins")), (GOOD, "sound", []))
