"""kestrix-keep restore: which disks and which images can be chosen, and what opens a sealed one."""
import os
import re
import shutil
import stat

import kestrix_image
from harness import MIB, needs, why_no_loop_devices, why_no_mounts
from keep_machine import FAILED, WELL
from keep_restoring import CHUNK, DISK, IMAGE, NOTHING, OLD, PASSWORD, SERIAL, SIZE, TARGET, RestoreTest


class Refusals(RestoreTest):
    def setUp(self):
        super().setUp()
        self.image("full.kstx", DISK)

    def refused(self, number, why, *arguments):
        """Disk number is shown as one that can't be overwritten, and refused when it is chosen nevertheless."""
        talk = self.guided(*arguments)
        talk.answer(IMAGE, "1")
        shown = talk.answer(TARGET, str(number))
        self.assertRegex(shown, f"disk {number}: (?:[^\n]*\n)(?:  [^\n]*\n)*  CAN'T BE OVERWRITTEN: {why}")
        shown = talk.expect(TARGET)
        self.assertRegex(shown, f"Disk {number} can't be overwritten: {why}")
        self.assertNotIn("Overwriting", talk.seen)
        talk.type(b"\x04")
        self.assertEqual(talk.finish()[0], FAILED)

    def test_the_system_disk(self):
        self.refused(0, "the running system lies on it; start this machine from another medium")

    def test_a_disk_that_is_too_small_by_a_sector(self):
        self.disk(2, len(DISK) - 512)
        self.card(2, {"serial": "SMALL-0001"})
        self.refused(2, "it is smaller than the image's disk: 65024 bytes, not 65536")

    def test_twins_until_one_is_gone(self):
        self.disk(2, OLD)
        self.card(2, {"serial": "TGT-AB1234"})
        self.refused(1, "neither serial nor size tells it from another disk here; unplug one of the two")
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.expect(TARGET)
        os.unlink(self.disk_path(2))
        os.unlink(self.disk_path(2) + ".json")
        talk.type(b"again\n")
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        self.assertEqual(talk.finish()[0], WELL)

    @needs(why_no_loop_devices)
    def test_a_disk_with_other_sectors_unless_they_are_asked_for(self):
        backing = self.loop_disk(2, len(DISK), sectorSize=4096)
        self.card(2, {"serial": "BIG-SECTORS"})
        self.refused(2, "its sectors have 4096 bytes, those of the image's disk have 512")
        talk = self.guided("--other-sectors")
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "2")
        talk.answer(SERIAL, "TORS")
        status, rest = talk.finish()
        self.assertEqual(status, WELL, rest)
        self.assertIn("it will not start as it is", rest)
        with open(backing, "rb") as file:
            self.assertTrue(file.read() == DISK)

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_disk_that_is_mounted(self):
        self.loop_disk(2, self.ext4())
        self.card(2, {"serial": "MOUNTED-1"})
        folder = self.mount(os.path.realpath(self.disk_path(2)), "ro,noload", "ext4")
        self.refused(2, "it is in use, mounted at " + re.escape(folder))

    @needs(why_no_loop_devices)
    def test_a_disk_that_something_unseen_uses_for_itself_alone(self):
        self.loop_disk(2, OLD)
        self.card(2, {"serial": "CLAIMED-1"})
        claim = os.open(os.path.realpath(self.disk_path(2)), os.O_RDONLY | os.O_EXCL)
        try:
            self.refused(2, "it is in use; by what can't be told: .*a pool of ZFS")
        finally:
            os.close(claim)

    def test_a_kestrix_that_others_can_change_is_not_run(self):
        self.let_all_change_the_program()
        status, said = self.script(image="full.kstx")
        self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
        self.assertRegex(said["failure"], "kestrix is not run: .* can (change|write)")

    @needs(why_no_loop_devices, why_no_mounts)
    def test_the_disk_that_the_image_lies_on(self):
        self.loop_disk(2, self.ext4(16 * MIB))
        self.card(2, {"serial": "BACKUP-01"})
        folder = self.mount(os.path.realpath(self.disk_path(2)), "rw", "ext4")
        shutil.move(self.path("full.kstx"), os.path.join(folder, "full.kstx"))
        os.symlink(os.path.join(folder, "full.kstx"), self.path("full.kstx"))
        self.refused(2, "the image lies on it; restore onto another disk")

    @needs(why_no_loop_devices)
    def test_no_disk_with_the_serial_that_was_typed_wrongly(self):
        backing = self.loop_disk(2, OLD)
        self.card(2, {"serial": "TGT-XB1234"})
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "2")
        self.assertIn("type the last 6 characters", talk.answer(SERIAL, "AB1234"))
        talk.answer(TARGET, "2")
        talk.answer(SERIAL, "B1234")  # one character less than the question wants
        talk.answer(TARGET, "2")
        talk.answer(SERIAL, "-xb 1234")
        self.assertEqual(talk.finish()[0], WELL)
        with open(backing, "rb") as file:
            self.assertTrue(file.read() == DISK)
        self.untouched()

    def test_a_disk_without_a_serial_is_named_by_its_size(self):
        os.unlink(self.disk_path(1) + ".json")
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "1")
        talk.answer(SIZE, "65535")
        self.assertIn(NOTHING, talk.answer(TARGET, "1"))
        talk.answer(SIZE, "65536")
        self.assertEqual(talk.finish()[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_a_disk_that_another_one_has_taken_the_place_of(self):
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "1")
        talk.expect(SERIAL)
        other = self.disk_path(1) + ".new"
        with open(other, "wb") as file:
            file.write(OLD)
        os.rename(other, self.disk_path(1))
        talk.type(b"1234\n")
        status, rest = talk.finish()
        self.assertEqual(status, FAILED, rest)
        self.assertIn("another disk has taken its place", rest)
        self.assertIn(NOTHING, rest)
        self.untouched()


class Images(RestoreTest):
    def test_what_a_thin_image_needs_is_shown_and_a_missing_base_refuses_it(self):
        base = self.image("base.kstx", DISK)
        self.image("thin.kstx", DISK[:-CHUNK] + OLD[-CHUNK:], base=base)
        talk = self.guided()
        self.assertIn("stands on 1 image: base.kstx (there)", talk.expect(IMAGE))
        os.rename(base.path, base.path + ".away")
        talk = self.guided("--trust-last-audit")
        shown = talk.answer(IMAGE, "2")
        self.assertIn("base.kstx (MISSING)", shown)
        shown = talk.expect(IMAGE)
        self.assertIn("That one can't be restored: base.kstx, which it stands on, is missing", shown)

    def test_a_replaced_base_refuses_the_image(self):
        base = self.image("base.kstx", DISK)
        self.image("thin.kstx", DISK[:-CHUNK] + OLD[-CHUNK:], base=base)
        self.image("base.kstx", OLD)
        self.assertIn("base.kstx (ANOTHER IMAGE)", self.guided().expect(IMAGE))

    def test_a_chain_is_restored_as_its_last_image_has_the_disk(self):
        *_, last = kestrix_image.make_chain(self.images, 4, chunks=16)
        status, said = self.script(image="level03.kstx")
        self.assertEqual((status, said["equal"], said["audit"]), (WELL, True, "passed"))
        self.assertEqual(said["image"]["needs"], ["level02.kstx", "level01.kstx", "level00.kstx"])
        self.assertTrue(self.disk_bytes(1) == last.disk)

    def test_a_damaged_image_does_not_pass_and_another_can_be_chosen(self):
        damaged = self.image("a.kstx", DISK)
        kestrix_image.flip_byte(damaged.path, os.stat(damaged.path).st_size - 1)
        self.image("b.kstx", DISK)
        talk = self.guided()
        talk.answer(IMAGE, "1")
        shown = talk.answer(IMAGE, "2")
        self.assertRegex(shown, "This image is not restored: it did not pass its audit: .*a.kstx.*chunk 15")
        self.assertIn(NOTHING, shown)
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        self.assertEqual(talk.finish()[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_files_that_are_no_whole_images_say_so(self):
        self.file("cut.kstx", kestrix_image.make_image(self.path("x"), DISK).record.encode()[:2000])
        os.unlink(self.path("x"))
        self.file("notes.txt", b"no image at all")
        self.file("empty.kstx", b"")
        self.image("full.kstx", DISK)
        shown = self.guided().expect(IMAGE)
        self.assertRegex(shown, "cut.kstx\n(  [^\n]*\n)*  CAN'T BE RESTORED: ")
        self.assertIn("empty.kstx\n  CAN'T BE RESTORED: it was never finished", shown)
        self.assertNotIn("notes.txt", shown)

    def test_the_sidecar_of_another_image_does_not_count(self):
        written = self.image("full.kstx", DISK)
        self.sidecar(written, identity="0" * 64)
        talk = self.guided()
        self.assertIn("it tells of another image, and does not count", talk.answer(IMAGE, "1"))
        self.assertNotIn("Is the image to be checked first", talk.expect(TARGET))

    def test_the_audit_of_a_chain_is_trusted_only_where_all_of_it_has_one(self):
        base = self.image("base.kstx", DISK)
        thin = self.image("thin.kstx", DISK[:-CHUNK] + OLD[-CHUNK:], base=base)
        self.sidecar(thin)
        status, said = self.script("--trust-last-audit", image="thin.kstx")
        self.assertEqual((status, said["audit"]), (FAILED, "none"))
        self.assertIn("no audit is on record", said["failure"])
        self.untouched()
        self.sidecar(base)
        status, said = self.script("--trust-last-audit", image="thin.kstx")
        self.assertEqual((status, said["audit"], said["equal"]), (WELL, "trusted", True))

    def test_an_image_that_was_found_damaged_has_no_audit_to_trust(self):
        self.sidecar(self.image("full.kstx", DISK), isSound=False, damage="chunk 3 is bad")
        talk = self.guided()
        self.assertIn("found it DAMAGED: chunk 3 is bad", talk.answer(IMAGE, "1"))
        self.assertNotIn("Is the image to be checked first", talk.expect(TARGET))

    def test_an_image_that_could_not_be_read_since_has_no_audit_to_trust(self):
        self.sidecar(self.image("full.kstx", DISK), unread="full.kstx: it can't be read at byte 4096: its medium")
        talk = self.guided()
        self.assertIn("could NOT READ all of it: full.kstx: it can't be read", talk.answer(IMAGE, "1"))
        self.assertNotIn("Is the image to be checked first", talk.expect(TARGET))
        status, said = self.script("--trust-last-audit")
        self.assertEqual((status, said["audit"]), (FAILED, "none"))
        self.untouched()


class Passwords(RestoreTest):
    def test_a_typed_password_opens_a_sealed_chain_and_is_never_shown(self):
        *_, last = kestrix_image.make_chain(self.images, 3, lambda level: None if level == 1 else b"open sesame", 16)
        talk = self.guided()
        for number in range(1, 4):
            if "level02.kstx" in talk.seen:
                break
            talk.expect(IMAGE)
        number = re.search("([0-9]+): [^\n]*level02.kstx", talk.seen).group(1)
        talk.type(number.encode() + b"\n")
        talk.answer(PASSWORD, "wrong")
        self.assertIn("the password does not open it", talk.answer(PASSWORD, "open sesame"))
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        status, _ = talk.finish()
        self.assertEqual(status, WELL, talk.seen)
        self.assertNotIn("sesame", talk.seen)
        self.assertTrue(self.disk_bytes(1) == last.disk)

    def test_a_typed_password_lies_in_memory_for_its_user_alone(self):
        self.image("sealed.kstx", DISK, b"secret")
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(PASSWORD, "secret")
        talk.expect(TARGET)
        folder = f"/proc/{talk.process.pid}/fd"
        secrets = [name for name in os.listdir(folder) if "kestrix-password" in os.readlink(f"{folder}/{name}")]
        self.assertEqual(len(secrets), 1)
        found = os.stat(f"{folder}/{secrets[0]}")
        self.assertEqual((stat.S_IMODE(found.st_mode), found.st_uid), (0o600, os.geteuid()))
        with open(f"{folder}/{secrets[0]}", "rb") as file:
            self.assertEqual(file.read(), b"secret")

    def test_the_password_file_of_the_configuration_is_offered(self):
        place = os.path.join(self.folder, "place")
        os.mkdir(place)
        kestrix_image.make_image(os.path.join(place, "job.kstx"), DISK, b"secret")
        for name, text in (("password", "secret\n"),
                           ("keep.toml", f'[job.job]\ndisk = "serial:S"\nfolder = "{place}"\n'
                                         f'password-file = "{self.folder}/password"\n')):
            with open(os.path.join(self.folder, name), "w", encoding="utf-8") as file:
                file.write(text)
            os.chmod(os.path.join(self.folder, name), 0o600)
        talk = self.talk("--config", os.path.join(self.folder, "keep.toml"))
        talk.answer(IMAGE, "1")
        self.assertIn(f"1: its password is in {self.folder}/password", talk.answer("Where does the password come", "1"))
        talk.answer(TARGET, "1")
        talk.answer(SERIAL, "1234")
        self.assertEqual(talk.finish()[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_a_script_names_a_file_and_a_wrong_one_writes_nothing(self):
        self.image("sealed.kstx", DISK, b"secret")
        self.file("wrong", b"guess")
        self.file("right", b"secret\r\n")
        for name in ("wrong", "right"):
            os.chmod(self.path(name), 0o600)
        for arguments, says in (((), "give --password-file"),
                                (("--password-file", self.path("wrong")), "the password does not open it")):
            status, said = self.script(*arguments, image="sealed.kstx")
            self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
            self.assertIn(says, said["failure"])
            self.untouched()
        self.assertEqual(self.script("--password-file", self.path("right"), image="sealed.kstx")[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_a_password_file_that_others_can_read_is_refused(self):
        self.image("sealed.kstx", DISK, b"secret")
        self.file("password", b"secret\n")
        os.chmod(self.path("password"), 0o644)
        status, said = self.script("--password-file", self.path("password"), image="sealed.kstx")
        self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
        self.assertRegex(said["failure"], "the password file is refused: .* can read .*password: chmod go-r")
