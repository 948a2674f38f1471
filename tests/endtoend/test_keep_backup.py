"""kestrix-keep backup: one run of a job, what it refuses, and the programs that it runs around itself."""
import hashlib
import json
import os
import stat
import time
from unittest import mock

import kestrix_image
from harness import MIB, needs, why_no_loop_devices, why_no_mounts
from keep_job import DAY, DISK, NAME, NOW, JobTest
from keep_machine import BUSY, COMMAND_LINE, FAILED, WELL


class OneRun(JobTest):
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
        decided = f"kept: {NAME}: a kept image stands on it"
        self.assertIn(decided.encode(), run.out)
        self.assertEqual({name: self.content(name) for name in os.listdir(self.place)}, before)
        self.assertIn(decided, self.backup(NOW + DAY)[1]["lines"])

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


class Refusals(JobTest):
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
        self.refused("^.*: there is room for .*, and the image may take .*; .*Make room: .*each with its sidecar$")

    @needs(why_no_mounts)
    def test_what_a_dead_run_left_is_no_room_that_is_missing(self):
        small = self.small_file_system("80m")
        self.configure(folder=small)
        half = os.path.join(small, "job-20261121T020005Z.kstx.in-the-making")
        with open(half, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, 20 * MIB)
        self.assertEqual(self.backup()[0], WELL)

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
        lock = self.hold_lock()
        status, report = self.backup()
        self.assertEqual((status, report["image"]), (BUSY, None))
        self.assertRegex(report["failure"], "another run holds it$")
        lock.close()
        self.well()


class Programs(JobTest):
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

    def test_a_program_before_that_fails_is_what_status_tells_of_the_last_run(self):
        self.well()
        self.configure(f'before = ["{self.hook("before", "exit 3")}"]')
        self.assertEqual(self.backup(NOW + 60)[0], FAILED)
        _, said = self.ask("status", "--now", str(NOW + 120), "--config", self.configuration)
        self.assertRegex(said["jobs"][0]["problems"][0], "^the last run failed: before: .* exit status 3$")

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
        lock = self.hold_lock()
        self.assertEqual(self.backup()[0], BUSY)
        self.assertEqual(self.lines_of(told), [])
        lock.close()
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
