"""kestrix-image killed at many moments, or without room, handles or memory: nothing lies under a final name that isn't
whole, success never comes with a wrong result, and what could not be done is said.
"""
import os
import resource
import signal
import subprocess
import time

from harness import KIB, MIB, SANITIZERS, TIME_LIMIT, Run, is_sanitized, needs, why_no_mounts
from image_machine import FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import flip_byte, make_chain, seeded_disk

MOMENTS = 16
SIZE = 16 * MIB
ENDS = (signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGHUP)


class FaultTest(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(SIZE, 1)

    def check_impossible(self, run):
        self.assertEqual(run.status, IMPOSSIBLE, run)
        self.assertRegex(run.err, rb"^kestrix-image: .+\n$")

    def damaged_image(self):
        """An image with a bad chunk at its end and, in the folder twins, another one that has it. Gives the file as it
        was."""
        whole = self.image("a", self.content, chunkSize=MIB).record.encode()
        os.mkdir(self.path("twins"))
        self.image("twins/b", self.content, chunkSize=MIB, epoch=7)
        flip_byte(self.path("a"), len(whole) - 1)
        return whole


class Killed(FaultTest):
    """Each command that makes files, ended by a signal at moments all over its run."""

    def remove(self, names):
        for name in names:
            os.unlink(self.path(name))

    def look_at_files(self, number, before, made):
        """What a run that was ended has left: files that are whole and, killed, perhaps an unfinished one."""
        left = set(os.listdir(self.images)) - before
        for name in left & set(made):
            self.assertTrue(self.file_bytes(name) == made[name], f"{name} is not whole")
        unfinished = left - set(made)
        self.assertTrue(all(name.endswith(".unfinished") for name in unfinished), unfinished)
        self.assertTrue(number == signal.SIGKILL or not unfinished, unfinished)
        self.remove(left)

    def end_at(self, number, moment, made, arguments):
        """Ends a run by a signal some seconds after its beginning, and gives whether that was before its end."""
        started = self.start_image_program(*arguments)
        end = time.monotonic() + moment
        while time.monotonic() < end and started.process.poll() is None:
            pass
        if started.process.poll() is None:
            started.signal(number)
        run = started.finish()
        self.assertIn(run.status, (-number, GOOD, FOUND), run)
        isDone = run.status != -number
        self.assertTrue(not isDone or all(os.path.exists(self.path(name)) for name in made), run)
        return not isDone

    def kill_all_over(self, made, *arguments):
        """Ends the command, whose whole run makes these files, at many moments."""
        before = set(os.listdir(self.images))
        began = time.monotonic()
        self.assertIn(self.image_program(*arguments).status, (GOOD, FOUND))
        duration = time.monotonic() - began
        self.assertEqual(set(os.listdir(self.images)) - before, set(made))
        self.remove(made)
        ended = 0
        for number in ENDS:
            for i in range(MOMENTS):
                with self.subTest(number=number, moment=i):
                    ended += self.end_at(number, duration * i / MOMENTS, made, arguments)
                    self.look_at_files(number, before, made)
        self.assertGreater(ended, MOMENTS)

    def test_a_disk_that_is_being_extracted_is_whole_or_not_there(self):
        self.image("a", self.content, chunkSize=MIB)
        self.kill_all_over({"new": self.content}, "extract", "a", "--out", "new")

    def test_a_disk_that_is_being_extracted_as_far_as_it_goes_is_not_there_without_its_map(self):
        self.damaged_image()
        arguments = ("extract", "a", "--out", "new", "--keep-going", "--map", "map")
        self.assertEqual(self.image_program(*arguments).status, FOUND)
        made = {name: self.file_bytes(name) for name in ("map", "new")}
        self.assertEqual(made["new"], self.content[:-MIB] + bytes(MIB))
        self.remove(made)
        self.kill_all_over(made, *arguments)

    def test_an_image_that_is_being_repaired_is_whole_or_not_there(self):
        whole = self.damaged_image()
        self.kill_all_over({"new": whole}, "repair", "a", "--out", "new", "--twins", "twins")

    def test_what_a_killed_run_left_is_in_nobodys_way(self):
        self.image("a", self.content, chunkSize=MIB)
        started = self.start_image_program("extract", "a", "--out", "new")
        while not any(name.endswith(".unfinished") for name in os.listdir(self.images)):
            self.assertIsNone(started.process.poll())
        started.signal(signal.SIGKILL)
        self.assertEqual(started.finish().status, -signal.SIGKILL)
        self.assertEqual(self.image_program("extract", "a", "--out", "new").status, GOOD)
        self.assertEqual(self.file_bytes("new"), self.content)


class WithoutRoom(FaultTest):
    @needs(why_no_mounts)
    def test_a_full_file_system_takes_nothing(self):
        whole = self.damaged_image()
        for size in (256 * KIB, SIZE // 2, SIZE - 8 * KIB):
            folder = self.small_file_system(str(size))
            out = os.path.join(folder, "new")
            for arguments in (("extract", "twins/b", "--out", out),
                              ("extract", "a", "--out", out, "--twins", "twins"),
                              ("repair", "a", "--out", out, "--twins", "twins")):
                with self.subTest((size, arguments[0])):
                    self.check_impossible(self.image_program(*arguments))
                    self.assertEqual(os.listdir(folder), [])
        folder = self.small_file_system(str(2 * SIZE))
        out = os.path.join(folder, "new")
        self.assertEqual(self.image_program("repair", "a", "--out", out, "--twins", "twins").status, GOOD)
        self.assertEqual(self.file_bytes(out), whole)

    @needs(why_no_mounts)
    def test_a_map_that_finds_no_room_takes_the_disk_with_it(self):
        self.damaged_image()
        folder = self.small_file_system("64k", ",nr_inodes=1")
        self.check_impossible(self.image_program("extract", "a", "--out", "new", "--keep-going", "--map",
                                                 os.path.join(folder, "map")))
        self.assertEqual((os.listdir(folder), self.file_size("new")), ([], -1))

    @needs(why_no_mounts)
    def test_a_disk_that_finds_no_room_takes_the_map_with_it(self):
        self.damaged_image()
        folder = self.small_file_system("256k")
        self.check_impossible(self.image_program("extract", "a", "--out", os.path.join(folder, "new"), "--keep-going",
                                                 "--map", "map"))
        self.assertEqual((os.listdir(folder), self.file_size("map")), ([], -1))

    @needs(why_no_mounts)
    def test_a_read_only_file_system_takes_nothing(self):
        self.damaged_image()
        out = os.path.join(self.small_file_system("1m", ",ro"), "new")
        self.check_impossible(self.image_program("extract", "twins/b", "--out", out))
        self.check_impossible(self.image_program("repair", "a", "--out", out, "--twins", "twins"))


class WithLimits(FaultTest):
    def limited(self, what, limit, *arguments):
        """A run under a limit of the system's."""
        done = subprocess.run([self.imageProgram, *arguments], cwd=self.images, timeout=TIME_LIMIT,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env={**SANITIZERS, **os.environ},
                              preexec_fn=lambda: resource.setrlimit(what, (limit, limit)))
        return Run(done.returncode, done.stdout, done.stderr)

    def test_a_limit_of_file_sizes_is_an_error_of_the_write(self):
        self.image("a", self.content, chunkSize=MIB)
        self.check_impossible(self.limited(resource.RLIMIT_FSIZE, SIZE - 1, "extract", "a", "--out", "new"))
        self.assertEqual(sorted(os.listdir(self.images)), ["a"])

    def test_with_too_few_handles_a_chain_is_not_sound(self):
        make_chain(self.images, 5)
        outcomes = set()
        for handles in range(3, 20):
            for arguments in (("check", "level04.kstx", "-j", "2"), ("extract", "level04.kstx", "--out", "new")):
                with self.subTest((handles, arguments[0])):
                    run = self.limited(resource.RLIMIT_NOFILE, handles, *arguments)
                    outcomes.add(run.status)
                    self.assertIn(run.status, (GOOD, IMPOSSIBLE) if handles > 3 else (IMPOSSIBLE, 127), run)
                    self.assertTrue(run.out or run.err)
                    if self.file_size("new") >= 0:
                        self.assertEqual(run.status, GOOD)
                        os.unlink(self.path("new"))
        self.assertTrue({GOOD, IMPOSSIBLE} <= outcomes, outcomes)

    def test_with_too_little_memory_nothing_is_sound_and_nothing_is_left(self):
        if is_sanitized():  # whose own memory is beyond any limit; the sweep of failing calls runs with it
            return
        self.image("a", self.content, b"password", chunkSize=8 * MIB, kdfIterations=1)
        self.file("password", b"password\n")
        outcomes = set()
        for limit in range(16 * MIB, 80 * MIB, 4 * MIB):
            with self.subTest(limit):
                run = self.limited(resource.RLIMIT_AS, limit, "extract", "a", "--out", "new", "-j", "2",
                                   "--password-file", "password")
                outcomes.add(run.status)
                self.assertTrue(run.err or run.status == GOOD)
                self.assertEqual(self.file_size("new") >= 0, run.status == GOOD)
                if run.status == GOOD:
                    self.assertTrue(self.file_bytes("new") == self.content)
                    os.unlink(self.path("new"))
        self.assertTrue(outcomes <= {GOOD, IMPOSSIBLE, 127}, outcomes)  # 127: the loader's own
        self.assertTrue({GOOD, IMPOSSIBLE} <= outcomes, outcomes)
