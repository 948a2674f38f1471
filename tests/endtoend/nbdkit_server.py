"""nbdkit with the plugin, as a server for one test, and clients for it.

The plugin under test lies beside the program under test. A server runs in the foreground, on a Unix socket in a folder
of its own; what it says on its error stream is in said().
"""
import functools
import os
import shutil
import subprocess
import tempfile
import time

import nbd

import harness
import kestrix_image
from harness import SANITIZERS, TIME_LIMIT, MachineTest, sanitizer_of

PLUGIN = os.environ.get("KESTRIX_NBDKIT_PLUGIN",
                        os.path.join(os.path.dirname(harness.PROGRAM), "nbdkit-kestrix-plugin.so"))
CHUNK = 8192  # bytes, of most images that are served


def sanitizer():
    """The run-time that the plugin was built for and nbdkit was not."""
    return sanitizer_of(PLUGIN)


@functools.lru_cache(maxsize=None)
def surroundings():
    """The environment of a server: a sanitizer's run-time must come before everything else."""
    found = {**SANITIZERS, **os.environ}
    if sanitizer():
        found["LD_PRELOAD"] = subprocess.run(["g++", f"-print-file-name=lib{sanitizer()}.so"], check=True, text=True,
                                             stdout=subprocess.PIPE).stdout.strip()
    return found


def nbdkit(*arguments):
    """The command line. The thread sanitizer wants its memory where it has always been."""
    return ["setarch", "--addr-no-randomize"] * (sanitizer() == "tsan") + ["nbdkit", *arguments]


def run_nbdkit(*arguments, cwd):
    return subprocess.run(nbdkit(*arguments), cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=TIME_LIMIT, env=surroundings())


class Server:
    def __init__(self, images, *arguments):
        self.folder = tempfile.mkdtemp(prefix="nbdkit-")
        self.socket = os.path.join(self.folder, "socket")
        self.log = open(os.path.join(self.folder, "log"), "w+b")
        self.process = subprocess.Popen(nbdkit("-f", "-U", self.socket, "-P", os.path.join(self.folder, "pid"),
                                               *arguments), cwd=images, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log, env=surroundings())
        limit = time.monotonic() + TIME_LIMIT
        while not os.path.exists(os.path.join(self.folder, "pid")):
            if self.process.poll() is not None or time.monotonic() > limit:
                text = self.said()
                self.end()
                raise RuntimeError(f"nbdkit did not start: {text}")
            time.sleep(0.005)

    @property
    def uri(self):
        return f"nbd+unix:///?socket={self.socket}"

    def said(self):
        self.log.seek(0)
        return self.log.read().decode()

    def connect(self):
        client = nbd.NBD()
        client.add_meta_context("base:allocation")
        client.connect_unix(self.socket)
        return client

    def status(self, name):
        """A figure of the process in KiB, as the kernel calls it."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith(name + ":"))

    def bytes_read(self):
        """What the process has read from files so far; its sockets don't count."""
        with open(f"/proc/{self.process.pid}/io", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("rchar:"))

    def end(self):
        """Ends the server as a system does that shuts down; gives its exit status."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            return self.process.wait(TIME_LIMIT)
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            self.log.close()
            shutil.rmtree(self.folder, ignore_errors=True)


class NbdkitTest(MachineTest):
    def serve(self, image, *arguments, options=()):
        """A server of the image, with further arguments for the plugin, and options for nbdkit."""
        server = Server(self.images, *options, PLUGIN, image, *arguments)
        self.addCleanup(self.end_server, server)
        return server

    def end_server(self, server):
        if not server.log.closed:
            self.assertEqual(server.end(), 0, "the server did not end well")

    def connect(self, server):
        """A client; it must go before its server, which waits for its clients to leave."""
        client = server.connect()
        self.addCleanup(client.shutdown)
        return client

    def nbdcopy(self, server):
        """The disk as nbdcopy gets it, over as many connections as it likes."""
        out = os.path.join(self.folder, "copy")
        if os.path.exists(out):
            os.unlink(out)
        self.must("nbdcopy", server.uri, out)
        with open(out, "rb") as file:
            return file.read()

    def refused(self, *arguments):
        """What nbdkit says when it refuses to start; nothing serves afterwards."""
        socket = os.path.join(self.folder, "refused")
        run = run_nbdkit("-U", socket, PLUGIN, *arguments, cwd=self.images)
        self.assertEqual(run.returncode, 1, run.stderr)
        self.assertFalse(os.path.exists(socket))
        return run.stderr


def data_offset(written, i):
    """File offset of what the image stores of chunk i."""
    return len(written.record.head()) + sum(len(data) for data in written.record.data[:i])


class Served(NbdkitTest):
    """With a password file, and reads that must fail."""

    def password(self, content=b"secret\n"):
        self.file("password", content)
        return "password-file=password"

    def check_read_fails(self, client, length, offset):
        with self.assertRaises(nbd.Error) as caught:
            client.pread(length, offset)
        self.assertEqual(caught.exception.errno, "EIO")

    def check_bad(self, server, disk, bad, chunkSize=CHUNK):
        """Exactly these chunks of the disk can't be read."""
        client = self.connect(server)
        for i in range(kestrix_image.count_chunks(len(disk), chunkSize)):
            part = disk[i * chunkSize:(i + 1) * chunkSize]
            if i in bad:
                for offset in (0, len(part) - 1):
                    self.check_read_fails(client, 1, i * chunkSize + offset)
            else:
                self.assertTrue(client.pread(len(part), i * chunkSize) == part, f"chunk {i} has other bytes")
