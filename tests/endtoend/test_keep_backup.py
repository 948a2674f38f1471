"""kestrix-keep backup: one run of a job, and what earlier ones left."""
import collections
import hashlib
import json
import os
import re
import shutil
import signal
import stat
import time
from unittest import mock

import kestrix_image
from harness import MIB, Started, needs, why_no_loop_devices, why_no_mounts
from keep_machine import BUSY, COMMAND_LINE, FAILED, WELL, KeepMachineTest, form_of

NOW = 1795312805  # 2026-11-22 02:00:05 UTC
DAY = 86400
NAME = "job-20261122T020005Z.kstx"
DISK = kestrix_image.seeded_disk(4 * MIB + 4096, 1)


class BackupTest(KeepMachineTest):
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


class OneRun(BackupTest):
    def test_the_first_image_is_full_and_its_sidecar_tells_what_it_is(self):
        self.assertEqual(self.well(), NAME)
        self.assertEqual(self.names(), [NAME, NAME + ".json", "job.keep.json"])
        image = kestrix_image.read_image(self.place_path(NAME))
        self.assertTrue(image.disk() == DISK)
        content = self.content(NAME)
        table = content[:64 + 2 * 72]
        said = self.sidecar(NAME)
        self.assertEqual((said["job"], said["number"], said["startedAt"], said["base"]), ("job", 1, NOW, ""))
        self.assertEqual(said["disk"], {"model": "Model", "serial": "SERIAL1", "wwn": "", "sizeBytes": len(DISK),
                                        "sectorBytes": 512})
        self.assertEqual(said["identity"], hashlib.sha256(table).hexdigest())
        self.assertEqual((said["sha256"], said["fileBytes"]), (hashlib.sha256(content).hexdigest(), len(content)))
        self.assertTrue(said["isSound"])

    def test_the_next_image_is_thin_on_it_and_holds_the_disk_of_its_night(self):
        self.well()
        disk = self.change_disk(4 * MIB, b"changed")
        name = self.well(NOW + DAY)
        self.assertEqual(name, "job-20261123T020005Z.kstx")
        image = kestrix_image.read_image(self.place_path(name))
        self.assertEqual(image.trailer.baseName, NAME.encode())
        self.assertTrue(image.disk() == disk)
        self.assertEqual((self.sidecar(name)["base"], self.sidecar(name)["storedChunks"]), (NAME, 1))

    def test_by_the_other_scheme_each_stands_on_the_one_before(self):
        self.configure('base = "newest"')
        first, second, third = (self.well(NOW + i * DAY) for i in range(3))
        self.assertEqual(self.sidecar(third)["base"], second)
        self.assertEqual(self.sidecar(second)["base"], first)

    def test_a_dry_run_tells_the_decisions_and_does_nothing(self):
        self.well()
        before = {name: self.content(name) for name in os.listdir(self.place)}
        run = self.keep("backup", "--dry-run", "--now", str(NOW + DAY), "--config", self.configuration)
        self.assertEqual(run.status, WELL, run.out)
        self.assertIn(f"a thin image on {NAME}, the newest full image".encode(), run.out)
        self.assertIn(f"kept: {NAME}: the newest sound image".encode(), run.out)
        self.assertEqual({name: self.content(name) for name in os.listdir(self.place)}, before)

    def test_images_of_a_job_with_a_password_are_sealed_thin_ones_too(self):
        self.configure(self.password("secret"))
        self.well()
        name = self.well(NOW + DAY)
        image = kestrix_image.read_image(self.place_path(name), b"secret")
        self.assertEqual((image.header.encrypted, image.header.version), (1, 3))
        self.assertTrue(image.disk() == DISK)
        self.assertTrue(self.sidecar(name)["isSealed"])

    def test_a_second_image_of_the_same_second_gets_the_next_name(self):
        self.well()
        self.assertEqual(self.well(), "job-20261122T020006Z.kstx")

    def test_a_name_is_not_used_again_after_its_image_is_gone(self):
        self.well()
        for name in (NAME, NAME + ".json"):
            os.unlink(self.place_path(name))
        self.assertEqual(self.well(), "job-20261122T020006Z.kstx")

    def test_no_folder_of_a_run_is_left_behind(self):
        temporary = os.path.join(self.folder, "temporary")  # its own, since other runs have theirs in the usual places
        os.mkdir(temporary)
        with mock.patch.dict(os.environ, TMPDIR=temporary):
            self.well()
        self.assertEqual(os.listdir(temporary), [])

    def test_folders_that_look_like_those_of_dead_runs_keep_what_no_run_put_there(self):
        temporary = os.path.join(self.folder, "temporary")
        for name in ("kestrix-keep-images", "kestrix-keep-disk-abcdef/devices", "kestrix-keep-disk-dead01/devices"):
            os.makedirs(os.path.join(temporary, name))
            os.chmod(os.path.join(temporary, name.split("/")[0]), stat.S_IRWXU)
        kept = ["kestrix-keep-disk-abcdef/devices/precious", "kestrix-keep-disk-abcdef/precious",
                "kestrix-keep-images/kestrix"]
        for name in [*kept, "kestrix-keep-disk-dead01/kestrix"]:
            with open(os.path.join(temporary, name), "wb"):
                pass
        os.symlink("nothing", os.path.join(temporary, "kestrix-keep-disk-dead01/devices/C:"))
        with mock.patch.dict(os.environ, TMPDIR=temporary):
            self.well()
        self.assertEqual(sorted(os.path.relpath(os.path.join(folder, name), temporary)
                                for folder, _, names in os.walk(temporary) for name in names), kept)
        self.assertEqual(sorted(os.listdir(temporary)), ["kestrix-keep-disk-abcdef", "kestrix-keep-images"])

    def test_snapshots_that_there_are_none_of_are_in_the_report_and_in_the_sidecar(self):
        self.configure("snapshots = true")
        name = self.well()
        self.assertRegex("".join(self.sidecar(name)["notes"]), "^--vss: .* - reading live instead")
        self.assertEqual(self.backup(NOW + DAY)[1]["notes"][:1], self.sidecar(name)["notes"][:1])

    def test_a_disk_in_use_is_said_to_be_read_live_in_the_report_and_in_the_sidecar(self):
        self.assertEqual(self.sidecar(self.well())["notes"], [])
        os.unlink(self.device("C:"))
        self.volume_c(1)
        status, report = self.backup(NOW + DAY)
        self.assertEqual(status, WELL, report)
        self.assertEqual(sum(note.startswith("read live: ") for note in self.sidecar(report["image"])["notes"]), 1)
        self.assertEqual(report["notes"], self.sidecar(report["image"])["notes"])

    def test_whole_checks_find_damage_below_a_new_image_the_same_night(self):
        for each, status in (("own", WELL), ("whole", FAILED)):
            with self.subTest(each=each):
                for name in self.names():
                    os.unlink(self.place_path(name))
                self.configure(f'check = {{ each = "{each}" }}')
                self.well()
                kestrix_image.flip_byte(self.place_path(NAME), 64 + 2 * 72 + 5)
                self.assertEqual(self.backup(NOW + DAY)[0], status)
                self.assertEqual(len(self.image_names()), 2 if status == WELL else 1)

    def test_a_day_whose_names_are_all_used_is_told(self):
        self.well()
        with open(self.place_path("job.keep.json"), encoding="utf-8") as file:
            memory = json.load(file)
        memory["stamps"] = [time.strftime("%Y%m%dT%H%M%SZ", time.gmtime(NOW + i)) for i in range(DAY)]
        with open(self.place_path("job.keep.json"), "w", encoding="utf-8") as file:
            json.dump(memory, file)
        status, report = self.backup()
        self.assertEqual((status, self.image_names()), (FAILED, [NAME]))
        self.assertIn("no name for an image is free there", report["failure"])

    def test_a_folder_that_nothing_is_said_of_is_warned_about(self):
        _, report = self.backup()
        self.assertRegex(report["warnings"][0], "set folder-must-be$")


