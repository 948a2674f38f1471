"""The dirty bitmaps that stand for what the change tracker remembers of a disk, and what they prove.

All that it remembers lies in the bitmaps themselves and in their names, nothing in a file beside the disk. So a disk
that is put back to an older state (a copy of its file, a snapshot of the storage below) brings the bitmaps of that
state along, and their names tell the epoch that they belong to: an image of a later epoch is no base for it.

    kestrix-EPOCH-IDENTITY  everything written since the moment of the image of that epoch, the last that was committed
    kestrix-twin-EPOCH-RUN  the same once more; the run is the one that made both
    kestrix-pending-RUN     everything written since the moment of a capture that hasn't committed
    kestrix-extent-SIZE     the disk's last sector is marked in it and nothing else

While a capture is under way the committed bitmap and its twin are disabled and the pending one records. One that is
disabled without a pending one beside it has missed writes.

A bitmap that somebody clears, or removes and makes anew, looks like one of a disk that was not written. So both are
made with marks of their own, of blocks that nobody need have written: which they are follows from the run's name. A
bitmap that lacks one of its own was cleared; whether such a block was written in truth, the other tells, which has its
own elsewhere. A bitmap that stood still for a time differs from its twin, unless the twin stood still with it.

That nobody wrote the disk while the guest was off is proved by qcow2 alone. QEMU marks a bitmap in the file as in use
before the first write and stores it when the file is closed, so that after a crash it is inconsistent. Its other tools
load and fill the bitmaps as the guest's QEMU does. A program that writes qcow2 and knows no bitmaps clears the
autoclear bit that vouches for them, and QEMU then drops them. A snapshot in the file is not gone back to as long as
there are bitmaps. A raw file has none of this: its bitmap ends with the process.

What none of that shows: a disk that is made smaller and as large again reads as zeros behind the cut, and no bitmap has
a mark for it. But a cut drops the marks behind it, so the one at the very end is gone from kestrix-extent-SIZE.
"""
import hashlib
import re
import secrets
from dataclasses import dataclass

from .disks import SECTOR
from .fault import Fault, NotBegun
from .qmp import Refused

try:
    import nbd
except ImportError:
    nbd = None

BLOCK_SHIFT = 16
GRANULARITY = 1 << BLOCK_SHIFT
COMMITTED = re.compile(r"kestrix-([0-9a-f]{14})-([0-9a-f]{12})")
TWIN = re.compile(r"kestrix-twin-([0-9a-f]{14})-([0-9a-f]{8})")
PENDING = re.compile(r"kestrix-pending-[0-9a-f]{8}")
EXTENT = re.compile(r"kestrix-extent-([0-9]+)")
# QEMU takes a bitmap of that many bytes into memory only where there are marks, but a qcow2 file holds no larger one.
LARGEST_EXTENT_BITMAP = 64 * 1024 * 1024
# Marks of its own that each of a pair has. A guest that writes half of its disk after somebody has cleared both hits
# all of them once in 2 to the 32nd times.
OWN_MARKS = 16
CLEARED = "somebody has cleared its bitmap, or made it anew"
STOOD_STILL = "the bitmap has not recorded all the time"


def refuse_without_nbd():
    if nbd is None:
        raise NotBegun("The package python3-libnbd is missing.")


@dataclass
class Previous:
    """What is remembered of a disk: the names of the committed bitmap and of its twin, and their epoch; or why nothing
    is proved. Where only a look into them has told that, they still have names."""
    bitmap: str = None
    epoch: int = None
    why: str = None
    twin: str = None

    def bitmaps(self):
        return [name for name in (self.bitmap, self.twin) if name]


def committed_name(epoch, disk):
    return f"kestrix-{epoch:014x}-{disk.identity()}"


def twin_name(epoch, run):
    return f"kestrix-twin-{epoch:014x}-{run}"


def is_ours(name):
    return any(pattern.fullmatch(name) for pattern in (COMMITTED, TWIN, PENDING, EXTENT))


def own_marks(run, size):
    """The blocks that are marked from the beginning: those of the committed bitmap, and those of its twin. A disk of
    fewer blocks than marks counts as written everywhere."""
    blocks = -(-size >> BLOCK_SHIFT)
    if blocks < 2 * OWN_MARKS:
        return list(range(blocks)), list(range(blocks))
    drawn, count = [], 0
    while len(drawn) < 2 * OWN_MARKS:
        digest = hashlib.sha256(f"{run} {count}".encode()).digest()
        block, count = int.from_bytes(digest, "little") % blocks, count + 1
        if block not in drawn:
            drawn.append(block)
    return drawn[::2], drawn[1::2]


