"""What kestrix-vm remembers of a disk, and when that proves what changed and when it must not."""
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import unittest

from guest_disks import BLOCK, CHUNK, DOMAIN, KESTRIX_VM, NOT_STORED, NO_BITMAP, GuestTest, why_no_guests
from harness import MIB

RESIZED = "the disk was resized"
STOOD_STILL = "the bitmap has not recorded all the time"
CLEARED = "somebody has cleared its bitmap, or made it anew"
ANOTHER = "the disk's size, or what it stands on, is not what it was"


@unittest.skipIf(why_no_guests(), why_no_guests())
class Memory(GuestTest):
    """What the tracker remembers, and when it must not."""

    def setUp(self):
        super().setUp()
        self.write(0, random.Random(1).randbytes(self.size))
        self.captured("a")

    def off(self):
        self.end_daemon()
        return self.disk_file()

    def test_bitmaps_outlive_a_shutdown_of_the_guest(self):
        self.write(MIB, b"before")
        self.off()
        self.begin_daemon()
        self.write(13 * MIB, b"after")
        self.captured("b", "a")

    def test_a_capture_that_fails_loses_no_change(self):
        self.write(MIB, b"before")
        self.assertEqual(self.capture("none/b", "--base", "a", "--thin").status, 1)
        self.check_nothing_left()
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "b", "--base", "a", "--thin")
        end = self.stop_kestrix(process)
        self.write(9 * MIB, b"meanwhile")
        end(signal.SIGKILL)
        process.communicate(timeout=60)
        self.assertEqual(process.returncode, 1)
        if os.path.exists(self.path("b")):  # as far as kestrix had come
            os.unlink(self.path("b"))
        self.check_nothing_left()
        self.write(13 * MIB, b"after")
        self.captured("b", "a")

    def test_a_first_capture_that_fails_proves_nothing(self):
        self.end_daemon()
        os.unlink(self.disk_file())
        self.make_disk(self.disk_file())
        self.begin_daemon()
        self.content = bytearray(self.size)
        self.assertEqual(self.capture("none/b").status, 1)
        self.captured("b", "a", NO_BITMAP)

    def test_a_guest_that_was_killed_proves_nothing(self):
        for stored, reason in ((False, NO_BITMAP), (True, NOT_STORED)):
            with self.subTest(stored=stored):
                if stored:
                    self.off()
                    self.begin_daemon()
                self.write(MIB, b"before")
                self.end_daemon(signal.SIGKILL)
                self.begin_daemon()
                self.content = self.as_it_is()
                self.captured("b", "a", reason)
                self.write(2 * MIB, b"again")
                self.captured("c", "b")
                self.captured("a")

    def test_what_qemus_tools_write_while_the_guest_is_off_is_known(self):
        self.must("qemu-io", "-c", "write -P 7 8M 64k", self.off())
        self.content[8 * MIB:8 * MIB + BLOCK] = b"\7" * BLOCK
        self.touched = {8 * MIB // BLOCK}
        self.begin_daemon()
        self.captured("b", "a")

    def test_what_another_program_writes_into_the_file_clears_the_proof(self):
        with open(self.off(), "r+b") as file:
            file.seek(88)
            file.write(bytes(8))  # the bits that vouch for what the writer doesn't know
        self.begin_daemon()
        self.captured("b", "a", NO_BITMAP)

    def test_an_older_copy_of_the_disk_proves_what_changed_since_its_own_image(self):
        older = bytes(self.content)
        shutil.copy(self.off(), self.path("copy"))
        self.begin_daemon()
        self.write(5 * MIB, b"gone")
        self.captured("b", "a")
        shutil.copy(self.path("copy"), self.off())
        self.begin_daemon()
        self.content = bytearray(older)
        self.write(9 * MIB, b"new")
        run = self.capture("c", "--base", "b", "--thin")
        self.assertIn("base image is not the most recent committed image", run.out.decode())
        self.check_holds("c", self.content)
        self.write(17 * MIB, b"newer")
        self.touched = {17 * MIB // BLOCK}
        self.captured("d", "c")

    def test_a_disk_in_the_place_of_another_proves_nothing(self):
        self.off()
        self.make_disk(self.disk_file())
        self.begin_daemon()
        self.content = bytearray(self.size)
        self.captured("b", "a", NO_BITMAP)

    def test_a_disk_that_was_cut_and_is_as_large_again_proves_nothing(self):
        for least in (12 * MIB, self.size - 512):
            with self.subTest(least):
                self.must("qemu-img", "resize", "-q", "--shrink", self.off(), str(least))
                self.must("qemu-img", "resize", "-q", self.disk_file(), str(self.size))
                self.begin_daemon()
                self.content = self.as_it_is()
                self.captured("b", "a", RESIZED)
                self.write(0, self.content[::-1])
                self.captured("a")

    def test_a_disk_that_has_grown_proves_nothing(self):
        self.must("qemu-img", "resize", "-q", self.off(), str(self.size + CHUNK))
        self.begin_daemon()
        self.content += bytes(CHUNK)
        run = self.capture("b", "--base", "a", "--thin")
        self.assertEqual(run.status, 1)
        self.assertIn(f"Nothing is proved: {ANOTHER}.", run.out.decode())
        self.assertIn("geometry does not match", run.err.decode())
        self.captured("b")
        self.captured("c", "b")

    def test_a_snapshot_in_the_file_is_gone_back_to_without_bitmaps_or_not_at_all(self):
        self.must("qemu-img", "snapshot", "-c", "s", self.off())
        older = bytes(self.content)
        self.begin_daemon()
        self.write(MIB, b"gone")
        self.off()
        reverted = subprocess.run(["qemu-img", "snapshot", "-a", "s", self.disk_file()], stderr=subprocess.PIPE,
                                  check=False)
        self.begin_daemon()
        if reverted.returncode:
            self.captured("b", "a")
            return
        self.content = bytearray(older)
        self.captured("b", "a", NO_BITMAP)

    def test_a_bitmap_that_was_deleted_by_hand_proves_nothing(self):
        for pattern in ("kestrix-[0-9a-f]{14}-", "kestrix-twin-", "kestrix-extent-"):
            with self.subTest(pattern):
                name, = (name for name in self.bitmaps() if re.match(pattern, name))
                with self.monitor() as monitor:
                    monitor.do("block-dirty-bitmap-remove", node="vda", name=name)
                self.write(3 * MIB, b"unseen" + pattern.encode())
                self.captured("b", "a", NO_BITMAP if "extent" not in pattern else RESIZED)
                self.captured("a")

    def pair(self):
        """The names of the bitmaps that stand for the last image: the committed one and its twin."""
        return [name for pattern in ("kestrix-[0-9a-f]{14}-", "kestrix-twin-") for name in self.bitmaps()
                if re.match(pattern, name)]

    def choices(self):
        """One, the other, both."""
        for chosen in ((0,), (1,), (0, 1)):
            with self.subTest(chosen):
                yield [self.pair()[i] for i in chosen]
            self.captured("a")

    def test_a_bitmap_that_has_stood_still_proves_nothing(self):
        for names in self.choices():
            with self.monitor() as monitor:
                for name in names:
                    monitor.do("block-dirty-bitmap-disable", node="vda", name=name)
                self.write(3 * MIB, b"unseen" + name.encode())
            self.captured("b", "a", STOOD_STILL)

    def test_a_bitmap_that_somebody_has_cleared_proves_nothing(self):
        for names in self.choices():
            self.write(3 * MIB, b"seen, and forgotten" + os.urandom(4))
            with self.monitor() as monitor:
                for name in names:
                    monitor.do("block-dirty-bitmap-clear", node="vda", name=name)
            self.captured("b", "a", CLEARED)

    def test_a_cleared_bitmap_that_has_seen_writes_since_proves_nothing(self):
        for names in self.choices():
            self.write(3 * MIB, b"seen, and forgotten" + os.urandom(4))
            with self.monitor() as monitor:
                for name in names:
                    monitor.do("block-dirty-bitmap-clear", node="vda", name=name)
            self.write(13 * MIB, b"seen" + os.urandom(4))
            # Nothing tells of it before the marks are looked at.
            self.assertIn("proves what changed since", self.vm("disks").out.decode())
            self.assertEqual(self.capture("none/b", "--base", "a", "--thin").status, 1)
            self.captured("b", "a", CLEARED)

    def test_a_bitmap_that_was_made_anew_under_its_name_proves_nothing(self):
        for names in self.choices():
            self.write(3 * MIB, b"seen, and forgotten" + os.urandom(4))
            with self.monitor() as monitor:
                for name in names:
                    monitor.do("block-dirty-bitmap-remove", node="vda", name=name)
                    monitor.do("block-dirty-bitmap-add", node="vda", name=name, granularity=BLOCK, persistent=True)
            self.write(13 * MIB, b"seen" + os.urandom(4))
            self.captured("b", "a", CLEARED)

    def test_a_bitmap_that_was_cleared_while_the_guest_was_off_proves_nothing(self):
        for names in self.choices():
            self.write(3 * MIB, b"seen, and forgotten" + os.urandom(4))
            self.off()
            for name in names:
                self.must("qemu-img", "bitmap", "--clear", self.disk_file(), name)
            self.begin_daemon()
            self.captured("b", "a", CLEARED)

    def test_one_that_stood_still_and_goes_on_beside_a_twin_that_did_not_proves_nothing(self):
        for chosen in (0, 1):
            with self.subTest(chosen):
                name = self.pair()[chosen]
                with self.monitor() as monitor:
                    monitor.do("block-dirty-bitmap-disable", node="vda", name=name)
                    self.write(0, os.urandom(2 * MIB))
                    monitor.do("block-dirty-bitmap-enable", node="vda", name=name)
                self.captured("b", "a", STOOD_STILL)
                self.captured("a")

    def test_bitmaps_of_others_are_left_alone(self):
        with self.monitor() as monitor:
            for name in ("backup-1", "kestrix-", "kestrix-0123-0123456789ab"):
                monitor.do("block-dirty-bitmap-add", node="vda", name=name)
        self.write(3 * MIB, b"seen")
        self.captured("b", "a")
        self.assertLessEqual({"backup-1", "kestrix-", "kestrix-0123-0123456789ab"}, set(self.bitmaps()))

    def test_another_backing_file_proves_nothing(self):
        for name, fill in (("base1", 1), ("base2", 2)):
            self.must("qemu-img", "create", "-q", "-f", "raw", self.path(name), str(self.size))
            self.must("qemu-io", "-f", "raw", "-c", f"write -P {fill} 0 {self.size}", self.path(name))
        self.must("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", self.path("base1"), self.off())
        self.begin_daemon()
        self.content = bytearray(b"\1" * self.size)
        self.captured("b")
        self.captured("c", "b")
        self.must("qemu-img", "rebase", "-u", "-F", "raw", "-b", self.path("base2"), self.off())
        self.begin_daemon()
        self.content = bytearray(b"\2" * self.size)
        self.captured("d", "c", ANOTHER)

    def test_epochs_are_never_given_out_twice(self):
        for name in ("b", "c"):
            self.captured(name)
        with open(os.path.join(self.state, "epochs"), encoding="ascii") as file:
            epochs = file.read().split()
        self.assertEqual(len(set(epochs)), 3)
        self.assertEqual(len(epochs), 3)

    def test_the_disks_are_listed_with_what_is_proved(self):
        run = self.vm("disks", "--json")
        self.assertEqual(run.status, 0, run.err)
        told, = json.loads(run.out)
        self.assertEqual((told["disk"], told["node"], told["file"], told["format"], told["size"], told["sectorSize"],
                          told["bitmap"], told["refused"], told["unproved"]),
                         ("vda", "vda", self.disk_file(), "qcow2", self.size, 512, "disk", None, None))
        self.assertEqual(told["lastCapture"]["image"], self.path("a"))
        self.assertEqual(told["lastCapture"]["epoch"], told["epoch"])
        shown = self.vm("disks").out.decode()
        self.assertIn(f"proves what changed since epoch {int(told['epoch'], 16):X}\n", shown)
        self.assertIn(f"last capture: {self.path('a')}, complete\n", shown)


@unittest.skipIf(why_no_guests(), why_no_guests())
class RawDisks(GuestTest):
    format = "raw"

    def test_changes_are_proved_until_the_process_ends(self):
        self.write(MIB, b"1")
        self.captured("a")
        self.write(9 * MIB, b"2")
        self.captured("b", "a")
        self.end_daemon()
        with open(self.disk_file(), "r+b") as file:
            file.write(b"3")
        self.content[:1] = b"3"
        self.begin_daemon()
        self.captured("c", "b", NO_BITMAP)
        self.write(17 * MIB, b"4")
        self.captured("d", "c")


class OwnMarks(unittest.TestCase):
    """What a pair of bitmaps with marks of their own says of what was written."""
    name_of_run = "0123abcd"

    def setUp(self):
        sys.path.insert(0, os.path.dirname(KESTRIX_VM))
        self.addCleanup(sys.path.remove, os.path.dirname(KESTRIX_VM))
        from kestrix_vm import bitmaps
        self.program = bitmaps
        self.rng = random.Random(5)

    def cases(self, *counts):
        """Disks of so many blocks, the last of them not whole, with sets of blocks that were written before and after
        something happened to the bitmaps."""
        for blocks in counts:
            self.size = blocks * BLOCK - 512
            self.own, self.twinOwn = map(set, self.program.own_marks(self.name_of_run, self.size))
            for share in (0, 0.02, 0.5, 1):
                with self.subTest(blocks=blocks, share=share):
                    yield [{block for block in range(blocks) if self.rng.random() < share} for _ in range(2)]

    def since(self, marks, twinMarks, **more):
        def packed(blocks):
            return sum(1 << block for block in blocks).to_bytes(-(-self.size // BLOCK // 8), "little")
        written, why = self.program.written_since(packed(marks), packed(twinMarks), self.name_of_run, self.size, **more)
        if why:
            return why
        found = int.from_bytes(written, "little")
        self.assertEqual(len(written), -(-self.size // BLOCK // 8))
        return {block for block in range(found.bit_length()) if found >> block & 1}

    def test_the_marks_of_one_are_none_of_the_other(self):
        for blocks in (32, 33, 1000):
            own, twinOwn = (set(blocks) for blocks in self.program.own_marks(self.name_of_run, blocks * BLOCK))
            self.assertEqual((len(own), len(twinOwn), own & twinOwn), (16, 16, set()))
            self.assertLess(max(own | twinOwn), blocks)

    def test_what_was_written_is_told_and_no_more(self):
        for before, after in self.cases(32, 33, 5000):
            written = before | after
            self.assertEqual(self.since(written | self.own, written | self.twinOwn), written)

    def test_a_disk_of_few_blocks_counts_as_written(self):
        for before, _ in self.cases(1, 2, 31):
            self.assertEqual(self.since(before | self.own, before | self.twinOwn), self.own)
            self.assertEqual(max(self.own) + 1, -(-self.size // BLOCK))

    def test_where_one_or_both_were_cleared_nothing_is_proved_or_nothing_is_missing(self):
        proofs = 0
        for before, after in self.cases(1, 31, 32, 33, 5000):
            for cleared in ((0,), (1,), (0, 1)):
                told = self.since(*(after if i in cleared else before | after | own
                                    for i, own in enumerate((self.own, self.twinOwn))))
                proofs += isinstance(told, set)
                if isinstance(told, set):
                    self.assertLessEqual(before | after, told)
                else:
                    self.assertIn(told, (CLEARED, STOOD_STILL))
        self.assertGreater(proofs, 0)

    def test_where_one_stood_still_only_what_lies_on_marks_of_the_other_may_be_missing(self):
        for before, after in self.cases(1, 31, 32, 33, 5000):
            whole = [before | after | self.own, before | after | self.twinOwn]
            told = self.since(after | self.own, whole[1])
            if isinstance(told, set):
                self.assertLessEqual(before | after, told | self.twinOwn)
            told = self.since(whole[0], after | self.twinOwn)
            if isinstance(told, set):
                self.assertLessEqual(before | after, told | self.own)

    def test_a_twin_that_was_read_later_may_say_more_and_never_less(self):
        for before, after in self.cases(33, 5000):
            told = self.since(before | self.own, before | after | self.twinOwn, isLater=True)
            self.assertEqual(told, before | after - self.twinOwn)
            if after - before - self.own - self.twinOwn:
                told = self.since(before | after | self.own, before | self.twinOwn, isLater=True)
                self.assertEqual(told, STOOD_STILL)
