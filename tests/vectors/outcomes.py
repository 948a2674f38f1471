"""What each command must say and write, given what is wrong with an image.

The generator states for each image, by hand, where a reader stops: at opening, with a fault of its words, or else chunk
by chunk with one of the findings below. The functions here turn that statement into the whole of both streams, the exit
status and the bytes that stand on the disk or in the new file afterwards. They open no image and know no cryptography.
"""
import hashlib
from dataclasses import dataclass, field

from harness import (LARGER_NOTE, NO_TRACKER, RESTORE_COMPLETE, gib, progress, restoring_line, source_line,
                     verify_failed, verifying_line, whole_progress)
from kestrix_image import (CAPTURE_CHUNK, FULL, IMAGE_MAGIC, THIN, TRAILER_MAGIC, ZERO_NONCE, ZERO_SALT, ZERO_TAG,
                           Entry, Header, Record, Trailer, count_chunks, image_id)

SECTOR = 512  # of a disk in an ordinary file
OLD_BYTE = 0xEE  # what a target is filled with before a restore
DISK_NUMBER = 1
NEW = "new"  # what consolidate and capture write
DISK_FULL = 112  # of a write behind the end of a disk in an ordinary file
CURRENT_EPOCH, PREVIOUS_EPOCH = 8, 7  # of the change tracker that proves that nothing changed
STRAY = "*"  # for the number in a fatal line where no call of the system's failed: it then means nothing


@dataclass(frozen=True)
class Fault:
    """A fatal line, and the line before it if there is one. error is the number of the system's call that failed."""
    message: str
    first: str = ""
    error: object = STRAY
    status: str = ""  # of the cryptography, in place of the error

    def text(self):
        tail = f"NTSTATUS {self.status}" if self.status else f"GetLastError={self.error}"
        return f"{self.first}FATAL: {self.message} ({tail})\n"


# What is found at a chunk. A Fault is a finding as well: what following a reference ends in.
OK = "ok"
HASH = "the digest differs, or a plain chunk has a wrong length"
TAG = "the seal does not open, or a sealed chunk has a wrong length"
CUT = "the file ends before the chunk does"

NOT_OPENED = "could not open image file"
TOO_DEEP = Fault("image chain is too deep (or loops back on itself)")
NO_HEADER = Fault("could not read image header - file is truncated or not a .kstx image")
NOT_AN_IMAGE = Fault("not a recognized Kestrix image (bad magic/version)")
NO_TABLE = Fault("could not read chunk table - image is truncated")
NO_PASSWORD = Fault("this image is encrypted - pass --password-file")
NO_PASSWORD_FILE = Fault("could not open password file", error=2)
EMPTY_PASSWORD = Fault("password file is empty")
NO_ITERATIONS = Fault("BCryptDeriveKeyPBKDF2", status="0xC000000D")
NO_TRAILER = Fault("thin image has no valid trailer - file is truncated")
BAD_TRAILER = Fault("thin image trailer is malformed")
OUTSIDE = Fault("thin image trailer names a base outside its folder - refusing")
OTHER_GEOMETRY = Fault("base image geometry differs from the thin image")
NO_BASE_IN_CHUNK = Fault("image has a thin chunk but no base image")
BAD_HASH = Fault("chunk failed its hash check (corrupt image or base)")
BAD_TAG = Fault("chunk failed authentication (corrupt or tampered image)")
CUT_BELOW = Fault("could not read chunk data from image (truncated?)")
FETCHED = {HASH: BAD_HASH, TAG: BAD_TAG, CUT: CUT_BELOW}  # the same finding where a chunk is fetched by itself

VERIFY_CUT = Fault("could not read chunk data - image is truncated")
ABORTED = {TAG: "failed authentication (corrupt/tampered image)", HASH: "hash mismatch (corrupt image)"}
RESTORE_CUT = Fault("could not read chunk data from image - restore aborted, target disk left partially written")
NOT_WRITTEN = "WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet"
SOURCE_DIFFERS = Fault("--base image geometry does not match source disk")
CHUNKING_DIFFERS = Fault("--base image chunking parameters do not match")

NO_EPOCH = "base image has no epoch (captured without the tracker)"
OTHER_EPOCH = "base image is not the most recent committed image"
NO_DRIVER = "no change tracker for this disk"


def digest(data):
    return hashlib.sha256(data).digest()


def missing_base(path, error=2):
    return Fault("base image of a thin image not found",
                 f"This is a thin (incremental) image; its base image is missing: {path}\n"
                 "Keep every image of a chain in the same folder.\n", error)


def other_base(path):
    return Fault("base image does not match the one pinned in the thin image",
                 f"Base image {path} is not the one this image was made against (it was modified or replaced).\n")


