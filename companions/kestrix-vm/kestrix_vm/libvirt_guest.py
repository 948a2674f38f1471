"""A guest of libvirt: the view is a backup that is pulled, the bitmaps are checkpoints.

libvirt names a bitmap by its checkpoint and lets nobody rename it. So a checkpoint is made with the epochs of its disks
in its description, and which one was committed for a disk stands in the folder of the state. Where either is missing
nothing is proved. A checkpoint that is deleted leaves its marks to the one before it: that is what a capture that
failed asks for. The bitmap's twin (see bitmaps) is made at the commit, and libvirt knows nothing of it.
"""
import json
import os
import re
import tempfile
import time
import xml.etree.ElementTree as ET

from .bitmaps import (EXTENT, GRANULARITY, STOOD_STILL, TWIN, Previous, add_action, extent_granularity, make_marks,
                      mark_extent, merge_action, read_changes, remove, twin_name, written_since)
from .disks import Disk, refuse_unfit
from .fault import Fault, NotBegun
from .qmp import Refused

try:
    import libvirt
    import libvirt_qemu
except ImportError:
    libvirt = libvirt_qemu = None

OURS = re.compile(r"kestrix-[0-9a-f]{8}")  # a checkpoint
OF_A_RUN = re.compile(r"kestrix-[0-9a-f]{8}-[a-z]+[0-9]+")  # what QEMU has for a run alone


class Monitor:
    """QEMU's commands by way of libvirt: for the mark at the disk's end, which libvirt has no word for."""

    def __init__(self, domain):
        self.domain = domain

    def execute(self, command, **arguments):
        return self.execute_with(command, {name.replace("_", "-"): value for name, value in arguments.items()})

    def execute_with(self, command, arguments):
        request = {"execute": command}
        if arguments:
            request["arguments"] = arguments
        try:
            answer = json.loads(libvirt_qemu.qemuMonitorCommand(self.domain, json.dumps(request), 0))
        except libvirt.libvirtError as error:
            raise Refused(f"libvirt passed {command} not on: {error}.") from None
        if "return" not in answer:
            raise Refused(f"QEMU refused {command}: {answer.get('error', {}).get('desc', 'it tells no reason')}.")
        return answer["return"]


def connect(uri):
    if libvirt is None:
        raise NotBegun("The package python3-libvirt is missing; --qmp SOCKET does without it.")
    libvirt.registerErrorHandler(lambda *_: None, None)  # it would print what is told anyway
    try:
        return libvirt.open(uri)
    except libvirt.libvirtError as error:
        raise NotBegun(f"There is no way to libvirt at {uri}: {error}.") from None


def twin_of(checkpoint, epoch):
    return twin_name(epoch, checkpoint.removeprefix("kestrix-"))


def domains(uri):
    """The names of the guests that run."""
    connection = connect(uri)
    try:
        return sorted(domain.name() for domain in
                      connection.listAllDomains(libvirt.VIR_CONNECT_LIST_DOMAINS_ACTIVE))
    finally:
        connection.close()


class DomainAgent:
    """The guest's agent as libvirt speaks to it."""

    def __init__(self, uri, name):
        try:
            self.connection = libvirt.open(uri)
            self.domain = self.connection.lookupByName(name)
        except libvirt.libvirtError as error:
            raise Fault(f"libvirt does not answer ({error})") from None

    def freeze(self, patience):
        try:
            self.domain.agentSetResponseTimeout(max(1, int(patience)))
            return self.domain.fsFreeze()
        except libvirt.libvirtError as error:
            raise Fault(f"the guest agent can't freeze ({error})") from None

    def thaw(self, patience):
        try:
            self.domain.agentSetResponseTimeout(max(1, int(patience)))
            self.domain.fsThaw()
        except libvirt.libvirtError as error:
            raise Fault(f"the guest agent can't thaw ({error})") from None

    def close(self):
        self.connection.close()


