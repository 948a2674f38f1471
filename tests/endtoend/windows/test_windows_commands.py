"""How the Windows program reads its command line and ends, and what it does on a machine whose disks give nothing."""
import os
import re
import shutil
import signal
import subprocess
import tempfile
from unittest import mock

import test_command_line
from harness import MIB, ROOT, TIME_LIMIT, not_exclusive, verify_text
from kestrix_image import seeded_disk
from test_command_line import NO_SOURCE, NOT_CONFIRMED, USAGE
from wine import ABNORMAL, PREFIX, SYSTEM_DISK, WINE, WindowsTest

NO_LENGTH = "IOCTL_DISK_GET_LENGTH_INFO failed"
NOT_SUPPORTED = 50
SILENT_DISK = 37  # in the place of which a test puts a file: it opens and doesn't tell its size
NO_DISK = 38
NO_SNAPSHOTS = ("  --vss: VSS is not available here (CreateVssBackupComponents) (0x%08X) - "
                "reading live instead (crash-consistent only).\n")
NOT_IMPLEMENTED, MODULE_NOT_FOUND = 0x80004001, 0x8007007E
SYSTEM_REFUSED = (
    "Refusing: PhysicalDrive%d is the disk this copy of Windows is currently running from.\n"
    "A live raw write to your own booted system disk cannot be made safe - boot from\n"
    "separate media (Windows Recovery/PE) and run kestrix restore from there instead.\n")


class CommandLine(WindowsTest, test_command_line.CommandLine):
    """That a disk of another number was asked for shows in another message: one of the two opens, the other doesn't."""
    test_a_password_file_without_encrypt_is_not_opened_by_a_capture = None

    def silent_disk(self, *arguments):
        self.check_fatal(self.kestrix(*arguments), NO_LENGTH, NOT_SUPPORTED)

    def setUp(self):
        super().setUp()
        self.attach_disk(SILENT_DISK, bytes(4096))

    def test_the_disk_number_is_the_leading_number_of_its_text(self):
        for value in ("37", "37x", " 37", "+37", "\t\n 037abc", "37 4", "37.9"):
            with self.subTest(value):
                self.silent_disk("capture", "--disk", value, "--out", "x")
        self.check_fatal(self.kestrix("capture", "--disk", "38x", "--out", "x"), NO_SOURCE, 2)

    def test_option_names_match_in_any_case_and_in_any_order(self):
        self.silent_disk("capture", "--OUT", "x", "--unknown", "--Disk", "37")

    def test_the_first_of_two_occurrences_counts(self):
        self.silent_disk("capture", "--disk", "37", "--disk", "38", "--out", "x")
        self.image("a", b"abc")
        self.check(self.kestrix("verify", "--in", "a", "--in", "b"), 0, verify_text("a", 3, 4096))

    def test_the_value_of_one_option_is_looked_at_as_a_name_too(self):
        self.silent_disk("capture", "--out", "--disk", "37", "--disk", "38")
        self.refused("capture", "--disk", "37", "--out", "--encrypt")

    def test_a_malformed_disk_number_ends_as_an_exception_that_nobody_catches(self):
        for value, exception, what in (("abc", "std::invalid_argument", "invalid stoi argument"),
                                       ("", "std::invalid_argument", "invalid stoi argument"),
                                       ("2147483648", "std::out_of_range", "stoi argument out of range")):
            for words in (("capture", "--out", "x"), ("restore", "--in", "x", "--confirm", "YES")):
                with self.subTest((words[0], value)):
                    self.check_abnormal(self.kestrix(*words, "--disk", value), exception, what)

    def test_an_argument_reaches_the_program_as_it_was_typed(self):
        # Nothing takes it for a pattern of file names, though a file matches each of these.
        self.image("abc", b"abc")
        for name in ("*", "a?c", "ab*"):
            with self.subTest(name):
                self.check_fatal(self.kestrix("verify", "--in", name), "could not open image file", 123,
                                 first="could not open image file: %s\n" % name)
        for name in ("two words", "a\\\"b", 'quote"d', "ends\\", "\\\\", "%PATH%", "^a&b|c>d"):
            with self.subTest(name):
                self.check_fatal(self.kestrix("verify", "--in", name), "could not open image file", None,
                                 first="could not open image file: %s\n" % name)


