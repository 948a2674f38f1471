"""kestrix-keep restore: the conversation from its first question to its end, and options for scripts in its place."""
import os
import signal
import termios
import time

import kestrix_image
from harness import TIME_LIMIT
from keep_machine import COMMAND_LINE, FAILED, WELL, form_of
from keep_restoring import AUDIT, DISK, FOLDER, IMAGE, MADE_AT, NOTHING, PASSWORD, SERIAL, TARGET, RestoreTest


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
            self.sidecar(self.image(f"image{i:02d}.kstx", DISK), startedAt=MADE_AT + i)
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
