"""kestrix-vm on a storage daemon's disk: images of one moment, what the tracker proves, and what is left behind."""
import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

from guest_disks import BLOCK, CHUNK, DOMAIN, Broken, GuestTest, Writer, newest_number, wait_until, why_no_guests
from harness import MIB, needs, why_no_mounts
from kestrix_image import ImageFault

NO_BITMAP = "no bitmap of a committed image is there"
NOT_STORED = "the guest's process or the host ended without storing the bitmap"
RESIZED = "the disk was resized"
ANOTHER = "the disk's size, or what it stands on, is not what it was"


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
        from kestrix_image import read_image
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
        child = self.stop_kestrix(process)

        def go_on():
            os.kill(child, signal.SIGCONT)
            process.communicate(timeout=60)
            return process.returncode
        return go_on

    def stop_kestrix(self, process):
        """The number of the process's kestrix, which has been stopped. It is gone in a few hundredths of a second:
        without a pause it is looked for among the children alone."""
        end = time.monotonic() + 60
        while process.poll() is None and time.monotonic() < end:
            try:
                with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
                    children = file.read().split()
                for child in children:
                    with open(f"/proc/{child}/cmdline", "rb") as file:
                        words = file.read().split(b"\0")
                    if words[0].startswith(self.state.encode()) and words[1:2] == [b"capture"]:
                        os.kill(int(child), signal.SIGSTOP)
                        return int(child)
            except OSError:
                pass  # a child that has ended meanwhile
        return self.fail("kestrix had ended, or never began")

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
        from kestrix_image import read_image
        first = newest_number(read_image(self.path("vda.kstx")).disk()[:512])
        self.assertIn(first - newest_number(read_image(self.path("vdb.kstx")).disk()[:512]), (0, 1))


