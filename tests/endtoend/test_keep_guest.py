"""kestrix-keep's jobs of virtual machines: it asks kestrix-vm for the guest's disk and has it captured by that. In the
place of kestrix-vm stands a program that does as told, but for one pair of nights."""
import json
import os
import random
import shutil
import stat
import sys
import unittest

from guest_disks import DOMAIN, KESTRIX_VM, GuestTest, why_no_guests
from harness import MIB
from keep_job import DAY, DISK, NAME, NOW, JobTest
from keep_machine import COMMAND_LINE, FAILED, WELL

GUEST = "libvirt:qemu:///system/win2022/vda"
STAND_IN = f"""#!{sys.executable} -I
import json, os, subprocess, sys
here = os.path.dirname(os.path.abspath(sys.argv[0]))
with open(here + "/asked", "a") as file:
    file.write(json.dumps(sys.argv[1:]) + "\\n")
with open(here + "/told.json") as file:
    told = json.load(file)
if told["fault"] and sys.argv[1] == told["fails"]:
    sys.exit("kestrix-vm: " + told["fault"])
if sys.argv[1] == "disks":
    print(json.dumps(told["disks"]))
else:
    print("Not frozen: no guest agent answers. The image is what a power cut would leave.", flush=True)
    options = sys.argv[sys.argv.index("--out"):]
    sys.exit(subprocess.run([here + "/kestrix", "capture", "--disk", "1", *options]).returncode)
"""