class Streams(WindowsTest):
    """The bytes of the two streams, into files and into pipes."""

    def setUp(self):
        super().setUp()
        self.content = seeded_disk(3 * 4096, 1)
        self.image("a", self.content)

    def piped(self, *arguments):
        done = subprocess.run([WINE, self.windowsProgram, *arguments], cwd=self.images, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=TIME_LIMIT)
        return done.returncode, done.stdout, done.stderr

    def filed(self, *arguments):
        with open(self.path("out"), "wb") as out, open(self.path("err"), "wb") as err:
            done = subprocess.run([WINE, self.windowsProgram, *arguments], cwd=self.images, check=False,
                                  stdin=subprocess.DEVNULL, stdout=out, stderr=err, timeout=TIME_LIMIT)
        return done.returncode, self.file_bytes("out"), self.file_bytes("err")

    def both(self, arguments, status, out, err=b""):
        for run in (self.piped, self.filed):
            with self.subTest((run.__name__, arguments)):
                if os.path.exists(self.path("x")):
                    os.unlink(self.path("x"))
                ended, printed, told = run(*arguments)
                self.assertEqual((ended, re.sub(rb"\(\d+\.\d MiB", b"(- MiB", printed), told), (status, out, err))

    def test_every_line_ends_as_a_text_stream_of_the_run_time_ends_it(self):
        self.both((), 1, USAGE.replace("\n", "\r\n").encode())
        self.both(("restore", "--in", "a", "--disk", "1"), 1, b"", NOT_CONFIRMED.replace("\n", "\r\n").encode())
        self.both(("verify", "--in", "none"), 1, b"", b"could not open image file: none\r\n"
                  b"FATAL: could not open image file (GetLastError=2)\r\n")

    def test_the_progress_line_begins_with_a_lone_carriage_return(self):
        self.both(("verify", "--in", "a"), 0,
                  b"Verifying a  (3 chunks, 0.00 GiB source disk)\r\n"
                  b"\r   33.33%  0 / 0 MiB  (- MiB/s)   \r  100.00%  0 / 0 MiB  (- MiB/s)   \r\n"
                  b"Verify OK - all 3 chunks match their recorded hash.\r\n")

    def test_a_consolidation_tells_its_steps_on_lines_of_their_own(self):
        shown = b"\r   33.33%  0 / 0 MiB  (- MiB/s)   \r  100.00%  0 / 0 MiB  (- MiB/s)   \r\n"
        self.both(("consolidate", "--in", "a", "--out", "x"), 0,
                  shown + b"Consolidated: x (self-contained full image, verifying...)\r\n"
                  b"Verifying x  (3 chunks, 0.00 GiB source disk)\r\n" +
                  shown + b"Verify OK - all 3 chunks match their recorded hash.\r\n")

    def test_a_refusal_and_an_abnormal_end_leave_whole_lines(self):
        self.both(("list-disks",), 1, b"", b"FATAL: %s (GetLastError=50)\r\n" % NO_LENGTH.encode())
        capture = ("capture", "--out", "x", "--disk")
        self.both((*capture, str(NO_DISK)), 1, b"", b"FATAL: %s (GetLastError=2)\r\n" % NO_SOURCE.encode())
        self.both((*capture, "abc"), ABNORMAL, b"",
                  b"terminate called after throwing an instance of 'std::invalid_argument'\r\n"
                  b"  what():  invalid stoi argument\r\n")

    def test_progress_is_seen_while_the_run_goes_on(self):
        self.image("long", seeded_disk(8 * MIB, 2), chunkSize=512)
        stopped = self.stopped("verify", "--in", "long")
        self.assertGreater(stopped.printed(), 0)
        stopped.signal(signal.SIGCONT)
        self.check(stopped.finish(), 0, verify_text("long", 8 * MIB, 512))


