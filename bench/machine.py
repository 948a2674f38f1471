"""What is measured on: a folder with the program and its disks, and runs that are timed there.

The folder `devices` beside the program is its whole machine. Disks are ordinary files or loop devices on them with
direct I/O, which take and give every byte past the page cache. Before each run everything written is on its way to the
disk to its end; then the page cache is dropped (cold), or what the run will read is brought into it (warm), and memory
for the run is brought in.
"""
import mmap
import os
import random
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass
from typing import Callable

MIB, GIB, TIB = 1 << 20, 1 << 30, 1 << 40
CHUNK, HUGE_PAGE = 4 * MIB, 2 * MIB
SEED = 20240229
PASSWORD = b"correct horse battery staple"


def fill_disk(path, size):
    """The disk's bytes, the same in every run: a third random, a third hexadecimal digits, of which half is air, and
    a third zeros that are really stored, by turns of one chunk."""
    chance = random.Random(SEED)
    with open(path, "wb") as file:
        for number in range(-(-size // CHUNK)):
            length = min(CHUNK, size - number * CHUNK)
            if number % 3 == 0:
                file.write(chance.randbytes(length))
            elif number % 3 == 1:
                file.write(chance.randbytes(length // 2).hex().encode())
            else:
                file.write(bytes(length))
        os.fsync(file.fileno())


def fill_with(path, size, byte):
    """A target of restores: written throughout, so that no run has to find room for it."""
    with open(path, "r+b" if os.path.exists(path) else "wb") as file:
        for number in range(-(-size // CHUNK)):
            file.write(byte * min(CHUNK, size - number * CHUNK))
        os.fsync(file.fileno())


def take_memory(size):
    """Takes memory, writes to it and gives it back, as far as the machine has it to spare. A virtual machine may have
    returned what was free to its host, and the next to use it would pay for getting it again, now more, now less."""
    spare = os.sysconf("SC_AVPHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") * 3 // 4
    size = max(min(size, spare) // HUGE_PAGE, 1) * HUGE_PAGE
    with mmap.mmap(-1, size, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS) as memory:
        memory.madvise(mmap.MADV_HUGEPAGE)
        for page in range(0, size, HUGE_PAGE):
            memory[page] = 1


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)


@dataclass
class Contender:
    """One who takes part in a comparison."""
    command: list
    makes: tuple = ()  # files and folders of the working folder that go after each run
    prepare: list = None  # a command that is run before each run, unmeasured
    check: Callable = None  # called after the run that is dropped; raises if the run did not do what it should
    status: int = 0


class Machine:
    def __init__(self, build, folder, memoryOfARun):
        self.memoryOfARun = memoryOfARun  # bytes; more than any run brings into the page cache
        self.build, self.folder = os.path.abspath(build), os.path.abspath(folder)
        self.devices, self.images = os.path.join(self.folder, "devices"), os.path.join(self.folder, "images")
        self.kestrix = os.path.join(self.folder, "kestrix")
        self.bareLoop = os.path.join(self.build, "bare_loop")
        self.undo = []

    def __enter__(self):
        remove(self.folder)
        os.makedirs(self.devices)
        os.mkdir(self.images)
        shutil.copy2(os.path.join(self.build, "kestrix"), self.kestrix)
        with open(os.path.join(self.devices, "PhysicalDrive0"), "wb") as file:
            file.truncate(512)
        os.symlink("PhysicalDrive0", os.path.join(self.devices, "C:"))
        with open(self.path("password"), "wb") as file:
            file.write(PASSWORD + b"\n")
        return self

    def __exit__(self, *_):
        for command in reversed(self.undo):
            subprocess.run(command, check=False)
        remove(self.folder)

    def path(self, name):
        return os.path.join(self.images, name)

    def device(self, name):
        return os.path.join(self.devices, name)

    def link_disk(self, number, path):
        remove(self.device(f"PhysicalDrive{number}"))
        os.symlink(path, self.device(f"PhysicalDrive{number}"))

    def loop_device(self, backing, size=0):
        """A loop device with direct I/O over the file, or over its first size bytes."""
        device = self.must("losetup", "--find", "--show", "--direct-io=on", "--sizelimit", str(size), backing)
        self.undo.append(["losetup", "--detach", device])
        if self.must("losetup", "--noheadings", "--output", "DIO", device) != "1":
            sys.exit(f"{self.folder} lies on a file system that takes no direct I/O; choose another with --folder")
        return device

    def detach(self, device):
        self.undo.remove(["losetup", "--detach", device])
        self.must("losetup", "--detach", device)

    def file_system_in_memory(self, name):
        """For files that are larger than other file systems take, and sparse."""
        folder = os.path.join(self.folder, name)
        os.mkdir(folder)
        self.must("mount", "-t", "tmpfs", "-o", "size=64m", "kestrix-bench", folder)
        self.undo.append(["umount", folder])
        return folder

    def must(self, *command):
        done = subprocess.run(command, cwd=self.images, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            sys.exit(f"{' '.join(command)} failed: {done.stdout[-2000:]}")
        return done.stdout.strip()

    def must_be_equal(self, name, other):
        self.must("cmp", self.path(name), self.path(other))

    def log_holds(self, text):
        """A check of what the last run printed."""
        def check():
            with open(os.path.join(self.folder, "log"), encoding="utf-8") as file:
                if text not in file.read():
                    sys.exit(f"a run did not print: {text}")
        return check

    def measure(self, contender, cache, warm=()):
        """The figures of one run: seconds, and KiB of memory at the most. `settle` is how long the system then still
        took to bring to the disk what the run had written."""
        os.sync()
        if cache == "cold":
            with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as file:
                file.write("3")
        else:
            for path in warm:
                read_through(path)
        take_memory(self.memoryOfARun)
        figures, log = os.path.join(self.folder, "figures"), os.path.join(self.folder, "log")
        with open(log, "wb") as output:
            status = subprocess.run([os.path.join(self.build, "run_measured"), figures, *contender.command],
                                    cwd=self.images, stdin=subprocess.DEVNULL, stdout=output, stderr=output).returncode
        begin = time.monotonic()
        os.sync()
        settle = time.monotonic() - begin
        if status != contender.status:
            with open(log, "rb") as output:
                sys.exit(f"{contender.command} ended with {status}: {output.read()[-2000:].decode(errors='replace')}")
        with open(figures, encoding="ascii") as file:
            wall, user, system, peak = file.read().split()
        return {"wall": float(wall), "cpu": float(user) + float(system), "system": float(system), "peak": int(peak),
                "settle": settle}

    def compare(self, contenders, rounds, label, cache="cold", warm=()):
        """Runs them by turns, every second round in the other order. The first round is one to be left out of figures,
        where it is not the only one: what it did is checked instead."""
        records = []
        for number in range(rounds + 1):
            order = list(contenders.items())
            for who, contender in order if number % 2 == 0 else reversed(order):
                if contender.prepare:
                    self.must(*contender.prepare)
                records.append({**label, "cache": cache, "who": who, "counts": number > 0 or rounds == 0,
                                "round": number, **self.measure(contender, cache, warm)})
                if contender.check and number == 0:
                    contender.check()
                for name in contender.makes:
                    remove(self.path(name))
        kept = [record for record in records if record["counts"]]
        print("  ".join([", ".join(str(value) for value in label.values()), cache] + [
            f"{who} {min(record['wall'] for record in kept if record['who'] == who):.2f} s" for who in contenders]),
            flush=True)
        return records


def read_through(path):
    with open(path, "rb", buffering=0) as file:
        while file.read(CHUNK):
            pass
