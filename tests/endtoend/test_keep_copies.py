"""kestrix-keep's copies: in folders, and by rclone over the network protocols of its own servers."""
import json
import os
import re
import shutil
import socket
import time

import kestrix_image
from harness import MIB, why_no_mounts, needs
from keep_job import DAY, NAME, NOW
from keep_machine import COMMAND_LINE, FAILED, WELL
from keep_remotes import CopiesTest, RemoteTest, under_way

FULL_EACH_DAY = 'new-full = { every = "1d" }\n'
OTHERS_SIDECAR = {
    "form": 1, "job": "job", "number": 7, "startedAt": NOW, "endedAt": NOW, "startedLocal": "", "base": "",
    "baseIdentity": "", "identity": "", "fileBytes": 9, "sha256": "0" * 64, "chunks": 1, "storedChunks": 1,
    "disk": {"model": "", "serial": "", "wwn": "", "sizeBytes": 0, "sectorBytes": 512}, "isSealed": False,
    "captureLines": [], "notes": [], "isSound": True, "damage": "", "provedAt": NOW, "mayNotBeBase": ""}


class Folders(CopiesTest):
    def setUp(self):
        super().setUp()
        self.copy_to(self.there)

    def write_there(self, name, content):
        with open(self.there_path(name), "wb") as file:
            file.write(content)

    def sidecar_by(self, machine, **fields):
        """The bytes of a sidecar as another job's of that machine would be, were it of this job's name."""
        return json.dumps({**OTHERS_SIDECAR, "machine": machine, **fields}).encode()

    def copy_to(self, to, more="", job=""):
        self.configure(f'copies = [{{ to = "{to}"{more} }}]\n{job}')

    def test_each_image_and_its_sidecar_lie_there_to_the_byte(self):
        first = self.well()
        second = self.well(NOW + DAY)
        self.assertEqual(self.there_names(), sorted([first, first + ".json", second, second + ".json"]))
        self.check_same(first, second)

    def test_what_was_missed_is_made_up_for_bases_first(self):
        os.rename(self.there, self.there + ".away")
        status, report = self.backup()
        self.assertEqual(status, WELL)
        self.assertTrue(any("it is made up for next time" in line for line in report["warnings"]), report)
        second = self.well(NOW + DAY)
        os.rename(self.there + ".away", self.there)
        _, report = self.backup(NOW + 2 * DAY)
        copied = [line.split()[1] for line in report["lines"] if line.startswith("copied: ")]
        self.assertEqual(copied, [NAME, second, report["image"]])

    def test_a_place_lets_go_by_rules_of_its_own(self):
        self.copy_to(self.there, ", keep = { last = 1 }", 'new-full = { every = "1d" }')
        names = [self.well(NOW + i * DAY) for i in range(3)]
        self.assertEqual(self.there_names(), [names[2], names[2] + ".json"])
        self.assertEqual(self.image_names(), names)

    @needs(why_no_mounts)
    def test_a_copy_stays_while_one_that_stands_on_it_can_not_go_though_the_clock_was_put_back(self):
        self.copy_to(self.there, ", keep = { last = 1 }", 'new-full = { every = "2d" }')
        first = self.well()
        second = self.well(NOW - 3600)
        self.assertEqual((self.sidecar(second)["base"], second < first), (first, True))
        held = self.there_path(second)
        self.must("mount", "--bind", held, held)
        try:
            _, report = self.backup(NOW + 3 * DAY)
        finally:
            self.must("umount", held)
        self.assertIn("busy", "".join(report["warnings"]))
        self.assertLessEqual({first, second, report["image"]}, set(self.there_names()))

    def damage_there(self, name):
        kestrix_image.flip_byte(self.there_path(name), 64 + 2 * 72 + 5)

    def test_what_is_damaged_there_is_found_and_copied_again_before_anything_goes(self):
        self.copy_to(self.there, ", keep = { last = 1 }", 'check = { whole-every = "3d" }')
        self.well()
        self.damage_there(NAME)
        for i in (1, 2):  # it was compared when it was copied
            self.assertNotIn("DAMAGED", "".join(self.backup(NOW + i * DAY)[1]["warnings"]))
        _, report = self.backup(NOW + 3 * DAY)
        self.assertRegex("".join(report["warnings"]), "its SHA-256 is .*: the copy is DAMAGED, and is made once more")
        self.check_same(NAME, report["image"])
        self.assertEqual(len(self.there_names()), 4)
        self.damage_there(NAME)
        self.assertNotIn("DAMAGED", "".join(self.backup(NOW + 4 * DAY)[1]["warnings"]))

    def test_one_image_that_can_not_be_copied_does_not_keep_the_others_from_a_place(self):
        self.copy_to("/nowhere", job='new-full = { every = "2d" }')
        first, second = self.well(), self.well(NOW + DAY)
        kestrix_image.flip_byte(self.place_path(first), 64 + 2 * 72 + 5)
        self.copy_to(self.there, job='new-full = { every = "2d" }')
        _, report = self.backup(NOW + 2 * DAY)
        self.assertEqual([name for name in self.there_names() if not name.endswith(".copying")],
                         [report["image"], report["image"] + ".json"])
        told = "".join(report["warnings"])
        self.assertIn(f"{first}: it is no longer what was written, and is not copied", told)
        self.assertIn(f"{second} is not copied, since {first}, which it stands on, was not", told)

    def test_the_jobs_own_folder_by_another_name_is_no_place_for_copies(self):
        link = os.path.join(self.folder, "link")
        os.symlink(self.place, link)
        self.copy_to(link)
        status, report = self.backup()
        self.assertEqual((status, self.names()), (FAILED, [NAME, NAME + ".json", "job.keep.json"]))
        self.assertIn("it is the folder of the images themselves", report["failure"])

    @needs(why_no_mounts)
    def test_where_a_place_lies_is_not_learnt_from_a_copy_that_failed(self):
        self.must("mount", "-t", "tmpfs", "-o", "size=1m", "kestrix-small", self.there)
        try:
            self.assertIn("No space left", "".join(self.backup()[1]["warnings"]))
        finally:
            self.must("umount", self.there)
        self.well(NOW + DAY)
        self.assertEqual(len(self.there_names()), 4)

    def test_other_files_there_stay(self):
        self.copy_to(self.there, ", keep = { last = 1 }", 'new-full = { every = "1d" }')
        others = ["job-20260101T020005Z.kstx", "note.txt", "job2-20260101T020005Z.kstx.copying"]
        for name in others:
            with open(os.path.join(self.there, name), "wb") as file:
                file.write(b"not ours")
        self.well()
        self.well(NOW + DAY)
        self.assertEqual([name for name in others if os.path.exists(os.path.join(self.there, name))], others)

    def test_half_a_copy_of_a_dead_run_is_taken_away(self):
        for name in (under_way(NAME), under_way(NAME) + ".77.unfinished", under_way(NAME + ".json"),
                     under_way(NAME + ".json") + ".77.unfinished", under_way("job-20260101T020005Z.kstx")):
            self.write_there(name, b"half")
        self.write_there("job-20260101T020005Z.kstx.json", self.sidecar_by(socket.gethostname()))
        self.well()
        self.assertEqual(self.there_names(), [NAME, NAME + ".json"])

    @needs(why_no_mounts)
    def test_a_place_that_is_full_costs_a_line_and_leaves_no_image_there(self):
        small = self.small_file_system("1m")
        self.copy_to(small)
        status, report = self.backup()
        self.assertEqual((status, os.listdir(small)), (WELL, []))
        self.assertTrue(any("No space left" in line for line in report["warnings"]), report)

    @needs(why_no_mounts)
    def test_a_place_whose_disk_is_not_mounted_any_more_is_not_written_to(self):
        self.must("mount", "-t", "tmpfs", "kestrix-usb", self.there)
        try:
            self.well()
        finally:
            self.must("umount", self.there)
        _, report = self.backup(NOW + DAY)
        self.assertTrue(
            any("lay on kestrix-usb when it was copied to last" in line for line in report["warnings"]), report)
        self.assertEqual(self.there_names(), [])

    @needs(why_no_mounts)
    def test_a_new_disk_and_disks_that_take_turns_are_taken_where_must_be_names_them(self):
        self.mount_there("kestrix-usb")
        first = self.well()
        self.mount_there("kestrix-second")
        _, report = self.backup(NOW + DAY)
        self.assertRegex(report["warnings"][-1], 'let the place\'s must-be name it: must-be = "source:kestrix-second"')
        self.assertEqual(self.there_names(), [])
        self.copy_to(self.there, ', must-be = "source:kestrix-second"')
        self.well(NOW + 2 * DAY)
        self.assertIn(first, self.there_names())
        self.copy_to(self.there, ', must-be = ["source:kestrix-second", "source:kestrix-usb"]')
        self.mount_there("kestrix-usb")
        self.well(NOW + 3 * DAY)
        self.assertEqual(len(self.there_names()), 8)
        self.mount_there(None)
        _, report = self.backup(NOW + 4 * DAY)
        self.assertRegex(report["warnings"][-1], "which its must-be does not name: is its disk mounted\\? If what is ")
        self.assertEqual(self.there_names(), [])

    @needs(why_no_mounts)
    def test_what_was_compared_on_one_of_the_disks_that_take_turns_is_not_believed_of_the_other(self):
        self.copy_to(self.there, ', must-be = ["source:kestrix-a", "source:kestrix-b"], keep = { last = 1 }',
                     FULL_EACH_DAY)
        self.mount_there("kestrix-a")
        self.well()
        self.mount_there("kestrix-b")
        self.well(NOW + DAY)
        compared = self.memory()["places"][self.there]["compared"]
        self.assertEqual(list(compared), self.there_names()[:1])

    def mount_there(self, source):
        """A new file system at the place, in the place of the one before."""
        if os.path.ismount(self.there):
            self.must("umount", self.there)
        if source:
            self.must("mount", "-t", "tmpfs", source, self.there)
            self.addCleanup(lambda: os.path.ismount(self.there) and self.must("umount", self.there))

    def memory(self):
        with open(self.place_path("job.keep.json"), encoding="utf-8") as file:
            return json.load(file)

    def status(self, now):
        run = self.keep("status", "--json", "--now", str(now), "--config", self.configuration)
        state, = json.loads(run.out)["jobs"]
        self.assertEqual(run.status, WELL if state["isWell"] else FAILED)
        return state["problems"]

    def test_a_time_from_the_future_is_none_at_which_a_place_had_all_copies(self):
        self.well(NOW)
        self.well(NOW + 365 * DAY)
        os.rename(self.there, self.there + ".away")
        self.backup(NOW + DAY)
        self.assertIn(f"{self.there}: it never had all the copies that it should", self.status(NOW + DAY))

    def test_damage_that_copying_finds_is_known_from_then_on_and_nothing_goes(self):
        self.copy_to("/nowhere", job=FULL_EACH_DAY)
        first, second = self.well(), self.well(NOW + DAY)
        kestrix_image.flip_byte(self.place_path(first), 64 + 2 * 72 + 5)
        self.copy_to(self.there, job=FULL_EACH_DAY + "keep = { last = 1 }")
        status, report = self.backup(NOW + 2 * DAY)
        self.assertEqual((status, report["letGo"], len(self.image_names())), (FAILED, [], 3), report)
        self.assertEqual(report["failure"], f"{first}: it is no longer what was written: its SHA-256 is another")
        self.assertFalse(self.sidecar(first)["isSound"])
        self.assertIn(second, self.there_names())

    def test_an_image_that_can_not_be_read_while_it_is_copied_is_to_be_read_again(self):
        self.copy_to("/nowhere", job=FULL_EACH_DAY)
        first, second = self.well(), self.well(NOW + DAY)
        self.copy_to(self.there, job=FULL_EACH_DAY)
        status, report = self.report_of(self.traced(
            NOW + 2 * DAY, "-e", "trace=pread64", "-P", self.place_path(first), "-e",
            "inject=pread64:error=EIO:when=1+"))
        self.assertEqual(status, FAILED)
        self.assertIn("Input/output error. That is no verdict on the image", report["failure"])
        self.assertIn("Input/output error", self.sidecar(first)["unread"])
        self.assertTrue(self.sidecar(first)["isSound"])
        self.assertEqual([name for name in self.there_names() if name.endswith(".kstx")], [second, report["image"]])

    def test_nothing_goes_at_a_place_while_an_image_in_the_folder_is_damaged(self):
        self.copy_to(self.there, ", keep = { last = 1 }", FULL_EACH_DAY)
        first, second = self.well(), self.well(NOW + DAY)
        self.rewrite_sidecar(first, isSound=False, damage="it is rotten")
        status, report = self.backup(NOW + 2 * DAY)
        self.assertEqual(status, FAILED)
        self.assertIn(second, self.there_names())
        self.assertIn(f"kept at {self.there}: {second}: nothing goes while an image in the job's own folder is damaged",
                      report["lines"])

    def test_decisions_at_a_place_are_told_with_their_reasons(self):
        self.copy_to(self.there, ", keep = { last = 1 }", FULL_EACH_DAY)
        first = self.well()
        _, report = self.backup(NOW + DAY)
        told = [line for line in report["lines"] if f" at {self.there}: " in line]
        self.assertEqual(told, [f"kept at {self.there}: {report['image']}: the newest sound image; number 1 of the "
                                "last 1", f"let go at {self.there}: {first}: no rule keeps it"])

    def test_what_lacks_the_first_image_of_its_chain_there_is_not_the_newest_sound_one(self):
        self.copy_to(self.there, job=FULL_EACH_DAY)
        old, base = self.well(), self.well(NOW + DAY)
        chain = 'base = "newest"'
        self.copy_to(self.there, job=chain)
        for i in (2, 3):
            self.well(NOW + i * DAY)
        for name in (base, base + ".json"):
            os.unlink(self.there_path(name))
        os.mkdir(self.there_path(under_way(base)))  # so that it can't be copied
        self.copy_to(self.there, ", keep = { last = 1 }", chain)
        _, report = self.backup(NOW + 4 * DAY)
        self.assertIn(f"kept at {self.there}: {old}: the newest sound image; number 1 of the last 1", report["lines"])
        os.rmdir(self.there_path(under_way(base)))
        self.well(NOW + 5 * DAY)
        self.assertNotIn(old, self.there_names())
        self.check_same(base)

    def test_a_copy_that_was_removed_to_be_made_anew_does_not_stand_for_the_newest(self):
        self.copy_to(self.there, job=FULL_EACH_DAY)
        old, newest = self.well(), self.well(NOW + DAY)
        os.unlink(self.there_path(newest + ".json"))
        os.mkdir(self.there_path(newest + ".json"))  # so that it fails when the old one has gone
        self.copy_to(self.there, ", keep = { last = 1 }")
        _, report = self.backup(NOW + 2 * DAY)
        self.assertNotIn(newest, self.there_names())
        self.assertIn(old, self.there_names(), report)
        os.rmdir(self.there_path(newest + ".json"))
        self.well(NOW + 3 * DAY)
        self.assertNotIn(old, self.there_names())
        self.check_same(newest)

    def test_a_copy_that_is_cut_off_and_no_longer_here_is_told_with_what_to_do(self):
        self.copy_to(self.there, job=FULL_EACH_DAY)
        first, second = self.well(), self.well(NOW + DAY)
        for name in (first, first + ".json"):
            os.unlink(self.place_path(name))
        os.truncate(self.there_path(first), 1000)
        self.copy_to(self.there, ", keep = { last = 1 }", FULL_EACH_DAY)
        _, report = self.backup(NOW + 2 * DAY)
        told = (f"{self.there}: {first}: it has 1000 bytes, not the [0-9]+ that it was made with: the copy is DAMAGED; "
                "nothing goes there any more before it is removed, with its sidecar$")
        self.assertRegex(report["warnings"][-1], told)
        self.assertRegex(self.status(NOW + 2 * DAY)[0], told)
        self.assertIn(second, self.there_names())
        for name in (first, first + ".json"):
            os.unlink(self.there_path(name))
        third = self.well(NOW + 3 * DAY)
        self.assertEqual((self.there_names(), self.status(NOW + 3 * DAY)), ([third, third + ".json"], []))

    # A place that another machine has too

    def test_what_another_machine_has_under_way_there_stays(self):
        other = "job-20260101T020005Z.kstx"
        for name in (under_way(other, "elsewhere"), under_way(other + ".json", "elsewhere") + ".77.unfinished",
                     under_way(NAME, "elsewhere")):
            self.write_there(name, b"half")
        self.write_there(other + ".json", self.sidecar_by("elsewhere"))
        before = self.there_names()
        self.well()
        self.assertEqual(self.there_names(), sorted([*before, NAME, NAME + ".json"]))

    def test_an_image_of_another_machine_that_has_the_name_stays_and_is_told(self):
        self.copy_to("/nowhere")
        self.well()
        length = os.path.getsize(self.place_path(NAME))
        for bytes_, sidecar in ((9, True), (length, True), (9, False)):
            with self.subTest(bytes=bytes_, sidecar=sidecar):
                content = {NAME: b"x" * bytes_}
                if sidecar:
                    content[NAME + ".json"] = self.sidecar_by("elsewhere", fileBytes=bytes_)
                shutil.rmtree(self.there)
                os.mkdir(self.there)
                for name, one in content.items():
                    self.write_there(name, one)
                self.copy_to(self.there, ", keep = { last = 1 }")
                _, report = self.backup(NOW + DAY)
                told = "".join(report["warnings"])
                self.assertIn(f"{NAME}: there is one of this name already, and nothing says that it is this", told)
                self.assertIn(f"is not copied, since {NAME}, which it stands on, was not", told)
                for name in self.there_names():
                    with open(self.there_path(name), "rb") as file:
                        self.assertEqual(file.read(), content[name])

    def test_an_image_that_another_machine_copies_meanwhile_is_not_replaced(self):
        started = self.traced(NOW, "-e", "trace=fsync", "-e", "inject=fsync:delay_enter=200ms")
        while not any(".copying" in name for name in self.there_names()):
            self.assertIsNone(started.process.poll())
            time.sleep(0.01)
        self.write_there(NAME + ".json", self.sidecar_by("elsewhere"))
        self.write_there(NAME, b"elsewhere")
        _, report = self.report_of(started)
        self.assertIn("another machine copied one of this name meanwhile", "".join(report["warnings"]))
        with open(self.there_path(NAME), "rb") as file:
            self.assertEqual(file.read(), b"elsewhere")

    def test_status_tells_of_a_place_that_lags(self):
        self.well()
        shutil.rmtree(self.there)
        for i in (1, 2):
            self.well(NOW + i * DAY)
        run = self.keep("status", "--json", "--now", str(NOW + 2 * DAY), "--config", self.configuration)
        state, = json.loads(run.out)["jobs"]
        self.assertEqual((run.status, state["problems"]),
                         (FAILED, [f"{self.there}: it last had all copies 48 hours ago"]))