def not_opened(path, error):
    return Fault(NOT_OPENED, f"could not open image file: {path}\n", error)


@dataclass
class Statement:
    """One image with what is stated about it. header and table are those that a reader finds in the file."""
    image: str
    disk: bytes  # what a sound image in its place would hold; capture reads it
    opening: Fault = None
    header: Header = None
    table: list = None
    plain: list = None  # the bytes that a reader gets for each chunk that it takes
    found: dict = field(default_factory=dict)  # the finding at each chunk that is not OK
    fetched: dict = field(default_factory=dict)  # the same for a chunk fetched by itself, where it differs
    chain: str = None  # the base's name, as it is printed
    head: bytes = b""  # header and table as they stand in the file

    def length(self, i):
        return 0 if not self.header.chunkSize else min(self.header.chunkSize,
                                                       (self.header.diskSize - i * self.header.chunkSize) % 2**64)

    def finding(self, i):
        return self.found.get(i, OK)

    def finding_fetched(self, i):
        finding = self.fetched.get(i, self.finding(i))
        return FETCHED.get(finding, finding)


@dataclass
class Outcome:
    status: int
    out: str
    err: str
    written: bytes = None  # the target disk, or the new file; none where there is no file


def ended(out, fault, written=None):
    return Outcome(1, out, fault.text(), written)


def shown(i, count, done, total):
    return progress(done % 2**64, total) if i % 32 == 0 or i == count - 1 else ""


def verify(image):
    if image.opening:
        return ended("", image.opening)
    count, total = len(image.table), image.header.diskSize
    out = verifying_line(image.image, count, total)
    if image.chain is not None:
        out += f"  thin image: chain continues with {image.chain}\n"
    failures = 0
    for i, entry in enumerate(image.table):
        finding = image.finding(i)
        if isinstance(finding, Fault):
            return ended(out, finding)
        if finding == CUT:
            return ended(out, VERIFY_CUT)
        where = f"\n  chunk {i} (disk offset {entry.diskOffset}): "
        failures += finding != OK
        if finding == TAG:
            out += where + "AUTHENTICATION FAILED (corrupt or tampered)\n"
            continue
        if finding == HASH:
            out += where + "HASH MISMATCH\n"
        out += shown(i, count, entry.diskOffset + (entry.storedLength or image.length(i)), total)
    out += "\n"
    if failures:
        return Outcome(1, out, verify_failed(failures, count))
    return Outcome(0, out + f"Verify OK - all {count} chunks match their recorded hash.\n", "")


def fresh_target(image):
    """The disk that an image is restored to, before that."""
    return bytearray([OLD_BYTE]) * len(image.disk)


def restore(image):
    target = fresh_target(image)
    if image.opening:
        return ended("", image.opening, target)
    count, total = len(image.table), image.header.diskSize
    if len(target) < total:
        return Outcome(1, "", f"Refusing: target disk {DISK_NUMBER} is {gib(len(target))}, smaller than the image's "
                              f"{gib(total)} source.\n", target)
    out = LARGER_NOTE if len(target) > total else ""
    out += restoring_line(image.image, DISK_NUMBER, count, total)
    position = 0
    for i, entry in enumerate(image.table):
        finding = image.finding(i)
        # A seal that opens is enough here: the digest of a sealed chunk is not looked at.
        if isinstance(finding, Fault):
            return ended(out, finding, target)
        if finding == CUT:
            return ended(out, RESTORE_CUT, target)
        if finding == TAG or (finding == HASH and not image.header.encrypted):
            what = ABORTED[finding]
            return Outcome(1, out, f"\nFATAL: chunk {i} {what} - restore aborted, target disk left partially "
                                   "written.\n", target)
        if entry.diskOffset < 2**63:  # else the seek fails, and the chunk goes where the last one ended
            position = entry.diskOffset
        room = max(0, len(target) - position)
        data = image.plain[i][:room]
        target[position:position + len(data)] = data
        position += len(data)
        if len(data) < len(image.plain[i]):
            return ended(out, Fault(NOT_WRITTEN, error=STRAY if room else DISK_FULL), target)
        out += shown(i, count, entry.diskOffset + entry.storedLength, total)
    return Outcome(0, out + "\n" + RESTORE_COMPLETE, "", target)


def unfinished(count, data):
    """A new file whose run ended before its header and table were written."""
    return bytes(64 + 72 * count) + data if data else b""


def full_image(header, entries, data, epoch=0):
    """A plain full image with the geometry of a header."""
    new = Header(IMAGE_MAGIC, FULL, header.diskSize, header.sectorSize, header.chunkSize, header.chunkCount, 0, epoch,
                 ZERO_SALT, 0)
    table = [Entry(offset, len(chunk), digest, ZERO_NONCE, ZERO_TAG)
             for (offset, digest), chunk in zip(entries, data)]
    return Record(new, table, data)