@unittest.skipIf(why_no_guests(), why_no_guests())
class Memory(GuestTest):
    """What the tracker remembers, and when it must not."""

    def setUp(self):
        super().setUp()
        self.write(0, random.Random(1).randbytes(self.size))
        self.captured("a")

    def off(self):
        self.end_daemon()
        return self.disk_file()

    def test_bitmaps_outlive_a_shutdown_of_the_guest(self):
        self.write(MIB, b"before")
        self.off()
        self.begin_daemon()
        self.write(13 * MIB, b"after")
        self.captured("b", "a")

    def test_a_capture_that_fails_loses_no_change(self):
        self.write(MIB, b"before")
        run = self.capture("none/b", "--base", "a", "--thin")
        self.assertEqual(run.status, 1)
        self.check_nothing_left()
        self.write(13 * MIB, b"after")
        self.captured("b", "a")

    def test_a_first_capture_that_fails_proves_nothing(self):
        self.end_daemon()
        os.unlink(self.disk_file())
        self.make_disk(self.disk_file())
        self.begin_daemon()
        self.content = bytearray(self.size)
        self.assertEqual(self.capture("none/b").status, 1)
        self.captured("b", "a", NO_BITMAP)

    def test_a_guest_that_was_killed_proves_nothing(self):
        for stored, reason in ((False, NO_BITMAP), (True, NOT_STORED)):
            with self.subTest(stored=stored):
                if stored:
                    self.off()
                    self.begin_daemon()
                self.write(MIB, b"before")
                self.end_daemon(signal.SIGKILL)
                self.begin_daemon()
                self.content = self.as_it_is()
                self.captured("b", "a", reason)
                self.write(2 * MIB, b"again")
                self.captured("c", "b")
                self.captured("a")

    def test_what_qemus_tools_write_while_the_guest_is_off_is_known(self):
        self.must("qemu-io", "-c", "write -P 7 8M 64k", self.off())
        self.content[8 * MIB:8 * MIB + BLOCK] = b"\7" * BLOCK
        self.touched = {8 * MIB // BLOCK}
        self.begin_daemon()
        self.captured("b", "a")

    def test_what_another_program_writes_into_the_file_clears_the_proof(self):
        with open(self.off(), "r+b") as file:
            file.seek(88)
            file.write(bytes(8))  # the bits that vouch for what the writer doesn't know
        self.begin_daemon()
        self.captured("b", "a", NO_BITMAP)

    def test_an_older_copy_of_the_disk_proves_what_changed_since_its_own_image(self):
        older = bytes(self.content)
        shutil.copy(self.off(), self.path("copy"))
        self.begin_daemon()
        self.write(5 * MIB, b"gone")
        self.captured("b", "a")
        shutil.copy(self.path("copy"), self.off())
        self.begin_daemon()
        self.content = bytearray(older)
        self.write(9 * MIB, b"new")
        run = self.capture("c", "--base", "b", "--thin")
        self.assertIn("base image is not the most recent committed image", run.out.decode())
        self.check_holds("c", self.content)
        self.write(17 * MIB, b"newer")
        self.touched = {17 * MIB // BLOCK}
        self.captured("d", "c")

    def test_a_disk_in_the_place_of_another_proves_nothing(self):
        self.off()
        self.make_disk(self.disk_file())
        self.begin_daemon()
        self.content = bytearray(self.size)
        self.captured("b", "a", NO_BITMAP)

    def test_a_disk_that_was_cut_and_is_as_large_again_proves_nothing(self):
        for least in (12 * MIB, self.size - 512):
            with self.subTest(least):
                self.must("qemu-img", "resize", "-q", "--shrink", self.off(), str(least))
                self.must("qemu-img", "resize", "-q", self.disk_file(), str(self.size))
                self.begin_daemon()
                self.content = self.as_it_is()
                self.captured("b", "a", RESIZED)
                self.write(0, self.content[::-1])
                self.captured("a")

    def test_a_disk_that_has_grown_proves_nothing(self):
        self.must("qemu-img", "resize", "-q", self.off(), str(self.size + CHUNK))
        self.begin_daemon()
        self.content += bytes(CHUNK)
        run = self.capture("b", "--base", "a", "--thin")
        self.assertEqual(run.status, 1)
        self.assertIn(f"Nothing is proved: {ANOTHER}.", run.out.decode())
        self.assertIn("geometry does not match", run.err.decode())
        self.captured("b")
        self.captured("c", "b")

    def test_a_snapshot_in_the_file_is_gone_back_to_without_bitmaps_or_not_at_all(self):
        self.must("qemu-img", "snapshot", "-c", "s", self.off())
        older = bytes(self.content)
        self.begin_daemon()
        self.write(MIB, b"gone")
        self.off()
        reverted = subprocess.run(["qemu-img", "snapshot", "-a", "s", self.disk_file()], stderr=subprocess.PIPE,
                                  check=False)
        self.begin_daemon()
        if reverted.returncode:
            self.captured("b", "a")
            return
        self.content = bytearray(older)
        self.captured("b", "a", NO_BITMAP)

    def test_a_bitmap_that_was_deleted_by_hand_proves_nothing(self):
        for pattern in ("kestrix-[0-9a-f]{14}-", "kestrix-extent-"):
            with self.subTest(pattern):
                name, = (name for name in self.bitmaps() if re.match(pattern, name))
                with self.monitor() as monitor:
                    monitor.do("block-dirty-bitmap-remove", node="vda", name=name)
                self.write(3 * MIB, b"unseen" + pattern.encode())
                self.captured("b", "a", NO_BITMAP if "extent" not in pattern else RESIZED)
                self.captured("a")

    def test_a_bitmap_that_has_stood_still_proves_nothing(self):
        name, = (name for name in self.bitmaps() if re.match("kestrix-[0-9a-f]{14}-", name))
        with self.monitor() as monitor:
            monitor.do("block-dirty-bitmap-disable", node="vda", name=name)
            self.write(3 * MIB, b"unseen")
        self.captured("b", "a", "the bitmap has not recorded all the time")

    def test_bitmaps_of_others_are_left_alone(self):
        with self.monitor() as monitor:
            for name in ("backup-1", "kestrix-", "kestrix-0123-0123456789ab"):
                monitor.do("block-dirty-bitmap-add", node="vda", name=name)
        self.write(3 * MIB, b"seen")
        self.captured("b", "a")
        self.assertLessEqual({"backup-1", "kestrix-", "kestrix-0123-0123456789ab"}, set(self.bitmaps()))

    def test_another_backing_file_proves_nothing(self):
        for name, fill in (("base1", 1), ("base2", 2)):
            self.must("qemu-img", "create", "-q", "-f", "raw", self.path(name), str(self.size))
            self.must("qemu-io", "-f", "raw", "-c", f"write -P {fill} 0 {self.size}", self.path(name))
        self.must("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", self.path("base1"), self.off())
        self.begin_daemon()
        self.content = bytearray(b"\1" * self.size)
        self.captured("b")
        self.captured("c", "b")
        self.must("qemu-img", "rebase", "-u", "-F", "raw", "-b", self.path("base2"), self.off())
        self.begin_daemon()
        self.content = bytearray(b"\2" * self.size)
        self.captured("d", "c", ANOTHER)

    def test_epochs_are_never_given_out_twice(self):
        for name in ("b", "c"):
            self.captured(name)
        with open(os.path.join(self.state, "epochs"), encoding="ascii") as file:
            epochs = file.read().split()
        self.assertEqual(len(set(epochs)), 3)
        self.assertEqual(len(epochs), 3)

    def test_the_disks_are_listed_with_what_is_proved(self):
        run = self.vm("disks", "--json")
        self.assertEqual(run.status, 0, run.err)
        told, = json.loads(run.out)
        self.assertEqual((told["disk"], told["node"], told["file"], told["format"], told["size"], told["sectorSize"],
                          told["bitmap"], told["refused"], told["unproved"]),
                         ("vda", "vda", self.disk_file(), "qcow2", self.size, 512, "disk", None, None))
        self.assertEqual(told["lastCapture"]["image"], self.path("a"))
        self.assertEqual(told["lastCapture"]["epoch"], told["epoch"])
        shown = self.vm("disks").out.decode()
        self.assertIn(f"proves what changed since epoch {int(told['epoch'], 16):X}\n", shown)
        self.assertIn(f"last capture: {self.path('a')}, complete\n", shown)


@unittest.skipIf(why_no_guests(), why_no_guests())
class RawDisks(GuestTest):
    format = "raw"

    def test_changes_are_proved_until_the_process_ends(self):
        self.write(MIB, b"1")
        self.captured("a")
        self.write(9 * MIB, b"2")
        self.captured("b", "a")
        self.end_daemon()
        with open(self.disk_file(), "r+b") as file:
            file.write(b"3")
        self.content[:1] = b"3"
        self.begin_daemon()
        self.captured("c", "b", NO_BITMAP)
        self.write(17 * MIB, b"4")
        self.captured("d", "c")


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
                Moments.stop_kestrix(self, process)
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
        Moments.stop_kestrix(self, process)
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
        child = Moments.stop_kestrix(self, process)
        run = self.capture("a")
        os.kill(child, signal.SIGCONT)
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
        Moments.stop_kestrix(self, process)
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

    def test_an_nbd_server_that_is_there_is_used_if_it_is_named(self):
        self.end_daemon()
        server = os.path.join(self.folder, "theirs")
        self.begin_daemon("--nbd-server", f"addr.type=unix,addr.path={server}")
        self.refused(self.capture("a"), "name its socket with --nbd")
        self.more = ["--nbd", server]
        self.captured("b")
        self.write(MIB, b"x")
        self.captured("c", "b")


class Agent:
    """A guest's agent that does as it is told: `ways` by command, what it answers instead ("silent", "refuses", or a
    function that is called before the answer)."""

    def __init__(self, path, ways=None):
        self.ways, self.said, self.frozen = ways or {}, [], False
        self.times = {}
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            with connection:
                for line in connection.makefile("rb"):
                    try:
                        connection.sendall(self.answer(json.loads(line.lstrip(b"\xff"))))
                    except OSError:
                        break

    def answer(self, request):
        command = request["execute"]
        self.said.append(command)
        self.times[command] = time.monotonic()
        way = self.ways.get(command)
        if way == "silent":
            return b""
        if way == "refuses":
            return b'{"error": {"class": "GenericError", "desc": "not today"}}\n'
        if way:
            way()
        told = {}
        if command == "guest-sync-delimited":
            return b"\xff" + json.dumps({"return": request["arguments"]["id"]}).encode() + b"\n"
        if command == "guest-fsfreeze-freeze":
            self.frozen, told = True, 2
        if command == "guest-fsfreeze-thaw":
            self.frozen, told = False, 2
        return json.dumps({"return": told}).encode() + b"\n"


@unittest.skipIf(why_no_guests(), why_no_guests())
class Freezing(GuestTest):
    def setUp(self):
        super().setUp()
        self.path_of_agent = os.path.join(self.folder, "agent")
        self.more = ["--agent", self.path_of_agent]
        self.write(0, b"x" * MIB)

    def agent(self, **ways):
        agent = Agent(self.path_of_agent, {"guest-fsfreeze-" + name: way for name, way in ways.items()})
        self.addCleanup(agent.close)
        return agent

    def test_the_moment_lies_between_freeze_and_thaw(self):
        agent = self.agent()
        seen = []
        agent.ways["guest-fsfreeze-thaw"] = lambda: seen.append(
            (agent.frozen, any(name.startswith("scratch") for _, _, names in os.walk(self.state) for name in names)))
        text = self.captured("a")
        self.assertRegex(text, r"File systems frozen: 2, for 0\.\d\d s\.")
        self.assertEqual(seen, [(True, True)])
        self.assertEqual(agent.said, ["guest-sync-delimited", "guest-fsfreeze-freeze", "guest-fsfreeze-thaw"])
        self.assertFalse(agent.frozen)
        # Nothing that can wait is done while the guest stands still.
        self.assertLess(agent.times["guest-fsfreeze-thaw"] - agent.times["guest-fsfreeze-freeze"], 1)

    def test_without_an_agent_it_says_so(self):
        self.assertIn("Not frozen: no guest agent answers at", self.captured("a"))
        self.more = []
        self.assertIn("Not frozen: no guest agent was named. The image is what a power cut would leave.",
                      self.captured("b"))
        agent = self.agent()
        self.more = ["--agent", self.path_of_agent, "--no-freeze"]
        self.assertIn("Not frozen: as told.", self.captured("c"))
        self.assertEqual(agent.said, [])

    def test_an_agent_that_refuses_is_thawed_all_the_same(self):
        agent = self.agent(freeze="refuses")
        self.assertIn("refused guest-fsfreeze-freeze (not today)", self.captured("a"))
        self.assertEqual(agent.said[-1], "guest-fsfreeze-thaw")

    def test_an_agent_that_does_not_answer_in_time_is_thawed_all_the_same(self):
        agent = self.agent(freeze=lambda: time.sleep(2))
        self.more += ["--freeze-patience", "0.5"]
        self.assertIn("the guest agent failed at guest-fsfreeze-freeze (timed out)", self.captured("a"))
        self.assertFalse(agent.frozen)
        self.assertEqual(agent.said[-1], "guest-fsfreeze-thaw")

    def test_a_guest_is_frozen_no_longer_than_the_bound(self):
        agent = self.agent()
        self.more += ["--freeze-bound", "0.5"]
        with self.held_transaction():
            text = self.captured_by_door("a")
        self.assertIn("Not frozen: it was thawed after 0.5 seconds, before the view was taken.", text)
        self.assertLess(agent.times["guest-fsfreeze-thaw"] - agent.times["guest-fsfreeze-freeze"], 1)

    def held_transaction(self):
        """Inside of the with QEMU's answer to the command that takes the moment comes late."""
        test = self

        class Held(Broken):
            def is_here(self):
                return self.commands[-1] == "transaction" and "blockdev-create" in self.commands and \
                    self.commands.count("transaction") == 2

            def breaks(self, client, server, line):
                time.sleep(1.5)
                return True

            def __enter__(self):
                test.door = self.path
                return self

            def __exit__(self, *_):
                self.close()

        # The first is that of the mark at the disk's end.
        return Held(os.path.join(self.folder, "door"), self.qmp, way="passed")

    def captured_by_door(self, name):
        real, self.qmp = self.qmp, self.door
        try:
            run = self.capture(name)
        finally:
            self.qmp = real
        self.assertEqual(run.status, 0, run.err)
        return run.out.decode()

    def test_a_run_that_is_killed_while_the_guest_is_frozen_leaves_it_thawed(self):
        frozen = threading.Event()
        agent = self.agent(freeze=lambda: (frozen.set(), time.sleep(0.5)))
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "a", *self.more)
        self.assertTrue(frozen.wait(20))
        process.kill()
        process.wait()
        wait_until(lambda: agent.said[-1] == "guest-fsfreeze-thaw" and not agent.frozen)
        self.more = []
        wait_until(lambda: self.capture("b").status == 0)
        self.check_nothing_left()
