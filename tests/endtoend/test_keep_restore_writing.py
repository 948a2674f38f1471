"""kestrix-keep restore: what is written, what can go wrong with it, and what is said of the machine afterwards."""
import os
import subprocess
import time

import kestrix_image
from harness import KIB, MIB, TIME_LIMIT, needs, why_no_mounts
from keep_machine import FAILED, WELL
from keep_restoring import CHUNK, DISK, IMAGE, MOVE, OLD, SERIAL, TARGET, RestoreTest


class LargerDisks(RestoreTest):
    def setUp(self):
        super().setUp()
        self.partitioned(2, 4 * MIB, "label: gpt\nsize=1MiB, name=first\nname=second\n")
        self.source = self.disk_bytes(2)
        os.unlink(self.disk_path(2))
        self.image("gpt.kstx", self.source, chunkSize=64 * KIB)
        self.disk(1, 6 * MIB)

    def verified(self):
        """What sfdisk says of the disk's table."""
        done = subprocess.run(["sfdisk", "--verify", self.disk_path(1)], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=True, timeout=TIME_LIMIT)
        return done.stdout

    def up_to_the_move(self):
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        self.assertIn("all 4.00 MiB are as the image has them", talk.expect(MOVE))
        return talk

    def test_the_backup_table_is_moved_to_the_end_when_that_is_wanted(self):
        talk = self.up_to_the_move()
        self.assertIn("The backup GPT table is not on the end of the device", self.verified())
        talk.type(b"1\n")
        status, rest = talk.finish()
        self.assertEqual(status, WELL, rest)
        self.assertIn("The last 2.00 MiB of the disk, from byte 4194304 on, were not written", rest)
        self.assertIn("No errors detected", self.verified())
        self.assertNotIn("not on the end", self.verified())
        disk = self.disk_bytes(1)
        self.assertEqual(disk[-512:-504], b"EFI PART")
        self.assertTrue(disk[34 * 512:4 * MIB - 33 * 512] == self.source[34 * 512:4 * MIB - 33 * 512])

    def test_and_is_left_where_it_is_when_that_is_not(self):
        for last in (b"2\n", b"\x04"):
            with self.subTest(last=last):
                talk = self.up_to_the_move()
                talk.type(last)
                status, rest = talk.finish()
                self.assertEqual(status, WELL, rest)
                self.assertIn("sfdisk --relocate gpt-bak-std", rest)
                self.assertTrue(self.disk_bytes(1) == self.source + bytes(2 * MIB))

    def test_a_script_says_beforehand_that_it_is_to_be_moved(self):
        status, said = self.script(image="gpt.kstx")
        self.assertEqual((status, said["backupGptMoved"]), (WELL, False))
        status, said = self.script("--move-backup-gpt", image="gpt.kstx")
        self.assertEqual((status, said["backupGptMoved"], said["equal"]), (WELL, True, True))
        self.assertIn("No errors detected", self.verified())

    def other_sfdisk(self, text, mode=0o755):
        """Runs that see another sfdisk where the system's lies, and nobody else does."""
        other, wrapper = (os.path.join(self.folder, name) for name in ("sfdisk", "keep"))
        run = f"mount --bind {other} $(readlink -f $(command -v sfdisk)) && exec {self.keepProgram} \"$@\""
        for path, script in ((other, text), (wrapper, f"exec unshare --mount sh -c '{run}' sh \"$@\"\n")):
            with open(path, "w", encoding="ascii") as file:
                file.write("#!/bin/sh\n" + script)
            os.chmod(path, mode if path == other else 0o755)
        self.keepProgram = wrapper

    @needs(why_no_mounts)
    def test_a_table_that_can_not_be_moved_leaves_a_restored_disk_and_says_what_remains(self):
        self.other_sfdisk("echo broken; exit 1\n")
        status, said = self.script("--move-backup-gpt", image="gpt.kstx")
        self.assertEqual((status, said["equal"], said["diskState"]), (FAILED, True, "written"))
        self.assertRegex(said["failure"], "could not be moved to the end of the disk: sfdisk says: broken")
        remains = "\n".join(said["remains"])
        self.assertRegex(remains, "sfdisk --relocate gpt-bak-std .* moves its backup; if not, restore again")
        self.assertIn("boot entry", remains)

    @needs(why_no_mounts)
    def test_an_interrupt_while_the_table_is_moved_is_told(self):
        self.other_sfdisk("echo moving >&2; exec sleep 100\n")
        talk = self.up_to_the_move()
        talk.type(b"1\n")
        time.sleep(1)
        talk.type(b"\x03")
        status, rest = talk.finish()
        self.assertEqual(status, FAILED)
        self.assertIn("sfdisk was ended before it was done", rest)
        self.assertIn("Look at the partition table", rest)

    @needs(why_no_mounts)
    def test_an_sfdisk_that_others_can_change_is_not_run(self):
        self.other_sfdisk("touch " + self.path("ran") + "\n", mode=0o777)
        status, said = self.script("--move-backup-gpt", image="gpt.kstx")
        self.assertEqual((status, said["backupGptMoved"]), (WELL, False))
        self.assertRegex("\n".join(said["remains"]), "sfdisk is not run: every user can change")
        self.assertFalse(os.path.exists(self.path("ran")))

    def test_a_larger_disk_without_such_a_table_is_left_alone(self):
        self.image("plain.kstx", DISK)
        status, said = self.script("--move-backup-gpt", image="plain.kstx")
        self.assertEqual((status, said["backupGptMoved"]), (WELL, False))
        self.assertTrue(self.disk_bytes(1) == DISK + bytes(6 * MIB - len(DISK)))


