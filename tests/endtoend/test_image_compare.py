"""kestrix-image compare and diff, on files of the independent writer and disks in files."""
import fcntl
import os
import shutil
import subprocess

from harness import SANITIZERS, needs, why_no_mounts
from image_commands import CHUNK, CommandTest
from image_machine import FOUND, GOOD, IMPOSSIBLE
from kestrix_image import seeded_disk


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
