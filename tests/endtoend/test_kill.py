"""Runs that are killed or stopped: what they leave behind, and what other runs may do meanwhile."""
import os
import signal
import threading
import time

import change_tracker
from harness import MIB, MachineTest, not_exclusive, restore_text, verify_text
from kestrix_image import ImageFault, read_image, seeded_disk

CHUNK = 4 * MIB
NO_SOURCE = "could not open source disk for raw read (run as Administrator?)"


class KilledCaptures(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = seeded_disk(6 * CHUNK + 512, 1)
        self.disk(1, self.content)
        self.command = ("capture", "--disk", "1", "--out", "x")

    def outcome(self):
        """What a killed capture left: "none", "partial" or "whole". Program and reader must agree."""
        if not os.path.exists(self.path("x")):
            return "none"
        run = self.kestrix("verify", "--in", "x")
        try:
            content = read_image(self.path("x")).disk()
        except ImageFault:
            self.assertEqual(run.status, 1, run)
            return "partial"
        self.assertEqual(run.status, 0, run)
        self.assertTrue(content == self.content, "the image holds another disk")
        return "whole"

    def kill_when(self, moment):
        """Kills a capture as soon as moment() holds, if it has not ended by then, and looks at what it left."""
        if os.path.exists(self.path("x")):
            os.unlink(self.path("x"))
        started = self.start(*self.command)
        while started.process.poll() is None and not moment():
            pass
        started.signal(signal.SIGKILL)
        run = started.finish()
        outcome = self.outcome()
        if b"Capture complete" in run.out:
            self.assertEqual(outcome, "whole")

    def kill_at(self, code):
        """Kills a capture while it waits for the change tracker's answer to this request."""
        tracker = change_tracker.attach_to(self)
        started = []
        known = threading.Event()

        def kill():
            known.wait()
            started[0].signal(signal.SIGKILL)

        tracker.before[code] = kill
        started.append(self.start(*self.command))
        known.set()
        self.assertEqual(started[0].finish().status, -signal.SIGKILL)
        return tracker

    def kill(self, started):
        started.signal(signal.SIGKILL)
        self.assertEqual(started.finish().status, -signal.SIGKILL)

    def test_a_capture_killed_while_it_grows_leaves_no_image(self):
        for chunks in range(6):
            with self.subTest(chunks):
                self.kill(self.stopped_writing("x", chunks * CHUNK, 6 * CHUNK, *self.command))
                self.assertEqual(self.outcome(), "partial")
                self.check_unfinished("x")

    def test_a_capture_killed_at_any_time_leaves_an_image_only_if_it_is_whole(self):
        began = time.monotonic()
        self.assertEqual(self.kestrix(*self.command).status, 0)
        whole = time.monotonic() - began
        for i in range(16):
            with self.subTest(i):
                end = time.monotonic() + whole * i / 16
                self.kill_when(lambda end=end: time.monotonic() >= end)

    def test_a_capture_killed_over_an_older_image_leaves_neither(self):
        older = self.image("older", seeded_disk(6 * CHUNK + 512, 2), chunkSize=CHUNK).record.encode()
        self.kill(self.stopped(*self.command, prepare=lambda: self.file("x", older),
                               when=lambda: self.file_size("x") < 6 * CHUNK))
        self.assertEqual(self.outcome(), "partial")
        self.check_unfinished("x")

    def test_a_capture_killed_before_its_image_exists_leaves_an_older_file_alone(self):
        self.file("x", b"older")
        tracker = self.kill_at(change_tracker.QUERY)
        self.assertEqual(self.file_bytes("x"), b"older")
        self.assertEqual(tracker.codes(), [change_tracker.ATTACH, change_tracker.QUERY])

    def test_a_capture_killed_at_its_commit_has_left_a_whole_image(self):
        self.kill_at(change_tracker.COMMIT)
        self.assertEqual(self.outcome(), "whole")

    def test_a_run_after_a_killed_one_replaces_what_it_left(self):
        self.kill_when(lambda: self.file_size("x") >= CHUNK)
        self.assertEqual(self.kestrix(*self.command).status, 0)
        self.assertEqual(self.outcome(), "whole")

    def test_an_interrupted_capture_leaves_no_image(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                started = self.stopped_writing("x", CHUNK, 6 * CHUNK, *self.command)
                started.signal(number)
                started.signal(signal.SIGCONT)
                self.assertEqual(started.finish().status, -number)
                self.check_unfinished("x")


class RunsAtTheSameTime(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = seeded_disk(8 * MIB, 1)

    def go_on(self, started):
        started.signal(signal.SIGCONT)
        return started.finish()

    def test_an_image_that_is_being_read_is_neither_replaced_nor_emptied(self):
        self.disk(1, 1000)
        self.image("x", self.content, chunkSize=512)
        before = self.file_bytes("x")
        reader = self.stopped("verify", "--in", "x")
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.assertEqual((run.status, run.err),
                         (1, b"FATAL: could not create output image file (GetLastError=32)\n"))
        self.assertEqual(self.file_bytes("x"), before)
        self.check(self.go_on(reader), 0, verify_text("x", len(self.content), 512))

    def test_an_image_may_be_read_by_two_runs(self):
        self.image("x", self.content, chunkSize=512)
        reader = self.stopped("verify", "--in", "x")
        self.check(self.kestrix("verify", "--in", "x"), 0, verify_text("x", len(self.content), 512))
        self.check(self.go_on(reader), 0, verify_text("x", len(self.content), 512))

    def test_an_image_that_is_being_written_does_not_open(self):
        content = seeded_disk(6 * CHUNK, 2)
        self.disk(1, content)
        writer = self.stopped_writing("x", CHUNK, 6 * CHUNK, "capture", "--disk", "1", "--out", "x")
        self.check_fatal(self.kestrix("verify", "--in", "x"), "could not open image file", 32,
                         first="could not open image file: x\n")
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.assertEqual((run.status, run.err),
                         (1, b"FATAL: could not create output image file (GetLastError=32)\n"))
        self.assertEqual(self.go_on(writer).status, 0)
        self.check_image("x", content)

    def test_a_target_that_is_being_restored_is_nobody_elses(self):
        self.image("x", self.content, chunkSize=512)
        self.disk(1, len(self.content))
        writer = self.stopped("restore", "--in", "x", "--disk", "1", "--confirm", "YES")
        self.check(self.kestrix("restore", "--in", "x", "--disk", "1", "--confirm", "YES"), 1, "",
                   not_exclusive(1, 32))
        self.check_fatal(self.kestrix("capture", "--disk", "1", "--out", "y"), NO_SOURCE, 32)
        self.assertFalse(os.path.exists(self.path("y")))
        self.check(self.go_on(writer), 0, restore_text("x", 1, len(self.content), 512))
        self.assertEqual(self.disk_bytes(1), self.content)

    def test_a_disk_that_is_being_captured_is_no_target(self):
        content = seeded_disk(6 * CHUNK, 3)
        self.disk(1, content)
        self.image("x", self.content, chunkSize=512)
        reader = self.stopped_writing("y", CHUNK, 6 * CHUNK, "capture", "--disk", "1", "--out", "y")
        self.check(self.kestrix("restore", "--in", "x", "--disk", "1", "--confirm", "YES"), 1, "",
                   not_exclusive(1, 32))
        self.assertEqual(self.kestrix("capture", "--disk", "1", "--out", "z").status, 0)
        self.check_image("z", content)
        self.assertEqual(self.go_on(reader).status, 0)
        self.check_image("y", content)

    def test_a_killed_restore_leaves_the_chunks_before_and_can_be_run_again(self):
        self.image("x", self.content, chunkSize=512)
        self.disk(1, bytes([0xEE]) * len(self.content))
        writer = self.stopped("restore", "--in", "x", "--disk", "1", "--confirm", "YES")
        writer.signal(signal.SIGKILL)
        self.assertEqual(writer.finish().status, -signal.SIGKILL)
        found = self.disk_bytes(1)
        same = next(i for i in range(0, len(found) + 512, 512) if found[i:i + 512] != self.content[i:i + 512]
                    or i == len(found))
        self.assertEqual(found, self.content[:same] + bytes([0xEE]) * (len(found) - same))
        self.check(self.kestrix("restore", "--in", "x", "--disk", "1", "--confirm", "YES"), 0,
                   restore_text("x", 1, len(self.content), 512))
        self.assertEqual(self.disk_bytes(1), self.content)
