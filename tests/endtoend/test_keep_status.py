"""kestrix-keep status: what it says of a job, to people, to scripts and to monitoring."""
import json
import os
import re

from keep_job import DAY, NAME, NOW, JobTest
from keep_machine import COMMAND_LINE, FAILED, WELL, form_of


class StatusTest(JobTest):
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

    def test_a_copy_of_the_password_must_lie_elsewhere(self):
        self.configure(self.password("secret"))
        self.well()
        _, state = self.status(NOW)
        self.assertRegex(state["notes"][0], "keep a copy of .*/password elsewhere than on the disk serial:SERIAL1")
        lines = self.keep("status", "--now", str(NOW), "--config", self.configuration).out.decode()
        self.assertIn("  " + state["notes"][0] + "\n", lines)

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
