"""What opens as an image and what doesn't: one fault at a time, in the order in which faults are looked for."""
import os
import struct

from harness import MachineTest, verify_text, verifying_line
from kestrix_image import make_chain, read_image, seeded_disk

CHUNK = 4096
TOO_DEEP = "image chain is too deep (or loops back on itself)"
NOT_OPENED = "could not open image file"
NO_HEADER = "could not read image header - file is truncated or not a .kstx image"
NOT_AN_IMAGE = "not a recognized Kestrix image (bad magic/version)"
NO_TABLE = "could not read chunk table - image is truncated"
NO_PASSWORD = "this image is encrypted - pass --password-file"
NO_TRAILER = "thin image has no valid trailer - file is truncated"
BAD_TRAILER = "thin image trailer is malformed"
OUTSIDE = "thin image trailer names a base outside its folder - refusing"
NO_BASE = "base image of a thin image not found"
OTHER_BASE = "base image does not match the one pinned in the thin image"
OTHER_GEOMETRY = "base image geometry differs from the thin image"
NO_BASE_IN_CHUNK = "image has a thin chunk but no base image"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"


def not_opened(path):
    return "could not open image file: %s\n" % path


def missing_base(path):
    return ("This is a thin (incremental) image; its base image is missing: %s\n"
            "Keep every image of a chain in the same folder.\n" % path)


def replaced_base(path):
    return "Base image %s is not the one this image was made against (it was modified or replaced).\n" % path


def header(name, value):
    return lambda record: setattr(record.header, name, value)


def trailer(name, value):
    return lambda record: setattr(record.trailer, name, value)


class OpenTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")
        self.content = seeded_disk(2 * CHUNK + 5, 1)
        self.size = len(self.content)

    def verify(self, name="a", password=None):
        return self.kestrix("verify", "--in", name, *(("--password-file", password) if password else ()))

    def sound(self, name="a", base=None, password=None):
        self.check(self.verify(name, password), 0, verify_text(name, self.size, CHUNK, base))

    def fault(self, message, name="a", error=0, first="", password=None):
        """The program ends at opening, before a word on standard output, and the reader refuses the file as well."""
        self.check_fatal(self.verify(name, password), message, error, first=first)
        if os.path.isfile(self.path(name)):
            self.refuse(name, b"secret", kdfIterations=1000, chunkSize=CHUNK)


class FullImages(OpenTest):
    def test_a_path_that_leads_nowhere_is_named_with_its_error(self):
        self.file("plain", b"")
        os.mkdir(self.path("folder"))
        os.symlink("nothing", self.path("dangling"))
        for name, error in (("missing", 2), ("nowhere/a", 3), ("folder", 5), ("dangling", 2), ("plain/a", 3)):
            with self.subTest(name):
                self.fault(NOT_OPENED, name, error, not_opened(name))

    def test_a_path_is_printed_as_it_was_typed(self):
        for name in ("./missing", "images/../missing ä", os.fsdecode(b"\xff\x80"), "%s%n%d", "m" * 255):
            with self.subTest(name):
                self.fault(NOT_OPENED, name, None, not_opened(name))

    def test_a_file_that_is_shorter_than_a_header_has_none(self):
        whole = self.image("a", self.content).record.encode()
        for length in (0, 1, 8, 12, 63):
            with self.subTest(length):
                self.file("a", whole[:length])
                self.fault(NO_HEADER)

    def test_every_byte_of_the_magic_counts(self):
        whole = self.image("a", self.content).record.encode()
        for i in range(8):
            with self.subTest(i):
                self.file("a", whole[:i] + bytes([whole[i] ^ 0x20]) + whole[i + 1:])
                self.fault(NOT_AN_IMAGE)

    def test_only_versions_2_and_3_are_known(self):
        for version in (0, 1, 4, 0x102, 0x02000000, 0xFFFFFFFF):
            with self.subTest(version):
                self.image("a", self.content, edit=header("version", version))
                self.fault(NOT_AN_IMAGE)

    def test_a_cut_table_is_named_as_truncated(self):
        whole = self.image("a", self.content).record.encode()
        for length in (64, 65, 64 + 72, 64 + 3 * 72 - 1):
            with self.subTest(length):
                self.file("a", whole[:length])
                self.fault(NO_TABLE)

    def test_a_chunk_count_beyond_the_file_is_a_cut_table(self):
        for count in (4, 1000, 1000000):
            with self.subTest(count):
                self.image("a", b"", edit=header("chunkCount", count))
                self.fault(NO_TABLE)

    def test_a_chunk_count_that_no_memory_holds_ends_the_program_abnormally(self):
        for count in (2**57, 2**60, 2**63, 2**64 - 1):
            with self.subTest(count):
                self.image("a", self.content, edit=header("chunkCount", count))
                self.check_abnormal(self.verify())
                self.refuse("a", chunkSize=CHUNK)

    def test_an_encrypted_image_needs_a_password_file(self):
        for flag in (1, 2, 255):
            with self.subTest(flag):
                self.image("a", self.content, b"secret", edit=header("encrypted", flag))
                self.check_fatal(self.verify(), NO_PASSWORD)

    def test_any_flag_but_zero_means_encrypted(self):
        for flag in (1, 2, 128, 255):
            with self.subTest(flag):
                self.image("a", self.content, b"secret", edit=header("encrypted", flag))
                self.sound(password="p")

    def test_a_plain_image_does_not_touch_the_password_file(self):
        self.image("a", self.content)
        self.sound(password="missing")

    def test_fields_that_a_reader_ignores_may_hold_anything(self):
        for name, value in (("sectorSize", 0), ("sectorSize", 2**32 - 1), ("epoch", 2**56 - 1), ("salt", b"s" * 16),
                            ("kdfIterations", 7)):
            with self.subTest((name, value)):
                self.image("a", self.content, edit=header(name, value))
                self.sound()

    def test_a_tail_like_a_trailer_behind_a_full_image_is_ignored(self):
        base = self.image("base", self.content)
        tail = self.image("thin", self.content, base=base).record.trailer.encode()
        self.image("a", self.content, edit=lambda record: setattr(record, "tail", tail))
        self.sound()

    def test_an_iteration_count_of_zero_is_refused_by_the_derivation(self):
        self.image("a", self.content, b"secret", edit=header("kdfIterations", 0))
        self.check(self.verify(password="p"), 1, "", "FATAL: BCryptDeriveKeyPBKDF2 (NTSTATUS 0xC000000D)\n")


