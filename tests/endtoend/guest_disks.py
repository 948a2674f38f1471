"""Disks that a real block layer serves to a writer, as QEMU does to a guest, and kestrix-vm beside it.

qemu-storage-daemon has the disk; the writer writes through a file that it makes of it. What an image must hold, and
which chunks a capture must read, is worked out from what was written, in the order in which it was.
"""
import contextlib
import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

from harness import MIB, ROOT, MachineTest, Run
from kestrix_image import read_image

CHUNK = 4 * MIB
BLOCK = 64 * 1024  # what a mark of the tracker stands for
KESTRIX_VM = os.environ.get("KESTRIX_VM", os.path.join(ROOT, "companions", "kestrix-vm", "kestrix-vm"))
DOMAIN = "server"
NO_BITMAP = "no bitmap of a committed image is there"
NOT_STORED = "the guest's process or the host ended without storing the bitmap"


def why_no_guests():
    for program in ("qemu-storage-daemon", "qemu-img", "nbdfuse", "fusermount3"):
        if not shutil.which(program):
            return f"{program} is missing"
    return None if os.path.exists("/dev/fuse") else "there is no /dev/fuse"


def wait_until(done, seconds=20):
    end = time.monotonic() + seconds
    while not done():
        if time.monotonic() > end:
            raise AssertionError("it did not come to that")
        time.sleep(0.01)