class WhatRemains(RestoreTest):
    def remains(self, **changes):
        self.sidecar(self.image("full.kstx", DISK), **changes)
        status, said = self.script()
        self.assertEqual(status, WELL)
        return "\n".join(said["remains"])

    def test_the_old_disk_that_is_still_connected_is_named(self):
        self.disk(2, DISK)
        self.card(2, {"serial": "SRC-0001"})
        self.assertRegex(self.remains(), "still connected: disk 2 .*serial SRC-0001.*unplug one before the first start")

    def test_one_that_is_not_seen_may_be_there_nevertheless(self):
        self.assertIn("If the disk that the image was made of is still in the machine", self.remains())

    def test_a_disk_restored_onto_itself_has_no_old_one(self):
        disk = {"model": "", "serial": "TGT-AB1234", "wwn": "", "sizeBytes": len(DISK), "sectorBytes": 512}
        text = self.remains(disk=disk)
        self.assertNotIn("unplug", text)
        self.assertIn("boot entry", text)


class Failures(RestoreTest):
    def setUp(self):
        super().setUp()
        self.written = self.image("full.kstx", DISK)

    def failed(self, state, *arguments):
        status, said = self.script(*arguments)
        self.assertEqual((status, said["diskState"], said["equal"]), (FAILED, state, False))
        return said["failure"] + "\n" + "\n".join(said["lines"])

    def test_damage_that_a_trusted_audit_did_not_see_leaves_a_disk_that_is_called_partly_written(self):
        kestrix_image.flip_byte(self.written.path, os.stat(self.written.path).st_size - 1)
        self.sidecar(self.written)
        said = self.failed("partlyWritten", "--trust-last-audit")
        self.assertIn("FATAL: chunk 15 hash mismatch", said)
        self.assertIn("IS PARTLY WRITTEN", said)
        self.assertTrue(self.disk_bytes(1) == DISK[:-CHUNK] + OLD[-CHUNK:])

    def test_a_refusal_of_kestrix_leaves_an_untouched_disk(self):
        self.stand_in("echo 'Refusing: not today' >&2\nexit 1\n")
        self.assertIn("exit status 1: Refusing: not today", self.failed("untouched"))

    def test_a_kestrix_that_was_ended_may_have_written(self):
        self.stand_in("kill -9 $$\n")
        self.assertIn("kestrix was ended before it was done", self.failed("partlyWritten"))

    def test_a_kestrix_that_is_not_there(self):
        os.unlink(self.program)
        self.assertIn("kestrix can't be looked at: No such file", self.failed("untouched"))

    def test_a_disk_that_does_not_give_back_what_was_written(self):
        self.stand_in("echo 'Restoring it'\n")
        said = self.failed("written")
        self.assertIn("the disk does not give back what was written to it: 16 chunks of 16, the first at byte 0", said)
        self.assertIn("NOT PROVED", said)

    def test_kestrix_sees_the_chosen_disk_alone_and_is_told_to_write_it(self):
        seen = os.path.join(self.folder, "seen")
        self.stand_in('{ echo "$@"; ls "${0%/*}/devices"; readlink -f "${0%/*}/devices/PhysicalDrive1"; } >' +
                      f"{seen}\n")
        self.disk(2, OLD)
        self.card(2, {"serial": "OTHER-001"})
        self.failed("written")
        with open(seen, encoding="utf-8") as file:
            arguments, *names = file.read().splitlines()
        self.assertEqual(arguments, f"restore --in {self.path('full.kstx')} --disk 1 --confirm YES")
        self.assertNotIn("PhysicalDrive2", names)
        self.assertEqual(names[-1], os.path.realpath(self.disk_path(1)))

    def test_an_interrupt_while_kestrix_writes_is_told_as_what_it_leaves(self):
        self.stand_in("echo 'Restoring it'\nexec sleep 100\n")
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        talk.expect("kestrix: Restoring it")
        talk.type(b"\x03")
        status, rest = talk.finish()
        self.assertEqual(status, FAILED)
        self.assertIn("kestrix was ended before it was done", rest)
        self.assertIn("IS PARTLY WRITTEN", rest)

    def test_an_interrupt_while_the_disk_is_compared_is_told_as_what_it_leaves(self):
        size = 512 * MIB  # long enough for the interrupt to come in its middle
        self.sidecar(self.image("full.kstx", bytes(size), chunkSize=4 * MIB))
        self.disk(1, size)
        for end in (b"\x03", b"\x1c"):
            with self.subTest(end=end):
                self.stand_in("echo 'Restoring it'\n")
                talk = self.guided("--trust-last-audit")
                talk.answer(IMAGE, "1")
                talk.answer(TARGET, "1")
                talk.answer(SERIAL, "1234")
                talk.expect("Reading the disk back")
                talk.type(end)
                status, rest = talk.finish()
                self.assertEqual(status, FAILED)
                self.assertIn("NOT DONE: the comparison was interrupted before its end.", rest)
                self.assertIn("is NOT PROVED", rest)

    def test_a_kestrix_that_fails_without_a_word_may_have_written(self):
        self.stand_in("exit 1\n")
        self.assertIn("kestrix ended with exit status 1", self.failed("partlyWritten"))
