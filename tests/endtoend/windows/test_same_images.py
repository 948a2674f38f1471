"""The tests of images, each run a second time with the Windows program.

What an image is, which ones are refused and in which words doesn't depend on the system, so the tests are the very
classes that the program for Linux has to pass. Where they need a disk, the program for Linux captures and restores, and
the one for Windows verifies and consolidates what the other made. A test set to None is told anew below or in another
file, since it shows something that a system decides by itself: the bytes of names, or the memory of a run.
"""
import os

import test_capture
import test_chains
import test_consolidate
import test_hostile_lengths
import test_open_faults
import test_thin
import test_verify
from harness import needs, progress, why_no_mounts
from kestrix_image import seeded_disk
from test_open_faults import NO_BASE, NOT_OPENED, missing_base, not_opened
from wine import BothProgramsTest, WindowsTest

CHUNK = 4096


class Verify(WindowsTest, test_verify.Verify):
    pass


class VerifyChains(WindowsTest, test_verify.VerifyChains):
    pass


class VerifyHugeDisks(WindowsTest, test_verify.VerifyHugeDisks):
    pass


class Consolidate(WindowsTest, test_consolidate.Consolidate):
    @needs(why_no_mounts)
    def test_a_full_file_system_ends_the_run_and_leaves_no_image(self):
        disk = seeded_disk(100 * CHUNK, 5)
        self.image("a", disk)
        out = os.path.join(self.small_file_system("64k"), "x")
        # Wine gives the part that still fitted as a short write, which is no failed call and leaves no error number.
        self.check_fatal(self.consolidate(out=out), test_consolidate.FULL_DISK, None, progress(CHUNK, len(disk)))
        self.check_unfinished(out)


class FullImages(WindowsTest, test_open_faults.FullImages):
    def test_a_path_is_printed_as_it_was_typed(self):
        for name in ("./missing", "images/../missing", ".\\missing", "%s%n%d", "m" * 255):
            with self.subTest(name):
                self.fault(NOT_OPENED, name, None, not_opened(name))


class UnfinishedImages(WindowsTest, test_open_faults.UnfinishedImages):
    pass


class Passwords(WindowsTest, test_open_faults.Passwords):
    test_the_password_file_may_have_a_name_of_any_bytes = None


class ThinImages(WindowsTest, test_open_faults.ThinImages):
    test_names_of_bases_may_have_any_other_bytes = None

    def test_names_of_bases_may_have_any_printable_character_that_windows_takes(self):
        for name in ("%s", ".hidden", "two words", "b" * 255, "(1) ~!@#$&'+,;=[]{}^`"):
            with self.subTest(name):
                self.thin(base=self.image(name, self.content))
                self.sound(base=name)

    def test_a_base_whose_name_differs_in_case_is_found(self):
        os.rename(self.path("base"), self.path("BASE"))
        self.thin(baseName=b"Base")
        self.sound(base="Base")

    def test_a_name_that_windows_does_not_take_is_a_missing_base(self):
        for name in ("*", "b?se", 'b"se', "b<e", "b|e"):
            with self.subTest(name):
                self.thin(baseName=name.encode())
                self.fault(NO_BASE, "a", None, missing_base(name))


class Chains(WindowsTest, test_open_faults.Chains):
    pass


class HostileLengths(BothProgramsTest, test_hostile_lengths.HostileLengths):
    test_a_size_that_the_file_does_not_hold_costs_no_memory = None


class ReadersOfChains(BothProgramsTest, test_chains.ReadersOfChains):
    pass


class Capture(BothProgramsTest, test_capture.Capture):
    test_a_path_may_be_long_and_of_any_bytes = None


class WithoutProof(BothProgramsTest, test_thin.WithoutProof):
    test_long_paths_and_names_of_any_bytes_make_a_thin_image = None
    test_a_backslash_in_a_bases_name_ends_a_folder = None


class WithTracker(BothProgramsTest, test_thin.WithTracker):
    pass
