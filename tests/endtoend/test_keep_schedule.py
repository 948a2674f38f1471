"""kestrix-keep schedule and unschedule, where the folder of units and the programs of systemd are stand-ins: a run sees
them at their own places, in a file system view of its own.
"""
import hashlib
import json
import os
import shutil
import stat
import subprocess
import unittest

from harness import Started, system
from keep_machine import COMMAND_LINE, FAILED, WELL, KeepMachineTest, form_of

SERVICE, TIMER = "kestrix-keep-server.service", "kestrix-keep-server.timer"
CONFIGURATION = """[job.server]
disk = "serial:S3Z9"
folder = "{folder}/images"
password-file = "{folder}/password"
"""


def why_no_view():
    if os.geteuid() != 0:
        return "a file system view of one's own needs root"
    done, text = system("unshare", "--mount", "true")
    if not done:
        return f"unshare: {text}"
    for path in ("/usr/bin/systemctl", "/usr/bin/systemd-inhibit", "/etc/systemd/system"):
        if not os.path.exists(path):
            return f"there is no {path}"
    return None


@unittest.skipIf(why_no_view(), why_no_view())
class ScheduleTest(KeepMachineTest):
    def setUp(self):
        super().setUp()
        self.units = self.make("units")
        self.systemd = self.make("systemd")  # stands at /run/systemd
        os.mkdir(os.path.join(self.systemd, "system"))
        self.log = os.path.join(self.folder, "log")
        self.failing = os.path.join(self.folder, "failing")  # a word of the commands that fail
        self.stand_in("systemctl", f'echo "$*" >>"{self.log}"\n'
                                   f'[ -e "{self.failing}" ] || exit 0\n'
                                   f'case " $* " in *" $(cat "{self.failing}") "*) echo broken; exit 5;; esac\n')
        self.stand_in("systemd-inhibit", "exit 0\n")
        self.configuration = os.path.join(self.folder, "keep.toml")
        self.write(os.path.join(self.folder, "password"), "secret\n", 0o600)
        self.write(self.configuration, CONFIGURATION.format(folder=self.folder))

    def make(self, name):
        path = os.path.join(self.folder, name)
        os.mkdir(path)
        return path

    def write(self, path, text, mode=0o644):
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)

    def stand_in(self, name, text):
        self.write(os.path.join(self.folder, name), "#!/bin/sh\n" + text, 0o755)

    def run_keep(self, *arguments):
        """A run that sees the stand-ins."""
        script = "set -e\n"
        for name, place in (("units", "/etc/systemd/system"), ("systemd", "/run/systemd"),
                            ("systemctl", "/usr/bin/systemctl"), ("systemd-inhibit", "/usr/bin/systemd-inhibit")):
            script += f'mount --bind "{self.folder}/{name}" {place}\n'
        script += 'exec "$@"\n'
        started = Started(["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh", self.keepProgram,
                           *arguments], self.images)
        self.addCleanup(self.end, started)
        return started.finish()

    def schedule(self, *arguments, job="server"):
        return self.run_keep("schedule", job, "--config", self.configuration, *arguments)

    def said(self, run, subcommand="schedule"):
        """The object that a run printed, in the form that is stated, with nothing on the error stream."""
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        form_of(subcommand).validate(said)
        return said

    def unit(self, name):
        with open(os.path.join(self.units, name), encoding="utf-8") as file:
            return file.read()

    def lines(self, name):
        return self.unit(name).splitlines()

    def installed(self):
        return sorted(os.listdir(self.units))

    def commands(self):
        if not os.path.exists(self.log):
            return []
        with open(self.log, encoding="utf-8") as file:
            lines = file.read().splitlines()
        os.unlink(self.log)
        return [line.replace("--no-ask-password ", "") for line in lines]

    def assert_refused(self, run, status, words):
        self.assertEqual((run.status, run.out), (status, b""))
        self.assertIn(words, run.err.decode())


