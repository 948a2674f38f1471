"""The tables on the page about the change tracker: a driver made of them, and of nothing else, serves a capture."""
import os
import re
import unittest

import change_tracker
import harness
from kestrix_image import read_image, seeded_disk
from test_thin import GAP, NO_PREVIOUS, NOT_LATEST, incremental, proved, thin_end, tracker_line, unproved

PAGE = os.path.join(harness.ROOT, "docs", "change-tracker.md")
CHUNK = 4 * harness.MIB
SIZE = 2 * CHUNK + 512
PREVIOUS, CURRENT = 0x21222324252627, 0x31323334353637


def tables():
    """The rows of each table by the line above it."""
    with open(PAGE, encoding="utf-8") as file:
        found = re.findall(r"^(\S.*)\n\n\|.*\n\|[-|]*\n((?:\|.*\n)+)", file.read(), re.M)
    return {title: [[cell.strip(" `") for cell in line.strip("|\n").split("|")] for line in rows.splitlines()]
            for title, rows in found}


def places(title):
    """Offset and size of each field of fixed length."""
    return {name: (int(offset), int(size)) for offset, size, name, _ in tables()[title] if size.isdigit()}


def lay_out(record, **values):
    data = bytearray(max(offset + size for offset, size in record.values()))
    for name, value in values.items():
        offset, size = record[name]
        data[offset:offset + size] = value.to_bytes(size, "little")
    return bytes(data)


REQUEST, REPLY = places("The request on the socket:"), places("The reply:")
DISK, COMMIT, STATE = places("The disk request:"), places("The commit request:"), places("The state:")
CODES = {call: (int(code, 16), given) for code, call, given, _ in
         tables()["Device type 0x8C7D, functions 0x801 to 0x803, `METHOD_BUFFERED`, `FILE_ANY_ACCESS`:"]}


class DriverOfThePage(change_tracker.ChangeTracker):
    def __init__(self, path):
        super().__init__(path)
        self.stateFields = {"active": 1, "hasPreviousEpoch": 1, "previousEpoch": PREVIOUS, "currentEpoch": CURRENT,
                            "trackedExtent": 1, "blockShift": 22, "bitmapBytes": 1}
        self.bitmap = bytes([1 << 1])  # of the three chunks the one in the middle

    def exchange(self, connection):
        head = change_tracker.receive(connection, len(lay_out(REQUEST)))
        if head is None:
            return False
        code, inputLength, outputLength = (
            int.from_bytes(head[offset:offset + size], "little")
            for offset, size in (REQUEST[name] for name in ("controlCode", "inputLength", "outputLength")))
        self.log.append((code, change_tracker.receive(connection, inputLength), outputLength))
        output = lay_out(STATE, **self.stateFields) + self.bitmap if code == CODES["query"][0] else b""
        output = output[:outputLength]
        connection.sendall(lay_out(REPLY, lastError=0, returnedLength=len(output)) + output)
        return True


class ChangeTrackerPage(harness.MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = seeded_disk(SIZE, 1)
        self.image("base", self.content, chunkSize=CHUNK, epoch=PREVIOUS)
        self.content = self.content[:CHUNK] + b"changed" + self.content[CHUNK + 7:]
        self.disk(1, self.content)
        self.driver = DriverOfThePage(os.path.join(self.devices, "Tallier"))
        self.addCleanup(lambda: self.assertEqual(self.driver.faults, []))
        self.addCleanup(self.driver.close)

    def capture(self, tracker, decision, read):
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x", "--base", "base", "--thin"), 0,
                   harness.source_line(1, SIZE) + tracker + incremental("base") + decision +
                   harness.whole_progress(SIZE, CHUNK) + "\n" + thin_end("x", 1, 2, read))

    def test_a_driver_made_of_its_tables_proves_what_did_not_change(self):
        self.capture(tracker_line(CURRENT), proved(PREVIOUS), 1)
        image = read_image(self.path("x"))
        self.assertEqual(image.header.epoch, CURRENT)
        self.assertTrue(image.disk() == self.content)
        disk = lay_out(DISK, diskNumber=1)
        commit = lay_out(COMMIT, diskNumber=1, epoch=CURRENT)
        state = len(lay_out(STATE))
        attachCode, queryCode, commitCode = (CODES[call][0] for call in ("attach", "query", "commit"))
        self.assertEqual(self.driver.log, [(attachCode, disk, 0), (queryCode, disk, state),
                                           (queryCode, disk, state + 1), (commitCode, commit, 0)])
        self.assertEqual([given for _, given in CODES.values()],
                         [f"disk request, {len(disk)} bytes"] * 2 + [f"commit request, {len(commit)} bytes"])

    def test_each_field_of_the_state_means_what_its_table_says(self):
        for field, value, tracker, reason in (
                ("active", 0, harness.NO_TRACKER, "no change tracker for this disk"),
                ("trackedExtent", 0, harness.NO_TRACKER, "no change tracker for this disk"),
                ("hasPreviousEpoch", 0, tracker_line(CURRENT), NO_PREVIOUS),
                ("previousEpoch", PREVIOUS + 2**56, tracker_line(CURRENT), NOT_LATEST),
                ("secondaryGap", 2**31, tracker_line(CURRENT), GAP),
                ("gap", 2**31, tracker_line(CURRENT, True), GAP)):
            with self.subTest(field):
                good = dict(self.driver.stateFields)
                self.driver.stateFields[field] = value
                self.capture(tracker, unproved(reason, True), 3)
                self.driver.stateFields = good
        for field, value in (("blockShift", 64), ("bitmapBytes", 0)):
            with self.subTest(field):
                good = dict(self.driver.stateFields)
                self.driver.stateFields[field] = value
                self.capture(tracker_line(CURRENT), proved(PREVIOUS), 3)
                self.driver.stateFields = good


if __name__ == "__main__":
    unittest.main()