def consolidate(image):
    if image.opening:
        return ended("", image.opening)
    count, total = len(image.table), image.header.diskSize
    out, data = "", []
    for i, entry in enumerate(image.table):
        finding = image.finding_fetched(i)
        if finding != OK:
            return ended(out, finding, unfinished(count, b"".join(data)))
        data.append(image.plain[i])
        out += shown(i, count, entry.diskOffset + len(data[i]), total)
    new = full_image(image.header, [(entry.diskOffset, entry.hash) for entry in image.table], data)
    closing = verify(Statement(NEW, image.disk, header=new.header, table=new.table))
    out += f"\nConsolidated: {NEW} (self-contained full image, verifying...)\n" + closing.out
    return Outcome(closing.status, out, closing.err, new.encode())


def own_geometry(image):
    """What a capture of the disk puts into its header, but for version and epoch."""
    size = len(image.disk)
    return Header(IMAGE_MAGIC, FULL, size, SECTOR, CAPTURE_CHUNK, count_chunks(size, CAPTURE_CHUNK), 0, 0, ZERO_SALT, 0)


def capture_begins(image, tracker):
    """Up to the point where the base has passed: (what was printed, its end or none)."""
    own, base = own_geometry(image), image.header
    out = source_line(DISK_NUMBER, len(image.disk)) + tracker + f"Incremental mode: base image {image.image}\n"
    if image.opening:
        return out, ended(out, image.opening)
    if (base.diskSize, base.sectorSize) != (own.diskSize, own.sectorSize):
        return out, ended(out, SOURCE_DIFFERS)
    if (base.chunkSize, base.chunkCount) != (own.chunkSize, own.chunkCount):
        return out, ended(out, CHUNKING_DIFFERS)
    return out, None


def captured_whole(image, out, reason, epoch):
    own = own_geometry(image)
    out += f"  --base: cannot prove what changed ({reason}) - doing a FULL capture (correct, just slower).\n"
    out += whole_progress(len(image.disk), CAPTURE_CHUNK) + f"\nCapture complete: {NEW}\n"
    return Outcome(0, out, "", full_image(own, [(0, digest(image.disk))], [image.disk], epoch).encode())


def capture(image):
    """--base, on a machine without a change tracker: the base is opened, compared with the disk and left alone."""
    out, end = capture_begins(image, NO_TRACKER)
    return end or captured_whole(image, out, NO_DRIVER, 0)


def capture_thin(image):
    """--base with --thin, without a change tracker: digests of the disk are compared with the base's table."""
    out, end = capture_begins(image, NO_TRACKER)
    if end:
        return end
    out += (f"  --base: cannot prove what changed ({NO_DRIVER}) - reading every chunk and comparing hashes with the "
            "base (no driver needed; slower to read, still a small file).\n")
    own = own_geometry(image)
    own.version = THIN
    name = image.image.encode()
    entry = Entry(0, 0, digest(image.disk), ZERO_NONCE, ZERO_TAG)
    stored = entry.hash != image.table[0].hash
    entry.storedLength = len(image.disk) if stored else 0
    out += whole_progress(len(image.disk), CAPTURE_CHUNK) + "\n"
    out += (f"Capture complete (thin): {NEW}  (stored {int(stored)} of 1 chunks, {int(not stored)} are references to "
            "the base; read from disk: 1)\n")
    trailer = Trailer(TRAILER_MAGIC, len(name), name, image_id(image.head), len(name) + 48)
    return Outcome(0, out, "", Record(own, [entry], [image.disk if stored else b""], trailer=trailer).encode())


def capture_proved(image):
    """--base with a change tracker by which nothing changed since the last epoch: chunks are fetched from the base."""
    out, end = capture_begins(image, f"Change tracker: disk {DISK_NUMBER} epoch {CURRENT_EPOCH:X}\n")
    if end:
        return end
    if image.header.epoch != PREVIOUS_EPOCH:
        return captured_whole(image, out, OTHER_EPOCH if image.header.epoch else NO_EPOCH, CURRENT_EPOCH)
    out += (f"  --base: base epoch {PREVIOUS_EPOCH:X} matches tracker; unchanged chunks will be copied from the base "
            "image.\n")
    finding = image.finding_fetched(0)
    if finding != OK:
        return ended(out, finding, b"")
    out += whole_progress(len(image.disk), CAPTURE_CHUNK)
    out += f"\nCapture complete: {NEW} (Read from disk: 0, Copied from base: 1 chunks)\n"
    return Outcome(0, out, "", full_image(own_geometry(image), [(0, image.table[0].hash)], [image.plain[0]],
                                          CURRENT_EPOCH).encode())