class Refusals(BackupTest):
    def refused(self, text, **options):
        status, report = self.backup(**options)
        self.assertEqual((status, report["image"]), (FAILED, None))
        self.assertRegex(report["failure"], text)
        self.assertEqual(self.image_names(), [])

    def test_a_folder_on_another_file_system_is_refused(self):
        self.configure('folder-must-be = "source:elsewhere:/export"')
        self.refused("not on elsewhere:/export: is the share mounted\\?$")
        self.configure('folder-must-be = "uuid:12345678-1234-1234-1234-123456789abc"')
        self.refused("not on 12345678-1234-1234-1234-123456789abc: is the backup disk mounted\\?$")

    def test_a_folder_that_is_not_there_is_refused(self):
        self.configure(folder="/nowhere/at/all")
        self.refused("^/nowhere/at/all: it can't be looked at: ")

    def folder_on_a_disk(self):
        """The folder on a file system of disk 2, which is a device."""
        self.loop_disk(2, self.ext4(160 * MIB))
        return self.mount(os.path.realpath(self.disk_path(2)), "rw", "ext4")

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_folder_on_the_disk_that_is_captured_is_refused(self):
        folder = self.folder_on_a_disk()
        self.configure(folder=folder, disk="2")
        self.refused("^.*: it lies on the very disk that is to be captured$")
        self.assertEqual([name for name in os.listdir(folder) if name.endswith(".kstx")], [])
        self.configure(folder=folder)
        self.assertEqual(self.backup()[0], WELL)

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_folder_on_any_disk_of_a_file_system_over_several_is_refused(self):
        devices = []
        for number in (2, 3):
            self.loop_disk(number, 128 * MIB)
            devices.append(os.path.realpath(self.disk_path(number)))
        self.must("mkfs.btrfs", "-q", "-d", "single", *devices)
        folder = self.mount(devices[0], "device=" + devices[1], "btrfs")
        for number in (2, 3):
            self.configure(folder=folder, disk=str(number))
            self.refused("^.*: it lies on the very disk that is to be captured$")

    @needs(why_no_mounts)
    def test_a_folder_of_which_no_disk_is_known_is_warned_about(self):
        layers = self.small_file_system("200m")
        names = [os.path.join(layers, name) for name in ("lower", "upper", "work")]
        for name in names:
            os.mkdir(name)
        overlay = self.mount("data", "lowerdir=%s,upperdir=%s,workdir=%s" % tuple(names), "overlay")
        for folder, isKnown in ((overlay, False), (self.small_file_system("100m"), True)):
            self.configure(folder=folder)
            status, report = self.backup()
            self.assertEqual(status, WELL, report)
            isWarned = "which disk it lies on can't be told" in "".join(report["warnings"])
            self.assertEqual(isWarned, not isKnown, report["warnings"])

    def test_a_kestrix_that_others_can_change_is_not_run(self):
        self.let_all_change_the_program()
        self.refused("kestrix is not run: ")

    def test_a_disk_that_is_not_there_is_named(self):
        self.configure(disk='"serial:ANOTHER"')
        self.refused("ANOTHER")
        _, report = self.backup(NOW + DAY)
        self.assertIn("  serial: SERIAL1", report["lines"], "the cards of the disks that there are")

    def test_two_disks_with_the_serial_are_refused(self):
        self.disk(2, DISK)
        self.card(2, {"serial": "SERIAL1"})
        self.refused("SERIAL1")

    def test_a_folder_without_room_is_refused_before_the_capture(self):
        self.configure(folder=self.small_file_system("60m"))
        self.refused("^.*: there is room for .*, and the image may take .*$")

    def test_a_faulty_configuration_is_named_and_nothing_is_run(self):
        self.configure("kepe = 3")
        run = self.keep("backup", "--config", self.configuration)
        self.assertEqual(run.status, COMMAND_LINE)
        self.assertIn(b"keep.toml:4: job.job.kepe: ", run.err)
        self.assertEqual(self.names(), [])

    def test_a_job_that_is_not_there_is_refused(self):
        run = self.keep("backup", "another", "--config", self.configuration)
        self.assertEqual(run.status, COMMAND_LINE)
        self.assertIn(b"it has no job another\n", run.err)

    def test_a_folder_that_another_run_holds_is_busy(self):
        lock = self.place_path(".kestrix-keep.lock")
        with open(lock, "w", encoding="ascii"):
            pass
        holder = self.Holder(self, lock)
        status, report = self.backup()
        self.assertEqual((status, report["image"]), (BUSY, None))
        self.assertRegex(report["failure"], "another run holds it$")
        holder.close()
        self.well()

    class Holder:
        def __init__(self, test, path):
            import fcntl
            self.file = open(path, "r+b")  # pylint: disable=consider-using-with
            test.addCleanup(self.file.close)
            fcntl.flock(self.file, fcntl.LOCK_EX)

        def close(self):
            self.file.close()


