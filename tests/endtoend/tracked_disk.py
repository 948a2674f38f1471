"""A disk that really changes, a driver that watches it, and what a capture must make of the two.

The driver is the stand-in as it watches one disk: a lost write is admitted until an image is committed that was begun
after it, and a restart forgets everything but which epochs were given out.

What a capture is expected to say and to store is worked out from the history of the machine, which knows nothing of
epochs being compared or of bitmaps: who was captured when, what was written since, when the driver was started.
"""
import hashlib
import os
from dataclasses import dataclass

import change_tracker
from change_tracker import ATTACH, COMMIT, QUERY
from harness import (MIB, NO_TRACKER, RESTORE_COMPLETE, MachineTest, progress, restoring_line, source_line,
                     verify_text, whole_progress)
from kestrix_image import FULL, THIN, count_chunks, read_image
from test_thin import (GAP, NO_DRIVER, NO_EPOCH, NO_PREVIOUS, NOT_LATEST, incremental, proved, thin_end, tracker_line,
                       unproved)
from test_tracker import WARNING

CHUNK = 4 * MIB
SECRET = b"secret"


def show(text):
    """A figure for whoever reads the run, on a line of its own."""
    print(f"\n    {text}", end=" ", flush=True)


def restore_text(image, disk, size, chunkSize, stored):
    """The report of a restore of a thin image: behind a reference the line shows where its chunk begins."""
    count = count_chunks(size, chunkSize)
    shown = [min((i + (i in stored)) * chunkSize, size) for i in range(count) if i % 32 == 0 or i == count - 1]
    return (restoring_line(image, disk, count, size) + "".join(progress(done, size) for done in shown) + "\n" +
            RESTORE_COMPLETE)