class UnfinishedImages(OpenTest):
    """The states in which a capture that died leaves its file."""

    def test_a_file_just_created_is_no_image(self):
        self.file("a", b"")
        self.fault(NO_HEADER)

    def test_a_file_without_header_and_table_is_no_image(self):
        whole = self.image("a", self.content).record.encode()
        for end in (64 + 3 * 72 + 1, 64 + 3 * 72 + CHUNK, len(whole)):
            with self.subTest(end):
                self.file("a", bytes(64 + 3 * 72) + whole[64 + 3 * 72:end])
                self.fault(NOT_AN_IMAGE)

    def test_a_full_image_without_its_table_opens_and_fails_at_its_first_chunk(self):
        whole = self.image("a", self.content).record.encode()
        self.file("a", whole[:64] + bytes(3 * 72) + whole[64 + 3 * 72:])
        self.check_fatal(self.verify(), NO_BASE_IN_CHUNK, 0, verifying_line("a", 3, self.size))
        self.refuse("a", chunkSize=CHUNK)

    def test_a_thin_image_without_its_table_opens_and_fails_at_its_first_chunk(self):
        base = self.image("base", self.content)
        whole = self.image("a", seeded_disk(self.size, 2), base=base).record.encode()
        self.file("a", whole[:64] + bytes(3 * 72) + whole[64 + 3 * 72:])
        self.check_fatal(self.verify(), BAD_HASH, 0, verifying_line("a", 3, self.size) +
                         "  thin image: chain continues with base\n")
        self.refuse("a", chunkSize=CHUNK)


