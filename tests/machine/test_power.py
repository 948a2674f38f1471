"""The power is cut: disks with a cache, put together anew from the record of what was written and flushed."""
import os
import random
import struct
import subprocess

from cases import MIB, ROOT, Disk, Machine, blank, case, digest, host, noise, past_firmware, reach_prompt, stick
from test_faults import NUMBER

GROUP = "Power cuts"
DISK_MIB = 12
STORE_MIB = 128
FILE_SYSTEM_MIB = 127  # the last one is for marks
MARK = b"KESTRIX MARK "
CUTS = 100
PAGE = 4096            # what a disk writes wholly or not at all
FLUSH, FLUSH_BEFORE_AND_AFTER, DISCARD = 1, 2, 4


class RecordedDisk(Disk):
    """A disk whose writes and flushes are recorded, in the form of the kernel's dm-log-writes."""

    def node(self):
        return {"driver": "raw", "node-name": self.name, "file": {
            "driver": "blklogwrites", "file": {"driver": "file", "filename": self.path, "locking": "off"},
            "log": {"driver": "file", "filename": self.path + ".log", "locking": "off"}}}


def recorded(path, serial):
    """The disk as it is before, beside the one that is written."""
    host("cp", "--sparse=always", path, path + ".before")
    blank(path + ".log", 0)
    return RecordedDisk(path, "virtio", serial, name=serial.lower())


def entries(path):
    """What the record holds, in its order: (offset, bytes or None, flags)."""
    found = []
    with open(path + ".log", "rb") as log:
        _, _, count, sector = struct.unpack("<QQQI", log.read(28))
        place = sector
        for _ in range(count):
            log.seek(place)
            first, sectors, flags, _ = struct.unpack("<QQQQ", log.read(32))
            log.seek(place + sector)
            data = log.read(sectors * sector) if sectors and not flags & DISCARD else None
            place += sector + len(data or b"")
            found.append((first * sector, data, flags))
    return found


def marks(record):
    """Where the marks stand in it, by their words."""
    return {data[len(MARK):].split(b";")[0].decode(): place for place, (_, data, _) in enumerate(record)
            if data and data.startswith(MARK)}


def write(file, offset, data):
    file.seek(offset)
    file.write(data)