class FailingCalls(BackupTest):
    """The program under strace, which makes its calls fail or wait."""

    def traced(self, now, *rules):
        command = ["strace", "-o", os.path.join(self.folder, "trace"), *rules, self.keepProgram, "backup", "--json",
                   "--quiet", "-j1", "--now", str(now), "--config", self.configuration]
        started = Started(command, self.images)
        self.addCleanup(self.end, started)
        return started

    def report_of(self, started):
        run = started.finish()
        report, = json.loads(run.out)["jobs"]
        return run.status, report

    def without_locks(self):
        lock = self.place_path(".kestrix-keep.lock")
        return self.report_of(self.traced(NOW, "-e", "trace=flock", "-e", "inject=flock:error=ENOLCK", "-P", lock))

    def test_a_folder_whose_file_system_knows_no_locks_is_refused(self):
        status, report = self.without_locks()
        self.assertEqual((status, self.image_names()), (FAILED, []))
        self.assertRegex(report["failure"], "knows no locks: folder-without-locks = true takes it nevertheless$")

    def test_a_folder_without_locks_is_taken_with_a_warning_where_the_job_allows_it(self):
        self.configure("folder-without-locks = true")
        status, report = self.without_locks()
        self.assertEqual((status, self.image_names()), (WELL, [NAME]))
        self.assertIn("its file system knows no locks; that no other run is there is not known",
                      "".join(report["warnings"]))

    def test_a_run_whose_new_folder_for_the_disk_another_run_took_for_a_dead_ones_makes_another(self):
        elsewhere = os.path.join(self.folder, "elsewhere")
        os.mkdir(elsewhere)
        self.configuration = shutil.copy2(self.configuration, os.path.join(self.folder, "slow.toml"))
        slow = self.traced(NOW, "-e", "trace=flock", "-e", "inject=flock:delay_enter=400ms")
        self.configure(folder=elsewhere)
        until = time.monotonic() + 1.5
        while slow.process.poll() is None and time.monotonic() < until:
            self.assertEqual(self.backup()[0], WELL)
        self.assertEqual(slow.finish().status, WELL)
        self.assertEqual(self.image_names(), [NAME])

    def test_nothing_is_let_go_when_the_chain_can_not_be_opened_for_the_audit_that_is_due(self):
        self.configure("keep = { last = 1 }")
        for i in range(2):
            self.well(NOW + i * DAY)
        # The base is opened to look at its head and to be read whole; the third time is for the audit of the chain.
        status, report = self.report_of(self.traced(NOW + 8 * DAY, "-e", "trace=openat", "-e",
                                                    "inject=openat:error=EIO:when=3+", "-P", self.place_path(NAME)))
        self.assertEqual((status, report["letGo"]), (FAILED, []), report)
        self.assertIn("the chain did not pass its audit: ", report["failure"])
        names = self.image_names()
        self.assertEqual(len(names), 3)
        # The next night only its head is looked at before the audit, which is still due.
        status, report = self.report_of(self.traced(NOW + 9 * DAY, "-e", "trace=openat", "-e",
                                                    "inject=openat:error=EIO:when=2+", "-P", self.place_path(NAME)))
        self.assertEqual((status, report["letGo"]), (FAILED, []), report)
        self.assertIn("the chain did not pass its audit: ", report["failure"])
        names = self.image_names()
        self.assertEqual(len(names), 4)
        self.assertEqual(sorted(self.backup(NOW + 10 * DAY)[1]["letGo"]), names[1:])

    def reads_of(self, path, now):
        """The reads of a file that a run makes, as strace has them; the folder is then as it was before."""
        before = self.place + "-before"
        shutil.copytree(self.place, before)
        self.assertEqual(self.report_of(self.traced(now, "-e", "trace=pread64", "-P", path))[0], WELL)
        shutil.rmtree(self.place)
        os.rename(before, self.place)
        with open(os.path.join(self.folder, "trace"), encoding="utf-8") as file:
            return [line for line in file if line.startswith("pread64(")]

    def with_failing_reads(self, path, now, which):
        return self.report_of(self.traced(now, "-e", "trace=pread64", "-P", path, "-e",
                                          f"inject=pread64:error=EIO:when={which}"))

    def test_an_image_that_can_not_be_read_is_not_damaged_and_nothing_counts_on_it_until_it_is_read_again(self):
        self.configure('keep = { last = 1 }\ncheck = { whole-every = "2d" }')
        thin = [self.well(NOW), self.well(NOW + DAY)][1]
        path = self.place_path(NAME)
        reads = self.reads_of(path, NOW + 2 * DAY)
        whole = next(i for i, line in enumerate(reads, 1) if f", {4 * MIB}, 0)" in line)
        for which in (1, whole):  # of its head, and of all of it
            with self.subTest(failing=which):
                for name in self.image_names()[2:]:
                    for one in (name, name + ".json"):
                        os.unlink(self.place_path(one))
                self.rewrite_sidecar(NAME, unread="", provedAt=NOW)
                status, report = self.with_failing_reads(path, NOW + 2 * DAY, f"{which}+")
                self.assertEqual((status, report["letGo"], self.sidecar(report["image"])["base"]), (FAILED, [], ""))
                self.assertIn("Input/output error", report["failure"])
                self.assertTrue(self.sidecar(NAME)["isSound"])
                self.assertIn("Input/output error", self.sidecar(NAME)["unread"])
        status, next_ = self.backup(NOW + 3 * DAY)
        self.assertIn(f"{NAME} could not be read, and is read whole again", next_["lines"])
        self.assertEqual((status, self.sidecar(next_["image"])["base"]), (WELL, report["image"]))
        self.assertEqual(sorted(next_["letGo"]), [NAME, thin])

    def test_a_chain_that_can_not_be_read_for_its_audit_is_not_damaged(self):
        self.configure('check = { whole-every = "2d" }')
        self.well()
        reads = len(self.reads_of(self.place_path(NAME), NOW + 2 * DAY))
        status, report = self.with_failing_reads(self.place_path(NAME), NOW + 2 * DAY, reads)
        self.assertEqual(status, FAILED)
        self.assertIn("the chain did not pass its audit: ", report["failure"])
        self.assertTrue(all(self.sidecar(name)["isSound"] for name in self.image_names()))
        self.assertEqual(self.sidecar(self.well(NOW + 3 * DAY))["base"], NAME)

    def test_an_image_that_can_not_be_brought_to_the_disk_gets_no_name(self):
        status, report = self.report_of(self.traced(NOW, "-e", "trace=fsync", "-e", "inject=fsync:error=EIO", "-P",
                                                    self.place_path(NAME + ".in-the-making")))
        self.assertEqual((status, self.image_names()), (FAILED, []))
        self.assertIn("it can't be brought to the disk: Input/output error", report["failure"])

    def test_a_chain_is_audited_as_one_no_more_often_than_is_due(self):
        for i in range(9):
            _, report = self.backup(NOW + i * DAY)
            isAudited = any("is audited as one" in line for line in report["lines"])
            self.assertEqual(isAudited, i == 7, report["lines"])

    def check_folder(self, disks):
        """Every image under its final name gives back a disk that there was, and has a sidecar or is let go."""
        names = os.listdir(self.place)
        for name in self.image_names():
            self.assertIn(bytes(kestrix_image.read_image(self.place_path(name)).disk()), disks)
            self.assertTrue(name + ".json" in names or name + ".json.let-go" in names, names)

    def second_night(self, content, *rules):
        """A run that makes an image and lets one go: its exit status, and the disk of before and of then."""
        for name in os.listdir(self.place):
            os.unlink(self.place_path(name))
        self.well()
        disks = [self.disk_bytes(1), self.change_disk(0, content)]
        return self.traced(NOW + DAY, *rules).finish().status, disks

    def test_a_run_that_is_killed_at_any_step_leaves_sound_images_and_the_next_one_goes_on(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "1d" }')
        kinds = "fsync,fdatasync,rename,renameat,renameat2,link,linkat,unlink,unlinkat"
        self.assertEqual(self.second_night(b"", "-e", f"trace={kinds}")[0], WELL)
        with open(os.path.join(self.folder, "trace"), encoding="utf-8") as file:
            calls = collections.Counter(re.findall(r"^(\w+)\(", file.read(), re.MULTILINE))
        self.assertGreater(sum(calls.values()), 12, calls)
        for kind, count in calls.items():
            for number in range(1, count + 1):
                with self.subTest(kind=kind, killedAt=number):
                    status, disks = self.second_night(f"{kind} {number}".encode(), "-e", f"trace={kind}", "-e",
                                                      f"inject={kind}:signal=KILL:when={number}")
                    self.assertEqual(status, -signal.SIGKILL)
                    self.check_folder(disks)
                    last = self.well(NOW + 2 * DAY)
                    self.check_folder(disks[1:])
                    self.assertEqual(self.names(), [last, last + ".json", "job.keep.json"])


