"""Every byte of a small chain damaged, one at a time, plain and sealed.

extract --keep-going must name exactly the chunks that are missing or wrong in what it makes of the damaged chain, as a
comparison with the disk finds them; the map must say so too, and check must where it can open the chain. Where it
can't, for damage to a base or to a trailer, other images that hold the chunks must give the whole disk. repair, with
images of other kinds that hold the same chunks, must give the file back as it was, byte for byte, or say what it lacks:
never for damage to stored chunks, which is all that a twin can make good.

check looks at every byte. Neighbouring bytes of one field of which it says the same are the same to what follows, so
that of such a stretch only the first and the last one are extracted and repaired.
"""
import itertools
import json
import os
import re
import shutil
import struct

from harness import is_sanitized, why_no_mounts
from image_machine import FOUND, GOOD, IMPOSSIBLE, ImageMachineTest
from kestrix_image import ENTRY, HEADER, chunk_length, decode_header, seeded_disk
from test_image_differential import LARGEST_DISK

SECTOR, CHUNK, COUNT = 64, 128, 3
DATA = HEADER.size + COUNT * ENTRY.size  # where stored chunks begin
NOBODY_TELLS = {*range(37, 44)}  # the epoch: only an image on top pins it


def damaged(content, place):
    """The file with one bit of the byte at that place changed: the lowest in the header, where others could ask for
    hours of key derivation."""
    bit = 0 if place < HEADER.size else place % 8
    return content[:place] + bytes([content[place] ^ 1 << bit]) + content[place + 1:]


def asks_for_long(header):
    """Whether so many rounds of key derivation would be asked for that only check is run, and once."""
    return header.encrypted and header.kdfIterations > 1 << 20


def widths(record):
    """Bytes of each field of a packed record."""
    return [struct.calcsize("<" + field) for field in re.findall(r"\d*[a-zA-Z]", record.format)]


def fields(record):
    """The places of each field of an image in turn, a stored chunk being one."""
    table, trailer = record.table, record.trailer
    lengths = widths(HEADER) + len(table) * widths(ENTRY) + [entry.storedLength for entry in table]
    lengths += [8, 4, trailer.nameLength, 32, 4] if trailer else []
    begin = 0
    for length in lengths:
        yield range(begin, begin + length)
        begin += length


def apart_from_place(said, place):
    """What check says of a chain, but for where it lies and for the identities that any damage to a table changes."""
    chain = [image["file"] for image in said.get("chain", ())]
    return json.dumps({**said, "chain": chain}).replace(f"{folder_of(place)}/", "")


def chosen(places, said):
    """Those of the places of a field that stand for all of them."""
    for _, stretch in itertools.groupby(places, lambda place: apart_from_place(said[place], place)):
        stretch = list(stretch)
        # Under the sanitizers each start takes so much longer.
        yield from sorted({stretch[0], stretch[0 if is_sanitized() else -1]})


def folder_of(place):
    return f"damaged-{place}"


class EveryByteDamaged(ImageMachineTest):
    def setUp(self):
        super().setUp()
        if not why_no_mounts():
            self.images = self.small_file_system("64m")  # where thousands of files are durable at once
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
        blocks = self.must("ddrescuelog", "-b", str(CHUNK), "-l?", path).split()
        if header.chunkSize == CHUNK:
            self.assertEqual([int(block) for block in blocks], [i for i in missing if i * CHUNK < header.diskSize])

    def look_at(self, folder, name, said, secret):
        """One damaged chain, of which check has said this."""
        out, map_ = self.path(f"{folder}/out"), self.path(f"{folder}/map")
        path = f"{folder}/{name}"
        header = decode_header(self.file_bytes(path)[:HEADER.size])
        if asks_for_long(header):
            return
        status, told = self.ask("extract", path, "--out", out, "--keep-going", "--map", map_, "--cached", *secret)
        self.assertEqual(os.path.exists(out), os.path.exists(map_))
        if not os.path.exists(out):
            isTooLarge = status == IMPOSSIBLE and header.diskSize > LARGEST_DISK
            self.assertTrue(isTooLarge or self.has_no_table(path) or self.has_no_key(header), (told, said))
            self.assertIn(status, (FOUND, IMPOSSIBLE))
            return
        missing = self.missing_chunks(header, out)
        self.assertEqual([bad["chunk"] for bad in told["badChunks"]], missing, (said, told))
        isCovered = header.chunkCount * header.chunkSize >= header.diskSize
        self.assertEqual(status, GOOD if isCovered and not missing else FOUND)
        self.assertEqual(os.path.getsize(out), header.diskSize)
        self.check_map(header, missing, map_)
        if said["fault"] is None:
            self.assertEqual([bad["chunk"] for bad in said["badChunks"]], missing, (said, told))
        else:
            self.assertEqual(told["notes"][0].split(": ")[0], said["fault"].split(": ")[0])
            self.fill_from_twins(path, folder, header, secret)

    def has_no_table(self, path):
        _, answer = self.ask("info", path)
        return "identity" not in answer["files"][0]

    @staticmethod
    def has_no_key(header):
        return header.encrypted and header.kdfIterations == 0

    def fill_from_twins(self, path, folder, header, secret):
        """A chain that can't be opened to its end, whose chunks lie around: its table has all their digests."""
        out = self.path(f"{folder}/filled")
        status, told = self.ask("extract", path, "--out", out, "--twins", "twins", "--cached", *secret)
        isOfThisDisk = (header.diskSize, header.chunkSize, header.chunkCount) == (COUNT * CHUNK, CHUNK, COUNT)
        if isOfThisDisk:
            self.assertEqual((status, self.file_bytes(out)), (GOOD, self.disk), told)

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

    def check_all(self, victim, top, others, places, secret):
        """What check says of the image that is looked at, for each place of the victim that is damaged."""
        content = self.file_bytes(victim)
        for place in places:
            folder = folder_of(place)
            os.mkdir(self.path(folder))
            for name in others:
                os.link(self.path(name), self.path(f"{folder}/{name}"))
            self.file(f"{folder}/{victim}", damaged(content, place))
        paths = [f"{folder_of(place)}/{top}" for place in places]
        _, answer = self.ask("check", "--cached", "-j", "1", *paths, *secret)
        self.assertEqual([image["image"] for image in answer["images"]], paths)
        return dict(zip(places, answer["images"]))

    def damage_all(self, victim, top, others, password):
        """Damages each byte of one file of a chain; top is the image that is looked at, others are beside the victim.
        """
        secret = self.secret(password)
        content = self.file_bytes(victim)
        allFields = list(fields(self.written[victim].record))
        self.assertEqual(allFields[-1].stop, len(content))
        # Where the highest byte of the rounds makes for a long derivation, once is enough.
        isOften = victim != "full" or is_sanitized()
        left = {HEADER.size - 1} if password and isOften else set()
        said = self.check_all(victim, top, others, [i for i in range(len(content)) if i not in left], secret)
        for places in allFields:
            for place in chosen([place for place in places if place in said], said):
                folder = folder_of(place)
                with self.subTest(victim=victim, top=top, place=place):
                    self.look_at(folder, top, said[place], secret)
                    if not asks_for_long(decode_header(self.file_bytes(f"{folder}/{victim}")[:HEADER.size])):
                        self.repair(folder, victim, place, secret)
        for place in said:
            shutil.rmtree(self.path(folder_of(place)))

    def make_chain(self, password):
        options = {"chunkSize": CHUNK, "sectorSize": SECTOR, "kdfIterations": 1}
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
