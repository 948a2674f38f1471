"""kestrix-vm on a storage daemon's disk: images of one moment, and what is refused."""
import contextlib
import errno
import os
import random
import signal
import threading
import unittest

from guest_disks import BLOCK, DOMAIN, GuestTest, Writer, newest_number, wait_until, why_no_guests
from harness import MIB, needs, why_no_mounts
from kestrix_image import read_image


@unittest.skipIf(why_no_guests(), why_no_guests())
class Moments(GuestTest):
    def test_an_image_is_the_disk_of_one_moment_while_a_writer_writes(self):
        self.write(0, random.Random(1).randbytes(self.size))
        before = bytes(self.content)
        writer = Writer(self.written, self.size, random.Random(2))
        # So that what the writer writes while kestrix reads is what the image must not hold.
        self.file("empty", b"")
        writer.start()
        try:
            wait_until(lambda: len(writer.written) > 20)
            first = len(writer.written)
            run = self.capture("live")
            last = len(writer.written)
        finally:
            writer.end()
        self.assertEqual(run.status, 0, run.err)
        self.assertGreater(last, first + 20, "nothing was written meanwhile")
        known = {data: number for number, (_, data) in enumerate(writer.written, 1)}
        disk = read_image(self.path("live")).disk()
        newest = max(known.get(disk[at:at + 4096], 0) for at in range(0, len(disk), 4096))
        self.assertGreaterEqual(newest, first - 1)
        self.assertTrue(disk == writer.disk_after(before, newest), f"this is not the disk after {newest} writes")
        self.check_nothing_left()

    def test_nights_with_proof_read_the_chunks_that_were_written(self):
        self.run_nights(4)

    def test_an_idle_disk_is_not_read(self):
        self.write(5 * MIB, b"x" * BLOCK)
        self.captured("a")
        self.assertIn("read from disk: 0)", self.captured("b", "a"))

    def test_what_is_written_during_a_capture_is_in_the_next(self):
        self.write(0, random.Random(1).randbytes(self.size))
        self.captured("a")
        old = bytes(self.content)
        held = self.capture_held("b", "a")
        self.write(9 * MIB, b"during" * 100)
        self.assertEqual(held(), 0)
        self.check_holds("b", old)
        self.captured("c", "b")

    def capture_held(self, name, base):
        """A capture whose kestrix stands still; the function that is given lets it go on, and gives the status."""
        process = self.start_vm("capture", DOMAIN, "vda", "--out", name, "--base", base, "--thin")
        let_go_on = self.stop_kestrix(process)

        def go_on():
            let_go_on()
            process.communicate(timeout=60)
            return process.returncode
        return go_on

    def test_a_sealed_thin_image_is_made_by_the_options_of_kestrix(self):
        self.file("p", b"secret\n")
        self.write(0, b"1" * MIB)
        for name, more in (("a", []), ("b", ["--base", "a", "--thin"])):
            run = self.capture(name, "--encrypt", "--password-file", "p", *more)
            self.assertEqual(run.status, 0, run.err)
        self.assertEqual(self.kestrix("verify", "--in", "b", "--password-file", "p").status, 0)
        self.assertNotEqual(self.kestrix("verify", "--in", "b").status, 0)
        self.check_nothing_left()

    def test_all_disks_of_a_guest_are_of_one_moment(self):
        self.end_daemon()
        other = os.path.join(self.folder, "vdb.raw")
        with open(other, "wb") as file:
            file.truncate(8 * MIB)
        second = os.path.join(self.folder, "vdb")
        with open(second, "wb"):
            pass
        self.begin_daemon("--blockdev", f"file,node-name=file1,filename={other}",
                          "--blockdev", "raw,node-name=vdb,file=file1",
                          "--export", f"fuse,id=writer1,node-name=vdb,mountpoint={second},writable=on")
        wait_until(lambda: os.path.ismount(second))
        stop = threading.Event()
        count = [0]

        def write():
            with open(self.written, "r+b", buffering=0) as a, open(second, "r+b", buffering=0) as b:
                while not stop.is_set():
                    count[0] += 1
                    data = count[0].to_bytes(8, "little") * 64
                    os.pwrite(a.fileno(), data, 0)
                    os.pwrite(b.fileno(), data, 0)
        thread = threading.Thread(target=write)
        thread.start()
        try:
            run = self.vm("capture", DOMAIN, "--all-disks", "--out", "{disk}.kstx", *self.more)
        finally:
            stop.set()
            thread.join()
        self.assertEqual(run.status, 0, run.err)
        first = newest_number(read_image(self.path("vda.kstx")).disk()[:512])
        self.assertIn(first - newest_number(read_image(self.path("vdb.kstx")).disk()[:512]), (0, 1))


