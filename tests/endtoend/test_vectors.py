"""Every image of tests/vectors under every command, compared with what its index states.

The index is no recording: the generator states by hand what is wrong with an image and where a reader stops, and here
the program is held to it. A header that claims a table of many gigabytes must cost no memory.
"""
import filecmp
import hashlib
import json
import mmap
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import change_tracker
from harness import MIB, ROOT, MachineTest, is_sanitized, without_speed

VECTORS = os.path.join(ROOT, "tests", "vectors")
GENERATOR = os.path.join(VECTORS, "make_vectors.py")
# What in the folder is not generated.
ABOUT = {"README.md", "make_vectors.py", "index.py", "edits.py", "outcomes.py", ".gitattributes"}
OLD_BYTE = b"\xee"
PREVIOUS_EPOCH, CURRENT_EPOCH = 7, 8
LEAST_VECTORS = 150


def read_index():
    with open(os.path.join(VECTORS, "vectors.json"), encoding="ascii") as file:
        index = json.load(file)
    for vector in index:
        vector["expect"] = {command: outcome for commands, outcome in vector["expect"].items()
                            for command in commands.split(", ")}
    return index


def hash_of(path):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def promises(byteCount):
    """Whether the machine promises that much memory, zeroed and not yet touched, to a program that asks at once."""
    try:
        mmap.mmap(-1, byteCount, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS).close()
    except (OSError, ValueError):
        return False
    return True


class VectorTest(MachineTest):
    """A machine whose working folder is a copy of the vectors."""

    def setUp(self):
        super().setUp()
        self.system_disk()
        os.rmdir(self.images)
        shutil.copytree(VECTORS, self.images, ignore=shutil.ignore_patterns("*.py", "*.md", "__pycache__"))
        self.index = read_index()

    def arguments(self, vector, command):
        image, new = vector["image"], self.path("new")
        if os.path.exists(new):
            os.unlink(new)
        if command == "restore":
            self.disk(1, OLD_BYTE * os.path.getsize(self.path(vector["disk"])))
        elif command.startswith("capture"):
            self.disk(1, self.file_bytes(vector["disk"]))
        secret = ["--password-file", vector["password"]] if "password" in vector else []
        return {
            "verify": ["verify", "--in", image],
            "restore": ["restore", "--in", image, "--disk", "1", "--confirm", "YES"],
            "consolidate": ["consolidate", "--in", image, "--out", "new"],
            "capture": ["capture", "--disk", "1", "--out", "new", "--base", image],
            "capture-thin": ["capture", "--disk", "1", "--out", "new", "--thin", "--base", image],
            "capture-proved": ["capture", "--disk", "1", "--out", "new", "--base", image],
        }[command] + secret

    def place(self, vector):
        """What stands beside the image for this vector alone; gives what takes it away again."""
        for name in vector.get("folders", ()):
            os.mkdir(self.path(name))
        for name, content in vector.get("places", {}).items():
            shutil.copyfile(self.path(content), self.path(name))

        def remove():
            for name in vector.get("folders", ()):
                os.rmdir(self.path(name))
            for name in vector.get("places", {}):
                os.unlink(self.path(name))
        return remove

    def written(self, command):
        """The digest of what the run wrote, none if it wrote nothing."""
        if command == "verify":
            return None
        if command == "restore":
            disk = self.disk_bytes(1)
            return hashlib.sha256(disk).hexdigest() if disk.strip(OLD_BYTE) else None
        return hash_of(self.path("new"))

    def errors_as_stated(self, stated, told, command):
        """What was told, with a star for a number that is stated as one. In verify and restore no call fails before
        such a line, and it is 0; elsewhere an earlier question that was answered with no has left its number."""
        number = rb"\d+" if command.startswith(("capture", "consolidate")) else b"0"
        if b"GetLastError=*)" not in stated:
            return told
        return re.sub(rb"GetLastError=" + number + rb"\)\n$", b"GetLastError=*)\n", told)

    def check_vector(self, vector, command):
        expect = vector["expect"][command]
        remove = self.place(vector)
        try:
            run = self.kestrix(*self.arguments(vector, command))
        finally:
            remove()
        self.assertEqual(self.written(command), expect.get("written"), "other bytes were written")
        if expect["status"] == "abnormal" or not promises(vector.get("claims", 1)):
            self.check_abnormal(run)
            return
        out, err = (expect.get(stream, "").encode("utf-8", "surrogateescape") for stream in ("out", "err"))
        self.assertEqual((run.status, without_speed(run.out), self.errors_as_stated(err, run.err, command)),
                         (expect["status"], out, err))

    def check_command(self, command, vectors=None, before_each=lambda: None):
        for vector in self.index if vectors is None else vectors:
            if command in vector["expect"]:
                before_each()
                with self.subTest(vector["name"]):
                    self.check_vector(vector, command)
        images = sorted(vector["image"] for vector in self.index)
        self.assertEqual(filecmp.cmpfiles(VECTORS, self.images, images, shallow=False), (images, [], []),
                         "a run changed an image")