class Driver(change_tracker.ChangeTracker):
    """Watches one disk. Blocks beyond bitmapBytes, if that is given, are never told of."""

    def __init__(self, path, diskSize, blockShift=20, firstEpoch=0x100, bitmapBytes=None):
        blocks = -(-diskSize >> blockShift)
        super().__init__(path)
        self.blockShift = blockShift
        self.remember(None, firstEpoch, bytes(-(-blocks // 8) if bitmapBytes is None else bitmapBytes))

    def forget(self):
        """What a restart does; an epoch that was given out before is not given out again."""
        self.remember(None, self.next_epoch(), bytes(len(self.bitmap)))

    def lose(self, secondary):
        """A write that could not be recorded."""
        if secondary:
            self.secondaryGap = 1
        else:
            self.gap = 1


@dataclass
class Write:
    offset: int
    length: int
    lost: str = ""  # "", "gap" or "secondary": how the driver admits that it missed the write


@dataclass(eq=False)
class Captured:
    """An image of the history: the disk that it holds, and what the driver knew when it was made."""
    name: str
    disk: bytes
    sealed: bool = False
    base: "Captured" = None  # of a thin image
    epoch: int = None  # None where no tracker served
    begun: int = 0  # so many writes had been made when the driver was asked
    proved: bool = False  # whether the tracker proved what changed since the base of the capture
    reason: str = None  # why it did not
    read: list = None  # the chunks that were read from the disk
    stored: list = None

    def depth(self):
        return 1 + (self.base.depth() if self.base else 0)


class TrackedDiskTest(MachineTest):
    """Disk 1 changes under a driver, disk 2 is what images are restored over."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.file("p", SECRET + b"\n")
        self.driver = None

    def begin(self, content, **options):
        """A new disk, a driver that was just loaded, and an empty history."""
        self.end_driver()
        self.content = bytearray(content)
        self.size = len(content)
        self.count = count_chunks(self.size, CHUNK)
        self.disk(1, content)
        self.driver = Driver(self.device("Tallier"), self.size, **options)
        self.writes = []
        self.committed = None  # the last image that was, since the driver was started
        self.started = 0  # so many writes had been made then

    def end_driver(self):
        if self.driver:
            self.driver.close()
            self.assertEqual(self.driver.faults, [])
            os.unlink(self.device("Tallier"))
            self.driver = None

    def tearDown(self):
        self.end_driver()
        super().tearDown()

    # What happens to the machine

    def write(self, offset, data, lost=""):
        self.content[offset:offset + len(data)] = data
        with open(self.disk_path(1), "r+b") as file:
            file.seek(offset)
            file.write(data)
        self.writes.append(Write(offset, len(data), lost))
        if lost:
            self.driver.lose(lost == "secondary")
        else:
            self.driver.mark(offset, len(data))

    def restart_driver(self):
        self.driver.forget()
        self.committed = None
        self.started = len(self.writes)

    # What a capture must make of it

    def reason_now(self, base, tracked):
        if not tracked:
            return NO_DRIVER
        if base.epoch is None:
            return NO_EPOCH
        if self.committed is None:
            return NO_PREVIOUS
        if self.committed is not base or base.epoch >= 2**56:
            return NOT_LATEST
        return GAP if any(write.lost for write in self.writes[base.begun:]) else None

    def gap_shown(self):
        since = self.committed.begun if self.committed else self.started
        return any(write.lost == "gap" for write in self.writes[since:])

    def chunk_range(self, i):
        return i * CHUNK, min((i + 1) * CHUNK, self.size)

    def may_have_changed(self, i, base):
        """Whether the driver's blocks leave it open that the chunk changed since the base."""
        begin, end = self.chunk_range(i)
        block = 1 << self.driver.blockShift
        told = len(self.driver.bitmap) * 8 * block
        return end > told or any(
            write.offset // block * block < end and begin < ((write.offset + write.length - 1) // block + 1) * block
            for write in self.writes[base.begun:])

    def differs(self, i, base):
        begin, end = self.chunk_range(i)
        return self.content[begin:end] != base.disk[begin:end]

    def capture(self, name, base=None, thin=False, sealed=False, tracked=True, commits=True, meanwhile=None):
        """A capture whose report and image are what the history says. meanwhile, a pair of offset and bytes, is
        written behind the last read of a tracked capture and before its commit."""
        chunks = range(self.count)
        image = Captured(name, bytes(self.content), sealed, base if thin else None, begun=len(self.writes))
        text = source_line(1, self.size) + NO_TRACKER
        if tracked:
            image.epoch = self.driver.next_epoch()
            text = source_line(1, self.size) + tracker_line(image.epoch, self.gap_shown())
        image.read = image.stored = list(chunks)
        if base:
            image.reason = self.reason_now(base, tracked)
            image.proved = image.reason is None
            text += incremental(base.name)
            text += proved(base.epoch) if image.proved else unproved(image.reason, thin)
            if image.proved:
                image.read = [i for i in chunks if self.may_have_changed(i, base)]
            if thin:
                image.stored = [i for i in image.read if self.differs(i, base)]
        text += whole_progress(self.size, CHUNK) + "\n" + (WARNING if tracked and not commits else "")
        if thin:
            text += thin_end(name, len(image.stored), self.count - len(image.stored), len(image.read))
        elif image.proved:
            text += "Capture complete: %s (Read from disk: %d, Copied from base: %d chunks)\n" % (
                name, len(image.read), self.count - len(image.read))
        else:
            text += "Capture complete: %s\n" % name
        arguments = ["--base", base.name] if base else []
        arguments += ["--thin"] * thin + ["--encrypt"] * sealed + ["--password-file", "p"]
        self.check(self.run_capture(name, arguments, tracked, commits, meanwhile), 0, text)
        if tracked and commits:
            self.committed = image
        self.check_captured(image)
        return image

    def run_capture(self, name, arguments, tracked, commits, meanwhile):
        hidden = os.path.join(self.folder, "hidden")
        if not tracked:
            os.rename(self.device("Tallier"), hidden)
        if meanwhile and tracked:
            self.driver.before[COMMIT] = lambda: self.write(*meanwhile)
        self.driver.commitError = 0 if commits else change_tracker.ERROR_ACCESS_DENIED
        self.driver.log.clear()
        try:
            run = self.kestrix("capture", "--disk", "1", "--out", name, *arguments)
        finally:
            self.driver.before.clear()
            self.driver.commitError = 0
            if not tracked:
                os.rename(hidden, self.device("Tallier"))
        self.assertEqual(self.driver.codes(), [ATTACH, QUERY, QUERY, COMMIT] if tracked else [])
        return run

    # Looking at an image

    def check_captured(self, image):
        """The independent reader's view: the header, every entry of the table, every byte of the disk."""
        read = read_image(self.path(image.name), SECRET)
        header = read.header
        self.assertEqual((header.version, header.encrypted, header.epoch, header.diskSize),
                         (THIN if image.base else FULL, int(image.sealed), (image.epoch or 0) % 2**56, self.size))
        self.assertEqual([i for i, entry in enumerate(read.table) if entry.storedLength], image.stored)
        if image.base:
            self.assertEqual(read.trailer.baseName, image.base.name.encode())
        self.check_bytes(read, image.disk)

    def check_bytes(self, read, disk):
        for i, entry in enumerate(read.table):
            begin, end = self.chunk_range(i)
            self.assertEqual(entry.hash, hashlib.sha256(disk[begin:end]).digest())
        self.assertTrue(read.disk() == disk, "the image holds another disk")

    def check_verify(self, image):
        self.check(self.kestrix("verify", "--in", image.name, "--password-file", "p"), 0,
                   verify_text(image.name, self.size, CHUNK, image.base and image.base.name))

    def check_restore(self, image):
        self.disk(2, b"\xEE" * self.size)
        run = self.kestrix("restore", "--in", image.name, "--disk", "2", "--confirm", "YES", "--password-file", "p")
        self.check(run, 0, restore_text(image.name, 2, self.size, CHUNK, image.stored))
        self.assertTrue(self.disk_bytes(2) == image.disk, "another disk was restored")

    def consolidate(self, image, out, sealed=False):
        """The consolidated image as a Captured of its own, which stays where it was made."""
        run = self.kestrix("consolidate", "--in", image.name, "--out", out, "--password-file", "p",
                           *["--encrypt"] * sealed)
        self.check(run, 0, whole_progress(self.size, CHUNK) + "\nConsolidated: %s (self-contained full image, "
                   "verifying...)\n" % out + verify_text(out, self.size, CHUNK))
        folded = Captured(out, image.disk, sealed, stored=list(range(self.count)))
        self.check_captured(folded)
        return folded

    def remove(self, image):
        os.unlink(self.path(image.name))