class Scheduling(ScheduleTest):
    def test_units_are_written_and_the_timer_is_started(self):
        run = self.schedule("--daily", "21:15")
        self.assertEqual((run.status, run.err), (WELL, b""))
        self.assertEqual(self.installed(), [SERVICE, TIMER])
        self.assertEqual(self.commands(), ["daemon-reload", f"enable --now {TIMER}"])
        self.assertIn("OnCalendar=*-*-* 21:15:00", self.lines(TIMER))
        self.assertIn(f'ExecStart=/usr/bin/systemd-inhibit --what=sleep --mode=block --who=kestrix-keep '
                      f'"--why=An image of a disk is being made" {self.keepProgram} backup server --quiet --config '
                      f'{self.configuration}', self.lines(SERVICE))
        for name in (SERVICE, TIMER):
            self.assertEqual(stat.S_IMODE(os.stat(os.path.join(self.units, name)).st_mode) & 0o022, 0)

    def test_first_line_has_the_digest_of_the_rest(self):
        self.schedule()
        for name in (SERVICE, TIMER):
            first, rest = self.unit(name).split("\n", 1)
            self.assertTrue(first.startswith("#"))
            self.assertEqual(first.split()[-1], hashlib.sha256(rest.encode()).hexdigest())

    def test_five_in_the_morning_is_the_time_if_none_is_given(self):
        self.schedule()
        self.assertIn("OnCalendar=*-*-* 05:00:00", self.lines(TIMER))

    def test_the_password_is_to_be_kept_elsewhere(self):
        run = self.schedule()
        self.assertIn(f"keep a copy of {self.folder}/password elsewhere than on the disk serial:S3Z9", run.out.decode())

    def test_hours_in_which_clocks_change_are_refused_with_the_reason(self):
        for time in ("01:00", "02:30", "03:59"):
            run = self.schedule("--daily", time)
            self.assert_refused(run, COMMAND_LINE, "clocks")
            self.assertIn("--any-hour", run.err.decode())
        self.assertEqual((self.installed(), self.commands()), ([], []))
        self.assertEqual(self.schedule("--daily", "02:30", "--any-hour").status, WELL)
        self.assertIn("OnCalendar=*-*-* 02:30:00", self.lines(TIMER))

    def test_what_is_no_time_is_refused(self):
        for time in ("24:00", "5:00", "05:00:00", "noon", "05:00\n", "*:*"):
            self.assert_refused(self.schedule("--daily", time), COMMAND_LINE, "--daily")
        self.assertEqual(self.installed(), [])

    def test_a_job_that_is_not_configured_is_refused(self):
        self.assert_refused(self.schedule(job="servr"), COMMAND_LINE, "servr")
        self.assertEqual(self.installed(), [])

    def test_another_time_takes_the_place_of_the_first(self):
        self.schedule("--daily", "21:15")
        self.assertEqual(self.schedule("--daily", "22:45", "--wake").status, WELL)
        self.assertIn("OnCalendar=*-*-* 22:45:00", self.lines(TIMER))
        self.assertIn("WakeSystem=true", self.lines(TIMER))
        self.assertEqual(self.installed(), [SERVICE, TIMER])

    def test_without_an_inhibitor_that_works_the_run_goes_without_it_and_says_so(self):
        self.stand_in("systemd-inhibit", "exit 1\n")
        said = self.said(self.schedule("--json"))
        self.assertIn(
            f"ExecStart={self.keepProgram} backup server --quiet --config {self.configuration}", self.lines(SERVICE))
        self.assertTrue(any("going to sleep" in note for note in said["notes"]))

    def test_a_configuration_is_named_from_the_root(self):
        run = self.run_keep("schedule", "server", "--config", "../keep.toml")
        self.assertEqual(run.status, WELL)
        self.assertTrue(any(line.endswith(f" --config {self.images}/../keep.toml") for line in self.lines(SERVICE)))

    def test_a_program_that_others_can_change_is_not_scheduled(self):
        os.rename(self.keepProgram, self.keepProgram + ".linked")  # elsewhere too
        shutil.copy2(self.keepProgram + ".linked", self.keepProgram)
        os.chmod(self.keepProgram, 0o777)
        run = self.schedule()
        self.assertEqual((run.status, self.installed(), self.commands()), (FAILED, [], []))
        self.assertIn(self.keepProgram, run.err.decode())

    def test_folders_copies_and_programs_of_the_job_make_the_sandbox(self):
        self.write(self.configuration, CONFIGURATION.format(folder=self.folder) +
                   'folder-must-be = "source:nas:/export"\ncopies = [{ to = "/mnt/second disk" }]\n')
        self.schedule()
        lines = self.lines(SERVICE)
        self.assertIn(f'ReadWritePaths="-{self.folder}/images" "-/mnt/second disk"', lines)
        self.assertNotIn("PrivateNetwork=yes", lines)
        self.write(self.configuration, CONFIGURATION.format(folder=self.folder) + 'on-failure = ["/bin/true"]\n')
        self.assertEqual(self.schedule().status, WELL)
        self.assertFalse(any(line.startswith("Protect") for line in self.lines(SERVICE)))


