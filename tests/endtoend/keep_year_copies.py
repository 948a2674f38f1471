"""The copies of one job through its year, and what must hold of them after each night.

The place is a folder with rules of its own. What is damaged there on purpose is found when it is compared, and made
anew as long as the image is still in the job's folder; otherwise an administrator takes it away when he is told.
"""
import hashlib
import json
import os

import kestrix_image
from keep_rule import demand

KEEP = {"last": 2, "daily": 3, "weekly": 2, "monthly": 0}


def marks_of(path):
    facts = os.stat(path)
    return facts.st_ino, facts.st_size, facts.st_mtime_ns


class Copies:
    def __init__(self, folder, job):
        self.job = job
        self.place = os.path.join(folder, f"copies-{job}")
        self.spoiled = {}     # name of what was damaged here on purpose: when
        self.unseen = set()   # those of them that a run which was killed may have made anew
        self.told = 0         # of those
        self.compared = {}    # name: marks of what had the digest of its sidecar
        os.mkdir(self.place)

    def configuration(self):
        keep = ", ".join(f"{key} = {value}" for key, value in KEEP.items())
        return f"copies = [{{ to = \"{self.place}\", keep = {{ {keep} }} }}]\n"

    def path(self, name):
        return os.path.join(self.place, name)

    def images(self):
        return sorted(name for name in os.listdir(self.place) if name.endswith(".kstx"))

    def sidecar(self, name):
        demand(os.path.exists(self.path(name + ".json")), f"the copy of {name} has no sidecar")
        with open(self.path(name + ".json"), encoding="utf-8") as file:
            return json.load(file)

    def is_as_sent(self, name):
        with open(self.path(name), "rb") as file:
            return hashlib.sha256(file.read()).hexdigest() == self.sidecar(name)["sha256"]

    def check(self):
        """What has an image's name is that image, and all that it stands on is there."""
        for name in self.images():
            sidecar = self.sidecar(name)
            marks = marks_of(self.path(name))
            if name not in self.spoiled and self.compared.get(name) != marks:
                demand(self.is_as_sent(name), f"the copy of {name} is another")
                self.compared[name] = marks
            base = sidecar["base"]
            demand(not base or os.path.exists(self.path(base)), f"{base}, which {name} stands on, is not there")

    def check_complete(self, newest):
        """After a run that nothing was wrong with."""
        demand(newest in self.images(), f"{newest} was not copied, and nothing said so")

    def check_told(self, report):
        """After such a run each decision was told with its reason."""
        for name in self.images():
            said = f"kept at {self.place}: {name}: "
            demand(any(line.startswith(said) for line in report["lines"]), f"no line begins with: {said}")
        for line in report["lines"]:
            isTold = not line.startswith(f"let go at {self.place}: ") or line.endswith(": no rule keeps it")
            demand(isTold, f"it went, and nothing says why: {line}")

    def check_compared(self, report, now, wholeEvery):
        """After a run that let copies go: what is left of the newest was read within that many seconds."""
        if not any(line.startswith(f"let go at {self.place}") for line in report["lines"]):
            return
        name = max(self.images(), key=lambda one: self.sidecar(one)["number"])
        while name:
            damaged = self.spoiled.get(name, now)
            demand(now - damaged < wholeEvery, f"copies went, and {name} there is damaged since {damaged}, not told")
            name = self.sidecar(name)["base"]

    def flip_byte(self, chance, now):
        """False: there is nothing to be damaged."""
        names = [name for name in self.images() if name not in self.spoiled]
        if not names:
            return False
        fulls = [name for name in names if not self.sidecar(name)["base"]]
        fulls.sort(key=lambda name: self.sidecar(name)["number"])
        name = chance.choice([chance.choice(names), *fulls[-1:]])  # the newest stays long enough to be read again
        kestrix_image.flip_byte(self.path(name), chance.randrange(os.path.getsize(self.path(name))))
        self.spoiled[name] = now
        self.unseen.discard(name)
        return True

    def note_killed_run(self):
        self.unseen.update(self.spoiled)

    def heal(self, report):
        """After each run: what was made anew is sound again, and what is told as damaged and was not is taken away."""
        told = "\n".join(report["warnings"])
        for name in sorted(self.spoiled):
            if not os.path.exists(self.path(name)) or (name in self.unseen and self.is_as_sent(name)):
                del self.spoiled[name]
            elif f"{name}: its SHA-256 is" in told:
                self.told += 1
                del self.spoiled[name]
                if "removed, with its sidecar" in told:
                    self.take_away(name)
        return told

    def take_away(self, name):
        for other in self.images():
            if other != name and self.sidecar(other)["base"] == name:
                self.take_away(other)
        for path in (self.path(name), self.path(name + ".json")):
            os.unlink(path)
