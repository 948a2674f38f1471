"""Places of copies for kestrix-keep: servers of rclone's on the loopback address, and what can happen to them."""
import hashlib
import os
import socket
import subprocess
import threading
import time

from keep_job import JobTest

RCLONE = "/usr/bin/rclone"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def under_way(name, machine=None):
    """The name that a file has while a machine copies it, this one if none is named."""
    machine = socket.gethostname() if machine is None else machine
    return f"{name}.{hashlib.sha256(machine.encode()).hexdigest()[:8]}.copying"


class Passage:
    """A way to a server on which something happens: from a count of bytes in one direction on, act is called, and then
    nothing passes any more, or, where act is None, as many bytes a second as pace says."""

    def __init__(self, target):
        self.target, self.act, self.pace, self.passed = target, None, None, {"up": 0, "down": 0}
        self.flipAt, self.hasFlipped = None, False
        self.direction, self.after = "up", None
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.open, self.lock = [], threading.Lock()
        self.accepting = threading.Thread(target=self.accept, daemon=True)
        self.accepting.start()

    def happens(self, direction, after, act):
        with self.lock:
            self.passed = {"up": 0, "down": 0}
            self.direction, self.after, self.act = direction, after, act

    def flips(self, direction, after):
        """One bit, in the byte that comes behind so many."""
        with self.lock:
            self.passed = {"up": 0, "down": 0}
            self.flipAt = direction, after

    def flipped(self, direction, data):
        begin = self.passed[direction] - len(data)
        if self.flipAt and self.flipAt[0] == direction and begin <= self.flipAt[1] < self.passed[direction]:
            data = bytearray(data)
            data[self.flipAt[1] - begin] ^= 1
            self.hasFlipped = True
        return data

    def accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            try:
                server = socket.create_connection(("127.0.0.1", self.target))
            except OSError:
                client.close()
                continue
            self.open += [client, server]
            for source, sink, direction in ((client, server, "up"), (server, client, "down")):
                threading.Thread(target=self.pump, args=(source, sink, direction), daemon=True).start()

    def pump(self, source, sink, direction):
        try:
            while data := source.recv(16384):
                if self.pace:
                    time.sleep(len(data) / self.pace)
                with self.lock:
                    self.passed[direction] += len(data)
                    data = self.flipped(direction, data)
                    isOver = (self.after is not None and direction == self.direction
                              and self.passed[direction] > self.after)
                    act = self.act if isOver else None
                if isOver:
                    act()
                    return
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def cut(self):
        """Ends what is under way, as the end of a server does."""
        for one in self.open:
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            one.close()
        self.open = []

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.accepting.join()  # or it would go on at the number that the next test's socket gets
        self.listener.close()
        self.cut()


class CopiesTest(JobTest):
    def setUp(self):
        super().setUp()
        self.there = os.path.join(self.folder, "there")
        os.mkdir(self.there)

    def there_names(self):
        return sorted(name for name in os.listdir(self.there) if not name.startswith("."))

    def there_path(self, name):
        return os.path.join(self.there, name)

    def check_same(self, *names):
        for name in names:
            for one in (name, name + ".json"):
                with open(self.there_path(one), "rb") as file:
                    self.assertEqual(file.read(), self.content(one), one)


class RemoteTest(CopiesTest):
    """A server on the loopback address, over a folder."""
    REMOTE = "rclone:offsite:images"
    HASHES = "shell_type = none\n"  # of SFTP: the server has none

    def setUp(self):
        super().setUp()
        self.served, self.there = self.there, os.path.join(self.there, "images")

    def environment(self, name, value):
        before = os.environ.get(name)
        self.addCleanup(lambda: os.environ.pop(name, None) if before is None else os.environ.update({name: before}))
        os.environ[name] = value

    def serve(self, protocol="webdav", *arguments):
        """Serves what lies in self.served, at the same port each time."""
        self.port = getattr(self, "port", None) or free_port()
        process = subprocess.Popen([RCLONE, "serve", protocol, self.served, "--addr", f"127.0.0.1:{self.port}",
                                    "--dir-cache-time=0s", *(["--no-auth"] if protocol == "sftp" else []), *arguments],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        for _ in range(200):
            if answers(self.port):
                return process
            time.sleep(0.05)
        return self.fail("the server does not answer")

    def passage(self):
        """A way to the server on which something can be made to happen."""
        passage = Passage(self.port)
        self.addCleanup(passage.close)
        return passage

    @staticmethod
    def obscured(password="p"):
        return subprocess.run([RCLONE, "obscure", password], check=True, stdout=subprocess.PIPE,
                              text=True).stdout.strip()

    def remote(self, protocol="webdav", port=None, more=""):
        """What rclone knows of the server."""
        self.rclone_configuration = os.path.join(self.folder, "rclone.conf")
        port = port or self.port
        lines = {"webdav": f"type = webdav\nurl = http://127.0.0.1:{port}\nvendor = other\n",
                 "sftp": f"type = sftp\nhost = 127.0.0.1\nport = {port}\nuser = u\npass = {self.obscured()}\n"
                         + self.HASHES,
                 "s3": f"type = s3\nprovider = Other\nendpoint = http://127.0.0.1:{port}\n"
                       "access_key_id = test:tester\nsecret_access_key = testing\n"}[protocol]
        with open(self.rclone_configuration, "w", encoding="ascii") as file:
            file.write(f"[offsite]\n{lines}{more}")
        self.environment("RCLONE_CONFIG", self.rclone_configuration)
        self.environment("RCLONE_LOW_LEVEL_RETRIES", "1")  # a server that is gone stays gone

    def copy_by(self, protocol="webdav", more=", plain-ok = true", port=None):
        self.remote(protocol, port)
        self.configure(f'copies = [{{ to = "{self.REMOTE}"{more} }}]')

    # What comes of a run

    def missed(self, report, words):
        """A run that went well but for its copies, which is told in a line."""
        lines = [line for line in report["warnings"] if "it is made up for next time" in line]
        self.assertEqual(len(lines), 1, report)
        self.assertRegex(lines[0], words)

    def images_there(self):
        return [name for name in self.there_names() if name.endswith(".kstx")] if os.path.isdir(self.there) else []
