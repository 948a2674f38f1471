"""A reader and a writer of Kestrix images that share nothing with the program.

The end-to-end tests read with it what the program wrote, and give the program files that it would never write by
itself. The reader takes only what a correct writer produces: each field that has one right value must have it, and the
file must end where its table and trailer say. The writer makes plain and sealed images, full ones and thin ones, and
lets a caller change the finished record, right or wrong, just before it goes into the file.

Field names are those of the format: an image is a 64-byte header, a table of 72 bytes per chunk, the stored chunks one
behind the other and, for a thin image, a trailer that names and pins its base. All integers are little-endian.
"""
import functools
import hashlib
import os
import random
import struct
from dataclasses import dataclass, field

from cryptography.exceptions import InvalidTag
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.pbkdf2 import PBKDF2HMAC

HEADER = struct.Struct("<8sIQIIQB7s16sI")
ENTRY = struct.Struct("<QI32s12s16s")
IMAGE_MAGIC = b"KSTXDSK2"
TRAILER_MAGIC = b"KSTXBASE"
FULL, THIN = 2, 3
CAPTURE_CHUNK = 4 * 1024 * 1024
CAPTURE_ITERATIONS = 200000
ZERO_NONCE, ZERO_TAG, ZERO_SALT = bytes(12), bytes(16), bytes(16)


class ImageFault(Exception):
    """The file is no image that a correct writer produces; the text says what is wrong."""


@dataclass
class Header:
    magic: bytes
    version: int
    diskSize: int
    sectorSize: int
    chunkSize: int
    chunkCount: int
    encrypted: int
    epoch: int
    salt: bytes
    kdfIterations: int

    def encode(self):
        return HEADER.pack(self.magic, self.version, self.diskSize, self.sectorSize, self.chunkSize, self.chunkCount,
                           self.encrypted, self.epoch.to_bytes(7, "little"), self.salt, self.kdfIterations)


@dataclass
class Entry:
    diskOffset: int
    storedLength: int
    hash: bytes
    nonce: bytes
    tag: bytes

    def encode(self):
        return ENTRY.pack(self.diskOffset, self.storedLength, self.hash, self.nonce, self.tag)


@dataclass
class Trailer:
    magic: bytes
    nameLength: int
    baseName: bytes
    basePin: bytes
    totalLength: int

    def encode(self):
        return (struct.pack("<8sI", self.magic, self.nameLength) + self.baseName + self.basePin +
                struct.pack("<I", self.totalLength))


@dataclass
class Record:
    """A whole image in memory, each region on its own, so that a test can change any of them."""
    header: Header
    table: list
    data: list  # the stored bytes of each chunk, empty for a reference
    gap: bytes = b""  # between the data area and the trailer
    trailer: Trailer = None
    tail: bytes = b""  # behind everything

    def head(self):
        return self.header.encode() + b"".join(entry.encode() for entry in self.table)

    def encode(self):
        trailer = self.trailer.encode() if self.trailer else b""
        return self.head() + b"".join(self.data) + self.gap + trailer + self.tail


def decode_header(data):
    fields = list(HEADER.unpack(data))
    fields[7] = int.from_bytes(fields[7], "little")
    return Header(*fields)


def decode_table(data):
    return [Entry(*fields) for fields in ENTRY.iter_unpack(data)]


def image_id(headAndTable):
    return hashlib.sha256(headAndTable).digest()


def chunk_length(header, i):
    return min(header.chunkSize, header.diskSize - i * header.chunkSize)


