"""A machine to run the program on, and what the tests want to know about a run.

Each test gets a scratch folder with a link to the program and a `devices` folder beside it, which is then the whole
machine: no disk outside of it exists for the program. The working folder of each run is the folder `images` beside
them, so that images have short relative names. Whatever a test mounts or attaches is taken down when the test ends.

The program under test is the one that the environment variable KESTRIX names, or build/linux/kestrix.
"""
import atexit
import functools
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from dataclasses import dataclass

import kestrix_image

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAM = os.path.abspath(os.environ.get("KESTRIX", os.path.join(ROOT, "build", "linux", "kestrix")))
KIB, MIB = 1024, 1024 * 1024
TIME_LIMIT = 120  # seconds for one run
# In a build with sanitizers: the handles of a chain's deeper images stay open to the end of the process on purpose,
# and a failed run releases nothing, so that leaks say nothing. An allocation that is too large must fail as elsewhere.
SANITIZERS = {"ASAN_OPTIONS": "detect_leaks=0:allocator_may_return_null=1"}

NO_TRACKER = ("Change tracker: not available for this disk (Tallier not loaded/attached) - "
              "image carries no epoch.\n")
LARGER_NOTE = (
    "NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
    "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
    "      this larger disk - Windows generally repairs this automatically on next boot/\n"
    "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
    "      that repair happened. This is a known limitation of restoring to a differently\n"
    "      sized disk, not specific to this tool.\n")
RESTORE_COMPLETE = "Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n"


@dataclass
class Run:
    status: int  # the exit status, or minus the number of the signal that ended the program
    out: bytes
    err: bytes


# ---- Expected texts ----


def gib(size):
    return "%.2f GiB" % (size * 2.0**-30)


def progress(done, total):
    percent = done * 100.0 / total if total else 0.0
    return "\r  %6.2f%%  %d / %d MiB  (- MiB/s)   " % (percent, done // MIB, total // MIB)


def whole_progress(size, chunkSize):
    count = kestrix_image.count_chunks(size, chunkSize)
    shown = [i for i in range(count) if i % 32 == 0 or i == count - 1]
    return "".join(progress(min((i + 1) * chunkSize, size), size) for i in shown)


def source_line(disk, size, sectorSize=512):
    chunkSize = kestrix_image.chunk_size_of_capture(sectorSize)
    return "Source: PhysicalDrive%d  Size: %s  SectorSize: %d  Chunks: %d (%d bytes each)\n" % (
        disk, gib(size), sectorSize, kestrix_image.count_chunks(size, chunkSize), chunkSize)


def capture_text(disk, size, image, sectorSize=512, note="", tracker=NO_TRACKER, warning=""):
    chunkSize = kestrix_image.chunk_size_of_capture(sectorSize)
    return (source_line(disk, size, sectorSize) + note + tracker + whole_progress(size, chunkSize) + "\n" + warning +
            "Capture complete: %s\n" % image)


def verifying_line(image, count, size):
    return "Verifying %s  (%d chunks, %s source disk)\n" % (image, count, gib(size))


def verify_text(image, size, chunkSize, chainName=None):
    count = kestrix_image.count_chunks(size, chunkSize)
    chain = "  thin image: chain continues with %s\n" % chainName if chainName else ""
    return (verifying_line(image, count, size) + chain + whole_progress(size, chunkSize) + "\n" +
            "Verify OK - all %d chunks match their recorded hash.\n" % count)


def verify_failed(failures, count):
    return ("Verify FAILED - %d of %d chunks did not match. Do not trust this image for restore.\n" %
            (failures, count))


def restoring_line(image, disk, count, size):
    return "Restoring %s -> PhysicalDrive%d (%d chunks, %s)\n" % (image, disk, count, gib(size))


def restore_text(image, disk, size, chunkSize, note=""):
    count = kestrix_image.count_chunks(size, chunkSize)
    return (note + restoring_line(image, disk, count, size) + whole_progress(size, chunkSize) + "\n" +
            RESTORE_COMPLETE)


def not_exclusive(disk, error):
    return ("Could not open disk %d exclusively for writing (GetLastError=%d).\n"
            "This almost always means a volume on it is still mounted/in use.\n"
            "Take it offline first: diskpart > select disk %d > offline disk\n" % (disk, error, disk))


def without_speed(data):
    return re.sub(rb"\(\d+\.\d MiB/s\)", b"(- MiB/s)", data)


# ---- The program and its helpers from the system ----


@functools.lru_cache(maxsize=None)
def program_copy():
    """A copy that stays the same while the tests run, whatever the build does meanwhile."""
    if not os.access(PROGRAM, os.X_OK):
        sys.exit(f"there is no program to test at {PROGRAM}")
    folder = tempfile.mkdtemp(prefix="kestrix-program-")
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    copy = os.path.join(folder, "kestrix")
    shutil.copy2(PROGRAM, copy)
    # A restore must never reach a real disk. The program that doesn't take an empty devices folder for the whole
    # machine would list the disks of this one.
    os.mkdir(os.path.join(folder, "devices"))
    listing = subprocess.run([copy, "list-disks"], stdout=subprocess.PIPE, timeout=TIME_LIMIT).stdout
    if listing:
        sys.exit("the program sees disks outside of its devices folder: no test is run")
    return copy


def system(*command):
    """Runs a command of the system: (true, what it printed) or (false, why it failed)."""
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=TIME_LIMIT)
    except OSError as error:
        return False, str(error)
    return done.returncode == 0, (done.stdout if done.returncode == 0 else done.stderr).strip()


