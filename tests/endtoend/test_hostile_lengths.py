"""Stored lengths that no writer writes: each must end in a failed check or a short read, never in a crash.

A chunk of the named image whose stored length is not its length fails its own check. Behind a reference a longer one is
read whole and only the chunk's length of it is used, so that the check decides; a shorter one never passes.
"""
import hashlib

from harness import MIB, MachineTest, progress, restoring_line, verify_failed, verify_text, verifying_line
from kestrix_image import seeded_disk
from test_restore import aborted
from test_verify import BAD_HASH, BAD_TAG, TRUNCATED, TRUNCATED_BELOW, hash_line, tag_line

CHUNK = 4096
COUNT = 4
PRESENT = (1, 2, CHUNK - 1, CHUNK + 1, 2 * CHUNK, 100 * CHUNK)  # lengths whose bytes do stand in the file
BEYOND = (2**31 - 1, 2**31, 2**32 - 1)


class HostileLengths(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", b"secret")
        self.content = seeded_disk(COUNT * CHUNK, 1)
        self.size = len(self.content)
        self.first = progress(CHUNK, self.size)

    def damaged(self, name, length, secret, present=True, chunk=1):
        def edit(record):
            record.table[chunk].storedLength = length
            if present:
                record.data[chunk] = (record.data[chunk] + bytes(length))[:length]

        return self.image(name, self.content, secret, edit=edit)

    def each_case(self, lengths, check):
        for secret in (None, b"secret"):
            for length in lengths:
                with self.subTest(sealed=secret is not None, length=length):
                    check(secret, length)

    def verify(self, name):
        return self.kestrix("verify", "--in", name, "--password-file", "p")

    def restore(self, name):
        self.disk(1, self.size)
        return self.kestrix("restore", "--in", name, "--disk", "1", "--confirm", "YES", "--password-file", "p")

    def test_verify_counts_a_stored_chunk_of_a_wrong_length_as_one_bad_chunk(self):
        def check(secret, length):
            self.damaged("a", length, secret)
            found = tag_line(1, CHUNK) if secret else hash_line(1, CHUNK)
            self.check(self.verify("a"), 1, verifying_line("a", COUNT, self.size) + self.first + found +
                       progress(self.size, self.size) + "\n", verify_failed(1, COUNT))

        self.each_case(PRESENT, check)

    def test_verify_refuses_a_wrong_length_even_where_the_digest_of_those_bytes_is_right(self):
        for length in (1, CHUNK - 1, CHUNK + 1):
            with self.subTest(length):
                def edit(record, length=length):
                    entry = record.table[1]
                    entry.storedLength = length
                    record.data[1] = (record.data[1] + b"more")[:length]
                    entry.hash = hashlib.sha256(record.data[1]).digest()

                self.image("a", self.content, edit=edit)
                self.check(self.verify("a"), 1, verifying_line("a", COUNT, self.size) + self.first +
                           hash_line(1, CHUNK) + progress(self.size, self.size) + "\n", verify_failed(1, COUNT))
                self.check(self.restore("a"), 1, restoring_line("a", 1, COUNT, self.size) + self.first,
                           aborted("hash mismatch (corrupt image)", 1))

    def test_verify_of_a_length_beyond_the_file_finds_the_image_cut(self):
        def check(secret, length):
            self.damaged("a", length, secret, present=False)
            self.check_fatal(self.verify("a"), TRUNCATED, 0, verifying_line("a", COUNT, self.size) + self.first)

        self.each_case(BEYOND, check)

    def test_restore_stops_at_a_stored_chunk_of_a_wrong_length(self):
        def check(secret, length):
            self.damaged("a", length, secret)
            what = "failed authentication (corrupt/tampered image)" if secret else "hash mismatch (corrupt image)"
            self.check(self.restore("a"), 1, restoring_line("a", 1, COUNT, self.size) + self.first, aborted(what, 1))
            self.assertEqual(self.disk_bytes(1), self.content[:CHUNK] + bytes(self.size - CHUNK))

        self.each_case(PRESENT, check)

    def test_restore_of_a_length_beyond_the_file_finds_the_image_cut(self):
        def check(secret, length):
            self.damaged("a", length, secret, present=False)
            self.check_fatal(self.restore("a"), "could not read chunk data from image - restore aborted, target disk "
                                                "left partially written", 0,
                             restoring_line("a", 1, COUNT, self.size) + self.first)
            self.assertEqual(self.disk_bytes(1), self.content[:CHUNK] + bytes(self.size - CHUNK))

        self.each_case(BEYOND, check)

    def chain(self, secret, length, level, present=True):
        """Three levels, of which the given one stores chunk 1 with a wrong length and those above refer to it."""
        def edit(record):
            record.table[1].storedLength = length
            if present:
                record.data[1] = (record.data[1] + b"x" * length)[:length]

        older = self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:]
        base = self.image("level0", older if level else self.content, secret, edit=None if level else edit)
        middle = self.image("level1", self.content, secret, base, edit=edit if level else None)
        self.image("level2", self.content, secret, middle)

    def fetched(self, secret, length, level, present=True):
        self.chain(secret, length, level, present=present)
        return self.verify("level2")

    def head(self):
        return verifying_line("level2", COUNT, self.size) + "  thin image: chain continues with level1\n"

    def test_a_longer_chunk_behind_a_reference_gives_its_first_bytes(self):
        def check(secret, length):
            for level in (0, 1):
                run = self.fetched(secret, length, level)
                self.check(run, 0, verify_text("level2", self.size, CHUNK, "level1"))

        self.each_case([length for length in PRESENT if length > CHUNK], check)

    def test_a_longer_chunk_behind_a_reference_is_still_checked(self):
        def check(secret, length):
            def edit(record):
                record.table[1].storedLength = length
                record.data[1] = b"x" + record.data[1]

            base = self.image("level0", self.content, secret, edit=edit)
            self.image("level2", self.content, secret, self.image("level1", self.content, secret, base))
            self.check_fatal(self.verify("level2"), BAD_TAG if secret else BAD_HASH, 0, self.head() + self.first)

        self.each_case([CHUNK + 1], check)

    def test_a_shorter_chunk_behind_a_reference_fails_its_check(self):
        def check(secret, length):
            for level in (0, 1):
                run = self.fetched(secret, length, level)
                self.check_fatal(run, BAD_TAG if secret else BAD_HASH, 0, self.head() + self.first)

        self.each_case([length for length in PRESENT if length < CHUNK], check)

    def test_a_shorter_chunk_never_passes_even_if_zeros_would_complete_it(self):
        # All chunks are zeros, and so may be what lies in memory behind the bytes that were read.
        for chunkSize, length in ((CHUNK, 5), (CHUNK, CHUNK - 1), (2**20 - 1000, 2**20 - 1100)):
            with self.subTest((chunkSize, length)):
                def edit(record, length=length):
                    record.table[1].storedLength = length
                    record.data[1] = bytes(length)

                zeros = bytes(3 * chunkSize)
                base = self.image("level0", zeros, edit=edit, chunkSize=chunkSize)
                self.image("level2", zeros, base=base, chunkSize=chunkSize)
                self.check_fatal(self.verify("level2"), BAD_HASH, 0, verifying_line("level2", 3, len(zeros)) +
                                 "  thin image: chain continues with level0\n" + progress(chunkSize, len(zeros)))

    def test_a_length_beyond_the_file_behind_a_reference_finds_the_image_cut(self):
        def check(secret, length):
            run = self.fetched(secret, length, 0, present=False)
            self.check_fatal(run, TRUNCATED_BELOW, 0, self.head() + self.first)

        self.each_case(BEYOND, check)

    def test_restore_stops_at_a_shorter_chunk_behind_a_reference(self):
        def check(secret, length):
            self.chain(secret, length, 0)
            self.check_fatal(self.restore("level2"), BAD_TAG if secret else BAD_HASH, 0,
                             restoring_line("level2", 1, COUNT, self.size) + progress(0, self.size))
            self.assertEqual(self.disk_bytes(1)[CHUNK:], bytes(self.size - CHUNK))

        self.each_case([1, CHUNK - 1], check)

    def test_a_last_chunk_of_a_wrong_length_fails(self):
        self.content = seeded_disk(COUNT * CHUNK - 1000, 2)
        self.size = len(self.content)

        def check(secret, length):
            self.damaged("a", length, secret, chunk=COUNT - 1)
            run = self.verify("a")
            self.assertEqual((run.status, run.err.decode()), (1, verify_failed(1, COUNT)))
            self.assertIn((tag_line if secret else hash_line)(COUNT - 1, (COUNT - 1) * CHUNK).encode(), run.out)
            what = "failed authentication (corrupt/tampered image)" if secret else "hash mismatch (corrupt image)"
            run = self.restore("a")
            self.assertEqual((run.status, run.err.decode()), (1, aborted(what, COUNT - 1)))

        self.each_case((CHUNK - 999, CHUNK - 1001, CHUNK, 3), check)

    def test_a_chunk_count_that_does_not_fit_the_disk_size_does_not_crash(self):
        # The disk ends before the last chunk begins, or in the middle of an earlier one.
        for size in (0, 1, CHUNK, 2 * CHUNK + 5, 2**64 - 1):
            for secret in (None, b"secret"):
                with self.subTest((size, secret)):
                    self.image("a", self.content, secret,
                               edit=lambda record, size=size: setattr(record.header, "diskSize", size))
                    self.assertIn(self.verify("a").status, (0, 1))

    def test_a_chunk_size_of_zero_or_of_4_gib_does_not_crash(self):
        for chunkSize in (0, 1, 2**32 - 1):
            with self.subTest(chunkSize):
                self.image("a", self.content,
                           edit=lambda record, chunkSize=chunkSize: setattr(record.header, "chunkSize", chunkSize))
                self.assertEqual(self.verify("a").status, 1)

    def test_a_size_that_the_file_does_not_hold_costs_no_memory(self):
        self.damaged("stored", 2**32 - 1, None, present=False)
        self.chain(None, 2**32 - 1, 0, present=False)
        self.image("chunk", self.content, edit=lambda record: setattr(record.header, "chunkSize", 2**32 - 1))
        self.image("count", self.content, edit=lambda record: setattr(record.header, "chunkCount", 20000000))
        for name in ("stored", "level2", "chunk", "count"):
            with self.subTest(name):
                self.assertLess(self.peak_memory("verify", "--in", name, status=1), 1000 * MIB)
