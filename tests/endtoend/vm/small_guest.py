"""A small Linux guest without the processor's help: this machine's kernel, busybox, the guest agent, and a file system
that is written all the time."""
import glob
import os
import re
import shutil
import subprocess
import tempfile
import time

import kestrix_image
from guest_disks import Monitor
from harness import MachineTest

MODULES = ["virtio_pci", "virtio_blk", "virtio_console", "crc32c_generic", "ext4"]
INIT = """#!/bin/busybox sh
/bin/busybox mkdir -p /proc /sys /dev /run /tmp /var/run /mnt
/bin/busybox --install -s /bin
mount -t proc none /proc
mount -t sysfs none /sys
mount -t devtmpfs none /dev
for module in $(cat /order); do insmod /modules/$module; done
until [ -b /dev/vda ]; do sleep 0.1; done
mount -t ext4 /dev/vda /mnt || echo FAILED
qemu-ga -m virtio-serial -p /dev/vport0p1 -t /run -f /run/qemu-ga.pid -d
echo READY
i=0
while true; do
    i=$((i + 1))
    head -c 30000 /dev/urandom >/mnt/file$((i % 20)) || echo FAILED
    mkdir -p /mnt/folder$((i % 7))
    echo $i >/mnt/folder$((i % 7))/count
    [ $((i % 5)) -ne 0 ] || sync
    [ $((i % 50)) -ne 0 ] || echo WROTE $i
    [ ! -e /mnt/stop ] || sleep 1
done
"""


def why_no_guest():
    for program in ("qemu-system-x86_64", "qemu-ga", "busybox", "cpio", "mke2fs", "fsck.ext4", "setpriv"):
        if not shutil.which(program):
            return f"{program} is missing"
    return None if glob.glob("/boot/vmlinuz-*") else "there is no kernel to start"


def kernel():
    return max(glob.glob("/boot/vmlinuz-*"))


def modules(version):
    """The modules' files, each behind those that it needs."""
    found = []
    for module in MODULES:
        done = subprocess.run(["modprobe", "-S", version, "--show-depends", module], stdout=subprocess.PIPE, text=True,
                              check=True)
        found += [line.split()[1] for line in done.stdout.splitlines() if line.startswith("insmod ")]
    return list(dict.fromkeys(found))


def make_initrd(folder):
    tree = os.path.join(folder, "tree")
    os.makedirs(os.path.join(tree, "bin"))
    os.makedirs(os.path.join(tree, "modules"))
    shutil.copy(shutil.which("busybox"), os.path.join(tree, "bin"))
    version = os.path.basename(kernel()).partition("-")[2]
    names = []
    for path in modules(version):
        shutil.copy(path, os.path.join(tree, "modules"))
        names.append(os.path.basename(path))
    program = shutil.which("qemu-ga")
    shutil.copy(program, os.path.join(tree, "bin"))
    told = subprocess.run(["ldd", program], stdout=subprocess.PIPE, text=True, check=True).stdout
    for path in re.findall(r"(/\S+) \(0x", told):
        os.makedirs(tree + os.path.dirname(path), exist_ok=True)
        shutil.copy(path, tree + path)
    for name, text, mode in (("order", "\n".join(names), 0o644), ("init", INIT, 0o755)):
        with open(os.path.join(tree, name), "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(os.path.join(tree, name), mode)
    initrd = os.path.join(folder, "initrd")
    subprocess.run(f"cd '{tree}' && find . | cpio --quiet -o -H newc >'{initrd}'", shell=True, check=True)
    return initrd


def make_disk(folder, size):
    raw = os.path.join(folder, "raw")
    disk = os.path.join(folder, "disk.qcow2")
    with open(raw, "wb") as file:
        file.truncate(size)
    subprocess.run(["mke2fs", "-q", "-t", "ext4", raw], check=True)
    subprocess.run(["qemu-img", "convert", "-f", "raw", "-O", "qcow2", raw, disk], check=True)
    os.unlink(raw)
    return disk


class WholeGuestTest(MachineTest):
    """A test that starts small guests, all of them from one `self.initrd`."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        shared = tempfile.TemporaryDirectory(prefix="kestrix-guest-")
        cls.addClassCleanup(shared.cleanup)
        cls.initrd = make_initrd(shared.name)


class Line:
    """The serial line of a small guest, in a file; a test may know that nothing comes any more."""

    def __init__(self, path, hasEnded=lambda: False):
        self.line, self.hasEnded = path, hasEnded
        with open(path, "wb"):
            pass

    def said(self):
        with open(self.line, encoding="utf-8", errors="replace") as file:
            return file.read()

    def wait_for(self, text, seconds=120):
        end = time.monotonic() + seconds
        while text not in self.said():
            assert not self.hasEnded(), "QEMU has ended"
            assert time.monotonic() < end, f"{text} did not come: {self.said()[-2000:]}"
            time.sleep(0.1)

    def count(self):
        return len(re.findall("WROTE", self.said()))

    def wait_until_it_writes(self):
        """That it goes on, and without errors."""
        seen, end = self.count(), time.monotonic() + 60
        while self.count() < seen + 2:
            assert time.monotonic() < end, "the guest writes no more"
            time.sleep(0.1)
        assert "FAILED" not in self.said(), self.said()[-2000:]


class SmallGuest(Line):
    """On from the with on; `options` are further ones of QEMU."""

    def __init__(self, folder, disk, initrd, *options):
        super().__init__(os.path.join(folder, "line"), lambda: self.process.poll() is not None)
        self.folder, self.disk, self.initrd, self.options = folder, disk, initrd, options
        self.qmp, self.agent = os.path.join(folder, "qmp"), os.path.join(folder, "agent")
        self.other = os.path.join(folder, "qmp2")  # a monitor for the test beside that of kestrix-vm
        self.process = None

    def __enter__(self):
        command = ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-nodefaults", "-no-user-config",
                   "-name", "small", "-machine", "q35", "-accel", "tcg", "-m", "256", "-display", "none",
                   "-kernel", kernel(), "-initrd", self.initrd, "-append", "console=ttyS0 quiet panic=1",
                   "-chardev", f"file,id=line,path={self.line}", "-serial", "chardev:line",
                   "-qmp", f"unix:{self.qmp},server=on,wait=off", "-qmp", f"unix:{self.other},server=on,wait=off",
                   "-chardev", f"socket,id=ga,path={self.agent},server=on,wait=off", "-device", "virtio-serial",
                   "-device", "virtserialport,chardev=ga,name=org.qemu.guest_agent.0",
                   "-blockdev", f"file,node-name=file0,filename={self.disk}",
                   "-blockdev", "qcow2,node-name=node0,file=file0,discard=unmap",
                   "-device", "virtio-blk-pci,drive=node0,id=disk0", *self.options]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        try:
            self.wait_for("READY")
        except BaseException:
            self.process.kill()
            self.process.wait()
            raise
        return self

    def __exit__(self, *_):
        self.end()

    def end(self, clean=False):
        if self.process.poll() is None:
            if clean:
                with Monitor(self.other) as monitor:
                    monitor.do("quit")
            else:
                self.process.kill()
        self.process.wait()


def file_system_of(image, folder):
    """The disk in an image as a file."""
    path = os.path.join(folder, "read-back")
    with open(path, "wb") as file:
        file.write(kestrix_image.read_image(image).disk())
    return path
