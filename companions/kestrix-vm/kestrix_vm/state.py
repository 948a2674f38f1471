"""What is kept between runs, in one folder: which epochs were given out, what the last captures were, and the folder of
each run that is under way. None of it proves anything: that is for the bitmaps alone."""
import contextlib
import fcntl
import hashlib
import json
import os
import secrets
import shutil
import tempfile

from .fault import NotBegun

EPOCH_BITS = 56  # what an image keeps of an epoch


def default_folder():
    if os.geteuid() == 0:
        return "/var/lib/kestrix-vm"
    return os.path.join(os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state"), "kestrix-vm")


class State:
    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        try:
            for name in ("", "guests", "last", "run"):
                os.makedirs(os.path.join(self.folder, name), mode=0o700, exist_ok=True)
        except OSError as error:
            raise NotBegun(f"The folder {self.folder} can't be made: {error.strerror}.") from None

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def draw_epoch(self):
        """An epoch that was never given out here, and at random so that no other machine gives it out either. It is
        recorded on the disk before anybody learns it."""
        descriptor = os.open(self.path("epochs"), os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o600)
        with open(descriptor, "r+", encoding="ascii") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            given = set(file.read().split())
            epoch = 0
            while epoch == 0 or f"{epoch:014x}" in given:
                epoch = secrets.randbits(EPOCH_BITS)
            # A record that was cut short takes none of the next one with it.
            file.write(f"\n{epoch:014x}\n")
            file.flush()
            os.fsync(file.fileno())
        return epoch

    # The last captures

    def last_path(self, guest, disk):
        return self.path("last", hashlib.sha256(f"{guest}\0{disk}".encode()).hexdigest()[:32] + ".json")

    def note_last(self, guest, disk, told):
        """What became of a capture; where it can't be written, nothing but this note is missing."""
        path = self.last_path(guest, disk)
        with contextlib.suppress(OSError):
            with tempfile.NamedTemporaryFile("w", dir=os.path.dirname(path), delete=False, encoding="utf-8") as file:
                json.dump(told, file)
            os.replace(file.name, path)

    def last(self, guest, disk):
        try:
            with open(self.last_path(guest, disk), encoding="utf-8") as file:
                return json.load(file)
        except (OSError, ValueError):
            return None

    # Runs

    def guest_key(self, guest):
        return hashlib.sha256(guest.encode()).hexdigest()[:16]

    def lock_guest(self, guest):
        """Held until the file is closed, which the end of the process does too."""
        file = open(self.path("guests", self.guest_key(guest)), "w", encoding="ascii")
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            file.close()
            raise NotBegun("Another capture of this guest is under way. Wait for its end.") from None
        return file

    def dead_runs(self):
        """The folders of runs whose process is gone, and that of what it left to thaw the guest, each with what was
        noted there."""
        for name in sorted(os.listdir(self.path("run"))):
            folder = self.path("run", name)
            try:
                lock = open(os.path.join(folder, "lock"), "r+", encoding="ascii")
            except OSError:
                continue  # one that begins just now
            with lock:
                try:
                    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    noted = json.loads(lock.read() or "{}")
                except (OSError, ValueError):
                    continue
                yield folder, noted


def remove_run(folder):
    shutil.rmtree(folder, ignore_errors=True)


class Run:
    """The folder of one run. It is locked as long as the process lives, or one that was split off from it."""

    def __init__(self, state, name, guest):
        self.name = name
        self.folder = state.path("run", name)
        os.mkdir(self.folder, 0o700)
        self.lock = open(os.path.join(self.folder, "lock"), "w", encoding="utf-8")
        fcntl.flock(self.lock, fcntl.LOCK_EX)
        json.dump({"guest": guest}, self.lock)
        self.lock.flush()

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def remove(self):
        remove_run(self.folder)
        self.lock.close()
