"""Images that go from one system to the other, and runs of the Windows program that meet at one image."""
import os
import re
import signal

from harness import MIB, capture_text, progress, restore_text, verify_text, whole_progress, without_speed
from kestrix_image import CAPTURE_CHUNK, FULL, make_chain, read_image, seeded_disk
from wine import WindowsTest

CHUNK = 4096


def consolidate_text(out, size, chunkSize):
    return (whole_progress(size, chunkSize) + "\nConsolidated: %s (self-contained full image, verifying...)\n" % out +
            verify_text(out, size, chunkSize))


def told(run):
    """What a run says, but for its speed and for the error number, which means nothing where no call failed."""
    return run.status, without_speed(run.out), re.sub(rb"GetLastError=\d+", b"GetLastError=-", run.err)


class SystemsTest(WindowsTest):
    """Captures and restores by the program of either system, and the same password for all of them."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret\r\n")
        self.secret = ("--password-file", "p")

    def capture_on_linux(self, disk, *arguments):
        self.disk(1, disk)
        return self.linux("capture", "--disk", "1", *arguments)

    def capture_on_windows(self, disk, *arguments):
        run = self.on_file(self.file("disk", disk), "capture", "--disk", "1", *arguments)
        self.assertTrue(self.file_bytes("disk") == disk, "the capture changed the disk")
        return run

    def restore_on_linux(self, image, size, *secret):
        """Restores an image over a disk of that size: the run, and what then lies on the disk."""
        self.disk(1, b"\xee" * size)
        run = self.linux("restore", "--in", image, "--disk", "1", "--confirm", "YES", *secret)
        return run, self.disk_bytes(1)

    def restore_on_windows(self, image, size, *secret):
        self.file("disk", b"\xee" * size)
        run = self.on_file("disk", "restore", "--in", image, "--disk", "1", "--confirm", "YES", *secret)
        return run, self.file_bytes("disk")

    def check_restore(self, restore, image, disk, *secret, chunkSize=CAPTURE_CHUNK, startsInBase=False):
        run, restored = restore(image, len(disk), *secret)
        text = restore_text(image, 1, len(disk), chunkSize)
        if startsInBase:  # what comes from the base doesn't count as progress until the next chunk
            text = text.replace(progress(chunkSize, len(disk)), progress(0, len(disk)))
        self.check(run, 0, text)
        self.assertTrue(restored == disk, "another disk was restored")

    def captured_month(self, captures, *seal):
        """A full image and two thin ones, each by one of these captures; gives the disk as the last one holds it."""
        disk = bytearray(seeded_disk(2 * CAPTURE_CHUNK + 5 * 512, 1))
        base = ()
        for i, name in enumerate(("full", "monday", "tuesday")):
            disk[i * CAPTURE_CHUNK:i * CAPTURE_CHUNK + 7] = b"changed"
            run = captures[i](bytes(disk), "--out", name, *base, *self.secret, *seal)
            self.assertEqual((run.status, run.err), (0, b""))
            base = ("--base", name, "--thin")
        return bytes(disk)


class FromDiskToDisk(SystemsTest):
    """What one system captured from a disk, the other restores over one: whole disks, compared byte for byte.

    Wine's own disks give no byte, so the Windows side is the program's objects on the disk of the simulator.
    """

    def directions(self):
        windows = (self.capture_on_windows, self.restore_on_windows)
        linux = (self.capture_on_linux, self.restore_on_linux)
        return ("Windows to Linux", windows[0], linux[1]), ("Linux to Windows", linux[0], windows[1])

    def test_a_full_image_plain_or_sealed_is_restored_by_the_other_system(self):
        disk = seeded_disk(2 * CAPTURE_CHUNK + 5 * 512, 2)
        for direction, capture, restore in self.directions():
            for seal, secret in (((), ()), (("--encrypt", *self.secret), self.secret)):
                with self.subTest(direction, sealed=bool(seal)):
                    self.check(capture(disk, "--out", "x", *seal), 0, capture_text(1, len(disk), "x"))
                    self.check_image("x", disk, b"secret" if seal else None)
                    self.check_restore(restore, "x", disk, *secret)

    def test_a_chain_of_thin_images_plain_or_sealed_is_restored_by_the_other_system(self):
        for direction, capture, restore in self.directions():
            for seal in ((), ("--encrypt",)):
                with self.subTest(direction, sealed=bool(seal)):
                    disk = self.captured_month([capture] * 3, *seal)
                    self.assertLess(self.file_size("tuesday"), CAPTURE_CHUNK)
                    self.check_restore(restore, "tuesday", disk, *self.secret, startsInBase=True)

    def test_a_chain_that_both_systems_captured_in_turn_is_restored_by_each(self):
        disk = self.captured_month([self.capture_on_windows, self.capture_on_linux, self.capture_on_windows])
        for restore in (self.restore_on_windows, self.restore_on_linux):
            self.check_restore(restore, "tuesday", disk, startsInBase=True)

    def test_both_systems_capture_a_disk_into_the_same_bytes(self):
        disk = seeded_disk(CAPTURE_CHUNK + 3 * 512, 3)
        for capture, out in ((self.capture_on_windows, "on-windows"), (self.capture_on_linux, "on-linux")):
            self.check(capture(disk, "--out", out), 0, capture_text(1, len(disk), out))
        self.assertTrue(self.file_bytes("on-windows") == self.file_bytes("on-linux"), "the images differ")

    def test_a_damaged_image_is_restored_by_neither(self):
        disk = seeded_disk(CAPTURE_CHUNK + 3 * 512, 4)
        self.capture_on_linux(disk, "--out", "x")
        image = self.file_bytes("x")
        self.file("x", image[:-1] + bytes([image[-1] ^ 1]))
        windows, onWindows = self.restore_on_windows("x", len(disk))
        linux, onLinux = self.restore_on_linux("x", len(disk))
        self.assertEqual(linux.status, 1)
        self.assertEqual(told(windows), told(linux))
        # The sound chunk before the damaged one was written, and nothing behind it.
        self.assertTrue(onLinux == disk[:CAPTURE_CHUNK] + b"\xee" * (3 * 512), "something else was written")
        self.assertTrue(onWindows == onLinux, "the disks differ")


class BetweenSystems(SystemsTest):
    def check_restored(self, image, disk, chunkSize, *secret):
        """The program for Linux verifies an image and restores it."""
        self.check(self.linux("verify", "--in", image, *secret), 0, verify_text(image, len(disk), chunkSize))
        self.check_restore(self.restore_on_linux, image, disk, *secret, chunkSize=chunkSize)

    def captured_on_linux(self, *seal):
        return self.captured_month([self.capture_on_linux] * 3, *seal)

    def test_what_linux_captured_is_verified_and_folded_on_windows_and_restored_on_linux(self):
        for seal in ((), ("--encrypt",)):
            with self.subTest(seal):
                disk = self.captured_on_linux(*seal)
                self.check(self.kestrix("verify", "--in", "tuesday", *self.secret), 0,
                           verify_text("tuesday", len(disk), CAPTURE_CHUNK, "monday"))
                self.check(self.kestrix("consolidate", "--in", "tuesday", "--out", "whole", *self.secret), 0,
                           consolidate_text("whole", len(disk), CAPTURE_CHUNK))
                self.check_image("whole", disk)
                self.check_restored("whole", disk, CAPTURE_CHUNK)
                os.unlink(self.path("whole"))

    def test_both_programs_fold_a_chain_into_the_same_bytes(self):
        disk = self.captured_on_linux()
        for program, out in ((self.kestrix, "on-windows"), (self.linux, "on-linux")):
            self.check(program("consolidate", "--in", "tuesday", "--out", out), 0,
                       consolidate_text(out, len(disk), CAPTURE_CHUNK))
        # And a capture of the same disk is that image as well.
        self.assertEqual(self.linux("capture", "--disk", "1", "--out", "captured").status, 0)
        self.assertTrue(self.file_bytes("on-windows") == self.file_bytes("on-linux"), "the images differ")
        self.assertTrue(self.file_bytes("on-windows") == self.file_bytes("captured"), "the images differ")

    def test_what_windows_sealed_is_opened_by_linux_and_by_the_independent_reader(self):
        written = make_chain(self.images, 6, lambda level: b"secret" if level % 2 else None)
        disk = written[5].disk
        salts = set()
        for out in ("first", "second"):
            self.check(self.kestrix("consolidate", "--in", "level05.kstx", "--out", out, "--encrypt", *self.secret), 0,
                       consolidate_text(out, len(disk), CHUNK))
            image = read_image(self.path(out), b"secret", chunkSize=CHUNK)
            self.assertEqual((image.header.version, image.header.encrypted, image.header.epoch), (FULL, 1, 0))
            self.assertEqual(image.disk(), disk)
            salts.add(image.header.salt)
            self.check_restored(out, disk, CHUNK, *self.secret)
        self.assertEqual(len(salts), 2)
        self.check(self.linux("consolidate", "--in", "first", "--out", "opened", *self.secret), 0,
                   consolidate_text("opened", len(disk), CHUNK))
        self.image("plain", disk)
        self.assertEqual(self.file_bytes("opened"), self.file_bytes("plain"))

    def test_a_thin_capture_on_linux_takes_a_base_that_windows_consolidated(self):
        disk = self.captured_on_linux()
        self.assertEqual(self.kestrix("consolidate", "--in", "tuesday", "--out", "whole").status, 0)
        changed = disk[:-1] + bytes([disk[-1] ^ 1])
        self.disk(1, changed)
        run = self.linux("capture", "--disk", "1", "--out", "wednesday", "--base", "whole", "--thin")
        self.assertEqual((run.status, run.err), (0, b""))
        self.check(self.kestrix("verify", "--in", "wednesday"), 0,
                   verify_text("wednesday", len(disk), CAPTURE_CHUNK, "whole"))
        self.assertTrue(self.check_image("wednesday", changed).trailer.baseName == b"whole")

    def test_an_image_is_captured_again_under_a_name_that_windows_read(self):
        disk = self.disk(1, seeded_disk(3000, 1))
        for _ in range(2):
            self.check(self.linux("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, 3000, "x"))
            self.check(self.kestrix("verify", "--in", "x"), 0, verify_text("x", 3000, CAPTURE_CHUNK))
        self.check_image("x", disk)

    def test_both_programs_say_the_same_of_every_damaged_image(self):
        whole = self.image("whole", seeded_disk(40, 1), chunkSize=16).record.encode()
        for offset in range(0, len(whole), 3):
            self.file("a", whole[:offset] + bytes([whole[offset] ^ 0x10]) + whole[offset + 1:])
            windows, linux = (program("verify", "--in", "a", *self.secret) for program in (self.kestrix, self.linux))
            with self.subTest(offset):
                if linux.status < 0:
                    self.check_abnormal(windows)
                else:
                    self.assertEqual(told(windows), told(linux))


class RunsAtTheSameTime(WindowsTest):
    """A run is stopped in its middle, another one meets it, and the first goes on."""

    def setUp(self):
        super().setUp()
        self.content = seeded_disk(8 * MIB, 1)
        self.image("a", self.content, chunkSize=512)

    def go_on(self, started):
        started.signal(signal.SIGCONT)
        return started.finish()

    def folding(self):
        return self.stopped_writing("x", MIB, 8 * MIB, "consolidate", "--in", "a", "--out", "x")

    def test_an_image_may_be_read_by_two_runs(self):
        reader = self.stopped("verify", "--in", "a")
        self.check(self.kestrix("verify", "--in", "a"), 0, verify_text("a", 8 * MIB, 512))
        self.check(self.go_on(reader), 0, verify_text("a", 8 * MIB, 512))

    def test_an_image_that_is_being_written_does_not_open(self):
        writer = self.folding()
        self.check_fatal(self.kestrix("verify", "--in", "x"), "could not open image file", 32,
                         first="could not open image file: x\n")
        self.check_fatal(self.kestrix("consolidate", "--in", "a", "--out", "x"),
                         "--out already exists - refusing to overwrite an image", None)
        self.check(self.go_on(writer), 0, consolidate_text("x", 8 * MIB, 512))
        self.assertTrue(self.file_bytes("x") == self.file_bytes("a"), "another image was written")

    def test_a_run_that_was_killed_leaves_a_file_that_nobody_takes_for_an_image(self):
        writer = self.folding()
        writer.signal(signal.SIGKILL)
        self.assertEqual(writer.finish().status, -signal.SIGKILL)
        self.check_unfinished("x")
        self.assertEqual(self.linux("verify", "--in", "x").status, 1)
        os.unlink(self.path("x"))
        self.check(self.kestrix("consolidate", "--in", "a", "--out", "x"), 0, consolidate_text("x", 8 * MIB, 512))
