"""Real block devices and disks of unusual shape, through capture and restore."""
import os

import change_tracker
from harness import (LARGER_NOTE, MIB, NO_TRACKER, MachineTest, capture_text, needs, not_exclusive, progress,
                     restore_text, source_line, verify_text, why_no_loop_devices, why_no_mounts)
from kestrix_image import seeded_disk

CHUNK = 4 * MIB
READ_FAILED = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"
SIZES_OF_SECTORS = (512, 4096)


class BlockDevices(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret")

    def backing_bytes(self, backing):
        with open(backing, "rb") as file:
            return file.read()

    def capture(self, content, sectorSize, *more, password=None):
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x", *more), 0,
                   capture_text(1, len(content), "x", sectorSize))
        return self.check_image("x", content, password, sectorSize=sectorSize)

    def restore(self, *more):
        return self.kestrix("restore", "--in", "x", "--disk", "2", "--confirm", "YES", *more)

    @needs(why_no_loop_devices)
    def test_a_block_device_is_captured_and_restored_over_another_one(self):
        for sectorSize in SIZES_OF_SECTORS:
            for seal in ((), ("--encrypt", "--password-file", "p")):
                with self.subTest((sectorSize, seal)):
                    content = seeded_disk(9 * MIB + 4096, sectorSize)
                    self.loop_disk(1, content, sectorSize)
                    target = self.loop_disk(2, len(content), sectorSize)
                    self.capture(content, sectorSize, *seal, password=b"secret" if seal else None)
                    self.check(self.restore(*seal[1:]), 0, restore_text("x", 2, len(content), CHUNK))
                    self.assertEqual(self.backing_bytes(target), content)

    @needs(why_no_loop_devices)
    def test_a_disk_of_512_byte_sectors_is_restored_over_one_of_4096_byte_sectors(self):
        content = seeded_disk(5 * MIB, 1)
        self.disk(1, content)
        self.capture(content, 512)
        target = self.loop_disk(2, len(content), 4096)
        self.check(self.restore(), 0, restore_text("x", 2, len(content), CHUNK))
        self.assertEqual(self.backing_bytes(target), content)

    @needs(why_no_loop_devices)
    def test_small_chunks_are_written_to_a_block_device(self):
        content = seeded_disk(40 * 4096, 2)
        for secret in (None, b"secret"):
            with self.subTest(secret):
                self.image("x", content, secret)
                target = self.loop_disk(2, len(content), 4096)
                self.check(self.restore("--password-file", "p"), 0, restore_text("x", 2, len(content), 4096))
                self.assertEqual(self.backing_bytes(target), content)

    @needs(why_no_loop_devices)
    def test_a_larger_block_device_gets_the_note_and_keeps_its_end(self):
        content = seeded_disk(MIB, 3)
        self.image("x", content, chunkSize=CHUNK)
        target = self.loop_disk(2, b"\xEE" * (MIB + 4096), 4096)
        self.check(self.restore(), 0, restore_text("x", 2, len(content), CHUNK, LARGER_NOTE))
        self.assertEqual(self.backing_bytes(target), content + b"\xEE" * 4096)

    @needs(why_no_loop_devices)
    def test_a_smaller_block_device_is_refused_untouched(self):
        self.image("x", seeded_disk(MIB, 4), chunkSize=CHUNK)
        target = self.loop_disk(2, b"\xEE" * (MIB - 512))
        run = self.restore()
        self.check(run, 1, "", "Refusing: target disk 2 is 0.00 GiB, smaller than the image's 0.00 GiB source.\n")
        self.assertEqual(self.backing_bytes(target), b"\xEE" * (MIB - 512))

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_mounted_block_device_is_refused_even_if_it_is_too_small(self):
        for size in (MIB, 8 * MIB):
            with self.subTest(size):
                self.image("x", seeded_disk(4 * MIB, 5), chunkSize=CHUNK)
                target = self.loop_disk(2, size)
                device = os.readlink(self.disk_path(2))
                self.must("mkfs.ext4", "-q", "-F", device)
                self.mount(device, "rw", "ext4")
                before = self.backing_bytes(target)[:512]
                self.check(self.restore(), 1, "", not_exclusive(2, 32))
                self.assertEqual(self.backing_bytes(target)[:512], before)

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_mounted_block_device_can_be_captured(self):
        backing = self.loop_disk(1, 8 * MIB)
        device = os.readlink(self.disk_path(1))
        self.must("mkfs.ext4", "-q", "-F", device)
        self.mount(device, "ro", "ext4")
        # Past the cache of the mounted file system, as the program reads.
        self.capture(self.backing_bytes(backing), 512)

    @needs(why_no_loop_devices)
    def test_the_system_disk_may_be_a_block_device(self):
        os.unlink(self.device("C:"))
        self.loop_disk(2, MIB, 4096)
        self.volume_c(2)
        self.image("x", seeded_disk(MIB, 6))
        run = self.restore()
        self.assertEqual((run.status, run.out), (1, b""))
        self.assertTrue(run.err.startswith(b"Refusing: PhysicalDrive2 is the disk this copy of Windows"), run.err)