class Passwords(OpenTest):
    def password(self, content):
        return self.file("password", content)

    def test_line_ends_behind_the_password_are_no_part_of_it(self):
        self.image("a", self.content, b"abc")
        for content in (b"abc\r\n", b"abc\n", b"abc\n\n\r", b"abc", b"abc\r", b"abc" + b"\r\n" * 300):
            with self.subTest(content):
                self.sound(password=self.password(content))

    def test_every_other_byte_is_a_part_of_it(self):
        for content, secret in ((b"abc \n", b"abc "), (b"\nabc", b"\nabc"), (b"a\r\nb\n", b"a\r\nb"),
                                (b"abc\t", b"abc\t"),
                                (b"\xef\xbb\xbfabc\n", b"\xef\xbb\xbfabc"), (b"a\0b\0\n", b"a\0b\0"), (b"\0", b"\0"),
                                (b"a\0\0b\0", b"a\0\0b\0"), (b"abc\n ", b"abc\n "), (b"abc\x1a", b"abc\x1a"),
                                (b"x" * 255 + b"\r\n", b"x" * 255), (b"x" * 256, b"x" * 256),
                                (b"x" * 256 + b"\n", b"x" * 256), (b"x" * 64, b"x" * 64), (b"x" * 65, b"x" * 65),
                                (b"\n" * 256 + b"y", b"\n" * 256 + b"y"),
                                (seeded_disk(100000, 3) + b"!\n", seeded_disk(100000, 3) + b"!")):
            with self.subTest(content[:20]):
                self.image("a", self.content, secret)
                self.sound(password=self.password(content))

    def test_a_password_that_differs_in_one_blank_is_another(self):
        self.image("a", self.content, b"abc")
        run = self.verify(password=self.password(b"abc "))
        self.assertEqual((run.status, run.out.count(b"AUTHENTICATION FAILED")), (1, 3))

    def test_a_file_of_line_ends_alone_is_empty(self):
        self.image("a", self.content, b"")
        for content in (b"", b"\r\n", b"\n", b"\r\r\n" * 200):
            with self.subTest(content[:5]):
                self.check_fatal(self.verify(password=self.password(content)), "password file is empty", None)

    def test_a_password_file_that_is_missing_is_named_as_such(self):
        self.image("a", self.content, b"abc")
        self.check_fatal(self.verify(password="missing"), "could not open password file", 2)

    def test_the_password_file_may_have_a_name_of_any_bytes(self):
        self.image("a", self.content, b"abc")
        name = os.fsdecode(b"pass\xe9\xff")
        self.file(name, b"abc")
        self.sound(password=name)