@unittest.skipIf(why_no_guests(), why_no_guests())
class Refusals(GuestTest):
    def refused(self, run, text, status=3):
        self.assertEqual(run.status, status, run.err)
        self.assertIn(text, run.err.decode())
        self.assertNotIn("Traceback", run.err.decode())
        self.assertFalse(os.path.exists(self.path("a")))

    def test_what_cannot_be_done_is_refused_with_a_sentence(self):
        self.refused(self.vm("capture", DOMAIN, "vdz", "--out", "a"), "There is no disk vdz; there are: vda.")
        self.refused(self.vm("capture", DOMAIN, "vda", "--out", "a", "--nbd", self.qmp + "none"), "NBD server")
        self.refused(self.vm("capture", DOMAIN, "vda", "--out", "a", "--kestrix", "none"), "There is no program none")
        self.qmp, there = self.qmp + "none", self.qmp
        self.refused(self.vm("capture", DOMAIN, "vda", "--out", "a"), "There is no way to QEMU")
        self.qmp = there
        self.check_nothing_left()

    def test_a_command_line_that_says_too_little_or_too_much_is_refused(self):
        for words in ((), ("vda", "--all-disks"), ("vda", "--thin"), ("vda", "--encrypt"), ("vda", "--encrypted"),
                      ("--all-disks",), ("vda", "--connect", "x"), ("vda", "--bas", "a")):
            with self.subTest(words):
                self.refused(self.vm("capture", DOMAIN, *words, "--out", "a"), "usage: kestrix-vm", 2)

    def test_modules_that_the_environment_names_are_not_taken(self):
        self.file("nbd.py", b"raise SystemExit('taken')\n")
        process = self.start_vm("disks", env={**os.environ, "PYTHONPATH": self.images})
        _, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, err), (0, b""))

    def test_a_job_of_somebody_else_is_waited_out_by_the_user(self):
        with self.monitor() as monitor:
            monitor.do("blockdev-add", driver="null-co", node_name="target", size=self.size)
            monitor.do("blockdev-backup", job_id="copy", device="vda", target="target", sync="none")
        self.refused(self.capture("a"), "Another job runs on the guest's disks: copy (backup).")

    def test_a_monitor_that_has_a_client_is_busy(self):
        with self.monitor():
            self.refused(self.capture("a"), "A monitor serves one client at a time")

    def test_a_second_capture_of_a_guest_is_refused(self):
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "first")
        go_on = self.stop_kestrix(process)
        run = self.capture("a")
        go_on()
        process.communicate(timeout=60)
        self.assertEqual(process.returncode, 0)
        self.refused(run, "A monitor serves one client at a time")

    @needs(why_no_mounts)
    def test_a_folder_from_which_nothing_may_be_started_is_refused(self):
        self.state = self.small_file_system("16m", ",noexec")
        self.refused(self.capture("a"), "noexec")

    @needs(why_no_mounts)
    def test_a_place_that_fills_up_ends_the_capture_and_not_the_writer(self):
        self.state = self.small_file_system("150m")
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "a")
        self.stop_kestrix(process)
        filler = os.path.join(self.state, "filler")
        with open(filler, "wb") as file:
            file.write(bytes(100 * MIB))
        _, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 1)
        self.assertIn("is nearly full", err.decode())
        self.write(0, b"goes on")
        os.unlink(filler)
        self.check_nothing_left()
        self.refused_when_full(filler)

    def refused_when_full(self, filler):
        with open(filler, "wb") as file:
            file.write(bytes(100 * MIB))
        if os.path.exists(self.path("a")):  # as far as kestrix had come
            os.unlink(self.path("a"))
        self.refused(self.capture("a"), "There is too little room")

    @needs(why_no_mounts)
    def test_a_place_that_is_full_before_anybody_looks_fails_the_write_and_ends_the_capture(self):
        self.write(0, os.urandom(MIB))
        self.captured("first")
        state, self.state = self.state, self.small_file_system("150m")
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "a", "--base", "first", "--thin")
        self.stop_kestrix(process)
        process.send_signal(signal.SIGSTOP)
        filler = os.path.join(self.state, "filler")
        with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
            while True:
                file.write(bytes(4096))
        with self.assertRaises(OSError) as failed:
            self.write(MIB // 2, os.urandom(MIB))
        self.assertIn(failed.exception.errno, (errno.ENOSPC, errno.EIO))
        process.send_signal(signal.SIGCONT)
        _, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 1)
        self.assertRegex(err.decode(), "is nearly full|QEMU has ended the job that keeps the view")
        self.assertNotEqual(self.kestrix("verify", "--in", "a").status, 0)
        os.unlink(filler)
        self.content = self.as_it_is()
        self.write(MIB // 2, b"goes on")
        self.check_nothing_left()
        self.state = state
        self.captured("b", "first")

    def test_an_nbd_server_that_is_there_is_used_if_it_is_named(self):
        self.end_daemon()
        server = os.path.join(self.folder, "theirs")
        self.begin_daemon("--nbd-server", f"addr.type=unix,addr.path={server}")
        self.refused(self.capture("a"), "name its socket with --nbd")
        self.more = ["--nbd", server]
        self.captured("b")
        self.write(MIB, b"x")
        self.captured("c", "b")
