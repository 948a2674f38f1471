"""kestrix-keep.exe under Wine, whose disks tell little and whose files all belong to a user: what it says of images
in a folder is what it says on Linux, and what it can't know or trust it says and refuses."""
import json
import os
import shutil

import kestrix_image
import keep_machine
from harness import ROOT
from keep_machine import COMMAND_LINE, FAILED, WELL
from keep_nights import DAY, Nights
from wine import PREFIX, WindowsTest, drive_path

PROGRAM = os.path.join(ROOT, "build", "windows", "kestrix-keep.exe")
NOW = 1_800_000_000


class KeepProgram(WindowsTest):
    def setUp(self):
        super().setUp()
        self.assertTrue(os.path.isfile(PROGRAM), f"{PROGRAM} is missing")
        self.keepProgram = shutil.copy2(PROGRAM, os.path.join(PREFIX, "program", "kestrix-keep.exe"))

    def keep(self, *arguments):
        return self.start_under_wine(self.keepProgram, *arguments).finish()

    def ask(self, *arguments):
        run = self.keep(*arguments, "--json")
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        keep_machine.form_of(arguments[0]).validate(said)
        return run.status, said

    def ask_linux(self, *arguments):
        run = keep_machine.Started([keep_machine.keep_program_copy(), *arguments, "--json"], self.images).finish()
        self.assertEqual(run.err, b"")
        return run.status, json.loads(run.out)

    def check_place(self, status, *arguments):
        words = ["status", "--place", ".", "--now", str(NOW + DAY), *arguments]
        here = self.ask(*words)
        self.assertEqual(here, self.ask_linux(*words))
        self.assertEqual(here[0], status)
        return here[1]

    def test_it_tells_of_a_place_what_it_tells_on_linux(self):
        Nights(self.images, "server", 5, NOW, chunks=8)
        said = self.check_place(WELL, "--compare")
        self.assertEqual([job["images"] for job in said["jobs"]], [5])

    def test_it_finds_in_a_place_the_damage_that_it_finds_on_linux(self):
        nights = Nights(self.images, "server", 3, NOW, chunks=8)
        self.check_place(WELL)
        kestrix_image.flip_byte(nights.path(nights.names[0]), 64 + 8 * 72)
        self.assertIn(nights.names[0], json.dumps(self.check_place(FAILED, "--compare")))
        os.unlink(nights.path(nights.names[0]))
        self.check_place(FAILED)

    def test_disks_that_do_not_tell_what_lies_on_them_are_listed_with_the_reason(self):
        status, said = self.ask("disks")
        self.assertEqual(status, WELL)
        self.assertTrue(all(disk["unreadable"] for disk in said["disks"]), said)

    def test_a_configuration_that_a_user_owns_is_refused_with_the_command_that_mends_it(self):
        self.file("keep.toml", b"")
        run = self.keep("status", "--config", drive_path(self.path("keep.toml")))
        self.assertEqual((run.status, run.out), (COMMAND_LINE, b""))
        self.assertIn(b"can change it: icacls ", run.err)
