"""The machine that `kestrix` sees: a folder with the program and `devices` beside it, in which the guest's disk is
PhysicalDrive1. A file of the disk is made by nbdfuse."""
import errno
import os
import shutil
import signal
import stat
import subprocess
import sys
import time

from .fault import Fault, NotBegun

NUMBER = 1  # of the guest's disk; disk 0 is a small one that has the volume C:
MOUNT_PATIENCE = 20  # seconds


def find_kestrix(named):
    """The program: the one that was named, or that lies beside this one, or that the system finds."""
    beside = os.path.join(os.path.dirname(os.path.abspath(sys.argv[0])), "kestrix")
    found = named or (beside if os.access(beside, os.X_OK) else shutil.which("kestrix"))
    if not found or not os.path.isfile(found) or not os.access(found, os.X_OK):
        raise NotBegun(f"There is no program {named or 'kestrix'}; --kestrix PATH names it.")
    return found


def refuse_noexec(folder):
    if os.statvfs(folder).f_flag & os.ST_NOEXEC:
        raise NotBegun(f"{folder} lies on a file system from which no program may be started (noexec): choose another "
                       "folder with --state.")


class Machine:
    """The folder of one disk. What was begun is ended by close, also where the making failed."""

    def __init__(self, folder, kestrix):
        self.folder, self.fuse, self.child = folder, None, None
        self.devices = os.path.join(folder, "devices")
        self.mountpoint = os.path.join(folder, "disk")
        self.program = os.path.join(folder, "kestrix")
        os.makedirs(self.devices, mode=0o700)
        os.mkdir(self.mountpoint)
        # The program takes the folder in which it really lies for its machine: a link would lead away from here.
        shutil.copy(kestrix, self.program)
        with open(os.path.join(self.devices, "PhysicalDrive0"), "wb") as file:
            file.truncate(512)
        os.symlink("PhysicalDrive0", os.path.join(self.devices, "C:"))
        os.symlink("../disk/nbd", os.path.join(self.devices, f"PhysicalDrive{NUMBER}"))

    def tracker_path(self):
        path = os.path.join(self.devices, "Tallier")
        if len(os.fsencode(path)) > 107:
            raise NotBegun(f"The name of the socket {path} is too long for the system: choose another --state.")
        return path

    def mount(self, uri, size):
        """Makes a file of the export, which must be of that size."""
        log = os.path.join(self.folder, "nbdfuse.log")
        try:
            with open(log, "wb") as output:
                # Killed with this process it would leave a mount that answers nobody; told to end it takes it away.
                self.fuse = subprocess.Popen(
                    ["setpriv", "--pdeathsig", "TERM", "nbdfuse", "--readonly", self.mountpoint + "/nbd", uri],
                    stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True)
        except OSError as error:
            raise NotBegun(f"nbdfuse can't be started: {error.strerror}.") from None
        end = time.monotonic() + MOUNT_PATIENCE
        while not os.path.ismount(self.mountpoint):
            if self.fuse.poll() is not None or time.monotonic() > end:
                with open(log, encoding="utf-8", errors="replace") as file:
                    told = " ".join(file.read().split())
                raise NotBegun(f"nbdfuse makes no file of the view: {told or 'it tells no reason'}.")
            time.sleep(0.01)
        found = os.stat(self.mountpoint + "/nbd")
        if not stat.S_ISREG(found.st_mode) or found.st_size != size:
            raise NotBegun(f"nbdfuse shows a disk of {found.st_size} bytes, not {size}.")

    def start(self, arguments):
        """Starts `kestrix capture` on the disk. It dies with this process: what the tracker knows does, too."""
        command = ["setpriv", "--pdeathsig", "KILL", self.program, "capture", "--disk", str(NUMBER), *arguments]
        try:
            self.child = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        except OSError as error:
            raise NotBegun(f"kestrix can't be started: {error.strerror}.") from None

    def kill(self):
        if self.child and self.child.poll() is None:
            self.child.kill()
            self.child.wait()

    def close(self):
        """Raises where the mount stays, after everything else."""
        self.kill()
        if self.fuse is None:
            return
        unmount(self.mountpoint)
        try:
            self.fuse.wait(5)
        except subprocess.TimeoutExpired:
            self.fuse.send_signal(signal.SIGKILL)
            self.fuse.wait()
        if is_mounted(self.mountpoint):
            raise Fault(f"{self.mountpoint} stays mounted: unmount it.")


def unmount(folder):
    """Unmounts it if it is mounted; where somebody looks into it, it goes when he has left."""
    for more in ([], ["-z"]):
        if is_mounted(folder):
            subprocess.run(["fusermount3", "-u", *more, folder], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           check=False)


def is_mounted(folder):
    """Also where its server is gone, so that nobody can look into it."""
    try:
        os.lstat(folder)
    except OSError as error:
        return error.errno == errno.ENOTCONN
    return os.path.ismount(folder)


def unmount_run(folder):
    """What a killed run left mounted below its folder."""
    for name in os.listdir(folder):
        unmount(os.path.join(folder, name, "disk"))
