"""A Windows machine to run the shipped program on: Wine, on the prefix of scripts/wine.

WindowsTest is a MachineTest whose verbs start kestrix.exe under Wine in place of the program for Linux, in the same
working folder, so that a class of tests of the one can be a class of tests of the other as well; linux() still starts
the program for Linux. In a BothProgramsTest each program does what it has the disks for. A run of kestrix.exe must end
every line as Windows does, and is handed on with plain line ends.

Wine has a disk for each of its drives: 0 for C:, where the machine itself lies, and 1 for Z:, the root folder. They
open, answer no question about their size and hand out no byte. A device that Wine doesn't know it looks up in the
folder dosdevices of its prefix: attach_disk puts a file there, and that disk opens with the share modes of Windows and
answers nothing either. No other disk opens, and so no test gets to a disk of the machine that it runs on. Where a test
needs a disk that answers, on_file runs the objects of the program on the simulator, with a file for its disk.

The program under test is the one that the environment variable KESTRIX_EXE names, or build/windows/kestrix.exe.
"""
import atexit
import functools
import os
import re
import shutil
import subprocess

from harness import ROOT, TIME_LIMIT, MachineTest, Run, Started

PROGRAM = os.path.abspath(os.environ.get("KESTRIX_EXE", os.path.join(ROOT, "build", "windows", "kestrix.exe")))
WINE = os.path.join(ROOT, "scripts", "wine")
PREFIX = os.environ.get("KESTRIX_WINE", os.path.join(ROOT, "build", "wine"))
TEST_PROGRAMS = os.path.join(ROOT, "build", "windows", "tests")
SYSTEM_DISK = 0
ABNORMAL = 3  # the exit status that the C run-time's abort gives a process
# What the language run-time says on the error stream when an exception leaves the program.
EXCEPTION_TEXT = "terminate called after throwing an instance of '%s'\n  what():  %s\n"


@functools.lru_cache(maxsize=None)
def machine():
    """Starts the Windows machine, with the program on it: the path of its copy, or none and why there is none."""
    if not os.path.isfile(PROGRAM):
        return None, f"there is no program to test at {PROGRAM}"
    os.environ["LC_ALL"] = "C.UTF-8"
    try:
        subprocess.run([WINE, "--keep"], check=True, timeout=TIME_LIMIT)
    except subprocess.SubprocessError as error:
        return None, f"Wine does not start: {error}"
    atexit.register(subprocess.run, [WINE, "--end"], check=False, timeout=TIME_LIMIT)
    folder = os.path.join(PREFIX, "program")
    os.makedirs(folder, exist_ok=True)
    return shutil.copy2(PROGRAM, os.path.join(folder, "kestrix.exe")), None


def drive_path(path, separator="\\"):
    """A path of this machine as the program sees it: everything lies on the drive Z:."""
    return "Z:" + path.replace("/", separator)


def plain_lines(data):
    """The text of a stream in which every line must end with CR LF."""
    if data.count(b"\n") != data.count(b"\r\n"):
        raise AssertionError(f"a line ends without CR: {data}")
    return data.replace(b"\r\n", b"\n")


class StartedWindowsProgram(Started):
    """Now and then, less than once in a hundred runs, Wine ends a program with status 1 before it has said a word. The
    program itself says why it ends so, always, so such a run is made once more, and the report tells how many were."""
    repeats = 0

    def __init__(self, command, cwd):
        super().__init__(command, cwd)
        self.again = functools.partial(Started, command, cwd)

    def finish(self):
        run = super().finish()
        if run == Run(1, b"", b""):
            StartedWindowsProgram.repeats += 1
            run = self.again().finish()
        return Run(run.status, plain_lines(run.out), plain_lines(run.err))


class WindowsTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.windowsProgram, fault = machine()
        self.assertIsNone(fault)

    def start_under_wine(self, program, *arguments):
        started = StartedWindowsProgram([WINE, program, *arguments], self.images)
        self.addCleanup(self.end, started)
        return started

    def start(self, *arguments):
        return self.start_under_wine(self.windowsProgram, *arguments)

    def program_of_tests(self, name):
        path = os.path.join(TEST_PROGRAMS, name)
        self.assertTrue(os.path.isfile(path), f"the tests for Windows are not built: {path} is missing")
        return path

    def on_file(self, disk, *arguments):
        """A run of the program's objects on the simulator, whose disk 1 is the file of that name; "-" for a machine
        that refuses to open any disk."""
        return self.start_under_wine(self.program_of_tests("kestrix_on_files.exe"), disk, *arguments).finish()

    def linux(self, *arguments):
        """A run of the program for Linux on the same images, with the devices folder for its machine."""
        return MachineTest.start(self, *arguments).finish()

    def peak_memory(self, *arguments, status=0):
        raise NotImplementedError("the memory of Wine itself can't be told from the program's")

    def attach_disk(self, number, content):
        """A file of these bytes in the place of a disk; gives the file's path."""
        path = os.path.join(self.folder, f"windows-disk{number}")
        with open(path, "wb") as file:
            file.write(content)
        name = os.path.join(PREFIX, "dosdevices", f"physicaldrive{number}")
        os.symlink(path, name)
        self.addCleanup(os.unlink, name)
        return path

    # Looking at a run

    def check_fatal(self, run, message, error=0, out="", first=""):
        """As for Linux, but 0, where no call of the system's failed, takes any number: it is then what a call of the
        run-time's own left."""
        if not error:
            error = "-"
            run = Run(run.status, run.out, re.sub(rb"GetLastError=\d+\)\n$", b"GetLastError=-)\n", run.err))
        self.check(run, 1, out, f"{first}FATAL: {message} (GetLastError={error})\n")

    def check_abnormal(self, run, exception=None, what=None):
        """A run that the language run-time ended: neither done nor refused, and with no text of the program's own."""
        self.assertEqual((run.status, run.out), (ABNORMAL, b""))
        if exception is None:
            self.assertTrue(run.err.startswith(b"terminate called after throwing an instance of "), run.err)
        else:
            self.assertEqual(run.err.decode(), EXCEPTION_TEXT % (exception, what))


class BothProgramsTest(WindowsTest):
    """Whatever needs a disk is done by the program for Linux, the rest by the one for Windows, on the same images."""

    def start(self, *arguments):
        if arguments[0] in ("verify", "consolidate"):
            return super().start(*arguments)
        return MachineTest.start(self, *arguments)
