"""A night of kestrix-keep backup beside kestrix capture of the same kind of image, into a folder on the same disk.

A night reads back from the medium what it wrote, which capture doesn't: where that is more than a few sectors, capture
followed by the check of kestrix-image and a digest of the file is measured too, which is what a night can't do without.
"""
import os
import shutil
from dataclasses import dataclass

from commands import SOURCE
from machine import Contender

PROGRAM, CAPTURE, CHECKED = "kestrix-keep backup", "kestrix capture", "capture, check and digest"
FOLDER = "nights"
JOB = "night"


@dataclass
class Row:
    name: str
    hasBase: bool  # the full image of the same disk, which the first night made
    isChecked: bool  # beside a capture that is checked, too


ROWS = [Row("nothing changed since the full image", True, False), Row("a full image", False, True)]


def configure(machine):
    for name in ("kestrix-keep", "kestrix-image"):
        shutil.copy2(os.path.join(machine.build, name), machine.folder)
    path = machine.path("keep.toml")
    with open(path, "w", encoding="ascii") as file:
        file.write(f'[job.{JOB}]\ndisk = {SOURCE}\nfolder = "{machine.path(FOLDER)}"\nkeep = {{ last = 3 }}\n')
    os.chmod(path, 0o600)
    return [os.path.join(machine.folder, "kestrix-keep"), "backup", "--config", path]


def contenders(machine, row, backup, base):
    """prepare: the folder as it was behind the first night, or without any image."""
    fill = f"cp -al first {FOLDER}" if row.hasBase else f"mkdir {FOLDER}"
    prepare = ["sh", "-c", f"rm -rf {FOLDER} && {fill}"]
    capture = f"{machine.kestrix} capture --disk {SOURCE} --out {FOLDER}/out"
    capture += f" --base {FOLDER}/{base} --thin" * row.hasBase
    said = "a thin image on " if row.hasBase else "a full image, since it is the first"
    found = {PROGRAM: Contender(backup, (FOLDER,), prepare, machine.log_holds(said)),
             CAPTURE: Contender(capture.split(), (FOLDER,), prepare)}
    if row.isChecked:
        command = f"{capture} && {machine.folder}/kestrix-image check {FOLDER}/out && openssl sha256 {FOLDER}/out"
        found[CHECKED] = Contender(["sh", "-c", command], (FOLDER,), prepare)
    return found


def measure(machine, rounds):
    """One record for each run of each row, cold, on a loop device."""
    backup = configure(machine)
    os.mkdir(machine.path(FOLDER))
    machine.must(*backup)
    base, = [name for name in os.listdir(machine.path(FOLDER)) if name.endswith(".kstx")]
    os.rename(machine.path(FOLDER), machine.path("first"))
    records = []
    for row in ROWS:
        records += machine.compare(contenders(machine, row, backup, base), rounds, {"row": row.name}, "cold")
    return records