class ThinImages(OpenTest):
    def setUp(self):
        super().setUp()
        self.base = self.image("base", self.content)
        self.new = self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:]

    def thin(self, edit=None, name="a", base=None, password=None, **options):
        return self.image(name, self.new, password, base or self.base, edit=edit, **options)

    def dataEnd(self):
        return 64 + 3 * 72 + CHUNK

    def test_a_sound_thin_image_opens(self):
        self.thin()
        self.sound(base="base")

    def test_a_thin_image_cut_anywhere_in_its_trailer_has_none(self):
        whole = self.thin().record.encode()
        for cut in (1, 2, 4, 5, 36, len(whole) - self.dataEnd() - 1, len(whole) - self.dataEnd()):
            with self.subTest(cut):
                self.file("a", whole[:-cut])
                self.fault(NO_TRAILER)

    def test_a_thin_image_cut_in_its_data_area_has_no_trailer(self):
        whole = self.thin().record.encode()
        for end in (64 + 3 * 72, self.dataEnd() - 1, self.dataEnd() + 47):
            with self.subTest(end):
                self.file("a", whole[:end])
                self.fault(NO_TRAILER)

    def test_a_total_length_outside_its_limits_is_no_trailer(self):
        for length in (0, 1, 47, 4097, 2**31, 2**32 - 1):
            with self.subTest(length):
                self.thin(lambda record, length=length: (setattr(record.trailer, "totalLength", length),
                                                         setattr(record, "gap", bytes(5000))))
                self.fault(NO_TRAILER)

    def test_a_total_length_that_reaches_into_the_data_area_is_no_trailer(self):
        for more, message in ((0, None), (1, NO_TRAILER), (CHUNK - 60, NO_TRAILER)):
            with self.subTest(more):
                self.thin(lambda record, more=more: setattr(record.trailer, "totalLength", 52 + more))
                if message:
                    self.fault(message)
                else:
                    self.sound(base="base")

    def test_a_total_length_of_48_leaves_no_room_for_a_name(self):
        # Eight bytes stand before it, so that the 48 bytes at the end of the file are a trailer without a name.
        def edit(record):
            record.gap = b"x" * 8
            record.trailer.baseName = b""
            record.trailer.nameLength = 0
            record.trailer.totalLength = 48

        self.thin(edit)
        self.fault(BAD_TRAILER)

    def test_a_trailer_with_a_wrong_magic_is_malformed(self):
        for magic in (b"KSTXBASF", b"kSTXBASE", bytes(8), b"KSTXDSK2"):
            with self.subTest(magic):
                self.thin(trailer("magic", magic))
                self.fault(BAD_TRAILER)

    def test_a_name_length_that_does_not_fit_the_trailer_is_malformed(self):
        for length in (0, 3, 5, 2**31, 2**32 - 48, 2**32 - 44, 2**32 - 1):
            with self.subTest(length):
                self.thin(trailer("nameLength", length))
                self.fault(BAD_TRAILER)

    def test_a_total_length_shorter_than_the_trailer_starts_in_its_middle(self):
        self.thin(trailer("totalLength", 51))
        self.fault(BAD_TRAILER)

    def test_the_longest_name_is_4048_bytes(self):
        for length, message in ((4048, NO_BASE), (4049, NO_TRAILER)):
            with self.subTest(length):
                name = b"n" * length
                self.thin(baseName=name)
                self.fault(message, error=None, first=missing_base(name.decode()) if message == NO_BASE else "")

    def test_a_name_of_one_byte_is_enough(self):
        base = self.image("b", self.content)
        self.thin(base=base)
        self.sound(base="b")

    def test_a_base_must_lie_in_the_folder_of_its_thin_image(self):
        os.mkdir(self.path("f"))
        self.image("f/base", self.content)
        for name in (b"f/base", b"/base", b"base/", b"..\\base", b"\\", b"C:base", b"base:", b":base",
                     b"../images/base", b"./base"):
            with self.subTest(name):
                self.thin(baseName=name)
                self.fault(OUTSIDE)

    def test_a_missing_base_is_named_with_the_folder_of_the_thin_image(self):
        os.unlink(self.path("base"))
        os.mkdir(self.path("folder"))
        self.thin()
        self.thin(name="folder/a")
        self.fault(NO_BASE, "a", 2, missing_base("base"))
        self.fault(NO_BASE, "./a", 2, missing_base("./base"))
        self.fault(NO_BASE, "folder/../folder/a", 2, missing_base("folder/../folder/base"))
        self.fault(NO_BASE, self.path("a"), 2, missing_base(self.path("base")))

    def test_a_dangling_link_is_a_missing_base(self):
        os.unlink(self.path("base"))
        os.symlink("nothing", self.path("base"))
        self.thin()
        self.fault(NO_BASE, "a", 2, missing_base("base"))

    def test_the_base_of_a_thin_image_in_a_folder_is_looked_up_there(self):
        os.mkdir(self.path("folder"))
        self.image("folder/base", self.content)
        os.unlink(self.path("base"))
        self.thin(name="folder/a")
        self.sound("folder/a", base="base")

    def test_a_folder_in_place_of_the_base_does_not_open(self):
        os.unlink(self.path("base"))
        os.mkdir(self.path("base"))
        self.thin()
        self.fault(NOT_OPENED, "a", 5, not_opened("base"))

    def test_a_base_that_is_no_image_is_refused_in_its_own_words(self):
        self.thin()
        for content, message in ((b"", NO_HEADER), (bytes(4096), NOT_AN_IMAGE),
                                 (self.file_bytes("base")[:100], NO_TABLE)):
            with self.subTest(message):
                self.file("base", content)
                self.fault(message)

    def test_a_base_whose_header_or_table_changed_in_any_byte_is_refused(self):
        self.thin()
        whole = self.file_bytes("base")
        for offset in (20, 23, 37, 43, 44, 59, 60, 64, 64 + 12, 64 + 44, 64 + 71, 64 + 2 * 72 + 56):
            with self.subTest(offset):
                self.file("base", whole[:offset] + bytes([whole[offset] ^ 1]) + whole[offset + 1:])
                self.fault(OTHER_BASE, first=replaced_base("base"))

    def test_a_changed_pin_is_refused(self):
        for i in (0, 31):
            with self.subTest(i):
                self.thin(lambda record, i=i: setattr(record.trailer, "basePin", bytes(
                    byte ^ (j == i) for j, byte in enumerate(record.trailer.basePin))))
                self.fault(OTHER_BASE, first=replaced_base("base"))

    def test_a_base_captured_anew_is_accepted_only_with_equal_header_and_table(self):
        self.thin()
        self.image("base", self.content)
        self.sound(base="base")
        self.image("base", self.content, epoch=7)
        self.fault(OTHER_BASE, first=replaced_base("base"))

    def test_a_sealed_base_captured_anew_is_refused(self):
        self.thin(base=self.image("base", self.content, b"secret"))
        self.image("base", self.content, b"secret")
        self.fault(OTHER_BASE, first=replaced_base("base"), password="p")

    def test_each_field_of_the_geometry_must_be_that_of_the_base(self):
        for name, value in (("diskSize", self.size - 1), ("diskSize", self.size + 2**40), ("chunkSize", CHUNK + 1)):
            with self.subTest((name, value)):
                self.thin(header(name, value))
                self.fault(OTHER_GEOMETRY)

    def test_a_chunk_count_other_than_that_of_the_base_is_refused(self):
        def fewer(record):
            record.header.chunkCount -= 1
            record.table.pop()
            record.data.pop()

        self.thin(fewer)
        self.fault(OTHER_GEOMETRY)

    def test_fields_outside_the_geometry_may_differ_from_the_base(self):
        for name, value in (("sectorSize", 4096), ("epoch", 12345), ("kdfIterations", 9), ("salt", b"s" * 16)):
            with self.subTest(name):
                self.thin(header(name, value))
                self.sound(base="base")

    def test_the_pin_is_compared_before_the_geometry(self):
        self.thin(lambda record: (header("diskSize", self.size - 1)(record), trailer("basePin", bytes(32))(record)))
        self.fault(OTHER_BASE, first=replaced_base("base"))

    def test_a_missing_password_comes_before_the_trailer(self):
        self.thin(trailer("magic", bytes(8)), password=b"secret")
        self.fault(NO_PASSWORD)
        self.fault(BAD_TRAILER, password="p")

    def test_a_plain_thin_image_on_a_sealed_base_needs_the_password(self):
        self.thin(base=self.image("base", self.content, b"secret"))
        self.check_fatal(self.verify(), NO_PASSWORD)
        self.sound(base="base", password="p")

    def test_the_fault_of_the_deepest_image_comes_first(self):
        middle = self.image("middle", self.new, base=self.base, edit=trailer("basePin", bytes(32)))
        self.thin(trailer("basePin", bytes(32)), base=middle)
        self.fault(OTHER_BASE, first=replaced_base("base"))

    def test_names_of_bases_may_have_any_other_bytes(self):
        for name in ("bäse", os.fsdecode(b"\xff\xe9"), " ", "%s", "b\n", ".hidden", "b" * 255):
            with self.subTest(name):
                base = self.image(name, self.content)
                self.thin(base=base)
                self.sound(base=name)

    def test_a_name_that_is_the_folder_itself_does_not_open(self):
        for name in (".", ".."):
            with self.subTest(name):
                self.thin(baseName=name.encode())
                self.fault(NOT_OPENED, "a", 5, not_opened(name))


