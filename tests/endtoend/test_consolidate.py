"""consolidate: the rules before the first byte, and the full image that a chain becomes."""
import os

from harness import MachineTest, needs, progress, verify_text, whole_progress, why_no_mounts
from kestrix_image import FULL, flip_byte, make_chain, read_image, seeded_disk
from test_verify import BAD_HASH, BAD_TAG

CHUNK = 4096
FULL_DISK = "WriteFile failed while consolidating (disk full?)"


class Consolidate(MachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")

    def consolidate(self, *more, image="a", out="x"):
        return self.kestrix("consolidate", "--in", image, "--out", out, *more)

    def text(self, size, out="x"):
        return (whole_progress(size, CHUNK) + "\nConsolidated: %s (self-contained full image, verifying...)\n" % out +
                verify_text(out, size, CHUNK))

    def folded(self, image, disk, *more, sealed=False, out="x"):
        """Consolidates, and reads the new image on its own, with no other image beside it."""
        self.check(self.consolidate(*more, image=image, out=out), 0, self.text(len(disk), out))
        os.mkdir(self.path("alone"))
        os.rename(self.path(out), self.path("alone/x"))
        read = read_image(self.path("alone/x"), b"secret" if sealed else None, chunkSize=CHUNK)
        self.assertEqual((read.header.version, read.header.encrypted, read.header.epoch), (FULL, int(sealed), 0))
        self.assertEqual(read.disk(), disk)
        secret = ("--password-file", "p") if sealed else ()
        self.check(self.kestrix("verify", "--in", "alone/x", *secret), 0, verify_text("alone/x", len(disk), CHUNK))
        os.unlink(self.path("alone/x"))
        os.rmdir(self.path("alone"))
        return read

    def refused(self, run, message, error=None, out="", first=""):
        self.check_fatal(run, message, error, out, first)

    def test_a_chain_becomes_one_full_image_and_stays_as_it_was(self):
        chain = make_chain(self.images, 5)
        before = [self.file_bytes(f"level0{level}.kstx") for level in range(5)]
        for level, image in enumerate(chain):
            self.folded(f"level0{level}.kstx", image.disk)
        self.assertEqual([self.file_bytes(f"level0{level}.kstx") for level in range(5)], before)

    def test_a_sealed_chain_is_opened_or_sealed_anew(self):
        disk = make_chain(self.images, 4, b"secret")[3].disk
        plain = self.folded("level03.kstx", disk, "--password-file", "p")
        self.assertEqual((plain.header.salt, plain.header.kdfIterations), (bytes(16), 0))
        first = self.folded("level03.kstx", disk, "--password-file", "p", "--encrypt", sealed=True)
        second = self.folded("level03.kstx", disk, "--password-file", "p", "--encrypt", sealed=True)
        self.assertNotEqual(first.header.salt, second.header.salt)
        nonces = {entry.nonce for image in (first, second) for entry in image.table}
        self.assertEqual(len(nonces), 8)

    def test_a_plain_image_can_be_sealed_on_the_way(self):
        disk = seeded_disk(3 * CHUNK + 9, 1)
        self.image("a", disk)
        self.folded("a", disk, "--password-file", "p", "--encrypt", sealed=True)

    def test_a_chain_of_mixed_levels_becomes_one_plain_image(self):
        disk = make_chain(self.images, 6, lambda level: b"secret" if level % 2 else None)[5].disk
        self.folded("level05.kstx", disk, "--password-file", "p")

    def test_a_plain_full_image_without_an_epoch_gives_the_same_bytes_again(self):
        disk = seeded_disk(3 * CHUNK + 9, 2)
        self.image("a", disk)
        self.check(self.consolidate(), 0, self.text(len(disk)))
        self.assertEqual(self.file_bytes("x"), self.file_bytes("a"))

    def test_the_epoch_is_not_carried_over(self):
        disk = seeded_disk(3 * CHUNK, 3)
        self.image("a", disk, epoch=77)
        self.folded("a", disk)

    def test_an_image_of_no_chunks_is_consolidated(self):
        self.image("a", b"")
        self.folded("a", b"")

    def test_progress_is_shown_for_every_32nd_chunk_and_the_last(self):
        disk = seeded_disk(66 * CHUNK, 4)
        self.image("a", disk)
        self.folded("a", disk)

    def test_the_output_must_be_another_path_than_the_source(self):
        self.image("a", b"abc")
        for out in ("a", "A", "./a", "../images/a", self.path("a"), ".//A"):
            with self.subTest(out):
                self.refused(self.consolidate(out=out), "--out must differ from --in")
        self.refused(self.consolidate(image="none", out="None"), "--out must differ from --in")

    def test_nothing_that_exists_is_overwritten(self):
        self.image("a", b"abc")
        self.file("file", b"no image")
        os.mkdir(self.path("folder"))
        for out in ("file", "folder", ".", "p"):
            for image in ("a", "missing"):
                with self.subTest((out, image)):
                    self.refused(self.consolidate(image=image, out=out),
                                 "--out already exists - refusing to overwrite an image")
        self.assertEqual(self.file_bytes("file"), b"no image")

    def test_a_bad_source_is_reported_before_a_missing_password_file(self):
        self.refused(self.consolidate("--encrypt", image="missing"), "could not open image file", 2,
                     first="could not open image file: missing\n")
        self.image("a", b"abc")
        self.refused(self.consolidate("--encrypt"), "--encrypt needs --password-file")
        self.refused(self.consolidate("--password-file", "none", "--encrypt"), "could not open password file", 2)
        self.assertFalse(os.path.exists(self.path("x")))

    def test_an_output_that_cannot_be_created_is_named_by_its_error(self):
        self.image("a", b"abc")
        self.refused(self.consolidate(out="missing/x"), "could not create output image file", 3)

    def test_a_damaged_chunk_of_the_chain_ends_the_run_and_leaves_no_image(self):
        for secret, message in ((None, BAD_HASH), (b"secret", BAD_TAG)):
            with self.subTest(secret):
                disk = make_chain(self.images, 3, secret)[2].disk
                flip_byte(self.path("level00.kstx"), 64 + 4 * 72 + 3 * CHUNK)
                run = self.consolidate("--password-file", "p", image="level02.kstx")
                self.check_fatal(run, message, None, progress(CHUNK, len(disk)))
                self.check_unfinished("x")
                self.refused(self.consolidate(image="level02.kstx"),
                             "--out already exists - refusing to overwrite an image")
                os.unlink(self.path("x"))

    def test_a_damaged_chunk_that_is_overridden_is_never_read(self):
        disk = make_chain(self.images, 3)[2].disk
        flip_byte(self.path("level00.kstx"), 64 + 4 * 72 + CHUNK)
        self.folded("level02.kstx", disk)

    @needs(why_no_mounts)
    def test_a_full_file_system_ends_the_run_and_leaves_no_image(self):
        disk = seeded_disk(100 * CHUNK, 5)
        self.image("a", disk)
        out = os.path.join(self.small_file_system("64k"), "x")
        run = self.consolidate(out=out)
        self.check_fatal(run, FULL_DISK, 112, progress(CHUNK, len(disk)))
        self.check_unfinished(out)

    @needs(why_no_mounts)
    def test_a_file_system_too_full_for_the_table_fails_the_closing_verify(self):
        # The chunks go into the pages behind the table and fit; the pages of header and table are written last and
        # don't. Nobody examines those writes, and the verify that follows finds what they left.
        chunkSize, count = 8, 500
        disk = seeded_disk(chunkSize * count, 6)
        self.image("a", disk, chunkSize=chunkSize)
        folder = self.small_file_system("64k")
        free = os.statvfs(folder)
        with open(os.path.join(folder, "filler"), "wb") as file:
            file.write(bytes((free.f_bavail - 2) * free.f_bsize))
        out = os.path.join(folder, "x")
        run = self.consolidate(out=out)
        self.assertEqual(run.status, 1)
        self.assertIn(b"FATAL: ", run.err)
        self.refuse(out, chunkSize=chunkSize)
