"""restore: the ladder of refusals, the disk that results, and what stands on the target after a failure."""
import os

from harness import (LARGER_NOTE, RESTORE_COMPLETE, MachineTest, capture_text, gib, not_exclusive, progress,
                     restore_text, restoring_line)
from kestrix_image import flip_byte, make_chain, seeded_disk

CHUNK = 4096
OLD = 0xEE
NOT_CONFIRMED = "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n"


def is_system_disk(disk):
    return ("Refusing: PhysicalDrive%d is the disk this copy of Windows is currently running from.\n"
            "A live raw write to your own booted system disk cannot be made safe - boot from\n"
            "separate media (Windows Recovery/PE) and run kestrix restore from there instead.\n" % disk)


def too_small(disk, target, source):
    return "Refusing: target disk %d is %s, smaller than the image's %s source.\n" % (disk, gib(target), gib(source))


def aborted(what, i):
    return "\nFATAL: chunk %d %s - restore aborted, target disk left partially written.\n" % (i, what)


class Restore(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret\n")
        self.content = seeded_disk(5 * CHUNK + 512, 1)
        self.size = len(self.content)
        self.disk(1, bytes([OLD]) * self.size)

    def restore(self, image="a", *more, disk=1, confirm="YES"):
        return self.kestrix("restore", "--in", image, "--disk", str(disk), "--confirm", confirm, *more)

    def restored(self, image="a", content=None):
        content = self.content if content is None else content
        self.check(self.restore(image, "--password-file", "p"), 0, restore_text(image, 1, len(content), CHUNK))
        self.assertEqual(self.disk_bytes(1), content)

    def untouched(self, size=None):
        self.assertEqual(self.disk_bytes(1), bytes([OLD]) * (self.size if size is None else size))

    def written_up_to(self, i):
        """Chunks before i hold the image's content, the rest of the target what it held."""
        done = i * CHUNK
        self.assertEqual(self.disk_bytes(1), self.content[:done] + bytes([OLD]) * (self.size - done))

    # The ladder

    def test_the_system_disk_is_refused_before_anything_else_is_looked_at(self):
        os.unlink(self.device("C:"))
        self.volume_c(1)
        for confirm in ("YES", "no"):
            self.check(self.restore("missing", confirm=confirm), 1, "", is_system_disk(1))
        self.untouched()

    def test_without_a_volume_c_the_run_ends_before_any_other_test(self):
        os.unlink(self.device("C:"))
        self.check_fatal(self.restore("missing", confirm="no"),
                         "could not open C: to determine the system disk number", 2)
        self.untouched()

    def test_without_confirmation_the_image_is_not_looked_at(self):
        for confirm in ("yes", "NO", ""):
            self.check(self.restore("missing", confirm=confirm), 1, "", NOT_CONFIRMED)
        self.untouched()

    def test_the_image_and_its_chain_are_opened_before_the_target(self):
        self.check_fatal(self.restore("missing", disk=9), "could not open image file", 2,
                         first="could not open image file: missing\n")
        self.image("a", self.content, b"secret")
        self.check_fatal(self.restore("a", disk=9), "this image is encrypted - pass --password-file", 0)
        self.image("thin", self.content, base=self.image("base", self.content))
        os.unlink(self.path("base"))
        self.check_fatal(self.restore("thin", disk=9), "base image of a thin image not found", 2,
                         first="This is a thin (incremental) image; its base image is missing: base\n"
                               "Keep every image of a chain in the same folder.\n")
        self.untouched()

    def test_a_target_that_does_not_exist_is_refused_with_its_number_twice(self):
        self.image("a", self.content)
        self.check(self.restore(disk=23), 1, "", not_exclusive(23, 2))

    def test_what_is_no_disk_does_not_open_as_a_target(self):
        self.image("a", self.content)
        os.mkdir(self.disk_path(24))
        os.symlink("nothing", self.disk_path(25))
        for disk in (24, 25):
            self.check(self.restore(disk=disk), 1, "", not_exclusive(disk, 2))
        self.assertFalse(os.path.exists(self.device("nothing")))

    def test_a_target_one_byte_too_small_is_refused_untouched(self):
        self.image("a", self.content)
        self.disk(1, bytes([OLD]) * (self.size - 1))
        self.check(self.restore(), 1, "", too_small(1, self.size - 1, self.size))
        self.untouched(self.size - 1)

    def test_the_refusal_of_a_small_target_shows_both_sizes(self):
        def claim(record):
            record.header.diskSize = 5 * 2**30

        self.image("a", self.content, edit=claim)
        self.disk(1, 3 * 2**30 + 2**29)
        self.check(self.restore(), 1, "", "Refusing: target disk 1 is 3.50 GiB, smaller than the image's 5.00 GiB "
                                          "source.\n")

    def test_a_target_one_byte_larger_gets_the_note_and_keeps_its_last_byte(self):
        self.image("a", self.content)
        self.disk(1, bytes([OLD]) * (self.size + 1))
        self.check(self.restore(), 0, restore_text("a", 1, self.size, CHUNK, LARGER_NOTE))
        self.assertEqual(self.disk_bytes(1), self.content + bytes([OLD]))

    # The disk that results

    def test_a_plain_image_is_restored(self):
        self.image("a", self.content)
        self.restored()

    def test_a_sealed_image_is_restored(self):
        self.image("a", self.content, b"secret")
        self.restored()

    def test_an_image_of_another_sector_size_is_restored(self):
        self.image("a", self.content, sectorSize=4096)
        self.restored()

    def test_a_disk_of_odd_length_is_restored_to_its_last_byte(self):
        for secret in (None, b"secret"):
            with self.subTest(secret):
                self.content = seeded_disk(5 * CHUNK + 77, 2)
                self.disk(1, bytes([OLD]) * len(self.content))
                self.image("a", self.content, secret)
                self.restored()

    def test_an_image_of_no_chunks_is_restored_over_an_empty_disk(self):
        self.disk(1, b"")
        self.image("a", b"")
        self.check(self.restore(), 0, restoring_line("a", 1, 0, 0) + "\n" + RESTORE_COMPLETE)

    def test_what_was_captured_is_restored_byte_for_byte(self):
        content = seeded_disk(9 * 2**20 + 512, 3)
        for seal in ((), ("--encrypt", "--password-file", "p")):
            with self.subTest(seal):
                self.disk(2, content)
                self.check(self.kestrix("capture", "--disk", "2", "--out", "x", *seal), 0,
                           capture_text(2, len(content), "x"))
                self.check_image("x", content, b"secret" if seal else None)
                self.disk(1, bytes([OLD]) * len(content))
                self.check(self.restore("x", *seal[1:]), 0, restore_text("x", 1, len(content), 4 * 2**20))
                self.assertEqual(self.disk_bytes(1), content)

    def test_a_thin_image_is_restored_with_what_its_chain_holds(self):
        chain = make_chain(self.images, 6, lambda level: b"secret" if level % 2 else None)
        content = chain[5].disk
        self.disk(1, bytes([OLD]) * len(content))
        # The last chunk is a reference here: the line then shows where that chunk begins.
        self.assertEqual([entry.storedLength for entry in chain[5].record.table], [0, CHUNK, 0, 0])
        shown = progress(0, len(content)) + progress(3 * CHUNK, len(content))
        self.check(self.restore("level05.kstx", "--password-file", "p"), 0,
                   restoring_line("level05.kstx", 1, 4, len(content)) + shown + "\n" + RESTORE_COMPLETE)
        self.assertEqual(self.disk_bytes(1), content)

    def test_a_chunk_goes_where_its_entry_says(self):
        def swap(record):
            first, second = record.table[1], record.table[3]
            first.diskOffset, second.diskOffset = second.diskOffset, first.diskOffset

        self.image("a", self.content, edit=swap)
        chunks = [self.content[i * CHUNK:(i + 1) * CHUNK] for i in range(6)]
        self.restored(content=b"".join([chunks[0], chunks[3], chunks[2], chunks[1], chunks[4], chunks[5]]))

    def test_progress_is_shown_for_every_32nd_chunk_and_the_last(self):
        self.content = seeded_disk(65 * CHUNK, 4)
        self.disk(1, len(self.content))
        self.image("a", self.content)
        self.restored()

    # Failures on the way

    def begun(self, shown=True):
        return restoring_line("a", 1, 6, self.size) + (progress(CHUNK, self.size) if shown else "")

    def test_a_damaged_plain_chunk_stops_behind_the_chunks_before_it(self):
        for i in (0, 3, 5):
            with self.subTest(i):
                self.disk(1, bytes([OLD]) * self.size)
                self.image("a", self.content)
                flip_byte(self.path("a"), 64 + 72 * 6 + i * CHUNK)
                self.check(self.restore(), 1, self.begun(i > 0), aborted("hash mismatch (corrupt image)", i))
                self.written_up_to(i)

    def test_a_damaged_sealed_chunk_stops_at_its_tag(self):
        self.image("a", self.content, b"secret")
        flip_byte(self.path("a"), 64 + 72 * 6 + 2 * CHUNK)
        self.check(self.restore("a", "--password-file", "p"), 1, self.begun(),
                   aborted("failed authentication (corrupt/tampered image)", 2))
        self.written_up_to(2)

    def test_a_wrong_password_writes_nothing(self):
        self.image("a", self.content, b"other")
        self.check(self.restore("a", "--password-file", "p"), 1, self.begun(False),
                   aborted("failed authentication (corrupt/tampered image)", 0))
        self.untouched()

    def test_a_changed_digest_of_a_sealed_chunk_goes_unnoticed(self):
        self.image("a", self.content, b"secret", edit=lambda record: setattr(record.table[2], "hash", bytes(32)))
        self.restored()

    def test_a_cut_image_stops_at_the_first_chunk_that_is_not_whole(self):
        self.image("a", self.content)
        os.truncate(self.path("a"), 64 + 72 * 6 + 4 * CHUNK + 1)
        self.check_fatal(self.restore(), "could not read chunk data from image - restore aborted, target disk left "
                                         "partially written", 0, self.begun())
        self.written_up_to(4)

    def test_a_bad_chunk_behind_a_reference_ends_in_the_words_of_the_chain(self):
        base = self.image("base", self.content)
        self.image("a", self.content, base=base)
        flip_byte(self.path("base"), 64 + 72 * 6 + 3 * CHUNK)
        self.check_fatal(self.restore(), "chunk failed its hash check (corrupt image or base)", 0,
                         restoring_line("a", 1, 6, self.size) + progress(0, self.size))
        self.written_up_to(3)

    def moved(self, offset):
        self.disk(1, bytes([OLD]) * self.size)
        self.image("a", self.content, edit=lambda record: setattr(record.table[4], "diskOffset", offset))
        return self.restore()

    def test_a_disk_offset_beyond_the_target_fails_and_does_not_grow_the_disk(self):
        for offset in (self.size - CHUNK + 1, self.size, self.size + CHUNK, 2**62, 2**63 - 1):
            with self.subTest(offset):
                self.check_fatal(self.moved(offset), "WriteFile to target disk failed mid-restore - target disk left "
                                                     "partially written, do not boot it yet", None, self.begun())
                self.assertEqual(len(self.disk_bytes(1)), self.size)
                self.assertEqual(self.disk_bytes(1)[:4 * CHUNK], self.content[:4 * CHUNK])

    def test_a_disk_offset_that_is_no_position_leaves_the_position_where_it_was(self):
        for offset in (2**63, 2**64 - CHUNK):
            with self.subTest(offset):
                self.assertEqual(self.moved(offset).status, 0)
                self.assertEqual(self.disk_bytes(1), self.content)