class Printing(ScheduleTest):
    def test_what_is_printed_is_what_would_be_installed(self):
        run = self.schedule("--print", "--json")
        self.assertEqual((run.status, self.installed(), self.commands()), (WELL, [], []))
        texts = {text["name"]: text for text in self.said(run)["texts"]}
        self.schedule()
        self.assertEqual({name: text["content"] for name, text in texts.items()},
                         {name: self.unit(name) for name in self.installed()})
        self.assertEqual(texts[TIMER]["place"], f"/etc/systemd/system/{TIMER}")

    def test_lines_for_a_person_hold_both_units(self):
        printed = self.schedule("--print").out.decode()
        self.schedule()
        for name in (SERVICE, TIMER):
            self.assertIn(f"# /etc/systemd/system/{name}\n{self.unit(name)}\n", printed)

    def test_a_machine_without_systemd_prints_all_the_same(self):
        os.rmdir(os.path.join(self.systemd, "system"))
        self.assertEqual(self.schedule("--print").status, WELL)


class WhatIsThere(ScheduleTest):
    def change(self, name, text="Nice=0\n"):
        with open(os.path.join(self.units, name), "a", encoding="utf-8") as file:
            file.write(text)
        return self.unit(name)

    def test_a_unit_that_was_changed_by_hand_is_left_alone(self):
        for name in (SERVICE, TIMER):
            self.schedule("--replace")
            self.commands()
            changed = self.change(name)
            run = self.schedule("--daily", "22:00")
            self.assertEqual((run.status, self.commands(), self.unit(name)), (FAILED, [], changed))
            self.assertIn("changed by hand", run.err.decode())
            self.assertIn("--replace", run.err.decode())
            self.assertNotIn("22:00", self.unit(TIMER))

    def test_replace_puts_a_new_one_in_its_place(self):
        self.schedule()
        self.change(SERVICE)
        self.assertEqual(self.schedule("--replace").status, WELL)
        self.assertNotIn("Nice=0", self.lines(SERVICE))

    def test_a_unit_of_somebody_else_is_left_alone(self):
        self.write(os.path.join(self.units, TIMER), "[Timer]\nOnBootSec=5\n")
        run = self.schedule()
        self.assertEqual((run.status, self.installed(), self.commands()), (FAILED, [TIMER], []))
        self.assertIn("did not write it", run.err.decode())

    def test_a_masked_unit_is_left_alone(self):
        os.symlink("/dev/null", os.path.join(self.units, SERVICE))
        self.assertEqual((self.schedule().status, self.installed()), (FAILED, [SERVICE]))
        self.assertEqual(os.readlink(os.path.join(self.units, SERVICE)), "/dev/null")


class Failures(ScheduleTest):
    def test_without_systemd_the_line_of_cron_is_told(self):
        os.rmdir(os.path.join(self.systemd, "system"))
        run = self.schedule("--daily", "21:15")
        self.assertEqual((run.status, self.installed(), self.commands()), (FAILED, [], []))
        self.assertIn(
            f"15 21 * * * {self.keepProgram} backup server --quiet --config {self.configuration}", run.err.decode())

    def test_after_a_failure_nothing_is_left(self):
        for word in ("daemon-reload", "enable"):
            self.write(self.failing, word)
            run = self.schedule()
            self.assertEqual((run.status, self.installed()), (FAILED, []))
            self.assertIn("broken", run.err.decode())
            self.assertEqual(self.commands()[-1], "daemon-reload")

    def test_after_a_failure_the_former_units_are_there_again(self):
        self.schedule("--daily", "21:15")
        before = {name: self.unit(name) for name in self.installed()}
        self.write(self.failing, "enable")
        self.assertEqual(self.schedule("--daily", "22:00").status, FAILED)
        self.assertEqual({name: self.unit(name) for name in self.installed()}, before)

    def test_a_failure_is_told_in_json(self):
        self.write(self.failing, "enable")
        run = self.schedule("--json")
        said = self.said(run)
        self.assertEqual((run.status, said["done"]), (FAILED, []))
        self.assertIn("exit status 5: broken", said["fault"])

    def test_a_folder_of_units_that_can_not_be_written_is_told(self):
        self.must("mount", "-t", "tmpfs", "-o", "ro", "units", self.units)
        self.addCleanup(self.must, "umount", self.units)
        run = self.schedule()
        self.assertEqual(run.status, FAILED)
        self.assertIn(f"/etc/systemd/system/{SERVICE} can't be written: Read-only file system", run.err.decode())


