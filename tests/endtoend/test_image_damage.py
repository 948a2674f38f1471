"""Every byte of a small chain damaged, one at a time, plain and sealed.

check must name exactly the chunks that are missing or wrong in what extract --keep-going makes of the damaged chain,
as a comparison with the disk finds them, and the map must say so too. repair, with images of other kinds that hold the
same chunks, must give the file back as it was, byte for byte, or say what it lacks: never for damage to stored chunks,
which is all that a twin can make good.
"""
import os
import shutil

from image_machine import FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import ENTRY, HEADER, chunk_length, decode_header, seeded_disk
from test_image_differential import LARGEST_DISK
from test_vectors import is_sanitized

CHUNK, COUNT = 128, 3
BATCH = 100
DATA = HEADER.size + COUNT * ENTRY.size  # where stored chunks begin
NOBODY_TELLS = {*range(20, 24), *range(37, 44)}  # sector size and epoch: only an image on top pins them


def damaged(content, place):
    """The file with one bit of the byte at that place changed: the lowest in the header, where others could ask for
    hours of key derivation."""
    bit = 0 if place < HEADER.size else place % 8
    return content[:place] + bytes([content[place] ^ 1 << bit]) + content[place + 1:]


def asks_for_hours(header):
    """Whether so many rounds of key derivation would be asked for that only check is run, and once."""
    return header.encrypted and header.kdfIterations > 1 << 20


class EveryByteDamaged(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.file("password", b"password\n")
        self.disk = seeded_disk(COUNT * CHUNK, 1)
        self.oldDisk = self.disk[:CHUNK] + seeded_disk(CHUNK, 2) + self.disk[2 * CHUNK:]

    def secret(self, password):
        return ["--password-file", "password"] if password else []

    def missing_chunks(self, header, out):
        """Numbers of the chunks that are not in the extracted file, or are wrong there."""
        with open(out, "rb") as file:
            def is_right(i):
                file.seek(i * header.chunkSize)
                return (header.chunkSize == CHUNK and
                        file.read(max(0, chunk_length(header, i))) == self.disk[i * CHUNK:(i + 1) * CHUNK])
            return [i for i in range(header.chunkCount) if not is_right(i)]

    def check_map(self, header, missing, path):
        """The map, as GNU ddrescue reads it, lists the missing chunks that lie on the disk, if it has such chunks."""
        blocks = self.must("ddrescuelog", "-b", str(CHUNK), "-l-", path).split()
        if header.chunkSize == CHUNK:
            self.assertEqual([int(block) for block in blocks], [i for i in missing if i * CHUNK < header.diskSize])

    def look_at(self, folder, name, said, secret):
        """One damaged chain, of which check has said this."""
        out, map_ = self.path(f"{folder}/out"), self.path(f"{folder}/map")
        path = f"{folder}/{name}"
        header = decode_header(self.file_bytes(path)[:HEADER.size])
        if asks_for_hours(header):
            return
        run = self.image_program("extract", path, "--out", out, "--keep-going", "--map", map_, "--cached", *secret)
        self.assertEqual(os.path.exists(out), os.path.exists(map_))
        if not os.path.exists(out):
            isTooLarge = run.status == IMPOSSIBLE and header.diskSize > LARGEST_DISK
            self.assertTrue(isTooLarge or said["fault"] and run.status in (FOUND, IMPOSSIBLE), (run, said))
            self.assertIn(b"kestrix-image: ", run.err)
            return
        self.assertIsNone(said["fault"])
        missing = self.missing_chunks(header, out)
        self.assertEqual([bad["chunk"] for bad in said["badChunks"]], missing, (said, run))
        isCovered = header.chunkCount * header.chunkSize >= header.diskSize
        self.assertEqual(run.status, GOOD if isCovered and not missing else FOUND)
        self.assertEqual(os.path.getsize(out), header.diskSize)
        self.check_map(header, missing, map_)

    def repair(self, folder, victim, place, secret):
        """One damaged image made whole, or not; its file as it was lies in the folder above."""
        out = f"{folder}/new"
        status, said = self.ask("repair", f"{folder}/{victim}", "--out", out, "--twins", "twins", "--cached", *secret)
        whole = self.file_bytes(victim)
        isInData = DATA <= place < DATA + sum(entry.storedLength for entry in self.written[victim].record.table)
        self.assertEqual(os.path.exists(self.path(out)), said["result"] == "whole", said)
        if said["result"] == "whole":
            self.assertEqual(status, GOOD)
            self.assertEqual(self.file_bytes(out), whole)
            self.assertTrue(isInData)
        elif said["result"] == "sound":
            self.assertEqual(status, GOOD)
            self.assertIn(place, NOBODY_TELLS)
            self.assertNotEqual(victim, "base")
        else:
            self.assertIn(status, (FOUND, IMPOSSIBLE))
            self.assertTrue(said.get("lacks") or said.get("fault"), said)
            self.assertFalse(isInData, said)

    def damage_all(self, victim, top, others, password):
        """Damages each byte of one file of a chain; top is the image that is looked at, others are beside the victim.
        """
        secret = self.secret(password)
        content = self.file_bytes(victim)
        step = 7 if is_sanitized() else 1  # so much longer takes each start
        for first in range(0, len(content), BATCH * step):
            places = range(first, min(first + BATCH * step, len(content)), step)
            for place in places:
                os.mkdir(self.path(str(place)))
                for name in others:
                    os.link(self.path(name), self.path(f"{place}/{name}"))
                self.file(f"{place}/{victim}", damaged(content, place))
            paths = [f"{place}/{top}" for place in places]
            status, answer = self.ask("check", "--cached", *paths, *secret)
            self.assertEqual([image["image"] for image in answer["images"]], paths)
            for place, said in zip(places, answer["images"]):
                with self.subTest(victim=victim, top=top, place=place):
                    self.look_at(str(place), top, said, secret)
                    if not asks_for_hours(decode_header(self.file_bytes(f"{place}/{victim}")[:HEADER.size])):
                        self.repair(str(place), victim, place, secret)
                shutil.rmtree(self.path(str(place)))

    def make_chain(self, password):
        options = {"chunkSize": CHUNK, "kdfIterations": 1}
        base = self.image("base", self.oldDisk, password, **options)
        self.written = {"base": base, "thin": self.image("thin", self.disk, password, base, **options),
                        "full": self.image("full", self.disk, password, **options)}
        os.makedirs(self.path("twins"), exist_ok=True)
        self.image("twins/old", self.oldDisk, chunkSize=CHUNK)
        self.image("twins/new", self.disk, chunkSize=CHUNK)

    def test_each_byte_of_a_full_image(self):
        for password in (None, b"password"):
            self.make_chain(password)
            self.damage_all("full", "full", (), password)

    def test_each_byte_of_a_thin_image(self):
        for password in (None, b"password"):
            self.make_chain(password)
            self.damage_all("thin", "thin", ("base",), password)

    def test_each_byte_of_a_base(self):
        for password in (None, b"password"):
            self.make_chain(password)
            self.damage_all("base", "thin", ("thin",), password)