class Disks(WindowsTest):
    def check_refused(self, path, before, run, message, error):
        self.check_fatal(run, message, error)
        with open(path, "rb") as file:
            self.assertEqual(file.read(), before)
        self.assertFalse(os.path.exists(self.path("x")))

    def test_the_list_ends_at_a_disk_that_does_not_tell_its_size(self):
        self.check_fatal(self.kestrix("list-disks"), NO_LENGTH, NOT_SUPPORTED)
        self.check_fatal(self.kestrix("list-disks", "--disk", "abc", "x"), NO_LENGTH, NOT_SUPPORTED)

    def test_a_capture_of_a_disk_that_is_not_there_makes_no_file(self):
        for more in ((), ("--vss",), ("--thin",), ("--encrypt", "--password-file", "missing")):
            with self.subTest(more):
                self.check_fatal(self.kestrix("capture", "--disk", str(NO_DISK), "--out", "x", *more), NO_SOURCE, 2)
                self.assertFalse(os.path.exists(self.path("x")))

    def test_a_capture_of_a_disk_that_does_not_tell_its_size_makes_no_file(self):
        content = seeded_disk(8192, 1)
        path = self.attach_disk(SILENT_DISK, content)
        for more in ((), ("--vss",), ("--thin",)):
            with self.subTest(more):
                run = self.kestrix("capture", "--disk", str(SILENT_DISK), "--out", "x", *more)
                self.check_refused(path, content, run, NO_LENGTH, NOT_SUPPORTED)

    def test_a_machine_that_refuses_shows_no_disk_and_captures_none(self):
        # Wine refuses its disks to nobody, so this is the program on the simulator.
        self.check(self.on_file("-", "list-disks"), 0)
        for more in ((), ("--vss",), ("--thin",), ("--encrypt", "--password-file", "missing")):
            with self.subTest(more):
                self.check_fatal(self.on_file("-", "capture", "--disk", "1", "--out", "x", *more), NO_SOURCE, 5)
                self.assertFalse(os.path.exists(self.path("x")))
        self.image("a", b"abc")
        self.check(self.on_file("-", "restore", "--in", "a", "--disk", "1", "--confirm", "YES"), 1, "",
                   not_exclusive(1, 5))

    def restore(self, disk, image="a"):
        self.assertIn(disk, (SYSTEM_DISK, SILENT_DISK, NO_DISK))
        return self.kestrix("restore", "--in", image, "--disk", str(disk), "--confirm", "YES")

    def test_the_system_disk_is_refused_before_the_image_is_looked_at(self):
        for image in ("missing", self.file("a", b"no image")):
            self.check(self.restore(SYSTEM_DISK, image), 1, "", SYSTEM_REFUSED % SYSTEM_DISK)

    def test_an_image_that_does_not_open_is_refused_before_the_target_is_opened(self):
        content = seeded_disk(8192, 1)
        path = self.attach_disk(SILENT_DISK, content)
        self.file("a", bytes(64))
        self.check_refused(path, content, self.restore(SILENT_DISK),
                           "not a recognized Kestrix image (bad magic/version)", None)
        self.check_fatal(self.restore(NO_DISK, "missing"), "could not open image file", 2,
                         first="could not open image file: missing\n")

    def test_a_target_that_is_not_there_is_not_opened(self):
        self.image("a", b"abc")
        self.check(self.restore(NO_DISK), 1, "", not_exclusive(NO_DISK, 2))

    def test_a_target_that_does_not_tell_its_size_is_not_written(self):
        content = seeded_disk(8192, 1)
        path = self.attach_disk(SILENT_DISK, content)
        self.image("a", b"abc")
        self.check_refused(path, content, self.restore(SILENT_DISK), NO_LENGTH, NOT_SUPPORTED)

    def test_a_target_that_another_run_reads_does_not_open(self):
        self.image("a", seeded_disk(8 * MIB, 2), chunkSize=512)
        disk = self.attach_disk(SILENT_DISK, self.file_bytes("a"))
        reader = self.stopped("verify", "--in", disk)
        self.check(self.restore(SILENT_DISK), 1, "", not_exclusive(SILENT_DISK, 32))
        # A capture shares the disk with everyone.
        self.check_fatal(self.kestrix("capture", "--disk", str(SILENT_DISK), "--out", "x"), NO_LENGTH, NOT_SUPPORTED)
        reader.signal(signal.SIGCONT)
        self.check(reader.finish(), 0, verify_text(disk, 8 * MIB, 512))
        self.check_fatal(self.restore(SILENT_DISK), NO_LENGTH, NOT_SUPPORTED)


