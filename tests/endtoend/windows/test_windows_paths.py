"""Paths as Windows takes them: drive letters, both separators, either case, more than 260 characters."""
import os

from harness import verify_text, whole_progress
from kestrix_image import seeded_disk
from test_open_faults import NO_BASE, NOT_OPENED, missing_base, not_opened
from wine import WindowsTest, drive_path

CHUNK = 4096
SAME = "--out must differ from --in"
EXISTS = "--out already exists - refusing to overwrite an image"
UNRESOLVED = "could not resolve image paths"
NOT_CREATED = "could not create output image file"
LONGEST = 259  # characters of a path that consolidate can make absolute
FOLDER_NAME = "f" * 100


class PathTest(WindowsTest):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(2 * CHUNK + 5, 1)
        self.base = self.image("Base.kstx", self.content)
        self.new = self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:]
        self.image("Thin.kstx", self.new, base=self.base)
        self.here = drive_path(self.images)

    def sound(self, name, base=None):
        self.check(self.kestrix("verify", "--in", name), 0, verify_text(name, len(self.content), CHUNK, base))

    def folded(self, out):
        self.check(self.kestrix("consolidate", "--in", "Thin.kstx", "--out", out), 0,
                   whole_progress(len(self.content), CHUNK) +
                   "\nConsolidated: %s (self-contained full image, verifying...)\n" % out +
                   verify_text(out, len(self.content), CHUNK))

    def spellings(self, name):
        """The paths of a file in the working folder."""
        forward = self.here.replace("\\", "/")
        return (name, ".\\" + name, "./" + name, "..\\images\\" + name, "../images/" + name, "..\\images/" + name,
                self.here + "\\" + name, forward + "/" + name, self.here + "/" + name,
                "z:" + self.here[2:] + "\\" + name, self.here[2:] + "\\" + name, self.here + "\\\\" + name,
                self.here + "\\.\\" + name, "Z:" + name,
                "\\\\?\\" + self.here + "\\" + name)


class Spellings(PathTest):
    def test_an_image_and_its_base_are_found_under_every_spelling_of_the_path(self):
        for path in self.spellings("Thin.kstx"):
            with self.subTest(path):
                self.sound(path, "Base.kstx")

    def test_letters_match_in_either_case(self):
        for path in self.spellings("THIN.kstX"):
            if not path.startswith("\\\\?"):
                with self.subTest(path):
                    self.sound(path, "Base.kstx")
        self.sound(self.here.upper() + "\\thin.KSTX", "Base.kstx")

    def test_a_missing_base_is_named_in_the_folder_as_it_was_typed(self):
        os.unlink(self.path("Base.kstx"))
        for path in self.spellings("Thin.kstx"):
            if path == "Z:Thin.kstx":
                folder = ""  # a colon is no separator
            else:
                folder = path[:-len("Thin.kstx")]
            with self.subTest(path):
                self.check_fatal(self.kestrix("verify", "--in", path), NO_BASE, 2,
                                 first=missing_base(folder + "Base.kstx"))

    def test_a_path_that_leads_nowhere_is_named_as_it_was_typed(self):
        # For a drive that isn't there Wine and Windows have different numbers.
        for path, error in (("none", 2), (self.here + "\\none", 2), ("none\\a", 3), ("Q:\\a", None),
                            ("Base.kstx\\a", 3), (".", 5), (self.here, 5), ("Z:\\", 5), ("a\tb", 123),
                            ("a|b", 123), ("<a>", 123)):
            with self.subTest(path):
                self.check_fatal(self.kestrix("verify", "--in", path), NOT_OPENED, error, first=not_opened(path))

    def test_only_letters_of_ascii_name_a_file_as_it_was_typed(self):
        os.rename(self.path("Base.kstx"), self.path("bäse"))
        run = self.kestrix("verify", "--in", "bäse")
        self.assertEqual((run.status, run.out), (1, b""))
        self.assertIn(b"FATAL: could not open image file (GetLastError=2)\n", run.err)

    def test_the_password_file_is_found_under_every_spelling_of_its_path(self):
        self.file("Secret.txt", b"secret\r\n")
        self.image("sealed", self.content, b"secret")
        for path in self.spellings("Secret.txt"):
            with self.subTest(path):
                self.check(self.kestrix("verify", "--in", "sealed", "--password-file", path), 0,
                           verify_text("sealed", len(self.content), CHUNK))