class Chains(OpenTest):
    def test_a_chain_of_65_images_opens_and_one_of_66_is_too_deep(self):
        chain = make_chain(self.images, 66)
        size = len(chain[0].disk)
        self.check(self.verify("level64.kstx"), 0, verify_text("level64.kstx", size, CHUNK, "level63.kstx"))
        self.assertEqual(read_image(chain[64].path, chunkSize=CHUNK).disk(), chain[64].disk)
        self.fault(TOO_DEEP, "level65.kstx")

    def test_an_image_that_names_itself_is_a_loop(self):
        self.image("a", self.content, base=self.image("base", self.content), baseName=b"a")
        self.check_fatal(self.verify(), TOO_DEEP)

    def test_two_images_that_name_each_other_are_a_loop(self):
        base = self.image("base", self.content)
        self.image("a", self.content, base=base, baseName=b"b")
        self.image("b", self.content, base=base, baseName=b"a")
        self.check_fatal(self.verify("a"), TOO_DEEP)
        self.check_fatal(self.verify("b"), TOO_DEEP)

    def test_a_missing_image_in_the_middle_is_named(self):
        make_chain(self.images, 5)
        os.unlink(self.path("level02.kstx"))
        self.fault(NO_BASE, "level04.kstx", 2, missing_base("level02.kstx"))

    def test_a_changed_image_in_the_middle_is_named(self):
        make_chain(self.images, 5)
        with open(self.path("level02.kstx"), "r+b") as file:
            file.seek(60)
            file.write(struct.pack("<I", 1))
        self.fault(OTHER_BASE, "level04.kstx", first=replaced_base("level02.kstx"))

    def test_a_chain_whose_levels_are_sealed_in_turn_opens_with_one_password(self):
        chain = make_chain(self.images, 9, lambda level: b"secret" if level % 3 else None)
        self.check(self.verify("level08.kstx", "p"), 0,
                   verify_text("level08.kstx", len(chain[8].disk), CHUNK, "level07.kstx"))
