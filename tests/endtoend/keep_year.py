"""A year of nights of two jobs, with something going wrong in many of them, and what must hold after each.

The model keeps what the disks held when each image was made, what was damaged on purpose, and the rules of retention,
worked out apart from the program. KESTRIX_SEED makes a year come again.
"""
import calendar
import collections
import datetime
import json
import os
import random
import subprocess
import time

import kestrix_image
from harness import SANITIZERS

FIRST_NIGHT = 1767229200  # 2026-01-01 01:00 UTC
DAY = 86400
FULL = {"last": 3, "daily": 7, "weekly": 4, "monthly": 6}
NEWEST = {"last": 2, "daily": 5, "weekly": 3, "monthly": 0}
CHECK_EVERY = 7 * DAY
SLACK = 2 * 3600  # by which a clock may be ahead
DISK_BYTES = (4 << 20) + (128 << 10)  # two chunks, the second one short

ENVIRONMENT = {**SANITIZERS, **os.environ, "TZ": "Europe/Berlin"}

EVENTS = {"nothing": 40, "kill keep": 10, "kill kestrix": 6, "folder missing": 4, "folder read-only": 3,
          "folder full": 3, "disk gone": 3, "disk renumbered": 4, "disk replaced": 2, "byte flipped": 2,
          "base deleted": 1, "hour back": 3, "day back": 3, "year ahead": 2, "two at once": 4}


class Rule(AssertionError):
    """A rule of the year is broken."""


def demand(condition, text):
    if not condition:
        raise Rule(text)


class JobModel:
    """One job, its disk and its folder, as the test knows them."""

    def __init__(self, year, name, number, scheme, keep):
        self.year, self.name, self.number, self.scheme, self.keep = year, name, number, scheme, keep
        self.serial = f"SERIAL-{name}"
        self.content = bytearray(kestrix_image.seeded_disk(DISK_BYTES, number))
        self.place = os.path.join(year.folder, f"place-{name}")   # the file system of the backup disk
        self.folder = os.path.join(year.folder, f"folder-{name}")  # a link to it
        self.elsewhere = os.path.join(year.folder, f"elsewhere-{name}")
        self.disks = {}       # image name: the bytes of the disk of its night
        self.verified = {}    # image name: what stat said when it was compared
        self.spoiled = set()  # images that were damaged or removed on purpose, and not told of since
        self.gone = set()     # names that were removed on purpose
        self.seen = set()     # image names that were there after the last night
        self.contents = []    # what the disk held at the start of each run of this night
        for folder in (self.place, self.elsewhere):
            os.mkdir(folder)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256m", f"kestrix-{name}", self.place], check=True)
        os.symlink(self.place, self.folder)
        with open(os.path.join(self.place, "other.txt"), "w", encoding="ascii") as file:
            file.write("not an image\n")
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
        self.write_disk()

    def configuration(self):
        keep = ", ".join(f"{key} = {value}" for key, value in self.keep.items())
        return (f"[job.{self.name}]\ndisk = \"serial:{self.serial}\"\nfolder = \"{self.folder}\"\n"
                f"folder-must-be = \"source:kestrix-{self.name}\"\nbase = \"{self.scheme}\"\nkeep = {{ {keep} }}\n"
                f"new-full = {{ every = \"30d\", when-thin-exceeds = \"80%\", chain = 20 }}\n"
                f"check = {{ each = \"own\", whole-every = \"7d\" }}\n\n")

    # What lies in the folder

    def images(self):
        return sorted(name for name in os.listdir(self.place) if name.endswith(".kstx"))

    def sidecar(self, name):
        try:
            with open(self.path(name + ".json"), encoding="utf-8") as file:
                return json.load(file)
        except FileNotFoundError:
            return None

    def chain(self, name):
        """Names of the image and of what it stands on, by the trailers; None where one is gone."""
        chain = []
        while name:
            chain.append(name)
            if not os.path.exists(self.path(name)):
                return None
            name = self.base_of(name)
        return chain

    def base_of(self, name):
        with open(self.path(name), "rb") as file:
            header = kestrix_image.decode_header(file.read(64))
            if header.version != 3:
                return None
            file.seek(-4, os.SEEK_END)
            length = int.from_bytes(file.read(4), "little")
            file.seek(-length, os.SEEK_END)
            return kestrix_image.decode_trailer(file.read()).baseName.decode()

    def is_spoiled(self, name):
        """Whether it, or something that it stands on, was damaged or removed on purpose."""
        chain = self.chain(name)
        return chain is None or any(one in self.spoiled for one in chain)


