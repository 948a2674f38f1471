"""capture with a base image: when the tracker's proof holds, what is read and stored, and the chains that result."""
import os

import change_tracker
from harness import (MIB, NO_TRACKER, RESTORE_COMPLETE, MachineTest, needs, progress, restoring_line, source_line,
                     verify_text, whole_progress, why_no_mounts)
from kestrix_image import THIN, flip_byte, make_image, read_image, seeded_disk

CHUNK = 4 * MIB
SIZE = 2 * CHUNK + MIB
NO_DRIVER = "no change tracker for this disk"
NO_EPOCH = "base image has no epoch (captured without the tracker)"
NO_PREVIOUS = "driver holds no previous epoch (reboot/reload since the base image)"
NOT_LATEST = "base image is not the most recent committed image"
GAP = "tracker saw an untracked write (gap) since the base image"
ALL_CHUNKS = b"\xff\xff"  # of a disk of nine blocks of 1 MiB


def tracker_line(epoch, gap=False):
    return "Change tracker: disk 1 epoch %X%s\n" % (epoch, " (GAP - untracked write seen)" if gap else "")


def incremental(base):
    return "Incremental mode: base image %s\n" % base


def unproved(reason, thin):
    if thin:
        return ("  --base: cannot prove what changed (%s) - reading every chunk and comparing hashes with the base "
                "(no driver needed; slower to read, still a small file).\n" % reason)
    return "  --base: cannot prove what changed (%s) - doing a FULL capture (correct, just slower).\n" % reason


def proved(epoch):
    return ("  --base: base epoch %X matches tracker; unchanged chunks will be copied from the base image.\n" % epoch)


def thin_end(image, stored, references, read):
    return ("Capture complete (thin): %s  (stored %d of %d chunks, %d are references to the base; "
            "read from disk: %d)\n" % (image, stored, stored + references, references, read))


class BaseTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret\n")
        self.old = seeded_disk(SIZE, 1)
        self.new = self.changed(self.old, 1)
        self.disk(1, self.new)

    @staticmethod
    def changed(disk, chunk):
        """The disk with one byte of a chunk changed."""
        at = chunk * CHUNK + 12345
        return disk[:at] + bytes([disk[at] ^ 0x80]) + disk[at + 1:]

    def base(self, name="base", disk=None, password=None, **options):
        return self.image(name, self.old if disk is None else disk, password, chunkSize=CHUNK, **options)

    def capture(self, *more, image="x", base="base"):
        return self.kestrix("capture", "--disk", "1", "--out", image, "--base", base, *more)

    def out(self, decision, end, tracker=NO_TRACKER, base="base"):
        return source_line(1, SIZE) + tracker + incremental(base) + decision + whole_progress(SIZE, CHUNK) + "\n" + end

    def check_thin(self, image, disk, stored, base, password=None, epoch=0, iterations=1000):
        """A thin image that stores these chunks alone, on a base whose iteration count may be another."""
        data = self.file_bytes(image)
        self.assertEqual(data[8:12], bytes([THIN, 0, 0, 0]))
        read = read_image(self.path(image), password, iterations)
        self.assertEqual([i for i, entry in enumerate(read.table) if entry.storedLength], stored)
        self.assertEqual(read.header.epoch, epoch)
        self.assertEqual(read.trailer.baseName, base.encode())
        self.assertTrue(read.disk() == disk, "the image holds another disk")
        self.check(self.kestrix("verify", "--in", image, "--password-file", "p"), 0,
                   verify_text(image, SIZE, CHUNK, base))
        return read


