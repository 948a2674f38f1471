"""Freezing the guest's file systems by its agent, and thawing them whatever happens."""
import contextlib
import json
import os
import secrets
import signal
import socket
import time

from .fault import Fault

SYNC_PATIENCE = 3  # seconds; an agent that is there answers at once
THAW_PATIENCE = 60  # seconds in which a thaw is tried again


class SocketAgent:
    """The conversation with a guest agent over its socket on the host."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.text = b""
        try:
            self.socket.settimeout(SYNC_PATIENCE)
            self.socket.connect(path)
            self.synchronise()
        except (OSError, ValueError) as error:
            self.socket.close()
            raise Fault(f"no guest agent answers at {path} ({error})") from None

    def close(self):
        self.socket.close()

    def synchronise(self):
        """Past whatever an earlier conversation left in the channel, which outlives its clients."""
        number = secrets.randbits(31)
        self.socket.sendall(b"\xff" + json.dumps(
            {"execute": "guest-sync-delimited", "arguments": {"id": number}}).encode() + b"\n")
        end = time.monotonic() + SYNC_PATIENCE
        while True:
            line = self.receive(end).rpartition(b"\xff")[2]
            with contextlib.suppress(ValueError, AttributeError):
                if json.loads(line).get("return") == number:
                    return

    def receive(self, end):
        while b"\n" not in self.text:
            self.socket.settimeout(max(0.001, end - time.monotonic()))
            part = self.socket.recv(65536)
            if not part:
                raise OSError("it ended the conversation")
            self.text += part
            if len(self.text) > 1 << 20:
                raise OSError("it says more than an answer takes")
        line, _, self.text = self.text.partition(b"\n")
        return line

    def execute(self, command, patience):
        try:
            self.socket.settimeout(patience)
            self.socket.sendall(json.dumps({"execute": command}).encode() + b"\n")
            answer = json.loads(self.receive(time.monotonic() + patience))
        except (OSError, ValueError) as error:
            raise Fault(f"the guest agent failed at {command} ({error})") from None
        if not isinstance(answer, dict) or "return" not in answer:
            told = answer.get("error", {}).get("desc") if isinstance(answer, dict) else None
            raise Fault(f"the guest agent refused {command} ({told or 'it tells no reason'})")
        return answer["return"]

    def freeze(self, patience):
        """The number of file systems that are frozen."""
        return self.execute("guest-fsfreeze-freeze", patience)

    def thaw(self, patience):
        self.execute("guest-fsfreeze-thaw", patience)


class Freezer:
    """A process of its own that freezes and thaws, since it must thaw when this one is killed. `open_agent` connects to
    the agent, `marker` is a file that is there while the guest may be frozen, `bound` the longest in seconds that it
    stays so.

    It says "frozen N" or "not REASON" to the word "freeze", and "thawed", "early" or "not REASON" to the word "thaw";
    early means that the bound was over before."""

    def __init__(self, open_agent, patience, bound, marker):
        self.socket, other = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.bound, self.patience = bound, patience
        self.process = os.fork()
        if self.process == 0:
            status = 1
            try:
                self.socket.close()
                live_apart()
                serve(other, open_agent, patience, bound, marker)
                status = 0
            finally:
                os._exit(status)
        other.close()

    def ask(self, word, patience):
        try:
            with contextlib.suppress(BrokenPipeError):  # it may have said its last word before it was asked
                self.socket.send(word.encode())
            self.socket.settimeout(patience)
            return self.socket.recv(65536).decode() or "not it ended"
        except OSError as error:
            return f"not {error}"

    def freeze(self):
        """The number of frozen file systems and None, or 0 and why none is."""
        answer = self.ask("freeze", SYNC_PATIENCE + self.patience + 5)
        word, _, rest = answer.partition(" ")
        return (int(rest), None) if word == "frozen" else (0, rest)

    def thaw(self):
        """None where the guest was frozen up to now, else a sentence's end that tells what happened instead."""
        answer = self.ask("thaw", THAW_PATIENCE + 5)
        if answer == "thawed":
            return None
        if answer == "early":
            return f"it was thawed after {self.bound} seconds, before the view was taken"
        return answer.partition(" ")[2]

    def close(self):
        """The guest is thawed when this returns, or nobody can thaw it."""
        self.socket.close()
        with contextlib.suppress(OSError):
            os.waitpid(self.process, 0)


def live_apart():
    """From the terminal and from the signals that end a capture: the end of the parent closes the socket."""
    os.setsid()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    signal.set_wakeup_fd(-1)


def serve(parent, open_agent, patience, bound, marker):
    parent.settimeout(None)
    if parent.recv(64) != b"freeze":
        return
    try:
        agent = open_agent()
    except Fault as error:
        answer(parent, f"not {error}")
        return
    with open(marker, "w", encoding="ascii"):
        pass
    began = time.monotonic()
    try:
        count = agent.freeze(patience)
        answer(parent, f"frozen {count}" if count else "not the agent finds no file system to freeze")
    except Fault as error:
        # It may freeze yet, behind our back: the thaw is sent in any case, over a conversation in which no late answer
        # can be taken for that of the thaw.
        agent.close()
        agent, count = None, 0
        answer(parent, f"not {error}")
    early = False
    if count:
        parent.settimeout(max(0.001, began + bound - time.monotonic()))
        try:
            parent.recv(64)
        except TimeoutError:
            early = True
    why = thaw_surely(agent, open_agent)
    if why is None:
        os.unlink(marker)
    answer(parent, f"not {why}" if why else "early" if early else "thawed")


def answer(parent, text):
    with contextlib.suppress(OSError):  # nobody is there to be told
        parent.send(text.encode())


def thaw_surely(agent, open_agent):
    """Tries again, over new conversations, until the patience is over. None where the guest is thawed, else why not."""
    end = time.monotonic() + THAW_PATIENCE
    while True:
        try:
            agent = agent or open_agent()
            agent.thaw(max(1.0, end - time.monotonic()))
            agent.close()
            return None
        except Fault as error:
            if agent:
                agent.close()
            agent = None
            if time.monotonic() > end:
                return f"IT MAY STILL BE FROZEN: {error}"
            time.sleep(0.5)
