"""The subcommands of kestrix-image one by one, on files of the independent writer and disks in files."""
import fcntl
import functools
import os
import pty
import re
import resource
import shutil
import signal
import struct
import subprocess
import tempfile
import termios
import time

from harness import KIB, MIB, SANITIZERS, TIME_LIMIT, Started, is_sanitized, needs, why_no_loop_devices, why_no_mounts
from image_machine import COMMAND_LINE, FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import make_chain, seeded_disk

CHUNK = 4096
TABLE = 64 + 72 * 4  # bytes before the data of a disk of four chunks


def why_no_exfat():
    return None if shutil.which("mkfs.exfat") and shutil.which("mount.exfat-fuse") else "no exFAT over FUSE"


def why_no_ntfs():
    return None if shutil.which("mkfs.ntfs") and shutil.which("lowntfs-3g") else "no NTFS over FUSE"


@functools.lru_cache(maxsize=None)
def why_no_medium():
    """Files in memory are read from no device."""
    with tempfile.TemporaryDirectory(prefix="kestrix-medium-") as folder:
        kind = subprocess.run(["stat", "--file-system", "--format=%T", folder], stdout=subprocess.PIPE, text=True,
                              check=True).stdout.strip()
        return "the tests' files lie in memory" if kind in ("tmpfs", "ramfs") else None