class Bases(BackupTest):
    def test_a_base_whose_length_is_another_is_none_and_the_run_fails(self):
        self.well()
        with open(self.place_path(NAME), "ab") as file:
            file.write(b"more")
        status, report = self.backup(NOW + DAY)
        self.assertEqual(status, FAILED)
        self.assertEqual(self.sidecar(report["image"])["base"], "")
        self.assertIn(f"{NAME}: DAMAGED", report["failure"])

    def check_changed_password(self, scheme, names):
        """The image of the night after the password was changed stands on none of these."""
        self.assertEqual(self.backup(NOW + 3 * DAY, "--dry-run")[0], WELL)
        disk = self.change_disk(0, b"another night")
        status, report = self.backup(NOW + 3 * DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (WELL, ""), report)
        image = kestrix_image.read_image(self.place_path(report["image"]), b"second")
        self.assertTrue(image.disk() == disk)
        self.assertIn(f"does not open {names[0]}, which is as it was made: the password file was changed",
                      "".join(report["warnings"]))
        self.assertTrue(all(self.sidecar(name)["isSound"] for name in names))
        self.assertEqual(self.sidecar(self.well(NOW + 4 * DAY))["base"], report["image"], scheme)

    def test_no_image_stands_on_one_that_was_sealed_with_another_password(self):
        for scheme in ("full", "newest"):
            with self.subTest(scheme=scheme):
                for name in self.names():
                    os.unlink(self.place_path(name))
                self.configure(f'base = "{scheme}"\n{self.password("first")}')
                names = []
                for i in range(3):
                    self.change_disk(4 * MIB, b"%d" % i)
                    names.append(self.well(NOW + i * DAY))
                self.password("second")
                self.check_changed_password(scheme, names)

    def test_a_sealed_base_that_is_damaged_is_not_taken_for_one_with_another_password(self):
        self.configure(self.password("first"))
        self.well()
        kestrix_image.flip_byte(self.place_path(NAME), 64 + 2 * 72 + 5)
        status, report = self.backup(NOW + DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (FAILED, ""))
        self.assertIn("its SHA-256 is another", report["failure"])
        self.assertNotIn("password", "".join(report["warnings"]))
        self.assertFalse(self.sidecar(NAME)["isSound"])

    def test_a_base_that_is_another_image_is_none(self):
        self.well()
        self.change_disk(0, b"other")
        second = self.well(NOW + 60)
        shutil.copyfile(self.place_path(second), self.place_path(NAME))
        status, report = self.backup(NOW + DAY)
        self.assertEqual(status, FAILED)
        self.assertIn(NAME, report["failure"])

    def test_a_base_in_whose_place_another_image_of_equal_length_lies_is_none(self):
        self.configure('new-full = { every = "1d" }')
        first = self.well()
        self.change_disk(0, b"other")
        second = self.well(NOW + DAY)
        self.configure()
        self.assertEqual(os.path.getsize(self.place_path(first)), os.path.getsize(self.place_path(second)))
        shutil.copyfile(self.place_path(first), self.place_path(second))
        status, report = self.backup(NOW + 2 * DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (FAILED, first))
        self.assertIn(f"{second} is no base: it is another image than its sidecar tells of", report["lines"])

    def test_a_base_whose_trailer_names_another_base_is_none(self):
        self.configure('base = "newest"')
        first, second = self.well(), self.well(NOW + DAY)
        for field, value in (("base", "job-20261121T020005Z.kstx"), ("baseIdentity", "00" * 32)):
            with self.subTest(field=field):
                before = self.sidecar(second)
                self.rewrite_sidecar(second, **{field: value})
                run = self.keep("backup", "--dry-run", "--json", "--now", str(NOW + 2 * DAY), "--config",
                                self.configuration)
                lines = json.loads(run.out)["jobs"][0]["lines"]
                self.assertTrue(any(line.startswith(f"a thin image on {first}, ") for line in lines), lines)
                self.assertTrue(any(line.startswith(f"{second} is no base: ") for line in lines), lines)
                self.rewrite_sidecar(second, **before)

    def test_a_chain_that_does_not_pass_as_one_is_damaged_for_the_next_run_too(self):
        self.configure('keep = { last = 1 }')
        self.well()
        thin = self.well(NOW + DAY)
        kestrix_image.flip_byte(self.place_path(NAME), 64 + 2 * 72 + 5)
        self.rewrite_sidecar(NAME, sha256=hashlib.sha256(self.content(NAME)).hexdigest())
        status, report = self.backup(NOW + 8 * DAY)
        self.assertEqual((status, report["letGo"]), (FAILED, []))
        self.assertIn("the chain did not pass its audit: ", report["failure"])
        self.assertFalse(self.sidecar(NAME)["isSound"])
        status, next_ = self.backup(NOW + 9 * DAY)
        self.assertEqual((status, next_["letGo"]), (FAILED, []))
        self.assertIn(f"{NAME}: DAMAGED", next_["failure"])
        self.assertEqual(self.sidecar(next_["image"])["base"], "")
        self.assertTrue(os.path.exists(self.place_path(thin)))

    def test_a_base_that_was_deleted_makes_the_next_image_full_and_says_why(self):
        self.well()
        thin = self.well(NOW + DAY)
        os.unlink(self.place_path(NAME))
        status, report = self.backup(NOW + 2 * DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (FAILED, ""))
        self.assertTrue(any(f"{NAME} is no base: the image is gone" in line for line in report["lines"]), report)
        self.assertTrue(os.path.exists(self.place_path(thin)))

    def test_a_flipped_byte_is_found_when_the_chain_is_due_and_nothing_is_let_go(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "1d" }\ncheck = { whole-every = "2d" }')
        self.well()
        kestrix_image.flip_byte(self.place_path(NAME), 64 + 2 * 72 + 5)
        self.configure('keep = { last = 1 }\ncheck = { whole-every = "2d" }')
        self.well(NOW + DAY)
        status, report = self.backup(NOW + 3 * DAY)
        self.assertEqual(status, FAILED)
        self.assertIn("its SHA-256 is another", report["failure"])
        self.assertEqual(report["letGo"], [])
        self.assertFalse(self.sidecar(NAME)["isSound"])
        self.assertEqual(self.sidecar(report["image"])["base"], "")

    def test_another_disk_under_the_jobs_name_is_captured_in_full(self):
        self.configure(disk="1")
        self.well()
        self.card(1, {"serial": "SERIAL2"})
        status, report = self.backup(NOW + DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (WELL, ""))
        self.assertTrue(any("the disk is another: its serial is SERIAL2, not SERIAL1" in line
                            for line in report["lines"]), report)

    def test_a_disk_without_a_serial_is_told_by_its_model_and_warned_about(self):
        self.configure(disk="1")
        self.card(1, {"model": "One"})
        _, report = self.backup()
        self.assertIn("disk 1 has neither serial nor WWN", "".join(report["warnings"]))
        self.card(1, {"model": "Another"})
        status, report = self.backup(NOW + DAY)
        self.assertEqual((status, self.sidecar(report["image"])["base"]), (WELL, ""))
        self.assertIn("its model is Another, not One, and it has no serial", "".join(report["lines"]))
        self.card(1, {"model": "Another", "serial": "SERIAL1"})
        _, report = self.backup(NOW + 2 * DAY)
        self.assertNotIn("neither serial nor WWN", "".join(report["warnings"]))


