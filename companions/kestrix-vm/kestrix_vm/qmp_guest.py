"""A guest behind a QMP socket: a moment of its disks as a view that can be read, and its bitmaps.

The view is a backup job that copies nothing by itself (sync=none): what the guest is about to overwrite goes to a
scratch node first, which stands on the disk. Reading the scratch node gives the disk of the moment in which the job
began.

Whatever a run makes in QEMU has a name that begins with kestrix- and the run, so that all of it is found again by its
name: by the run itself, wherever it was stopped, and by a later one if it was killed.
"""
import contextlib
import os
import re
import time
from dataclasses import replace

from . import bitmaps
from .agent import SocketAgent
from .disks import find_disk, find_disks, refuse_busy, refuse_unfit
from .fault import Fault, NotBegun
from .qmp import Broken, Conversation, Refused

OURS = re.compile(r"kestrix-[0-9a-f]{8}-[a-z]+[0-9]+")


class QmpGuest:
    """`agentPath` is the socket of the guest's agent and `nbdPath` that of an NBD server that QEMU already has; either
    may be None."""

    def __init__(self, path, patience, state, agentPath=None, nbdPath=None):
        self.path, self.patience, self.agentPath = os.path.realpath(path), patience, agentPath
        self.state, self.server, self.ownsServer = state, nbdPath, False
        self.key = f"qmp:{self.path}"
        self.qmp = Conversation(self.path, patience)
        self.run, self.pausedBefore = None, False
        self.disks, self.previous, self.committed = [], [], []

    def close(self):
        self.qmp.close()

    def name(self):
        """The guest's own name, where it has one."""
        if "query-name" in self.qmp.commands:
            return self.qmp.execute("query-name").get("name")
        return None

    def find_disks(self):
        return find_disks(self.qmp)

    def find_disk(self, name):
        return find_disk(self.qmp, name)

    @staticmethod
    def judge(disk):
        return bitmaps.judge(disk)

    def why_no_agent(self):
        """Why nobody can freeze the guest, or None."""
        if not self.agentPath:
            return "no guest agent was named"
        if "query-status" in self.qmp.commands and self.qmp.execute("query-status")["status"] != "running":
            return "the guest is paused"
        return None

    def agent(self):
        """What opens a conversation with the agent, to be called in the process that freezes."""
        return lambda: SocketAgent(self.agentPath)

    # Before the moment

    def refuse(self, disks):
        for disk in disks:
            refuse_unfit(disk)
        refuse_busy(self.qmp, disks)

    def clear(self, folders):
        """Ends what killed runs left in QEMU: those of this guest had these folders."""
        self.remove_ours([os.path.join(folder, "nbd") for folder in folders])
        if folders:
            self.go_on()

    def prepare(self, run, disks):
        """All that can be done before the moment, which is to be short: bitmaps settled, scratch nodes made."""
        self.run, self.disks = run, disks
        self.pausedBefore = self.is_paused_by_error()
        self.committed = [False] * len(disks)
        self.previous = [self.settle(disk) for disk in disks]
        self.start_server()
        for i, disk in enumerate(disks):
            if disk.keeps_bitmaps() != "no":
                node, hasExtent = self.ours("zero", i), self.previous[i].bitmap is not None
                bitmaps.make_marks(self.qmp, disk, self.server, node, self.ours("mark", i), self.run.name, hasExtent)
                if not hasExtent:
                    bitmaps.mark_extent(self.qmp, disk, node)
            self.make_scratch(i, disk)

    def settle(self, disk):
        """As the bitmaps now are, whatever was known of them before."""
        disk.bitmaps = self.find_disk(disk.node).bitmaps
        return bitmaps.settle(self.qmp, disk)

    def ours(self, kind, i):
        return f"kestrix-{self.run.name}-{kind}{i}"

    def pending(self):
        return f"kestrix-pending-{self.run.name}"

    def start_server(self):
        if self.server:
            return
        server = self.run.path("nbd")
        if len(os.fsencode(server)) > 107:
            raise NotBegun(f"The name of the socket {server} is too long for the system: choose another --state.")
        try:
            self.qmp.execute("nbd-server-start", addr={"type": "unix", "data": {"path": server}})
        except Refused as error:
            raise NotBegun(f"{error} If QEMU already has an NBD server, name its socket with --nbd.") from None
        self.server, self.ownsServer = server, True

    def make_scratch(self, i, disk):
        path = self.run.path(f"scratch{i}")
        with open(path, "wb"):
            pass
        self.qmp.execute("blockdev-add", driver="file", node_name=self.ours("file", i), filename=path)
        job = self.ours("make", i)
        self.qmp.execute("blockdev-create", job_id=job,
                         options={"driver": "qcow2", "file": self.ours("file", i), "size": disk.size})
        self.end_creation(job)
        self.qmp.execute("blockdev-add", driver="qcow2", node_name=self.ours("view", i), file=self.ours("file", i),
                         backing=disk.node)

    def end_creation(self, job):
        def concluded():
            found = [told for told in self.qmp.execute("query-jobs") if told["id"] == job]
            return not found or found[0]["status"] == "concluded" and found
        found = self.wait_for(concluded, "make a scratch file")
        if found is not True:
            self.qmp.execute("job-dismiss", id=job)
            if "error" in found[0]:
                raise NotBegun(f"QEMU can't make a scratch file: {found[0]['error']}.")

    def wait_for(self, done, what):
        end = time.monotonic() + self.patience
        while True:
            found = done()
            if found:
                return found
            if time.monotonic() > end:
                raise Broken(f"QEMU does not {what}.")
            time.sleep(0.01)

    # The moment

    def take(self):
        """The moment: all views and new bitmaps in one transaction.

        QEMU may take a write between two actions. In this order that is harmless: the new bitmap records before the
        view is taken, the old ones until after it, and a block that is marked without need is only read. The job holds
        the writes back up to the transaction's end, so that both old ones stop at the same."""
        adds, backups, disables = [], [], []
        for i, disk in enumerate(self.disks):
            if disk.keeps_bitmaps() != "no":
                adds.append(bitmaps.add_action(disk, self.pending()))
            backups.append({"type": "blockdev-backup",
                            "data": {"job-id": self.ours("job", i), "device": disk.node,
                                     "target": self.ours("view", i), "sync": "none"}})
            disables += [bitmaps.disable_action(disk, name) for name in self.previous[i].bitmaps()]
        self.qmp.execute("transaction", actions=adds + backups + disables)

    def serve(self, i):
        """Exports a view. Gives the NBD URI, and the tracker's marks of what changed since the previous epoch, None
        without one."""
        disk, previous, export = self.disks[i], self.previous[i], self.ours("export", i)
        self.qmp.execute("block-export-add", type="nbd", id=export, node_name=self.ours("view", i), name=export,
                         writable=False, bitmaps=previous.bitmaps() or None)
        marks = None
        if previous.bitmap:
            both = [bitmaps.read_changes(self.server, export, name, disk.size) for name in previous.bitmaps()]
            marks, why = bitmaps.written_since(*both, bitmaps.TWIN.fullmatch(previous.twin).group(2), disk.size)
            if why:
                self.previous[i] = replace(previous, epoch=None, why=why)
        return f"nbd+unix:///{export}?socket={self.server}", marks

    def draw(self, _):
        """The epoch of a capture of a view: any new one, since only the commit names the bitmap."""
        return self.state.draw_epoch()

    # While it is read

    def sockets(self):
        """What is to be waited for besides."""
        return [] if self.qmp.broken else [self.qmp]

    def why_broken(self):
        """Why a view no longer is the disk of its moment, as a sentence; None where all is well."""
        alive = {told["device"] for told in self.qmp.execute("query-block-jobs")}
        for i in range(len(self.disks)):
            if self.ours("job", i) not in alive:
                return "QEMU has ended the job that keeps the view."
        return None

    def look_at_events(self):
        """Gives why the capture must end, as a sentence, or None."""
        for event in self.qmp.take_events():
            told = event.get("data", {})
            job = str(told.get("device", told.get("id", "")))
            if event.get("event") == "SHUTDOWN":
                return "The guest's QEMU is ending."
            if event.get("event") in ("BLOCK_JOB_COMPLETED", "BLOCK_JOB_CANCELLED", "BLOCK_JOB_ERROR") and \
                    job.startswith(f"kestrix-{self.run.name}-job"):
                return f"QEMU has ended the job that keeps the view: {told.get('error', event['event'])}."
            if event.get("event") == "BLOCK_IO_ERROR" and told.get("action") == "stop":
                return "The guest was paused: a write failed. The capture ends so that it can go on."
        return None

    def commit(self, i, epoch):
        """Makes the image of that epoch the one that the next bitmap begins at. Refuses where the view has broken."""
        why = self.why_broken()
        if why:
            raise Fault(why)
        # An exported bitmap can't be dropped, and what was to be read has been.
        self.remove_exports([self.ours("export", i)])
        bitmaps.commit(self.qmp, self.disks[i], self.run.name, self.previous[i], epoch, self.ours("zero", i))
        self.committed[i] = True

    # The end

    def take_down(self):
        """Leaves of the run nothing in QEMU but the bitmaps that count. What fails is tried once more, over a new
        conversation; raises where QEMU doesn't let it then either."""
        if self.run is None:
            return
        try:
            self.take_down_once()
        except Fault:
            self.qmp.close()
            self.take_down_once()

    def take_down_once(self):
        if self.qmp.broken:
            self.qmp = Conversation(self.path, self.patience)
        self.remove_ours([self.server] if self.ownsServer else [])
        for disk in self.disks:
            self.settle(disk)
        if not self.pausedBefore:
            self.go_on()

    def is_paused_by_error(self):
        return "query-status" in self.qmp.commands and self.qmp.execute("query-status")["status"] == "io-error"

    def go_on(self):
        """A guest that QEMU paused because a write found the scratch file's place full would wait for ever. The place
        is free again, and QEMU repeats the write."""
        if self.is_paused_by_error():
            self.qmp.execute("cont")

    def remove_ours(self, servers):
        """With it the NBD server, where one of these sockets is its own."""
        self.remove_exports([told["id"] for told in self.qmp.execute("query-block-exports") if OURS.match(told["id"])])
        self.remove_jobs()
        self.remove_nodes()
        if any(bitmaps.is_server(server) for server in servers):
            self.qmp.execute("nbd-server-stop")

    def remove_exports(self, names):
        def gone():
            return not set(names) & {told["id"] for told in self.qmp.execute("query-block-exports")}
        for name in names:
            with contextlib.suppress(Refused):  # one that is going is no longer to be told
                self.qmp.execute("block-export-del", id=name, mode="hard")
        self.wait_for(gone, "end its export")

    def remove_jobs(self):
        def gone():
            left = [told for told in self.qmp.execute("query-jobs") if OURS.match(told["id"])]
            for told in left:
                with contextlib.suppress(Refused):  # it may end by itself between the two
                    self.qmp.execute("job-dismiss" if told["status"] == "concluded" else "job-cancel", id=told["id"])
            return not left
        self.wait_for(gone, "end its job")

    def remove_nodes(self):
        def gone():
            left = [name for name in map(node_name, self.qmp.execute("query-named-block-nodes")) if OURS.match(name)]
            # A node goes when the one that stands on it has gone.
            for name in sorted(left, reverse=True):
                with contextlib.suppress(Refused):
                    self.qmp.execute("blockdev-del", node_name=name)
            return not left
        self.wait_for(gone, "let go of its scratch node")


def node_name(told):
    return told["node-name"]
