"""The disks of a guest as QEMU tells them."""
import hashlib
import json
import os
import re
from dataclasses import dataclass, field

from .fault import NotBegun
from .qmp import Refused

# What lies between the guest and its disk and keeps no bytes of its own. A write that goes around it is not seen there.
FILTERS = {"blkdebug", "blklogwrites", "blkreplay", "blkverify", "compress", "copy-before-write", "copy-on-read",
           "preallocate", "quorum", "replication", "snapshot-access", "throttle"}
PROTOCOLS = {"blkio", "curl", "file", "ftp", "ftps", "gluster", "host_cdrom", "host_device", "http", "https", "iscsi",
             "nbd", "nfs", "null-aio", "null-co", "nvme", "rbd", "ssh"}
MIGRATING = {"setup", "active", "postcopy-active", "postcopy-paused", "postcopy-recover", "pre-switchover", "device",
             "wait-unplug", "cancelling"}
SECTOR = 512  # of a disk in a file


@dataclass
class Disk:
    name: str  # by which it is asked for
    node: str  # the block node that the guest writes to
    file: str
    format: str
    size: int  # bytes
    sectorSize: int  # bytes, as the guest sees it; 0 where nobody tells
    readOnly: bool
    bitmaps: list = field(default_factory=list)  # as QEMU tells them
    image: dict = field(default_factory=dict)  # as QEMU tells it
    aliases: set = field(default_factory=set)

    def keeps_bitmaps(self):
        """How long a bitmap of the disk lives: "disk", "process" or "no"."""
        if self.readOnly or self.format in FILTERS:
            return "no"
        data = self.image.get("format-specific", {}).get("data", {})
        # What lies in a data file beside a qcow2 file can be written while nobody looks, and the bitmaps in the qcow2
        # file would still call themselves consistent.
        if self.format == "qcow2" and data.get("compat") != "0.10" and not data.get("data-file") and \
                self.backing_files() is not None:
            return "disk"
        return "process"

    def backing_files(self):
        """What the disk stands on, as far as it can be told whether that has changed; None where it can't."""
        found = []
        image = self.image.get("backing-image")
        while image:
            try:
                told = os.stat(image["filename"])
            except OSError:
                return None
            found.append([image["filename"], told.st_ino, told.st_size, told.st_mtime_ns])
            image = image.get("backing-image")
        return found

    def identity(self):
        """Changes when what the disk stands on is another: such a change marks no block of the disk's own bitmap."""
        told = [self.size, self.backing_files() or self.image.get("full-backing-filename")]
        return hashlib.sha256(json.dumps(told).encode()).hexdigest()[:12]


def find_disks(qmp):
    """All disks of a guest, CD-ROMs and the like left out; those of a storage daemon are its formatted nodes."""
    if "query-status" in qmp.commands:
        return [disk for told in qmp.execute("query-block") for disk in disk_of_device(qmp, told)]
    # A name that begins with # is QEMU's own, of a node that was made along with another.
    return [disk_of_node(node) for node in qmp.execute("query-named-block-nodes")
            if node["drv"] not in PROTOCOLS | FILTERS and not re.match("#|kestrix-", node["node-name"])]


def disk_of_node(node, name=None):
    image = node["image"]
    bitmaps = [bitmap for bitmap in node.get("dirty-bitmaps", []) if "name" in bitmap]  # those of jobs have none
    return Disk(name or node["node-name"], node["node-name"], node["file"], node["drv"], image["virtual-size"], 0,
                node["ro"], bitmaps, image, {node["node-name"]})


def disk_of_device(qmp, told):
    if "inserted" not in told or told.get("removable"):
        return []
    path = re.sub("/virtio-backend$", "", told.get("qdev", ""))
    name = re.sub("^/machine/peripheral/", "", path)
    disk = disk_of_node(told["inserted"], told["device"] or name or told["inserted"]["node-name"])
    disk.aliases |= {alias for alias in (told["device"], name, path) if alias}
    if path:
        path = path if path.startswith("/") else "/machine/peripheral/" + path
        try:
            disk.sectorSize = qmp.execute("qom-get", path=path, property="logical_block_size")
        except Refused:
            pass  # a device that has no such property has sectors of 512 bytes
    return [disk]


def find_disk(qmp, name):
    disks = find_disks(qmp)
    for disk in disks:
        if name == disk.name or name in disk.aliases:
            return disk
    for node in qmp.execute("query-named-block-nodes"):
        if node["node-name"] == name:
            return disk_of_node(node)
    raise NotBegun(f"There is no disk {name}; there are: {', '.join(disk.name for disk in disks) or 'none'}.")


def refuse_unfit(disk):
    """Raises where no image of the disk could be made that is one of its own."""
    if disk.sectorSize not in (0, SECTOR):
        raise NotBegun(f"{disk.name} has sectors of {disk.sectorSize} bytes. As a file it would look like a disk of "
                       "512, and the image would not start on one of its own kind: capture it from within the guest.")
    if disk.size == 0:
        raise NotBegun(f"{disk.name} is empty.")


def refuse_busy(qmp, disks):
    """Raises where a migration or somebody else's job would change what lies under the view."""
    if "query-migrate" in qmp.commands and qmp.execute("query-migrate").get("status") in MIGRATING:
        raise NotBegun("The guest is being migrated. Capture it on the host where it then is.")
    if "query-status" in qmp.commands and qmp.execute("query-status")["status"] in ("inmigrate", "postmigrate"):
        raise NotBegun("The guest is not here: it comes or has gone by migration.")
    jobs = [job for job in qmp.execute("query-jobs") if job["status"] not in ("concluded", "null")]
    if jobs:
        told = ", ".join(f"{job['id']} ({job['type']})" for job in jobs)
        raise NotBegun(f"Another job runs on the guest's disks: {told}. Capture "
                       f"{', '.join(disk.name for disk in disks)} when it has ended.")
