"""The folder of the vectors as it is filled, and its index, for which outcomes.py spells out what is stated."""
import hashlib
import json
import os
import random

import kestrix_image
import outcomes
from kestrix_image import CAPTURE_CHUNK, ENTRY, HEADER, THIN, decode_header, decode_table, seeded_disk
from outcomes import Statement

CHUNK, SIZE, COUNT = 512, 1280, 3  # the last chunk has 256 bytes
TABLE_END = 64 + 72 * COUNT
OLD = seeded_disk(SIZE, 1)
NEW = OLD[:CHUNK] + seeded_disk(CHUNK, 2) + OLD[2 * CHUNK:]  # what the thin images hold: another chunk 1
OTHER = seeded_disk(SIZE, 3)  # of which the base has no chunk
ONE = OLD[:CHUNK]  # the disk of the long chain
SECRET = b"password"
ITERATIONS = 3
EPOCH = outcomes.PREVIOUS_EPOCH
CHUNKS = [OLD[:CHUNK], OLD[CHUNK:2 * CHUNK], OLD[2 * CHUNK:]]
DISKS = {"old.disk": OLD, "new.disk": NEW, "other.disk": OTHER, "one.disk": ONE}
PASSWORDS = {"right.password": SECRET + b"\n", "wrong.password": b"Password\n", "empty.password": b"",
             "line-ends.password": b"\r\n\n"}
RIGHT = "right.password"
EVERY = (0, 1, 2)
ABNORMAL = "abnormal"


class Vectors:
    """The folder as it is filled, and its index."""

    def __init__(self, folder):
        self.folder = folder
        self.written = {}  # the record of each image as the writer made it
        self.index = []
        for name, content in {**DISKS, **PASSWORDS}.items():
            self.file(name, content)

    def file(self, name, content):
        with open(os.path.join(self.folder, name), "wb") as file:
            file.write(content)

    def make(self, name, disk=OLD, password=None, base=None, edit=None, raw=None, **options):
        """An image of a disk; edit changes its record and raw its finished bytes."""
        path = os.path.join(self.folder, name)
        options = {"chunkSize": CHUNK, "kdfIterations": ITERATIONS, **options}
        made = kestrix_image.make_image(path, disk, password, self.written[base] if base else None, edit=edit,
                                        randomBytes=random.Random(name).randbytes, **options)
        self.written[name] = made
        if raw:
            self.file(name, raw(made.record.encode()))
        return made

    def add(self, name, says, *, disk=OLD, seal=False, use=None, password=None, opening=None, found=None, fetched=None,
            plain=None, bases=(), folders=(), places=None, claims=0, deep=False, **making):
        """One vector: the image, unless it is there already, and what is stated of it."""
        image = use or name + ".kstx"
        if not use:
            if deep:
                making = {"chunkSize": CAPTURE_CHUNK, "epoch": EPOCH, **making}
            self.make(image, disk, SECRET if seal else None, **making)
        password = password or (RIGHT if seal else None)
        password = None if password == "none" else password
        statement = self.state(image, disk, opening, found or {}, fetched or {}, plain)
        vector = {"name": name, "says": says, "image": image}
        if password:
            vector["password"] = password
        base = making.get("base")
        for key, value in (("bases", ([base] if base else []) + list(bases)), ("folders", list(folders)),
                           ("places", places), ("claims", claims)):
            if value:
                vector[key] = value
        vector["disk"] = next(name for name, content in DISKS.items() if content == disk)
        vector["expect"] = {}
        for command, run in COMMANDS.items():
            if deep or command not in DEEP_COMMANDS:
                join(vector["expect"], command, expected(run, statement))
        self.index.append(vector)

    def state(self, image, disk, opening, found, fetched, plain):
        if opening:
            return Statement(image, disk, opening)
        with open(os.path.join(self.folder, image), "rb") as file:
            data = file.read()
        header = decode_header(data[:HEADER.size])
        end = HEADER.size + header.chunkCount * ENTRY.size
        statement = Statement(image, disk, None, header, decode_table(data[HEADER.size:end]), None, found, fetched,
                              head=data[:end])
        chunks = range(header.chunkCount)
        statement.plain = plain or [disk[i * header.chunkSize:][:statement.length(i)] for i in chunks]
        if header.version == THIN:
            # The name as it is printed: text ends at its first zero byte.
            statement.chain = os.fsdecode(self.written[image].record.trailer.baseName.split(b"\0")[0])
        return statement

    def close(self):
        """One line for what is stated of a vector as a whole, and one for each outcome."""
        with open(os.path.join(self.folder, "vectors.json"), "w", encoding="ascii", newline="\n") as file:
            for i, vector in enumerate(self.index):
                *stated, (_, expect) = vector.items()
                outcomes_text = ",\n  ".join(f"{json.dumps(commands)}: {json.dumps(outcome)}"
                                             for commands, outcome in expect.items())
                file.write(("[" if i == 0 else ",") + json.dumps(dict(stated))[:-1] + ',\n "expect": {\n  ' +
                           outcomes_text + "}}\n")
            file.write("]\n")


COMMANDS = {"verify": outcomes.verify, "restore": outcomes.restore, "consolidate": outcomes.consolidate,
            "capture": outcomes.capture, "capture-thin": outcomes.capture_thin,
            "capture-proved": outcomes.capture_proved}
DEEP_COMMANDS = ("capture-thin", "capture-proved")  # for images with the chunk size of a capture alone


def expected(run, statement):
    """An outcome as the index has it, without what is empty."""
    if statement.opening == ABNORMAL:
        return {"status": ABNORMAL}
    outcome = run(statement)
    stated = {"status": outcome.status, "out": outcome.out, "err": outcome.err}
    if outcome.written is not None and outcome.written != outcomes.fresh_target(statement):
        stated["written"] = hashlib.sha256(outcome.written).hexdigest()
    return {key: value for key, value in stated.items() if value != ""}


def join(expect, command, outcome):
    """Commands with one outcome share an entry."""
    same = next((commands for commands, other in expect.items() if other == outcome), None)
    if same:
        expect[f"{same}, {command}"] = expect.pop(same)
    else:
        expect[command] = outcome
