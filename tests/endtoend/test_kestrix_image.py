"""The independent reader and writer themselves, against bytes and numbers that were worked out by hand."""
import os
import tempfile
import unittest

from kestrix_image import FULL, THIN, ImageFault, make_chain, make_image, read_image, seeded_disk

# A disk of the three bytes "abc" in one chunk. The digest is the published one of that text.
SMALLEST_FULL = bytes.fromhex(
    "4b53545844534b32 02000000 0300000000000000 00020000 00100000 0100000000000000 00 00000000000000"
    "00000000000000000000000000000000 00000000"
    "0000000000000000 03000000 ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
    "000000000000000000000000 00000000000000000000000000000000"
    "616263")
# The same disk as a thin image whose one chunk lies in the image above, there named a.kstx. The pin is what sha256sum
# says of that image's first 136 bytes.
SMALLEST_THIN = bytes.fromhex(
    "4b53545844534b32 03000000 0300000000000000 00020000 00100000 0100000000000000 00 00000000000000"
    "00000000000000000000000000000000 00000000"
    "0000000000000000 00000000 ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
    "000000000000000000000000 00000000000000000000000000000000"
    "4b53545842415345 06000000 612e6b737478"
    "a55869cdb278990f138e5c7f9907a684eef980b541d1a1ca5c2f3a8d8bbb3a27 36000000")
MIB = 1024 * 1024