class WithoutProof(BaseTest):
    def thin(self, *more, stored=(1,), image="x", base="base", reason=NO_DRIVER, tracker=NO_TRACKER):
        end = thin_end(image, len(stored), 3 - len(stored), 3)
        self.check(self.capture("--thin", *more, image=image, base=base), 0,
                   self.out(unproved(reason, True), end, tracker, base))

    def test_a_thin_capture_stores_the_chunks_that_changed(self):
        self.base()
        self.thin()
        self.check_thin("x", self.new, [1], "base")

    def test_a_thin_image_of_an_unchanged_disk_is_header_table_and_trailer(self):
        self.base()
        self.disk(1, self.old)
        self.thin(stored=())
        self.check_thin("x", self.old, [], "base")
        self.assertEqual(os.path.getsize(self.path("x")), 64 + 3 * 72 + 48 + 4)

    def test_a_thin_image_of_a_wholly_changed_disk_stores_all(self):
        self.base()
        self.new = self.disk(1, seeded_disk(SIZE, 2))
        self.thin(stored=(0, 1, 2))
        self.check_thin("x", self.new, [0, 1, 2], "base")

    def test_a_full_capture_with_a_base_that_proves_nothing_is_a_plain_capture(self):
        self.base()
        self.check(self.capture(), 0, self.out(unproved(NO_DRIVER, False), "Capture complete: x\n"))
        self.check_image("x", self.new)

    def test_every_mix_of_sealed_and_plain_makes_a_sound_chain(self):
        for baseSecret in (None, b"secret"):
            for sealed in (False, True):
                with self.subTest((baseSecret, sealed)):
                    self.base(password=baseSecret, kdfIterations=200000)
                    self.thin(*(("--encrypt",) if sealed else ()), "--password-file", "p")
                    image = self.check_thin("x", self.new, [1], "base", b"secret", iterations=200000)
                    self.assertEqual(image.header.encrypted, int(sealed))
                    self.assertEqual(self.new[CHUNK:CHUNK + 64] in self.file_bytes("x"), not sealed)

    def test_a_chain_of_captures_is_restored_at_every_level(self):
        disks = [self.old]
        self.base("level0")
        for level in range(1, 4):
            disks.append(self.disk(1, self.changed(disks[-1], level % 3)))
            self.thin(image=f"level{level}", base=f"level{level - 1}")
            self.check_thin(f"level{level}", disks[level], [level % 3], f"level{level - 1}")
        for level, disk in enumerate(disks):
            self.disk(2, SIZE)
            run = self.kestrix("restore", "--in", f"level{level}", "--disk", "2", "--confirm", "YES")
            self.assertEqual((run.status, run.err), (0, b""))
            self.assertTrue(self.disk_bytes(2) == disk)

    def test_the_name_of_the_base_is_what_was_typed_behind_the_last_separator(self):
        os.mkdir(self.path("f"))
        self.base("f/base")
        self.thin(image="f/x", base="./f/../f/base")
        self.check_thin("f/x", self.new, [1], "base")
        self.thin(image="f/y", base=self.path("f/base"))
        self.check_thin("f/y", self.new, [1], "base")

    def test_long_paths_and_names_of_any_bytes_make_a_thin_image(self):
        folder = "/".join(["f" * 200] * 3)
        os.makedirs(self.path(folder))
        self.base(folder + "/bäse")
        self.thin(image=folder + "/x", base=folder + "/bäse")
        self.check_thin(folder + "/x", self.new, [1], "bäse")

    def test_a_base_whose_name_holds_a_colon_makes_a_thin_image_that_no_command_opens(self):
        refusal = "thin image trailer names a base outside its folder - refusing"
        self.base("mon:day")
        self.check(self.kestrix("verify", "--in", "mon:day"), 0, verify_text("mon:day", SIZE, CHUNK))
        self.check(self.capture("--thin", base="mon:day"), 0,
                   self.out(unproved(NO_DRIVER, True), thin_end("x", 1, 2, 3), base="mon:day"))
        self.disk(2, SIZE)
        self.check_fatal(self.kestrix("verify", "--in", "x"), refusal, None)
        self.check_fatal(self.kestrix("restore", "--in", "x", "--disk", "2", "--confirm", "YES"), refusal, None)
        self.check_fatal(self.kestrix("consolidate", "--in", "x", "--out", "y"), refusal, None)
        self.check_fatal(self.capture("--thin", image="y", base="x"), refusal, None,
                         source_line(1, SIZE) + NO_TRACKER + incremental("x"))

    def test_a_backslash_in_a_bases_name_ends_a_folder(self):
        self.base("a\\base")
        begun = source_line(1, SIZE) + NO_TRACKER + incremental("a\\base") + unproved(NO_DRIVER, True)
        self.check_fatal(self.capture("--thin", base="a\\base"),
                         "--thin: the image and its --base must be in the same folder", None, begun)
        self.thin(image="a\\x", base="a\\base")
        self.check(self.kestrix("verify", "--in", "a\\x"), 0, verify_text("a\\x", SIZE, CHUNK, "base"))

    def test_a_base_of_another_disk_is_refused_before_the_file_is_made(self):
        for message, options in (
                ("--base image geometry does not match source disk", {"disk": self.old[:-512]}),
                ("--base image geometry does not match source disk", {"sectorSize": 4096})):
            with self.subTest(message):
                self.base(**options)
                for more in ((), ("--thin",)):
                    self.check_fatal(self.capture(*more), message, None,
                                     source_line(1, SIZE) + NO_TRACKER + incremental("base"))
        self.image("base", self.old, chunkSize=CHUNK // 2)
        self.check_fatal(self.capture("--thin"), "--base image chunking parameters do not match", None,
                         source_line(1, SIZE) + NO_TRACKER + incremental("base"))
        self.assertFalse(os.path.exists(self.path("x")))

    def test_a_base_that_does_not_open_ends_the_capture_in_the_words_of_the_opening(self):
        begun = source_line(1, SIZE) + NO_TRACKER + incremental("base")
        self.check_fatal(self.capture("--thin"), "could not open image file", 2, begun,
                         "could not open image file: base\n")
        self.base(password=b"secret")
        self.check_fatal(self.capture("--thin"), "this image is encrypted - pass --password-file", None, begun)
        self.assertFalse(os.path.exists(self.path("x")))

    def test_a_thin_image_lies_in_the_folder_of_its_base(self):
        os.mkdir(self.path("f"))
        self.base()
        begun = source_line(1, SIZE) + NO_TRACKER + incremental("base") + unproved(NO_DRIVER, True)
        self.check_fatal(self.capture("--thin", image="f/x"),
                         "--thin: the image and its --base must be in the same folder", None, begun)
        self.assertEqual(os.listdir(self.path("f")), [])

    def test_a_thin_image_never_replaces_its_base(self):
        self.base()
        before = self.file_bytes("base")
        begun = source_line(1, SIZE) + NO_TRACKER + incremental("base") + unproved(NO_DRIVER, True)
        for image in ("base", "BASE", "./base", "../images/base", self.path("bAse"), ".//base"):
            with self.subTest(image):
                self.check_fatal(self.capture("--thin", image=image), "--thin: --out must differ from --base", None,
                                 begun)
        self.assertEqual(self.file_bytes("base"), before)

    def test_a_full_capture_without_proof_may_replace_its_base(self):
        self.base()
        self.check(self.capture(image="base"), 0, self.out(unproved(NO_DRIVER, False), "Capture complete: base\n"))
        self.check_image("base", self.new)

    def test_incremental_is_a_second_name_of_base(self):
        self.base()
        end = self.out(unproved(NO_DRIVER, True), thin_end("x", 1, 2, 3))
        for words in (("--incremental", "base"), ("--base", "", "--incremental", "base"),
                      ("--INCREMENTAL", "base"), ("--incremental", "none", "--base", "base")):
            with self.subTest(words):
                self.check(self.kestrix("capture", "--disk", "1", "--out", "x", *words, "--thin"), 0, end)
                self.check_thin("x", self.new, [1], "base")

    @needs(why_no_mounts)
    def test_a_trailer_that_finds_no_room_is_fatal_and_leaves_no_image(self):
        folder = self.small_file_system("16m")
        # The data area ends 96 bytes before the end of a page, the trailer would reach into the next one.
        size = CHUNK + 4000 - (64 + 2 * 72)
        old = seeded_disk(size, 3)
        base = os.path.join(folder, "b" * 200)
        make_image(base, old, chunkSize=CHUNK)
        self.disk(1, old[:CHUNK] + bytes(size - CHUNK))
        free = os.statvfs(folder)
        with open(os.path.join(folder, "filler"), "wb") as file:
            file.write(bytes((free.f_bavail - 1) * free.f_bsize))
        image = os.path.join(folder, "x")
        run = self.kestrix("capture", "--disk", "1", "--out", image, "--base", base, "--thin")
        self.check_fatal(run, "could not write thin image trailer", 112, source_line(1, size) + NO_TRACKER +
                         incremental(base) + unproved(NO_DRIVER, True) + progress(CHUNK, size) +
                         progress(size, size) + "\n")
        self.check_unfinished(image)


class WithTracker(BaseTest):
    def setUp(self):
        super().setUp()
        self.tracker = change_tracker.attach_to(self)
        self.tracker.remember(0xA0, 0xB0)

    def dirty(self, *blocks):
        bitmap = bytearray(2)
        for block in blocks:
            bitmap[block // 8] |= 1 << block % 8
        self.tracker.bitmap = bytes(bitmap)

    def thin(self, end, *more, decision=None):
        line = tracker_line(self.tracker.next_epoch())
        self.check(self.capture("--thin", *more), 0, self.out(decision or proved(0xA0), end, line))

    def unproved_thin(self, reason, line=None):
        epoch = self.tracker.next_epoch() % 2**56
        line = line or tracker_line(self.tracker.next_epoch())
        self.check(self.capture("--thin"), 0, self.out(unproved(reason, True), thin_end("x", 1, 2, 3), line))
        self.check_thin("x", self.new, [1], "base", epoch=epoch)

    def test_only_changed_chunks_are_read_by_a_proved_thin_capture(self):
        self.base(epoch=0xA0)
        self.dirty(4)
        # A chunk that the tracker calls clean is not even looked at: its change goes unseen.
        self.disk(1, self.changed(self.new, 0))
        self.thin(thin_end("x", 1, 2, 1))
        self.check_thin("x", self.new, [1], "base", epoch=0xB0)

    def test_each_block_makes_its_own_chunk_dirty(self):
        self.base(epoch=0xA0)
        disk = self.disk(1, seeded_disk(SIZE, 7))
        for block in range(9):
            with self.subTest(block):
                self.tracker.remember(0xA0, 0xB0)
                self.dirty(block)
                self.thin(thin_end("x", 1, 2, 1))
                i = block // 4
                self.check_thin("x", self.old[:i * CHUNK] + disk[i * CHUNK:(i + 1) * CHUNK] +
                                self.old[(i + 1) * CHUNK:], [i], "base", epoch=0xB0)

    def test_blocks_of_other_sizes_work_too(self):
        self.base(epoch=0xA0)
        for shift, bitmap, stored, read in ((23, b"\x01", 1, 2), (23, b"\x02", 0, 1), (40, b"\x01", 1, 3),
                                            (40, b"\x00", 0, 0), (12, bytes(128) + b"\x01" + bytes(200), 1, 1)):
            with self.subTest((shift, bitmap[:1])):
                self.tracker.remember(0xA0, 0xB0)
                self.tracker.blockShift, self.tracker.bitmap = shift, bitmap
                self.thin(thin_end("x", stored, 3 - stored, read))
                self.check_thin("x", self.new if stored else self.old, [1] if stored else [], "base", epoch=0xB0)

    def test_chunks_beyond_the_bitmap_are_read(self):
        self.base(epoch=0xA0)
        self.tracker.bitmap = b"\x00"
        self.disk(1, self.changed(self.old, 2))
        self.thin(thin_end("x", 1, 2, 1))
        self.check_thin("x", self.changed(self.old, 2), [2], "base", epoch=0xB0)

    def test_a_dirty_chunk_with_the_old_content_becomes_a_reference(self):
        self.base(epoch=0xA0)
        self.dirty(0, 8)
        self.disk(1, self.old)
        self.thin(thin_end("x", 0, 3, 2))
        self.check_thin("x", self.old, [], "base", epoch=0xB0)

    def test_a_proved_full_capture_copies_clean_chunks_from_the_base(self):
        for secret in (None, b"secret"):
            for sealed in (False, True):
                with self.subTest((secret, sealed)):
                    self.tracker.remember(0xA0, 0xB0)
                    self.dirty(5)
                    self.base(epoch=0xA0, password=secret)
                    run = self.capture("--password-file", "p", *(("--encrypt",) if sealed else ()))
                    self.check(run, 0, self.out(proved(0xA0), "Capture complete: x (Read from disk: 1, Copied from "
                                                              "base: 2 chunks)\n", tracker_line(0xB0)))
                    self.check_image("x", self.new, b"secret" if sealed else None, epoch=0xB0)

    def test_a_damaged_base_ends_a_proved_full_capture_without_an_image_or_a_commit(self):
        base = self.base(epoch=0xA0)
        self.dirty(5)
        flip_byte(base.path, 64 + 3 * 72 + 2 * CHUNK)
        run = self.capture()
        self.assertEqual((run.status, run.err.split(b" (")[0]), (1, b"FATAL: chunk failed its hash check"))
        self.check_unfinished("x")
        self.assertNotIn(change_tracker.COMMIT, self.tracker.codes())

    def test_a_proved_full_capture_cannot_replace_its_base(self):
        self.base(epoch=0xA0)
        before = self.file_bytes("base")
        run = self.capture(image="base")
        self.assertEqual((run.status, run.err), (1, b"FATAL: could not create output image file (GetLastError=32)\n"))
        self.assertEqual(self.file_bytes("base"), before)

    def test_the_proof_of_one_capture_carries_over_to_the_next(self):
        self.tracker.previousEpoch = None
        self.disk(1, self.old)
        self.tracker.bitmap = ALL_CHUNKS
        run = self.kestrix("capture", "--disk", "1", "--out", "base")
        self.assertEqual(run.status, 0)
        self.disk(1, self.new)
        self.dirty(6)
        self.check(self.capture("--thin"), 0, self.out(proved(0xB0), thin_end("x", 1, 2, 1), tracker_line(0xB1)))
        self.check_thin("x", self.new, [1], "base", epoch=0xB1, iterations=200000)
        newer = self.disk(1, self.changed(self.new, 2))
        self.dirty(8)
        self.check(self.capture("--thin", image="y", base="x"), 0,
                   self.out(proved(0xB1), thin_end("y", 1, 2, 1), tracker_line(0xB2), "x"))
        self.check_thin("y", newer, [2], "x", epoch=0xB2, iterations=200000)
        self.disk(2, SIZE)
        run = self.kestrix("restore", "--in", "y", "--disk", "2", "--confirm", "YES")
        shown = progress(0, SIZE) + progress(SIZE, SIZE)
        self.check(run, 0, restoring_line("y", 2, 3, SIZE) + shown + "\n" + RESTORE_COMPLETE)
        self.assertTrue(self.disk_bytes(2) == newer)

    def write_chunk(self, disk, i):
        """The disk with that chunk changed, in the sight of the driver."""
        self.tracker.mark(i * CHUNK, 1)
        return self.disk(1, self.changed(disk, i))

    def test_a_write_during_a_capture_reaches_the_next_one(self):
        # Ahead of the attach it is this one's; ahead of the reading it is in both; behind that it is the next one's.
        for moment, isInBase, read in ((change_tracker.ATTACH, True, 0), (change_tracker.QUERY, True, 1),
                                       (change_tracker.COMMIT, False, 1)):
            with self.subTest(moment):
                self.tracker.remember(None, 0xB0, bytes(2))
                self.disk(1, self.old)
                self.tracker.before[moment] = lambda: self.write_chunk(self.old, 1)
                self.assertEqual(self.kestrix("capture", "--disk", "1", "--out", "base").status, 0)
                self.tracker.before.clear()
                self.check_image("base", self.changed(self.old, 1) if isInBase else self.old, epoch=0xB0)
                stored = [] if isInBase else [1]
                self.thin(thin_end("x", len(stored), 3 - len(stored), read), decision=proved(0xB0))
                self.check_thin("x", self.changed(self.old, 1), stored, "base", epoch=0xB1, iterations=200000)

    def test_what_a_failed_capture_was_told_is_told_again_under_a_new_epoch(self):
        self.base(epoch=0xA0)
        self.tracker.bitmap = bytes(2)
        disk = self.old
        for i in (0, 2):
            disk = self.write_chunk(disk, i)
            self.assertEqual(self.capture("--thin", image="no folder/x").status, 1)
            self.assertEqual(self.tracker.codes()[-1], change_tracker.QUERY)
        self.check(self.capture("--thin"), 0, self.out(proved(0xA0), thin_end("x", 2, 1, 2), tracker_line(0xB2)))
        self.check_thin("x", disk, [0, 2], "base", epoch=0xB2)
        self.check(self.capture("--thin", image="y", base="x"), 0,
                   self.out(proved(0xB2), thin_end("y", 0, 3, 0), tracker_line(0xB3), "x"))

    def test_a_write_that_was_lost_during_a_capture_spoils_the_next_proof(self):
        self.base(epoch=0xA0)
        self.dirty(4)
        self.tracker.before[change_tracker.COMMIT] = lambda: setattr(self.tracker, "gap", 1)
        self.thin(thin_end("x", 1, 2, 1))
        self.tracker.before.clear()
        self.check(self.capture("--thin", image="y", base="x"), 0,
                   self.out(unproved(GAP, True), thin_end("y", 0, 3, 3), tracker_line(0xB1, True), "x"))

    def test_the_first_reason_against_the_proof_is_given(self):
        gap = tracker_line(0xB0, True)
        for baseEpoch, previousEpoch, reason in ((0, None, NO_EPOCH), (0xA1, None, NO_PREVIOUS),
                                                 (0xA1, 0xA0, NOT_LATEST), (0xA0, 0xA0, GAP)):
            with self.subTest(reason):
                self.base(epoch=baseEpoch)
                self.tracker.remember(previousEpoch, 0xB0, gap=1)
                self.unproved_thin(reason, gap)

    def test_a_secondary_gap_spoils_the_proof_in_silence(self):
        self.base(epoch=0xA0)
        self.tracker.secondaryGap = 2
        self.unproved_thin(GAP)

    def test_an_unusable_tracker_is_the_first_reason(self):
        self.base(epoch=0xA0)
        self.tracker.active = 0
        self.check(self.capture("--thin"), 0, self.out(unproved(NO_DRIVER, True), thin_end("x", 1, 2, 3)))
        self.check_thin("x", self.new, [1], "base")

    def test_an_epoch_of_more_than_56_bits_never_proves_anything(self):
        self.base(epoch=5)
        self.tracker.remember(2**56 + 5, 2**56 + 6)
        self.unproved_thin(NOT_LATEST)
        self.base(epoch=5)
        self.tracker.remember(5, 6)
        self.dirty(4)
        self.thin(thin_end("x", 1, 2, 1), decision=proved(5))

    def test_an_image_whose_commit_failed_is_no_longer_the_latest(self):
        self.disk(1, self.old)
        self.tracker.commitError = 5
        self.assertEqual(self.kestrix("capture", "--disk", "1", "--out", "base").status, 0)
        self.disk(1, self.new)
        self.tracker.commitError = 0
        self.check(self.capture("--thin"), 0, self.out(unproved(NOT_LATEST, True), thin_end("x", 1, 2, 3),
                                                       tracker_line(0xB1)))
        self.check_thin("x", self.new, [1], "base", epoch=0xB1, iterations=200000)
