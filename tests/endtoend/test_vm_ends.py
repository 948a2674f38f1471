"""Every way out of a capture of kestrix-vm's."""
import os
import random
import signal
import subprocess
import unittest

from guest_disks import BLOCK, DOMAIN, NO_BITMAP, Broken, GuestTest, why_no_guests
from harness import MIB
from kestrix_image import ImageFault


@unittest.skipIf(why_no_guests(), why_no_guests())
class Ends(GuestTest):
    """Every way out leaves the guest as it was, and no proof that isn't one."""

    def setUp(self):
        super().setUp()
        self.write(0, random.Random(1).randbytes(self.size))
        self.captured("a")

    def killed_after(self, delay):
        """The status of a capture that is killed after so many seconds."""
        self.forget("b")
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "b", "--base", "a", "--thin")
        try:
            process.wait(delay)
        except subprocess.TimeoutExpired:
            process.kill()
        process.communicate(timeout=60)
        return process.returncode

    def forget(self, name):
        """An image of an earlier try, which is none of the one that begins."""
        if os.path.exists(self.path(name)):
            os.unlink(self.path(name))

    def check_law(self):
        """What verify accepts is the disk of its moment, and the next capture proves no more than is true."""
        if self.kestrix("verify", "--in", "b").status == 0:
            self.check_holds("b", self.before)
        for base in ("a", "b"):
            self.touched |= {0}
            try:
                run = self.capture("c" + base, "--base", base, "--thin")
                self.assertEqual(run.status, 0, run.err)
            except (AssertionError, ImageFault):
                if base == "a":
                    raise
            else:
                self.check_holds("c" + base, self.content)
        self.check_nothing_left()

    def test_what_a_killed_run_left_is_taken_down_by_the_next(self):
        for delay in (0.2, 0.35, 0.5, random.uniform(0.1, 0.9)):
            with self.subTest(delay):
                self.captured("a")
                self.write(5 * MIB, os.urandom(5000))
                self.before = bytes(self.content)
                self.assertIn(self.killed_after(delay), (0, -signal.SIGKILL))
                self.write(13 * MIB, os.urandom(5000))
                self.check_law()

    def test_signals_take_it_all_down(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number):
                self.captured("a")
                self.forget("b")
                self.before = bytes(self.content)
                process = self.start_vm("capture", DOMAIN, "vda", "--out", "b", "--base", "a", "--thin")
                self.stop_kestrix(process)
                self.write(17 * MIB, os.urandom(5000))
                process.send_signal(number)
                _, err = process.communicate(timeout=60)
                self.assertEqual(process.returncode, 1)
                self.assertIn(b"Stopped by SIG", err)
                self.check_nothing_left()
                self.check_law()

    def test_a_daemon_that_is_killed_ends_the_capture(self):
        self.write(5 * MIB, b"x")
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "b", "--base", "a", "--thin")
        self.stop_kestrix(process)
        self.end_daemon(signal.SIGKILL)
        _, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 1)
        self.assertIn(b"QEMU", err)
        self.assertNotEqual(self.kestrix("verify", "--in", "b").status, 0)
        self.begin_daemon()
        self.content = self.as_it_is()
        self.captured("c", "a", NO_BITMAP)

    def test_every_step_of_the_conversation_may_break(self):
        door = os.path.join(self.folder, "door")
        real = self.qmp
        passed = Broken(door, real)
        self.qmp = door
        try:
            self.assertEqual(self.capture("b", "--base", "a", "--thin").status, 0)
        finally:
            passed.close()
            self.qmp = real
        ways = ("closed", "answered", "refused", "garbage", "silent")
        count = len(passed.commands)
        self.assertGreater(count, 25)
        for at in range(1, count + 1):
            way = ways[at % len(ways)]
            with self.subTest(at=at, way=way, command=passed.commands[at - 1]):
                self.broken_at(door, at, way)

    def broken_at(self, door, at, way):
        self.write(at * 3 * BLOCK % (self.size - MIB), os.urandom(700))
        self.before = bytes(self.content)
        self.forget("b")
        real, self.qmp = self.qmp, door
        broken = Broken(door, real, at, way)
        try:
            run = self.capture("b", "--base", "a", "--thin", "--timeout", "0.7")
        finally:
            self.qmp = real
            broken.close()
        self.assertIn(run.status, (0, 1, 3), run.err)
        self.assertNotIn(b"Traceback", run.err)
        if run.status:
            self.assertTrue(run.err.startswith(b"kestrix-vm: "), run.err)
        if run.status == 0 or self.kestrix("verify", "--in", "b").status == 0:
            self.check_holds("b", self.before)
        self.write(at * 5 * BLOCK % (self.size - MIB), os.urandom(700))
        run = self.capture("c", "--base", "a", "--thin")
        self.assertEqual(run.status, 0, run.err)
        self.check_holds("c", self.content)
        self.check_nothing_left()
        self.captured("a")