@functools.lru_cache(maxsize=None)
def why_no_loop_devices():
    if os.geteuid() != 0:
        return "loop devices need root"
    with tempfile.NamedTemporaryFile(prefix="kestrix-loop-") as file:
        file.truncate(MIB)
        done, text = system("losetup", "--find", "--show", file.name)
        if done:
            system("losetup", "--detach", text)
        return None if done else f"no loop device: {text}"


@functools.lru_cache(maxsize=None)
def why_no_mounts():
    if os.geteuid() != 0:
        return "mounts need root"
    with tempfile.TemporaryDirectory(prefix="kestrix-mount-") as folder:
        done, text = system("mount", "-t", "tmpfs", "-o", "size=64k", "kestrix-test", folder)
        if done:
            system("umount", folder)
        return None if done else f"no mount: {text}"


def needs(*reasons):
    """Skips a test, with the reason in the summary, where one of the given functions names a reason."""
    def decorate(test):
        @functools.wraps(test)
        def run(self):
            for reason in reasons:
                if reason():
                    self.skipTest(reason())
            test(self)
        return run
    return decorate


@functools.lru_cache(maxsize=None)
def sanitizer_of(path):
    """The run-time of a sanitizer that a program is built for: asan, tsan or None."""
    with open(path, "rb") as file:
        content = file.read()
    return "asan" if b"__asan_init" in content else "tsan" if b"__tsan_init" in content else None


def is_sanitized():
    """Whether the program under test is built with sanitizers, which keep memory of their own for every byte of its."""
    return sanitizer_of(PROGRAM) == "asan"


# Runs a program and leaves its figures behind, in a process of its own: the figure of a child begins with the memory of
# the process that it was split off from. The kernel's counters of a process are there until it is waited for; the
# file that shows them must be open before the process ends, when it turns into root's. An alarm ends a run without end.
MEASURE = """
import json, os, signal, sys
ready, go = os.pipe()
child = os.fork()
if child == 0:
    os.read(ready, 1)
    signal.alarm(int(sys.argv[2]))
    os.execv(sys.argv[3], sys.argv[3:])
with open(f"/proc/{child}/io", buffering=1) as file:
    os.write(go, b"x")
    os.waitid(os.P_PID, child, os.WEXITED | os.WNOWAIT)
    figures = {name: int(value) for name, value in (line.split(": ") for line in file)}
_, status, usage = os.wait4(child, 0)
figures.update(status=os.waitstatus_to_exitcode(status), cpu=usage.ru_utime + usage.ru_stime,
               memory=usage.ru_maxrss * 1024)
with open(sys.argv[1], "w") as file:
    json.dump(figures, file)
"""