def chunk_size_of_capture(sectorSize):
    if CAPTURE_CHUNK % sectorSize == 0:
        return CAPTURE_CHUNK
    return (CAPTURE_CHUNK // sectorSize + 1) * sectorSize


def count_chunks(diskSize, chunkSize):
    return -(-diskSize // chunkSize)


@functools.lru_cache(maxsize=None)
def derive_key(password, salt, iterations):
    return PBKDF2HMAC(algorithm=hashes.SHA256(), length=32, salt=salt, iterations=iterations).derive(password)


def demand(condition, text):
    if not condition:
        raise ImageFault(text)


# ---- Reading ----


@dataclass
class Image:
    """An image that passed every test that can be made without its chunks. disk() makes the others."""
    path: str
    header: Header
    table: list
    imageId: bytes
    dataEnd: int
    trailer: Trailer = None
    base: "Image" = None
    key: bytes = None
    offsets: list = field(default_factory=list)

    def chunk(self, i):
        entry = self.table[i]
        if entry.storedLength == 0:
            plain = self.base.chunk(i)
        else:
            with open(self.path, "rb") as file:
                file.seek(self.offsets[i])
                plain = file.read(entry.storedLength)
            demand(len(plain) == entry.storedLength, f"chunk {i} is cut short")
            if self.key is not None:
                try:
                    plain = AESGCM(self.key).decrypt(entry.nonce, plain + entry.tag, None)
                except InvalidTag:
                    raise ImageFault(f"chunk {i} does not open") from None
        demand(hashlib.sha256(plain).digest() == entry.hash, f"chunk {i} has another digest")
        return plain

    def disk(self):
        return b"".join(self.chunk(i) for i in range(len(self.table)))


def read_image(path, password=None, kdfIterations=CAPTURE_ITERATIONS, chunkSize=None, depth=0):
    """Opens an image with its chain, or raises ImageFault. chunkSize None demands the chunk size of a capture."""
    demand(depth <= 64, "the chain is too deep")
    with open(path, "rb") as file:
        size = os.fstat(file.fileno()).st_size
        head = file.read(HEADER.size)
        demand(len(head) == HEADER.size, "the header is cut short")
        header = decode_header(head)
        demand(header.magic == IMAGE_MAGIC, "the magic is wrong")
        demand(header.version in (FULL, THIN), "the version is unknown")
        check_header(header, kdfIterations, chunkSize)
        demand(header.chunkCount * ENTRY.size <= size, "the table is cut short")
        tableBytes = file.read(header.chunkCount * ENTRY.size)
        demand(len(tableBytes) == header.chunkCount * ENTRY.size, "the table is cut short")
        image = Image(path, header, decode_table(tableBytes), image_id(head + tableBytes), 0)
        cursor = HEADER.size + len(tableBytes)
        for entry in image.table:
            image.offsets.append(cursor)
            cursor += entry.storedLength
        image.dataEnd = cursor
        file.seek(image.dataEnd)
        rest = file.read()
        demand(size >= image.dataEnd, "the data area is cut short")
    if header.encrypted:
        demand(password is not None, "the image is sealed and no password was given")
        image.key = derive_key(password, header.salt, header.kdfIterations)
    if header.version == THIN:
        image.trailer = decode_trailer(rest)
        image.base = read_base(image, password, kdfIterations, chunkSize, depth)
    else:
        demand(rest == b"", "bytes stand behind the data area")
    check_table(image)
    return image


def check_header(header, kdfIterations, chunkSize):
    demand(header.sectorSize != 0, "the sector size is zero")
    wanted = chunk_size_of_capture(header.sectorSize) if chunkSize is None else chunkSize
    demand(header.chunkSize == wanted, "the chunk size is wrong")
    demand(header.chunkCount == count_chunks(header.diskSize, header.chunkSize), "the chunk count is wrong")
    demand(header.encrypted in (0, 1), "encrypted is neither 0 nor 1")
    if header.encrypted:
        demand(header.salt != ZERO_SALT, "a sealed image has no salt")
        demand(header.kdfIterations == kdfIterations, "the iteration count is wrong")
    else:
        demand(header.salt == ZERO_SALT, "a plain image has a salt")
        demand(header.kdfIterations == 0, "a plain image has an iteration count")


def check_table(image):
    header = image.header
    nonces = set()
    for i, entry in enumerate(image.table):
        demand(entry.diskOffset == i * header.chunkSize, f"chunk {i} has a wrong disk offset")
        if entry.storedLength == 0:
            demand(image.base is not None, f"chunk {i} is a reference in a full image")
            demand(entry.hash == image.base.table[i].hash, f"chunk {i} has another digest than in the base")
        else:
            demand(entry.storedLength == chunk_length(header, i), f"chunk {i} has a wrong stored length")
        if entry.storedLength == 0 or not header.encrypted:
            demand(entry.nonce == ZERO_NONCE and entry.tag == ZERO_TAG, f"chunk {i} has a nonce or a tag")
        else:
            demand(entry.nonce != ZERO_NONCE, f"chunk {i} has no nonce")
            demand(entry.nonce not in nonces, f"chunk {i} has the nonce of another chunk")
            nonces.add(entry.nonce)


def decode_trailer(data):
    demand(49 <= len(data) <= 4096, "the trailer has an impossible length")
    magic, nameLength = struct.unpack_from("<8sI", data)
    demand(magic == TRAILER_MAGIC, "the trailer's magic is wrong")
    demand(nameLength + 48 == len(data), "the trailer's name length is wrong")
    name = data[12:12 + nameLength]
    demand(not set(name) & set(b"\\/:"), "the trailer's name is no bare file name")
    pin = data[12 + nameLength:44 + nameLength]
    totalLength, = struct.unpack_from("<I", data, 44 + nameLength)
    demand(totalLength == len(data), "the trailer's total length is wrong")
    return Trailer(magic, nameLength, name, pin, totalLength)


def read_base(image, password, kdfIterations, chunkSize, depth):
    path = os.path.join(os.path.dirname(os.fsencode(image.path)), image.trailer.baseName)
    demand(os.path.isfile(path), "the base is missing")
    base = read_image(path, password, kdfIterations, chunkSize, depth + 1)
    demand(base.imageId == image.trailer.basePin, "the base is not the pinned one")
    for name in ("diskSize", "chunkSize", "chunkCount"):
        demand(getattr(base.header, name) == getattr(image.header, name), f"the base has another {name}")
    return base


# ---- Writing ----


@dataclass
class Written:
    """An image that make_image wrote: its record as it stands in the file, and the disk that it holds."""
    path: str
    record: Record
    disk: bytes

    def image_id(self):
        return image_id(self.record.head())


def seeded_disk(size, seed):
    return random.Random(seed).randbytes(size)


def make_image(path, disk, password=None, base=None, *, epoch=0, chunkSize=4096, sectorSize=512, kdfIterations=1000,
               baseName=None, edit=None, randomBytes=os.urandom):
    """Writes an image of the bytes of a disk. With a base (a Written) it is thin: chunks that the base holds become
    references. edit, if given, gets the finished Record and may change it before it is written. Salt and nonces come
    from randomBytes."""
    count = count_chunks(len(disk), chunkSize)
    sealed = password is not None
    header = Header(IMAGE_MAGIC, THIN if base else FULL, len(disk), sectorSize, chunkSize, count, int(sealed), epoch,
                    randomBytes(16) if sealed else ZERO_SALT, kdfIterations if sealed else 0)
    key = derive_key(password, header.salt, kdfIterations) if sealed else None
    record = Record(header, [], [])
    for i in range(count):
        plain = disk[i * chunkSize:(i + 1) * chunkSize]
        entry = Entry(i * chunkSize, 0, hashlib.sha256(plain).digest(), ZERO_NONCE, ZERO_TAG)
        stored = b""
        if not base or entry.hash != hashlib.sha256(base.disk[i * chunkSize:(i + 1) * chunkSize]).digest():
            stored = plain
            entry.storedLength = len(plain)
            if sealed:
                entry.nonce = randomBytes(12)
                stored, entry.tag = seal(key, entry.nonce, plain)
        record.table.append(entry)
        record.data.append(stored)
    if base:
        name = os.fsencode(os.path.basename(base.path)) if baseName is None else baseName
        record.trailer = Trailer(TRAILER_MAGIC, len(name), name, base.image_id(), len(name) + 48)
    if edit:
        edit(record)
    with open(path, "wb") as file:
        file.write(record.encode())
    return Written(path, record, disk)


def seal(key, nonce, plain):
    sealed = AESGCM(key).encrypt(nonce, plain, None)
    return sealed[:-16], sealed[-16:]


def make_chain(folder, levels, password=None, chunks=4, chunkSize=4096):
    """Writes a full image and levels - 1 thin ones on top of it, each of which changes one chunk of the one below.
    password may be a function that gives the password of a level, None for a plain one."""
    disk = bytearray(seeded_disk(chunks * chunkSize, 99))
    written = []
    for level in range(levels):
        if level:
            start = level % chunks * chunkSize
            disk[start:start + chunkSize] = seeded_disk(chunkSize, level)
        secret = password(level) if callable(password) else password
        written.append(make_image(os.path.join(folder, f"level{level:02d}.kstx"), bytes(disk), secret,
                                  written[-1] if written else None, chunkSize=chunkSize))
    return written


def flip_byte(path, offset):
    with open(path, "r+b") as file:
        file.seek(offset)
        byte = file.read(1)
        file.seek(offset)
        file.write(bytes([byte[0] ^ 0x01]))