def states(path, record, cuts, numbers):
    """The disk after a cut behind each of these places of the record, ascending: what was flushed is there, of what
    was not flushed some writes are, some are not, and some are in a part."""
    host("cp", "--sparse=always", path + ".before", path + ".flushed")
    waiting, done = [], 0
    with open(path + ".flushed", "r+b", buffering=0) as flushed:
        for cut in cuts:
            for offset, data, flags in record[done:cut]:
                if data is not None:
                    waiting.append((offset, data))
                if flags & (FLUSH | FLUSH_BEFORE_AND_AFTER):
                    for one in waiting:
                        write(flushed, *one)
                    waiting = []
            done = cut
            host("cp", "--sparse=always", path + ".flushed", path + ".cut")
            with open(path + ".cut", "r+b", buffering=0) as file:
                for offset, data in waiting:
                    kept = numbers.choice((0, len(data), numbers.randrange(len(data) + 1) // PAGE * PAGE))
                    write(file, offset, data[:kept])
            yield path + ".cut"


def fetched(disk, name):
    """A file of the disk, once its file system's journal was replayed; None if it is not there."""
    out = disk + ".file"
    blank(out, 0)
    host("debugfs", "-R", f"dump /{name} {out}", disk)
    return out if os.path.getsize(out) else None


class Judge:
    """What the programs say of a file; of the same bytes they say the same."""

    def __init__(self, wanted):
        self.wanted = wanted
        self.known = {}

    def accepts(self, image):
        """Whether verify does. What it accepts has to give back the very disk."""
        bytes_of_it = digest(image)
        if bytes_of_it not in self.known:
            verified = subprocess.run([program("kestrix"), "verify", "--in", image], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL, check=False).returncode == 0
            if verified:
                host(program("kestrix-image"), "extract", image, "--out", image + ".disk")
                assert digest(image + ".disk") == self.wanted, f"{image} is accepted, and is not the disk"
                os.remove(image + ".disk")
            self.known[bytes_of_it] = verified
        return self.known[bytes_of_it]


def program(name):
    return os.path.join(ROOT, "build", "linux", name)


def look(disk, announced, begun, judge):
    """What was announced is there. Gives whether what had only begun is accepted."""
    mended = subprocess.run(["e2fsck", "-fy", disk], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            check=False)
    assert mended.returncode in (0, 1), mended.stdout
    for name in announced:
        image = fetched(disk, name)
        assert image and judge.accepts(image), f"{name} was announced, and is not there"
    image = begun and fetched(disk, begun)
    return bool(image) and judge.accepts(image)


# Each: the file that comes into being, and the command.
STEPS = [("new.kstx", f"kestrix capture --disk {NUMBER.format('SOURCE')} --out /mnt/new.kstx"),
         ("whole.kstx", "kestrix consolidate --in /mnt/new.kstx --out /mnt/whole.kstx"),
         ("copy.kstx", "cp /mnt/new.kstx /mnt/copy.kstx")]


def run_all(folder, source, store, target):
    """Every command once, with marks in the records before it and right behind its last line."""
    disks = [Disk(source, "virtio", "SOURCE", name="source", writable=False), recorded(store, "STORE"),
             recorded(target, "TARGET")]
    with Machine(os.path.join(folder, "line.log"), [*disks, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("mount /dev/disk/by-id/virtio-STORE /mnt; echo 1000000 >/proc/sys/vm/dirty_expire_centisecs")
        machine.run("mark() { printf '%-512s' \"" + MARK.decode() + "$2;\" | dd of=/dev/disk/by-id/virtio-$1 "
                    f"oflag=direct bs=512 count=1 seek=$3 conv=notrunc status=none; }}; END={FILE_SYSTEM_MIB * 2048}")
        for name, command in STEPS:
            machine.run(f"mark STORE 'begin {name}' $END && {command} && mark STORE 'end {name}' $END", seconds=180)
        machine.run(f"kestrix restore --in /mnt/whole.kstx --disk {NUMBER.format('TARGET')} --confirm YES && "
                    f"mark TARGET end {DISK_MIB * 2048}", seconds=180)
        machine.type("poweroff")
        machine.wait_until_off()


@case(GROUP, "at 100 moments of capture and of consolidate: what verify accepts is the disk; at 100 right behind their "
             "last lines, and behind that of restore: what was announced is there")
def test_cuts(folder):
    source = noise(os.path.join(folder, "source"), DISK_MIB * MIB, 15)
    store = blank(os.path.join(folder, "store"), STORE_MIB * MIB)
    host("mke2fs", "-q", "-t", "ext4", store, f"{FILE_SYSTEM_MIB}M")
    target = noise(os.path.join(folder, "target"), (DISK_MIB + 1) * MIB, 16)
    run_all(folder, source, store, target)
    judge = Judge(digest(source))
    numbers = random.Random(17)
    record = entries(store)
    at = marks(record)
    noted, announced = [], []
    for name, command in STEPS[:2]:
        begin, end = at[f"begin {name}"], at[f"end {name}"]
        cuts = sorted(numbers.randrange(begin, end) for _ in range(CUTS))
        accepted = sum(look(state, announced, name, judge) for state in states(store, record, cuts, numbers))
        announced.append(name)
        for state in states(store, record, [end] * CUTS, numbers):
            look(state, announced, None, judge)
        noted.append(f"{command.split()[1]}: {CUTS} of {CUTS}, before its end {accepted} of {CUTS}")
    # What nobody flushed is lost with some of the cuts: the record and the cache are no pretence.
    lost = sum(not look(state, announced, "copy.kstx", judge)
               for state in states(store, record, [at["end copy.kstx"]] * 10, numbers))
    assert lost, "a copy that was not flushed was there after each cut"
    record = entries(target)
    for state in states(target, record, [marks(record)["end"]] * CUTS, numbers):
        with open(state, "rb") as file:
            assert file.read(DISK_MIB * MIB) == read(source), "the restore was announced, and is not there"
    return "; ".join([*noted, f"restore: {CUTS} of {CUTS}"])


def read(path):
    with open(path, "rb") as file:
        return file.read()