class Started:
    """A run of the program that has been started and not yet waited for."""

    def __init__(self, command, cwd):
        self.outFile = tempfile.TemporaryFile()
        self.errFile = tempfile.TemporaryFile()
        self.process = subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=self.outFile,
                                        stderr=self.errFile, env={**SANITIZERS, **os.environ})

    def printed(self):
        return os.fstat(self.outFile.fileno()).st_size

    def signal(self, number):
        self.process.send_signal(number)

    def finish(self):
        try:
            status = self.process.wait(TIME_LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        finally:
            texts = []
            for file in (self.outFile, self.errFile):
                file.seek(0)
                texts.append(file.read())
                file.close()
        return Run(status, *texts)


class MachineTest(unittest.TestCase):
    """A test with a machine of its own: self.devices, self.images, and verbs to fill and to run it."""
    maxDiff = 4000

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrix-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.devices = os.path.join(self.folder, "devices")
        self.images = os.path.join(self.folder, "images")
        self.program = os.path.join(self.folder, "kestrix")
        os.mkdir(self.devices)
        os.mkdir(self.images)
        try:
            os.link(program_copy(), self.program)
        except OSError:
            shutil.copy2(program_copy(), self.program)

    # Filling the machine

    def device(self, name):
        return os.path.join(self.devices, name)

    def disk_path(self, number):
        return self.device(f"PhysicalDrive{number}")

    def disk(self, number, content):
        """A disk in a regular file: of these bytes, or of so many zeros."""
        with open(self.disk_path(number), "wb") as file:
            if isinstance(content, int):
                file.truncate(content)
            else:
                file.write(content)
        return content

    def disk_bytes(self, number):
        with open(self.disk_path(number), "rb") as file:
            return file.read()

    def volume_c(self, number):
        os.symlink(f"PhysicalDrive{number}", self.device("C:"))

    def system_disk(self, number=0):
        """A small disk with C: on it, without which most commands refuse to work."""
        self.disk(number, 512)
        self.volume_c(number)

    def path(self, name):
        return os.path.join(self.images, name)

    def file(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content)
        return name

    def file_bytes(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def image(self, name, disk, password=None, base=None, **options):
        """An image from the independent writer, in the working folder."""
        return kestrix_image.make_image(self.path(name), disk, password, base, **options)

    def loop_device(self, backing, sectorSize=512):
        for attempt in range(5):
            done, text = system("losetup", "--find", "--show", "--sector-size", str(sectorSize), backing)
            if done:
                self.addCleanup(self.must, "losetup", "--detach", text)
                return text
            time.sleep(0.1 * (attempt + 1))  # another process took the free device first
        self.fail(f"losetup: {text}")

    def loop_disk(self, number, content, sectorSize=512):
        """A disk that is a real block device: of these bytes, or of so many zeros. Gives its backing file."""
        descriptor, backing = tempfile.mkstemp(prefix="backing-", dir=self.folder)
        with open(descriptor, "wb") as file:
            if isinstance(content, int):
                file.truncate(content)
            else:
                file.write(content)
        self.link_disk(number, self.loop_device(backing, sectorSize))
        return backing

    def link_disk(self, number, target):
        if os.path.lexists(self.disk_path(number)):
            os.unlink(self.disk_path(number))
        os.symlink(target, self.disk_path(number))

    def mount(self, what, options, kind):
        folder = tempfile.mkdtemp(prefix="mount-", dir=self.folder)
        self.must("mount", "-t", kind, "-o", options, what, folder)
        self.addCleanup(self.must, "umount", folder)
        return folder

    def small_file_system(self, size, options=""):
        """A file system in memory that is full after so many bytes."""
        return self.mount("kestrix-test", f"size={size}{options}", "tmpfs")

    def must(self, *command):
        done, text = system(*command)
        self.assertTrue(done, f"{command}: {text}")
        return text

    # Running the program

    def start(self, *arguments):
        self.assertTrue(os.path.isdir(self.devices), "without its devices folder the program sees real disks")
        started = Started([self.program, *arguments], self.images)
        self.addCleanup(self.end, started)
        return started

    @staticmethod
    def end(started):
        if started.process.poll() is None:
            started.process.kill()
            started.process.wait()

    def kestrix(self, *arguments):
        return self.start(*arguments).finish()

    def measured(self, *arguments, status=0):
        """What a run, which must end with that status, printed and took: out, err, cpu in seconds, memory in bytes that
        it had in use at most, and the kernel's counters."""
        self.assertTrue(os.path.isdir(self.devices))
        figures = os.path.join(self.folder, "figures")
        done = subprocess.run([sys.executable, "-c", MEASURE, figures, str(TIME_LIMIT), self.program, *arguments],
                              cwd=self.images, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env={**SANITIZERS, **os.environ})
        with open(figures, encoding="utf-8") as file:
            run = json.load(file)
        os.unlink(figures)
        self.assertEqual(run["status"], status, arguments)
        return {**run, "out": done.stdout.decode("utf-8", "surrogateescape"), "err": done.stderr}

    def peak_memory(self, *arguments, status=0):
        """The most bytes of memory that a run, which must end with that status, had in use at one time."""
        return self.measured(*arguments, status=status)["memory"]

    def stopped(self, *arguments, when=None, prepare=None):
        """Starts the program and stops it (SIGSTOP) while when() holds, or as soon as it has printed something. Where
        it was too quick, that is tried again after another prepare()."""
        for _ in range(50):
            if prepare:
                prepare()
            started = self.start(*arguments)
            while started.process.poll() is None and not (when() if when else started.printed()):
                pass
            started.signal(signal.SIGSTOP)
            time.sleep(0.01)
            if started.process.poll() is None and (when is None or when()):
                return started
            self.end(started)
        return self.fail("the program was always too far when it was stopped")

    def stopped_writing(self, name, least, most, *arguments):
        """The program, stopped when the file that it makes has grown to least and not yet to most bytes."""
        def remove():
            if os.path.exists(self.path(name)):
                os.unlink(self.path(name))

        return self.stopped(*arguments, when=lambda: least <= self.file_size(name) < most, prepare=remove)

    def file_size(self, name):
        """The bytes of a file in the working folder, -1 where there is none."""
        try:
            return os.stat(self.path(name)).st_size
        except FileNotFoundError:
            return -1

    # Looking at a run

    def check(self, run, status=0, out="", err=""):
        """The whole of a run: exit status and both streams, to the byte but for the speed."""
        self.assertEqual((run.status, without_speed(run.out).decode("utf-8", "surrogateescape"),
                          run.err.decode("utf-8", "surrogateescape")), (status, out, err))

    def check_fatal(self, run, message, error=0, out="", first=""):
        """A run that ended in a fatal line with that error number; None takes any number."""
        if error is None:
            run = Run(run.status, run.out, re.sub(rb"GetLastError=\d+\)\n$", b"GetLastError=-)\n", run.err))
            error = "-"
        self.check(run, 1, out, f"{first}FATAL: {message} (GetLastError={error})\n")

    def check_abnormal(self, run):
        """A run that the run-time system ended, with no text of the program's own."""
        self.assertEqual((run.status, run.out), (-signal.SIGABRT, b""))
        self.assertNotIn(b"FATAL", run.err)

    def check_image(self, name, disk, password=None, epoch=0, sectorSize=512):
        """An image that the program wrote, read by the independent reader and compared with the disk."""
        image = kestrix_image.read_image(self.path(name), password)
        self.assertEqual(image.header.epoch, epoch)
        self.assertEqual(image.header.sectorSize, sectorSize)
        self.assertEqual(image.header.encrypted, int(password is not None))
        self.assertEqual(image.header.diskSize, len(disk))
        self.assertTrue(image.disk() == disk, "the image holds another disk")
        return image

    def check_no_image(self, name):
        """What stands there, if anything, is no image: neither to the reader nor to the program."""
        self.assertRaises((kestrix_image.ImageFault, FileNotFoundError), self.read_all, name)
        self.assertEqual(self.kestrix("verify", "--in", name).status, 1)

    def check_unfinished(self, name):
        """A file that a capture did not finish: where header and table belong, it has no byte but zeros."""
        self.check_no_image(name)
        with open(self.path(name), "rb") as file:
            self.assertEqual(file.read(64 + 72).strip(b"\0"), b"")

    def read_all(self, name):
        return kestrix_image.read_image(self.path(name)).disk()

    def refuse(self, name, password=None, **options):
        self.assertRaises(kestrix_image.ImageFault, kestrix_image.read_image, self.path(name), password, **options)
