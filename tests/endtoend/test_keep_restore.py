"""kestrix-keep restore: the conversation through a pseudo-terminal, every refusal in it, and options for scripts."""
import fcntl
import json
import os
import pty
import re
import select
import shutil
import signal
import stat
import subprocess
import termios
import time

import kestrix_image
from harness import KIB, MIB, SANITIZERS, TIME_LIMIT, needs, why_no_loop_devices, why_no_mounts
from keep_machine import COMMAND_LINE, FAILED, WELL, KeepMachineTest, form_of

DISK = kestrix_image.seeded_disk(64 * KIB, 5)
OLD = kestrix_image.seeded_disk(len(DISK), 6)  # what a target holds before
CHUNK = 4096
PROVED = 1795312805

FOLDER = "In which folder, or rclone:REMOTE:PATH, do the images lie\\?"
IMAGE = "Which image is to be restored\\? [^\n]*:"
PASSWORD = "Its password \\(it is not shown\\):"
AUDIT = "Is the image to be checked first\\? 1 or 2:"
TARGET = 'Which disk is to be overwritten\\? Its number, or "again" to list the disks anew:'
SERIAL = "type the last [0-9]+ characters of its serial:"
SIZE = "type its size in bytes:"
MOVE = "Is it to be moved\\? 1 or 2:"
NOTHING = "Nothing was written."


class Talk:
    """A run with a terminal of its own for all three streams, or for two where its output goes to a file."""

    def __init__(self, command, cwd, outFile=None):
        self.seen, self.place = "", 0
        self.master, slave = pty.openpty()
        self.slaveName = os.ttyname(slave)

        def take_terminal():
            os.setsid()
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        self.process = subprocess.Popen(command, cwd=cwd, stdin=slave, stdout=outFile or slave, stderr=slave,
                                        preexec_fn=take_terminal, env={**SANITIZERS, **os.environ})
        os.close(slave)

    def read_more(self, deadline):
        """False at the end of what there is to read."""
        if not select.select([self.master], [], [], max(0, deadline - time.monotonic()))[0]:
            raise AssertionError(f"nothing more came within the time limit, only: {self.seen[self.place:]}")
        try:
            data = os.read(self.master, 65536)
        except OSError:  # the other end is closed
            return False
        self.seen += data.decode("utf-8", "replace").replace("\r\n", "\n")
        return data != b""

    def expect(self, pattern):
        """Waits for what matches, and gives what came up to its end since the last time."""
        deadline = time.monotonic() + TIME_LIMIT
        while not (found := re.compile(pattern).search(self.seen, self.place)):
            if not self.read_more(deadline):
                raise AssertionError(f"no {pattern} in: {self.seen[self.place:]}")
        text = self.seen[self.place:found.end()]
        self.place = found.end()
        return text

    def type(self, data):
        os.write(self.master, data)

    def answer(self, pattern, line):
        text = self.expect(pattern)
        self.type(line.encode() + b"\n")
        return text

    def finish(self):
        """The exit status, and what came since the last time."""
        deadline = time.monotonic() + TIME_LIMIT
        while self.read_more(deadline):
            pass
        return self.process.wait(TIME_LIMIT), self.seen[self.place:]

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.master)


