"""A run in a terminal: what it shows there, and what a person types."""
import fcntl
import os
import pty
import re
import select
import subprocess
import termios
import time

from harness import SANITIZERS, TIME_LIMIT


class Talk:
    """A run with a terminal of its own for all three streams, or for two where its output goes to a file."""

    def __init__(self, command, cwd, outFile=None):
        self.seen, self.place = "", 0
        self.master, slave = pty.openpty()
        self.slaveName = os.ttyname(slave)

        def take_terminal():
            os.setsid()
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        self.process = subprocess.Popen(command, cwd=cwd, stdin=slave, stdout=outFile or slave, stderr=slave,
                                        preexec_fn=take_terminal, env={**SANITIZERS, **os.environ})
        os.close(slave)

    def read_more(self, deadline):
        """False at the end of what there is to read."""
        if not select.select([self.master], [], [], max(0, deadline - time.monotonic()))[0]:
            raise AssertionError(f"nothing more came within the time limit, only: {self.seen[self.place:]}")
        try:
            data = os.read(self.master, 65536)
        except OSError:  # the other end is closed
            return False
        self.seen += data.decode("utf-8", "replace").replace("\r\n", "\n")
        return data != b""

    def expect(self, pattern):
        """Waits for what matches, and gives what came up to its end since the last time."""
        deadline = time.monotonic() + TIME_LIMIT
        while not (found := re.compile(pattern).search(self.seen, self.place)):
            if not self.read_more(deadline):
                raise AssertionError(f"no {pattern} in: {self.seen[self.place:]}")
        text = self.seen[self.place:found.end()]
        self.place = found.end()
        return text

    def type(self, data):
        os.write(self.master, data)

    def answer(self, pattern, line):
        text = self.expect(pattern)
        self.type(line.encode() + b"\n")
        return text

    def finish(self):
        """The exit status, and what came since the last time."""
        deadline = time.monotonic() + TIME_LIMIT
        while self.read_more(deadline):
            pass
        return self.process.wait(TIME_LIMIT), self.seen[self.place:]

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.master)
