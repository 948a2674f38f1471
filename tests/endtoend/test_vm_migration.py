"""kestrix-vm on a whole QEMU, whose guest does nothing: migration, and jobs of others."""
import os
import shutil
import subprocess
import unittest

from guest_disks import KESTRIX_VM, Monitor, Run, end_process, stop_kestrix_of, wait_until, why_no_guests
from harness import MIB, MachineTest

SIZE = 64 * MIB
REASON = why_no_guests() or (None if shutil.which("qemu-system-x86_64") else "qemu-system-x86_64 is missing")
AWAY = "exec:cat >/dev/null"  # a migration to nowhere, which ends well


@unittest.skipIf(REASON, REASON)
class Migration(MachineTest):
    def setUp(self):
        super().setUp()
        self.state, self.qmp = (os.path.join(self.folder, name) for name in ("state", "qmp"))
        self.disk = os.path.join(self.folder, "disk.qcow2")
        self.must("qemu-img", "create", "-q", "-f", "qcow2", self.disk, str(SIZE))
        self.must("qemu-io", "-c", "write -P 7 5M 64k", self.disk)

    def begin(self, *options):
        """Gives a monitor beside that of kestrix-vm."""
        other = os.path.join(self.folder, "qmp2")
        process = subprocess.Popen(
            ["qemu-system-x86_64", "-nodefaults", "-no-user-config", "-name", "small", "-machine", "q35",
             "-accel", "tcg", "-m", "64", "-display", "none", "-qmp", f"unix:{self.qmp},server=on,wait=off",
             "-qmp", f"unix:{other},server=on,wait=off", "-blockdev", f"file,node-name=file0,filename={self.disk}",
             "-blockdev", "qcow2,node-name=node0,file=file0", "-device", "virtio-blk-pci,drive=node0,id=disk0",
             *options], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(end_process, process)
        wait_until(lambda: process.poll() is not None or os.path.exists(other) and os.path.exists(self.qmp))
        self.assertIsNone(process.poll(), "QEMU did not start")
        monitor = Monitor(other)
        self.addCleanup(monitor.__exit__)
        return monitor

    def start_capture(self, name, *more):
        process = subprocess.Popen(
            [KESTRIX_VM, "capture", "--qmp", self.qmp, "--state", self.state, "--kestrix", self.program, "small",
             "disk0", "--out", name, *more], cwd=self.images, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE)
        self.addCleanup(end_process, process)
        return process

    def capture(self, name, *more):
        process = self.start_capture(name, *more)
        out, err = process.communicate(timeout=120)
        return Run(process.returncode, out, err)

    def captured(self, monitor, name, *more):
        run = self.capture(name, *more)
        self.assertEqual((run.status, run.err), (0, b""), run.out.decode())
        self.check_nothing_left(monitor)
        return run.out.decode()

    def refused(self, monitor, text):
        run = self.capture("refused")
        self.assertEqual(run.status, 3, run)
        self.assertEqual(run.err.decode(), f"kestrix-vm: {text}\n")
        self.assertFalse(os.path.exists(self.path("refused")))
        self.check_nothing_left(monitor)

    def check_nothing_left(self, monitor):
        self.assertEqual(monitor.do("query-block-exports"), [])
        self.assertEqual([told["id"] for told in monitor.do("query-jobs") if told["id"].startswith("kestrix")], [])
        names = {told["node-name"] for told in monitor.do("query-named-block-nodes")}
        self.assertEqual({name for name in names if name.startswith("kestrix")}, set())
        self.assertEqual(os.listdir(os.path.join(self.state, "run")), [])

    @staticmethod
    def migrate(monitor, bandwidth):
        monitor.do("migrate-set-parameters", max_bandwidth=bandwidth)
        monitor.do("migrate", uri=AWAY)

    @staticmethod
    def wait_for_migration(monitor, *statuses):
        wait_until(lambda: monitor.do("query-migrate").get("status") in statuses)

    def test_a_guest_that_is_being_migrated_is_captured_when_it_stays(self):
        monitor = self.begin()
        self.captured(monitor, "a")
        self.migrate(monitor, 1000)  # bytes in a second, which lasts
        self.wait_for_migration(monitor, "active")
        self.refused(monitor, "The guest is being migrated. Capture it on the host where it then is.")
        monitor.do("migrate_cancel")
        self.wait_for_migration(monitor, "cancelled")
        self.assertIn("Changed since the image of epoch", self.captured(monitor, "b", "--base", "a", "--thin"))

    def test_a_guest_that_has_gone_by_migration_is_not_captured(self):
        monitor = self.begin()
        self.migrate(monitor, 1 << 30)
        self.wait_for_migration(monitor, "completed")
        self.refused(monitor, "The guest is not here: it comes or has gone by migration.")

    def test_a_guest_that_is_yet_to_come_by_migration_is_not_captured(self):
        monitor = self.begin("-incoming", "defer")
        self.refused(monitor, "The guest is not here: it comes or has gone by migration.")

    def test_a_migration_that_is_begun_during_a_capture_fails_and_both_go_on(self):
        monitor = self.begin()
        self.captured(monitor, "a")
        process = self.start_capture("b", "--base", "a", "--thin")
        go_on = stop_kestrix_of(process, self.state)
        self.migrate(monitor, 1 << 30)
        self.wait_for_migration(monitor, "failed")
        self.assertEqual(monitor.do("query-status")["status"], "running")
        go_on()
        _, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, err), (0, b""))
        self.check_nothing_left(monitor)
        self.assertEqual(self.kestrix("verify", "--in", "b").status, 0)

    def test_jobs_of_others_are_named_and_waited_out_by_the_user(self):
        monitor = self.begin()
        for number, (command, more) in enumerate((("blockdev-mirror", {"sync": "none"}),
                                                  ("blockdev-backup", {"sync": "full", "speed": 1}))):
            with self.subTest(command):
                target, kind = f"target{number}", command.removeprefix("blockdev-")
                monitor.do("blockdev-add", driver="null-co", node_name=target, size=SIZE, read_zeroes=True)
                monitor.do(command, job_id="theirs", device="node0", target=target, **more)
                self.refused(monitor, f"Another job runs on the guest's disks: theirs ({kind}). Capture disk0 when "
                             "it has ended.")
                self.assertIn(monitor.do("query-jobs")[0]["status"], ("running", "ready"))
                monitor.do("job-cancel", id="theirs")
                wait_until(lambda: not monitor.do("query-jobs"))
                self.captured(monitor, kind)
