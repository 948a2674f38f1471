"""kestrix-image: its command line, what it tells of files and folders, and its progress bar."""
import fcntl
import os
import re
import resource
import subprocess

from harness import KIB, MIB
from image_commands import CHUNK, TABLE, CommandTest
from image_machine import COMMAND_LINE, FOUND, GOOD, IMPOSSIBLE
from kestrix_image import make_chain


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


class ProgressBar(CommandTest):
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