class Unscheduling(ScheduleTest):
    def test_what_schedule_made_goes_and_nothing_else(self):
        self.schedule()
        for name in ("kestrix-keep-server2.timer", "kestrix-keep-serve.timer", "other.service"):
            self.write(os.path.join(self.units, name), "[Unit]\n")
        os.mkdir(os.path.join(self.units, SERVICE + ".d"))
        self.commands()
        run = self.run_keep("unschedule", "server")
        self.assertEqual((run.status, run.err), (WELL, b""))
        self.assertEqual(self.commands(), [f"disable --now {TIMER}", "daemon-reload"])
        self.assertEqual(self.installed(), ["kestrix-keep-serve.timer", SERVICE + ".d", "kestrix-keep-server2.timer",
                                            "other.service"])

    def test_no_configuration_is_needed(self):
        self.schedule()
        os.unlink(self.configuration)
        self.assertEqual((self.run_keep("unschedule", "server").status, self.installed()), (WELL, []))

    def test_a_job_that_is_not_scheduled_is_told(self):
        self.assert_refused(self.run_keep("unschedule", "server"), FAILED, "is not scheduled")

    def test_a_unit_that_was_changed_by_hand_stays(self):
        self.schedule()
        self.commands()
        with open(os.path.join(self.units, SERVICE), "a", encoding="utf-8") as file:
            file.write("Nice=0\n")
        run = self.run_keep("unschedule", "server")
        self.assert_refused(run, FAILED, "changed by hand")
        self.assertEqual((self.installed(), self.commands()), ([SERVICE, TIMER], []))

    def test_a_timer_that_can_not_be_stopped_keeps_its_files(self):
        self.schedule()
        self.write(self.failing, "disable")
        run = self.run_keep("unschedule", "server", "--json")
        said = self.said(run, "unschedule")
        self.assertEqual((run.status, self.installed(), said["done"]), (FAILED, [SERVICE, TIMER], []))
        self.assertIn("still scheduled", said["fault"])

    def test_half_of_what_was_made_goes_too(self):
        self.schedule()
        os.unlink(os.path.join(self.units, TIMER))
        self.commands()
        self.assertEqual((self.run_keep("unschedule", "server").status, self.installed()), (WELL, []))
        self.assertEqual(self.commands(), ["daemon-reload"])

    def test_a_name_that_leads_elsewhere_is_refused(self):
        outside = os.path.join(self.folder, "x.service")
        self.write(outside, "")
        for name in ("../x", "a/b", "", ".", "-x", "x y"):
            run = self.run_keep("unschedule", "--", name)
            self.assertEqual((run.status, self.commands()), (COMMAND_LINE, []))
        self.assertTrue(os.path.exists(outside))


class RealTools(ScheduleTest):
    """What systemd's own reader makes of a unit that names the strangest paths."""

    def setUp(self):
        super().setUp()
        strange = self.make("it is 50% $HOME; of # all")
        for name in ("kestrix", "kestrix-keep"):
            shutil.move(os.path.join(self.folder, name), strange)
        os.rename(self.devices, os.path.join(strange, "devices"))
        self.keepProgram = os.path.join(strange, "kestrix-keep")
        self.write(os.path.join(strange, "keep.toml"),
                   "[job.server]\ndisk = \"serial:S3Z9\"\nfolder = '''" + strange + "/images'''\n")
        self.configuration = os.path.join(strange, "keep.toml")

    def verified(self):
        units = [os.path.join(self.units, name) for name in self.installed()]
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", *units],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return done.returncode, [line for line in done.stdout.splitlines() if "kestrix" in line]

    def test_they_are_sound(self):
        for inhibitor in (0, 1):
            self.stand_in("systemd-inhibit", f"exit {inhibitor}\n")
            self.assertEqual(self.schedule().status, WELL)
            self.assertEqual(self.verified(), (0, []))
        os.unlink(self.keepProgram)
        self.assertNotEqual(self.verified()[1], [])  # it is that very path that was looked for


if __name__ == "__main__":
    unittest.main()
