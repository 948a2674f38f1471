"""kestrix-keep's copies: in folders, and by rclone over the network protocols of its own servers."""
import json
import os
import shutil

import kestrix_image
from harness import why_no_mounts, needs
from keep_job import DAY, NAME, NOW
from keep_machine import COMMAND_LINE, FAILED, WELL
from keep_remotes import CopiesTest, RemoteTest


class Folders(CopiesTest):
    def setUp(self):
        super().setUp()
        self.copy_to(self.there)

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
        for name in (NAME + ".copying", "job-20260101T020005Z.kstx.json", NAME + ".copying.77.unfinished",
                     NAME + ".json.77.unfinished"):
            with open(os.path.join(self.there, name), "wb") as file:
                file.write(b"half")
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
