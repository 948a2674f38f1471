"""Each command of the program beside the bare loop that does the same to the same bytes, and its goals."""
import hashlib
from dataclasses import dataclass

from machine import PASSWORD, Contender, fill_disk, fill_with

SOURCE, TARGET = 1, 2  # disks on loop devices with direct I/O
SOURCE_FILE, TARGET_FILE = 3, 4  # the ordinary files under them, as disks
DISKS = {"loop": (SOURCE, TARGET), "file": (SOURCE_FILE, TARGET_FILE)}
SALT, ITERATIONS = slice(44, 60), 200000  # where an image keeps its salt; rounds of the key's derivation


@dataclass
class Row:
    name: str
    kestrix: str
    bareLoop: str
    cpuGoal: float  # at most so much of the bare loop
    wallGoal: float
    settledGoal: float = None  # of the wall until all is on the disk
    reads: str = None  # the image that is brought into the cache for a warm run
    prints: str = ""  # what the program must have said

    def uses_disk(self):
        return "{source}" in self.kestrix or "{target}" in self.kestrix

    def writes(self):
        return "--out" in self.kestrix or "{target}" in self.kestrix


SEALED = " --password-file password"
ROWS = [
    Row("capture", "capture --disk {source} --out out", "capture {sourcePath} out", 1.03, 0.80),
    Row("capture sealed", "capture --disk {source} --out out --encrypt" + SEALED, "capture {sourcePath} out {key}",
        1.03, 0.85),
    Row("thin capture without tracker, nothing changed", "capture --disk {source} --out out --base full --thin",
        "digest {sourcePath}", 1.03, 0.85, prints="(stored 0 of "),
    Row("verify", "verify --in full", "verify full", 1.03, 1.03, reads="full"),
    Row("verify sealed", "verify --in sealed" + SEALED, "verify sealed {key}", 1.03, 1.03, reads="sealed"),
    Row("restore", "restore --in full --disk {target} --confirm YES", "restore full {targetPath}", 1.03, 1.03,
        reads="full"),
    Row("restore sealed", "restore --in sealed --disk {target} --confirm YES" + SEALED,
        "restore sealed {targetPath} {key}", 1.03, 1.03, 1.03, reads="sealed"),
    Row("consolidate", "consolidate --in full --out out", "consolidate full out", 1.03, 1.05, 1.00, reads="full"),
]


def size_of(path):
    with open(path, "rb") as file:
        return file.seek(0, 2)


def image_key(path):
    """The key of a sealed image, as the bare loop takes it."""
    with open(path, "rb") as file:
        salt = file.read(64)[SALT]
    return hashlib.pbkdf2_hmac("sha256", PASSWORD, salt, ITERATIONS).hex()


def prepare(machine, size):
    """A disk, a target and the images of the disk, plain and sealed."""
    source, target = machine.path("source.disk"), machine.path("target.disk")
    fill_disk(source, size)
    fill_with(target, size, b"\xEE")
    machine.link_disk(SOURCE, machine.loop_device(source))
    machine.link_disk(TARGET, machine.loop_device(target))
    machine.link_disk(SOURCE_FILE, source)
    machine.link_disk(TARGET_FILE, target)
    machine.must(machine.kestrix, "capture", "--disk", str(SOURCE), "--out", "full")
    machine.must(machine.kestrix, "capture", "--disk", str(SOURCE), "--out", "sealed", "--encrypt",
                 "--password-file", "password")


def contenders(machine, row, disk, names):
    def words(program, text):
        return [program, *(word.format(**names) for word in text.split())]

    def check_target():
        machine.must_be_equal("source.disk", "target.disk")
        fill_with(machine.path("target.disk"), size_of_target, b"\xEE")

    size_of_target = size_of(machine.path("target.disk"))
    restores = check_target if "{target}" in row.kestrix else None
    return {"kestrix": Contender(words(machine.kestrix, row.kestrix), ("out",),
                                 check=restores or machine.log_holds(row.prints)),
            "bare loop": Contender(words(machine.bareLoop, row.bareLoop), ("out",), check=restores)}


def measure(machine, rounds, quick):
    """One record for each run of each row, on each kind of disk, cold and warm."""
    records = []
    for row in ROWS:
        combinations = [("loop", "cold"), ("loop", "warm"), ("file", "cold"), ("file", "warm")]
        if quick:
            combinations = combinations[::3] if row is ROWS[0] else combinations[:1]
        for disk, cache in combinations:
            if not row.uses_disk():
                if disk == "file":
                    continue
                disk = "none"
            source, target = DISKS["loop" if disk == "none" else disk]
            names = {"source": source, "target": target, "sourcePath": machine.device(f"PhysicalDrive{source}"),
                     "targetPath": machine.device(f"PhysicalDrive{target}"), "key": image_key(machine.path("sealed"))}
            warm = [machine.path(row.reads)] if row.reads else []
            records += machine.compare(contenders(machine, row, disk, names), rounds,
                                       {"row": row.name, "disk": disk}, cache, warm)
    return records
