"""A job of kestrix-keep: its disk, its folder, its configuration, and runs of it by a clock of its own."""
import fcntl
import json
import os

import kestrix_image
from harness import MIB, Started
from keep_machine import WELL, KeepMachineTest, form_of

NOW = 1795312805  # 2026-11-22 02:00:05 UTC
DAY = 86400
NAME = "job-20261122T020005Z.kstx"
DISK = kestrix_image.seeded_disk(4 * MIB + 4096, 1)


class JobTest(KeepMachineTest):
    """A machine with one job, whose disk is disk 1 and whose images come to lie in self.place."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.disk(1, DISK)
        self.card(1, {"model": "Model", "serial": "SERIAL1"})
        self.place = os.path.join(self.folder, "place")
        os.mkdir(self.place)
        self.configure()

    def configure(self, more="", disk='"serial:SERIAL1"', folder=None):
        self.configuration = os.path.join(self.folder, "keep.toml")
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(f'[job.job]\ndisk = {disk}\nfolder = "{folder or self.place}"\n{more}\n')
        os.chmod(self.configuration, 0o600)

    def backup(self, now=NOW, *arguments):
        """A run with a clock of its own: its exit status and its report."""
        run = self.keep("backup", "--json", "--quiet", "--now", str(now), "--config", self.configuration, *arguments)
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        form_of("backup").validate(said)
        report, = said["jobs"]
        self.assertEqual(run.status, report["status"])
        return run.status, report

    def well(self, now=NOW):
        status, report = self.backup(now)
        self.assertEqual(status, WELL, report)
        return report["image"]

    def names(self):
        return sorted(name for name in os.listdir(self.place) if not name.startswith("."))

    def image_names(self):
        return [name for name in self.names() if name.endswith(".kstx")]

    def place_path(self, name):
        return os.path.join(self.place, name)

    def sidecar(self, name):
        with open(self.place_path(name + ".json"), encoding="utf-8") as file:
            return json.load(file)

    def content(self, name):
        with open(self.place_path(name), "rb") as file:
            return file.read()

    def rewrite_sidecar(self, name, **fields):
        sidecar = {**self.sidecar(name), **fields}
        with open(self.place_path(name + ".json"), "w", encoding="utf-8") as file:
            json.dump(sidecar, file)

    def password(self, text):
        """Writes the password file; gives the line that names it."""
        path = os.path.join(self.folder, "password")
        with open(path, "w", encoding="ascii") as file:
            file.write(text + "\n")
        os.chmod(path, 0o600)
        return f'password-file = "{path}"'

    def change_disk(self, offset, data):
        with open(self.disk_path(1), "r+b") as file:
            file.seek(offset)
            file.write(data)
        return self.disk_bytes(1)

    def hold_lock(self):
        """Has the folder as another run would have it, until what this gives is closed."""
        lock = open(self.place_path(".kestrix-keep.lock"), "wb")
        self.addCleanup(lock.close)
        fcntl.flock(lock, fcntl.LOCK_EX)
        return lock

    def traced(self, now, *rules, options=("--json", "-j1")):
        """A run under strace, which makes its calls fail or wait, and whose file is called trace."""
        command = ["strace", "-o", os.path.join(self.folder, "trace"), *rules, self.keepProgram, "backup", *options,
                   "--quiet", "--now", str(now), "--config", self.configuration]
        started = Started(command, self.images)
        self.addCleanup(self.end, started)
        return started

    def report_of(self, started):
        run = started.finish()
        report, = json.loads(run.out)["jobs"]
        return run.status, report
