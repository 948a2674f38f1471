"""One job of a year, its disk, its folder and its change tracker, as the test knows them."""
import json
import os
import struct
import subprocess

import kestrix_image
from change_tracker import ChangeTracker
from keep_year_copies import Copies, marks_of

FULL_EVERY, THIN_PERCENT, CHAIN = 30 * 86400, 80, 20  # seconds; when the next image is a full one
DISK_BYTES = (4 << 20) + (128 << 10)  # two chunks, the second one short
FILE_NOT_FOUND = 2


class Tracker(ChangeTracker):
    """Watches the disk of one job, whatever its number is, and is attached to no other."""

    def __init__(self, path, job):
        self.job = job
        super().__init__(path)
        self.remember(None, 0x100, b"\xFF")

    def answer(self, code, request, outputLength):
        if struct.unpack_from("<I", request)[0] != self.job.number:
            return FILE_NOT_FOUND, b""
        return super().answer(code, request, outputLength)

    def restart(self):
        """With the machine: it forgets all but which epochs were given out."""
        self.remember(None, self.next_epoch(), b"\xFF")


class JobModel:
    """One job, its disk and its folder, as the test knows them."""

    def __init__(self, year, name, number, scheme, keep, hasCopies):
        self.year, self.name, self.number, self.scheme, self.keep = year, name, number, scheme, keep
        self.tracker = None
        self.copies = Copies(year.folder, name) if hasCopies else None
        self.serial = f"SERIAL-{name}"
        self.content = bytearray(kestrix_image.seeded_disk(DISK_BYTES, number))
        self.place = os.path.join(year.folder, f"place-{name}")   # the file system of the backup disk
        self.folder = os.path.join(year.folder, f"folder-{name}")  # a link to it
        self.elsewhere = os.path.join(year.folder, f"elsewhere-{name}")
        self.disks = {}       # image name: the bytes of the disk of its night
        self.verified = {}    # image name: what stat said when it was compared
        self.spoiled = {}     # image name: its last proof when it was damaged on purpose; None: it was removed
        self.headless = set()  # those of them whose header, table or trailer was
        self.uncommitted = set()  # images that the tracker took no note of
        self.gone = set()     # names that were removed on purpose
        self.report = {"lines": []}  # of this night's last run
        self.seen = set()     # image names that were there after the last night
        self.contents = []    # what the disk held at the start of each run of this night
        self.seconds = 0.1    # that the last good run took
        for folder in (self.place, self.elsewhere):
            os.mkdir(folder)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256m", f"kestrix-{name}", self.place], check=True)
        os.symlink(self.place, self.folder)
        for other in (f"{name}-notes.txt", f"{name}2-20260101T010000Z.kstx.in-the-making", f"{name}.kstx"):
            with open(self.path(other), "w", encoding="ascii") as file:
                file.write("not of this job\n")
        self.others = self.files_of_others()
        self.write_disk()

    def path(self, name):
        return os.path.join(self.place, name)

    def node(self, number=None):
        return os.path.join(self.year.devices, f"PhysicalDrive{self.number if number is None else number}")

    def write_disk(self):
        with open(self.node(), "wb") as file:
            file.write(self.content)
        with open(self.node() + ".json", "w", encoding="ascii") as file:
            json.dump({"model": "Model", "serial": self.serial}, file)

    def change_disk(self, chance):
        """A little each night, mostly in the short chunk, so that thin images stay small."""
        for _ in range(chance.randrange(3)):
            begin = chance.randrange(4 << 20, DISK_BYTES - 64) if chance.random() < 0.9 else chance.randrange(4 << 20)
            self.content[begin:begin + 16] = chance.randbytes(16)
            if self.tracker:
                self.tracker.mark(begin, 16)
        self.write_disk()

    def configuration(self):
        keep = ", ".join(f"{key} = {value}" for key, value in self.keep.items())
        return (f"[job.{self.name}]\ndisk = \"serial:{self.serial}\"\nfolder = \"{self.folder}\"\n"
                f"folder-must-be = \"source:kestrix-{self.name}\"\nbase = \"{self.scheme}\"\nkeep = {{ {keep} }}\n"
                f"new-full = {{ every = \"30d\", when-thin-exceeds = \"{THIN_PERCENT}%\", chain = {CHAIN} }}\n"
                f"check = {{ each = \"own\", whole-every = \"7d\" }}\n"
                f"{self.copies.configuration() if self.copies else ''}\n")

    # What lies in the folder

    def files_of_others(self):
        """What was put beside the images: names with what stat says of them."""
        others = [name for name in os.listdir(self.place) if name.startswith((f"{self.name}-notes", f"{self.name}2-"))]
        return {name: marks_of(self.path(name)) for name in [*others, f"{self.name}.kstx"]}

    def images(self):
        """Those under their final names. One whose sidecar is renamed is let go, though its end is still to come."""
        names = set(os.listdir(self.place))
        return sorted(name for name in names if name.startswith(self.name + "-2") and name.endswith(".kstx") and
                      name + ".json.let-go" not in names)

    def all_files(self):
        return {name: marks_of(self.path(name)) for name in os.listdir(self.place)}

    def sidecars(self):
        """Of all images that are there and have one."""
        sidecars = {name: self.sidecar(name) for name in self.images()}
        return {name: sidecar for name, sidecar in sidecars.items() if sidecar}

    def sidecar(self, name):
        try:
            with open(self.path(name + ".json"), encoding="utf-8") as file:
                return json.load(file)
        except FileNotFoundError:
            return None

    def chain(self, name):
        """Names of the image and of what it stands on, by the sidecars; None where one is gone."""
        chain = []
        while name:
            chain.append(name)
            if not os.path.exists(self.path(name)):
                return None
            sidecar = self.sidecar(name)
            name = sidecar["base"] if sidecar else None
        return chain

    def is_spoiled(self, name):
        """Whether it, or something that it stands on, was damaged or removed on purpose."""
        chain = self.chain(name)
        return chain is None or any(one in self.spoiled for one in chain)