class Guests(JobTest):
    def setUp(self):
        super().setUp()
        self.configure()
        self.stand_in = os.path.join(self.folder, "kestrix-vm")
        with open(self.stand_in, "w", encoding="ascii") as file:
            file.write(STAND_IN)
        os.chmod(self.stand_in, 0o755)
        self.modules = os.path.join(self.folder, "kestrix_vm")
        os.mkdir(self.modules, 0o755)
        for name in ("capture.py", "disks.py"):
            self.module(self.modules, name)
        self.tell()

    def module(self, folder, name, mode=0o644):
        path = os.path.join(folder, name)
        with open(path, "w", encoding="ascii"):
            pass
        os.chmod(path, mode)
        return path

    def configure(self, more="", machine=GUEST):
        self.configuration = os.path.join(self.folder, "keep.toml")
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(f'[job.job]\nmachine = "{machine}"\nfolder = "{self.place}"\n{more}\n')
        os.chmod(self.configuration, 0o600)

    def tell(self, fault=None, fails="disks", **changes):
        disk = {"domain": "win2022", "disk": "vda", "file": "/images/win.qcow2", "format": "qcow2", "size": len(DISK),
                "sectorSize": 512, "refused": None, **changes}
        with open(os.path.join(self.folder, "told.json"), "w", encoding="utf-8") as file:
            json.dump({"disks": [{**disk, "domain": "other"}, disk], "fault": fault, "fails": fails}, file)

    def asked(self):
        with open(os.path.join(self.folder, "asked"), encoding="utf-8") as file:
            return [json.loads(line) for line in file]

    def failed(self, words):
        status, report = self.backup()
        self.assertEqual((status, self.image_names()), (FAILED, []))
        self.assertRegex(report["failure"], words)

    def test_its_images_are_made_by_the_same_rules_and_name_guest_and_disk(self):
        self.well()
        second = self.well(NOW + DAY)
        for name, base in ((NAME, ""), (second, NAME)):
            sidecar = self.sidecar(name)
            self.assertEqual((sidecar["disk"]["serial"], sidecar["disk"]["sizeBytes"], sidecar["base"]),
                             ("win2022/vda", len(DISK), base))
            self.assertTrue(sidecar["isSound"])
            self.assertIn("Not frozen: no guest agent answers", sidecar["notes"][0])
        way = ["--connect", "qemu:///system"]
        captures = [words for words in self.asked() if words[0] == "capture"]
        self.assertEqual(self.asked()[0], ["disks", "--json", *way])
        self.assertEqual([words[:6] for words in captures], [["capture", "win2022", "vda", *way, "--out"]] * 2)
        self.assertEqual(captures[1][7:], ["--base", self.place_path(NAME), "--thin"])
        run = self.keep("status", "--now", str(NOW + DAY), "--config", self.configuration)
        self.assertIn(b"job: well\n  disk: win2022/vda\n", run.out)

    def test_a_bare_qmp_socket_is_another_way_to_it(self):
        self.configure(machine="qmp:/run/win.sock/win2022/vda")
        self.well()
        self.assertEqual([words[3:5] for words in self.asked() if words[0] == "capture"], [["--qmp", "/run/win.sock"]])

    def test_images_are_sealed_with_the_jobs_password(self):
        self.configure(self.password("secret"))
        self.assertTrue(self.sidecar(self.well())["isSealed"])

    def test_a_disk_that_is_not_there_is_told_with_those_that_are(self):
        self.configure(machine="libvirt:qemu:///system/win2022/vdz")
        self.failed("^there is no disk win2022/vdz; there are: other/vda, win2022/vda$")

    def test_what_kestrix_vm_refuses_is_told_in_its_words(self):
        self.tell(refused="vda has sectors of 4096 bytes.")
        self.failed("^win2022/vda: vda has sectors of 4096 bytes.$")
        self.tell(fault="there is no libvirt")
        self.failed("does not tell the disks of win2022: kestrix-vm: there is no libvirt$")
        self.tell(fault="The guest is being migrated.", fails="capture")
        self.failed("^kestrix-vm ended with exit status 1: kestrix-vm: The guest is being migrated.$")

    def test_another_size_makes_the_next_image_full(self):
        self.well()
        self.tell(size=len(DISK) + 512)
        _, report = self.backup(NOW + DAY)
        self.assertIn("the disk is another: it has", "".join(report["lines"]))

    def test_a_program_that_others_can_change_is_not_run(self):
        os.chmod(self.stand_in, 0o777)
        self.failed("kestrix-vm is not run: ")

    def not_run(self, path, mode):
        """Not while it has that mode, but as soon as it has its own again."""
        usual = stat.S_IMODE(os.stat(path).st_mode)
        os.chmod(path, mode)
        self.failed(f"kestrix-vm is not run: .* can change (the folder )?{path}: chmod go-w {path}$")
        os.chmod(path, usual)

    def test_modules_that_others_can_change_or_add_to_are_not_run(self):
        self.not_run(os.path.join(self.modules, "disks.py"), 0o646)
        self.not_run(os.path.join(self.modules, "capture.py"), 0o664)
        self.not_run(self.modules, 0o757)
        self.not_run(self.modules, 0o1777)
        deeper = os.path.join(self.modules, "__pycache__")
        os.mkdir(deeper, 0o755)
        self.not_run(deeper, 0o777)
        self.not_run(self.module(deeper, "disks.cpython-311.pyc"), 0o666)
        elsewhere = self.module(self.folder, "elsewhere.py")
        os.symlink(elsewhere, os.path.join(self.modules, "linked.py"))
        self.not_run(elsewhere, 0o666)
        self.well()

    def test_the_modules_of_an_installed_kestrix_vm_count_the_same(self):
        programs, shared = (os.path.join(self.folder, "usr", *names) for names in (["bin"], ["share", "kestrix-vm"]))
        os.makedirs(programs)
        os.makedirs(shared)
        shutil.move(self.stand_in, programs)
        os.symlink(os.path.join(programs, "kestrix-vm"), self.stand_in)
        shutil.move(self.modules, shared)
        self.not_run(os.path.join(shared, "kestrix_vm", "disks.py"), 0o666)
        self.not_run(shared, 0o777)
        self.well()

    def test_modules_that_are_not_there_are_told(self):
        shutil.rmtree(self.modules)
        self.failed("kestrix-vm is not run: .*/share.* can't be looked at: No such file or directory$")

    def test_a_program_that_is_not_there_is_told(self):
        os.unlink(self.stand_in)
        self.failed("kestrix-vm is not run: |kestrix-vm can't be looked at")

    def test_a_place_that_is_none_is_a_fault_of_the_configuration(self):
        for machine in ("win2022/vda", "libvirt:win2022", "libvirt:win2022/vda", "qmp:win.sock/win2022/vda",
                        "libvirt:qemu:///system/win2022/", "libvirt:qemu:///system//vda",
                        "libvirt:qemu:///system/-x/vda", "libvirt:qemu:///system/win2022/-x"):
            with self.subTest(machine=machine):
                self.configure(machine=machine)
                run = self.keep("backup", "--config", self.configuration)
                self.assertEqual(run.status, COMMAND_LINE)
                self.assertRegex(run.err, b'keep.toml:2: job.job.machine: "libvirt:URI/DOMAIN/DISK" or ')

    def test_one_disk_is_all_that_a_job_images(self):
        self.configure('disk = "serial:SERIAL1"')
        run = self.keep("backup", "--config", self.configuration)
        self.assertEqual(run.status, COMMAND_LINE)
        self.assertRegex(run.err, b"keep.toml:4: job.job.disk: the job has machine already")
        self.configure("snapshots = true")
        run = self.keep("backup", "--config", self.configuration)
        self.assertEqual(run.status, COMMAND_LINE)
        self.assertRegex(run.err, b"keep.toml:4: job.job.snapshots: .*its own agent")

    def test_its_service_is_not_confined_from_what_kestrix_vm_needs(self):
        run = self.keep("schedule", "job", "--daily", "05:00", "--print", "--config", self.configuration)
        self.assertEqual(run.status, WELL, run)
        self.assertIn(b"# Other programs have a part in the job.", run.out)
        self.assertNotIn(b"ProtectSystem", run.out)


