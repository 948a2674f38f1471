"""How the command line is read: what counts as a command and an option, and how a refused line ends."""
from harness import NO_TRACKER, MachineTest, capture_text, not_exclusive, verify_text
from kestrix_image import seeded_disk

USAGE = (
    "Kestrix - whole-physical-disk raw sector-level imaging.\n"
    "\n"
    "  kestrix list-disks\n"
    "  kestrix capture --disk N --out PATH [--base PATH [--thin]] [--vss] [--encrypt --password-file PATH]\n"
    "  kestrix verify  --in PATH [--password-file PATH]\n"
    "  kestrix restore --in PATH --disk N --confirm YES [--password-file PATH]\n"
    "  kestrix consolidate --in PATH --out PATH [--password-file PATH [--encrypt]]  (thin chain -> one full image)\n"
    "\n"
    "Run as Administrator. See README.md for the crash-consistency and\n"
    "destructive-restore notes before using this on a real disk.\n")
NOT_CONFIRMED = "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n"
NO_SOURCE = "could not open source disk for raw read (run as Administrator?)"


class CommandLine(MachineTest):
    def refused(self, *arguments):
        with self.subTest(arguments):
            self.check(self.kestrix(*arguments), 1, USAGE)

    def test_no_argument_gives_the_usage_text_on_standard_output(self):
        self.refused()

    def test_a_command_must_match_in_every_byte(self):
        self.system_disk()
        for word in ("Capture", "CAPTURE", "capture ", "captur", "captures", "LIST-DISKS", "list_disks", "", "--help",
                     "Verify", "RESTORE", "Consolidate", "--disk"):
            self.refused(word, "--disk", "0", "--out", "x", "--in", "y", "--confirm", "YES")

    def test_capture_without_what_it_needs_gives_the_usage_text(self):
        self.system_disk()
        self.refused("capture")
        self.refused("capture", "--disk", "0")
        self.refused("capture", "--disk", "0", "--out", "")
        self.refused("capture", "--out", "x")
        self.refused("capture", "--disk", "-5", "--out", "x")
        self.refused("capture", "--disk", "-1", "--out", "x")
        self.refused("capture", "--disk", "0", "--out", "x", "--encrypt")
        self.refused("capture", "--disk", "0", "--out", "x", "--encrypt", "--password-file", "")
        self.check_no_image("x")

    def test_a_value_option_in_the_last_place_is_not_seen(self):
        self.system_disk()
        self.refused("capture", "--out", "x", "--disk")
        self.refused("capture", "--disk", "0", "--out")
        self.refused("verify", "--in")
        self.refused("restore", "--disk", "0", "--confirm", "YES", "--in")
        self.refused("consolidate", "--in", "x", "--out")

    def test_a_flag_in_the_last_place_is_seen(self):
        self.refused("capture", "--disk", "0", "--out", "x", "--ENCRYPT")

    def test_verify_restore_and_consolidate_without_a_path_give_the_usage_text(self):
        self.refused("verify")
        self.refused("verify", "--in", "")
        self.refused("restore", "--disk", "0", "--confirm", "YES")
        self.refused("restore", "--in", "x", "--confirm", "YES")
        self.refused("restore", "--in", "x", "--disk", "-1", "--confirm", "YES")
        self.refused("restore", "--in", "", "--disk", "0", "--confirm", "YES")
        self.refused("consolidate")
        self.refused("consolidate", "--in", "x")
        self.refused("consolidate", "--out", "x")
        self.refused("consolidate", "--in", "", "--out", "x")

    def test_a_disk_number_that_is_none_ends_the_program_abnormally_before_anything_else(self):
        for value in ("abc", "", "x3", "--out", "99999999999", "2147483648", "-2147483649", "99999999999999999999"):
            with self.subTest(value):
                self.check_abnormal(self.kestrix("capture", "--disk", value, "--out", "x"))
                self.check_abnormal(self.kestrix("capture", "--disk", value, "x"))
                self.check_abnormal(self.kestrix("restore", "--disk", value, "--in", "a"))
                self.check_abnormal(self.kestrix("restore", "--disk", value, "a"))

    def test_the_disk_number_is_the_leading_number_of_its_text(self):
        disk = self.disk(3, seeded_disk(1000, 3))
        self.volume_c(3)
        note = ("NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
                "      is crash-consistent only (see the file header comment). Proceeding anyway.\n")
        for value in ("3", "3x", " 3", "+3", "\t\n 03abc", "3 4", "3.9"):
            with self.subTest(value):
                self.check(self.kestrix("capture", "--disk", value, "--out", "x"), 0,
                           capture_text(3, 1000, "x", note=note))
                self.check_image("x", disk)

    def test_the_largest_disk_number_is_a_disk_that_does_not_exist(self):
        self.check_fatal(self.kestrix("capture", "--disk", "2147483647", "--out", "x"), NO_SOURCE, 2)

    def test_option_names_match_in_any_case_and_in_any_order(self):
        self.system_disk()
        disk = self.disk(3, seeded_disk(1000, 3))
        self.check(self.kestrix("capture", "--OUT", "x", "--unknown", "--Disk", "3"), 0, capture_text(3, 1000, "x"))
        self.check_image("x", disk)

    def test_the_first_of_two_occurrences_counts(self):
        self.system_disk()
        disk = self.disk(3, seeded_disk(1000, 3))
        self.check(self.kestrix("capture", "--disk", "3", "--disk", "4", "--out", "x", "--out", "y"), 0,
                   capture_text(3, 1000, "x"))
        self.check_image("x", disk)
        self.check_no_image("y")

    def test_the_value_of_one_option_is_looked_at_as_a_name_too(self):
        self.system_disk()
        disk = self.disk(3, seeded_disk(1000, 3))
        # --out has the value "--disk", whose own value is the 3 behind it.
        self.check(self.kestrix("capture", "--out", "--disk", "3", "--disk", "0"), 0, capture_text(3, 1000, "--disk"))
        self.check_image("--disk", disk)
        # A value that is a flag's name switches the flag on.
        self.refused("capture", "--disk", "3", "--out", "--encrypt")

    def test_options_of_other_commands_are_ignored(self):
        self.image("a", b"abc")
        self.check(self.kestrix("verify", "--disk", "abc", "--in", "a", "--out", "b", "--encrypt", "--confirm", "no"),
                   0, verify_text("a", 3, 4096))

    def test_restore_without_an_exact_yes_refuses_in_its_own_words(self):
        self.system_disk()
        for words in ((), ("--confirm", "yes"), ("--confirm", "YES "), ("--confirm", ""), ("--confirm", "Y"),
                      ("--confirm",), ("YES",)):
            with self.subTest(words):
                self.check(self.kestrix("restore", "--in", "a", "--disk", "3", *words), 1, "", NOT_CONFIRMED)

    def test_the_option_of_the_confirmation_matches_in_any_case(self):
        self.system_disk()
        self.image("a", b"abc")
        self.check(self.kestrix("restore", "--IN", "a", "--DISK", "7", "--CONFIRM", "YES"), 1, "", not_exclusive(7, 2))

    def test_a_password_file_without_encrypt_is_not_opened_by_a_capture(self):
        self.system_disk()
        disk = self.disk(3, seeded_disk(1000, 3))
        self.check(self.kestrix("capture", "--disk", "3", "--out", "x", "--password-file", "missing"), 0,
                   capture_text(3, 1000, "x", tracker=NO_TRACKER))
        self.check_image("x", disk)