class Vectors(VectorTest):
    def test_verify_says_of_each_image_what_is_stated(self):
        self.check_command("verify")

    def test_restore_says_and_writes_what_is_stated(self):
        self.check_command("restore")

    def test_consolidate_says_and_writes_what_is_stated(self):
        self.check_command("consolidate")

    def test_capture_with_each_image_as_its_base_says_and_writes_what_is_stated(self):
        self.check_command("capture")

    def test_a_thin_capture_on_each_image_of_its_chunk_size_says_and_writes_what_is_stated(self):
        self.check_command("capture-thin")

    def test_a_capture_that_copies_from_each_image_of_its_chunk_size_says_and_writes_what_is_stated(self):
        tracker = change_tracker.attach_to(self)
        self.check_command("capture-proved",
                           before_each=lambda: tracker.remember(PREVIOUS_EPOCH, CURRENT_EPOCH, bytes(2)))


class ClaimedTables(VectorTest):
    """64 bytes that claim a table of gigabytes: zeroed memory that nobody writes is only promised."""

    COUNTS = (1000000, 59652323, 59652325, 100000000, 300000000, 500000000)

    def claim(self, count):
        head = self.file_bytes("sound.kstx")[:64]
        self.file("header", head[:28] + count.to_bytes(8, "little") + head[36:])

    def peak_of_claim(self, count, command):
        """The most memory of a run on a header that claims so many chunks; the run ends as it must."""
        self.claim(count)
        arguments = self.arguments({"image": "header", "disk": "old.disk"}, command)
        run = self.kestrix(*arguments)
        if promises(72 * count):
            self.assertEqual(run.status, 1)
            self.assertRegex(run.err, rb"^FATAL: could not read chunk table - image is truncated "
                                      rb"\(GetLastError=\d+\)\n$")
        else:
            self.check_abnormal(run)
        return self.peak_memory(*arguments, status=run.status)

    def test_a_claim_that_the_file_does_not_hold_costs_no_memory(self):
        # The address sanitizer keeps a byte of its own for every eight that are asked for, and fills it in.
        sanitized = is_sanitized()
        for count in self.COUNTS[:3] if sanitized else self.COUNTS:
            for command in ("verify", "restore", "consolidate", "capture"):
                with self.subTest(count=count, command=command):
                    peak = self.peak_of_claim(count, command)
                    self.assertLess(peak, 64 * MIB + (72 * count // 8 if sanitized else 0))


class Folder(unittest.TestCase):
    def test_the_generator_gives_the_folder_byte_for_byte(self):
        with tempfile.TemporaryDirectory(prefix="kestrix-vectors-") as folder:
            subprocess.run([sys.executable, GENERATOR, folder], check=True)
            made = sorted(os.listdir(folder))
            self.assertEqual(made, sorted(name for name in os.listdir(VECTORS)
                                          if name not in ABOUT and name != "__pycache__"))
            self.assertEqual(filecmp.cmpfiles(VECTORS, folder, made, shallow=False), (made, [], []))

    def test_every_image_is_a_vector_or_a_base_and_every_defect_is_stated_once(self):
        index = read_index()
        self.assertGreaterEqual(len({vector["image"] for vector in index}), LEAST_VECTORS)
        names = [vector["name"] for vector in index]
        self.assertEqual(len(set(names)), len(names))
        named = {vector["image"] for vector in index}
        for vector in index:
            named.update(vector.get("bases", ()))
            self.assertTrue({"verify", "restore", "consolidate", "capture"} <= set(vector["expect"]), vector["name"])
        images = {name for name in os.listdir(VECTORS) if name.endswith(".kstx")}
        self.assertEqual(images - named, {"sealed-apart.kstx"})  # a chunk of it stands in another image

    def test_the_folder_is_small(self):
        sizes = [os.path.getsize(os.path.join(VECTORS, name)) for name in os.listdir(VECTORS)]
        self.assertLess(sum(sizes), MIB)


if __name__ == "__main__":
    unittest.main()
