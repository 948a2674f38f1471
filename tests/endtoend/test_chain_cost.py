"""What a capture with a base and a long chain cost: bytes read, bytes kept, processor time and memory.

A disk of 2 GiB on a loop device, whose chunks differ from one another and whose backing file is sparse, is captured
against a base that holds it; the figures of each run are printed. The bytes read of the disk are those that its device
counted; those that the kernel counted for the process are images and shared libraries, and of the disk what was not
read ahead.
"""
import hashlib
import os
import random

import harness
from change_tracker import attach_to
from harness import MIB, MachineTest, is_sanitized
from kestrix_image import (ENTRY, FULL, HEADER, IMAGE_MAGIC, THIN, TRAILER_MAGIC, ZERO_NONCE, ZERO_SALT, ZERO_TAG,
                           Header, Trailer, decode_header, decode_table, decode_trailer, image_id, make_chain)
from test_thin import thin_end
from tracked_disk import CHUNK, show

SIZE = 2048 * MIB
COUNT = SIZE // CHUNK
MARK = 4096  # bytes at the end of each chunk that are its own; the others are zero
CHANGED = (0, 99, 100, 255, 511)  # one chunk in a hundred
A_LITTLE = 256 * 1024  # bytes read beyond disk and tables: libraries, the driver's answer, what a sanitizer looks at
CPU_LIMIT = 0.1  # seconds
FIXED_MEMORY, MEMORY_PER_ENTRY = 32 * MIB, 160


def digest_of_marked(length, marks):
    """The digests of chunks that are zeros but for their last bytes."""
    zeros = hashlib.sha256(bytes(length - MARK))
    digests = []
    for mark in marks:
        digest = zeros.copy()
        digest.update(mark)
        digests.append(digest.digest())
    return digests


def write_sparse(path, head, offsets, marks, size):
    with open(path, "wb") as file:
        file.write(head)
        for offset, mark in zip(offsets, marks):
            file.seek(offset)
            file.write(mark)
        file.truncate(size)


def plain_entry(i, chunkSize, storedLength, digest):
    return ENTRY.pack(i * chunkSize, storedLength, digest, ZERO_NONCE, ZERO_TAG)


