"""A whole machine: QEMU without the processor's help, disks in files, the first serial line as the terminal.

A machine is a context manager: it is on inside of the with, and nothing of it is left behind it.
"""
import json
import os
import re
import select
import shutil
import socket
import subprocess
import tempfile
import time

FIRMWARE = "/usr/share/OVMF"
# Digests without the vectors that are slow to emulate: a variable of the cryptography library, of speed alone.
PLAIN_DIGESTS = "OPENSSL_ia32cap=~0x1000020000000000:~0x20000120"
PROMPT = r"root@[^\n]*# $"
# A core that others use as well, and no help of the processor's: what takes a second elsewhere may take half a minute.
PATIENCE = float(os.environ.get("KESTRIX_MACHINE_PATIENCE", "1"))


class Disk:
    """A disk of a machine: a file, or any node of QEMU's block layer, and what it is plugged in as."""

    def __init__(self, path, kind="virtio", serial="", sector=512, boots=None, name=None, writable=True):
        self.path = path
        self.kind = kind      # virtio, sata, nvme, usb, scsi, cd or floppy
        self.serial = serial
        self.sector = sector
        self.boots = boots    # its place in the order of what is started from
        self.name = name
        self.writable = writable

    def node(self):
        """The block device, as QEMU's options have it."""
        read_only = "off" if self.writable and self.kind != "cd" else "on"
        return {"driver": "raw", "node-name": self.name, "read-only": read_only == "on",
                "file": {"driver": "file", "filename": self.path, "locking": "off", "read-only": read_only == "on"}}

    def device(self, by_firmware, port):
        options = {"virtio": "virtio-blk-pci", "sata": f"ide-hd,bus=ide.{port}", "nvme": "nvme",
                   "usb": "usb-storage,bus=xhci.0",
                   "scsi": "scsi-hd,bus=scsi.0", "cd": f"ide-cd,bus=ide.{port}",
                   "floppy": "floppy,bus=controller.0"}[self.kind]
        options += f",drive={self.name},id=dev-{self.name}"
        if self.serial:
            options += f",serial={self.serial}"
        if self.sector != 512:
            options += f",logical_block_size={self.sector},physical_block_size={self.sector}"
        if self.boots is not None and by_firmware:
            options += f",bootindex={self.boots}"
        return options


