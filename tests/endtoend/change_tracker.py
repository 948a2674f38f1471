"""A stand-in for the change-tracking driver, behind the socket devices/Tallier.

It keeps what the driver keeps, for one disk: the last committed epoch, the current one, and marks of what was written.
The promises that a capture relies on are those of the driver. What was marked stays so until an image is committed
whose capture attached the disk behind it: what was written from then on, though it may have been read, is in the next
bitmap. An epoch that was given out is never given out again, committed or not. One handle is admitted at a time, as the
program's share mode 0 asks for: while it is held, every other connection is closed without an answer.

A test sets the fields to make the driver refuse, answer short or break off, and reads in the log what the program sent.
"""
import contextlib
import os
import select
import socket
import struct
import threading

ATTACH, QUERY, COMMIT = 0x8C7D2004, 0x8C7D2008, 0x8C7D200C
STATE = struct.Struct("<IIQQIIQII")
ERROR_ACCESS_DENIED, ERROR_NOT_SUPPORTED, ERROR_INVALID_PARAMETER, ERROR_MORE_DATA = 5, 50, 87, 234


class ChangeTracker:
    def __init__(self, path):
        self.active = 1
        self.trackedExtent = 1
        self.blockShift = 20
        self.remember(None, 0x1A2B, bytes([0xFF] * 2))
        self.attachError = 0
        self.queryErrors = []  # of the first query, the second, ...; a query refused this way returns no bytes
        self.commitError = 0
        self.breakAt = None  # the code whose exchange is broken off
        self.shortReply = None  # so many bytes of a full query reply are given
        self.before = {}  # code: called with no argument before the request is answered
        self.log = []  # (code, input bytes, output length) of each request
        self.connections = 0
        self.refused = 0  # connections made while another was held
        self.faults = []  # what went wrong in the stand-in itself
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.admit, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()

    def codes(self):
        return [code for code, _, _ in self.log]

    # What the driver knows

    def remember(self, previousEpoch, currentEpoch, bitmap=None, gap=0):
        """From here on a driver with that memory, which has given out no epoch and was attached to nothing."""
        self.previousEpoch, self.currentEpoch = previousEpoch, currentEpoch
        self.given = set()  # the epochs that were given out
        if bitmap is not None:
            self.bitmap = bitmap  # the marks made since the last attach
        self.gap, self.secondaryGap = gap, 0  # admitted since then
        self.older = b""  # marks from before it: what its commit covers
        self.olderGap = self.olderSecondaryGap = 0

    def next_epoch(self):
        """The one that the next capture will get: never one whose low 56 bits, which are all that an image keeps, come
        out as no epoch, unless a test chose it."""
        epoch = self.currentEpoch
        while epoch in self.given:
            epoch += 1 if (epoch + 1) % 2**56 else 2
        return epoch

    def mark(self, offset, length):
        """A write to the disk; blocks beyond the bitmap are never told of."""
        bitmap = bytearray(self.bitmap)
        for block in range(offset >> self.blockShift, (offset + length - 1 >> self.blockShift) + 1):
            if block // 8 < len(bitmap):
                bitmap[block // 8] |= 1 << block % 8
        self.bitmap = bytes(bitmap)

    def marks(self):
        """All that no commit has covered."""
        older = self.older[:len(self.bitmap)].ljust(len(self.bitmap), b"\0")
        return bytes(old | new for old, new in zip(older, self.bitmap))

    def attach(self):
        if self.attachError:
            return self.attachError
        self.currentEpoch = self.next_epoch()
        self.older, self.bitmap = self.marks(), bytes(len(self.bitmap))
        self.olderGap, self.gap = self.olderGap or self.gap, 0
        self.olderSecondaryGap, self.secondaryGap = self.olderSecondaryGap or self.secondaryGap, 0
        return 0

    # The socket

    def admit(self):
        """Connections are held one after the other; one is over when its peer has closed it, noticed or not."""
        held = holder = None
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                break
            if holder and not has_hung_up(held):
                self.refused += 1
                connection.close()
                continue
            if holder:
                holder.join()
                held.close()
            self.connections += 1
            held, holder = connection, threading.Thread(target=self.hold, args=(connection,), daemon=True)
            holder.start()
        if holder:
            holder.join()
            held.close()

    def hold(self, connection):
        try:
            while self.exchange(connection):
                pass
        except (BrokenPipeError, ConnectionResetError):
            pass  # the program was killed
        except Exception as error:  # shown by the test, which asserts that there was none
            self.faults.append(repr(error))
        with contextlib.suppress(OSError):
            connection.shutdown(socket.SHUT_RDWR)

    def exchange(self, connection):
        head = receive(connection, 12)
        if head is None:
            return False
        code, inputLength, outputLength = struct.unpack("<III", head)
        request = receive(connection, inputLength)
        if request is None:
            return False
        self.log.append((code, request, outputLength))
        if code in self.before:
            self.before[code]()
        if code == self.breakAt:
            return False
        error, reply = self.answer(code, request, outputLength)
        connection.sendall(struct.pack("<II", error, len(reply)) + reply)
        return True

    def answer(self, code, request, outputLength):
        if code == ATTACH:
            return self.attach(), b""
        if code == QUERY:
            return self.state(outputLength)
        if code == COMMIT:
            return self.commit(*struct.unpack_from("<Q", request, 8)), b""
        return ERROR_NOT_SUPPORTED, b""

    def commit(self, epoch):
        if self.commitError:
            return self.commitError
        if epoch != self.currentEpoch or epoch not in self.given or epoch == self.previousEpoch:
            return ERROR_INVALID_PARAMETER
        self.previousEpoch = epoch
        self.older, self.olderGap, self.olderSecondaryGap = b"", 0, 0
        return 0

    def state(self, outputLength):
        error = self.queryErrors.pop(0) if self.queryErrors else 0
        if error:
            return error, b""
        self.given.add(self.currentEpoch)
        state = STATE.pack(self.active, int(self.previousEpoch is not None), self.previousEpoch or 0,
                           self.currentEpoch, self.olderSecondaryGap or self.secondaryGap, self.olderGap or self.gap,
                           self.trackedExtent, self.blockShift, len(self.bitmap)) + self.marks()
        if len(state) > outputLength:
            return ERROR_MORE_DATA, state[:min(STATE.size, outputLength)]
        return 0, state if self.shortReply is None else state[:self.shortReply]


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


def attach_to(test):
    """The stand-in as a device of a test's machine; it ends with the test, which fails if the stand-in did."""
    tracker = ChangeTracker(os.path.join(test.devices, "Tallier"))

    def end():
        tracker.close()
        test.assertEqual(tracker.faults, [])
    test.addCleanup(end)
    return tracker


def disk_request(disk):
    return struct.pack("<II", disk, 0)


def commit_request(disk, epoch):
    return struct.pack("<IIQ", disk, 0, epoch)
