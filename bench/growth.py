"""How cost grows: with the size of a disk, with a table whose disk is never read, with the length of a chain.

The change tracker is the stand-in of the end-to-end tests, which proves what it is told to prove. Opening an image is
measured by a restore over a target that is too small: it opens the whole chain, and refuses.
"""
import contextlib
import hashlib
import os
import random
import struct
import sys

from machine import CHUNK, MIB, Contender, fill_disk, fill_with

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "endtoend"))
from change_tracker import ATTACH, ChangeTracker  # noqa: E402

SOURCE, TARGET, HUGE, SMALL = 5, 6, 7, 8  # disks
HEADER, ENTRY = struct.Struct("<8sIQIIQB7s16sI"), struct.Struct("<QI32s12s16s")
FIRST_EPOCH = 0xA0
BLOCK = MIB  # of the tracker's bitmap
OPEN, PROVED_THIN = "open", "thin capture, proved, nothing changed"


class Driver(ChangeTracker):
    """Stands as it is told until it is told otherwise, so that one capture can be run over and over."""

    def __init__(self, path, size):
        super().__init__(path)
        self.blockShift = BLOCK.bit_length() - 1
        self.blocks = -(-size // BLOCK)
        self.stand(FIRST_EPOCH)

    def answer(self, code, request, outputLength):
        if code == ATTACH:
            self.remember(*self.stance)
        return super().answer(code, request, outputLength)

    def stand(self, current, changed=()):
        """The image before the current epoch was the last one, and these chunks changed since."""
        bitmap = bytearray(-(-self.blocks // 8))
        for chunk in changed:
            block = chunk * CHUNK // BLOCK
            bitmap[block // 8] |= 1 << block % 8
        self.stance = current - 1, current, bytes(bitmap)


@contextlib.contextmanager
def driver_of(machine, size):
    path = machine.device("Tallier")
    driver = Driver(path, size)
    try:
        yield driver
    finally:
        driver.close()
        os.unlink(path)
    if driver.faults:
        sys.exit(f"the stand-in for the change tracker failed: {driver.faults}")


def capture(machine, disk, out, base=None):
    thin = ["--base", base, "--thin"] if base else []
    return [machine.kestrix, "capture", "--disk", str(disk), "--out", out, *thin]


def alone(machine, label, row, contender, rounds, cache="cold", warm=()):
    return machine.compare({"kestrix": contender}, rounds, {**label, "row": row}, cache, warm)


# ---- Disks of ordinary size, every byte of which is read ----

def by_size(machine, sizes, rounds):
    records = []
    fill_disk(machine.path("source.disk"), max(sizes))
    for size in sizes:
        label = {"part": "size", "size": size, "chain": 1}
        device = machine.loop_device(machine.path("source.disk"), size)
        machine.link_disk(SOURCE, device)
        records += alone(machine, label, "capture", Contender(capture(machine, SOURCE, "out"), ("out",)), rounds)
        machine.must(*capture(machine, SOURCE, "image0"))
        records += readers(machine, label, "image0", rounds)
        machine.detach(device)
        os.unlink(machine.path("image0"))
    os.unlink(machine.path("source.disk"))
    return records


def readers(machine, label, image, rounds):
    records = alone(machine, label, "verify", Contender([machine.kestrix, "verify", "--in", image]), rounds)
    fill_with(machine.path("target.disk"), label["size"], b"\xEE")
    device = machine.loop_device(machine.path("target.disk"))
    machine.link_disk(TARGET, device)
    restore = [machine.kestrix, "restore", "--in", image, "--disk", str(TARGET), "--confirm", "YES"]

    def check():
        machine.must("cmp", "--bytes", str(label["size"]), machine.path("source.disk"), machine.path("target.disk"))

    records += alone(machine, label, "restore", Contender(restore, check=check), rounds)
    machine.detach(device)
    os.unlink(machine.path("target.disk"))  # before the next, which may need its room
    consolidate = Contender([machine.kestrix, "consolidate", "--in", image, "--out", "out"], ("out",))
    return records + alone(machine, label, "consolidate", consolidate, rounds)


# ---- Chains: each image changes one chunk in a hundred of the one below ----

def by_chain(machine, size, lengths, rounds):
    records, chance = [], random.Random(1)
    fill_disk(machine.path("source.disk"), size)
    device = machine.loop_device(machine.path("source.disk"))
    machine.link_disk(SOURCE, device)
    count = -(-size // CHUNK)
    with driver_of(machine, size) as driver:
        machine.must(*capture(machine, SOURCE, "image0"))
        for length in range(1, max(lengths) + 1):
            if length > 1:
                changed = sorted(chance.sample(range(count), max(1, count // 100)))
                change(machine.path("source.disk"), changed, chance)
                driver.stand(FIRST_EPOCH + length - 1, changed)
                machine.must(*capture(machine, SOURCE, f"image{length - 1}", f"image{length - 2}"))
            if length in lengths:
                label = {"part": "chain", "size": size, "chain": length}
                records += readers(machine, label, f"image{length - 1}", rounds)
    machine.detach(device)
    forget_images(machine)
    return records


def change(path, chunks, chance):
    with open(path, "r+b") as file:
        for chunk in chunks:
            file.seek(chunk * CHUNK)
            file.write(chance.randbytes(4096))
        os.fsync(file.fileno())


def forget_images(machine):
    for name in os.listdir(machine.images):
        if name.startswith("image") or name == "source.disk":
            os.unlink(machine.path(name))


# ---- Disks of which only the table matters ----

def write_head(path, size):
    """Header and table of a full image of a disk of zeros: all that is ever read here of a base."""
    count = -(-size // CHUNK)
    digest = hashlib.sha256(bytes(CHUNK)).digest()
    with open(path, "wb") as file:
        file.write(HEADER.pack(b"KSTXDSK2", 2, size, 512, CHUNK, count, 0, FIRST_EPOCH.to_bytes(7, "little"),
                               bytes(16), 0))
        for first in range(0, count, 65536):
            file.write(b"".join(ENTRY.pack(i * CHUNK, CHUNK, digest, bytes(12), bytes(16))
                                for i in range(first, min(first + 65536, count))))


def huge_chain(machine, folder, size, lengths, rounds):
    """Listing, and then for each length of chain: opening its top, and a proved capture of nothing on that top."""
    records = []
    path = os.path.join(folder, "huge.disk")
    with open(path, "wb") as file:
        file.truncate(size)
    machine.link_disk(HUGE, path)
    with open(machine.device(f"PhysicalDrive{SMALL}"), "wb") as file:
        file.truncate(MIB)
    listing = Contender([machine.kestrix, "list-disks"], check=machine.log_holds(f"PhysicalDrive{HUGE}"))
    records += alone(machine, {"part": "table", "size": size, "chain": 0}, "list-disks", listing, rounds)
    write_head(machine.path("image0"), size)
    with driver_of(machine, size) as driver:
        for length in range(1, max(lengths) + 1):
            driver.stand(FIRST_EPOCH + length)
            image, base = f"image{length}", f"image{length - 1}"
            if length in lengths:
                label = {"part": "table", "size": size, "chain": length}
                records += open_and_capture(machine, label, base, rounds)
            machine.must(*capture(machine, HUGE, image, base))
    # The capture that the chain of one image made is itself one to be opened.
    if lengths == [1]:
        records += opened(machine, {"part": "table", "size": size, "chain": 2}, "image1", rounds)
    forget_images(machine)
    return records


def opened(machine, label, image, rounds):
    images = [machine.path(f"image{i}") for i in range(label["chain"])]
    command = [machine.kestrix, "restore", "--in", image, "--disk", str(SMALL), "--confirm", "YES"]
    contender = Contender(command, check=machine.log_holds("smaller than the image's"), status=1)
    return [record for cache in ("cold", "warm")
            for record in alone(machine, label, OPEN, contender, rounds, cache, images)]


def open_and_capture(machine, label, base, rounds):
    images = [machine.path(f"image{i}") for i in range(label["chain"])]
    contender = Contender(capture(machine, HUGE, "out", base), ("out",), check=machine.log_holds("from disk: 0)"))
    return opened(machine, label, base, rounds) + [
        record for cache in ("cold", "warm")
        for record in alone(machine, label, PROVED_THIN, contender, rounds, cache, images)]


def measure(machine, rounds, plan):
    """plan: the sizes of disks read, the size and lengths of chains read, the sizes of tables, the size and lengths of
    chains of tables."""
    records = by_size(machine, plan["sizes"], rounds)
    records += by_chain(machine, plan["chainSize"], plan["chains"], rounds)
    folder = machine.file_system_in_memory("memory")
    for size in plan["tables"]:
        records += huge_chain(machine, folder, size, [1], rounds)
    return records + huge_chain(machine, folder, plan["tableChainSize"], plan["chains"], rounds)