class Remotes(RemoteTest):
    def check_protocol(self, protocol):
        self.serve(protocol)
        self.copy_by(protocol)
        first = self.well()
        second = self.well(NOW + DAY)
        self.assertEqual(self.there_names(), sorted([first, first + ".json", second, second + ".json"]))
        self.check_same(first, second)

    def test_images_go_over_webdav(self):
        self.check_protocol("webdav")

    def test_images_go_over_sftp(self):
        self.check_protocol("sftp")

    def test_a_plain_image_does_not_go_to_a_remote_unasked(self):
        self.serve()
        self.copy_by("webdav", "")
        run = self.keep("backup", "--config", self.configuration)
        self.assertEqual(run.status, COMMAND_LINE)
        self.assertRegex(run.err, b"plain-ok = true\n$")

    def test_a_server_that_is_gone_costs_a_line_and_is_made_up_for(self):
        process = self.serve()
        self.copy_by()
        process.kill()
        process.wait()
        status, report = self.backup()
        self.assertEqual(status, WELL)
        self.assertTrue(any("rclone" in line for line in report["warnings"]), report)

    def test_where_a_new_name_means_another_copy_that_one_is_compared_too(self):
        self.environment("RCLONE_DISABLE", "Move,Copy")  # as a remote that has neither
        self.serve()
        passage = self.passage()
        self.copy_by(port=passage.port)
        first = self.well()
        self.check_same(first)
        os.unlink(self.there_path(first))
        bytesOnce = passage.passed["up"] // 2
        passage.flips("up", bytesOnce + os.path.getsize(self.place_path(first)) // 2)
        _, report = self.backup(NOW + DAY)
        self.missed(report, first)
        self.assertNotIn(first, self.there_names(), "what is not what it should be has no image's name")
        self.assertTrue(passage.hasFlipped)

    def test_a_copy_that_lost_its_sidecar_is_made_anew(self):
        self.serve()
        self.copy_by()
        first = self.well()
        os.unlink(os.path.join(self.there, first + ".json"))  # so that it is copied again
        kestrix_image.flip_byte(os.path.join(self.there, first), 100)
        self.well(NOW + DAY)
        self.check_same(first)

    def test_a_sidecar_that_is_cut_off_on_its_way_leaves_the_one_before(self):
        process = self.serve()
        passage = self.passage()
        self.copy_by(port=passage.port)
        first = self.well()
        self.rewrite_sidecar(first, notes=["a note" * 100000])
        # What has arrived is written before the server ends.
        passage.happens("up", 400000, lambda: (time.sleep(1), process.kill(), passage.cut()))
        self.missed(self.backup(NOW + DAY)[1], "rclone copyto ended with exit status")
        process.wait()
        status, said = self.ask("status", "--place", self.there, "--now", str(NOW + DAY))
        self.assertEqual((status, said["jobs"][0]["lastGood"]), (WELL, first))
        passage.happens("up", None, None)
        self.serve()
        self.well(NOW + 2 * DAY)
        self.check_same(*self.image_names())

    def test_between_two_sidecars_the_new_one_counts_and_gets_its_name_from_the_next_run(self):
        self.serve()
        self.copy_by()
        first = self.well()
        inode = os.stat(self.there_path(first)).st_ino
        os.rename(self.there_path(first + ".json"), self.there_path(under_way(first + ".json")))
        _, said = self.ask("status", "--place", self.REMOTE, "--now", str(NOW))
        self.assertEqual((said["jobs"][0]["isWell"], said["jobs"][0]["lastGood"]), (True, first))
        second = self.well(NOW + DAY)
        self.check_same(first, second)
        self.assertEqual(os.stat(self.there_path(first)).st_ino, inode)
        self.assertEqual(len(self.there_names()), 4)

    def test_a_new_sidecar_as_long_as_the_one_before_takes_its_place(self):
        self.serve()
        self.copy_by()
        first = self.well()
        os.unlink(self.there_path(first))  # so that it is copied again
        self.rewrite_sidecar(first, provedAt=self.sidecar(first)["provedAt"] + 1)
        with open(self.there_path(first + ".json"), "wb") as file:
            file.write(self.content(first + ".json").replace(b"true", b"null"))
        self.well(NOW + DAY)
        self.check_same(first)

    def plain_then_sealed(self, more=""):
        self.remote()
        self.configure(f'copies = [{{ to = "{self.REMOTE}" }}]\n{self.password("secret")}\n{more}')

    def test_of_a_job_that_was_plain_first_what_is_sealed_goes_from_the_next_full_image_on(self):
        self.serve()
        first = self.well()
        self.plain_then_sealed()
        _, report = self.backup(NOW + DAY)
        self.missed(report, "what was made before password-file was set, and what stands on it, does not go to a "
                            f"remote: {first} and 1 image more; the first full image that is sealed does")
        self.plain_then_sealed(FULL_EACH_DAY)
        _, report = self.backup(NOW + 2 * DAY)
        self.assertEqual(self.images_there(), [report["image"]])
        told = [line for line in report["warnings"] if "before password-file was set" in line]
        self.assertEqual((len(told), "made up for" in told[0]), (1, False))

    def test_a_server_that_goes_away_is_no_reason_to_read_an_image(self):
        process = self.serve()
        self.configure()
        first = self.well()
        passage = self.passage()
        self.copy_by(port=passage.port)
        self.configure(f'copies = [{{ to = "{self.REMOTE}", plain-ok = true }}]\n{FULL_EACH_DAY}')
        passage.happens("up", MIB, lambda: (process.kill(), passage.cut()))
        _, report = self.report_of(self.traced(
            NOW + DAY, "-e", "trace=pread64", "-P", self.place_path(first)))
        self.missed(report, "rclone copyto ended with exit status")
        with open(os.path.join(self.folder, "trace"), encoding="utf-8") as file:
            self.assertEqual(re.findall("pread64.*", file.read()), [])

    def test_an_image_that_rclone_can_not_read_is_found_to_be_why(self):
        self.serve()
        self.configure(FULL_EACH_DAY)
        first = self.well()
        self.copy_by()
        self.configure(f'copies = [{{ to = "{self.REMOTE}", plain-ok = true }}]\n{FULL_EACH_DAY}')
        started = self.traced(NOW + DAY, "-f", "-e", "trace=read,pread64", "-P", self.place_path(first),
                              "-e", "inject=read,pread64:error=EIO:when=1+")
        status, report = self.report_of(started)
        self.assertEqual((status, self.images_there()), (FAILED, [report["image"]]))
        self.assertIn("Input/output error", self.sidecar(first)["unread"])