class Machine:
    """boots: bios, uefi, secure (UEFI with Secure Boot), or (kernel, initrd, options) for none of them."""

    def __init__(self, log, disks, boots="bios", *, memory=1024, variables=None, network=False, processors=2):
        self.log = log
        self.disks = disks
        self.boots = boots
        self.memory = memory
        self.variables = variables  # a file that outlives the machine: the settings of its mainboard
        self.network = network      # the host's own services are at 10.0.2.2
        self.processors = processors
        self.text = ""              # what the terminal said since the last thing that was waited for
        self.folder = self.process = self.terminal = self.control = self.log_file = None

    # ---- On and off ----

    def _firmware(self):
        if self.boots == "bios":
            return []
        if isinstance(self.boots, tuple):
            kernel, initrd, options = self.boots
            return ["-kernel", kernel, "-initrd", initrd, "-append", options]
        kind = ".ms" if self.boots == "secure" else ""
        variables = self.variables or os.path.join(self.folder, "variables")
        if not os.path.exists(variables):
            shutil.copy(f"{FIRMWARE}/OVMF_VARS_4M{kind}.fd", variables)
        options = ["-drive", f"if=pflash,unit=0,format=raw,readonly=on,file={FIRMWARE}/OVMF_CODE_4M{kind}.fd",
                   "-drive", f"if=pflash,unit=1,format=raw,file={variables}"]
        if self.boots == "secure":
            options += ["-global", "driver=cfi.pflash01,property=secure,value=on"]
        return options

    def _command(self):
        system = "q35,smm=on" if self.boots == "secure" else "q35"
        # A machine doesn't outlive who rehearses, however that ended.
        command = ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-nodefaults", "-no-user-config",
                   "-machine", system,
                   "-accel", "tcg,thread=multi", "-cpu", "max", "-smp", str(self.processors),
                   "-m", str(self.memory),
                   "-display", "none", "-vga", "std", "-no-reboot", "-name", "kestrix-rehearsal",
                   "-chardev", f"socket,id=line,path={self.folder}/line,server=on,wait=off", "-serial", "chardev:line",
                   "-chardev", f"socket,id=control,path={self.folder}/control,server=on,wait=off",
                   "-mon", "chardev=control,mode=control", *self._firmware()]
        if self.network:  # before those that take the next place that is free
            command += ["-netdev", "user,id=network", "-device", "virtio-net-pci,netdev=network,addr=0x3"]
        command += ["-device", "qemu-xhci,id=xhci", "-device", "virtio-scsi-pci,id=scsi"]
        ports = 0
        for number, disk in enumerate(self.disks):
            disk.name = disk.name or f"disk{number}"
            if disk.kind == "floppy":
                command += ["-device", "isa-fdc,id=controller"]
            command += ["-blockdev", json.dumps(disk.node()), "-device",
                        disk.device(not isinstance(self.boots, tuple), ports)]
            ports += disk.kind in ("sata", "cd")
        return command

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="kestrix-machine-")
        os.makedirs(os.path.dirname(self.log), exist_ok=True)
        self.log_file = open(self.log, "ab")  # pylint: disable=consider-using-with
        try:
            self.process = subprocess.Popen(  # pylint: disable=consider-using-with
                self._command(), stdin=subprocess.DEVNULL, stdout=self.log_file, stderr=self.log_file)
            self.terminal = self._connect("line")
            self.control = self._connect("control").makefile("rw", encoding="utf-8")
            self.control.readline()
            self.tell("qmp_capabilities")
        except BaseException:
            self._close()
            raise
        return self

    def __exit__(self, *_):
        self._close()

    def _connect(self, name):
        deadline = time.monotonic() + 30
        while True:
            line = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                line.connect(os.path.join(self.folder, name))
                return line
            except OSError:
                line.close()
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise AssertionError(f"QEMU did not begin: see {self.log}") from None
                time.sleep(0.05)

    def _close(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
        if self.process:
            self.process.wait()
        for line in (self.terminal, self.control, self.log_file):
            if line:
                line.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def cut_power(self):
        self.process.kill()
        self.process.wait()

    def wait_until_off(self, seconds=120):
        """The machine was told to go off, or to start anew, which is off too."""
        deadline = time.monotonic() + seconds * PATIENCE
        while self.process.poll() is None:
            assert time.monotonic() < deadline, f"the machine is still on: {self.text[-2000:]}"
            self._listen(0.2)

    def tell(self, command, **arguments):
        """A command of QEMU's own, and its answer."""
        self.control.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.control.flush()
        while True:
            answer = json.loads(self.control.readline())
            if "error" in answer:
                raise AssertionError(f"{command}: {answer['error']}")
            if "return" in answer:
                return answer["return"]

    # ---- The terminal ----

    def _listen(self, seconds):
        if not select.select([self.terminal], [], [], seconds)[0]:
            return
        said = self.terminal.recv(65536)
        if not said:
            time.sleep(min(seconds, 0.05))
            return
        self.log_file.write(said)
        self.log_file.flush()
        # What moves the cursor about or colours is for eyes.
        self.text += said.decode("utf-8", "replace")
        self.text = re.sub("\x1b(\\[[0-9;?=]*[a-zA-Z]|[()][0-9A-Za-z]|[=>c])", "", self.text).replace("\r\n", "\n")

    def expect(self, *patterns, seconds=60):
        """Waits until one of the patterns stands in what the terminal says; gives the match, whose re tells which."""
        deadline = time.monotonic() + seconds * PATIENCE
        while True:
            for pattern in patterns:
                match = re.search(pattern, self.text, re.MULTILINE)
                if match:
                    self.text = self.text[match.end():]
                    return match
            if time.monotonic() > deadline or (self.process.poll() is not None and not self._rest()):
                raise AssertionError(f"none of {patterns} came; the last that did:\n{self.text[-3000:]}")
            self._listen(0.2)

    def _rest(self):
        before = len(self.text)
        try:
            self._listen(0.2)
        except OSError:
            return False
        return len(self.text) != before

    def type(self, text):
        """As a person would, with the key that ends a line."""
        self.terminal.sendall(text.encode() + b"\r")

    def run(self, command, seconds=60, status=0):
        """Runs a command in the shell; gives what it printed. status None takes any."""
        # What is typed is shown too, and must not look like the end.
        self.text = ""
        end = "; printf '\\n~%d~\\n' $?"
        self.type(command + end)
        self.expect(re.escape(end), seconds=seconds)
        match = self.expect(r"((?:.|\n)*)\n~(\d+)~", seconds=seconds)
        printed, ended = match[1].strip("\n"), int(match[2])
        self.expect("[#$] $", seconds=seconds)
        assert status is None or ended == status, f"{command}: exit status {ended}\n{printed}"
        return printed