class Monitor:
    """A client of a QMP monitor, as plain as can be."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(20)
        self.socket.connect(path)
        self.file = self.socket.makefile("rw")
        self.file.readline()
        self.do("qmp_capabilities")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def do(self, command, **arguments):
        self.file.write(json.dumps({"execute": command, "arguments": {
            name.replace("_", "-"): value for name, value in arguments.items()}}) + "\n")
        self.file.flush()
        while True:
            answer = json.loads(self.file.readline())
            if "event" not in answer:
                break
        if "error" in answer:
            raise AssertionError(f"{command}: {answer['error']['desc']}")
        return answer["return"]


class GuestTest(MachineTest):
    """A daemon with the disk `vda`, a file `self.written` by which it is written, and kestrix-vm."""
    size = 24 * MIB
    format = "qcow2"
    patience = 120  # seconds for a capture

    def setUp(self):
        super().setUp()
        self.state = os.path.join(self.folder, "state")
        self.written = os.path.join(self.folder, "vda")
        self.qmp = os.path.join(self.folder, "qmp")
        self.daemon = None
        self.log = open(os.path.join(self.folder, "log"), "wb")
        self.addCleanup(self.log.close)
        self.more = []  # options of every capture
        self.make_disk(self.disk_file())
        self.content = self.blank()
        self.touched = set()  # blocks written since the last image that was committed
        self.addCleanup(self.end_daemon)
        self.begin_daemon()

    def blank(self):
        return bytearray(self.size)

    # The daemon

    def disk_file(self):
        return os.path.join(self.folder, "vda." + self.format)

    def make_disk(self, path):
        self.must("qemu-img", "create", "-q", "-f", self.format, path, str(self.size))

    def begin_daemon(self, *more):
        with open(self.written, "wb"):
            pass
        self.daemon = subprocess.Popen(
            ["qemu-storage-daemon", "--chardev", f"socket,path={self.qmp},server=on,wait=off,id=m",
             "--monitor", "chardev=m", "--blockdev", f"file,node-name=file0,filename={self.disk_file()}",
             "--blockdev", f"{self.format},node-name=vda,file=file0,discard=unmap",
             "--export", f"fuse,id=writer,node-name=vda,mountpoint={self.written},writable=on", *more],
            stdin=subprocess.DEVNULL, stderr=self.log)
        wait_until(lambda: self.daemon.poll() is not None or
                   os.path.exists(self.qmp) and os.path.ismount(self.written))
        self.assertIsNone(self.daemon.poll(), "the daemon did not start")

    def end_daemon(self, number=signal.SIGTERM):
        if self.daemon:
            self.daemon.send_signal(number)
            self.daemon.wait(20)
            self.daemon = None
        if number == signal.SIGKILL:
            subprocess.run(["fusermount3", "-u", "-z", self.written], check=True)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.qmp)

    def monitor(self):
        return Monitor(self.qmp)

    # The writer

    def write(self, offset, data):
        with open(self.written, "r+b", buffering=0) as file:
            self.assertEqual(os.pwrite(file.fileno(), data, offset), len(data))
        self.content[offset:offset + len(data)] = data
        self.touched |= set(range(offset // BLOCK, (offset + len(data) - 1) // BLOCK + 1))

    def as_it_is(self):
        """The disk as its writer reads it, where another has changed it."""
        with open(self.written, "rb") as file:
            return bytearray(file.read())

    def touched_chunks(self):
        return {block * BLOCK // CHUNK for block in self.touched}

    # kestrix-vm

    def command(self, subcommand, *words):
        program = os.path.join(self.folder, "kestrix")
        named = ["--kestrix", program] if subcommand == "capture" else []
        return [KESTRIX_VM, subcommand, "--qmp", self.qmp, "--state", self.state, *named, *words]

    def start_vm(self, subcommand, *words, **more):
        """Started in the folder of the images."""
        process = subprocess.Popen(self.command(subcommand, *words), cwd=self.images, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)
        self.addCleanup(end_process, process)
        return process

    def vm(self, subcommand, *words):
        process = self.start_vm(subcommand, *words)
        out, err = process.communicate(timeout=self.patience)
        return Run(process.returncode, out, err)

    def capture(self, name, *words):
        return self.vm("capture", DOMAIN, "vda", "--out", name, *self.more, *words)

    def captured(self, name, base=None, reason=None, content=None):
        """A capture that goes well, whose image is the disk as it is now (or the given content). With a base it is a
        thin one that the tracker proves, or else didn't prove for that reason; a proved one reads the chunks that were
        written since the last committed image and no others."""
        run = self.capture(name, *(["--base", base, "--thin"] if base else []))
        self.assertEqual((run.status, run.err), (0, b""), run.out.decode())
        text = run.out.decode()
        self.assertNotIn("WARNING", text)
        self.check_holds(name, content or self.content)
        if base and reason is None:
            self.assertIn("matches tracker; unchanged chunks", text)
            read = int(re.search(r"read from disk: (\d+)\)", text).group(1))
            self.assertEqual(read, len(self.touched_chunks()), text)
        elif base:
            self.assertIn("cannot prove what changed", text)
            self.assertIn(f"Nothing is proved: {reason}.", text)
        self.touched = set()
        self.check_nothing_left()
        return text

    def stop_kestrix(self, process):
        """Gives what lets the process's kestrix go on, which has been stopped."""
        return stop_kestrix_of(process, self.state)

    def run_nights(self, count):
        """Each with writes in the day before it; every image is compared with its day, and the last is restored."""
        rng = random.Random(3)
        self.captured("0")
        for night in range(1, count + 1):
            for _ in range(rng.randrange(4)):
                self.write(rng.randrange(self.size // 512 - 300) * 512, rng.randbytes(rng.randrange(1, 300) * 512))
            self.captured(str(night), str(night - 1))
        self.system_disk()
        self.disk(1, self.size)
        restored = self.kestrix("restore", "--in", str(count), "--disk", "1", "--confirm", "YES")
        self.assertEqual(restored.status, 0, restored.err)
        self.assertTrue(self.disk_bytes(1) == bytes(self.content))

    def check_holds(self, name, content):
        self.assertTrue(read_image(self.path(name)).disk() == bytes(content), f"{name} holds another disk")

    def check_nothing_left(self):
        """Neither in the block layer, nor mounted, nor in the folder of runs."""
        with self.monitor() as monitor:
            self.assertEqual([told["id"] for told in monitor.do("query-block-exports")], ["writer"])
            self.assertEqual(monitor.do("query-jobs"), [])
            nodes = monitor.do("query-named-block-nodes")
            self.assertEqual([name for name in (told["node-name"] for told in nodes) if name.startswith("kestrix")], [])
            names = self.bitmaps(nodes)
        self.assertEqual([name for name in names if "pending" in name], [])
        self.assertLessEqual(len([name for name in names if re.match("kestrix-[0-9a-f]{14}-", name)]), 1, names)
        self.assertEqual(os.listdir(os.path.join(self.state, "run")), [])
        with open("/proc/self/mounts", encoding="utf-8") as file:
            self.assertNotIn(os.path.join(self.state, "run"), file.read())

    def bitmaps(self, nodes=None):
        if nodes is None:
            with self.monitor() as monitor:
                nodes = monitor.do("query-named-block-nodes")
        return [bitmap["name"] for node in nodes if node["node-name"] == "vda" for bitmap in
                node.get("dirty-bitmaps", [])]


def stop_kestrix_of(process, state):
    """Gives what lets the kestrix of a kestrix-vm go on, or sends it another signal, since it has been stopped; the
    state's folder tells it apart. It is gone in a few hundredths of a second: without a pause it is looked for among
    the children alone."""
    end = time.monotonic() + 60
    while process.poll() is None and time.monotonic() < end:
        try:
            with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
                children = file.read().split()
            for child in children:
                with open(f"/proc/{child}/cmdline", "rb") as file:
                    words = file.read().split(b"\0")
                if words[0].startswith(state.encode()) and words[1:2] == [b"capture"]:
                    os.kill(int(child), signal.SIGSTOP)
                    return lambda number=signal.SIGCONT, child=int(child): os.kill(child, number)
        except OSError:
            pass  # a child that has ended meanwhile
    raise AssertionError("kestrix had ended, or never began")


def end_process(process):
    if process.poll() is None:
        process.kill()
    process.wait()
    for stream in (process.stdout, process.stderr):
        if stream:
            stream.close()


class Writer(threading.Thread):
    """Writes numbered blocks over a disk, one after the other, and keeps what it wrote."""

    def __init__(self, path, size, rng):
        super().__init__(daemon=True)
        self.path, self.size, self.rng = path, size, rng
        self.written = []  # (offset, bytes), in this order
        self.going = True

    def run(self):
        with open(self.path, "r+b", buffering=0) as file:
            while self.going:
                offset = self.rng.randrange(self.size // 4096) * 4096
                data = (len(self.written) + 1).to_bytes(8, "little") * 512
                self.written.append((offset, data))
                os.pwrite(file.fileno(), data, offset)

    def end(self):
        self.going = False
        self.join()

    def disk_after(self, content, count):
        disk = bytearray(content)
        for offset, data in self.written[:count]:
            disk[offset:offset + len(data)] = data
        return disk


def newest_number(disk):
    """The number of the last of a Writer's blocks that the disk holds; a block of something else has none."""
    return max(int.from_bytes(disk[at:at + 8], "little") for at in range(0, len(disk), 4096))


class Broken:
    """Between kestrix-vm and the daemon: passes on what both say until the n-th command, at which it does as told:
    "closed" ends the conversation before the command, "answered" after it was done, "refused" answers with an error
    in the place of the daemon, "garbage" with what is no QMP, "silent" not at all, and "passed" is no break."""

    def __init__(self, path, target, at=None, way=None):
        self.path, self.target, self.at, self.way = path, target, at, way
        self.commands = []
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.admit, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()
        os.unlink(self.path)

    def admit(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            server.connect(self.target)
            with client, server:
                with contextlib.suppress(OSError):
                    self.pass_on(client, server)

    def pass_on(self, client, server):
        thread = threading.Thread(target=answers, args=(server, client), daemon=True)
        thread.start()
        try:
            for line in client.makefile("rb"):
                self.commands.append(json.loads(line)["execute"])
                here = self.is_here()
                if here and not self.breaks(client, server, line):
                    break
                if not here or self.way == "passed":
                    server.sendall(line)
        finally:
            for end in (server, client):
                with contextlib.suppress(OSError):
                    end.shutdown(socket.SHUT_RDWR)
            thread.join()

    def is_here(self):
        return len(self.commands) == self.at

    def breaks(self, client, server, line):
        """Whether the conversation goes on."""
        if self.way == "closed":
            return False
        if self.way == "answered":
            client.shutdown(socket.SHUT_RDWR)
            server.sendall(line)
            time.sleep(0.1)
            return False
        if self.way == "refused":
            client.sendall(json.dumps({"id": json.loads(line)["id"], "error": {
                "class": "GenericError", "desc": "No such luck"}}).encode() + b"\r\n")
        if self.way == "garbage":
            client.sendall(b"Segmentation fault\r\n")
        return True


def answers(server, client):
    with contextlib.suppress(OSError):
        while True:
            part = server.recv(65536)
            if not part:
                break
            client.sendall(part)
    with contextlib.suppress(OSError):
        client.shutdown(socket.SHUT_RDWR)
