"""kestrix-keep backup: calls that fail, captures that are no good, and what runs that died left behind."""
import collections
import os
import re
import shutil
import signal
import stat
import time
from unittest import mock

import kestrix_image
from harness import MIB
from keep_job import DAY, NAME, NOW, JobTest
from keep_machine import FAILED, WELL


class FailingCalls(JobTest):
    """The program under strace, which makes its calls fail or wait."""

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


class BadCaptures(JobTest):
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


class DeadRuns(JobTest):
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

    def test_an_image_that_had_its_sidecar_and_no_name_yet_is_not_called_gone(self):
        first, second = self.well(), self.well(NOW + DAY)
        os.rename(self.place_path(second), self.place_path(second + ".in-the-making"))
        status, said = self.ask("status", "--now", str(NOW + DAY), "--config", self.configuration)
        job, = said["jobs"]
        self.assertEqual((status, job["problems"], job["damagedImages"], job["images"], job["lastGood"]),
                         (WELL, [], 0, 1, first))

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
        run = self.traced(NOW, "-e", "trace=unlink", "-e", "inject=unlink:error=EPERM", "-P", self.place_path(left),
                          options=()).finish()
        self.assertIn(b"it can't be put in order: Operation not permitted", run.out)
        self.assertNotIn(b"and it is removed", run.out)

    def test_a_sidecar_does_not_stay_behind_alone_when_its_image_gets_no_name(self):
        self.traced(NOW, "-e", "trace=renameat2", "-e", "inject=renameat2:error=EIO", options=()).finish()
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
