"""Chains from end to end: the three readers on short and on the longest ones, what a thin capture may be based on and
how its base is named, and a chain that is sealed, opened or sealed anew by consolidating it."""
import os

from change_tracker import ATTACH, COMMIT, QUERY, attach_to
from harness import NO_TRACKER, RESTORE_COMPLETE, MachineTest, source_line, verify_text, whole_progress
from kestrix_image import FULL, flip_byte, make_chain, read_image, seeded_disk
from test_thin import (NO_DRIVER, NO_EPOCH, NOT_LATEST, SIZE, BaseTest, incremental, proved, thin_end, tracker_line,
                       unproved)
from test_verify import BAD_TAG
from tracked_disk import CHUNK, restore_text

SMALL_CHUNK = 4096
TOO_DEEP = "image chain is too deep (or loops back on itself)"
OUTSIDE = "thin image trailer names a base outside its folder - refusing"
NO_BASE = "base image of a thin image not found"
MISSING = ("This is a thin (incremental) image; its base image is missing: %s\n"
           "Keep every image of a chain in the same folder.\n")
OTHER_FOLDER = "--thin: the image and its --base must be in the same folder"
SAME_FILE = "--thin: --out must differ from --base"


def consolidate_text(out, size):
    return (whole_progress(size, SMALL_CHUNK) + "\nConsolidated: %s (self-contained full image, verifying...)\n" % out +
            verify_text(out, size, SMALL_CHUNK))


