"""Chains of images with damage done to them at random, the same ones for the same seed.

A chain has one to five images, plain, sealed, or some of each, and few rounds of key derivation. Damage of the first
kind is done to an image before those above it are made, so that their pins fit it and a reader gets as far as the
damage itself; damage of the second kind is done to the finished files, as a failing medium does it.
"""
import hashlib
import os
import random
import struct
from dataclasses import dataclass

import kestrix_image
from kestrix_image import ENTRY, HEADER

NAMES = ("a.kstx", "b.kstx", "c.kstx", "d.kstx", "e.kstx")
PASSWORD = b"password"
ODD_NUMBERS = (0, 1, 2, 3, 71, 72, 255, 511, 4095, 65535, 1 << 20, (1 << 31) - 1, 1 << 31, (1 << 32) - 1, 1 << 40,
               (1 << 63) - 1, (1 << 64) - 1)


@dataclass
class Case:
    """A damaged chain: its files by name, the image that is opened first, and whether its password is given."""
    files: dict
    withPassword: bool
    kinds: list  # what was done, in words

    def write(self, folder):
        for name, content in self.files.items():
            with open(os.path.join(folder, name), "wb") as file:
                file.write(content)


def odd_number(chance, width, near):
    """A number that a field of so many bytes can hold: near the right one, odd by itself, or any."""
    number = chance.choice((near + chance.choice((-1, 1)), near + chance.randrange(-600, 600), near // 2, near * 2,
                            chance.choice(ODD_NUMBERS), chance.getrandbits(8 * width)))
    return number % (1 << 8 * width)


# ---- Damage to an image in the making ----


def odd_header(chance, record):
    name, width = chance.choice((("version", 4), ("diskSize", 8), ("sectorSize", 4), ("chunkSize", 4),
                                 ("chunkCount", 8), ("encrypted", 1), ("epoch", 7), ("kdfIterations", 4)))
    value = odd_number(chance, width, getattr(record.header, name))
    # More rounds would cost more time than all else, and decide nothing.
    setattr(record.header, name, value & 15 if name == "kdfIterations" else value)


def odd_entry(chance, record):
    entry = chance.choice(record.table)
    name = chance.choice(("diskOffset", "storedLength", "hash", "nonce", "tag"))
    if name in ("diskOffset", "storedLength"):
        setattr(entry, name, odd_number(chance, 8 if name == "diskOffset" else 4, getattr(entry, name)))
    else:
        setattr(entry, name, flipped(chance, getattr(entry, name)))


def odd_place(chance, record):
    entry = chance.choice(record.table)
    entry.diskOffset = chance.choice((chance.choice(record.table).diskOffset, entry.diskOffset + 1, 0, 1 << 40))


def odd_data(chance, record):
    i = chance.randrange(len(record.data))
    record.data[i] = flipped(chance, record.data[i])


def other_length(chance, record):
    """A chunk stored with another length, which its entry tells."""
    i = chance.randrange(len(record.data))
    stored = record.data[i]
    longer, shorter = stored + chance.randbytes(20), stored[:chance.randrange(len(stored) + 1)]
    record.data[i] = longer if chance.random() < 0.6 else shorter
    record.table[i].storedLength = len(record.data[i])


def fitting_digest(chance, record):
    """A chunk of other content, with the digest of that."""
    i = chance.randrange(len(record.data))
    record.data[i] = flipped(chance, record.data[i])
    if not record.header.encrypted:
        record.table[i].hash = hashlib.sha256(record.data[i]).digest()


def changed_places(chance, record):
    """Two chunks that changed places, with or without what their entries say of them."""
    first, second = chance.choices(range(len(record.data)), k=2)
    record.data[first], record.data[second] = record.data[second], record.data[first]
    if chance.random() < 0.5:
        record.table[first], record.table[second] = record.table[second], record.table[first]
    if chance.random() < 0.5:
        one, other = record.table[first], record.table[second]
        one.diskOffset, other.diskOffset = other.diskOffset, one.diskOffset


def hollow(chance, record):
    """A stored chunk made a reference, with or without its data left in between."""
    i = chance.randrange(len(record.data))
    record.table[i].storedLength = 0
    if chance.random() < 0.7:
        record.data[i] = b""


def odd_trailer(chance, record):
    if record.trailer is None:
        record.header.version = kestrix_image.THIN
        return
    name = chance.choice(("magic", "nameLength", "baseName", "basePin", "totalLength"))
    if name in ("nameLength", "totalLength"):
        setattr(record.trailer, name, odd_number(chance, 4, getattr(record.trailer, name)))
    elif name == "baseName":
        base = chance.choice((*(name.encode() for name in NAMES), b"", b"./b.kstx", b"..", b"b.kstx\0", b"B.kstx"))
        record.trailer.baseName, record.trailer.nameLength = base, len(base)
        record.trailer.totalLength = len(base) + 48
    else:
        setattr(record.trailer, name, flipped(chance, getattr(record.trailer, name)))


def more_bytes(chance, record):
    setattr(record, chance.choice(("gap", "tail")), chance.randbytes(chance.randrange(1, 80)))