class Year:
    def __init__(self, test, seed, nights=365):
        self.test, self.nights = test, nights
        self.folder, self.devices = test.folder, test.devices
        self.chance = random.Random(seed)
        self.counts = collections.Counter()
        self.jobs = [JobModel(self, "server", 1, "full", FULL), JobModel(self, "desk", 2, "newest", NEWEST)]
        self.configurationPath = os.path.join(self.folder, "keep.toml")
        with open(self.configurationPath, "w", encoding="ascii") as file:
            file.write("".join(job.configuration() for job in self.jobs))
        os.chmod(self.configurationPath, 0o600)

    def end(self):
        for job in self.jobs:
            subprocess.run(["umount", "-l", job.place], check=False)

    # Running

    def command(self, *arguments):
        return [self.test.keepProgram, *arguments, "--config", self.configurationPath]

    def start(self, job, now):
        job.contents.append(bytes(job.content))
        return subprocess.Popen(self.command("backup", job.name, "--json", "--quiet", "--now", str(now)),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=ENVIRONMENT)

    @staticmethod
    def finish(process):
        out, _ = process.communicate(timeout=120)
        return process.returncode, out.decode("utf-8", "replace")

    def run(self, job, now):
        return self.finish(self.start(job, now))

    def reports(self, out):
        try:
            return json.loads(out)["jobs"]
        except ValueError:
            raise Rule(f"what it printed is no report: {out}") from None

    # A night

    def year(self):
        for night in range(self.nights):
            for job in self.jobs:
                self.night(job, FIRST_NIGHT + night * DAY + self.chance.randrange(600), night)

    def night(self, job, now, night):
        event = self.chance.choices(list(EVENTS), EVENTS.values())[0]
        self.counts[event] += 1
        job.change_disk(self.chance)
        job.contents.clear()
        try:
            getattr(self, event.replace(" ", "_").replace("-", "_"))(job, now)
        except AssertionError as error:
            raise Rule(f"night {night} of {job.name}, {event}: {error}") from error

    def after(self, job, now, isWell=None):
        """What holds after each night, whatever it was."""
        names = job.images()
        for name in names:
            self.check_image(job, name)
        for name in job.seen - set(names) - job.gone:
            self.check_let_go(job, name, now, names)
        job.gone -= set(names)
        job.seen = set(names)
        demand(os.path.exists(job.path("other.txt")), "another file is gone")
        if isWell is not None:
            self.check_status(job, now, isWell)

    def check_image(self, job, name):
        """It gives back the disk of its night, unless it was damaged on purpose."""
        if job.is_spoiled(name):
            return
        facts = os.stat(job.path(name))
        marks = (facts.st_ino, facts.st_size, facts.st_mtime_ns)
        if job.verified.get(name) == marks:
            return
        disk = kestrix_image.read_image(job.path(name)).disk()
        sidecar = job.sidecar(name)
        demand(sidecar is not None and sidecar["isSound"], f"{name} has no sidecar that calls it sound")
        if name not in job.disks:
            demand(bytes(disk) in job.contents, f"{name} holds another disk than that of its night")
            job.disks[name] = bytes(disk)
        demand(disk == job.disks[name], f"{name} holds another disk than before")
        job.verified[name] = marks

    def kept_by_rules(self, job, sidecars, now):
        """Names that the rules keep, worked out from the times in the sidecars."""
        sound = [name for name in sidecars if sidecars[name]["isSound"] and sidecars[name]["startedAt"] <= now + SLACK]
        sound.sort(key=lambda name: -sidecars[name]["number"])
        kept = set(sound[:max(job.keep["last"], 1)])
        kept |= {name for name in sidecars if sidecars[name]["startedAt"] > now + SLACK}
        for rule, form in (("daily", "%Y-%m-%d"), ("weekly", "%G-%V"), ("monthly", "%Y-%m")):
            periods = {}
            for name in sound:
                local = local_time(sidecars[name]["startedAt"])
                periods.setdefault(local.strftime(form), name)
            newest = list(periods.values())[:job.keep[rule]]
            kept |= set(newest)
            if newest and len(newest) < job.keep[rule]:
                kept.add(sound[-1])
        return kept

    def check_let_go(self, job, name, now, names):
        """It went by the rules: nothing needs it, newer sound ones are there, and no rule keeps it."""
        sidecars = {one: job.sidecar(one) for one in names if job.sidecar(one)}
        gone = self.sidecarsBefore[job.name].get(name)
        demand(gone is not None, f"{name} is gone, and had no sidecar")
        before = self.sidecarsBefore[job.name]
        demand(all(one["isSound"] for one in before.values()), f"{name} was let go while an image is known as damaged")
        demand(any(sidecars[one]["number"] > gone["number"] for one in sidecars), f"{name} was the newest")
        for one in names:
            demand(name not in (job.chain(one) or []), f"{one} stands on {name}, which is gone")
        everything = {**self.sidecarsBefore[job.name], **sidecars}
        del everything[name]
        demand(name not in self.kept_by_rules(job, {**everything, name: gone}, now), f"{name} should be kept")

    def check_status(self, job, now, isWell):
        done = subprocess.run(self.command("status", job.name, "--json", "--now", str(now)), stdout=subprocess.PIPE,
                              check=False, env=ENVIRONMENT)
        state, = json.loads(done.stdout)["jobs"]
        demand((done.returncode == 0) == state["isWell"], "the exit status of status is not what it says")
        sound = [name for name in job.images() if job.sidecar(name) and not job.is_spoiled(name)]
        newest = max(sound, key=lambda name: job.sidecar(name)["number"], default=None)
        if not job.spoiled:
            demand(state["lastGood"] == newest, f"status says {state['lastGood']}, the newest sound one is {newest}")
        demand(state["isWell"] or not isWell or job.spoiled,
               f"status finds fault with a good night: {state['problems']}")

    def remember(self):
        self.sidecarsBefore = {job.name: {name: job.sidecar(name) for name in job.images() if job.sidecar(name)}
                               for job in self.jobs}

    def run_well(self, job, now):
        """A run that nothing stands in the way of."""
        self.remember()
        status, out = self.run(job, now)
        report, = self.reports(out)
        if job.spoiled:  # which it may have found, or not yet
            self.heal(job, status, report, now)
            return
        demand(status == 0, f"exit status {status}: {out}")
        demand(report["image"] in job.images(), f"no image: {out}")
        demand(report["warnings"] == [], out)
        self.after(job, now, isWell=abs(job.sidecar(report["image"])["startedAt"] - now) < DAY)

    def heal(self, job, status, report, now):
        """What an administrator does with a damaged image that was told: takes it and its sidecar away."""
        told = [name for name in job.spoiled if name in json.dumps(report)]
        isKnown = any("DAMAGED" in line or "no longer" in line for line in [report["failure"] or ""])
        self.after(job, now)
        if not (told and isKnown):
            return
        demand(status == 1, "damage that is known is no success")
        for name in list(job.images()):
            if job.is_spoiled(name):
                self.take_away(job, name)
        for name in list(job.spoiled):
            self.take_away(job, name)
        job.spoiled.clear()
        self.counts["damage was told"] += 1

    @staticmethod
    def take_away(job, name):
        for path in (job.path(name), job.path(name) + ".json"):
            if os.path.exists(path):
                os.unlink(path)
        job.gone.add(name)
        job.seen.discard(name)

    def run_badly(self, job, now):
        """A run that something stands in the way of: it fails, says why, and makes no image."""
        self.remember()
        before = set(job.images())
        status, out = self.run(job, now)
        report, = self.reports(out)
        demand(status == 1 and report["failure"], f"exit status {status}: {out}")
        demand(set(job.images()) <= before, "a failed run made an image")
        return report

    # The events

    def nothing(self, job, now):
        self.run_well(job, now)

    def kill_keep(self, job, now):
        self.remember()
        process = self.start(job, now)
        time.sleep(self.chance.random() ** 2 * 0.15)
        process.kill()
        process.communicate()
        self.after(job, now)
        if self.chance.random() < 0.5:
            self.run_well(job, now + 60)

    def kill_kestrix(self, job, now):
        self.remember()
        process = self.start(job, now)
        deadline = time.monotonic() + 0.2
        killed = False
        while process.poll() is None and not killed and time.monotonic() < deadline:
            killed = kill_children(process.pid)
        status, out = self.finish(process)
        demand(not killed or status in (0, 1), out)
        self.after(job, now)

    def folder_missing(self, job, now):
        os.unlink(job.folder)
        os.symlink(job.elsewhere, job.folder)
        report = self.run_badly(job, now)
        demand("not on kestrix-" in report["failure"], report["failure"])
        demand(os.listdir(job.elsewhere) == [], "something was written beside the backup disk")
        os.unlink(job.folder)
        os.symlink(job.place, job.folder)
        self.after(job, now)

    def folder_read_only(self, job, now):
        subprocess.run(["mount", "-o", "remount,ro", job.place], check=True)
        report = self.run_badly(job, now)
        demand("read-only" in report["failure"], report["failure"])
        subprocess.run(["mount", "-o", "remount,rw", job.place], check=True)
        self.after(job, now)

    def folder_full(self, job, now):
        space = os.statvfs(job.place)
        with open(job.path("filler"), "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(space.f_bavail * space.f_frsize - (64 << 10), 1))
        report = self.run_badly(job, now)
        demand("room" in report["failure"] or "full" in report["failure"], report["failure"])
        os.unlink(job.path("filler"))
        self.after(job, now)

    def disk_gone(self, job, now):
        os.rename(job.node(), job.node() + ".away")
        report = self.run_badly(job, now)
        demand(job.serial in report["failure"], report["failure"])
        os.rename(job.node() + ".away", job.node())
        self.after(job, now)

    def disk_renumbered(self, job, now):
        before = job.node()
        job.number += 2
        while os.path.exists(job.node(job.number)):
            job.number += 1
        os.rename(before, job.node())
        os.rename(before + ".json", job.node() + ".json")
        self.run_well(job, now)

    def disk_replaced(self, job, now):
        """Another disk of equal size under the same number: it is not the one that the job names."""
        serial, job.serial = job.serial, "ANOTHER"
        job.write_disk()
        report = self.run_badly(job, now)
        demand(serial in report["failure"], report["failure"])
        job.serial = serial
        job.write_disk()
        self.after(job, now)

    def byte_flipped(self, job, now):
        names = [name for name in job.images() if not job.is_spoiled(name)]
        if names:
            name = self.chance.choice(names)
            size = os.path.getsize(job.path(name))
            kestrix_image.flip_byte(job.path(name), self.chance.randrange(size))
            job.spoiled.add(name)
        self.run_well(job, now)

    def base_deleted(self, job, now):
        bases = {job.base_of(name) for name in job.images()} - {None}
        bases = [name for name in bases if os.path.exists(job.path(name))]
        if bases:
            name = self.chance.choice(sorted(bases))
            os.unlink(job.path(name))
            job.spoiled.add(name)
            job.gone.add(name)
        self.run_well(job, now)

    def hour_back(self, job, now):
        self.run_well(job, now - 3600)

    def day_back(self, job, now):
        self.run_well(job, now - DAY)

    def year_ahead(self, job, now):
        self.run_well(job, now + 365 * DAY)

    def two_at_once(self, job, now):
        self.remember()
        processes = [self.start(job, now), self.start(job, now)]
        ended = [self.finish(process) for process in processes]
        statuses = sorted(status for status, _ in ended)
        demand(statuses in ([0, 0], [0, 3]) or (job.spoiled and set(statuses) <= {0, 1, 3}), f"{ended}")
        self.after(job, now)


def local_time(seconds):
    """In Berlin, by its rule: summer from the last Sunday of March to that of October, at 01:00 UTC."""
    time_ = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).replace(tzinfo=None)
    begin, end = (datetime.datetime(time_.year, month, last_sunday(time_.year, month), 1) for month in (3, 10))
    return time_ + datetime.timedelta(hours=2 if begin <= time_ < end else 1)


def last_sunday(year, month):
    return max(week[calendar.SUNDAY] for week in calendar.monthcalendar(year, month))


def kill_children(pid):
    """Kills what a process runs; whether there was anything."""
    try:
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
            children = [int(child) for child in file.read().split()]
    except FileNotFoundError:
        return False
    for child in children:
        try:
            os.kill(child, 9)
        except ProcessLookupError:
            return False
    return bool(children)