@unittest.skipIf(why_no_guests(), why_no_guests())
class RealGuests(JobTest, GuestTest):
    """With kestrix-vm itself, and a storage daemon's disk."""

    def setUp(self):
        super().setUp()
        # Its modules as it finds them beside itself, its state in the test's own folder.
        shutil.copytree(os.path.join(os.path.dirname(KESTRIX_VM), "kestrix_vm"),
                        os.path.join(self.folder, "kestrix_vm"), ignore=shutil.ignore_patterns("__pycache__"))
        shutil.copy(KESTRIX_VM, os.path.join(self.folder, "real"))
        stand_in = os.path.join(self.folder, "kestrix-vm")
        with open(stand_in, "w", encoding="ascii") as file:
            file.write(f'#!/bin/sh\nexec {self.folder}/real "$@" --state {self.state}\n')
        os.chmod(stand_in, 0o755)

    def configure(self, more="", **_):
        super().configure(more)
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(f'[job.job]\nmachine = "qmp:{self.qmp}/{DOMAIN}/vda"\nfolder = "{self.place}"\n{more}\n')

    def test_the_second_night_is_thin_and_proved(self):
        self.write(0, random.Random(1).randbytes(self.size))
        first = self.well()
        self.check_holds(self.place_path(first), self.content)
        self.check_nothing_left()
        self.write(9 * MIB, b"the second day")
        status, report = self.backup(NOW + DAY)
        self.assertEqual((status, report["failure"]), (WELL, None), report)
        second = report["image"]
        self.check_holds(self.place_path(second), self.content)
        self.check_nothing_left()
        for name, base in ((first, ""), (second, first)):
            told = self.sidecar(name)
            self.assertEqual((told["disk"]["serial"], told["disk"]["sizeBytes"], told["disk"]["model"], told["base"],
                              told["isSound"]),
                             (f"{DOMAIN}/vda", self.size, "disk of a virtual machine", base, True))
        text = "".join(report["lines"])
        self.assertRegex(text, "vda of server: .* Changed since the image of epoch [0-9A-F]+: 1 blocks of 64 KiB")
        self.assertIn("matches tracker; unchanged chunks", text)
        self.assertIn("read from disk: 1)", text)