class LettingGo(BackupTest):
    def test_what_no_rule_keeps_goes_with_its_sidecar_and_other_files_stay(self):
        self.configure('keep = { last = 2 }')
        for name in ("notes.txt", "other-20261101T020005Z.kstx", "job-20261101T020005Z.kstx"):
            with open(self.place_path(name), "wb") as file:
                file.write(b"not ours")
        names = [self.well(NOW + i * DAY) for i in range(4)]
        self.assertEqual(self.image_names(), sorted([names[0], names[2], names[3], "other-20261101T020005Z.kstx",
                                                     "job-20261101T020005Z.kstx"]))
        self.assertFalse(os.path.exists(self.place_path(names[1] + ".json")))
        self.assertTrue(os.path.exists(self.place_path("notes.txt")))

    def test_a_full_image_goes_when_nothing_stands_on_it_any_more(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "1d" }')
        self.well()
        status, report = self.backup(NOW + DAY)
        self.assertEqual((status, report["letGo"]), (WELL, [NAME]))
        self.assertEqual(self.image_names(), [report["image"]])

    def test_an_image_whose_sidecar_names_another_job_is_not_this_jobs_to_let_go(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "1d" }')
        self.well()
        self.rewrite_sidecar(NAME, job="another")
        _, report = self.backup(NOW + DAY)
        self.assertEqual(report["letGo"], [])
        self.assertEqual(self.image_names(), [NAME, report["image"]])

    def test_an_image_that_another_machine_made_is_no_base_and_stays_and_that_is_said(self):
        self.configure('keep = { last = 1 }')
        first, second = self.well(), self.well(NOW + DAY)
        self.rewrite_sidecar(first, machine="elsewhere")
        self.rewrite_sidecar(second, machine="elsewhere")
        for i in (2, 3):
            status, report = self.backup(NOW + i * DAY)
            self.assertEqual((status, len(self.image_names())), (WELL, i + 1), report)
            self.assertIn("2 images of this job's name were made by another machine, elsewhere",
                          "".join(report["warnings"]))
            isTold = f"{first} is no base: another machine made it, elsewhere" in report["lines"]
            self.assertEqual(isTold, i == 2)  # the night after there is a base, and nothing is looked at behind it
        self.assertEqual([self.sidecar(name)["base"] for name in self.image_names()],
                         ["", first, "", self.image_names()[2]])

    def test_a_dry_run_lets_nothing_go_and_takes_nothing_away(self):
        for i in range(3):
            self.well(NOW + i * DAY)
        with open(self.place_path("job-20261121T020005Z.kstx.in-the-making"), "wb") as file:
            file.write(b"half")
        before = {name: self.content(name) for name in os.listdir(self.place)}
        self.configure('keep = { last = 1 }')
        status, report = self.backup(NOW + 3 * DAY, "--dry-run")
        self.assertEqual((status, report["letGo"]), (WELL, []))
        self.assertTrue(any(line.startswith("let go: ") for line in report["lines"]), report)
        self.assertEqual({name: self.content(name) for name in os.listdir(self.place)}, before)