class CommandTest(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")
        self.content = seeded_disk(3 * CHUNK + 100, 1)
        self.secret = ("--password-file", "p")

    def flip(self, name, place):
        content = bytearray(self.file_bytes(name))
        content[place] ^= 1
        return self.file(name, content)

    def changed(self, chunk, seed=2):
        disk = bytearray(self.content)
        end = min((chunk + 1) * CHUNK, len(disk))
        disk[chunk * CHUNK:end] = seeded_disk(end - chunk * CHUNK, seed)
        return bytes(disk)

    def left(self, *names):
        """What lies in the working folder besides what the test put there."""
        return sorted(set(os.listdir(self.images)) - {"p", *names})

    def other_file_system(self, make, mount):
        """The folder "other" as a file system made and mounted by these commands."""
        backing, folder = os.path.join(self.folder, "other-file-system"), self.path("other")
        with open(backing, "wb") as file:
            file.truncate(16 * MIB)
        os.mkdir(folder)
        device = self.loop_device(backing)
        self.must(*make, device)
        self.must(*mount, device, folder)
        self.addCleanup(self.must, "umount", folder)
        return folder

    def usage(self, *words):
        """What a run, which must be good, took of the system."""
        process = subprocess.Popen([self.imageProgram, *words], cwd=self.images, stdout=subprocess.DEVNULL,
                                   env={**SANITIZERS, **os.environ})
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(process.returncode, GOOD)
        return usage


class CommandLine(CommandTest):
    def test_what_is_mistyped_is_refused_and_nothing_is_looked_at(self):
        for words in ([], ["chek", "a"], ["check"], ["check", "a", "--jsn"], ["check", "a", "-j", "0"],
                      ["check", "a", "-j", "x"], ["tree"], ["tree", "a", "b"], ["compare", "a"],
                      ["compare", "a", "--disk", "1", "--file", "b"], ["compare", "a", "--disk", "01"],
                      ["compare", "a", "--disk", "-1"], ["compare", "a", "--disk", "1x"], ["diff", "a"],
                      ["extract", "a"], ["extract", "a", "--out", "b", "--keep-going"], ["check", "a", "check"],
                      ["extract", "a", "--out", "b", "--map", "m"], ["repair", "a"], ["info", "a", "--own"]):
            with self.subTest(words):
                run = self.image_program(*words)
                if words == ["check", "a", "check"]:  # two images, of which there is none
                    self.assertEqual(run.status, IMPOSSIBLE)
                else:
                    self.assertEqual((run.status, run.out), (COMMAND_LINE, b""))
                    self.assertTrue(run.err.startswith(b"kestrix-image: "), run.err)
        self.assertEqual(self.left(), [])

    def test_help_and_version_are_no_fault(self):
        for words in (["--help"], ["check", "--help"], ["--version"]):
            run = self.image_program(*words)
            self.assertEqual((run.status, run.err), (GOOD, b""))
            self.assertNotEqual(run.out, b"")

    def test_output_that_does_not_arrive_is_no_success(self):
        self.image("a", self.content)
        with open("/dev/full", "wb") as full:
            done = subprocess.run([self.imageProgram, "check", "a"], cwd=self.images, stdout=full,
                                  stderr=subprocess.PIPE, check=False)
        self.assertEqual(done.returncode, IMPOSSIBLE)
        self.assertIn(b"did not arrive", done.stderr)

    def test_closed_streams_are_not_taken_by_files(self):
        self.image("a", self.content)
        for streams in (">&-", "<&-", "2>&-", "<&- >&- 2>&-"):
            done = subprocess.run(f"exec {self.imageProgram} extract a --out o {streams}", shell=True, cwd=self.images,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
            self.assertEqual(done.returncode, IMPOSSIBLE if ">&-" in streams.replace("2>&-", "") else GOOD, streams)
            self.assertEqual(self.file_bytes("o"), self.content)
            os.unlink(self.path("o"))

    def test_what_stands_in_openssl_cnf_changes_nothing(self):
        self.image("a", self.content, b"secret")
        conf = self.file("conf", b"openssl_conf = nowhere\n[nowhere]\nproviders = none\n[none]\n")
        done = subprocess.run([self.imageProgram, "check", "a", *self.secret], cwd=self.images,
                              env={**os.environ, "OPENSSL_CONF": conf, "OPENSSL_MODULES": "/nowhere"},
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
        self.assertEqual((done.returncode, done.stderr), (GOOD, b""))


class Info(CommandTest):
    def info(self, name, status=GOOD):
        told, said = self.ask("info", name)
        self.assertEqual(told, status)
        return said["files"][0]

    def test_a_file_tells_of_itself_without_base_and_password(self):
        disk = bytearray(self.content)
        disk[CHUNK:2 * CHUNK] = bytes(CHUNK)
        base = self.image("a", bytes(disk), b"secret", epoch=77, kdfIterations=9)
        thin = self.image("b", bytes(disk[:2 * CHUNK]) + self.changed(2)[2 * CHUNK:], b"secret", base)
        os.unlink(self.path("a"))
        said = self.info("b")
        self.assertEqual(said["identity"], thin.image_id().hex())
        self.assertEqual(said["base"], {"name": "a", "pin": base.image_id().hex()})
        self.assertEqual((said["storedChunks"], said["referredChunks"], said["zeroChunks"]), (1, 3, 1))
        self.image("c", self.content, b"secret", epoch=77, kdfIterations=9)
        self.assertEqual((self.info("c")["header"]["epoch"], self.info("c")["header"]["kdfIterations"]), (77, 9))

    def test_bytes_missing_and_too_many_are_counted(self):
        self.image("a", self.content)
        whole = self.file_bytes("a")
        self.file("a", whole[:-7])
        self.assertEqual(self.info("a", FOUND)["bytesMissing"], 7)
        self.file("a", whole + b"123")
        self.assertEqual(self.info("a", FOUND)["bytesTooMany"], 3)

    def test_a_chunk_of_any_length_costs_no_time(self):
        def huge(record):
            record.header.chunkSize, record.header.diskSize = 2**32 - 1, 2**33 - 3
            for entry in record.table:
                entry.storedLength = 0
            record.data[:] = [b""] * len(record.data)
        self.image("a", bytes(3 * CHUNK), edit=huge)
        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
        self.assertEqual(self.ask("info", "a")[1]["files"][0]["zeroChunks"], 0)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before, 1)

    def test_what_is_no_whole_image_is_called_by_its_state(self):
        self.image("a", self.content)
        whole = self.file_bytes("a")
        for content, state in ((b"", "unfinished"), (bytes(100), "unfinished"),
                               (whole[:64] + bytes(72 * 4), "unfinished"), (whole[:63], "damaged"),
                               (whole[:TABLE - 1], "damaged"), (b"something", "other")):
            self.file("x", content)
            self.assertEqual(self.info("x", FOUND)["state"], state)
        self.assertEqual(self.info("absent", IMPOSSIBLE)["state"], "unreadable")
        os.mkdir(self.path("folder"))
        self.assertEqual(self.info("folder", IMPOSSIBLE)["state"], "unreadable")

    def test_a_name_can_not_steer_a_terminal_and_is_no_obstacle_for_json(self):
        base = self.image("a", self.content)
        self.image("b", self.content, base=base, baseName=b"\x1b[31m\xff")
        self.assertIn(b"base: ?[31m?\n", self.image_program("info", "b").out)
        self.assertEqual(self.info("b")["base"]["name"], "\x1b[31m\ufffd")


class Tree(CommandTest):
    def tree(self, status):
        told, said = self.ask("tree", ".")
        self.assertEqual(told, status)
        return {image["file"]: image for image in said["images"]}, said

    def test_a_chain_is_shown_on_its_base_with_its_length_and_its_room(self):
        make_chain(self.images, 3)
        os.unlink(self.path("p"))
        images, said = self.tree(GOOD)
        self.assertEqual(said["result"], "whole")
        self.assertEqual([image["chainLength"] for image in images.values()], [1, 2, 3])
        self.assertEqual([image["takesMore"] for image in images.values()], [64, 63, 62])
        self.assertEqual(images["level01.kstx"]["standsOn"], "level00.kstx")
        self.assertEqual(images["level01.kstx"]["stoodOnBy"], ["level02.kstx"])
        self.assertEqual([image["consolidatedBytes"] for image in images.values()], [None, None, TABLE + 4 * CHUNK])

    def test_a_missing_a_replaced_and_a_renamed_base_are_told_apart(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        os.rename(self.path("a"), self.path("other"))
        images, _ = self.tree(FOUND)
        told = images["b"]["base"]
        self.assertEqual((told["state"], told["sameUnderAnotherName"]), ("missing", "other"))
        self.assertEqual(images["other"]["stoodOnBy"], ["b"])
        self.assertIn(b"; b stands on it, but looks for it as a\n", self.image_program("tree", ".").out)
        self.image("a", self.changed(3))
        told = self.tree(FOUND)[0]["b"]["base"]
        self.assertEqual((told["state"], told["sameUnderAnotherName"]), ("replaced", "other"))
        os.unlink(self.path("other"))
        os.unlink(self.path("a"))
        images, said = self.tree(FOUND)
        self.assertEqual((images["b"]["base"]["sameUnderAnotherName"], images["b"]["chainLength"]), (None, None))
        self.assertEqual(said["result"], "broken")

    def test_names_of_one_file_are_none_of_them_called_free(self):
        base = self.image("base", self.content)
        self.image("thin", self.changed(1), base=base)
        os.link(self.path("base"), self.path("a"))
        os.symlink("base", self.path("z"))
        images, _ = self.tree(GOOD)
        self.assertEqual({name: (images[name]["stoodOnBy"], images[name]["sameFileAs"]) for name in ("a", "base", "z")},
                         {"a": (["thin"], "base"), "base": (["thin"], "a"), "z": (["thin"], "a")})
        self.assertEqual(images["thin"]["standsOn"], "base")
        said = self.image_program("tree", ".").out.decode()
        self.assertEqual([line.split(":")[0].strip() for line in said.splitlines() if "nothing" in line], ["thin"])
        self.assertIn("a: full", said)
        self.assertEqual(said.count("; the same file as "), 3)

    def test_beside_a_file_that_cannot_be_read_no_image_is_called_free(self):
        self.image("a", self.content)
        self.assertIn(b"; nothing stands on it", self.image_program("tree", ".").out)
        with open(self.path("begun"), "wb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            _, said = self.tree(IMPOSSIBLE)
            self.assertEqual(said["result"], "unreadable")
            text = self.image_program("tree", ".").out
        self.assertIn(b"; nothing that can be read stands on it", text)
        self.assertNotIn(b"; nothing stands on it", text)

    def test_what_a_consolidation_takes_is_told_of_ends_of_whole_chains_alone(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        self.assertEqual([image["consolidatedBytes"] for image in self.tree(GOOD)[0].values()],
                         [None, TABLE + 3 * CHUNK + 100])
        os.unlink(self.path("a"))
        self.assertEqual([image["consolidatedBytes"] for image in self.tree(FOUND)[0].values()], [None])

    def test_other_files_are_sorted_by_what_they_are(self):
        self.file("notes", b"text")
        self.file("begun", bytes(1000))
        self.file("x.12.unfinished", b"half")
        self.image("cut", self.content)
        self.file("cut", self.file_bytes("cut")[:100])
        _, said = self.tree(FOUND)
        names = {kind: [item["file"] for item in said[kind]] for kind in ("damaged", "unfinished", "other")}
        self.assertEqual(names, {"damaged": ["cut"], "unfinished": ["begun", "x.12.unfinished"],
                                 "other": ["notes", "p"]})

    def test_a_chain_that_is_too_long_to_open_is_broken(self):
        make_chain(self.images, 66, chunks=1, chunkSize=512)
        images, _ = self.tree(FOUND)
        self.assertEqual((images["level64.kstx"]["takesMore"], images["level65.kstx"]["takesMore"]), (0, 0))
        self.assertEqual(images["level65.kstx"]["chainLength"], 66)
        self.assertEqual(self.ask("check", "level64.kstx")[0], GOOD)
        self.assertEqual(self.ask("check", "level65.kstx")[0], FOUND)

    def test_a_folder_that_is_not_there_is_impossible(self):
        self.assertEqual(self.ask("tree", "absent")[0], IMPOSSIBLE)


class Check(CommandTest):
    def test_each_chunk_of_a_chain_is_read_once_wherever_it_lies(self):
        make_chain(self.images, 10, b"secret")
        image = self.check_of("level09.kstx", *self.secret)
        self.assertEqual((image["verdict"], image["checkedBytes"]), ("sound", 4 * CHUNK))
        self.assertEqual(len(image["chain"]), 10)

    def test_all_bad_chunks_of_a_chain_are_named_with_their_file(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        self.flip("a", TABLE + 5)
        self.flip("a", TABLE + 3 * CHUNK)
        self.flip("a", TABLE + CHUNK)  # what b does not depend on
        self.flip("b", TABLE + 9)
        bad = [(chunk["file"], chunk["chunk"], chunk["diskOffset"], chunk["lengthBytes"], chunk["cause"])
               for chunk in self.check_of("b")["badChunks"]]
        self.assertEqual(bad, [("a", 0, 0, CHUNK, "digest"), ("b", 1, CHUNK, CHUNK, "digest"),
                               ("a", 3, 3 * CHUNK, 100, "digest")])

    def test_own_needs_no_base_and_checks_nothing_but_the_file(self):
        base = self.image("a", self.content)
        self.image("b", self.changed(1), base=base)
        os.unlink(self.path("a"))
        self.assertEqual(self.check_of("b")["verdict"], "damaged")
        image = self.check_of("b", "--own")
        self.assertEqual((image["verdict"], image["checkedBytes"], image["verify"]), ("sound", CHUNK, None))
        self.flip("b", TABLE + 9)
        self.assertEqual([chunk["chunk"] for chunk in self.check_of("b", "--own")["badChunks"]], [1])

    def test_a_wrong_password_is_suspected_where_nothing_opens(self):
        self.image("a", self.content, b"another")
        run = self.image_program("check", "a", *self.secret)
        self.assertEqual(run.status, FOUND)
        self.assertIn(b"perhaps the password is another", run.out)
        self.assertEqual(self.image_program("check", "a").status, IMPOSSIBLE)

    def test_a_plain_image_asks_for_no_password_file(self):
        self.image("a", self.content)
        self.assertEqual(self.image_program("check", "a", "--password-file", "absent").status, GOOD)

    def test_a_file_that_is_being_written_is_not_checked(self):
        self.image("a", self.content)
        with open(self.path("a"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.check_of("a")["verdict"], "impossible")
        self.assertEqual(self.check_of("a")["verdict"], "sound")

    def test_a_chain_that_loops_takes_no_more_memory_than_one_of_its_length(self):
        def loop(record):
            record.trailer.baseName, record.trailer.nameLength = b"b", 1
            record.trailer.totalLength = 49
        chunks = 100000
        base = self.image("a", bytes(chunks), chunkSize=1)
        self.image("b", bytes(chunks), base=base, chunkSize=1, edit=loop)
        self.program = self.imageProgram
        once, looped = self.peak_memory("check", "a"), self.peak_memory("check", "b", status=1)
        self.assertLess(looped, once + 2 * 80 * chunks)

    def test_memory_is_bounded_by_threads_and_tables(self):
        content = bytes(64 * MIB)
        self.image("a", content, chunkSize=64 * MIB, password=b"secret")
        self.image("small", bytes(CHUNK), b"secret")
        self.program = self.imageProgram
        small, large = (self.peak_memory("check", name, "-j", "1", *self.secret) for name in ("small", "a"))
        self.assertLess(large, small + 17 * MIB)

    def test_chunks_that_are_lost_take_no_memory_to_speak_of(self):
        chunks, sound = 100000, self.path("sound/twin")
        content = b"".join(i.to_bytes(4, "little") for i in range(chunks))
        os.mkdir(os.path.dirname(sound))
        self.image("sound/twin", content, chunkSize=4)
        shutil.copy(sound, self.path("a"))
        with open(self.path("a"), "r+b") as file:
            file.seek(64 + 72 * chunks)
            file.write(bytes(byte ^ 0xFF for byte in content))
        self.image("small", content[:4], chunkSize=4)
        self.program = self.imageProgram
        small = self.peak_memory("extract", "small", "--out", "o1", "-j", "1", "--quiet")
        lost = self.peak_memory("extract", "a", "--out", "o2", "-j", "1", "--quiet", "--twins", os.path.dirname(sound))
        self.assertEqual(self.file_bytes("o2"), content)
        if not is_sanitized():
            self.assertLess(lost, small + 2 * 80 * chunks, "the image and its twin")

    def test_what_the_tables_refuse_is_not_told_as_checked(self):
        def hollow(record):
            record.table[1].storedLength, record.data[1] = 0, b""
        self.image("a", self.content, edit=hollow)
        image = self.check_of("a")
        self.assertEqual(([bad["cause"] for bad in image["badChunks"]], image["checkedBytes"]),
                         (["notStored"], 2 * CHUNK + 100))

    def test_a_sealed_image_that_stores_nothing_asks_for_no_password_of_its_own(self):
        base = self.image("a", self.content)
        self.image("b", self.content, b"secret", base)
        self.assertEqual(self.check_of("b", "--own")["verdict"], "sound")
        self.assertEqual(self.check_of("b")["verdict"], "impossible")  # as for kestrix, which restores it
        self.assertEqual(self.ask("extract", "b", "--out", "o")[0], GOOD)
        self.assertEqual(self.file_bytes("o"), self.content)
        whole = self.file_bytes("b")
        self.file("b", whole[:64 + 72 * 4] + b"more" + whole[64 + 72 * 4:])
        self.assertEqual(self.ask("repair", "b", "--out", "new")[1]["result"], "whole")
        self.assertEqual(self.file_bytes("new"), whole)

    def read_from_device(self, *words):
        with open(self.path("a"), "rb") as file:
            file.read()  # so that the system remembers it
        return self.usage(*words).ru_inblock * 512

    @needs(why_no_medium)
    def test_the_medium_is_read_and_not_what_the_system_remembers_of_it(self):
        content = seeded_disk(8 * MIB, 3)
        self.image("a", content, chunkSize=MIB)
        self.disk(1, content)
        self.file("raw", content)
        for name in (self.path("a"), self.path("raw"), self.disk_path(1)):
            with open(name, "rb") as file:
                os.fsync(file.fileno())
        commands = (("check", "a"), ("compare", "a", "--disk", "1"), ("compare", "a", "--file", "raw"),
                    ("extract", "a", "--out", "o"))
        for words in commands:
            for name in ("raw", self.disk_path(1)):
                with open(self.path(name), "rb") as file:
                    file.read()
            with self.subTest(words):
                self.assertGreaterEqual(self.read_from_device(*words), len(content))
        os.unlink(self.path("o"))
        for words in commands[:-2]:
            for name in ("a", self.disk_path(1)):
                with open(self.path(name), "rb") as file:
                    file.read()
            with self.subTest(words):
                self.assertLess(self.read_from_device(*words, "--cached"), len(content) // 2)


class ProgressBar(CommandTest):
    def run_on_terminal(self, stopAfter, *words):
        """What a run, held up for a moment, shows on a terminal of 80 columns."""
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        process = subprocess.Popen([self.imageProgram, *words], cwd=self.images, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=slave, env={**SANITIZERS, **os.environ})
        os.close(slave)
        time.sleep(stopAfter)
        process.send_signal(signal.SIGSTOP)
        time.sleep(0.3)  # longer than the bar waits
        process.send_signal(signal.SIGCONT)
        shown = b""
        try:
            while piece := os.read(master, 4096):
                shown += piece
        except OSError:  # how the end of a terminal is told
            pass
        os.close(master)
        self.assertEqual(process.wait(TIME_LIMIT), GOOD)
        return shown.decode()

    def seen(self, *words):
        for attempt in range(60):
            shown = self.run_on_terminal(0.002 * attempt, *words)
            if "[" in shown:
                return shown
        return self.fail("no bar was shown")

    def test_it_is_shown_on_a_terminal_in_bytes_and_leaves_nothing_there(self):
        self.image("a", bytes(64 * MIB), chunkSize=64 * KIB)
        shown = self.seen("check", "a", "-j", "1")
        self.assertRegex(shown, r"^(\r\[[#.]{20}\] +\d+ %  [\d.]+ MiB/s  \d+:\d\d:\d\d left  a)+\r {79}\r$")
        self.assertEqual(self.run_on_terminal(0.01, "check", "a", "-j", "1", "--quiet"), "")

    def test_a_folder_is_counted_in_files(self):
        os.mkdir(self.path("many"))
        self.image("many/0", bytes(20000), chunkSize=1)
        for i in range(1, 200):
            os.symlink("0", self.path(f"many/{i}"))
        self.assertTrue(re.search(r"[\d.]+ files/s  ", self.seen("tree", "many", "-j", "1")))


class Compare(CommandTest):
    def compare(self, *words):
        status, said = self.ask("compare", *words)
        return status, said["result"], [(part["diskOffset"], part["lengthBytes"], part["state"])
                                        for part in said.get("ranges", ())]

    def test_a_disk_is_compared_with_a_thin_sealed_image_without_base_and_password(self):
        base = self.image("a", self.content, b"secret")
        self.image("b", self.changed(1), b"secret", base)
        os.unlink(self.path("a"))
        self.disk(1, self.changed(1))
        self.assertEqual(self.compare("b", "--disk", "1"), (GOOD, "equal", []))
        self.disk(1, self.changed(3))
        self.assertEqual(self.compare("b", "--disk", "1"),
                         (FOUND, "different", [(CHUNK, CHUNK, "differs"), (3 * CHUNK, 100, "differs")]))

    def test_neighbours_are_one_range(self):
        self.image("a", self.content)
        self.file("raw", bytes(2 * CHUNK) + self.content[2 * CHUNK:])
        self.assertEqual(self.compare("a", "--file", "raw"), (FOUND, "different", [(0, 2 * CHUNK, "differs")]))

    def test_a_larger_disk_is_equal_and_a_smaller_one_lacks_its_end(self):
        self.image("a", self.content)
        self.disk(1, self.content + bytes(1000))
        status, said = self.ask("compare", "a", "--disk", "1")
        self.assertEqual((status, said["result"], said["bytesBehind"]), (GOOD, "equal", 1000))
        self.disk(1, self.content[:3 * CHUNK])
        self.assertEqual(self.compare("a", "--disk", "1"), (FOUND, "different", [(3 * CHUNK, 100, "missing")]))

    def test_a_disk_that_is_not_there_is_impossible(self):
        self.image("a", self.content)
        self.assertEqual(self.compare("a", "--disk", "7")[:2], (IMPOSSIBLE, "impossible"))
        os.mkdir(self.disk_path(3))
        self.assertEqual(self.compare("a", "--disk", "3")[:2], (IMPOSSIBLE, "impossible"))

    def test_without_the_executable_known_there_is_no_disk(self):
        self.image("a", self.content)
        self.disk(1, self.content)
        elsewhere = os.path.join(self.folder, "elsewhere")
        shutil.copytree(self.devices, os.path.join(elsewhere, "devices"))
        loader = shutil.copy("/lib64/ld-linux-x86-64.so.2", elsewhere)
        done = subprocess.run([loader, self.imageProgram, "compare", "a", "--disk", "1"], cwd=self.images,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
        self.assertEqual((done.returncode, done.stdout), (IMPOSSIBLE, b""))
        self.assertIn(b"this machine has no such disk", done.stderr)

    def compare_on_a_made_up_machine(self):
        """Disk 0 of a machine whose list of own disks is made up: its node is no such device. What is said of it."""
        fake = os.path.join(self.folder, "sys", "block", "none0")
        os.makedirs(fake, exist_ok=True)
        for name, line in (("dev", "8:240\n"), ("diskseq", "5\n")):
            with open(os.path.join(fake, name), "w", encoding="ascii") as file:
                file.write(line)
        script = ('mount --bind ../sys /sys && mount -t tmpfs none /dev && echo >/dev/none0 && '
                  'exec "$0" compare a --disk 0')
        done = subprocess.run(["unshare", "--mount", "bash", "-c", script, self.imageProgram], cwd=self.images,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                              env={**SANITIZERS, **os.environ})
        self.assertEqual((done.returncode, done.stdout), (IMPOSSIBLE, b""))
        return done.stderr.decode()

    @needs(why_no_mounts)
    def test_another_disk_under_the_name_of_one_in_the_list_is_not_compared(self):
        self.image("a", self.content)
        shutil.rmtree(self.devices)
        self.assertIn("another disk has taken its place", self.compare_on_a_made_up_machine())

    @needs(why_no_mounts)
    def test_a_folder_of_disks_that_is_a_link_to_nowhere_leaves_no_disk(self):
        self.image("a", self.content)
        shutil.rmtree(self.devices)
        os.symlink("nowhere", self.devices)
        self.assertIn("this machine has no such disk", self.compare_on_a_made_up_machine())

    def test_a_disk_that_is_being_restored_is_not_compared(self):
        self.image("a", self.content)
        self.disk(1, self.content)
        with open(self.disk_path(1), "r+b") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.compare("a", "--disk", "1")[0], IMPOSSIBLE)


class Diff(CommandTest):
    def test_ranges_and_the_size_of_a_thin_image_are_those_of_a_real_one(self):
        base = self.image("a", self.content, b"secret")
        self.image("full", self.changed(2), b"other")
        status, said = self.ask("diff", "a", "full")
        self.image("thin", self.changed(2), b"secret", base)
        self.assertEqual((status, said["thinBytes"]), (FOUND, self.file_size("thin")))
        self.assertEqual(said["ranges"], [{"diskOffset": 2 * CHUNK, "lengthBytes": CHUNK, "state": "differs"}])
        self.assertEqual(self.ask("diff", "full", "thin")[0], GOOD)

    def test_disks_of_two_sizes_differ_at_their_end(self):
        self.image("a", self.content)
        self.image("b", self.content[:2 * CHUNK])
        status, said = self.ask("diff", "a", "b")
        self.assertEqual((status, said["thinBytes"]), (FOUND, None))
        self.assertEqual(said["ranges"],
                         [{"diskOffset": 2 * CHUNK, "lengthBytes": CHUNK + 100, "state": "differs"}])

    def test_an_end_that_no_chunk_covers_is_named_and_not_equal(self):
        def larger(record):
            record.header.diskSize += 2 * CHUNK
        whole = seeded_disk(4 * CHUNK, 1)
        self.image("a", whole)
        self.image("b", whole, edit=larger)
        for pair in (("a", "b"), ("b", "a"), ("b", "b")):
            status, said = self.ask("diff", *pair)
            self.assertEqual((status, said["result"], said["bytesWithoutChunks"]), (FOUND, "different", 2 * CHUNK))
            self.assertEqual(said["ranges"],
                             [{"diskOffset": 4 * CHUNK, "lengthBytes": 2 * CHUNK, "state": "notInImage"}])
        self.assertIn(b"for the last 8192 bytes", self.image_program("diff", "b", "b").out)

    def test_tables_of_two_chunk_sizes_don_t_compare(self):
        self.image("a", self.content)
        self.image("b", self.content, chunkSize=512)
        self.assertEqual(self.ask("diff", "a", "b")[0], IMPOSSIBLE)


class Extract(CommandTest):
    def extract(self, name, *words):
        return self.ask("extract", name, "--out", "o", *words)

    def test_the_file_is_the_disk_and_zeros_are_holes(self):
        disk = seeded_disk(MIB, 1) + bytes(MIB) + seeded_disk(64 * KIB, 2) + bytes(MIB) + b"end"
        self.image("a", disk, b"secret", chunkSize=MIB // 2)
        self.assertEqual(self.extract("a", *self.secret)[0], GOOD)
        self.assertTrue(self.file_bytes("o") == disk)
        self.assertLess(os.stat(self.path("o")).st_blocks * 512, MIB + 128 * KIB)

    def test_a_chunk_larger_than_a_buffer_is_extracted_too(self):
        disk = seeded_disk(20 * MIB + 3, 1)
        self.image("a", disk, b"secret", chunkSize=17 * MIB)
        self.assertEqual(self.extract("a", *self.secret)[0], GOOD)
        self.assertTrue(self.file_bytes("o") == disk)

    def test_a_bad_chunk_ends_it_without_a_file(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a")
        self.assertEqual((status, said["result"], self.left("a")), (FOUND, "nothing", []))
        self.assertEqual([chunk["chunk"] for chunk in said["badChunks"]], [1])

    def test_a_hole_is_left_and_ddrescuelog_reads_the_map(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a", "--keep-going", "--map", "m")
        self.assertEqual((status, said["result"]), (FOUND, "holes"))
        self.assertEqual(self.file_bytes("o"), self.content[:CHUNK] + bytes(CHUNK) + self.content[2 * CHUNK:])
        self.must("ddrescuelog", "--show-status", self.path("m"))
        blocks = self.must("ddrescuelog", "--list-blocks=-", f"--block-size={CHUNK}", self.path("m"))
        self.assertEqual(blocks.split(), ["1"])

    def test_ddrescue_fills_the_hole_from_the_disk(self):
        self.image("a", self.content)
        self.flip("a", TABLE + CHUNK)
        self.extract("a", "--keep-going", "--map", "m")
        source = self.file("disk", self.content)
        self.must("ddrescue", "--retry-passes=1", self.path(source), self.path("o"), self.path("m"))
        self.assertEqual(self.file_bytes("o"), self.content)

    def test_a_bad_chunk_is_taken_from_a_twin_in_a_folder_or_on_a_disk(self):
        os.mkdir(self.path("twins"))
        self.image("a", self.content)
        self.image("twins/t", seeded_disk(CHUNK, 5) + self.content[CHUNK:2 * CHUNK], b"secret",
                   edit=lambda record: setattr(record.table[1], "diskOffset", 9))  # no fault of a twin's
        self.flip("a", TABLE + CHUNK)
        status, said = self.extract("a", "--twins", "twins", *self.secret)
        self.assertEqual((status, said["twins"]), (GOOD, [{"chunk": 1, "from": "twins/t"}]))
        self.assertEqual(self.file_bytes("o"), self.content)
        os.unlink(self.path("o"))
        status, said = self.extract("a", "--twins", "twins")
        self.assertEqual((status, len(said["notes"])), (FOUND, 1))
        self.disk(1, self.content)
        status, said = self.extract("a", "--twin-disk", "1")
        self.assertEqual((status, said["twins"]), (GOOD, [{"chunk": 1, "from": "PhysicalDrive1"}]))
        self.assertEqual(self.file_bytes("o"), self.content)

    def test_where_twins_are_looked_for_is_opened_before_a_file_is_made(self):
        self.image("a", self.content)
        said = self.ask("extract", "a", "--out", "absent/o", "--twins", "nowhere")[1]
        self.assertIn("nowhere: ", said["fault"])

    @needs(why_no_exfat, why_no_loop_devices)
    def test_a_file_system_without_links_takes_it_and_nothing_is_replaced_there(self):
        folder = self.other_file_system(("mkfs.exfat",), ("mount.exfat-fuse",))
        self.image("a", self.content)
        out = os.path.join(folder, "o")
        self.assertEqual(self.ask("extract", "a", "--out", out)[0], GOOD)
        self.assertEqual((self.file_bytes(out), os.listdir(folder)), (self.content, ["o"]))
        self.assertEqual(self.ask("extract", "a", "--out", out)[0], IMPOSSIBLE)

    def test_nothing_that_is_there_is_replaced(self):
        self.image("a", self.content)
        self.file("o", b"mine")
        self.assertEqual(self.extract("a")[0], IMPOSSIBLE)
        self.assertEqual(self.file_bytes("o"), b"mine")
        os.unlink(self.path("o"))
        self.file("m", b"mine")
        self.flip("a", TABLE)
        self.assertEqual(self.extract("a", "--keep-going", "--map", "m")[0], IMPOSSIBLE)
        self.assertEqual((self.file_bytes("m"), self.left("a", "m")), (b"mine", []))

    def test_an_interrupt_leaves_nothing_and_a_kill_leaves_nothing_that_looks_finished(self):
        # Everything is read twice for a chunk that is larger than a buffer, which takes long enough.
        disk = seeded_disk(48 * MIB, 1)
        self.image("a", disk, b"secret", chunkSize=48 * MIB)
        for number, leaves in ((signal.SIGINT, 0), (signal.SIGTERM, 0), (signal.SIGKILL, 1)):
            started = Started([self.imageProgram, "extract", "a", "--out", "o", *self.secret], self.images)
            while not self.left("a") and started.process.poll() is None:
                time.sleep(0.001)
            started.signal(number)
            self.assertEqual(started.finish().status, -number)
            left = self.left("a")
            self.assertEqual((len(left), [name for name in left if not name.endswith(".unfinished")]), (leaves, []))
        self.assertEqual(self.ask("tree", ".")[1]["unfinished"][0]["file"], left[0])

    def test_a_full_disk_is_impossible_and_leaves_nothing(self):
        self.image("a", seeded_disk(MIB, 1), chunkSize=CHUNK)
        try:
            place = self.small_file_system(256 * KIB)
        except AssertionError:
            self.skipTest("mounts need root")
        run = self.image_program("extract", "a", "--out", os.path.join(place, "o"))
        self.assertEqual((run.status, os.listdir(place)), (IMPOSSIBLE, []))
        self.assertIn(b"No space left on device", run.err)


class Repair(CommandTest):
    def repair(self, name, *words):
        return self.ask("repair", name, "--out", "o", *words)

    def chain(self, password):
        os.mkdir(self.path("twins"))
        base = self.image("a", self.content, password)
        self.image("b", self.changed(1), password, base)
        for name in ("a", "b"):
            shutil.copy(self.path(name), self.path("twins/" + name))

    def test_a_chain_is_made_whole_file_by_file_to_the_byte(self):
        for password in (None, b"secret"):
            with self.subTest(password):
                self.chain(password)
                for name, chunks in (("a", (0, 3)), ("b", (1,))):
                    whole = self.file_bytes(name)
                    for i, _ in enumerate(chunks):
                        self.flip(name, TABLE + 3 * CHUNK * i + 7)
                    status, said = self.repair(name, "--twins", "twins", *self.secret)
                    self.assertEqual((status, said["result"]), (GOOD, "whole"))
                    self.assertEqual([twin["chunk"] for twin in said["twins"]], list(chunks))
                    self.assertEqual(self.file_bytes("o"), whole)
                    os.unlink(self.path("o"))
                    self.file(name, whole)
                shutil.rmtree(self.path("twins"))

    def test_who_stands_on_it_and_where_it_is_looked_for_is_told(self):
        self.chain(None)
        os.rename(self.path("a"), self.path("renamed"))
        self.flip("renamed", TABLE)
        status, said = self.repair("renamed", "--twins", "twins")
        self.assertEqual(status, GOOD)
        self.assertIn({"file": "b", "name": "a", "folder": ""}, said["standsOnIt"])

    def test_a_file_that_was_cut_or_has_bytes_too_many_is_made_whole(self):
        self.chain(None)
        whole = self.file_bytes("a")
        for content in (whole[:-150], whole + b"more", whole[:TABLE]):
            self.file("a", content)
            self.assertEqual(self.repair("a", "--twins", "twins")[1]["result"], "whole")
            self.assertEqual(self.file_bytes("o"), whole)
            os.unlink(self.path("o"))

    def test_a_disk_is_a_twin_too(self):
        self.image("a", self.content, b"secret")
        whole = self.file_bytes("a")
        self.flip("a", TABLE + CHUNK)
        self.disk(2, self.content)
        self.assertEqual(self.repair("a", "--twin-disk", "2", *self.secret)[0], GOOD)
        self.assertEqual(self.file_bytes("o"), whole)

    def test_what_is_lacking_is_named_and_nothing_is_written(self):
        self.chain(b"secret")
        twins = ("--twins", "twins", *self.secret)
        damages = {"no twin of it": 64 + 72 * 2 + 12 + 3, "gives another tag": 64 + 72 * 2 + 44,
                   "names another place": 64 + 72, "about whether the image is sealed": 36}
        whole = self.file_bytes("a")
        os.unlink(self.path("b"))
        for says, place in damages.items():
            self.flip("a", place)
            status, said = self.repair("a", *twins)
            self.assertEqual((status, said["result"]), (FOUND, "lacking"), says)
            self.assertIn(says, " ".join(said["lacks"]))
            self.file("a", whole)
        self.assertEqual(self.left("a", "twins"), [])

    def test_a_sector_that_the_chunks_or_the_base_contradict_is_lacking(self):
        self.chain(None)
        for place in (64 + 72 * 4 + 5, 20):  # a chunk, and the size of a sector: 513
            self.flip("a", place)
        os.unlink(self.path("b"))
        status, said = self.repair("a", "--twins", "twins")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("about the sectors", " ".join(said["lacks"]))
        shutil.copy(self.path("twins/a"), self.path("a"))
        content = bytearray(self.file_bytes("twins/b"))
        content[20:24] = struct.pack("<I", 1024)
        content[TABLE + 5] ^= 1
        self.file("b", content)
        os.unlink(self.path("twins/b"))
        self.disk(2, self.changed(1))
        status, said = self.repair("b", "--twin-disk", "2")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("nothing vouches for the trailer", " ".join(said["lacks"]))

    @needs(why_no_ntfs, why_no_loop_devices)
    def test_a_name_whose_case_changed_is_lacking_where_the_file_system_minds_none(self):
        folder = self.other_file_system(("mkfs.ntfs", "-F", "-Q"), ("lowntfs-3g", "-o", "ignore_case"))
        base = self.image("other/base", self.content)
        self.image("other/b", self.changed(1), base=base)
        place = self.file_bytes("other/b").rindex(b"base")
        content = bytearray(self.file_bytes("other/b"))
        content[place] ^= 0x20
        content[TABLE + 5] ^= 1
        self.file("other/b", content)
        self.disk(2, self.changed(1))
        status, said = self.repair("other/b", "--twin-disk", "2")
        self.assertEqual((status, said["result"]), (FOUND, "lacking"))
        self.assertIn("letter by letter", " ".join(said["lacks"]))
        self.assertEqual(sorted(os.listdir(folder)), ["b", "base"])

    def test_a_header_that_changed_is_told_by_what_stands_on_it(self):
        self.chain(None)
        self.flip("a", 37)  # the epoch
        status, said = self.repair("a")
        self.assertEqual((status, said["lacks"]), (FOUND, ["its header or table is not what b was made against"]))

    def test_a_sound_image_is_not_written_anew(self):
        self.chain(None)
        status, said = self.repair("b")
        self.assertEqual((status, said["result"], self.left("a", "b", "twins")), (GOOD, "sound", []))