def written_since(marks, twinMarks, run, size, isLater=False):
    """What was written by what a committed bitmap and its twin say, and why that is no proof, one of them None. Where
    the twin was read later it may have marks that the other doesn't have yet."""
    own, twinOwn = (sum(1 << block for block in blocks) for blocks in own_marks(run, size))
    first, second = (int.from_bytes(both, "little") for both in (marks, twinMarks))
    if first & own != own or second & twinOwn != twinOwn:
        return None, CLEARED
    if first & ~second & ~own or not isLater and second & ~first & ~twinOwn:
        return None, STOOD_STILL
    written = first & ~own | second & ~twinOwn | own & twinOwn
    return written.to_bytes(len(marks), "little"), None


def extent_granularity(size):
    granularity = 512
    while size // granularity // 8 > LARGEST_EXTENT_BITMAP:
        granularity *= 2
    return granularity


def remove(qmp, disk, names):
    """As one step; nothing where there is none."""
    if names:
        qmp.execute("transaction", actions=[remove_action(disk, name) for name in names])


def add_action(disk, name, granularity=GRANULARITY, **more):
    return {"type": "block-dirty-bitmap-add",
            "data": {"node": disk.node, "name": name, "granularity": granularity,
                     "persistent": disk.keeps_bitmaps() == "disk", **more}}


def remove_action(disk, name):
    return {"type": "block-dirty-bitmap-remove", "data": {"node": disk.node, "name": name}}


def merge_action(disk, target, *sources):
    return {"type": "block-dirty-bitmap-merge",
            "data": {"node": disk.node, "target": target, "bitmaps": list(sources)}}


def enable_action(disk, name):
    return {"type": "block-dirty-bitmap-enable", "data": {"node": disk.node, "name": name}}


def disable_action(disk, name):
    return {"type": "block-dirty-bitmap-disable", "data": {"node": disk.node, "name": name}}


def judge(disk):
    """What the disk's bitmaps prove as they stand, nothing under way: a Previous."""
    ours = [bitmap for bitmap in disk.bitmaps if is_ours(bitmap["name"])]
    committed = [bitmap for bitmap in ours if COMMITTED.fullmatch(bitmap["name"])]
    twins = [bitmap for bitmap in ours if TWIN.fullmatch(bitmap["name"])]
    pending = [bitmap for bitmap in ours if PENDING.fullmatch(bitmap["name"])]
    extents = [bitmap for bitmap in ours if EXTENT.fullmatch(bitmap["name"])]
    if disk.keeps_bitmaps() == "no":
        return Previous(why="no bitmap can be kept of it")
    if any(bitmap.get("inconsistent") for bitmap in ours):
        return Previous(why="the guest's process or the host ended without storing the bitmap")
    if not committed or not twins:
        return Previous(why="no bitmap of a committed image is there")
    if len(committed) > 1 or len(twins) > 1 or len(pending) > 1 or len(extents) > 1:
        return Previous(why="there are more bitmaps than captures leave")
    pair = committed + twins
    epoch, identity = COMMITTED.fullmatch(committed[0]["name"]).groups()
    if TWIN.fullmatch(twins[0]["name"]).group(1) != epoch:
        return Previous(why="no bitmap of a committed image is there")
    if identity != disk.identity():
        return Previous(why="the disk's size, or what it stands on, is not what it was")
    if not extents or int(EXTENT.fullmatch(extents[0]["name"]).group(1)) != disk.size or extents[0]["count"] == 0:
        return Previous(why="the disk was resized")
    if extents[0]["recording"] or extents[0]["granularity"] != extent_granularity(disk.size) or \
            any(bitmap["granularity"] != GRANULARITY for bitmap in pair):
        return Previous(why="the bitmap is not as it was made")
    if not pending and not all(bitmap["recording"] for bitmap in pair) or pending and not pending[0]["recording"]:
        return Previous(why=STOOD_STILL)
    if any(bitmap["persistent"] != (disk.keeps_bitmaps() == "disk") for bitmap in ours):
        return Previous(why="the bitmap is not as it was made")
    if int(epoch, 16) == 0:
        return Previous(why="the bitmap names no epoch")
    return Previous(committed[0]["name"], int(epoch, 16), twin=twins[0]["name"])


def settle(qmp, disk):
    """Ends what a capture that failed, or was killed, left among the disk's bitmaps, and drops those that prove nothing
    (an inconsistent one takes no other command than that). Gives the Previous; the disk's own list is then out of
    date."""
    ours = [bitmap for bitmap in disk.bitmaps if is_ours(bitmap["name"])]
    if any(bitmap.get("busy") for bitmap in ours):
        raise NotBegun(f"The bitmaps of {disk.name} are in use by somebody else.")
    previous = judge(disk)
    if previous.bitmap is None:
        remove(qmp, disk, [bitmap["name"] for bitmap in ours])
        return previous
    pending = [bitmap["name"] for bitmap in ours if PENDING.fullmatch(bitmap["name"])]
    if pending:
        # In this order a write that comes between two of the actions is marked at least once.
        qmp.execute("transaction", actions=[
            *(enable_action(disk, name) for name in previous.bitmaps()),
            *(merge_action(disk, name, pending[0]) for name in previous.bitmaps()), remove_action(disk, pending[0])])
    return previous


