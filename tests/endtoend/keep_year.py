"""A year of nights of two jobs, with something going wrong in many of them, and what must hold after each.

The model keeps what the disks held when each image was made, what was damaged on purpose, and the rules of bases and of
retention, worked out apart from the program. One of the two disks has the change tracker's stand-in, by the seed the
one or the other. Each job meets every kind of night at least once, and the two nights on which the hour changes.
KESTRIX_SEED makes a year come again.
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
from change_tracker import ERROR_ACCESS_DENIED
from harness import SANITIZERS
from keep_rule import Rule, demand
from keep_year_copies import marks_of
from keep_year_jobs import CHAIN, FULL_EVERY, THIN_PERCENT, JobModel, Tracker

YEAR = 2026
FIRST_DAY = 1767225600  # 2026-01-01 00:00 UTC
DAY = 86400
HOUR = 3600
FULL = {"last": 3, "daily": 7, "weekly": 4, "monthly": 6}
NEWEST = {"last": 2, "daily": 5, "weekly": 3, "monthly": 0}
HOURS = {"server": HOUR, "desk": 22 * HOUR + 1800}  # UTC; the desk's night is the next local day in summer alone
WHOLE_EVERY = 7 * DAY
SLACK = 2 * HOUR  # by which a clock may be ahead

ENVIRONMENT = {**SANITIZERS, **os.environ, "TZ": "Europe/Berlin"}

# So often each is drawn; the hour changes when it does. A commit fails where there is a tracker, copies where there are
# any.
EVENTS = {"nothing": 40, "kill keep": 10, "kill kestrix": 6, "folder missing": 4, "folder read-only": 3,
          "folder full": 3, "disk gone": 3, "disk renumbered": 4, "disk replaced": 2, "byte flipped": 2,
          "base deleted": 1, "hour back": 3, "day back": 3, "year ahead": 2, "two at once": 4,
          "commit fails": 4, "copies missing": 3, "copy flipped": 2}
QUIET_NIGHTS = 10  # before anything is sure to happen, so that there is something for it to happen to


class Year:
    def __init__(self, test, seed, nights):
        self.test, self.nights = test, nights
        self.folder, self.devices = test.folder, test.devices
        self.chance = random.Random(seed)
        self.counts = collections.Counter()   # nights of a job, by what happened
        self.figures = collections.Counter()  # what came of them
        self.jobs = [JobModel(self, "server", 1, "full", FULL, seed % 4 > 1),
                     JobModel(self, "desk", 2, "newest", NEWEST, seed % 4 < 2)]
        tracked = self.jobs[seed % 2]
        tracked.tracker = self.tracker = Tracker(os.path.join(self.devices, "Tallier"), tracked)
        self.configurationPath = os.path.join(self.folder, "keep.toml")
        with open(self.configurationPath, "w", encoding="ascii") as file:
            file.write("".join(job.configuration() for job in self.jobs))
        os.chmod(self.configurationPath, 0o600)

    def end(self):
        self.tracker.close()
        for job in self.jobs:
            subprocess.run(["umount", "-l", job.place], check=False)

    # Running

    def command(self, *arguments):
        return [self.test.keepProgram, *arguments, "--config", self.configurationPath]

    def start(self, job, now, *more):
        job.contents.append(bytes(job.content))
        return subprocess.Popen(self.command("backup", job.name, "--json", "--quiet", "--now", str(now), *more),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=ENVIRONMENT)

    @staticmethod
    def finish(process):
        out, _ = process.communicate(timeout=120)
        return process.returncode, out.decode("utf-8", "replace")

    def run(self, job, now, *more):
        begin = time.monotonic()
        status, out = self.finish(self.start(job, now, *more))
        job.seconds = time.monotonic() - begin
        job.report = self.report(out)
        return status, job.report

    @staticmethod
    def report(out):
        try:
            report, = json.loads(out)["jobs"]
        except ValueError:
            raise Rule(f"what it printed is no report: {out}") from None
        return report

    # The nights

    def plan(self, job):
        """What happens to the job in each night: by chance, but everything at least once."""
        changes = [(last_sunday_of(month) - FIRST_DAY) // DAY for month in (3, 10)]
        plan = {night: "hour changes" for night in self.nights if night in changes}
        demand(len(plan) == 2, f"these nights are without those on which the hour changes: {changes}")
        events = {event: weight for event, weight in EVENTS.items()
                  if (event != "commit fails" or job.tracker) and ("cop" not in event or job.copies)}
        left = [night for night in self.nights[QUIET_NIGHTS:] if night not in plan]
        plan.update(zip(self.chance.sample(left, len(events)), events))
        for night in self.nights:
            plan.setdefault(night, self.chance.choices(list(events), events.values())[0])
        return plan

    def year(self):
        plans = {job: self.plan(job) for job in self.jobs}
        for night in self.nights:
            for job in self.jobs:
                now = FIRST_DAY + night * DAY + HOURS[job.name] + self.chance.randrange(600)
                self.night(job, now, night, plans[job][night])
        for event in [*EVENTS, "hour changes"]:
            demand(self.counts[event] > 0, f"nothing came of: {event}")
        for figure in ("let go", "damage told", "proved by the tracker", "dry runs"):
            demand(self.figures[figure] > 0, f"there was none: {figure}")
        self.figures["damage to copies told"] = sum(job.copies.told for job in self.jobs if job.copies)
        demand(self.tracker.faults == [], f"the tracker's stand-in: {self.tracker.faults}")

    def night(self, job, now, night, event):
        job.change_disk(self.chance)
        job.contents.clear()
        self.figures["nights"] += 1
        try:
            happened = getattr(self, event.replace(" ", "_").replace("-", "_"))(job, now)
            demand(job.files_of_others() == job.others, "a file of others was touched, or is gone")
        except (AssertionError, kestrix_image.ImageFault) as error:
            raise Rule(f"night {night} of {job.name}, {event}: {error}") from error
        self.counts[happened or event] += 1

    def after(self, job, now, isWell=None):
        """What holds after each night, whatever it was. isWell: what status has to say, None where either will do."""
        names = job.images()
        for name in names:
            self.check_image(job, name)
        for name in job.seen - set(names) - job.gone:
            self.check_let_go(job, name, now, names)
        for name, proof in job.spoiled.items():
            sidecar = job.sidecar(name)
            demand(proof is None or not sidecar or not sidecar["isSound"] or sidecar["provedAt"] == proof,
                   f"{name} is damaged, and was read whole and called sound")
        job.gone -= set(names)
        job.seen = set(names)
        job.report = {"lines": []}
        if job.copies:
            job.copies.check()
        self.check_status(job, now, isWell)

    def check_image(self, job, name):
        """It gives back the disk of its night, unless it was damaged on purpose."""
        sidecar = job.sidecar(name)
        demand(sidecar is not None, f"{name} has no sidecar")
        if name not in job.disks:
            self.check_new_image(job, name, sidecar)
        if job.is_spoiled(name):
            return
        marks = marks_of(job.path(name))
        if job.verified.get(name) == marks:
            return
        image = kestrix_image.read_image(job.path(name))
        disk = image.disk()
        demand(sidecar["isSound"], f"{name} is sound, and its sidecar says that it is not")
        demand((image.trailer.baseName.decode() if image.trailer else "") == sidecar["base"],
               f"{name} stands on something else than its sidecar says")
        if name not in job.disks:
            demand(bytes(disk) in job.contents, f"{name} holds another disk than that of its night")
            job.disks[name] = bytes(disk)
        demand(disk == job.disks[name], f"{name} holds another disk than before")
        job.verified[name] = marks
        self.figures["compared"] += 1

    def check_new_image(self, job, name, sidecar):
        if name in job.seen:
            return  # which was spoiled when it was new
        self.figures["made"] += 1
        if sidecar["mayNotBeBase"]:
            job.uncommitted.add(name)
        chain = job.chain(name)
        demand(chain is not None, f"{name} stands on what is gone")
        demand(len(chain) <= CHAIN, f"the chain of {name} has {len(chain)} images")
        demand(sidecar["base"] not in job.uncommitted, f"{name} stands on an image without a commit")
        demand(not job.headless & set(chain), f"{name} stands on a file that is not what its sidecar says")
        # Copies are made behind the new image: what is found then was not known when it got its base.
        foundLate = [one for one in chain for line in job.report["lines"]
                     if line.startswith(f"copies: {one}: it is no longer what was written")]
        demand(all(job.sidecar(one)["isSound"] for one in chain if one not in foundLate),
               f"{name} stands on an image that is known as damaged")

    @staticmethod
    def expected_base(job, sidecars, now):
        """The name of what the next image has to stand on, empty for a full one, where nothing is damaged."""
        newestFirst = sorted(sidecars, key=lambda name: -sidecars[name]["number"])
        chains = {}
        for name in reversed(newestFirst):
            chains[name] = [name, *chains.get(sidecars[name]["base"], [])]
        may = [name for name in newestFirst if name not in job.uncommitted]
        wanted = [name for name in may if job.scheme == "newest" or not sidecars[name]["base"]]
        base = next(iter([*wanted, *may]), None)
        if base is None:
            return ""
        full = chains[base][-1]
        age = now - sidecars[full]["startedAt"]
        thin = next((sidecars[name]["fileBytes"] for name in newestFirst if chains[name][-1] == full != name), 0)
        isDue = (age + HOUR >= FULL_EVERY or age < -DAY or len(chains[base]) >= CHAIN or
                 thin * 100 > sidecars[full]["fileBytes"] * THIN_PERCENT)
        return "" if isDue else base

    def check_decisions(self, job, report, now):
        """Of a good run on a sound folder: the base is the right one, what stays is what the rules keep, no more and
        no less, and each decision was told with its reason."""
        after = job.sidecars()
        everything = {**self.sidecarsBefore[job.name], **after}
        own = after[report["image"]]
        before = {name: one for name, one in everything.items() if name != report["image"]}
        base = self.expected_base(job, before, now)
        demand(own["base"] == base, f"it stands on {own['base'] or 'nothing'}, and should on {base or 'nothing'}")
        opening = f"a thin image on {base}, " if base else "a full image, since "
        demand(any(line.startswith(opening) for line in report["lines"]), f"no line begins with: {opening}")
        kept = self.kept_by_rules(job, everything, now)
        for name in list(kept):
            kept |= set(job.chain(name) or [])
        demand(set(after) == kept, f"there are {sorted(after)}, and there should be {sorted(kept)}")
        for name in everything:
            said = f"kept: {name}: " if name in after else f"let go: {name}: "
            demand(any(line.startswith(said) for line in report["lines"]), f"no line begins with: {said}")
        for name in job.chain(report["image"]):
            proof = after[name]["provedAt"]
            demand(now - WHOLE_EVERY < proof <= now + DAY, f"{name} was not read whole for too long")

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
        before = self.sidecarsBefore[job.name]
        gone = before.get(name)
        demand(gone is not None, f"{name} is gone, and had no sidecar")
        demand(all(one["isSound"] for one in before.values()), f"{name} was let go while an image is known as damaged")
        demand(any(sidecars[one]["number"] > gone["number"] for one in sidecars), f"{name} was the newest")
        for one in names:
            demand(name not in (job.chain(one) or []), f"{one} stands on {name}, which is gone")
        demand(name not in self.kept_by_rules(job, {**before, **sidecars}, now), f"{name} should be kept")
        newest = max(sidecars, key=lambda one: sidecars[one]["number"])
        for one in job.chain(newest) or []:
            demand(now - WHOLE_EVERY < sidecars[one]["provedAt"], f"{name} was let go, and {one} was not read for long")
        self.figures["let go"] += 1

    def check_status(self, job, now, isWell=None):
        done = subprocess.run(self.command("status", job.name, "--json", "--now", str(now)), stdout=subprocess.PIPE,
                              check=False, env=ENVIRONMENT)
        state, = json.loads(done.stdout)["jobs"]
        demand((done.returncode == 0) == state["isWell"], "the exit status of status is not what it says")
        demand(state["isWell"] == (not state["problems"]), "status contradicts itself")
        demand(isWell is None or state["isWell"] == isWell,
               f"status says {state['isWell']}, and should say {isWell}: {state['problems']}")
        if not os.path.samefile(job.folder, job.place):
            return
        names, removed = job.images(), [name for name, proof in job.spoiled.items() if proof is None]
        demand(state["images"] == len(names), f"status tells of {state['images']} images; there are {names}")
        demand(not removed or (state["damagedImages"] and not state["isWell"]), f"status misses {removed}")
        if not job.spoiled:
            newest = max(names, key=lambda name: job.sidecar(name)["number"], default=None)
            demand((state["lastGood"], state["damagedImages"]) == (newest, 0),
                   f"status says {state['lastGood']}, the newest sound one is {newest}")
            at = newest and job.sidecar(newest)["startedAt"]
            demand(state["lastGoodAt"] == at, f"status says that {newest} is of {state['lastGoodAt']}")
            demand(state["isOverdue"] == (newest is None or now > at + DAY + DAY // 2),
                   f"status says {state['isOverdue']} to being overdue")

    def remember(self):
        self.sidecarsBefore = {job.name: job.sidecars() for job in self.jobs}

    def run_well(self, job, now):
        """A run that nothing stands in the way of."""
        self.remember()
        foreseen = self.run_dry(job, now) if self.chance.random() < 0.1 else None
        status, report = self.run(job, now)
        demand(report["image"] in job.images(), f"no image: {report}")
        demand(report["image"] not in self.sidecarsBefore[job.name], f"it made an image that was there: {report}")
        told = self.heal_copies(job, report)
        if job.spoiled:  # which it may have found, or not yet
            self.heal(job, status, report, now)
            return
        demand(status == 0, f"exit status {status}: {report}")
        demand(report["warnings"] == [] or "its SHA-256 is" in told, f"{report}")
        if job.copies:
            job.copies.check_compared(report, now, WHOLE_EVERY)
        if job.copies and not told:
            job.copies.check_complete(report["image"])
            job.copies.check_told(report)
        demand(foreseen is None or foreseen in report["lines"], f"a dry run had said: {foreseen}")
        self.figures["proved by the tracker"] += any("matches tracker" in line for line in report["lines"])
        self.check_decisions(job, report, now)
        self.after(job, now, isWell=None if told else True)

    def run_dry(self, job, now):
        """It tells what the image would be, and touches nothing; that line."""
        before = job.all_files()
        _, report = self.run(job, now, "--dry-run")
        demand(job.all_files() == before, "a dry run changed the folder")
        demand(report["image"] is None and report["letGo"] == [], f"a dry run did something: {report}")
        self.figures["dry runs"] += 1
        line, = [line for line in report["lines"] if line.startswith(("a thin image on ", "a full image, since "))]
        return line

    @staticmethod
    def heal_copies(job, *reports):
        """What is told of the copies."""
        return "\n".join(filter(None, map(job.copies.heal, reports))) if job.copies else ""

    def heal(self, job, status, report, now):
        """What an administrator does with a damaged image that was told: takes it and its sidecar away."""
        told = [name for name in job.spoiled if name in json.dumps(report)]
        isKnown = any(word in (report["failure"] or "") for word in ("DAMAGED", "no longer"))
        self.after(job, now, isWell=False if told and isKnown else None)
        if not (told and isKnown):
            return
        demand(status == 1, "damage that is known is no success")
        demand(report["letGo"] == [], f"{report['letGo']} went though there is damage")
        for name in list(job.images()):
            if job.is_spoiled(name):
                self.take_away(job, name)
        for name in list(job.spoiled):
            self.take_away(job, name)
        job.spoiled.clear()
        job.headless.clear()
        self.figures["damage told"] += 1

    @staticmethod
    def take_away(job, name):
        for path in (job.path(name), job.path(name) + ".json"):
            if os.path.exists(path):
                os.unlink(path)
        job.gone.add(name)
        job.seen.discard(name)

    def run_badly(self, job, now):
        """A run that something stands in the way of: it fails, says why, and makes no image. Gives what it says; where
        damage is found too, which may come first, both."""
        self.remember()
        before = set(job.images())
        status, report = self.run(job, now)
        demand(status == 1 and report["failure"], f"exit status {status}: {report}")
        demand(report["image"] is None and set(job.images()) <= before, "a failed run made an image")
        demand(report["letGo"] == [], "a failed run let images go")
        self.heal_copies(job, report)
        others = [line for line in report["lines"] if line.startswith("FAILED: ")] if job.spoiled else []
        return "; ".join([report["failure"], *others])

    # What happens in a night. What each gives, if anything, is what came of it instead.

    def nothing(self, job, now):
        self.run_well(job, now)

    def kill_keep(self, job, now):
        self.remember()
        process = self.start(job, now)
        time.sleep(self.chance.random() * job.seconds)
        wasThere = process.poll() is None
        process.kill()
        process.communicate()
        if job.copies:
            job.copies.note_killed_run()
        self.after(job, now)
        if self.chance.random() < 0.5:
            self.run_well(job, now + 60)
        return None if wasThere else "kill came too late"

    def kill_kestrix(self, job, now):
        self.remember()
        process = self.start(job, now)
        deadline = time.monotonic() + 20
        while not children_of(process.pid) and process.poll() is None and time.monotonic() < deadline:
            pass
        time.sleep(self.chance.random() * job.seconds / 4)
        for child in children_of(process.pid):
            kill(child)
        status, out = self.finish(process)
        report = self.report(out)
        wasKilled = "kestrix was ended" in out
        demand(status == (1 if wasKilled or job.spoiled else 0) or job.spoiled, out)
        demand((report["image"] is None) == wasKilled, f"an image of a capture that was killed: {out}")
        told = self.heal_copies(job, report)
        self.after(job, now, isWell=None if job.spoiled or told else not wasKilled)
        return None if wasKilled else "kill came too late"

    def folder_missing(self, job, now):
        os.unlink(job.folder)
        os.symlink(job.elsewhere, job.folder)
        said = self.run_badly(job, now)
        demand("not on kestrix-" in said, said)
        demand(os.listdir(job.elsewhere) == [], "something was written beside the backup disk")
        self.check_status(job, now, isWell=False)
        os.unlink(job.folder)
        os.symlink(job.place, job.folder)
        self.after(job, now)

    def folder_read_only(self, job, now):
        subprocess.run(["mount", "-o", "remount,ro", job.place], check=True)
        said = self.run_badly(job, now)
        demand("read-only" in said, said)
        subprocess.run(["mount", "-o", "remount,rw", job.place], check=True)
        self.after(job, now)

    def folder_full(self, job, now):
        space = os.statvfs(job.place)
        with open(job.path("filler"), "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(space.f_bavail * space.f_frsize - (64 << 10), 1))
        said = self.run_badly(job, now)
        demand("room" in said or "full" in said, said)
        os.unlink(job.path("filler"))
        self.after(job, now, isWell=False)

    def disk_gone(self, job, now):
        os.rename(job.node(), job.node() + ".away")
        said = self.run_badly(job, now)
        demand(job.serial in said, said)
        os.rename(job.node() + ".away", job.node())
        self.after(job, now, isWell=False)

    def disk_renumbered(self, job, now):
        """As a restart of the machine does it."""
        before = job.node()
        job.number += 2
        while os.path.exists(job.node(job.number)):
            job.number += 1
        os.rename(before, job.node())
        os.rename(before + ".json", job.node() + ".json")
        self.tracker.restart()
        self.run_well(job, now)

    def disk_replaced(self, job, now):
        """Another disk of equal size under the same number: it is not the one that the job names."""
        serial, job.serial = job.serial, "ANOTHER"
        job.write_disk()
        said = self.run_badly(job, now)
        demand(serial in said, said)
        job.serial = serial
        job.write_disk()
        self.after(job, now, isWell=False)

    def commit_fails(self, job, now):
        job.tracker.commitError = ERROR_ACCESS_DENIED
        self.run_well(job, now)
        job.tracker.commitError = 0
        newest = max(job.images(), key=lambda name: job.sidecar(name)["number"])
        demand(newest in job.uncommitted, f"{newest} may be a base, though the tracker took no note of it")

    def byte_flipped(self, job, now):
        names = [name for name in job.images() if not job.is_spoiled(name)]
        if not names:
            self.run_well(job, now)
            return "nothing"
        name = self.chance.choice(names)
        size, head = os.path.getsize(job.path(name)), 64 + 72 * 2
        trailer = 8 if job.sidecar(name)["base"] else 0
        offset = self.chance.randrange(size)
        if self.chance.random() < 0.5:  # where each night looks
            offset = self.chance.choice([*range(head), *range(size - trailer, size)])
            job.headless.add(name)
        kestrix_image.flip_byte(job.path(name), offset)
        job.spoiled[name] = job.sidecar(name)["provedAt"]
        self.run_well(job, now)
        return None

    def base_deleted(self, job, now):
        bases = {sidecar["base"] for sidecar in job.sidecars().values()} - {""}
        bases = [name for name in bases if os.path.exists(job.path(name))]
        if not bases:
            self.run_well(job, now)
            return "nothing"
        name = self.chance.choice(sorted(bases))
        os.unlink(job.path(name))
        job.spoiled[name] = None
        job.gone.add(name)
        self.run_well(job, now)
        return None

    def copies_missing(self, job, now):
        """It costs a line, and is made up for in the next run."""
        self.remember()
        os.rename(job.copies.place, job.copies.place + ".away")
        status, report = self.run(job, now)
        demand(not os.path.exists(job.copies.place), "a place that was not there was made")
        os.rename(job.copies.place + ".away", job.copies.place)
        demand(report["image"] in job.images(), f"no image: {report}")
        demand("made up for next time" in "".join(report["warnings"]), f"copies that lag are not told: {report}")
        demand(status == 0 or job.spoiled, f"exit status {status}: {report}")
        self.after(job, now)

    def copy_flipped(self, job, now):
        happened = None if job.copies.flip_byte(self.chance, now) else "nothing"
        self.run_well(job, now)
        return happened

    def hour_back(self, job, now):
        self.run_well(job, now - HOUR)

    def day_back(self, job, now):
        self.run_well(job, now - DAY)

    def year_ahead(self, job, now):
        self.run_well(job, now + 365 * DAY)

    def hour_changes(self, job, now):
        """A run before the change and one behind it: in autumn both at the same time of the wall's clock."""
        change = now // DAY * DAY + HOUR
        for shift in (-HOUR // 2, HOUR // 2):
            self.run_well(job, change + shift)

    def two_at_once(self, job, now):
        self.remember()
        processes = [self.start(job, now), self.start(job, now)]
        ended = [self.finish(process) for process in processes]
        statuses = sorted(status for status, _ in ended)
        demand(statuses in ([0, 0], [0, 3]) or (job.spoiled and set(statuses) <= {0, 1, 3}), f"{ended}")
        told = self.heal_copies(job, *[self.report(out) for _, out in ended])
        self.after(job, now, isWell=None if job.spoiled or told else True)


def local_time(seconds):
    """In Berlin, by its rule: summer from the last Sunday of March to that of October, at 01:00 UTC."""
    time_ = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).replace(tzinfo=None)
    begin, end = (datetime.datetime(time_.year, month, last_sunday(time_.year, month), 1) for month in (3, 10))
    return time_ + datetime.timedelta(hours=2 if begin <= time_ < end else 1)


def last_sunday(year, month):
    return max(week[calendar.SUNDAY] for week in calendar.monthcalendar(year, month))


def last_sunday_of(month):
    """When it begins."""
    return calendar.timegm((YEAR, month, last_sunday(YEAR, month), 0, 0, 0))


def children_of(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
            return [int(child) for child in file.read().split()]
    except (FileNotFoundError, ProcessLookupError):
        return []


def kill(pid):
    try:
        os.kill(pid, 9)
    except ProcessLookupError:
        pass
