"""kestrix-keep backup: what a new image stands on, and what is let go once it is there."""
import hashlib
import json
import os
import shutil

import kestrix_image
from harness import MIB, needs, why_no_mounts
from keep_job import DAY, NAME, NOW, JobTest
from keep_machine import FAILED, WELL


class Bases(JobTest):
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


class LettingGo(JobTest):
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

    def test_what_an_image_without_a_sidecar_stands_on_stays(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "2d" }')
        self.well()
        second = self.well(NOW + DAY)
        os.unlink(self.place_path(second + ".json"))
        _, report = self.backup(NOW + 2 * DAY)
        self.assertEqual((report["letGo"], self.image_names()), ([], [NAME, second, report["image"]]))
        self.assertIn(f"kept: {NAME}: a kept image stands on it", report["lines"])

    def test_nothing_goes_while_it_is_not_known_what_an_image_stands_on(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "2d" }')
        self.well()
        second = self.well(NOW + DAY)
        os.unlink(self.place_path(second + ".json"))
        os.truncate(self.place_path(second), 100)
        _, report = self.backup(NOW + 2 * DAY)
        self.assertEqual((report["letGo"], self.image_names()), ([], [NAME, second, report["image"]]))
        self.assertRegex("\n".join(report["lines"]), f"kept: {NAME}: nothing goes while .* without a sidecar")

    @needs(why_no_mounts)
    def test_an_image_stays_while_one_that_stands_on_it_can_not_go(self):
        self.configure('keep = { last = 1 }\nnew-full = { every = "2d" }')
        self.well()
        second = self.well(NOW + DAY)
        held = self.place_path(second + ".json")
        self.must("mount", "--bind", held, held)
        try:
            status, report = self.backup(NOW + 2 * DAY)
        finally:
            self.must("umount", held)
        self.assertEqual((status, report["letGo"]), (FAILED, []))
        self.assertRegex(report["failure"], f"{second}: it can't be let go: ")
        self.assertIn(f"kept: {NAME}: {second} has to go before it", report["lines"])
        status, report = self.backup(NOW + 3 * DAY)
        self.assertEqual((status, sorted(report["letGo"])), (WELL, [NAME, second]))

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
        self.assertEqual(len([line for line in report["lines"] if line.startswith("let go: ")]), 2, report)
        self.assertEqual({name: self.content(name) for name in os.listdir(self.place)}, before)