class ReaderAndWriter(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrix-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def bytes_of(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def make(self, name, *arguments, **options):
        return make_image(self.path(name), *arguments, **options)

    def refused(self, edit, text, disk=bytes(9000), password=None, base=None, **options):
        self.make("refused", disk, password, base, edit=edit)
        with self.assertRaisesRegex(ImageFault, text):
            read_image(self.path("refused"), password, **{"kdfIterations": 1000, "chunkSize": 4096, **options}).disk()

    def test_the_smallest_full_image_has_the_bytes_worked_out_by_hand(self):
        self.make("a.kstx", b"abc")
        self.assertEqual(self.bytes_of("a.kstx"), SMALLEST_FULL)
        self.assertEqual(read_image(self.path("a.kstx"), chunkSize=4096).disk(), b"abc")

    def test_the_smallest_thin_image_has_the_bytes_worked_out_by_hand(self):
        base = self.make("a.kstx", b"abc")
        self.make("b.kstx", b"abc", base=base)
        self.assertEqual(self.bytes_of("b.kstx"), SMALLEST_THIN)
        self.assertEqual(read_image(self.path("b.kstx"), chunkSize=4096).disk(), b"abc")

    def test_a_disk_of_10_mib_has_the_offsets_of_the_worked_example(self):
        disk = seeded_disk(10 * MIB, 1)
        base = self.make("a.kstx", disk, chunkSize=4 * MIB)
        full = read_image(base.path)
        self.assertEqual((full.header.chunkCount, full.header.chunkSize), (3, 4194304))
        self.assertEqual(full.offsets, [280, 4194584, 8388888])
        self.assertEqual(full.table[2].storedLength, 2097152)
        self.assertEqual((full.dataEnd, os.path.getsize(base.path)), (10486040, 10486040))
        changed = b"\1" * 4 * MIB + disk[4 * MIB:8 * MIB] + b"\2" * 2 * MIB
        thin = read_image(self.make("b.kstx", changed, base=base, chunkSize=4 * MIB).path)
        self.assertEqual(thin.offsets, [280, 4194584, 4194584])
        self.assertEqual(thin.dataEnd, 6291736)
        self.assertEqual(thin.trailer.totalLength, 54)
        self.assertEqual(os.path.getsize(thin.path), 6291790)
        self.assertEqual(thin.disk(), changed)

    def test_a_sealed_image_opens_with_its_password_only(self):
        disk = seeded_disk(9000, 2)
        self.make("a", disk, b"secret")
        self.assertNotIn(disk[:64], self.bytes_of("a"))
        image = read_image(self.path("a"), b"secret", 1000, 4096)
        self.assertEqual(image.disk(), disk)
        self.assertEqual(len({entry.nonce for entry in image.table}), 3)
        with self.assertRaisesRegex(ImageFault, "does not open"):
            read_image(self.path("a"), b"Secret", 1000, 4096).disk()

    def test_a_chain_of_mixed_plain_and_sealed_levels_gives_the_disk_of_its_top(self):
        chain = make_chain(self.folder, 6, lambda level: b"secret" if level % 2 else None)
        self.assertEqual([image.record.header.version for image in chain], [FULL] + [THIN] * 5)
        self.assertEqual(read_image(chain[-1].path, b"secret", 1000, 4096).disk(), chain[-1].disk)

    def test_the_reader_takes_65_levels_and_not_66(self):
        chain = make_chain(self.folder, 66)
        self.assertEqual(read_image(chain[64].path, chunkSize=4096).disk(), chain[64].disk)
        with self.assertRaisesRegex(ImageFault, "too deep"):
            read_image(chain[65].path, chunkSize=4096)

    def test_the_reader_refuses_each_field_that_a_writer_must_not_write(self):
        def header(name, value):
            return lambda record: setattr(record.header, name, value)

        def entry(name, value):
            return lambda record: setattr(record.table[1], name, value)

        for edit, text in ((header("magic", b"KSTXDSK1"), "magic"), (header("version", 4), "version"),
                           (header("chunkCount", 2), "chunk count"), (header("chunkSize", 8192), "chunk size"),
                           (header("encrypted", 2), "encrypted"), (header("salt", b"s" * 16), "has a salt"),
                           (header("kdfIterations", 1), "iteration count"), (header("diskSize", 8192), "chunk count"),
                           (header("sectorSize", 0), "sector size"),
                           (entry("diskOffset", 0), "disk offset"), (entry("storedLength", 0), "reference|behind"),
                           (entry("storedLength", 4095), "behind|stored length"), (entry("hash", bytes(32)), "digest"),
                           (entry("nonce", b"n" * 12), "nonce or a tag"), (entry("tag", b"t" * 16), "nonce or a tag"),
                           (lambda record: setattr(record, "tail", b"x"), "behind the data"),
                           (lambda record: record.data.pop(), "cut short")):
            with self.subTest(text):
                self.refused(edit, text)

    def test_the_reader_refuses_what_is_wrong_in_a_sealed_image(self):
        def nonce_of_the_first(record):
            record.table[1].nonce = record.table[0].nonce

        self.refused(lambda record: setattr(record.header, "salt", bytes(16)), "no salt", password=b"p")
        self.refused(lambda record: None, "iteration count", password=b"p", kdfIterations=200000)
        self.refused(lambda record: setattr(record.table[1], "nonce", bytes(12)), "no nonce", password=b"p")
        self.refused(nonce_of_the_first, "nonce of another", password=b"p")
        self.refused(lambda record: setattr(record.table[1], "hash", bytes(32)), "another digest", password=b"p")

    def test_the_reader_refuses_what_is_wrong_in_a_trailer(self):
        base = self.make("base", bytes(9000))

        def trailer(name, value):
            return lambda record: setattr(record.trailer, name, value)

        for edit, text in ((trailer("magic", b"KSTXBASF"), "magic"), (trailer("nameLength", 5), "name length"),
                           (trailer("totalLength", 51), "total length"), (trailer("basePin", bytes(32)), "pinned"),
                           (trailer("baseName", b"a/se"), "bare file name"), (trailer("baseName", b"bass"), "missing"),
                           (lambda record: setattr(record, "gap", b"x"), "magic"),
                           (lambda record: setattr(record, "tail", b"x"), "name length"),
                           (lambda record: setattr(record.table[1], "hash", bytes(32)), "than in the base"),
                           (lambda record: setattr(record.table[1], "nonce", b"n" * 12), "nonce or a tag")):
            with self.subTest(text):
                self.refused(edit, text, base=base)
