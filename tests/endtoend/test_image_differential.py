"""kestrix-image beside kestrix: check and verify, extract and restore, on the same images.

They are two readings of the format, made apart, and must come to the same verdict on the images of tests/vectors, which
have one defect each, and on chains damaged at random. The differences are stated: check also minds an entry that names
another place than its chunk's own, and bytes that belong to nothing; extract also minds the digest of a sealed chunk
whose tag matches, and asks for no password of a sealed image of which it needs nothing. Each difference that is seen
must be one of these, found in the file by the independent reader.

The seed is printed. KESTRIX_SEED repeats a run, KESTRIX_DAMAGED asks for more than the usual number of chains; scripts/
damage runs many more of the same kind in one process.
"""
import collections
import contextlib
import os
import random
import shutil
import signal

from damaged_images import PASSWORD, cases, table_of
from harness import MIB, is_sanitized
from image_machine import FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import THIN, chunk_length
from test_vectors import VECTORS, read_index
from tracked_disk import show

DAMAGED = 300
BATCH = 50  # images that one check is told of
LARGEST_DISK = MIB


def bytes_too_many(content):
    header, table = table_of(content)
    used = 64 + 72 * len(table) + sum(entry.storedLength for entry in table)
    if header.version == THIN:
        used += int.from_bytes(content[-4:], "little")
    return max(0, len(content) - used)  # of a base only what is needed has to be there


