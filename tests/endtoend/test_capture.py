"""capture: the image file and the report, for disks of all sizes, plain and sealed, and every way to fail early."""
import os

from harness import MIB, NO_TRACKER, MachineTest, capture_text, source_line, verify_text
from kestrix_image import seeded_disk

LIVE_NOTE = ("NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
             "      is crash-consistent only (see the file header comment). Proceeding anyway.\n")
CHUNK = 4 * MIB


class Capture(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()

    def capture(self, *more, image="x", disk=1):
        return self.kestrix("capture", "--disk", str(disk), "--out", image, *more)

    def captured(self, content, *more, password=None, image="x"):
        """Captures disk 1 of this content and reads the image back, with both readers."""
        self.disk(1, content)
        self.check(self.capture(*more, image=image), 0, capture_text(1, len(content), image))
        secret = ("--password-file", "p") if password else ()
        self.check(self.kestrix("verify", "--in", image, *secret), 0, verify_text(image, len(content), CHUNK))
        return self.check_image(image, content, password)

    def test_a_disk_of_three_chunks_gives_the_file_of_the_worked_example(self):
        disk = seeded_disk(10 * MIB, 1)
        image = self.captured(disk)
        self.assertEqual(image.offsets, [280, 4194584, 8388888])
        self.assertEqual(os.path.getsize(self.path("x")), 10486040)
        self.assertEqual(self.disk_bytes(1), disk)

    def test_disks_around_a_whole_number_of_chunks(self):
        for size in (1, 511, 512, 513, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK - 512, 2 * CHUNK, 9 * MIB + 513):
            with self.subTest(size):
                image = self.captured(seeded_disk(size, size))
                self.assertEqual(image.table[-1].storedLength, (size - 1) % CHUNK + 1)

    def test_a_disk_of_no_bytes_gives_a_file_of_a_header_alone(self):
        self.disk(1, b"")
        self.check(self.capture(), 0, source_line(1, 0) + NO_TRACKER + "\nCapture complete: x\n")
        self.check_image("x", b"")
        self.assertEqual(os.path.getsize(self.path("x")), 64)
        self.check(self.kestrix("verify", "--in", "x"), 0, verify_text("x", 0, CHUNK))

    def test_an_image_of_a_disk_of_zeros_stores_every_chunk(self):
        image = self.captured(bytes(9 * MIB))
        self.assertEqual([entry.storedLength for entry in image.table], [CHUNK, CHUNK, MIB])

    def test_progress_is_shown_for_every_32nd_chunk_and_the_last(self):
        size = 33 * CHUNK + 5 * 512
        self.disk(1, size)
        self.check(self.capture(), 0, capture_text(1, size, "x"))
        self.check_image("x", bytes(size))

    def test_the_booted_system_disk_is_captured_with_a_note(self):
        disk = seeded_disk(3000, 4)
        self.disk(0, disk)
        self.check(self.capture(disk=0), 0, capture_text(0, 3000, "x", note=LIVE_NOTE))
        self.check_image("x", disk)

    def test_a_sealed_image_opens_with_its_password_and_holds_no_plain_bytes(self):
        self.file("p", b"correct horse\r\n")
        disk = seeded_disk(9 * MIB, 5)
        self.captured(disk, "--encrypt", "--password-file", "p", password=b"correct horse")
        stored = self.file_bytes("x")
        for offset in (0, CHUNK, 8 * MIB):
            self.assertNotIn(disk[offset:offset + 64], stored)

    def test_a_sealed_disk_of_no_bytes_has_a_salt(self):
        self.file("p", b"secret")
        self.disk(1, b"")
        self.check(self.capture("--encrypt", "--password-file", "p"), 0,
                   source_line(1, 0) + NO_TRACKER + "\nCapture complete: x\n")
        self.check_image("x", b"", b"secret")

    def test_two_sealed_images_of_one_disk_share_neither_salt_nor_nonce(self):
        self.file("p", b"secret")
        disk = seeded_disk(5 * MIB, 6)
        first = self.captured(disk, "--encrypt", "--password-file", "p", password=b"secret", image="x")
        second = self.captured(disk, "--encrypt", "--password-file", "p", password=b"secret", image="y")
        self.assertNotEqual(first.header.salt, second.header.salt)
        self.assertNotEqual(first.imageId, second.imageId)
        nonces = {entry.nonce for image in (first, second) for entry in image.table}
        self.assertEqual(len(nonces), 4)

    def test_two_plain_images_of_one_disk_are_equal_in_every_byte(self):
        disk = seeded_disk(5 * MIB, 7)
        self.captured(disk, image="x")
        self.captured(disk, image="y")
        self.assertEqual(self.file_bytes("x"), self.file_bytes("y"))

    def test_an_existing_longer_file_is_replaced(self):
        self.file("x", b"old" * MIB * 3)
        self.captured(seeded_disk(5 * MIB, 8))

    def test_a_path_may_be_long_and_of_any_bytes(self):
        folder = "/".join(["f" * 200] * 3)
        os.makedirs(self.path(folder))
        for name in ("bildé.kstx", os.fsdecode(b"latin-1 \xe9 \x80\xff.kstx"), "a b\tc"):
            with self.subTest(name):
                self.captured(seeded_disk(2000, 9), image=folder + "/" + name)
        self.captured(seeded_disk(2000, 9), image=self.path("absolute"))

    def test_a_disk_that_does_not_exist_leaves_no_file(self):
        message = "could not open source disk for raw read (run as Administrator?)"
        self.check_fatal(self.capture(disk=1), message, 2)
        os.symlink("nothing", self.disk_path(1))
        self.check_fatal(self.capture(disk=1), message, 2)
        self.assertFalse(os.path.exists(self.path("x")))

    def test_without_a_volume_c_nothing_is_captured(self):
        os.unlink(self.device("C:"))
        self.disk(1, 1000)
        self.check_fatal(self.capture(), "could not open C: to determine the system disk number", 2,
                         source_line(1, 1000))
        self.assertFalse(os.path.exists(self.path("x")))

    def test_a_bad_password_file_leaves_an_older_image_as_it_was(self):
        self.disk(1, 1000)
        self.file("x", b"older")
        out = source_line(1, 1000) + NO_TRACKER
        self.file("empty", b"\r\n\n")
        self.check_fatal(self.capture("--encrypt", "--password-file", "missing"), "could not open password file", 2,
                         out)
        self.check_fatal(self.capture("--encrypt", "--password-file", "empty"), "password file is empty", None, out)
        self.assertEqual(self.file_bytes("x"), b"older")

    def test_thin_without_a_base_is_refused_before_the_file_is_made(self):
        self.disk(1, 1000)
        self.check_fatal(self.capture("--thin"), "--thin needs --base", None, source_line(1, 1000) + NO_TRACKER)
        self.assertFalse(os.path.exists(self.path("x")))

    def test_an_image_that_cannot_be_created_is_named_by_its_error(self):
        self.disk(1, 1000)
        os.mkdir(self.path("folder"))
        out = source_line(1, 1000) + NO_TRACKER
        for image, error in (("missing/x", 3), ("folder", 5), ("folder/", None), ("p/x", 3)):
            with self.subTest(image):
                self.file("p", b"a file is no folder")
                self.check_fatal(self.capture(image=image), "could not create output image file", error, out)