def plain_header(version, size, chunkSize, epoch=0):
    return Header(IMAGE_MAGIC, version, size, 512, chunkSize, size // chunkSize, 0, epoch, ZERO_SALT, 0).encode()


class CostTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()

    def measured(self, *arguments, status=0):
        run = super().measured(*arguments, status=status)
        self.assertEqual(run["err"] == b"", status == 0, run["err"])
        return run

    def check_memory(self, what, run, entries):
        """entries: the chunks of the disk times the images of the chain."""
        limit = FIXED_MEMORY + MEMORY_PER_ENTRY * entries
        show(f"{what}: {run['memory'] / MIB:.1f} MiB of memory, at most {limit / MIB:.1f}")
        if not is_sanitized():
            self.assertLessEqual(run["memory"], limit, what)


class ThinCaptureOf2GiB(CostTest):
    def fill(self):
        """The base image and the disk that it holds."""
        chance = random.Random(5)
        self.marks = [chance.randbytes(MARK) for _ in range(COUNT)]
        self.digests = digest_of_marked(CHUNK, self.marks)
        head = plain_header(FULL, SIZE, CHUNK, epoch=0xA0)
        head += b"".join(plain_entry(i, CHUNK, CHUNK, digest) for i, digest in enumerate(self.digests))
        self.pin = image_id(head)
        ends = [(i + 1) * CHUNK - MARK for i in range(COUNT)]
        write_sparse(self.path("base"), head, [len(head) + end for end in ends], self.marks, len(head) + SIZE)
        backing = os.path.join(self.folder, "backing")
        write_sparse(backing, b"", ends, self.marks, SIZE)
        self.loop = self.loop_device(backing)
        self.link_disk(1, self.loop)
        self.tables = len(head)

    def change(self):
        """One chunk in a hundred gets new bytes."""
        chance = random.Random(6)
        with open(self.disk_path(1), "r+b") as file:
            for i in CHANGED:
                self.marks[i] = chance.randbytes(MARK)
                file.seek((i + 1) * CHUNK - MARK)
                file.write(self.marks[i])
            os.fsync(file.fileno())
        self.digests = digest_of_marked(CHUNK, self.marks)
        self.must("blockdev", "--flushbufs", self.disk_path(1))

    def track(self, changed):
        tracker = attach_to(self)
        bitmap = bytearray(COUNT * 4 // 8)
        for i in changed:
            bitmap[(4 * i + 3) // 8] |= 1 << (4 * i + 3) % 8
        tracker.remember(0xA0, 0xB0, bytes(bitmap))
        return tracker

    def bytes_of_disk(self):
        """What has been read of the disk since its device was made."""
        with open(f"/sys/class/block/{os.path.basename(self.loop)}/stat", encoding="ascii") as file:
            return int(file.read().split()[2]) * 512

    def thin(self, what, stored, read, needless=0):
        """A thin capture that stores these chunks and asks for so many of the disk; gives its figures. needless: chunks
        that were read ahead and then not asked for."""
        before = self.bytes_of_disk()
        run = self.measured("capture", "--disk", "1", "--out", "x", "--base", "base", "--thin")
        self.assertTrue(run["out"].endswith(thin_end("x", len(stored), COUNT - len(stored), read)), run["out"])
        size = os.path.getsize(self.path("x"))
        self.assertEqual(size, self.tables + len(stored) * CHUNK + 48 + len("base"))
        of_disk = self.bytes_of_disk() - before
        show(f"{what}: read {of_disk / MIB:.1f} MiB of the disk, wrote {size} bytes, "
             f"{run['cpu']:.3f} s of processor time")
        # No chunk more than the report admits, the base's table, and no chunk of the base.
        self.assertEqual(of_disk, (read + needless) * CHUNK)
        self.assertGreaterEqual(run["rchar"], self.tables)
        self.assertLess(run["rchar"], read * CHUNK + self.tables + A_LITTLE)
        self.check_memory(what, run, 2 * COUNT)
        self.check_thin_file(stored, 0xB0 if "tracker" in what else 0)
        return run

    def check_thin_file(self, stored, epoch):
        with open(self.path("x"), "rb") as file:
            header = file.read(HEADER.size)
            table = decode_table(file.read(COUNT * ENTRY.size))
            for i in stored:
                self.assertEqual(file.read(CHUNK), bytes(CHUNK - MARK) + self.marks[i])
            trailer = decode_trailer(file.read())
        self.assertEqual(header, plain_header(THIN, SIZE, CHUNK, epoch))
        self.assertEqual([(entry.diskOffset, entry.storedLength, entry.hash, entry.nonce, entry.tag)
                          for entry in table],
                         [(i * CHUNK, CHUNK * (i in stored), self.digests[i], ZERO_NONCE, ZERO_TAG)
                          for i in range(COUNT)])
        self.assertEqual((trailer.baseName, trailer.basePin), (b"base", self.pin))

    @harness.needs(harness.why_no_loop_devices)
    def test_an_unchanged_disk_with_a_tracker_is_not_read_and_takes_no_time(self):
        self.fill()
        self.track(())
        run = self.thin("unchanged, tracker", (), 0)
        if not is_sanitized():
            self.assertLess(run["cpu"], CPU_LIMIT)

    @harness.needs(harness.why_no_loop_devices)
    def test_an_unchanged_disk_without_a_tracker_is_read_once_and_not_stored(self):
        self.fill()
        self.thin("unchanged, nobody watched", (), COUNT)

    @harness.needs(harness.why_no_loop_devices)
    def test_one_changed_chunk_in_a_hundred_is_what_is_stored_and_with_a_tracker_what_is_read(self):
        self.fill()
        self.change()
        self.thin("1 % changed, nobody watched", CHANGED, COUNT)
        self.track(CHANGED)
        # Two of them are neighbours, which promises a third.
        self.thin("1 % changed, tracker", CHANGED, len(CHANGED), needless=1)


class Memory(CostTest):
    def test_a_proved_thin_capture_of_1_tib_needs_its_tables_alone(self):
        size = 1024 * 1024 * MIB
        count = size // CHUNK
        self.disk(1, size)
        digest = hashlib.sha256(bytes(CHUNK)).digest()
        head = plain_header(FULL, size, CHUNK, epoch=0xA0)
        head += b"".join(plain_entry(i, CHUNK, CHUNK, digest) for i in range(count))
        write_sparse(self.path("base"), head, (), (), len(head) + size)
        tracker = attach_to(self)
        tracker.remember(0xA0, 0xB0, bytes(count * 4 // 8))
        run = self.measured("capture", "--disk", "1", "--out", "x", "--base", "base", "--thin")
        self.assertTrue(run["out"].endswith(thin_end("x", 0, count, 0)))
        self.assertLess(run["rchar"], len(head) + len(tracker.bitmap) + A_LITTLE)
        show(f"1 TiB unchanged, tracker: {run['cpu']:.3f} s of processor time")
        self.check_memory("1 TiB, thin capture", run, 2 * count)
        with open(self.path("x"), "rb") as file:
            self.assertEqual(decode_header(file.read(HEADER.size)).version, THIN)
            file.seek(HEADER.size + (count - 1) * ENTRY.size)
            self.assertEqual(file.read(ENTRY.size), plain_entry(count - 1, CHUNK, 0, digest))

    def long_chain(self, levels, count, chunkSize):
        """Plain images level0, level1, ... of which each changes a few chunks of the one below; gives the disk."""
        chance = random.Random(7)
        chunks = [chance.randbytes(chunkSize) for _ in range(count)]
        table = [plain_entry(i, chunkSize, chunkSize, hashlib.sha256(chunk).digest()) for i, chunk in enumerate(chunks)]
        stored, trailer = range(count), b""
        for level in range(levels):
            head = plain_header(THIN if level else FULL, count * chunkSize, chunkSize) + b"".join(table)
            self.file(f"level{level}", head + b"".join(chunks[i] for i in stored) + trailer)
            name = b"level%d" % level
            trailer = Trailer(TRAILER_MAGIC, len(name), name, image_id(head), len(name) + 48).encode()
            for i in stored:
                table[i] = plain_entry(i, chunkSize, 0, table[i][12:44])
            stored = sorted(chance.sample(range(count), 16))
            for i in stored if level + 1 < levels else ():
                chunks[i] = chance.randbytes(chunkSize)
                table[i] = plain_entry(i, chunkSize, chunkSize, hashlib.sha256(chunks[i]).digest())
        return b"".join(chunks)

    def check_readers(self, what, top, content, levels, count, *secret):
        self.disk(1, b"\xEE" * len(content))
        for command, *more in (("verify",), ("restore", "--disk", "1", "--confirm", "YES"),
                               ("consolidate", "--out", "plain"), ("consolidate", "--out", "sealed", "--encrypt")):
            run = self.measured(command, "--in", top, *more, *secret)
            self.check_memory(f"{what}, {command}{' sealed' * ('--encrypt' in more)}", run, levels * count)
        self.assertTrue(self.disk_bytes(1) == content, "another disk was restored")
        data = self.file_bytes("plain")
        self.assertTrue(data[HEADER.size + count * ENTRY.size:] == content, "another disk was consolidated")

    def test_the_readers_of_65_images_need_their_tables_alone(self):
        self.file("p", b"secret\n")
        content = self.long_chain(65, 4096, 4096)
        self.check_readers("65 images of 4096 chunks", "level64", content, 65, 4096, "--password-file", "p")

    def test_a_loop_keeps_the_table_of_each_of_its_65_levels(self):
        count, perEntry = 20000, 5300
        head = plain_header(THIN, 512 * count, 512)
        entries = b"".join(plain_entry(i, 512, 0, bytes(32)) for i in range(count))
        self.file("loop", head + entries + Trailer(TRAILER_MAGIC, 4, b"loop", bytes(32), 52).encode())
        self.check_fatal(self.kestrix("verify", "--in", "loop"), "image chain is too deep (or loops back on itself)",
                         None)
        peak = self.peak_memory("verify", "--in", "loop", status=1)
        show(f"a loop of {count} entries: {peak / MIB:.1f} MiB of memory")
        if not is_sanitized():
            self.assertGreater(peak, 0.95 * perEntry * count)
            self.assertLess(peak, FIXED_MEMORY + perEntry * count)

    def test_chunks_of_4_mib_take_the_same_buffers_in_every_reader(self):
        self.file("p", b"secret\n")
        chain = make_chain(self.images, 3, lambda level: b"secret" if level else None, chunks=4, chunkSize=CHUNK)
        self.check_readers("3 images of 4 chunks of 4 MiB", "level02.kstx", chain[-1].disk, 3, 4,
                           "--password-file", "p")