class BadCaptures(BackupTest):
    def setUp(self):
        super().setUp()
        self.sound = self.program + "-sound"
        os.rename(self.program, self.sound)

    def kestrix_that(self, text):
        """In place of kestrix, one whose last argument but options is the image that the true one has made."""
        with open(self.program, "w", encoding="ascii") as file:
            file.write('#!/bin/sh\nfolder=$(dirname "$0")\ncp "%s" "$folder/true"\n"$folder/true" "$@" || exit 1\n'
                       'while [ "$1" != --out ]; do shift; done\n%s\n' % (self.sound, text))
        os.chmod(self.program, stat.S_IRWXU)

    def make_it_sound(self):
        os.replace(self.sound, self.program)

    def test_an_image_that_does_not_pass_its_audit_gets_no_name_and_the_next_run_goes_on(self):
        self.kestrix_that("printf wrong | dd of=\"$2\" bs=1 seek=5000 conv=notrunc status=none")
        status, report = self.backup()
        self.assertEqual((status, report["image"], self.image_names()), (FAILED, None, []))
        self.assertRegex(report["failure"], "^the new image did not pass its audit: .*chunk 0")
        self.make_it_sound()
        self.assertEqual(self.names(), ["job.keep.json"])
        self.well(NOW + DAY)

    def test_damage_that_was_found_before_does_not_hide_why_there_is_no_image(self):
        self.kestrix_that("")
        self.well()
        kestrix_image.flip_byte(self.place_path(NAME), 64 + 2 * 72 + 5)
        self.kestrix_that("exit 1")
        _, report = self.backup(NOW + 8 * DAY)
        self.assertRegex(report["failure"], f"{NAME}: .*its SHA-256 is another$")
        self.assertIn("FAILED: kestrix ended with exit status 1", report["lines"])

    def test_a_folder_for_programs_that_others_can_change_is_not_used(self):
        told = os.path.join(self.folder, "told")
        self.kestrix_that(f'echo "$folder" > {told}')
        temporary = os.path.join(self.folder, "temporary")
        for mode, isUsed in ((0o700, True), (0o777, False)):
            with self.subTest(mode=oct(mode)), mock.patch.dict(os.environ, TMPDIR=temporary):
                os.makedirs(temporary, exist_ok=True)
                os.chmod(temporary, mode)
                self.well()
                with open(told, encoding="utf-8") as file:
                    self.assertEqual(file.read().startswith(temporary), isUsed)

    def test_an_image_of_a_kestrix_that_says_that_it_failed_gets_no_name(self):
        self.kestrix_that("exit 1")
        status, report = self.backup()
        self.assertEqual((status, report["image"], self.image_names()), (FAILED, None, []))
        self.assertRegex(report["failure"], "^kestrix ended with exit status 1$")