def commit(qmp, disk, run, previous, epoch, node):
    """Makes of the run's pending bitmap those of the committed image, as one step, and drops the ones before. `node` is
    that of make_marks."""
    names, pending = (committed_name(epoch, disk), twin_name(epoch, run)), f"kestrix-pending-{run}"
    qmp.execute("transaction", actions=[
        *(add_action(disk, name) for name in names),
        *(merge_action(disk, name, pending, {"node": node, "name": own}) for name, own in zip(names, ("own", "twin"))),
        *(remove_action(disk, name) for name in [pending, *previous.bitmaps()])])


def make_marks(qmp, disk, server, node, export, run, hasExtent):
    """Makes the bitmaps own, twin and, unless the disk has one, end, for those of the disk to be made of. Marks come
    from writes alone, so these are made on a node of that name that keeps nothing. `server` is the path of QEMU's NBD
    server."""
    own, twinOwn = own_marks(run, disk.size)
    wanted = [("own", GRANULARITY, [block << BLOCK_SHIFT for block in own]),
              ("twin", GRANULARITY, [block << BLOCK_SHIFT for block in twinOwn])]
    if not hasExtent:
        wanted.append(("end", extent_granularity(disk.size), [disk.size - SECTOR]))
    qmp.execute("blockdev-add", driver="null-co", node_name=node, size=disk.size)
    qmp.execute("block-export-add", type="nbd", id=export, node_name=node, name=export, writable=True)
    try:
        connection = nbd.NBD()
        connection.set_export_name(export)
        connection.connect_unix(server)
        for name, granularity, offsets in wanted:
            qmp.execute("block-dirty-bitmap-add", node=node, name=name, granularity=granularity)
            for offset in offsets:
                connection.pwrite(bytes(SECTOR), offset)
            qmp.execute("block-dirty-bitmap-disable", node=node, name=name)
        connection.shutdown()
    except nbd.Error as error:
        raise Fault(f"QEMU's NBD server failed: {error}.") from None


def mark_extent(qmp, disk, node):
    """Makes kestrix-extent-SIZE from what make_marks made on that node."""
    name = f"kestrix-extent-{disk.size}"
    try:
        qmp.execute("transaction", actions=[add_action(disk, name, extent_granularity(disk.size), disabled=True),
                                            merge_action(disk, name, {"node": node, "name": "end"})])
    except Refused as error:
        raise NotBegun(f"No bitmap can be kept of {disk.name}: {error}") from None


def read_changes(server, export, bitmap, size):
    """The marks of an exported bitmap as the tracker's protocol wants them: a bit for each block of GRANULARITY bytes,
    the lowest first."""
    blocks = -(-size >> BLOCK_SHIFT)
    marks = bytearray(-(-blocks // 8))
    context = f"qemu:dirty-bitmap:{bitmap}"
    connection = nbd.NBD()
    connection.add_meta_context(context)
    connection.set_export_name(export)
    try:
        connection.connect_unix(server)
        if not connection.can_meta_context(context):
            raise Fault("QEMU's NBD server does not show the bitmap.")
        if connection.get_size() != size:
            raise Fault("QEMU's NBD server shows a disk of another size.")
        at = 0
        while at < size:
            at = read_extents(connection, context, at, min(size - at, 1 << 30), marks)
        connection.shutdown()
    except nbd.Error as error:
        raise Fault(f"QEMU's NBD server failed: {error}.") from None
    return bytes(marks)


def is_server(path):
    """Whether an NBD server is there: where a run's was, it is that run's."""
    connection = nbd.NBD()
    connection.set_opt_mode(True)  # it wants no export, and takes its leave in order
    try:
        connection.connect_unix(path)
        connection.opt_abort()
    except nbd.Error:
        return False
    return True


def read_extents(connection, context, begin, length, marks):
    """Puts the marks of a part of the disk; gives where the answer ended, which may be before the part's end."""
    found = []

    def take(told, offset, entries, error):
        if told == context:
            found.append((offset, list(entries)))
    connection.block_status(length, begin, take)
    at = begin
    for offset, entries in found:
        if offset != at:
            raise Fault("QEMU's NBD server tells of another part of the bitmap than was asked for.")
        for extent, flags in zip(entries[::2], entries[1::2]):
            # Of an extent that reaches behind the part, what is behind it is asked for again.
            end = min(at + extent, begin + length)
            if flags & 1:
                set_bits(marks, at >> BLOCK_SHIFT, -(-end >> BLOCK_SHIFT))
            at = end
    if at <= begin:
        raise Fault("QEMU's NBD server tells nothing of the bitmap.")
    return at


def set_bits(marks, begin, end):
    while begin < end and begin % 8:
        marks[begin // 8] |= 1 << begin % 8
        begin += 1
    whole = (end - begin) // 8
    if whole > 0:
        marks[begin // 8:begin // 8 + whole] = b"\xff" * whole
        begin += whole * 8
    for block in range(begin, end):
        marks[block // 8] |= 1 << block % 8


def new_run():
    return secrets.token_hex(4)
