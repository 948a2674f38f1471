"""kestrix-image beside what does the same work: kestrix itself, the bare loop, and itself on less."""
import os
import random
import shutil
from dataclasses import dataclass

from commands import SOURCE, SOURCE_FILE, TARGET_FILE, size_of
from growth import change, write_head
from machine import CHUNK, GIB, TIB, Contender, fill_with

PROGRAM = "kestrix-image"
CHAIN = 30
CORES = os.cpu_count()
LARGER, LARGER_COUNT = "larger", 8 * CORES  # a folder of images of disks of 4 TiB, and how many


@dataclass
class Row:
    name: str
    ours: str
    beside: str  # who it is measured against
    theirs: str
    goal: float  # at most so much of their wall time
    cache: str = "warm"
    reads: tuple = ()  # what is brought into the cache for a warm run
    makes: tuple = ("out",)


ROWS = [
    Row("check of a full image", "check --cached full", "kestrix verify", "{kestrix} verify --in full", 0.60,
        reads=("full",)),
    Row("check of a full image on all cores", "check --cached full",
        f"digest of 1/{CORES} of that much memory on one core", "{bareLoop} memory {share}", 1.15, reads=("full",)),
    Row("compare, cold", f"compare full --disk {SOURCE}", "bare loop", "{bareLoop} digest {source}", 0.60, "cold"),
    # The system forgets what it keeps of a block device when the last one closes it: warm is a disk in a file.
    Row("compare, warm", f"compare --cached full --disk {SOURCE_FILE}", "bare loop, through the cache",
        "{bareLoop} digest-cached {sourceFile}", 0.60, reads=("source.disk",)),
    Row("extract of a disk that is half zeros", "extract half --out out", "kestrix restore onto a file",
        f"{{kestrix}} restore --in half --disk {TARGET_FILE} --confirm YES", 1.00, "cold"),
    Row(f"check of a chain of {CHAIN}", f"check --cached image{CHAIN - 1}", "check of a full image of that disk",
        "{program} check --cached whole", 1.15, reads=("whole",)),
    Row(f"tree over {LARGER_COUNT} images of disks of 4 TiB, cold", f"tree {LARGER}",
        "reading and digesting their tables on all cores",
        f"xargs --arg-file=list --max-procs={CORES} --max-args={LARGER_COUNT // CORES} {{bareLoop}} tables", 1.20,
        "cold"),
]
TREE = "tree over a folder of images"


def half_zeros(machine, size):
    """An image of a disk of which every second chunk is zeros."""
    with open(machine.path("target.disk"), "r+b") as file:
        for number in range(0, size // CHUNK, 2):
            file.seek(number * CHUNK)
            file.write(bytes(CHUNK))
        os.fsync(file.fileno())
    machine.must(machine.kestrix, "capture", "--disk", str(TARGET_FILE), "--out", "half")
    fill_with(machine.path("target.disk"), size, b"\xEE")


def make_chain(machine, size):
    """A chain of which each image changes one chunk in a hundred, and a full image of the same disk."""
    chance = random.Random(1)
    count = -(-size // CHUNK)
    machine.must(machine.kestrix, "capture", "--disk", str(SOURCE), "--out", "image0")
    for number in range(1, CHAIN):
        change(machine.path("source.disk"), sorted(chance.sample(range(count), max(1, count // 100))), chance)
        machine.must(machine.kestrix, "capture", "--disk", str(SOURCE), "--out", f"image{number}", "--base",
                     f"image{number - 1}", "--thin")
    machine.must(machine.kestrix, "consolidate", "--in", f"image{CHAIN - 1}", "--out", "whole")


def compare(machine, row, rounds):
    program = os.path.join(machine.folder, PROGRAM)
    names = {"kestrix": machine.kestrix, "bareLoop": machine.bareLoop, "program": program,
             "source": machine.device(f"PhysicalDrive{SOURCE}"), "sourceFile": machine.path("source.disk"),
             "share": size_of(machine.path("source.disk")) // CORES}
    contenders = {PROGRAM: Contender([program, *row.ours.split()], row.makes),
                  row.beside: Contender([word.format(**names) for word in row.theirs.split()], row.makes)}
    return machine.compare(contenders, rounds, {"row": row.name}, row.cache, [machine.path(name) for name in row.reads])


def make_folder(machine, name, count, diskBytes):
    """Images of which only header and table are there to be read: the rest is a hole."""
    folder = machine.path(name)
    os.mkdir(folder)
    write_head(os.path.join(folder, "head"), diskBytes)
    with open(os.path.join(folder, "head"), "rb") as file:
        head = bytearray(file.read())
    os.unlink(os.path.join(folder, "head"))
    for number in range(count):
        head[44:60] = number.to_bytes(16, "little")  # the salt, by which each image has an identity of its own
        with open(os.path.join(folder, f"{number:04}.kstx"), "wb") as file:
            file.write(head)
            file.truncate(len(head) + diskBytes)
            os.fsync(file.fileno())


def measure(machine, rounds, quick):
    shutil.copy2(os.path.join(machine.build, PROGRAM), machine.folder)
    size = size_of(machine.path("source.disk"))
    half_zeros(machine, size)
    records = []
    for row in ROWS:
        if row.ours.endswith(f"image{CHAIN - 1}"):
            make_chain(machine, size)
        elif row.ours.endswith(LARGER):
            make_folder(machine, LARGER, LARGER_COUNT, TIB // 64 if quick else 4 * TIB)
            with open(machine.path("list"), "w", encoding="ascii") as file:
                file.writelines(f"{LARGER}/{name}\n" for name in sorted(os.listdir(machine.path(LARGER))))
        records += compare(machine, row, rounds)
    count = 10 if quick else 1000
    make_folder(machine, "folder", count, 16 * GIB)
    tree = Contender([os.path.join(machine.folder, PROGRAM), "tree", "folder"])
    return records + machine.compare({PROGRAM: tree}, rounds, {"row": TREE, "images": count}, "cold")