RECORD_DAMAGE = (odd_header, odd_entry, odd_place, odd_data, other_length, fitting_digest, changed_places, hollow,
                 odd_trailer, more_bytes)


# ---- Damage to a finished file ----


def flipped(chance, content):
    """The bytes with a bit of one of them changed; none of none."""
    if not content:
        return content
    place = chance.randrange(len(content))
    return content[:place] + bytes([content[place] ^ 1 << chance.randrange(8)]) + content[place + 1:]


def cut(chance, content):
    return content[:chance.choice((chance.randrange(len(content) + 1), len(content) - chance.randrange(60)))]


def lengthened(chance, content):
    return content + chance.choice((bytes, chance.randbytes))(chance.randrange(1, 100))


def overwritten(chance, content):
    place, length = chance.randrange(len(content) + 1), chance.choice((1, 4, 16, 72, 512))
    fill = chance.choice((bytes, chance.randbytes))(length)
    return (content[:place] + fill + content[place + length:])[:len(content)]


def shifted(chance, content):
    """The file with some bytes lost, or put in, on the way."""
    place = chance.randrange(len(content) + 1)
    if chance.random() < 0.5:
        return content[:place] + chance.randbytes(chance.randrange(1, 20)) + content[place:]
    return content[:place] + content[place + chance.randrange(1, 20):]


FILE_DAMAGE = (flipped, flipped, flipped, cut, lengthened, overwritten, shifted)


def damage_files(chance, files, kinds):
    names = list(files)
    name = chance.choice(names)
    kind = chance.random()
    if kind < 0.08:
        for missing in names[names.index(name) or 1:]:
            del files[missing]
        kinds.append(f"base {name} missing")
    elif kind < 0.16:
        other = chance.choice(names)
        files[name], files[other] = files[other], files[name]
        kinds.append(f"{name} and {other} exchanged")
    else:
        change = chance.choice(FILE_DAMAGE)
        files[name] = change(chance, files[name])
        kinds.append(f"{name} {change.__name__}")


# ---- Chains ----


def random_secrets(chance, levels):
    """The password of each level, the lowest first."""
    kind = chance.random()
    if kind < 0.4:
        return [None] * levels
    if kind < 0.7:
        return [PASSWORD] * levels
    return [chance.choice((None, PASSWORD, PASSWORD, b"another")) for _ in range(levels)]


def next_disk(chance, disk, chunkSize):
    """The disk after some time: a few of its chunks are others."""
    disk = bytearray(disk)
    for _ in range(chance.randrange(4)):
        start = chance.randrange(-(-len(disk) // chunkSize)) * chunkSize
        length = min(chunkSize, len(disk) - start)
        disk[start:start + length] = chance.choice((bytes, chance.randbytes))(length)
    return bytes(disk)


def random_case(chance, folder):
    """A chain, damaged or, now and then, not. It is made in the folder, where it leaves nothing that counts."""
    levels = chance.randint(1, 5)
    chunkSize = chance.choice((16, 64, 100, 512, 1000))
    disk = chance.randbytes(chunkSize * chance.randint(1, 5) - chance.choice((0, 0, 1, chunkSize // 2)))
    secrets, kinds = random_secrets(chance, levels), []
    damagedLevels = [chance.randrange(levels) for _ in range(chance.choice((0, 0, 1, 1, 2)))]
    written = []
    for level in range(levels):
        def edit(record, level=level):
            for _ in range(damagedLevels.count(level)):
                change = chance.choice(RECORD_DAMAGE)
                change(chance, record)
                kinds.append(f"{NAMES[levels - 1 - level]} {change.__name__}")

        disk = next_disk(chance, disk, chunkSize) if level else disk
        written.append(kestrix_image.make_image(
            os.path.join(folder, NAMES[levels - 1 - level]), disk, secrets[level], written[-1] if written else None,
            chunkSize=chunkSize, kdfIterations=chance.randint(1, 3), edit=edit, randomBytes=chance.randbytes))
    kestrix_image.derive_key.cache_clear()
    files = {os.path.basename(image.path): image.record.encode() for image in reversed(written)}
    for _ in range(chance.choice((0, 0, 1, 1, 1, 2))):
        damage_files(chance, files, kinds)
    return Case({name: with_few_rounds(content) for name, content in files.items()}, chance.random() < 0.9, kinds)


def with_few_rounds(content):
    """The file, if a header is there, with the count of rounds that damage left in it cut to 15."""
    if len(content) < HEADER.size:
        return content
    rounds, = struct.unpack_from("<I", content, HEADER.size - 4)
    return content[:HEADER.size - 4] + struct.pack("<I", rounds & 15) + content[HEADER.size:]


def cases(count, seed, folder):
    for i in range(count):
        yield random_case(random.Random(f"{seed} {i}"), folder)


# ---- Looking at a chain as it stands ----


def table_of(content):
    """Header and entries of a file that has a whole table; None of any other."""
    if len(content) < HEADER.size:
        return None
    header = kestrix_image.decode_header(content[:HEADER.size])
    end = HEADER.size + header.chunkCount * ENTRY.size
    return (header, kestrix_image.decode_table(content[HEADER.size:end])) if end <= len(content) else None