class RestoreTest(KeepMachineTest):
    """A machine with a system disk, disk 0, and a target, disk 1."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        self.disk(1, OLD)
        self.card(1, {"model": "Target", "serial": "TGT-AB1234"})

    def sidecar(self, written, **changes):
        """What a backup would have written beside an image."""
        with open(written.path, "rb") as file:
            fileBytes = len(file.read())
        trailer = written.record.trailer
        said = {
            "form": 1, "job": "job", "machine": "machine", "number": 1,
            "disk": {"model": "Source", "serial": "SRC-0001", "wwn": "", "sizeBytes": len(written.disk),
                     "sectorBytes": 512},
            "startedAt": PROVED, "endedAt": PROVED, "startedLocal": "2026-11-22 03:00:05 +0100",
            "base": os.fsdecode(trailer.baseName) if trailer else "",
            "baseIdentity": trailer.basePin.hex() if trailer else "",
            "identity": written.image_id().hex(), "fileBytes": fileBytes, "sha256": "0" * 64,
            "chunks": len(written.record.table), "storedChunks": len(written.record.table), "isSealed": False,
            "captureLines": [], "notes": [], "isSound": True, "damage": "", "provedAt": PROVED, "mayNotBeBase": "",
        }
        with open(written.path + ".json", "w", encoding="utf-8") as file:
            json.dump({**said, **changes}, file)

    def talk(self, *arguments, outFile=None):
        self.assertTrue(os.path.isdir(self.devices), "without its devices folder the program sees real disks")
        talk = Talk([self.keepProgram, "restore", *arguments], self.images, outFile)
        self.addCleanup(talk.close)
        return talk

    def guided(self, *arguments):
        return self.talk("--from", self.images, *arguments)

    def script(self, *arguments, image="full.kstx", disk="serial:TGT-AB1234", proof="TGT-AB1234"):
        """A run for a script: its exit status and its report."""
        status, said = self.ask("restore", "--image", self.path(image), "--disk", disk, "--yes-overwrite", proof,
                                *arguments)
        self.assertEqual(status, WELL if said["result"] == "restored" else FAILED)
        return status, said

    def untouched(self, number=1, content=OLD):
        self.assertTrue(self.disk_bytes(number) == content, "the disk was written")

    def stand_in(self, text):
        """Another program in the place of kestrix."""
        os.unlink(self.program)
        with open(self.program, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(self.program, 0o755)


class TheWholeWay(RestoreTest):
    def test_an_image_is_chosen_checked_written_and_compared(self):
        self.image("full.kstx", DISK)
        talk = self.guided()
        shown = talk.answer(IMAGE, "1")
        self.assertIn("1: " + self.path("full.kstx"), shown)
        self.assertIn("(65536 bytes), sectors of 512 bytes", shown)
        self.assertIn("it has no sidecar", shown)
        shown = talk.answer(TARGET, "1")
        self.assertIn("The image is sound.", shown)
        self.assertRegex(shown, "disk 0: (?s:.*)CAN'T BE OVERWRITTEN: the running system lies on it(?s:.*)disk 1: "
                                "(?s:.*)serial: TGT-AB1234(?s:.*)can be overwritten\n")
        shown = talk.answer(SERIAL, "1234")
        self.assertIn("type the last 4 characters", shown)
        status, rest = talk.finish()
        self.assertEqual(status, WELL, rest)
        self.assertIn("kestrix: Restoring ", rest)
        self.assertIn("RESTORED: ", rest)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_a_sidecar_tells_what_the_image_is_and_its_audit_can_be_trusted(self):
        self.sidecar(self.image("full.kstx", DISK), notes=["read live: the disk was in use"])
        talk = self.guided()
        shown = talk.answer(IMAGE, "1")
        self.assertIn("of Source, serial SRC-0001, in machine; made 2026-11-22 03:00:05 +0100", shown)
        self.assertIn("  read live: the disk was in use\n", shown)
        talk.answer(AUDIT, "2")
        shown = talk.answer(TARGET, "1")
        self.assertIn("is trusted", shown)
        self.assertNotIn("Reading and checking", shown)
        talk.answer(SERIAL, "1234")
        self.assertEqual(talk.finish()[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_the_newest_image_comes_first_and_older_ones_on_demand(self):
        for i in range(12):
            self.sidecar(self.image(f"image{i:02d}.kstx", DISK), startedAt=PROVED + i)
        talk = self.guided()
        shown = talk.answer(IMAGE, "more")
        self.assertIn("1: " + self.path("image11.kstx"), shown)
        self.assertNotIn("image01.kstx", shown)
        shown = talk.expect(IMAGE)
        self.assertIn("12: " + self.path("image00.kstx"), shown)

    def test_the_images_of_the_configuration_are_found(self):
        place = os.path.join(self.folder, "place")
        os.mkdir(place)
        kestrix_image.make_image(os.path.join(place, "job.kstx"), DISK)
        configuration = os.path.join(self.folder, "keep.toml")
        with open(configuration, "w", encoding="utf-8") as file:
            file.write(f'[job.job]\ndisk = "serial:S"\nfolder = "{place}"\n')
        os.chmod(configuration, 0o600)
        talk = self.talk("--config", configuration)
        self.assertIn("1: " + os.path.join(place, "job.kstx"), talk.expect(IMAGE))

    def test_without_a_configuration_the_folder_is_asked_for(self):
        self.image("full.kstx", DISK)
        talk = self.talk("--config", os.path.join(self.folder, "nothing.toml"))
        talk.answer(FOLDER, "/nowhere")
        self.assertIn("/nowhere: it can't be listed", talk.answer(FOLDER, self.images))
        self.assertIn("1: " + self.path("full.kstx"), talk.expect(IMAGE))

    def test_questions_are_shown_where_the_output_goes_to_a_file(self):
        self.image("full.kstx", DISK)
        with open(os.path.join(self.folder, "out"), "w+", encoding="utf-8") as out:
            talk = self.talk("--from", self.images, outFile=out)
            talk.expect(IMAGE)
            out.seek(0)
            self.assertIn("1: " + self.path("full.kstx"), out.read())

    def test_what_was_typed_before_a_question_is_no_answer(self):
        self.image("full.kstx", DISK)
        talk = self.guided()
        talk.expect(IMAGE)
        talk.type(b"1\n1\n1234\n")
        talk.expect(TARGET)
        time.sleep(0.5)
        talk.type(b"again\n")
        talk.expect(TARGET)
        self.assertNotIn("will be gone", talk.seen)
        self.untouched()

    def test_no_answer_is_taken_for_another(self):
        self.image("full.kstx", DISK)
        talk = self.guided()
        for wrong in ("", "0", "2", "1x", "yes", "01"):
            talk.answer(IMAGE, wrong)
            talk.expect("That is no answer here")
        talk.answer(IMAGE, "1")
        for wrong in ("", "7", "-1"):
            talk.answer(TARGET, wrong)
            talk.expect("That is no answer here")
        talk.answer(TARGET, "1")
        self.assertNotIn("Overwriting", talk.answer(SERIAL, ""))
        self.assertIn("That is not what this disk has. " + NOTHING, talk.expect(TARGET))
        self.untouched()


class Ends(RestoreTest):
    """What ends the conversation, at each of its questions."""

    def questions(self):
        """For each question: what to answer before it, and itself."""
        answers = [(IMAGE, "1"), (PASSWORD, "secret"), (AUDIT, "2"), (TARGET, "1"), (SERIAL, "1234")]
        return [(answers[:i], answers[i][0]) for i in range(len(answers))]

    def each(self, end):
        written = self.image("sealed.kstx", DISK, b"secret")
        self.sidecar(written)
        for before, question in self.questions():
            with self.subTest(question=question):
                talk = self.guided()
                for asked, line in before:
                    talk.answer(asked, line)
                talk.expect(question)
                sentence = end(talk)
                status, rest = talk.finish()
                self.assertEqual(status, FAILED, rest)
                self.assertIn(sentence, rest)
                self.assertIn(NOTHING, rest)
                self.untouched()

    def test_an_end_of_input(self):
        def end(talk):
            talk.type(b"\x04")
            return "NOT DONE: the input ended before an answer."

        self.each(end)

    def test_an_interrupt(self):
        def end(talk):
            talk.type(b"\x03")
            return "NOT DONE: it was interrupted."

        self.each(end)

    def test_a_quit(self):
        def end(talk):
            talk.type(b"\x1c")
            return "NOT DONE: it was interrupted."

        self.each(end)

    def test_a_request_to_end(self):
        def end(talk):
            talk.process.send_signal(signal.SIGTERM)
            return "NOT DONE: it was interrupted."

        self.each(end)

    def test_half_a_line_before_the_end_is_no_answer(self):
        self.image("full.kstx", DISK)
        talk = self.guided()
        talk.answer(IMAGE, "1")
        talk.answer(TARGET, "1")
        talk.expect(SERIAL)
        talk.type(b"1234\x04\x04")  # the first hands over what there is, the second is the end
        status, rest = talk.finish()
        self.assertEqual(status, FAILED)
        self.assertIn(NOTHING, rest)
        self.untouched()

    def test_the_terminal_has_its_echo_back_after_an_interrupt(self):
        self.image("sealed.kstx", DISK, b"secret")
        talk = self.guided()
        slave = os.open(talk.slaveName, os.O_RDWR | os.O_NOCTTY)
        self.addCleanup(os.close, slave)
        talk.answer(IMAGE, "1")
        talk.expect(PASSWORD)
        self.assertFalse(termios.tcgetattr(slave)[3] & termios.ECHO)
        talk.type(b"\x03")
        talk.expect(NOTHING)
        talk.process.wait(TIME_LIMIT)
        self.assertTrue(termios.tcgetattr(slave)[3] & termios.ECHO)

    def test_standard_input_that_is_closed(self):
        self.image("full.kstx", DISK)
        run = self.keep("restore", "--from", self.images)
        self.assertEqual(run.status, FAILED)
        self.assertIn(b"the input ended before an answer.\nNothing was written.\n", run.out)


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


class Scripts(RestoreTest):
    def setUp(self):
        super().setUp()
        self.image("full.kstx", DISK)

    def test_a_run_that_is_told_all_asks_nothing(self):
        status, said = self.script()
        self.assertEqual((status, said["result"], said["diskState"], said["equal"]),
                         (WELL, "restored", "written", True))
        self.assertEqual((said["disk"]["number"], said["disk"]["serial"]), (1, "TGT-AB1234"))
        self.assertTrue(self.disk_bytes(1) == DISK)
        run = self.keep("restore", "--image", self.path("full.kstx"), "--disk", "1", "--yes-overwrite", "TGT-AB1234")
        self.assertEqual((run.status, run.err), (WELL, b""))
        self.assertIn(b"RESTORED: ", run.out)

    def test_the_serial_must_be_whole_and_that_of_the_disk(self):
        for proof in ("1234", "tgt-ab1234", "TGT-AB1234 ", "65536", "YES"):
            with self.subTest(proof=proof):
                status, said = self.script(proof=proof)
                self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
                self.assertIn("--yes-overwrite does not have the whole serial of disk 1", said["failure"])
                self.untouched()

    def test_a_disk_without_a_serial_is_named_by_its_size(self):
        os.unlink(self.disk_path(1) + ".json")
        self.assertEqual(self.script(disk="1", proof="65535")[0], FAILED)
        self.untouched()
        self.assertEqual(self.script(disk="1", proof="65536")[0], WELL)
        self.assertTrue(self.disk_bytes(1) == DISK)

    def test_refusals_hold_for_scripts_too(self):
        self.card(0, {"serial": "SYSTEM-01"})
        self.disk(2, 512)
        self.card(2, {"serial": "SMALL-0001"})
        for serial, why in (("SYSTEM-01", "the running system lies on it"), ("SMALL-0001", "it is smaller"),
                            ("NOBODY", "no disk of this machine fits that")):
            with self.subTest(serial=serial):
                status, said = self.script(disk="serial:" + serial, proof=serial)
                self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
                self.assertIn(why, said["failure"])
                isShown = any("serial: SYSTEM-01" in line for line in said["lines"])
                self.assertEqual(isShown, serial in ("SYSTEM-01", "NOBODY"), "the cards of all, where none is meant")

    def test_an_image_that_is_none(self):
        self.file("text", b"no image")
        for name in ("text", "nowhere"):
            status, said = self.script(image=name)
            self.assertEqual((status, said["diskState"], said["disk"]), (FAILED, "untouched", None))

    def test_json_wants_everything_said(self):
        whole = {"--image": self.path("full.kstx"), "--disk": "1", "--yes-overwrite": "TGT-AB1234"}
        for missing in whole:
            arguments = [word for name in whole if name != missing for word in (name, whole[name])]
            run = self.keep("restore", "--json", *arguments)
            self.assertEqual((run.status, run.out), (COMMAND_LINE, b""), missing)
        self.untouched()

    def test_an_overwriting_without_a_disk_is_no_command(self):
        run = self.keep("restore", "--image", self.path("full.kstx"), "--yes-overwrite", "TGT-AB1234")
        self.assertEqual(run.status, COMMAND_LINE)

    def test_a_part_of_the_options_leaves_the_rest_to_questions(self):
        talk = self.talk("--image", self.path("full.kstx"), "--disk", "serial:TGT-AB1234")
        talk.answer(SERIAL, "9999")
        status, rest = talk.finish()
        self.assertEqual(status, FAILED)
        self.assertIn(NOTHING, rest)
        self.untouched()
        talk = self.talk("--image", self.path("full.kstx"), "--disk", "serial:TGT-AB1234")
        talk.answer(SERIAL, "1234")
        self.assertEqual(talk.finish()[0], WELL)


# The form that the page states is checked by ask; that there is one at all, here.
class Page(RestoreTest):
    def test_what_restore_prints_has_a_form(self):
        self.assertTrue(form_of("restore"))