class DisksInFiles(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()

    def test_a_disk_may_be_a_link_to_a_file_elsewhere(self):
        content = seeded_disk(5000, 1)
        self.file("disk", content)
        os.symlink(self.path("disk"), self.disk_path(1))
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, 5000, "x"))
        self.check_image("x", content)

    def test_a_disk_of_a_large_number_is_captured_and_restored(self):
        content = self.disk(123456789, seeded_disk(5000, 2))
        self.check(self.kestrix("capture", "--disk", "123456789", "--out", "x"), 0,
                   capture_text(123456789, 5000, "x"))
        self.check_image("x", content)
        self.disk(123456789, 5000)
        self.check(self.kestrix("restore", "--in", "x", "--disk", "123456789", "--confirm", "YES"), 0,
                   restore_text("x", 123456789, 5000, CHUNK))
        self.assertEqual(self.disk_bytes(123456789), content)

    def test_a_volume_c_that_leads_to_no_disk_does_not_open(self):
        self.disk(1, 1000)
        for target in ("PhysicalDrive7", "nothing", "../images"):
            with self.subTest(target):
                os.unlink(self.device("C:"))
                os.symlink(target, self.device("C:"))
                run = self.kestrix("capture", "--disk", "1", "--out", "x")
                self.assertEqual((run.status, run.out.decode()), (1, source_line(1, 1000)))
                self.assertTrue(run.err.startswith(b"FATAL: could not open C: to determine the system disk number"),
                                run.err)

    def check_shrinking(self, size, rest):
        self.disk(1, size)
        tracker = change_tracker.attach_to(self)
        tracker.before[change_tracker.QUERY] = lambda: os.truncate(self.disk_path(1), rest)
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.check_fatal(run, READ_FAILED, None, source_line(1, size) +
                         "Change tracker: disk 1 epoch 1A2B\n" + progress(CHUNK, size))
        self.check_no_image("x")
        self.assertNotIn(change_tracker.COMMIT, tracker.codes())

    def test_a_disk_that_shrinks_during_a_capture_ends_it_without_an_image_or_a_commit(self):
        self.check_shrinking(10 * MIB, 5 * MIB)

    def test_a_disk_that_shrinks_with_reads_ahead_under_way_ends_the_capture_no_differently(self):
        self.check_shrinking(22 * MIB, 13 * MIB)

    def test_a_source_is_read_and_never_written(self):
        content = self.disk(1, seeded_disk(5 * MIB + 17, 3))
        os.chmod(self.disk_path(1), 0o444)
        before = os.stat(self.disk_path(1)).st_mtime_ns
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, len(content), "x"))
        self.assertEqual(os.stat(self.disk_path(1)).st_mtime_ns, before)
        self.check(self.kestrix("verify", "--in", "x"), 0, verify_text("x", len(content), CHUNK))
        self.check_image("x", content)

    def test_without_a_tracker_device_the_capture_says_so(self):
        self.disk(1, 1000)
        with open(self.device("Tallier"), "wb"):
            pass
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x"), 0,
                   capture_text(1, 1000, "x", tracker=NO_TRACKER))
        self.check_image("x", bytes(1000))