class DeadRuns(BackupTest):
    def test_what_a_dead_capture_left_is_removed(self):
        left = self.place_path("job-20261121T020005Z.kstx.in-the-making")
        with open(left, "wb") as file:
            file.write(b"half")
        _, report = self.backup()
        self.assertFalse(os.path.exists(left))
        self.assertTrue(any("this is what it left" in line for line in report["lines"]))

    def test_an_image_that_had_its_sidecar_gets_its_name(self):
        self.well()
        os.rename(self.place_path(NAME), self.place_path(NAME + ".in-the-making"))
        self.assertEqual(self.sidecar(self.well(NOW + DAY))["base"], NAME)

    def test_an_image_that_was_being_let_go_goes(self):
        self.well()
        second = self.well(NOW + DAY)
        os.rename(self.place_path(second + ".json"), self.place_path(second + ".json.let-go"))
        third = self.well(NOW + 2 * DAY)
        self.assertEqual(self.image_names(), [NAME, third])
        self.assertEqual([name for name in self.names() if second in name], [])

    def test_an_image_that_was_being_let_go_where_no_renaming_refuses_to_replace_goes_with_its_sidecar(self):
        self.well()
        second = self.well(NOW + DAY)
        os.link(self.place_path(second + ".json"), self.place_path(second + ".json.let-go"))
        third = self.well(NOW + 2 * DAY)
        self.assertEqual(self.names(), [NAME, NAME + ".json", third, third + ".json", "job.keep.json"])

    def test_what_can_not_be_removed_is_not_said_to_be(self):
        left = "job-20261121T020005Z.kstx.in-the-making"
        with open(self.place_path(left), "wb") as file:
            file.write(b"half")
        run = self.keep_under_strace("-e", "trace=unlink", "-e", "inject=unlink:error=EPERM", "-P",
                                     self.place_path(left))
        self.assertIn(b"it can't be put in order: Operation not permitted", run.out)
        self.assertNotIn(b"and it is removed", run.out)

    def keep_under_strace(self, *rules):
        started = Started(["strace", "-o", os.path.join(self.folder, "trace"), *rules, self.keepProgram, "backup",
                           "--quiet", "--now", str(NOW), "--config", self.configuration], self.images)
        self.addCleanup(self.end, started)
        return started.finish()

    def test_a_sidecar_does_not_stay_behind_alone_when_its_image_gets_no_name(self):
        self.keep_under_strace("-e", "trace=renameat2", "-e", "inject=renameat2:error=EIO")
        self.assertEqual(self.names(), ["job.keep.json"])
        self.well(NOW + DAY)

    def test_files_of_other_jobs_and_people_are_not_taken_for_leftovers(self):
        names = ["job2-20261121T020005Z.kstx.in-the-making", "job-x.in-the-making", "job-notes.unfinished",
                 "job-x.kstx.in-the-making", "job-x.kstx", "job-x.kstx.json.let-go", "job-x.json.7.unfinished"]
        for name in names:
            with open(self.place_path(name), "wb") as file:
                file.write(b"half")
        self.well()
        self.assertEqual([name for name in names if os.path.exists(self.place_path(name))], names)


