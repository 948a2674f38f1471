"""kestrix-vm on a guest of libvirt's: backups that are pulled, and checkpoints."""
import json
import os
import re
import signal
import subprocess
import time
import unittest
import uuid

import own_libvirt
from guest_disks import KESTRIX_VM, end_process, why_no_guests
from harness import MIB, Run, system
from kestrix_image import read_image
from small_guest import Line, WholeGuestTest, kernel, make_disk, why_no_guest

URI = own_libvirt.URI
own = []  # the libvirtd that was started for these tests
SIZE = 64 * MIB


def setUpModule():
    reason = why_no_guests() or why_no_guest()
    if reason:
        raise unittest.SkipTest(reason)
    try:
        own.append(own_libvirt.begin())
    except OSError as error:
        raise unittest.SkipTest(str(error)) from None


def tearDownModule():
    while own:
        own_libvirt.end(own.pop())


class Libvirt(WholeGuestTest):
    def setUp(self):
        super().setUp()
        self.state = os.path.join(self.folder, "state")
        self.disk = make_disk(self.folder, SIZE)
        line = os.path.join(self.folder, "line")
        self.running = "running"
        self.name = "kestrix-" + uuid.uuid4().hex[:8]
        path = os.path.join(self.folder, "domain.xml")
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"""<domain type='qemu'><name>{self.name}</name><memory unit='MiB'>256</memory>
<os><type arch='x86_64' machine='q35'>hvm</type><kernel>{kernel()}</kernel><initrd>{self.initrd}</initrd>
<cmdline>console=ttyS0 quiet panic=1</cmdline></os>
<devices><emulator>/usr/bin/qemu-system-x86_64</emulator>
<disk type='file' device='disk'><driver name='qemu' type='qcow2'/><source file='{self.disk}'/>
<target dev='vda' bus='virtio'/></disk>
<serial type='file'><source path='{line}'/><target port='0'/></serial>
<channel type='unix'><target type='virtio' name='org.qemu.guest_agent.0'/></channel>
<memballoon model='none'/></devices></domain>""")
        self.virsh("define", path)
        self.addCleanup(self.undefine)
        self.begin()

    def virsh(self, *words):
        return self.must("virsh", "--connect", URI, "--quiet", *words)

    def undefine(self):
        system("virsh", "--connect", URI, "destroy", self.name)
        system("virsh", "--connect", URI, "undefine", self.name, "--checkpoints-metadata")

    def begin(self):
        self.line = Line(os.path.join(self.folder, "line"))
        self.virsh("start", self.name)
        self.line.wait_for("READY")

    def start_vm(self, *words):
        process = subprocess.Popen([KESTRIX_VM, *words, "--connect", URI, "--state", self.state], cwd=self.images,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(end_process, process)
        return process

    def start_capture(self, name, *more):
        return self.start_vm("capture", self.name, "vda", "--out", name, "--kestrix", self.program, *more)

    def capture(self, name, *more):
        process = self.start_capture(name, *more)
        out, err = process.communicate(timeout=300)
        return Run(process.returncode, out, err)

    def captured(self, name, base=None, proved=True):
        run = self.capture(name, *(["--base", base, "--thin"] if base else []))
        text = run.out.decode()
        self.assertEqual((run.status, run.err), (0, b""), text)
        self.assertNotIn("WARNING", text)
        if base:
            self.assertIn("matches tracker" if proved else "Nothing is proved", text)
        self.check_nothing_left()
        return text

    def checkpoints(self):
        return self.virsh("checkpoint-list", self.name, "--name").split()

    def check_nothing_left(self):
        self.assertLessEqual(len([name for name in self.checkpoints() if name.startswith("kestrix-")]), 1)
        self.assertEqual(os.listdir(os.path.join(self.state, "run")), [])
        self.assertEqual(self.virsh("domstate", self.name), self.running)
        self.assertIn("None", self.virsh("domjobinfo", self.name))

    def test_nights_are_proved_and_hold_the_disk(self):
        self.line.wait_until_it_writes()
        text = self.captured("a")
        self.assertRegex(text, r"File systems frozen: 1, for 0\.\d\d s\.")
        self.line.wait_until_it_writes()
        self.captured("b", "a")
        self.assertEqual(self.capture("none/c", "--base", "a").status, 1)
        self.check_nothing_left()
        self.line.wait_until_it_writes()
        process = self.start_capture("c", "--base", "b", "--thin")
        time.sleep(0.4)
        process.kill()
        process.communicate()
        self.line.wait_until_it_writes()
        self.captured("c", "b")
        told, = [disk for disk in json.loads(self.start_vm("disks", "--json").communicate()[0])
                 if disk["domain"] == self.name]
        self.assertEqual((told["disk"], told["size"], told["unproved"]), ("vda", SIZE, None))
        # A guest that stands still leaves its disk as the image has it.
        self.virsh("suspend", self.name)
        self.running = "paused"
        self.assertIn("Not frozen: the guest is paused.", self.captured("d", "c"))
        self.running = "running"
        self.virsh("destroy", self.name)
        raw = os.path.join(self.folder, "compare")
        self.must("qemu-img", "convert", "-f", "qcow2", "-O", "raw", self.disk, raw)
        with open(raw, "rb") as file:
            self.assertTrue(read_image(self.path("d")).disk() == file.read())
        self.begin()
        self.captured("e", "d")
        self.throw_off()
        self.begin()
        self.captured("f", "e", proved=False)
        self.captured("g", "f")

    def throw_off(self):
        """As a host that crashes: QEMU stores no bitmap."""
        with open(f"/run/libvirt/qemu/{self.name}.pid", encoding="ascii") as file:
            os.kill(int(file.read()), signal.SIGKILL)
        self.wait_until_off()

    def wait_until_off(self):
        end = time.monotonic() + 30
        while self.virsh("domstate", self.name) != "shut off":
            self.assertLess(time.monotonic(), end)
            time.sleep(0.1)

    def test_a_checkpoint_of_somebody_else_is_left_alone(self):
        self.captured("a")
        self.virsh("checkpoint-create-as", self.name, "theirs")
        self.line.wait_until_it_writes()
        self.captured("b", "a")
        self.assertIn("theirs", self.checkpoints())

    def test_a_checkpoint_that_was_deleted_proves_nothing(self):
        self.captured("a")
        name, = self.checkpoints()
        self.virsh("checkpoint-delete", self.name, name)
        self.captured("b", "a", proved=False)

    def test_a_bitmap_that_somebody_has_cleared_proves_nothing(self):
        self.captured("a")
        for which in range(2):
            with self.subTest(which):
                self.line.wait_until_it_writes()
                node, names = self.pair()
                self.monitor("block-dirty-bitmap-clear", node=node, name=names[which])
                self.line.wait_until_it_writes()
                self.assertIn("Nothing is proved: somebody has cleared its bitmap, or made it anew.",
                              self.captured("b", "a", proved=False))
                self.captured("a")

    def monitor(self, command, **arguments):
        told = self.virsh("qemu-monitor-command", self.name, json.dumps({"execute": command, "arguments": arguments}))
        return json.loads(told)["return"]

    def pair(self):
        """The node of the disk, and the names of its checkpoint's bitmap and of the twin."""
        for node in self.monitor("query-named-block-nodes"):
            names = [bitmap["name"] for bitmap in node.get("dirty-bitmaps", [])]
            found = [name for pattern in ("kestrix-[0-9a-f]{8}", "kestrix-twin-.*") for name in names
                     if re.fullmatch(pattern, name)]
            if found:
                self.assertEqual(len(found), 2, found)
                return node["node-name"], found
        return self.fail("no node has them")

    def test_a_job_of_somebody_else_is_waited_out_by_the_user(self):
        copy = os.path.join(self.folder, "copy")
        self.virsh("blockcopy", self.name, "vda", copy, "--transient-job", "--format", "raw")
        run = self.capture("a")
        self.assertEqual((run.status, run.err), (3, b"kestrix-vm: Another job runs on vda. Capture it when that has "
                                                 b"ended.\n"))
        self.virsh("blockjob", self.name, "vda", "--abort")
        self.captured("a")

    def test_bitmaps_outlive_a_shutdown_and_a_disk_that_was_cut_meanwhile_proves_nothing(self):
        self.captured("a")
        self.line.wait_until_it_writes()
        self.shut_off()
        self.begin()
        self.line.wait_until_it_writes()
        self.captured("b", "a")
        self.shut_off()
        self.must("qemu-img", "resize", "-q", "--shrink", self.disk, str(SIZE - 2 * MIB))
        self.must("qemu-img", "resize", "-q", self.disk, str(SIZE))
        self.begin()
        self.assertIn("Nothing is proved: the disk was resized.", self.captured("c", "b", proved=False))
        self.captured("d", "c")

    def shut_off(self):
        self.virsh("suspend", self.name)
        # QEMU may be gone before libvirt has its answer.
        system("virsh", "--connect", URI, "qemu-monitor-command", self.name, '{"execute": "quit"}')
        self.wait_until_off()
