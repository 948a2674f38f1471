"""The change tracker's socket, devices/Tallier, for a machine that has one disk."""
import select
import socket
import struct

from .bitmaps import BLOCK_SHIFT

ATTACH, QUERY, COMMIT = 0x8C7D2004, 0x8C7D2008, 0x8C7D200C
HEAD = struct.Struct("<III")
STATE = struct.Struct("<IIQQIIQII")
NO_SUCH_DISK, NOT_READY, NOT_SUPPORTED, INVALID, TOO_SMALL = 2, 21, 50, 87, 122
REQUESTS = {ATTACH: 8, QUERY: 8, COMMIT: 16}  # bytes of their input
PATIENCE = 10  # seconds for the rest of a request that has begun


class Tracker:
    """Serves `number`, a disk of `size` bytes, whose marks since `previousEpoch` are `marks`; both None where nothing
    is proved. `draw` gives a new epoch. `commit` takes the epoch of a complete image; it raises where that can't be."""

    def __init__(self, path, number, size, previousEpoch, marks, draw, commit):
        self.number, self.size, self.draw, self.commit = number, size, draw, commit
        self.previousEpoch, self.marks = previousEpoch, marks
        self.held = None  # the connection that is a handle
        self.epoch = None  # of that handle, once it is attached
        self.committedEpoch = None
        self.fault = None  # why a commit failed
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()

    def close(self):
        self.listener.close()
        self.let_go()

    def sockets(self):
        """What is to be waited for."""
        return [self.listener] + ([self.held] if self.held else [])

    def serve(self, ready):
        """Serves those sockets that are ready."""
        if self.held in ready:
            try:
                going = self.exchange()
            except OSError:
                going = False
            if not going:
                self.let_go()
        if self.listener in ready:
            self.admit()

    def admit(self):
        connection, _ = self.listener.accept()
        # Whoever has hung up holds nothing any more, though that may not have been read yet.
        if self.held and has_hung_up(self.held):
            self.let_go()
        if self.held:
            connection.close()
            return
        connection.settimeout(PATIENCE)
        self.held, self.epoch = connection, None

    def let_go(self):
        if self.held:
            self.held.close()
        self.held = self.epoch = None

    def exchange(self):
        head = receive(self.held, HEAD.size)
        if head is None:
            return False
        code, inputLength, outputLength = HEAD.unpack(head)
        if inputLength > max(REQUESTS.values()):
            return False
        request = receive(self.held, inputLength)
        if request is None:
            return False
        error, output = self.answer(code, request, outputLength)
        self.held.sendall(struct.pack("<II", error, len(output)) + output)
        return True

    def answer(self, code, request, outputLength):
        if code not in REQUESTS:
            return NOT_SUPPORTED, b""
        if len(request) != REQUESTS[code]:
            return INVALID, b""
        if struct.unpack_from("<I", request)[0] != self.number:
            return NO_SUCH_DISK, b""
        if code == ATTACH:
            return self.attach(), b""
        if code == QUERY:
            return self.query(outputLength)
        return self.take_commit(struct.unpack_from("<Q", request, 8)[0]), b""

    def attach(self):
        # Behind a commit the marks of this view are those of an older image: there is nothing to give.
        if self.committedEpoch is not None:
            return NOT_READY
        if self.epoch is None:
            self.epoch = self.draw()
        return 0

    def query(self, outputLength):
        if self.epoch is None:
            return 0, bytes(min(STATE.size, outputLength))
        marks = self.marks if self.previousEpoch is not None else b""
        state = STATE.pack(1, int(self.previousEpoch is not None), self.previousEpoch or 0, self.epoch, 0, 0,
                           self.size, BLOCK_SHIFT, len(marks))
        if outputLength < STATE.size:
            return TOO_SMALL, b""
        # The first query has no room for the marks on purpose; a second one that has too little must not pass.
        if outputLength == STATE.size:
            return 0, state
        if outputLength < STATE.size + len(marks):
            return TOO_SMALL, state
        return 0, state + marks

    def take_commit(self, epoch):
        if self.epoch is None or epoch != self.epoch or self.committedEpoch is not None:
            return INVALID
        try:
            self.commit(epoch)
        except Exception as error:  # the client is told that it failed, and the user why
            self.fault = error
            return NOT_READY
        self.committedEpoch = epoch
        return 0


def has_hung_up(connection):
    poll = select.poll()
    poll.register(connection, select.POLLRDHUP)
    return bool(poll.poll(0))


def receive(connection, length):
    data = b""
    while len(data) < length:
        part = connection.recv(length - len(data))
        if not part:
            return None
        data += part
    return data