class SnapshotLibrary(WindowsTest):
    """VSSAPI.DLL is bound by the first call of a capture with --vss. No disk of Wine lets a capture come so far, so
    late_binding.exe makes the call: the program's snapshot side, linked as the program is. Wine takes a library of its
    own for any file of that name unless it is told to prefer the file."""

    def environment(self, name, value):
        patch = mock.patch.dict(os.environ, {name: value})
        patch.start()
        self.addCleanup(patch.stop)

    def loaded(self, *arguments, program=None):
        """The libraries that a run loads, as Wine tells them, in capitals."""
        self.environment("WINEDEBUG", "-all,+loaddll")
        done = subprocess.run([WINE, program or self.windowsProgram, *arguments], cwd=self.images, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=TIME_LIMIT)
        return {name.upper() for name in re.findall(rb'loaddll:\S+ Loaded L"[^"]*?([^"\\]+)"', done.stderr)}

    def test_no_command_that_wine_can_run_loads_the_snapshot_library(self):
        self.image("a", b"abc", b"secret")
        self.file("p", b"secret")
        self.attach_disk(SILENT_DISK, bytes(4096))
        for words in (("verify", "--in", "a", "--password-file", "p"), ("list-disks",),
                      ("capture", "--disk", str(SILENT_DISK), "--out", "x", "--vss")):
            with self.subTest(words):
                loaded = self.loaded(*words)
                self.assertIn(b"BCRYPT.DLL", loaded)
                self.assertNotIn(b"VSSAPI.DLL", loaded)

    def check_first_call(self, result):
        """The first call of the snapshot side gives that, and is followed by a live capture."""
        program = self.program_of_tests("late_binding.exe")
        self.check(self.start_under_wine(program).finish(), 0, NO_SNAPSHOTS % result + "ranges: 0\n")

    def test_the_first_call_binds_the_snapshot_library_and_goes_through(self):
        self.check_first_call(NOT_IMPLEMENTED)  # which is all that Wine's library ever says
        self.assertIn(b"VSSAPI.DLL", self.loaded(program=self.program_of_tests("late_binding.exe")))

    def test_the_first_call_reads_live_where_the_snapshot_library_is_missing(self):
        self.environment("WINEDLLOVERRIDES", "vssapi=")
        self.check_first_call(MODULE_NOT_FOUND)

    def plant(self, path):
        """Puts a library there that has no entries and says when it runs; what was there is back at the end."""
        if os.path.exists(path):
            os.rename(path, path + ".kept")
            self.addCleanup(os.rename, path + ".kept", path)
        shutil.copy(self.program_of_tests("libplanted_library.dll"), path)

    def test_a_snapshot_library_beside_the_program_or_in_the_working_folder_is_not_run(self):
        self.environment("WINEDLLOVERRIDES", "vssapi=n,b")
        program = shutil.copy(self.program_of_tests("late_binding.exe"), self.folder)
        self.plant(os.path.join(self.folder, "vssapi.dll"))
        self.plant(self.path("vssapi.dll"))
        self.check(self.start_under_wine(program).finish(), 0, NO_SNAPSHOTS % NOT_IMPLEMENTED + "ranges: 0\n")

    def check_guard(self, code, first=""):
        """Whatever the registers hold, what is raised ends at the guard, and the caller's own are as they were."""
        run = self.start_under_wine(self.program_of_tests("unlucky_registers.exe")).finish()
        calls = 468
        self.check(run, 0, first + f"calls: {calls}, caught: {calls}, registers kept: {calls}\n"
                   f"raised 0x{code:08X}: {calls}\n")

    def test_a_missing_snapshot_library_is_caught_whatever_the_registers_hold(self):
        self.environment("WINEDLLOVERRIDES", "vssapi=")
        self.check_guard(0xC06D007E)

    def test_a_snapshot_library_without_the_entry_is_caught_whatever_the_registers_hold(self):
        self.environment("WINEDLLOVERRIDES", "vssapi=n")
        self.plant(os.path.join(PREFIX, "drive_c", "windows", "system32", "vssapi.dll"))
        self.check_guard(0xC06D007F, "planted library\n")

    def test_the_program_starts_and_verifies_where_the_snapshot_library_is_missing(self):
        self.environment("WINEDLLOVERRIDES", "vssapi=")
        self.image("a", b"abc")
        self.check(self.kestrix(), 1, USAGE)
        self.check(self.kestrix("verify", "--in", "a"), 0, verify_text("a", 3, 4096))
        self.check_fatal(self.kestrix("capture", "--disk", str(NO_DISK), "--out", "x", "--vss"), NO_SOURCE, 2)

    def test_the_program_does_not_start_where_a_library_of_its_import_list_is_missing(self):
        # This is what the test before would see if the snapshot library were not bound late.
        self.environment("WINEDLLOVERRIDES", "bcrypt=")
        run = self.kestrix()
        self.assertNotIn(run.status, (0, 1))
        self.assertEqual(run.out, b"")


class Home(WindowsTest):
    def test_the_first_use_of_wine_leaves_nothing_in_the_home_of_its_user(self):
        home = os.path.join(self.folder, "home")
        os.mkdir(home)
        windows = tempfile.mkdtemp(prefix="wine-first-use-", dir=os.path.join(ROOT, "build"))
        self.addCleanup(shutil.rmtree, windows)
        surroundings = {name: value for name, value in os.environ.items() if not name.startswith("XDG_")}
        surroundings.update(HOME=home, KESTRIX_WINE=windows)
        try:
            done = subprocess.run([WINE, self.windowsProgram], check=False, env=surroundings, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIME_LIMIT)
        finally:
            subprocess.run([WINE, "--end"], check=True, env=surroundings, timeout=TIME_LIMIT)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, USAGE.replace("\n", "\r\n").encode(), b""))
        self.assertTrue(os.path.isfile(os.path.join(windows, "drive_c", "windows", "system32", "kernel32.dll")))
        self.assertEqual(os.listdir(home), [])
        # And nothing there would end up in it later.
        links = [os.path.realpath(os.path.join(folder, name)) for folder, folders, _ in os.walk(windows)
                 for name in folders if os.path.islink(os.path.join(folder, name))]
        self.assertEqual([link for link in links if link.startswith(home)], [])