class ReadersOfChains(MachineTest):
    """Chains of the independent writer. Every third level is sealed, and two chunks lie in the lowest image alone."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret\n")

    def chain(self, levels, secret=lambda level: b"secret" if level % 3 == 1 else None):
        written = make_chain(self.images, levels, secret, chunks=levels + 2, chunkSize=SMALL_CHUNK)
        self.content = written[-1].disk
        self.size = len(self.content)
        self.stored = [i for i, entry in enumerate(written[-1].record.table) if entry.storedLength]
        self.top = os.path.basename(written[-1].path)
        self.below = os.path.basename(written[-2].path)
        return written

    def on_top(self, command, *more):
        return self.kestrix(command, "--in", self.top, "--password-file", "p", *more)

    def folded(self, out, sealed, image=None):
        run = self.kestrix("consolidate", "--in", image or self.top, "--out", out, "--password-file", "p",
                           *["--encrypt"] * sealed)
        self.check(run, 0, consolidate_text(out, self.size))
        read = read_image(self.path(out), b"secret" if sealed else None, chunkSize=SMALL_CHUNK)
        self.assertEqual((read.header.version, read.header.encrypted, read.header.epoch), (FULL, int(sealed), 0))
        self.assertTrue(read.disk() == self.content, "the consolidated image holds another disk")
        return read

    def test_chains_of_2_3_64_and_65_images_are_verified_restored_and_consolidated(self):
        for levels in (2, 3, 64, 65):
            with self.subTest(levels):
                self.chain(levels)
                self.assertEqual(self.stored, [levels - 1])
                self.check(self.on_top("verify"), 0, verify_text(self.top, self.size, SMALL_CHUNK, self.below))
                self.disk(1, b"\xEE" * self.size)
                self.check(self.on_top("restore", "--disk", "1", "--confirm", "YES"), 0,
                           restore_text(self.top, 1, self.size, SMALL_CHUNK, self.stored))
                self.assertTrue(self.disk_bytes(1) == self.content, "another disk was restored")
                for sealed in (False, True):
                    self.folded(f"folded{levels}{int(sealed)}", sealed)

    def test_a_chain_of_66_images_is_refused_by_every_reader(self):
        self.chain(66)
        self.disk(1, b"\xEE" * self.size)
        self.check_fatal(self.on_top("verify"), TOO_DEEP, None)
        self.check_fatal(self.on_top("restore", "--disk", "1", "--confirm", "YES"), TOO_DEEP, None)
        self.check_fatal(self.on_top("consolidate", "--out", "x"), TOO_DEEP, None)
        self.check_fatal(self.kestrix("capture", "--disk", "1", "--out", "x", "--base", self.top, "--thin",
                                      "--password-file", "p"), TOO_DEEP, None,
                         source_line(1, self.size) + NO_TRACKER + incremental(self.top))
        self.assertFalse(os.path.exists(self.path("x")))
        self.assertEqual(self.disk_bytes(1), b"\xEE" * self.size)

    def test_damage_in_the_lowest_of_65_images_reaches_the_top(self):
        written = self.chain(65, lambda level: b"secret" if level % 8 == 0 else None)
        flip_byte(written[0].path, os.path.getsize(written[0].path) - 1)
        for command, more in (("verify", ()), ("consolidate", ("--out", "x"))):
            run = self.on_top(command, *more)
            self.assertEqual((run.status, run.err.split(b" (GetLastError=")[0]), (1, b"FATAL: " + BAD_TAG.encode()))
        self.check_unfinished("x")

    def test_a_capture_based_on_a_chain_of_64_images_gives_the_longest_chain_that_opens(self):
        disk = seeded_disk(1000, 1)
        base = None
        for level in range(65):
            base = self.image(f"level{level}", disk, base=base, chunkSize=CHUNK)
        self.disk(1, disk)
        for level, opens in ((63, True), (64, False)):
            name = f"on{level}"
            run = self.kestrix("capture", "--disk", "1", "--out", name, "--base", f"level{level}", "--thin")
            # The depth of the new image is nobody's business while it is made: it shows when the image is opened.
            self.assertEqual((run.status, run.err), (0, b""))
            run = self.kestrix("verify", "--in", name)
            if opens:
                self.check(run, 0, verify_text(name, 1000, CHUNK, f"level{level}"))
            else:
                self.check_fatal(run, TOO_DEEP, None)
        run = self.kestrix("capture", "--disk", "1", "--out", "full", "--base", "level64")
        self.assertEqual((run.status, run.err), (0, b""))
        self.check_image("full", disk)

    def test_consolidating_the_longest_chain_makes_room_for_the_next_image(self):
        self.chain(65)
        self.folded("full", False)
        changed = bytes([self.content[0] ^ 1]) + self.content[1:]
        base = self.image("again", self.content, chunkSize=SMALL_CHUNK)
        self.assertEqual(self.file_bytes("again"), self.file_bytes("full"))
        os.rename(self.path("full"), base.path)
        self.image("next", changed, base=base, chunkSize=SMALL_CHUNK)
        self.check(self.kestrix("verify", "--in", "next"), 0, verify_text("next", self.size, SMALL_CHUNK, "again"))

    # Keys

    def secrets_of(self, images):
        """The salts and nonces with which anything is sealed in these images."""
        salts = [image.header.salt for image in images if image.header.encrypted]
        nonces = [entry.nonce for image in images if image.header.encrypted for entry in image.table
                  if entry.storedLength]
        return salts, nonces

    def test_a_chain_is_sealed_anew_opened_and_sealed_again_without_a_secret_in_common(self):
        for secret in (lambda level: None, lambda level: b"secret", lambda level: b"secret" if level % 2 else None):
            written = self.chain(5, secret)
            direct = self.folded("direct", False)
            sealed = self.folded("sealed", True)
            opened = self.folded("opened", False, "sealed")
            resealed = self.folded("resealed", True, "sealed")
            self.assertEqual(self.file_bytes("direct"), self.file_bytes("opened"))
            for read in (sealed, opened, resealed):
                self.assertEqual([entry.hash for entry in read.table], [entry.hash for entry in direct.table])
            salts, nonces = self.secrets_of([image.record for image in written] + [sealed, resealed])
            self.assertEqual(len(set(salts)), len(salts))
            self.assertEqual(len(set(nonces)), len(nonces))
            for name in ("sealed", "resealed"):
                data = self.file_bytes(name)
                self.assertFalse([i for i in range(0, self.size, SMALL_CHUNK) if self.content[i:i + 64] in data])
            for name in ("direct", "sealed", "opened", "resealed"):
                os.unlink(self.path(name))

    def test_a_consolidated_image_opens_with_the_password_of_its_chain_alone(self):
        self.chain(3, lambda level: b"secret")
        self.folded("x", True)
        self.file("q", b"Secret\n")
        run = self.kestrix("verify", "--in", "x", "--password-file", "q")
        self.assertEqual((run.status, run.err),
                         (1, b"Verify FAILED - 5 of 5 chunks did not match. Do not trust this image for restore.\n"))
        run = self.kestrix("consolidate", "--in", "x", "--out", "y", "--password-file", "q", "--encrypt")
        self.check_fatal(run, BAD_TAG, None)
        self.check_unfinished("y")


class NamesOfBases(BaseTest):
    """Which pairs of paths a thin capture takes, and what it then writes into the trailer."""

    def begun(self, base):
        return source_line(1, SIZE) + NO_TRACKER + incremental(base) + unproved(NO_DRIVER, True)

    def taken(self, image, base, stored=(1,)):
        self.check(self.capture("--thin", image=image, base=base), 0,
                   self.out(unproved(NO_DRIVER, True), thin_end(image, len(stored), 3 - len(stored), 3), base=base))

    def refused(self, image, base, message):
        before = sorted(os.listdir(self.images))
        self.check_fatal(self.capture("--thin", image=image, base=base), message, None, self.begun(base))
        self.assertEqual(sorted(os.listdir(self.images)), before)

    def readers_refuse(self, image, message, first=""):
        self.disk(2, b"\xEE" * SIZE)
        for arguments in (("verify",), ("restore", "--disk", "2", "--confirm", "YES"),
                          ("consolidate", "--out", "never")):
            self.check_fatal(self.kestrix(*arguments, "--in", image), message, None, "", first)
        self.assertFalse(os.path.exists(self.path("never")))
        self.assertEqual(self.disk_bytes(2), b"\xEE" * SIZE)

    def test_a_base_behind_a_drive_and_a_colon_is_written_and_refused_at_opening(self):
        self.base("C:base")
        for typed in ("C:base", "./C:base", self.path("C:base")):
            with self.subTest(typed):
                self.taken("x", typed)
                self.assertIn(b"KSTXBASE" + bytes([6, 0, 0, 0]) + b"C:base", self.file_bytes("x"))
                self.readers_refuse("x", OUTSIDE)

    def test_the_folder_of_a_path_ends_at_a_backslash_too(self):
        self.base("f\\base")
        self.refused("x", "f\\base", OTHER_FOLDER)
        # The name in the trailer begins behind the backslash, and is looked up in the same folder again.
        self.taken("f\\x", "f\\base")
        self.assertIn(b"KSTXBASE" + bytes([4, 0, 0, 0]) + b"base", self.file_bytes("f\\x"))
        self.check(self.kestrix("verify", "--in", "f\\x"), 0, verify_text("f\\x", SIZE, CHUNK, "base"))

    def test_folders_that_differ_in_case_alone_pass_and_the_base_is_missed_at_opening(self):
        os.mkdir(self.path("backups"))
        os.mkdir(self.path("Backups"))
        self.base("backups/base")
        self.taken("Backups/x", "backups/base")
        self.readers_refuse("Backups/x", NO_BASE, MISSING % "Backups/base")
        os.rename(self.path("Backups/x"), self.path("backups/x"))
        self.check_thin("backups/x", self.new, [1], "base")

    def test_only_the_letters_from_a_to_z_have_no_case(self):
        self.base("bäse[")
        self.refused("BäSE[", "bäse[", SAME_FILE)
        for image in ("bÄse[", "bäse{"):
            self.taken(image, "bäse[")
            self.check_thin(image, self.new, [1], "bäse[")

    def test_a_base_in_a_folder_below_or_above_is_refused(self):
        os.mkdir(self.path("f"))
        self.base("f/base")
        self.refused("x", "f/base", OTHER_FOLDER)
        self.refused("../x", "f/../f/base", OTHER_FOLDER)
        self.base("base")
        self.refused("f/x", "base", OTHER_FOLDER)
        self.refused("f/../f/x", "./base", OTHER_FOLDER)
        self.assertEqual(os.listdir(self.path("f")), ["base"])

    def test_a_full_capture_takes_a_base_from_any_folder(self):
        os.mkdir(self.path("f"))
        self.base("f/base")
        self.check(self.capture(base="f/base"), 0,
                   self.out(unproved(NO_DRIVER, False), "Capture complete: x\n", base="f/base"))
        self.check_image("x", self.new)


class BasesAndProof(BaseTest):
    """A tracker that proves that chunk 1 alone changed since epoch A0."""

    def setUp(self):
        super().setUp()
        self.tracker = attach_to(self)
        self.tracker.remember(0xA0, 0xB0, b"\x20\x00")

    def begun(self, base, decision):
        return source_line(1, SIZE) + tracker_line(self.tracker.currentEpoch) + incremental(base) + decision

    def nothing_done(self):
        self.assertEqual(self.tracker.codes(), [ATTACH, QUERY, QUERY])
        self.tracker.log.clear()

    def test_a_base_in_another_folder_is_refused_behind_the_lines_of_tracker_and_proof(self):
        os.mkdir(self.path("f"))
        self.base("f/base", epoch=0xA0)
        self.check_fatal(self.capture("--thin", base="f/base"), OTHER_FOLDER, None, self.begun("f/base", proved(0xA0)))
        self.nothing_done()
        self.base("f/base")
        self.check_fatal(self.capture("--thin", base="f/base"), OTHER_FOLDER, None,
                         self.begun("f/base", unproved(NO_EPOCH, True)))
        self.nothing_done()
        self.assertFalse(os.path.exists(self.path("x")))

    def test_a_proved_thin_capture_never_replaces_its_base(self):
        self.base(epoch=0xA0)
        before = self.file_bytes("base")
        for image in ("base", "BASE", "./f/../Base"):
            self.check_fatal(self.capture("--thin", image=image), SAME_FILE, None, self.begun("base", proved(0xA0)))
            self.nothing_done()
        self.assertEqual(self.file_bytes("base"), before)

    def test_a_full_capture_that_lost_its_proof_may_replace_its_base(self):
        self.base(epoch=0xA1)
        self.check(self.capture(image="base"), 0, self.out(unproved(NOT_LATEST, False), "Capture complete: base\n",
                                                           tracker_line(0xB0)))
        self.check_image("base", self.new, epoch=0xB0)
        self.assertEqual(self.tracker.codes()[-1], COMMIT)

    def test_a_consolidated_image_proves_nothing_and_the_image_made_on_it_does_again(self):
        self.base(epoch=0xA0)
        run = self.kestrix("consolidate", "--in", "base", "--out", "folded")
        self.assertEqual((run.status, run.err), (0, b""))
        self.check(self.capture("--thin", base="folded"), 0,
                   self.out(unproved(NO_EPOCH, True), thin_end("x", 1, 2, 3), tracker_line(0xB0), "folded"))
        self.check_thin("x", self.new, [1], "folded", epoch=0xB0)
        self.check(self.capture("--thin", image="y", base="x"), 0,
                   self.out(proved(0xB0), thin_end("y", 0, 3, 0), tracker_line(0xB1), "x"))
        self.check_thin("y", self.new, [], "x", epoch=0xB1)

    def test_an_older_image_of_the_chain_proves_nothing(self):
        self.base(epoch=0xA0)
        self.check(self.capture("--thin"), 0, self.out(proved(0xA0), thin_end("x", 1, 2, 1), tracker_line(0xB0)))
        self.check(self.capture("--thin", image="y"), 0,
                   self.out(unproved(NOT_LATEST, True), thin_end("y", 1, 2, 3), tracker_line(0xB1)))
        self.check_thin("y", self.new, [1], "base", epoch=0xB1)

    def test_a_thin_image_of_a_proved_chain_is_restored_without_the_driver(self):
        self.base(epoch=0xA0)
        self.check(self.capture("--thin"), 0, self.out(proved(0xA0), thin_end("x", 1, 2, 1), tracker_line(0xB0)))
        self.disk(2, b"\xEE" * SIZE)
        connections = self.tracker.connections
        run = self.kestrix("restore", "--in", "x", "--disk", "2", "--confirm", "YES")
        self.check(run, 0, restore_text("x", 2, SIZE, CHUNK, [1]))
        self.assertIn(RESTORE_COMPLETE.encode(), run.out)
        self.assertTrue(self.disk_bytes(2) == self.new)
        self.assertEqual(self.tracker.connections, connections)
