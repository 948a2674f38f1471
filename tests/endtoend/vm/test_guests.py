"""kestrix-vm on a whole guest that writes all the time."""
import contextlib
import os
import random
import re
import signal
import subprocess
import unittest

import nbd

from guest_disks import KESTRIX_VM, Monitor, end_process, stop_kestrix_of, wait_until, why_no_guests
from harness import MIB, Run, needs, why_no_mounts
from kestrix_image import read_image
from small_guest import SmallGuest, WholeGuestTest, file_system_of, make_disk, why_no_guest

SIZE = 64 * MIB
REASON = why_no_guests() or why_no_guest()


@unittest.skipIf(REASON, REASON)
class Guests(WholeGuestTest):
    def setUp(self):
        super().setUp()
        self.state = os.path.join(self.folder, "state")
        self.file_of_disk = make_disk(self.folder, SIZE)
        self.agent = True

    def guest(self, *options):
        return SmallGuest(self.folder, self.file_of_disk, self.initrd, *options)

    def start_capture(self, guest, name, base=None, *more):
        words = [KESTRIX_VM, "capture", "--qmp", guest.qmp, "--state", self.state, "--kestrix", self.program, "small",
                 "disk0", "--out", name, *(["--agent", guest.agent] if self.agent else []),
                 *(["--base", base, "--thin"] if base else []), *more]
        process = subprocess.Popen(words, cwd=self.images, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.addCleanup(end_process, process)
        return process

    def capture(self, guest, name, base=None, *more):
        process = self.start_capture(guest, name, base, *more)
        out, err = process.communicate(timeout=300)
        return Run(process.returncode, out, err)

    def captured(self, guest, name, base=None, proved=True):
        run = self.capture(guest, name, base)
        text = run.out.decode()
        self.assertEqual((run.status, run.err), (0, b""), text)
        if base:
            self.assertIn("matches tracker" if proved else "Nothing is proved", text)
        self.assertEqual(self.kestrix("verify", "--in", name).status, 0)
        self.check_nothing_left(guest)
        return text

    def check_nothing_left(self, guest):
        with Monitor(guest.other) as monitor:
            self.assertEqual(monitor.do("query-block-exports"), [])
            self.assertEqual(monitor.do("query-jobs"), [])
            self.assertEqual({told["node-name"] for told in monitor.do("query-named-block-nodes")}, {"node0", "file0"})
            self.assertEqual(monitor.do("query-status")["status"], "running")
        self.assertEqual(os.listdir(os.path.join(self.state, "run")), [])

    def test_a_frozen_image_has_a_clean_file_system(self):
        with self.guest() as guest:
            guest.wait_until_it_writes()
            text = self.captured(guest, "a")
            self.assertRegex(text, r"File systems frozen: 1, for 0\.\d\d s\.")
            guest.wait_until_it_writes()
        self.check_file_system("a", clean=True)

    def check_file_system(self, name, clean):
        path = file_system_of(self.path(name), self.folder)
        done = subprocess.run(["fsck.ext4", "-f", "-n", path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False)
        if not clean:
            # Mounting it would replay the journal: that is what leaves it clean.
            subprocess.run(["fsck.ext4", "-f", "-y", path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           check=False)
            done = subprocess.run(["fsck.ext4", "-f", "-n", path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  check=False)
        self.assertEqual(done.returncode, 0, done.stdout.decode())

    def test_an_image_that_was_not_frozen_replays_its_journal(self):
        self.agent = False
        with self.guest() as guest:
            guest.wait_until_it_writes()
            self.assertIn("Not frozen", self.captured(guest, "a"))
        path = file_system_of(self.path("a"), self.folder)
        # The replay alone, as a mount does it: a preen that finds nothing else.
        done = subprocess.run(["fsck.ext4", "-p", path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        self.assertIn(done.returncode, (0, 1), done.stdout.decode())
        self.check_file_system("a", clean=False)

    def test_a_chain_over_a_shutdown_is_the_view_of_each_moment(self):
        with self.guest() as guest:
            self.check_views(guest, ["0", "1", "2"])
            guest.end(clean=True)
        with self.guest() as guest:
            self.check_views(guest, ["3", "4"], "2")
            guest.end()
        # Killed: what was written since then is known by nobody.
        with self.guest() as guest:
            self.captured(guest, "5", "4", proved=False)

    def check_views(self, guest, names, base=None):
        """Captures one after the other, each compared with what QEMU itself exports of the moment."""
        for name in names:
            guest.wait_until_it_writes()
            process = self.start_capture(guest, name, base)
            view = self.read_view(process)
            out, err = process.communicate(timeout=300)
            self.assertEqual((process.returncode, err), (0, b""), out.decode())
            self.assertIsNotNone(view, "kestrix was too quick")
            if base:
                self.assertIn(b"matches tracker", out)
                self.assertLess(int(re.search(rb"read from disk: (\d+)", out).group(1)), SIZE // (4 * MIB))
            self.assertTrue(read_image(self.path(name)).disk() == view, "the image is not the view")
            base = name

    def read_view(self, process):
        """The export's bytes, while kestrix stands still."""
        try:
            go_on = stop_kestrix_of(process, self.state)
        except AssertionError:
            return None  # it was too quick
        try:
            run, = os.listdir(os.path.join(self.state, "run"))
            connection = nbd.NBD()
            connection.set_export_name(f"kestrix-{run}-export0")
            connection.connect_unix(os.path.join(self.state, "run", run, "nbd"))
            view = b"".join(connection.pread(4 * MIB, at) for at in range(0, SIZE, 4 * MIB))
            connection.shutdown()
        finally:
            go_on()
        return view

    def test_kills_at_random_moments_leave_the_guest_running_and_no_wrong_proof(self):
        with self.guest() as guest:
            self.captured(guest, "base")
            for attempt in range(8):
                process = self.start_capture(guest, "b", "base")
                try:
                    process.wait(random.uniform(0.1, 1.5))
                except subprocess.TimeoutExpired:
                    process.send_signal(random.choice([signal.SIGKILL, signal.SIGTERM]))
                process.communicate(timeout=120)
                guest.wait_until_it_writes()
                view = None
                while view is None:  # the next one has no proof, and reads all
                    process = self.start_capture(guest, f"c{attempt}", "base")
                    view = self.read_view(process)
                    out, err = process.communicate(timeout=300)
                    self.assertEqual((process.returncode, err), (0, b""), out.decode())
                self.assertTrue(read_image(self.path(f"c{attempt}")).disk() == view)
                self.check_nothing_left(guest)
                os.replace(self.path(f"c{attempt}"), self.path("old"))
                self.captured(guest, "base")

    @needs(why_no_mounts)
    def test_a_guest_that_was_paused_by_a_full_place_goes_on_when_the_capture_has_ended(self):
        with self.guest() as guest:
            self.captured(guest, "a")
            state, self.state = self.state, self.small_file_system("150m")
            process = self.start_capture(guest, "b", "a")
            stop_kestrix_of(process, self.state)
            process.send_signal(signal.SIGSTOP)  # it looks at the room that is left five times in a second
            filler = os.path.join(self.state, "filler")
            with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
                while True:
                    file.write(bytes(4096))
            wait_until(lambda: self.status(guest) == "io-error", 60)
            process.send_signal(signal.SIGCONT)
            _, err = process.communicate(timeout=60)
            self.assertEqual(process.returncode, 1)
            self.assertRegex(err.decode(), "The guest was paused: a write failed|is nearly full")
            self.assertNotEqual(self.kestrix("verify", "--in", "b").status, 0)
            self.check_nothing_left(guest)
            guest.wait_until_it_writes()
            os.unlink(filler)
            self.state = state
            self.captured(guest, "c", "a")

    @staticmethod
    def status(guest):
        with Monitor(guest.other) as monitor:
            return monitor.do("query-status")["status"]

    def test_a_disk_of_large_sectors_is_refused(self):
        with self.guest("-blockdev", "null-co,node-name=large,size=1048576", "-device",
                        "virtio-blk-pci,drive=large,id=disk1,logical_block_size=4096,physical_block_size=4096"
                        ) as guest:
            run = subprocess.run([KESTRIX_VM, "capture", "--qmp", guest.qmp, "--state", self.state, "--kestrix",
                                  self.program, "small", "disk1", "--out", self.path("x")], stderr=subprocess.PIPE,
                                 check=False)
            self.assertEqual(run.returncode, 3)
            self.assertIn(b"disk1 has sectors of 4096 bytes", run.stderr)
            run = subprocess.run([KESTRIX_VM, "capture", "--qmp", guest.qmp, "--state", self.state, "--kestrix",
                                  self.program, "another", "disk0", "--out", self.path("x")], stderr=subprocess.PIPE,
                                 check=False)
            self.assertEqual(run.returncode, 3)
            self.assertIn(b"is small, not another", run.stderr)
            guest.wait_until_it_writes()