class LibvirtGuest:
    def __init__(self, uri, name, state):
        self.uri, self.state = uri, state
        self.connection = connect(uri)
        try:
            self.domain = self.connection.lookupByName(name)
            self.key = f"libvirt:{self.domain.UUIDString()}"
        except libvirt.libvirtError:
            raise NotBegun(f"There is no guest {name} at {uri}.") from None
        self.run, self.began, self.isOver = None, False, False
        self.disks, self.previous, self.epochs = [], [], []
        self.memory = self.read_memory()

    def close(self):
        self.connection.close()

    def name(self):
        return self.domain.name()

    def sockets(self):
        return []  # libvirt's events would want a loop of its own: look_at_events asks instead

    def why_no_agent(self):
        if self.tree().find("./devices/channel/target[@name='org.qemu.guest_agent.0']") is None:
            return "the guest has no channel for an agent"
        if self.domain.state()[0] != libvirt.VIR_DOMAIN_RUNNING:
            return "the guest is paused"
        return None

    def agent(self):
        name = self.domain.name()
        return lambda: DomainAgent(self.uri, name)

    # The disks

    def tree(self):
        return ET.fromstring(self.domain.XMLDesc())

    def find_disks(self):
        if not self.domain.isActive():
            return []
        return [self.disk_of(told) for told in self.tree().findall("./devices/disk[@device='disk']")
                if told.find("source") is not None]

    def disk_of(self, told):
        name = told.find("target").get("dev")
        source, blockio = told.find("source"), told.find("blockio")
        sectorSize = int(blockio.get("logical_block_size", 512)) if blockio is not None else 512
        kind = told.find("driver").get("type", "raw") if told.find("driver") is not None else "raw"
        where = source.get("file") or source.get("dev") or source.get("name") or source.get("volume") or "-"
        disk = LibvirtDisk(name, name, where, kind, self.domain.blockInfo(name)[0], sectorSize,
                           told.find("readonly") is not None, checkpoints=self.checkpoints())
        self.look_at_node(disk)
        return disk

    def look_at_node(self, disk):
        """Its node in QEMU and the bitmaps of it."""
        for node in Monitor(self.domain).execute("query-named-block-nodes"):
            if node["file"] == disk.file and node["drv"] == disk.format:
                disk.node = node["node-name"]
                disk.bitmaps = [bitmap for bitmap in node.get("dirty-bitmaps", []) if "name" in bitmap]

    def find_disk(self, name):
        disks = self.find_disks()
        for disk in disks:
            if name in (disk.name, disk.file):
                return disk
        if not self.domain.isActive():
            raise NotBegun(f"{self.domain.name()} does not run: its disks are files that any program can read.")
        raise NotBegun(f"There is no disk {name}; there are: {', '.join(disk.name for disk in disks) or 'none'}.")

    # What was committed

    def memory_path(self):
        return self.state.path("last", self.state.guest_key(self.key) + ".checkpoints")

    def read_memory(self):
        try:
            with open(self.memory_path(), encoding="utf-8") as file:
                return json.load(file)
        except (OSError, ValueError):
            return {}

    def write_memory(self):
        with tempfile.NamedTemporaryFile("w", dir=self.state.path("last"), delete=False, encoding="utf-8") as file:
            json.dump(self.memory, file)
            file.flush()
            os.fsync(file.fileno())
        os.replace(file.name, self.memory_path())

    def checkpoints(self):
        """Ours, the name of each with the epochs of its disks."""
        found = {}
        for checkpoint in self.domain.listAllCheckpoints():
            if OURS.fullmatch(checkpoint.getName()):
                told = ET.fromstring(checkpoint.getXMLDesc()).findtext("description") or ""
                found[checkpoint.getName()] = dict(re.findall(r"(\S+)=([0-9a-f]{14})(?: |$)", told))
        return found

    def judge(self, disk):
        known = self.memory.get(disk.name)
        if disk.keeps_bitmaps() == "no":
            return Previous(why="libvirt keeps checkpoints of qcow2 disks alone")
        if not known:
            return Previous(why="no checkpoint of a committed image is there")
        if disk.checkpoints.get(known["checkpoint"], {}).get(disk.name) != known["epoch"]:
            return Previous(why="the checkpoint of the last committed image is gone")
        if known["size"] != disk.size or known["file"] != disk.file:
            return Previous(why="the disk is not the one that the checkpoint was made of")
        if not self.has_extent(disk):
            return Previous(why="the disk was resized")
        epoch, twin = int(known["epoch"], 16), twin_of(known["checkpoint"], int(known["epoch"], 16))
        pair = [bitmap for bitmap in disk.bitmaps if bitmap["name"] in (known["checkpoint"], twin)]
        if len(pair) != 2:
            return Previous(why="the bitmap of the last committed image is gone")
        if not all(bitmap["recording"] and bitmap["granularity"] == GRANULARITY for bitmap in pair):
            return Previous(why=STOOD_STILL)
        return Previous(known["checkpoint"], epoch, twin=twin)

    @staticmethod
    def has_extent(disk):
        """Whether the mark at the disk's end is there, which a cut takes away: see bitmaps."""
        found = [bitmap for bitmap in disk.bitmaps if EXTENT.fullmatch(bitmap["name"])]
        return len(found) == 1 and found[0]["name"] == f"kestrix-extent-{disk.size}" and found[0]["count"] > 0 and \
            not found[0].get("inconsistent") and not found[0]["recording"] and \
            found[0]["granularity"] == extent_granularity(disk.size)

    # Before the moment

    def refuse(self, disks):
        for disk in disks:
            refuse_unfit(disk)
            if self.domain.blockJobInfo(disk.name):
                raise NotBegun(f"Another job runs on {disk.name}. Capture it when that has ended.")
        told = self.domain.jobInfo()
        if told[0] != libvirt.VIR_DOMAIN_JOB_NONE:
            raise NotBegun("The guest is being migrated, saved or backed up. Capture it when that has ended.")

    def clear(self, folders):
        """Ends the backup of a killed run. Its checkpoint goes as every one that was not committed."""
        if folders and self.is_backing_up():
            self.domain.abortJob()
        self.drop_checkpoints()
        self.drop_rest()

    def is_backing_up(self):
        try:
            return "/run/" in self.domain.backupGetXMLDesc()
        except libvirt.libvirtError:
            return False

    def drop_checkpoints(self):
        """All of ours but those that the next capture begins at."""
        wanted = {known["checkpoint"] for known in self.memory.values()}
        for checkpoint in self.domain.listAllCheckpoints():
            if OURS.fullmatch(checkpoint.getName()) and checkpoint.getName() not in wanted:
                self.drop_checkpoint(checkpoint)

    def drop_rest(self):
        """What libvirt doesn't know of: nodes and copies of a run, and twins that nothing begins at."""
        monitor = Monitor(self.domain)
        wanted = {twin_of(known["checkpoint"], int(known["epoch"], 16)) for known in self.memory.values()}
        for disk in self.find_disks():
            for name in (bitmap["name"] for bitmap in disk.bitmaps):
                if OF_A_RUN.fullmatch(name) or TWIN.fullmatch(name) and name not in wanted:
                    self.insist(monitor, "block-dirty-bitmap-remove", {"node": disk.node, "name": name})
        for node in monitor.execute("query-named-block-nodes"):
            if OF_A_RUN.fullmatch(node["node-name"]):
                self.insist(monitor, "blockdev-del", {"node-name": node["node-name"]})

    @staticmethod
    def drop_checkpoint(checkpoint):
        try:
            checkpoint.delete()
        except libvirt.libvirtError:
            # Its bitmap is not on the disk any more. Nothing begins at it.
            checkpoint.delete(libvirt.VIR_DOMAIN_CHECKPOINT_DELETE_METADATA_ONLY)

    def prepare(self, run, disks):
        self.run, self.disks = run, disks
        self.previous = [self.judge(disk) for disk in disks]
        self.epochs = [self.state.draw_epoch() for _ in disks]
        self.server = run.path("q", "nbd")
        # QEMU runs as a user of its own and makes its socket and scratch files there.
        os.mkdir(run.path("q"))
        os.chmod(run.folder, 0o711)
        os.chown(run.path("q"), *self.owner())

    def owner(self):
        for model, label in ((told[1] if len(told) > 1 else "", told[0]) for told in
                             self.domain.securityLabelList() or []):
            found = re.fullmatch(r"\+?(\d+):\+?(\d+)", str(label))
            if found:
                return int(found[1]), int(found[2])
        return -1, -1

    # The moment

    def take(self):
        checkpoint = self.checkpoint_xml()
        try:
            self.domain.backupBegin(self.backup_xml(), checkpoint)
        except libvirt.libvirtError as error:
            if not any(previous.bitmap for previous in self.previous):
                raise NotBegun(f"libvirt begins no backup: {error}.") from None
            # A bitmap may be missing or inconsistent, which nobody is told before.
            self.previous = [Previous(why=f"libvirt can't begin at the checkpoint ({error})") for _ in self.disks]
            self.domain.backupBegin(self.backup_xml(), checkpoint)
        self.began = True

    def kept(self):
        return [i for i, disk in enumerate(self.disks) if disk.keeps_bitmaps() != "no"]

    def checkpoint_xml(self):
        kept = self.kept()
        if not kept:
            return None
        root = ET.Element("domaincheckpoint")
        ET.SubElement(root, "name").text = f"kestrix-{self.run.name}"
        ET.SubElement(root, "description").text = " ".join(
            f"{self.disks[i].name}={self.epochs[i]:014x}" for i in kept)
        disks = ET.SubElement(root, "disks")
        names = {self.disks[i].name for i in kept}
        for disk in self.find_disks():
            ET.SubElement(disks, "disk", name=disk.name, checkpoint="bitmap" if disk.name in names else "no")
        return ET.tostring(root, encoding="unicode")

    def backup_xml(self):
        root = ET.Element("domainbackup", mode="pull")
        ET.SubElement(root, "server", transport="unix", socket=self.server)
        disks = ET.SubElement(root, "disks")
        asked = {disk.name: i for i, disk in enumerate(self.disks)}
        for disk in self.find_disks():
            if disk.name not in asked:
                ET.SubElement(disks, "disk", name=disk.name, backup="no")
                continue
            previous = self.previous[asked[disk.name]]
            told = ET.SubElement(disks, "disk", name=disk.name, backup="yes", type="file", exportname=disk.name)
            if previous.bitmap:
                told.set("backupmode", "incremental")
                told.set("incremental", previous.bitmap)
                told.set("exportbitmap", "changed")
            else:
                told.set("backupmode", "full")
            ET.SubElement(told, "scratch", file=self.run.path("q", f"scratch-{disk.name}"))
        return ET.tostring(root, encoding="unicode")

    def serve(self, i):
        disk, previous = self.disks[i], self.previous[i]
        monitor = Monitor(self.domain)
        if disk.keeps_bitmaps() != "no":
            self.make_marks(monitor, i, disk)
        marks = None
        if previous.bitmap:
            marks = read_changes(self.server, disk.name, "changed", disk.size)
            marks, why = written_since(marks, self.read_twin(monitor, i, disk), previous.bitmap[-8:], disk.size,
                                       isLater=True)
            if why:
                self.previous[i] = Previous(why=why)
        return f"nbd+unix:///{disk.name}?socket={self.server}", marks

    def ours(self, kind, i):
        return f"kestrix-{self.run.name}-{kind}{i}"

    def make_marks(self, monitor, i, disk):
        """By the NBD server that the backup has begun."""
        hasExtent, export = self.has_extent(disk), self.ours("mark", i)
        if not hasExtent:
            remove(monitor, disk, [bitmap["name"] for bitmap in disk.bitmaps if EXTENT.fullmatch(bitmap["name"])])
        try:
            make_marks(monitor, disk, self.server, self.ours("zero", i), export, self.run.name, hasExtent)
            if not hasExtent:
                mark_extent(monitor, disk, self.ours("zero", i))
        finally:
            self.insist(monitor, "block-export-del", {"id": export, "mode": "hard"})

    def read_twin(self, monitor, i, disk):
        """A copy of it, which no longer records, since libvirt's moment leaves the twin itself as it is."""
        copy, export = self.ours("copy", i), self.ours("twin", i)
        monitor.execute("transaction", actions=[
            add_action(disk, copy, disabled=True, persistent=False), merge_action(disk, copy, self.previous[i].twin)])
        try:
            monitor.execute("block-export-add", type="nbd", id=export, node_name=disk.node, name=export,
                            writable=False, bitmaps=[copy])
            return read_changes(self.server, export, copy, disk.size)
        finally:
            self.insist(monitor, "block-export-del", {"id": export, "mode": "hard"})
            self.insist(monitor, "block-dirty-bitmap-remove", {"node": disk.node, "name": copy})

    @staticmethod
    def insist(monitor, command, told):
        """An export goes a moment after it was told to, and with it what its node is kept for."""
        for _ in range(100):
            try:
                monitor.execute_with(command, told)
                return
            except Refused as error:
                if command == "block-export-del" or not re.search("in use|busy|used by", str(error)):
                    return
                time.sleep(0.02)

    def draw(self, i):
        """The epoch that the checkpoint tells; there is one."""
        epoch, self.epochs[i] = self.epochs[i], None
        return epoch

    # While it is read

    def look_at_events(self):
        try:
            if self.domain.jobInfo()[0] == libvirt.VIR_DOMAIN_JOB_NONE:
                return "libvirt has ended the backup that keeps the view."
            if self.domain.state()[0] == libvirt.VIR_DOMAIN_PAUSED and \
                    self.domain.state()[1] == libvirt.VIR_DOMAIN_PAUSED_IOERROR:
                return "The guest was paused: a write failed. The capture ends so that it can go on."
        except libvirt.libvirtError as error:
            return f"The guest has gone: {error}."
        return None

    def commit(self, i, epoch):
        why = self.look_at_events()
        if why:
            raise Fault(why)
        disk, checkpoint = self.disks[i], f"kestrix-{self.run.name}"
        twin, node = twin_of(checkpoint, epoch), self.ours("zero", i)
        Monitor(self.domain).execute("transaction", actions=[
            add_action(disk, twin), merge_action(disk, twin, checkpoint, {"node": node, "name": "twin"}),
            merge_action(disk, checkpoint, {"node": node, "name": "own"})])
        self.memory[disk.name] = {"checkpoint": checkpoint, "epoch": f"{epoch:014x}", "size": disk.size,
                                  "file": disk.file}
        self.write_memory()

    # The end

    def take_down(self):
        if self.run is None:
            return
        try:
            if self.began and self.domain.isActive() and self.is_backing_up():
                self.domain.abortJob()
            if self.domain.isActive():
                self.drop_checkpoints()
                self.drop_rest()
                told = self.domain.state()
                if told[0] == libvirt.VIR_DOMAIN_PAUSED and told[1] == libvirt.VIR_DOMAIN_PAUSED_IOERROR:
                    self.domain.resume()
        except libvirt.libvirtError as error:
            raise Fault(f"libvirt does not take the backup down: {error}.") from None


class LibvirtDisk(Disk):
    def __init__(self, *told, checkpoints):
        super().__init__(*told)
        self.checkpoints = checkpoints

    def keeps_bitmaps(self):
        return "disk" if self.format == "qcow2" and not self.readOnly else "no"