class Outputs(PathTest):
    def refused(self, out, message, error=None, image="Thin.kstx"):
        with self.subTest((image, out)):
            self.check_fatal(self.kestrix("consolidate", "--in", image, "--out", out), message, error)

    def plain_spellings(self, name):
        """Without the prefix that keeps Windows from taking a path apart: such a path is another text."""
        return [path for path in self.spellings(name) if not path.startswith("\\\\?")]

    def test_the_source_is_refused_as_output_under_every_spelling_and_case(self):
        before = self.file_bytes("Thin.kstx")
        for name in ("Thin.kstx", "THIN.KSTX", "thin.kstx"):
            for path in self.plain_spellings(name):
                self.refused(path, SAME)
                self.refused("Thin.kstx", SAME, image=path)
        self.assertEqual(self.file_bytes("Thin.kstx"), before)

    def test_blanks_and_dots_behind_a_name_are_no_part_of_it(self):
        for out in ("Thin.kstx.", "Thin.kstx ", "Thin.kstx. ."):
            self.refused(out, SAME)

    def test_another_name_of_the_source_exists_and_is_refused_as_such(self):
        self.refused("\\\\?\\" + self.here + "\\Thin.kstx", EXISTS)
        os.symlink("Thin.kstx", self.path("link"))
        self.refused("link", EXISTS)

    def test_nothing_that_exists_is_overwritten_under_any_spelling(self):
        self.file("File", b"no image")
        os.mkdir(self.path("Folder"))
        for name in ("File", "FILE", "Folder", "fOLDER", "Base.kstx", "base.KSTX"):
            for path in self.plain_spellings(name):
                self.refused(path, EXISTS)
        for path in (".", "..", "Z:\\", "\\", "Folder\\", "Folder/"):
            self.refused(path, EXISTS)
        self.assertEqual(self.file_bytes("File"), b"no image")

    def test_an_output_is_made_under_every_spelling(self):
        for path in self.plain_spellings("Whole.kstx"):
            with self.subTest(path):
                self.folded(path)
                self.assertEqual(os.listdir(self.images).count("Whole.kstx"), 1)
                self.assertEqual(self.read_small("Whole.kstx"), self.new)
                os.unlink(self.path("Whole.kstx"))

    def read_small(self, name):
        # A full image of a plain chain is the plain image of its disk, which the independent writer makes as well.
        self.image("expected", self.new)
        self.assertEqual(self.file_bytes(name), self.file_bytes("expected"))
        return self.new

    def test_an_output_that_windows_cannot_make_is_refused(self):
        for out, error in (("missing\\x", 3), ("Q:\\x", None), ("Base.kstx\\x", 3), ("a|b", 123), ("a*", 123),
                           ("a?", 123)):
            self.refused(out, NOT_CREATED, error)


class LongPaths(PathTest):
    def long_folder(self, length):
        """A folder whose path has so many characters; relative to the working folder and as the program sees it."""
        rest = length - len(self.here)
        names = []
        while rest > 0:
            name = FOLDER_NAME[:min(rest - 1, 100)] if rest - 1 - 100 != 1 else FOLDER_NAME[:99]
            names.append(name)
            rest -= 1 + len(name)
        os.makedirs(self.path("/".join(names)))
        path = self.here + "\\" + "\\".join(names)
        self.assertEqual(len(path), length)
        return "/".join(names), path

    def test_a_full_image_with_a_path_of_several_hundred_characters_is_verified(self):
        for length in (257, 258, 259, 260, 300, 900):
            with self.subTest(length):
                relative, path = self.long_folder(length)
                self.image(relative + "/a", self.content)
                self.sound(path + "\\a")
                self.sound(relative.replace("/", "\\") + "\\a")

    def test_a_base_is_found_where_its_path_as_typed_has_259_characters_and_not_where_it_has_300(self):
        # Its existence is asked for by a call that takes no longer text. The folder of the run doesn't count.
        for length, found in ((LONGEST - 2, True), (300, False), (500, False)):
            with self.subTest(length):
                relative, path = self.long_folder(length)
                base = self.image(relative + "/b", self.content)
                self.image(relative + "/thin", self.new, base=base)
                if found:
                    self.sound(path + "\\thin", "b")
                else:
                    self.check_fatal(self.kestrix("verify", "--in", path + "\\thin"), NO_BASE, 206,
                                     first=missing_base(path + "\\b"))
                if len(relative) + 2 <= LONGEST:
                    self.sound(relative.replace("/", "\\") + "\\thin", "b")

    def test_consolidate_makes_an_output_whose_absolute_path_has_259_characters(self):
        relative, path = self.long_folder(LONGEST - 2)
        self.folded(path + "\\x")
        self.assertTrue(os.path.exists(self.path(relative + "/x")))
        os.unlink(self.path(relative + "/x"))
        self.folded(relative + "/x")

    def test_consolidate_refuses_an_absolute_path_of_260_characters(self):
        relative, path = self.long_folder(LONGEST - 1)
        self.image(relative + "/a", self.content)
        for image, out in (("Thin.kstx", path + "\\x"), ("Thin.kstx", relative + "/x"), (path + "\\a", "x"),
                           (relative + "\\a", "x")):
            with self.subTest((image, out)):
                self.check_fatal(self.kestrix("consolidate", "--in", image, "--out", out), UNRESOLVED, None)
        self.assertFalse(os.path.exists(self.path(relative + "/x")))
        self.assertFalse(os.path.exists(self.path("x")))
        # The way around is a shorter path to the same folder.
        self.sound(path + "\\a")
