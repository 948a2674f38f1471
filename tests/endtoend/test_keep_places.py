"""kestrix-keep and the places of its copies: what goes wrong on the way there, what a place tells of itself, and the
way back, with servers of rclone's on the loopback address."""
import fcntl
import hashlib
import json
import os
import pathlib
import shutil
import stat
import subprocess
import time

import kestrix_image
from harness import MIB, needs, why_no_loop_devices, why_no_mounts
from keep_job import DAY, DISK, NAME, NOW
from keep_machine import COMMAND_LINE, FAILED, WELL
from keep_remotes import RCLONE, RemoteTest, answers, free_port
from keep_restoring import IMAGE, SERIAL, TARGET
from terminal import Talk

FETCH = "Into which folder are the image and what it stands on to be fetched\\?"
S3_SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "s3_server.py")
OLD = kestrix_image.seeded_disk(len(DISK), 9)


class OnTheWayThere(RemoteTest):
    """A fault costs a line, leaves no image there that is none, and is made up for by the next run."""

    def made_up_for(self):
        """The next run copies all that there is."""
        self.well(NOW + DAY)
        self.assertEqual(self.images_there(), self.image_names())
        self.assertEqual(self.there_names(),
                         sorted(name + end for name in self.image_names() for end in ("", ".json")))
        self.check_same(*self.image_names())

    def test_the_server_is_killed_in_mid_copy(self):
        process = self.serve()
        passage = self.passage()
        self.copy_by(port=passage.port)
        passage.happens("up", MIB, lambda: (process.kill(), passage.cut()))
        status, report = self.backup()
        self.assertEqual((status, self.images_there()), (WELL, []))
        self.missed(report, "rclone copyto ended with exit status")
        process.wait()
        passage.happens("up", None, None)
        self.serve()
        self.made_up_for()

    @needs(why_no_mounts)
    def test_the_server_is_full(self):
        self.served = small = self.small_file_system("3m")
        self.there = os.path.join(small, "images")
        self.serve()
        self.copy_by()
        status, report = self.backup()
        self.assertEqual((status, self.images_there()), (WELL, []))
        self.missed(report, "rclone copyto ended with exit status")
        self.must("mount", "-o", "remount,size=64m", small)
        self.made_up_for()

    @needs(why_no_mounts)
    def test_a_full_place_lets_go_by_its_rules_all_the_same(self):
        self.there = self.small_file_system("10m")
        full = 'new-full = { every = "1d" }'
        self.configure(f'copies = [{{ to = "{self.there}" }}]\n{full}')
        names = [self.well(NOW + i * DAY) for i in range(2)]
        self.assertEqual(self.images_there(), names)
        self.configure(f'copies = [{{ to = "{self.there}", keep = {{ last = 1 }} }}]\n{full}')
        _, report = self.backup(NOW + 2 * DAY)
        self.missed(report, "No space left")
        self.assertEqual(self.images_there(), names[1:])
        newest = self.well(NOW + 3 * DAY)
        self.assertEqual(self.images_there(), [newest])

    def test_a_slow_server_is_waited_for_and_progress_is_told_in_a_terminal(self):
        self.serve()
        passage = self.passage()
        self.copy_by(port=passage.port)
        passage.pace = 3 * MIB
        talk = Talk([self.keepProgram, "backup", "--now", str(NOW), "--config", self.configuration], self.images)
        self.addCleanup(talk.close)
        talk.expect("left  copying job-")
        talk.expect(" [1-9][0-9]? %[^\r\n]*reading back job-")
        status, rest = talk.finish()
        self.assertEqual(status, WELL, rest)
        self.assertIn(f"copied: {NAME} to {self.REMOTE}", rest)
        self.check_same(NAME)

    def test_a_server_that_falls_silent_is_given_up_and_nothing_is_called_damaged(self):
        self.serve()
        passage = self.passage()
        self.copy_by(port=passage.port)
        self.environment("RCLONE_TIMEOUT", "1s")
        passage.happens("up", MIB, lambda: None)
        status, report = self.backup()
        self.assertEqual((status, self.images_there()), (WELL, []))
        self.missed(report, "rclone copyto ended with exit status")
        self.assertNotIn("DAMAGED", json.dumps(report))
        passage.cut()
        passage.happens("up", None, None)
        self.made_up_for()

    def test_a_copy_that_was_cut_off_there_is_made_anew(self):
        self.serve()
        self.copy_by()
        first = self.well()
        os.truncate(self.there_path(first), 1000)
        os.truncate(self.there_path(first + ".json"), 10)
        _, report = self.backup(NOW + DAY)
        self.assertIn(f"copied again: {first}: at {self.REMOTE} it is not as long as it was", report["lines"])
        self.check_same(*self.image_names())

    def test_wrong_credentials(self):
        self.serve("webdav", "--user", "u", "--pass", "right")
        self.copy_by()
        self.remote(more=f"user = u\npass = {self.obscured('wrong')}\n")
        _, report = self.backup()
        self.missed(report, "401")
        self.remote(more=f"user = u\npass = {self.obscured('right')}\n")
        self.made_up_for()

    @needs(why_no_mounts)
    def test_rclone_is_not_there(self):
        self.serve()
        self.copy_by()
        sentence = f"{self.REMOTE}: rclone is not there: install it"
        for arguments, words in ((["backup", "--now", str(NOW)], sentence + "; it is made up for next time"),
                                 (["status", "--place", self.REMOTE], sentence)):
            run = subprocess.run(["unshare", "--mount", "sh", "-c", 'mount --bind /dev/null "$0" && exec "$@"', RCLONE,
                                  self.keepProgram, *arguments, "--config", self.configuration],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            self.assertIn(words, run.stdout)
            self.assertEqual(run.returncode, WELL if arguments[0] == "backup" else FAILED)
        self.made_up_for()

    def test_a_configuration_of_rclone_with_a_password_asks_nobody(self):
        self.serve()
        self.copy_by()
        talk = Talk([RCLONE, "config"], self.folder)
        self.addCleanup(talk.close)
        for asked, line in (("e/n/d/r/c/s/q>", "s"), ("a/q>", "a"), ("password:", "secret"), ("password:", "secret"),
                            ("c/u/q>", "q"), ("e/n/d/r/c/s/q>", "q")):
            talk.answer(asked, line)
        talk.finish()
        _, report = self.backup()
        self.missed(report, "unable to decrypt configuration")
        self.environment("RCLONE_PASSWORD_COMMAND", "echo secret")
        self.made_up_for()


class Digests(RemoteTest):
    HASHES = "shell_type = unix\nmd5sum_command = md5sum\nsha1sum_command = none\n"

    def test_what_a_remote_has_in_the_place_of_a_sha256_is_recorded_and_compared_by_later(self):
        self.serve("sftp")
        self.copy_by("sftp")
        first = self.well()
        self.assertEqual(self.sidecar(first)["otherDigests"], {"md5": self.digest("md5", first)})
        self.check_same(first)
        self.assertEqual(self.ask("status", "--place", self.REMOTE, "--compare", "--now", str(NOW))[0], WELL)
        kestrix_image.flip_byte(self.there_path(first), 100)
        status, said = self.ask("status", "--place", self.REMOTE, "--compare", "--now", str(NOW))
        self.assertEqual(status, FAILED)
        self.assertIn("its md5 is", said["jobs"][0]["problems"][1])

    def digest(self, kind, name):
        return subprocess.run([f"{kind}sum", self.place_path(name)], check=True, stdout=subprocess.PIPE,
                              text=True).stdout.split()[0]

    @needs(why_no_mounts)
    def test_an_empty_digest_is_none(self):
        self.serve()
        self.copy_by()
        real, stand_in = os.path.join(self.folder, "real"), os.path.join(self.folder, "stand-in")
        shutil.copy2(RCLONE, real)
        with open(stand_in, "w", encoding="ascii") as file:
            file.write('#!/bin/sh\ncase "$*" in\n*" backend features "*) echo \'{"Hashes": ["md5"]}\';;\n'
                       '*" hashsum "*) echo "                                  name";;\n'
                       f'*" cat "*.kstx.*.copying) ;;\n*) exec {real} "$@";;\nesac\n')
        os.chmod(stand_in, 0o755)
        run = subprocess.run(["unshare", "--mount", "sh", "-c", f'mount --bind {stand_in} {RCLONE} && exec "$@"', "sh",
                              self.keepProgram, "backup", "--now", str(NOW), "--config", self.configuration],
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertIn("what arrived is not what was sent; it is made up for next time", run.stdout)
        self.assertEqual((run.returncode, self.images_there()), (WELL, []))


def why_no_swift():
    return None if os.path.exists("/usr/bin/swift-proxy-server") else "there is no Swift"


class ObjectStore(RemoteTest):
    REMOTE = "rclone:offsite:kestrix/images"

    def serve_s3(self):
        port = free_port()
        process = subprocess.Popen([S3_SERVER, os.path.join(self.folder, "store"), str(port)],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        while not all(answers(port + i) for i in range(4)):
            self.assertIsNone(process.poll(), "the server has ended")
            time.sleep(0.1)
        return port

    @needs(why_no_swift)
    def test_a_chain_goes_to_s3_and_comes_back(self):
        port = self.serve_s3()
        self.disk(2, OLD)
        self.card(2, {"model": "Target", "serial": "TGT-AB1234"})
        os.environ.pop("AWS_CA_BUNDLE", None)  # which rclone 1.60 can't do with
        self.remote("s3", port)
        self.configure(f'copies = [{{ to = "{self.REMOTE}", plain-ok = true }}]')
        first = self.well()
        disk = self.change_disk(MIB, b"changed")
        second = self.well(NOW + DAY)
        # A server that is slow to know what it has been given gives no digest, and is read back.
        noted = [self.sidecar(name)["otherDigests"] for name in (first, second)]
        right = [{"md5": hashlib.md5(pathlib.Path(self.place_path(name)).read_bytes()).hexdigest()}
                 for name in (first, second)]
        self.assertTrue(all(one in (its, {}) for one, its in zip(noted, right)), (noted, right))
        self.assertNotEqual(noted, [{}, {}])
        status, said = self.ask("status", "--place", self.REMOTE, "--compare", "--now", str(NOW + DAY))
        self.assertEqual((status, said["jobs"][0]["chain"]), (WELL, [second, first]))
        status, said = self.ask("restore", "--image", f"{self.REMOTE}/{second}", "--fetch-to", self.images, "--disk",
                                "serial:TGT-AB1234", "--yes-overwrite", "TGT-AB1234")
        self.assertEqual((status, said["fetched"]), (WELL, [first, second]), said)
        self.assertTrue(self.disk_bytes(2) == disk)


class WhatAPlaceTells(RemoteTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.there)
        self.configure(f'copies = [{{ to = "{self.there}" }}]')

    def tell(self, *arguments, place=None):
        return self.ask("status", "--place", place or self.there, "--now", str(NOW + DAY), *arguments)

    def problems(self, *arguments, status=FAILED):
        found, said = self.tell(*arguments)
        self.assertEqual((found, said["fault"]), (status, None))
        return said["jobs"][0]["problems"]

    def test_a_sound_place_without_the_configuration(self):
        first = self.well()
        second = self.well(NOW + DAY)
        os.unlink(self.configuration)
        shutil.rmtree(self.place)
        status, said = self.tell()
        state, = said["jobs"]
        self.assertEqual((status, state["problems"], state["lastGood"], state["lastGoodAt"], state["chain"]),
                         (WELL, [], second, NOW + DAY, [second, first]))
        self.assertEqual((state["images"], state["unfinished"]), (2, []))
        run = self.keep("status", "--place", self.there, "--now", str(NOW + 3 * DAY))
        self.assertIn(f"last good image: {second}, 48 hours old\n  its chain: 2 images, all here".encode(), run.out)

    def test_over_a_protocol_the_same(self):
        self.serve()
        self.copy_by()
        first = self.well()
        _, said = self.tell(place=self.REMOTE)
        state, = said["jobs"]
        self.assertEqual((state["isWell"], state["lastGood"], state["images"]), (True, first, 1))

    def test_what_is_missing_cut_off_or_unfinished(self):
        first = self.well()
        second = self.well(NOW + DAY)
        with open(self.there_path("job-20260101T020005Z.kstx.copying"), "wb"):
            pass
        os.truncate(self.there_path(second), 5000)
        cut, *_ = self.problems()
        self.assertRegex(cut, f"{second}: DAMAGED: it has 5000 bytes, not the [0-9]+ that it was made with")
        os.unlink(self.there_path(first))
        _, said = self.tell()
        state, = said["jobs"]
        self.assertEqual(state["problems"][0], "there is no sound image")
        self.assertEqual(state["unfinished"], ["job-20260101T020005Z.kstx.copying", first + ".json"])
        os.unlink(self.there_path(second + ".json"))
        self.assertIn(second + ": it has no sidecar: this job did not make it, or the sidecar was removed",
                      self.problems())

    def test_a_base_that_is_gone(self):
        first = self.well()
        second = self.well(NOW + DAY)
        os.unlink(self.there_path(first))
        self.assertIn(f"{second}: DAMAGED: {first}, which it stands on, is gone", self.problems())

    def test_a_flipped_byte_is_found_where_the_copies_are_compared_and_what_to_do_is_said(self):
        first = self.well()
        kestrix_image.flip_byte(self.there_path(first), 100)
        self.assertEqual(self.problems(status=WELL), [])
        problems = self.problems("--compare")
        self.assertRegex(problems[1], f"^{first}: DAMAGED: .*its SHA-256 is [0-9a-f]{{64}}, not [0-9a-f]{{64}}$")
        self.assertIn("remove it here, with its sidecar; the job's next backup copies it again", problems[2])
        for name in (first, first + ".json"):
            os.unlink(self.there_path(name))
        self.well(NOW + DAY)
        self.assertEqual(self.problems("--compare", status=WELL), [])

    def test_a_job_that_has_nothing_there(self):
        self.well()
        status, said = self.ask("status", "other", "--place", self.there)
        self.assertEqual((status, said["jobs"][0]["job"], said["jobs"][0]["problems"]),
                         (FAILED, "other", ["there is no sound image"]))

    def test_a_place_that_is_none(self):
        for place, fault in (("/nowhere", "it can't be listed"), (self.images, "there is no image of a job in it")):
            status, said = self.tell(place=place)
            self.assertEqual((status, said["jobs"]), (FAILED, []))
            self.assertIn(fault, said["fault"])
        self.assertEqual(self.keep("status", "--place", "rclone:-x:y").status, COMMAND_LINE)
        self.assertEqual(self.keep("status", "--compare").status, COMMAND_LINE)

    def test_a_server_that_is_gone(self):
        self.port = self.serve() and self.port
        self.remote(port=1)
        status, said = self.tell(place=self.REMOTE)
        self.assertEqual((status, said["jobs"]), (FAILED, []))
        self.assertIn("connection refused", said["fault"])


class TheWayBack(RemoteTest):
    """A full image and a thin one on a server, and a disk to restore them onto."""

    def setUp(self):
        super().setUp()
        self.disk(2, OLD)
        self.card(2, {"model": "Target", "serial": "TGT-AB1234"})
        self.process = self.serve()
        self.way = self.passage()
        self.copy_by(port=self.way.port)
        self.configure(f'copies = [{{ to = "{self.there}" }}]')  # to what the server serves
        os.mkdir(self.there)
        self.first = self.well()
        self.content_of_disk = self.change_disk(0, kestrix_image.seeded_disk(4 * MIB, 7))
        self.second = self.well(NOW + DAY)
        shutil.rmtree(self.place)
        os.unlink(self.configuration)
        self.to = os.path.join(self.folder, "to")
        os.mkdir(self.to)

    def fetched_names(self):
        return sorted(name for name in os.listdir(self.to) if not name.startswith("."))

    def script(self, *arguments, name=None, to=None):
        """A run for a script: its exit status and its report."""
        return self.ask("restore", "--image", f"{self.REMOTE}/{name or self.second}", "--fetch-to", to or self.to,
                        "--disk", "serial:TGT-AB1234", "--yes-overwrite", "TGT-AB1234", *arguments)

    def restored(self, fetched, *arguments):
        status, said = self.script(*arguments)
        self.assertEqual((status, said["fetched"]), (WELL, fetched), said)
        self.assertTrue(self.disk_bytes(2) == self.content_of_disk)
        return said

    def refused(self, words, *arguments, **which):
        status, said = self.script(*arguments, **which)
        self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
        self.assertRegex(said["failure"], words)
        self.assertTrue(self.disk_bytes(2) == OLD)
        return said

    def nothing_looks_finished(self, *but):
        self.assertEqual([name for name in self.fetched_names() if name.endswith(".kstx")], list(but))
        self.assertEqual([name for name in self.fetched_names() if name.endswith(".fetching")], [])

    def test_a_chain_is_fetched_told_of_and_restored_and_not_fetched_twice(self):
        said = self.restored([self.first, self.second])
        size = os.path.getsize(self.there_path(self.first)) + os.path.getsize(self.there_path(self.second))
        told = f"To be fetched from {self.REMOTE} into {self.to}: 2 of 2 files, {size / MIB:.2f} MiB; there is room "
        self.assertTrue(any(line.startswith(told) for line in said["lines"]), said)
        self.assertEqual(self.fetched_names(), sorted(name + end for name in (self.first, self.second)
                                                      for end in ("", ".json")))
        said = self.restored([], "--trust-last-audit")
        self.assertEqual(said["audit"], "trusted")

    def test_guided_by_questions(self):
        talk = Talk([self.keepProgram, "restore", "--from", self.REMOTE], self.images)
        self.addCleanup(talk.close)
        shown = talk.answer(IMAGE, "1")
        self.assertIn(f"1: {self.REMOTE}/{self.second}\n  of Model, serial SERIAL1", shown)
        self.assertIn(f"stands on 1 image: {self.first} (there)", shown)
        self.assertIn(f"2: {self.REMOTE}/{self.first}\n", shown)
        talk.answer(FETCH, "/nowhere")
        self.assertIn("/nowhere: it can't be looked at", talk.answer(FETCH, self.to))
        talk.answer("Is the image to be checked first\\?", "1")
        shown = talk.answer(TARGET, "2")
        self.assertIn("The disk that this folder lies on can't be overwritten then.", talk.seen)
        talk.answer(SERIAL, "1234")
        status, rest = talk.finish()
        self.assertEqual(status, WELL, rest)
        self.assertTrue(self.disk_bytes(2) == self.content_of_disk)

    def test_the_server_is_killed_in_mid_fetch_and_the_next_restore_fetches_the_rest(self):
        size = os.path.getsize(self.there_path(self.first))
        for after, whole in ((MIB, []), (size + MIB, [self.first])):
            self.way.happens("down", after, lambda: (self.process.kill(), self.way.cut()))
            self.refused("rclone copyto ended with exit status")
            self.nothing_looks_finished(*whole)
            self.process.wait()
            self.way.happens("down", None, None)
            self.process = self.serve()
        self.restored([self.second])

    def test_a_server_that_falls_silent_is_given_up_and_nothing_is_called_damaged(self):
        self.environment("RCLONE_TIMEOUT", "1s")
        self.way.happens("down", MIB, lambda: None)
        said = self.refused("rclone copyto ended with exit status")
        self.assertNotIn("DAMAGED", json.dumps(said))
        self.nothing_looks_finished()

    def test_a_flipped_byte_is_told_and_nothing_of_it_stays(self):
        kestrix_image.flip_byte(self.there_path(self.second), 100)
        self.refused(f"{self.REMOTE}/{self.second}: what was fetched is not what was copied there: (?s:.*)restore an "
                     "image that does not stand on it, or take it from another place")
        self.nothing_looks_finished(self.first)
        self.assertTrue(stat.S_ISREG(os.stat(os.path.join(self.to, self.first)).st_mode))

    def test_what_is_damaged_there_by_its_length_is_not_fetched(self):
        os.truncate(self.there_path(self.first), 5000)
        self.refused(f"{self.second}: {self.first}, which it stands on, is damaged")
        self.assertEqual(self.fetched_names(), [])

    @needs(why_no_mounts)
    def test_a_folder_without_room_is_refused_before(self):
        small = self.small_file_system("4m")
        self.refused(f"{small}: [0-9.]+ MiB have to be fetched, and there is room for 4.00 MiB", to=small)
        self.assertEqual(os.listdir(small), [])

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_folder_on_the_disk_that_is_to_be_overwritten_is_refused_before(self):
        self.loop_disk(2, self.ext4(32 * MIB))
        self.card(2, {"serial": "TGT-AB1234"})
        folder = self.mount(os.path.realpath(self.disk_path(2)), "rw", "ext4")
        status, said = self.script(to=folder)
        self.assertEqual((status, said["diskState"]), (FAILED, "untouched"))
        self.assertIn("the image lies on it", said["failure"])
        self.assertEqual(os.listdir(folder), ["lost+found"])

    def test_a_file_of_another_that_has_the_name_stays(self):
        path = os.path.join(self.to, self.first)
        with open(path, "wb") as file:
            file.write(b"another's")
        self.refused(f"{path}: there is a file of this name already, and it is not what would be fetched")
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"another's")

    def test_a_sidecar_of_another_image_that_has_the_name_stays_and_one_of_this_one_is_no_hindrance(self):
        path = os.path.join(self.to, self.first + ".json")
        with open(path, "wb") as file:
            file.write(b"another's")
        self.refused(f"{path}: there is a file of this name already, and it does not tell of what would be fetched")
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"another's")
        shutil.copyfile(self.there_path(self.first + ".json"), path)
        self.restored([self.first, self.second])

    def test_a_folder_that_another_run_holds_is_not_fetched_into(self):
        with open(os.path.join(self.to, ".kestrix-keep.lock"), "wb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.refused(f"{self.to}: another run holds it")
        self.assertEqual(self.fetched_names(), [])
        self.restored([self.first, self.second])

    def test_what_a_killed_fetch_left_is_taken_away(self):
        path = os.path.join(self.to, self.first + ".fetching")
        with open(path, "wb") as file:  # as long as the image, so that a remote without times takes it for that
            file.truncate(os.path.getsize(self.there_path(self.first)))
        self.restored([self.first, self.second])
        self.nothing_looks_finished(self.first, self.second)

    def test_an_image_or_a_server_that_is_not_there(self):
        self.refused("job-20260101T020005Z.kstx: there is no such image", name="job-20260101T020005Z.kstx")
        self.remote(port=1)
        self.refused("connection refused")

    def test_a_command_line_that_says_nothing_that_can_be_done(self):
        script = ["--disk", "serial:TGT-AB1234", "--yes-overwrite", "TGT-AB1234"]
        for arguments in (["--image", f"{self.REMOTE}/{self.second}", *script], ["--from", "rclone:-x:y"],
                          ["--from", self.to, "--fetch-to", self.to]):
            self.assertEqual(self.keep("restore", *arguments).status, COMMAND_LINE, arguments)
