"""verify: the report on sound and damaged images, plain and sealed, full and thin, and the bytes that it covers."""
import os

from harness import MIB, MachineTest, progress, verify_failed, verify_text, verifying_line
from kestrix_image import flip_byte, make_chain, read_image, seeded_disk
from test_kestrix_image import SMALLEST_FULL, SMALLEST_THIN

CHUNK = 4096
TRUNCATED = "could not read chunk data - image is truncated"
TRUNCATED_BELOW = "could not read chunk data from image (truncated?)"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"
BAD_TAG = "chunk failed authentication (corrupt or tampered image)"


def hash_line(i, offset):
    return "\n  chunk %d (disk offset %d): HASH MISMATCH\n" % (i, offset)


def tag_line(i, offset):
    return "\n  chunk %d (disk offset %d): AUTHENTICATION FAILED (corrupt or tampered)\n" % (i, offset)


class Verify(MachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")
        self.content = seeded_disk(5 * CHUNK + 100, 1)
        self.size = len(self.content)

    def verify(self, name="a", password=None):
        return self.kestrix("verify", "--in", name, *(("--password-file", password) if password else ()))

    def check_failed(self, run, found, ends=True):
        """A run with one finding, behind chunk 0, and perhaps without the progress line of the last chunk."""
        last = progress(self.size, self.size) if ends else ""
        self.check(run, 1, verifying_line("a", 6, self.size) + progress(CHUNK, self.size) + found + last + "\n",
                   verify_failed(1, 6))

    def data_offset(self, count=6):
        return 64 + 72 * count

    def test_the_images_worked_out_by_hand_are_sound(self):
        self.file("a.kstx", SMALLEST_FULL)
        self.file("b.kstx", SMALLEST_THIN)
        self.check(self.verify("a.kstx"), 0, verify_text("a.kstx", 3, CHUNK))
        self.check(self.verify("b.kstx"), 0, verify_text("b.kstx", 3, CHUNK, "a.kstx"))

    def test_a_sound_plain_image_is_verified(self):
        self.image("a", self.content)
        self.check(self.verify(), 0, verify_text("a", self.size, CHUNK))

    def test_a_sound_sealed_image_is_verified_with_its_own_iteration_count(self):
        for count in (1, 2, 999, 5000):
            with self.subTest(count):
                self.image("a", self.content, b"secret", kdfIterations=count)
                self.check(self.verify(password="p"), 0, verify_text("a", self.size, CHUNK))

    def test_an_image_of_no_chunks_is_sound(self):
        self.image("a", b"")
        self.check(self.verify(), 0, verify_text("a", 0, CHUNK))

    def test_progress_is_shown_for_every_32nd_chunk_and_the_last(self):
        content = seeded_disk(70 * CHUNK, 2)
        self.image("a", content)
        self.check(self.verify(), 0, verify_text("a", len(content), CHUNK))

    def test_progress_counts_whole_mib(self):
        self.image("a", seeded_disk(1572864, 3), chunkSize=1572864)
        run = self.verify()
        self.check(run, 0, verify_text("a", 1572864, 1572864))
        self.assertIn(b"\r  100.00%  1 / 1 MiB  (", run.out)

    def test_any_chunk_size_and_sector_size_is_read(self):
        for chunkSize in (1, 7, 512, 4097, 1000000):
            with self.subTest(chunkSize):
                content = seeded_disk(2 * chunkSize + 1, chunkSize)
                self.image("a", content, chunkSize=chunkSize, sectorSize=520)
                self.check(self.verify(), 0, verify_text("a", len(content), chunkSize))

    def test_a_flipped_byte_of_a_plain_chunk_is_one_finding(self):
        for i in (1, 2, 4):
            for offset in (0, CHUNK - 1):
                with self.subTest((i, offset)):
                    self.image("a", self.content)
                    flip_byte(self.path("a"), self.data_offset() + i * CHUNK + offset)
                    self.check_failed(self.verify(), hash_line(i, i * CHUNK))

    def test_a_flipped_byte_in_the_first_and_in_the_last_chunk_is_one_finding(self):
        self.image("a", self.content)
        flip_byte(self.path("a"), self.data_offset())
        flip_byte(self.path("a"), self.data_offset() + self.size - 1)
        self.check(self.verify(), 1, verifying_line("a", 6, self.size) + hash_line(0, 0) + progress(CHUNK, self.size) +
                   hash_line(5, 5 * CHUNK) + progress(self.size, self.size) + "\n", verify_failed(2, 6))

    def test_a_flipped_byte_of_a_sealed_chunk_counts_once(self):
        self.image("a", self.content, b"secret")
        flip_byte(self.path("a"), self.data_offset() + 2 * CHUNK + 9)
        self.check_failed(self.verify(password="p"), tag_line(2, 2 * CHUNK))

    def test_a_bad_tag_of_the_last_chunk_leaves_out_its_progress(self):
        self.image("a", self.content, b"secret")
        flip_byte(self.path("a"), self.data_offset() + self.size - 1)
        self.check_failed(self.verify(password="p"), tag_line(5, 5 * CHUNK), ends=False)

    def test_a_changed_nonce_or_tag_fails_authentication(self):
        for start in (44, 55, 56, 71):
            with self.subTest(start):
                self.image("a", self.content, b"secret")
                flip_byte(self.path("a"), 64 + 72 * 3 + start)
                self.check_failed(self.verify(password="p"), tag_line(3, 3 * CHUNK))

    def test_a_changed_digest_is_a_mismatch_in_plain_and_sealed_images(self):
        for secret in (None, b"secret"):
            for byte in (12, 43):
                with self.subTest((secret, byte)):
                    self.image("a", self.content, secret)
                    flip_byte(self.path("a"), 64 + 72 * 3 + byte)
                    self.check_failed(self.verify(password="p"), hash_line(3, 3 * CHUNK))

    def test_a_wrong_password_fails_every_sealed_chunk(self):
        self.image("a", self.content, b"Secret")
        found = "".join(tag_line(i, i * CHUNK) for i in range(6))
        self.check(self.verify(password="p"), 1, verifying_line("a", 6, self.size) + found + "\n", verify_failed(6, 6))

    def test_the_disk_offset_is_printed_as_it_stands_and_not_tested(self):
        def move(record):
            record.table[2].diskOffset = 77

        self.image("a", self.content, edit=move)
        self.check(self.verify(), 0, verify_text("a", self.size, CHUNK))
        self.image("a", self.content, edit=lambda record: (move(record), setattr(record.table[2], "hash", bytes(32))))
        self.check_failed(self.verify(), hash_line(2, 77))

    def test_two_sealed_chunks_that_changed_places_with_their_entries_pass(self):
        def swap(record):
            first, second = record.table[1], record.table[3]
            first.hash, second.hash = second.hash, first.hash
            first.nonce, second.nonce = second.nonce, first.nonce
            first.tag, second.tag = second.tag, first.tag
            record.data[1], record.data[3] = record.data[3], record.data[1]

        self.image("a", self.content, b"secret", edit=swap)
        self.check(self.verify(password="p"), 0, verify_text("a", self.size, CHUNK))

    def test_a_file_cut_in_its_data_area_is_fatal_and_hides_the_findings_before(self):
        self.image("a", self.content)
        flip_byte(self.path("a"), self.data_offset() + CHUNK)
        os.truncate(self.path("a"), self.data_offset() + self.size - 1)
        self.check_fatal(self.verify(), TRUNCATED, 0, verifying_line("a", 6, self.size) +
                         progress(CHUNK, self.size) + hash_line(1, CHUNK))
        os.truncate(self.path("a"), self.data_offset())
        self.check_fatal(self.verify(), TRUNCATED, 0, verifying_line("a", 6, self.size))

    def test_bytes_behind_a_full_image_go_unnoticed(self):
        self.image("a", self.content, edit=lambda record: setattr(record, "tail", b"more"))
        self.check(self.verify(), 0, verify_text("a", self.size, CHUNK))

    def test_the_image_is_not_changed_by_verifying_it(self):
        self.image("a", self.content)
        os.chmod(self.path("a"), 0o444)
        before = self.file_bytes("a")
        self.assertEqual(self.verify().status, 0)
        self.assertEqual(self.file_bytes("a"), before)


class VerifyChains(MachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")
        self.old = seeded_disk(5 * CHUNK + 100, 1)
        self.new = self.old[:CHUNK] + b"\7" * CHUNK + self.old[2 * CHUNK:]
        self.size = len(self.old)
        self.head = verifying_line("thin", 6, self.size) + "  thin image: chain continues with base\n"

    def chain(self, baseSecret=None, thinSecret=None, new=None, baseEdit=None, thinEdit=None):
        self.base = self.image("base", self.old, baseSecret, edit=baseEdit)
        return self.image("thin", self.new if new is None else new, thinSecret, self.base, edit=thinEdit)

    def verify(self, name="thin"):
        return self.kestrix("verify", "--in", name, "--password-file", "p")

    def sound(self, name="thin", base="base"):
        self.check(self.verify(name), 0, verify_text(name, self.size, CHUNK, base))

    def test_every_mix_of_plain_and_sealed_levels_is_sound(self):
        for secrets in ((None, None), (b"secret", None), (None, b"secret"), (b"secret", b"secret")):
            with self.subTest(secrets):
                self.chain(*secrets)
                self.sound()

    def test_a_thin_image_that_changed_nothing_reads_all_from_its_base(self):
        self.chain(new=self.old)
        self.sound()

    def test_a_thin_image_that_changed_everything_still_opens_its_base(self):
        self.chain(new=seeded_disk(self.size, 8))
        self.sound()

    def test_a_long_chain_names_its_first_link_only(self):
        chain = make_chain(self.images, 7, lambda level: b"secret" if level in (0, 3) else None)
        self.check(self.verify("level06.kstx"), 0, verify_text("level06.kstx", len(chain[6].disk), CHUNK,
                                                               "level05.kstx"))

    def test_a_changed_chunk_stored_in_the_thin_image_is_a_finding(self):
        self.chain()
        flip_byte(self.path("thin"), 64 + 72 * 6)
        self.check(self.verify(), 1, self.head + progress(CHUNK, self.size) + hash_line(1, CHUNK) +
                   progress(self.size, self.size) + "\n", verify_failed(1, 6))

    def test_a_damaged_chunk_behind_a_reference_is_fatal(self):
        for secret, message in ((None, BAD_HASH), (b"secret", BAD_TAG)):
            with self.subTest(secret):
                self.chain(secret)
                flip_byte(self.path("base"), 64 + 72 * 6 + 3 * CHUNK)
                self.check_fatal(self.verify(), message, 0, self.head + progress(CHUNK, self.size))

    def test_a_damaged_chunk_that_the_thin_image_overrides_fails_the_base_alone(self):
        self.chain()
        flip_byte(self.path("base"), 64 + 72 * 6 + CHUNK)
        self.sound()
        self.check(self.verify("base"), 1, verifying_line("base", 6, self.size) + progress(CHUNK, self.size) +
                   hash_line(1, CHUNK) + progress(self.size, self.size) + "\n", verify_failed(1, 6))

    def test_a_reference_that_disagrees_with_a_sound_base_is_fatal(self):
        self.chain(thinEdit=lambda record: setattr(record.table[2], "hash", bytes(32)))
        self.check_fatal(self.verify(), BAD_HASH, 0, self.head + progress(CHUNK, self.size))

    def test_a_base_with_a_changed_digest_of_a_sealed_chunk_is_fatal(self):
        self.chain(b"secret", baseEdit=lambda record: setattr(record.table[2], "hash", bytes(32)),
                   thinEdit=lambda record: setattr(record.table[2], "hash", bytes(32)))
        self.check_fatal(self.verify(), BAD_HASH, 0, self.head + progress(CHUNK, self.size))

    def test_a_base_of_another_password_fails_at_the_first_chunk_fetched_from_it(self):
        self.chain(b"other")
        self.check_fatal(self.verify(), BAD_TAG, 0, self.head)
        self.new = seeded_disk(5 * CHUNK, 8) + self.old[5 * CHUNK:]
        self.chain(b"other")
        self.check_fatal(self.verify(), BAD_TAG, 0, self.head + progress(CHUNK, self.size))
        self.new = seeded_disk(self.size, 8)
        self.chain(b"other")
        self.sound()

    def test_a_base_cut_behind_its_table_serves_the_chunks_that_it_still_has(self):
        self.chain()
        os.truncate(self.path("base"), 64 + 72 * 6 + 4 * CHUNK)
        self.check_fatal(self.verify(), TRUNCATED_BELOW, 0, self.head + progress(CHUNK, self.size))
        self.new = self.old[:4 * CHUNK] + seeded_disk(self.size - 4 * CHUNK, 8)
        self.chain()
        os.truncate(self.path("base"), 64 + 72 * 6 + 4 * CHUNK)
        self.sound()

    def test_a_chunk_stored_in_the_middle_is_not_looked_for_below(self):
        base = self.image("base", self.old)
        middle = self.image("middle", self.new, base=base)
        self.image("thin", self.new, base=middle)
        flip_byte(self.path("base"), 64 + 72 * 6 + CHUNK)
        self.sound(base="middle")

    def test_a_reference_in_a_full_image_is_fatal(self):
        def hollow(record):
            record.table[1].storedLength = 0
            record.data[1] = b""

        self.image("thin", self.old, edit=hollow)
        self.check_fatal(self.verify(), "image has a thin chunk but no base image", 0,
                         verifying_line("thin", 6, self.size) + progress(CHUNK, self.size))

    def test_bytes_between_data_and_trailer_are_accepted(self):
        for gap in (b"x", bytes(5000)):
            with self.subTest(len(gap)):
                self.chain(thinEdit=lambda record, gap=gap: setattr(record, "gap", gap))
                self.sound()

    def test_the_reader_agrees_with_the_program_about_a_chain(self):
        chain = make_chain(self.images, 3)
        self.assertEqual(read_image(chain[2].path, chunkSize=CHUNK).disk(), chain[2].disk)
        self.assertEqual(self.verify("level02.kstx").status, 0)


class VerifyHugeDisks(MachineTest):
    def test_the_size_of_a_huge_disk_is_printed_in_full(self):
        def claim(record):
            record.header.diskSize = 3 * 1024 * 1024 * MIB + 5

        # The one chunk is shorter than such a disk demands, which is a finding of its own.
        self.image("a", b"abc", edit=claim)
        run = self.kestrix("verify", "--in", "a")
        self.assertEqual(run.status, 1)
        self.assertEqual(run.out.splitlines()[0], b"Verifying a  (1 chunks, 3072.00 GiB source disk)")