class Programs(BackupTest):
    def hook(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(path, stat.S_IRWXU)
        return path

    def test_the_report_goes_to_the_program_that_wants_it(self):
        told = os.path.join(self.folder, "told")
        self.configure(f'on-success = ["{self.hook("good", "cat > " + told)}"]\n'
                       f'on-failure = ["{self.hook("bad", "exit 9")}"]')
        name = self.well()
        with open(told, encoding="utf-8") as file:
            report = json.load(file)
        self.assertEqual((report["image"], report["status"], report["job"]), (name, WELL, "job"))

    def test_a_failed_run_is_told_to_the_other_program(self):
        told = os.path.join(self.folder, "told")
        self.configure(f'on-failure = ["{self.hook("bad", "cat > " + told)}"]', disk='"serial:ANOTHER"')
        self.assertEqual(self.backup()[0], FAILED)
        with open(told, encoding="utf-8") as file:
            self.assertIn("ANOTHER", json.load(file)["failure"])

    def test_a_program_before_that_fails_ends_the_run(self):
        self.configure(f'before = ["{self.hook("before", "echo no; exit 3")}", "with", "arguments"]')
        status, report = self.backup()
        self.assertEqual((status, self.image_names()), (FAILED, []))
        self.assertRegex(report["failure"], "before: .* exit status 3$")

    def told_hooks(self):
        """Four programs that each write their name into a file; gives that file."""
        told = os.path.join(self.folder, "told")
        self.configure("\n".join(f'{key} = ["{self.hook(key, f"echo {key} >> {told}")}"]'
                                 for key in ("before", "after", "on-success", "on-failure")))
        return told

    def lines_of(self, path):
        if not os.path.exists(path):
            return []
        with open(path, encoding="ascii") as file:
            return file.read().split()

    def test_the_program_after_runs_where_the_one_before_failed(self):
        told = self.told_hooks()
        self.hook("before", f"echo before >> {told}; exit 3")
        self.assertEqual(self.backup()[0], FAILED)
        self.assertEqual(self.lines_of(told), ["before", "after", "on-failure"])

    def test_a_busy_run_runs_no_program(self):
        told = self.told_hooks()
        lock = self.place_path(".kestrix-keep.lock")
        with open(lock, "w", encoding="ascii"):
            pass
        holder = Refusals.Holder(self, lock)
        self.assertEqual(self.backup()[0], BUSY)
        self.assertEqual(self.lines_of(told), [])
        holder.close()
        self.well()
        self.assertEqual(self.lines_of(told), ["before", "after", "on-success"])

    def test_a_run_that_another_one_overtakes_during_its_program_before_runs_no_other(self):
        told = self.told_hooks()
        lock = self.place_path(".kestrix-keep.lock")
        self.hook("before", f"echo before >> {told}; (exec 9>{lock}; flock 9; sleep 3) >/dev/null 2>&1 & sleep 0.5")
        self.assertEqual(self.backup()[0], BUSY)
        self.assertEqual(self.lines_of(told), ["before"])

    def test_a_program_that_leaves_another_one_running_does_not_hold_the_run(self):
        self.configure(f'on-success = ["{self.hook("good", "sleep 600 & exit 0")}"]')
        self.well()


class StatusTest(BackupTest):
    def status(self, now, *arguments):
        run = self.keep("status", "--json", "--now", str(now), "--config", self.configuration, *arguments)
        said = json.loads(run.out)
        form_of("status").validate(said)
        state, = said["jobs"]
        return run.status, state

    def test_a_job_without_an_image_is_not_well(self):
        status, state = self.status(NOW)
        self.assertEqual((status, state["problems"]), (FAILED, ["there is no sound image"]))

    def test_a_good_image_is_named_with_when_the_next_is_due(self):
        self.well()
        status, state = self.status(NOW + 3600)
        self.assertEqual((status, state["problems"], state["isOverdue"]), (WELL, [], False))
        self.assertEqual((state["lastGood"], state["lastGoodAt"], state["dueAt"]), (NAME, NOW, NOW + DAY))
        self.assertEqual((state["images"], state["chainLength"]), (1, 1))
        self.assertEqual(state["usedBytes"], os.path.getsize(self.place_path(NAME)))

    def test_a_job_is_overdue_after_half_as_much_time_again(self):
        self.well()
        self.assertEqual(self.status(NOW + 36 * 3600)[0], WELL)
        status, state = self.status(NOW + 36 * 3600 + 1)
        self.assertEqual((status, state["isOverdue"]), (FAILED, True))
        self.assertEqual(state["problems"], ["the last sound image is 36 hours old"])

    def test_a_failed_run_is_told_until_the_next_good_one(self):
        self.well()
        os.rename(self.disk_path(1), self.disk_path(1) + ".away")
        self.backup(NOW + 60)
        status, state = self.status(NOW + 120)
        self.assertEqual(status, FAILED)
        self.assertRegex(state["problems"][0], "^the last run failed: .*SERIAL1")
        os.rename(self.disk_path(1) + ".away", self.disk_path(1))
        self.well(NOW + 180)
        self.assertEqual(self.status(NOW + 240)[0], WELL)

    def test_a_damaged_image_is_told(self):
        self.well()
        os.truncate(self.place_path(NAME), 1000)
        status, state = self.status(NOW + 60)
        self.assertEqual((status, state["damagedImages"], state["lastGood"]), (FAILED, 1, None))

    def test_an_image_that_was_being_let_go_is_none_any_more(self):
        self.well()
        second = self.well(NOW + DAY)
        os.rename(self.place_path(second + ".json"), self.place_path(second + ".json.let-go"))
        _, state = self.status(NOW + DAY)
        self.assertEqual((state["images"], state["lastGood"], state["damagedImages"]), (1, NAME, 0))

    def test_the_lines_for_a_person_say_the_same(self):
        self.well()
        run = self.keep("status", "--now", str(NOW + 3600), "--config", self.configuration)
        self.assertIn(f"job: well\n  disk: serial:SERIAL1\n  last good image: {NAME}, 1 hour old\n".encode(), run.out)

    def test_the_file_for_monitoring_has_each_figure_in_its_form(self):
        self.well()
        path = os.path.join(self.folder, "kestrix.prom")
        self.assertEqual(self.status(NOW, "--prometheus", path)[0], WELL)
        with open(path, encoding="utf-8") as file:
            text = file.read()
        line = re.compile(r'# (HELP|TYPE) [a-z_]+ .+|[a-z_]+(\{job="job"\})? [0-9]+')
        self.assertTrue(text.endswith("\n"))
        for one in text[:-1].split("\n"):
            self.assertRegex(one, f"^(?:{line.pattern})$")
        self.assertIn(f'kestrix_job_last_good_timestamp_seconds{{job="job"}} {NOW}\n', text)
        self.assertIn('kestrix_job_well{job="job"} 1\n', text)
        self.assertIn(f"kestrix_status_timestamp_seconds {NOW}\n", text)
        self.assertIn("kestrix_configuration_read 1\n", text)

    def monitored(self, now=NOW):
        path = os.path.join(self.folder, "kestrix.prom")
        run = self.keep("status", "--now", str(now), "--config", self.configuration, "--prometheus", path)
        with open(path, encoding="utf-8") as file:
            return run.status, file.read()

    def test_a_configuration_that_can_not_be_read_is_told_in_the_file_for_monitoring_too(self):
        self.well()
        self.monitored()
        self.configure("no-such-key = 1\n")
        status, text = self.monitored(NOW + 60)
        self.assertEqual(status, COMMAND_LINE)
        self.assertIn("kestrix_configuration_read 0\n", text)
        self.assertIn(f"kestrix_status_timestamp_seconds {NOW + 60}\n", text)
        self.assertNotIn("kestrix_job_well{", text)

    def test_room_that_is_not_known_is_no_figure(self):
        self.well()
        self.assertIn("kestrix_job_free_bytes{", self.monitored()[1])
        os.rename(self.place_path(""), self.place_path("")[:-1] + ".away")
        text = self.monitored()[1]
        self.assertNotIn("kestrix_job_free_bytes{", text)
        self.assertIn('kestrix_job_well{job="job"} 0\n', text)

    def test_a_proof_from_the_future_is_none(self):
        self.well()
        self.rewrite_sidecar(NAME, provedAt=NOW + 30 * DAY)
        status, state = self.status(NOW + 60)
        self.assertEqual((status, state["chainProvedAt"]), (FAILED, 0))
        self.assertEqual(state["problems"], ["the chain of the last image: when it was last read whole is not known"])
