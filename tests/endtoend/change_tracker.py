"""A stand-in for the change-tracking driver, behind the socket devices/Tallier.

It keeps what the driver keeps: per disk the last committed epoch, the current epoch and a bitmap of changed blocks. A
test sets the fields to make it refuse, answer short or break off, and reads in the log what the program sent.
"""
import os
import socket
import struct
import threading

ATTACH, QUERY, COMMIT = 0x8C7D2004, 0x8C7D2008, 0x8C7D200C
STATE = struct.Struct("<IIQQIIQII")
ERROR_ACCESS_DENIED, ERROR_NOT_SUPPORTED, ERROR_MORE_DATA = 5, 50, 234


class ChangeTracker:
    def __init__(self, path):
        self.active = 1
        self.previousEpoch = None
        self.currentEpoch = 0x1A2B
        self.gap = 0
        self.secondaryGap = 0
        self.trackedExtent = 1
        self.blockShift = 20
        self.bitmap = bytes([0xFF] * 2)
        self.attachError = 0
        self.queryErrors = []  # of the first query, the second, ...; a query refused this way returns no bytes
        self.commitError = 0
        self.breakAt = None  # the code whose exchange is broken off
        self.shortReply = None  # so many bytes of a full query reply are given
        self.before = {}  # code: called with no argument before the request is answered
        self.log = []  # (code, input bytes, output length) of each request
        self.connections = 0
        self.faults = []  # what went wrong in the stand-in itself
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()

    def codes(self):
        return [code for code, _, _ in self.log]

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            self.connections += 1
            with connection:
                try:
                    while self.exchange(connection):
                        pass
                except (BrokenPipeError, ConnectionResetError):
                    pass  # the program was killed
                except Exception as error:  # shown by the test, which asserts that there was none
                    self.faults.append(repr(error))

    def exchange(self, connection):
        head = receive(connection, 12)
        if head is None:
            return False
        code, inputLength, outputLength = struct.unpack("<III", head)
        request = receive(connection, inputLength)
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
            return self.attachError, b""
        if code == QUERY:
            return self.state(outputLength)
        if code == COMMIT:
            if not self.commitError:
                self.previousEpoch, = struct.unpack_from("<Q", request, 8)
                self.currentEpoch += 1
                self.bitmap = bytes(len(self.bitmap))
            return self.commitError, b""
        return ERROR_NOT_SUPPORTED, b""

    def state(self, outputLength):
        error = self.queryErrors.pop(0) if self.queryErrors else 0
        if error:
            return error, b""
        state = STATE.pack(self.active, int(self.previousEpoch is not None), self.previousEpoch or 0,
                           self.currentEpoch, self.secondaryGap, self.gap, self.trackedExtent, self.blockShift,
                           len(self.bitmap)) + self.bitmap
        if len(state) > outputLength:
            return ERROR_MORE_DATA, state[:min(STATE.size, outputLength)]
        return 0, state if self.shortReply is None else state[:self.shortReply]


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
