"""A machine to restore on with kestrix-keep: its disks, its images, the questions, and both ways to run it."""
import json
import os

import kestrix_image
from harness import KIB
from keep_machine import FAILED, WELL, KeepMachineTest
from keep_nights import sidecar_of
from terminal import Talk

DISK = kestrix_image.seeded_disk(64 * KIB, 5)
OLD = kestrix_image.seeded_disk(len(DISK), 6)  # what a target holds before
CHUNK = 4096
MADE_AT = 1795312805

FOLDER = "In which folder, or rclone:REMOTE:PATH, do the images lie\\?"
IMAGE = "Which image is to be restored\\? [^\n]*:"
PASSWORD = "Its password \\(it is not shown\\):"
AUDIT = "Is the image to be checked first\\? 1 or 2:"
TARGET = 'Which disk is to be overwritten\\? Its number, or "again" to list the disks anew:'
SERIAL = "type the last [0-9]+ characters of its serial:"
SIZE = "type its size in bytes:"
MOVE = "Is it to be moved\\? 1 or 2:"
NOTHING = "Nothing was written."


class RestoreTest(KeepMachineTest):
    """A machine with a system disk, disk 0, and a target, disk 1."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.disk(1, OLD)
        self.card(1, {"model": "Target", "serial": "TGT-AB1234"})

    def sidecar(self, written, **changes):
        """What a backup would have written beside an image."""
        disk = {"model": "Source", "serial": "SRC-0001", "wwn": "", "sizeBytes": len(written.disk), "sectorBytes": 512}
        known = {"machine": "machine", "disk": disk, "startedAt": MADE_AT, "startedLocal": "2026-11-22 03:00:05 +0100"}
        with open(written.path + ".json", "w", encoding="utf-8") as file:
            json.dump(sidecar_of(written, **{**known, **changes}), file)

    def talk(self, *arguments, outFile=None):
        self.assertTrue(os.path.isdir(self.devices), "without its devices folder the program sees real disks")
        talk = Talk([self.keepProgram, "restore", *arguments], self.images, outFile)
        self.addCleanup(talk.close)
        return talk

    def guided(self, *arguments):
        return self.talk("--from", self.images, *arguments)

    def script(self, *arguments, image="full.kstx", disk="serial:TGT-AB1234", proof="TGT-AB1234"):
        """A run for a script: its exit status and its report."""
        status, said = self.ask("restore", "--image", self.path(image), "--disk", disk, "--yes-overwrite", proof,
                                *arguments)
        self.assertEqual(status, WELL if said["result"] == "restored" else FAILED)
        return status, said

    def untouched(self, number=1, content=OLD):
        self.assertTrue(self.disk_bytes(number) == content, "the disk was written")

    def stand_in(self, text):
        """Another program in the place of kestrix."""
        os.unlink(self.program)
        with open(self.program, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(self.program, 0o755)