class BesideKestrix(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.seen = collections.Counter()

    def bytes_of(self, path):
        with open(self.path(path), "rb") as file:
            return file.read()

    # check and verify

    def is_stated(self, bad):
        """Whether the entry that is to blame names another place than its chunk's own, or the disk has no such place.
        """
        header, table = table_of(self.bytes_of(bad["file"]))
        begin = bad["chunk"] * header.chunkSize
        isOnDisk = begin + chunk_length(header, bad["chunk"]) <= header.diskSize and begin <= header.diskSize
        return bad["cause"] == "wrongPlace" and (table[bad["chunk"]].diskOffset != begin or not isOnDisk)

    def compare_verdicts(self, run, image):
        if run.status == -signal.SIGABRT:  # a claim of more memory than there is
            self.assertNotEqual(image["verdict"], "sound")
            return
        self.assertIn(run.status, (0, 1))
        accepts = run.status == 0
        self.assertEqual(image["verify"] == "accepts", accepts, image)
        self.assertEqual(image["verify"] is None, image["verdict"] == "impossible", image)
        self.seen[f"verify {'accepts' if accepts else 'refuses'}, check says {image['verdict']}"] += 1
        if image["verdict"] == "sound":
            self.assertTrue(accepts)
            for one in image["chain"]:
                if "\ufffd" not in one["file"]:  # in JSON there is no other way to write a name that isn't UTF-8
                    self.assertEqual(bytes_too_many(self.bytes_of(one["file"])), 0)
        elif accepts:
            header, table = table_of(self.bytes_of(image["image"]))
            unknown = max(header.diskSize - len(table) * header.chunkSize, 0)
            self.assertEqual(image["bytesWithoutChunks"], unknown)
            self.assertTrue(image["badChunks"] or image["bytesTooMany"] or unknown)
            self.assertTrue(all(self.is_stated(bad) for bad in image["badChunks"]), image)
            for more in image["bytesTooMany"]:
                self.assertEqual(bytes_too_many(self.bytes_of(more["file"])), more["bytes"])

    # extract and restore

    def restore(self, path, size, secret):
        self.disk(1, max(size, 1))
        run = self.kestrix("restore", "--in", path, "--disk", "1", "--confirm", "YES", *secret)
        return run, self.disk_bytes(1)[:size]

    def is_stated_for_extract(self, path, bad):
        header, _ = table_of(self.bytes_of(path))
        isSealed = bad["cause"] == "digest" and bad["file"] == path and header.encrypted
        return self.is_stated(bad) or isSealed

    def has_sealed_without_key(self, path, secret):
        """Whether an image beside it is sealed, and its key can't be derived."""
        folder = os.path.dirname(self.path(path))
        tables = [table_of(self.bytes_of(os.path.join(folder, name))) for name in os.listdir(folder)
                  if os.path.isfile(os.path.join(folder, name))]
        return any(header.encrypted and (not secret or header.kdfIterations == 0)
                   for header, _ in filter(None, tables))

    def compare_disks(self, path, secret, image):
        out = self.path("extracted")
        parts = table_of(self.bytes_of(path))
        size = parts[0].diskSize if parts else 0
        run = self.image_program("extract", path, "--out", out, "--cached", *secret)
        self.assertEqual(run.status == GOOD, os.path.exists(out))
        self.assertIn(run.status, (GOOD, FOUND, IMPOSSIBLE))
        if size <= LARGEST_DISK:
            restored, disk = self.restore(path, size, secret)
            self.seen[f"restore {'succeeds' if restored.status == 0 else 'fails'}, extract ends with {run.status}"] += 1
            if run.status == GOOD and restored.status != 0:
                self.assertTrue(self.has_sealed_without_key(path, secret), restored)
            elif run.status == GOOD:
                self.assertEqual(self.bytes_of(out), disk)
            elif restored.status == 0:
                isCovered = parts[0].chunkCount * parts[0].chunkSize >= size
                self.assertTrue(image["badChunks"] or not isCovered, image)
                self.assertTrue(all(self.is_stated_for_extract(path, bad) for bad in image["badChunks"]), image)
        if os.path.exists(out):
            os.unlink(out)

    def compare(self, path, secret, image):
        self.compare_verdicts(self.kestrix("verify", "--in", path, *secret), image)
        self.compare_disks(path, secret, image)


class Vectors(BesideKestrix):
    def setUp(self):
        super().setUp()
        os.rmdir(self.images)
        shutil.copytree(VECTORS, self.images, ignore=shutil.ignore_patterns("*.py", "*.md", "__pycache__"))

    @contextlib.contextmanager
    def placed(self, vector):
        """What stands beside the image for this vector alone is there."""
        for name in vector.get("folders", ()):
            os.mkdir(self.path(name))
        for name, content in vector.get("places", {}).items():
            shutil.copyfile(self.path(content), self.path(name))
        yield
        for name in vector.get("folders", ()):
            os.rmdir(self.path(name))
        for name in vector.get("places", {}):
            os.unlink(self.path(name))

    def test_an_image_with_one_defect_has_the_same_verdict_and_the_same_disk(self):
        for vector in read_index():
            secret = ["--password-file", vector["password"]] if "password" in vector else []
            with self.placed(vector), self.subTest(vector["name"]):
                self.compare(vector["image"], secret, self.check_of(vector["image"], *secret))
        show(", ".join(f"{count} {what}" for what, count in self.seen.most_common()))


class DamagedChains(BesideKestrix):
    def secret_of(self, case):
        return ["--password-file", "password"] if case.withPassword else []

    def check_batch(self, batch):
        """What check says of each image of the batch, which is one run for those with and one for those without the
        password."""
        said = {}
        for withPassword in (True, False):
            some = [path for path, case in batch.items() if case.withPassword == withPassword]
            if some:
                _, answer = self.ask("check", "--cached", *some, *self.secret_of(batch[some[0]]))
                said.update((image["image"], image) for image in answer["images"])
        return said

    def compare_batch(self, batch, seed):
        said = self.check_batch(batch)
        self.assertEqual(set(said), set(batch))
        for path, case in batch.items():
            with self.subTest(f"KESTRIX_SEED={seed}, chain {path}: {', '.join(case.kinds)}"):
                self.compare(path, self.secret_of(case), said[path])
        for path in batch:
            shutil.rmtree(self.path(os.path.dirname(path)))

    def test_a_chain_damaged_at_random_has_the_same_verdict_and_the_same_disk(self):
        seed = int(os.environ.get("KESTRIX_SEED") or random.SystemRandom().randrange(10**9))
        count = int(os.environ.get("KESTRIX_DAMAGED") or DAMAGED // (4 if is_sanitized() else 1))
        show(f"KESTRIX_SEED={seed}")
        self.file("password", PASSWORD + b"\n")
        batch = {}
        for number, case in enumerate(cases(count, seed, self.folder)):
            folder = str(number)
            os.mkdir(self.path(folder))
            case.write(self.path(folder))
            batch[os.path.join(folder, "a.kstx")] = case
            if len(batch) == BATCH or number + 1 == count:
                self.compare_batch(batch, seed)
                batch = {}
        show(", ".join(f"{number} {what}" for what, number in self.seen.most_common()))
