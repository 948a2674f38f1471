"""A job's folder as many nights would have left it: small images by the independent writer, with their sidecars."""
import hashlib
import json
import os
import random
import time

import kestrix_image

DAY = 86400
CHUNK = 512  # bytes


def sidecar_of(written, startedAt, **known):
    """What a run of a minute would have written beside an image; known: what is otherwise."""
    with open(written.path, "rb") as file:
        content = file.read()
    header, trailer = written.record.header, written.record.trailer
    return {"form": 1, "job": "job", "machine": os.uname().nodename, "number": 1,
            "disk": {"model": "Model", "serial": "SERIAL1", "wwn": "", "sizeBytes": len(written.disk),
                     "sectorBytes": header.sectorSize},
            "startedAt": startedAt, "endedAt": startedAt + 60, "startedLocal": "",
            "identity": written.image_id().hex(), "base": os.fsdecode(trailer.baseName) if trailer else "",
            "baseIdentity": trailer.basePin.hex() if trailer else "", "fileBytes": len(content),
            "sha256": hashlib.sha256(content).hexdigest(), "chunks": len(written.record.table),
            "storedChunks": sum(entry.storedLength != 0 for entry in written.record.table),
            "isSealed": header.encrypted != 0, "captureLines": [], "notes": [], "isSound": True, "damage": "",
            "provedAt": startedAt + 60, "mayNotBeBase": "", **known}


class Nights:
    """Images of a disk of so many chunks, one a night, the newest at the time last. Each stands on the newest full
    image, or on the one before; each fullEvery nights one is full."""

    def __init__(self, folder, job, count, last, *, chunks=512, fullEvery=30, onNewest=False, password=None):
        self.folder, self.job, self.chunks = folder, job, chunks
        self.chance = random.Random(count)
        self.disk = bytearray(kestrix_image.seeded_disk(chunks * CHUNK, 1))
        self.names, self.changed = [], []  # of each image: its file, and the chunks changed since the one before
        self.number = 0
        base = before = None
        for night in range(count):
            changed = self.change_disk() if night else set()
            base = None if night % fullEvery == 0 else before if onNewest else base
            startedAt = last - (count - 1 - night) * DAY
            before = self.image(startedAt, base, password)
            base = base or before
            self.changed.append(changed)

    def path(self, name):
        return os.path.join(self.folder, name)

    def change_disk(self):
        """A log that is written in turn, a few files anywhere, and now and then much at once."""
        where = self.chunks * (self.number % 20 + 4) // 40
        changed = set(range(where, where + max(self.chunks // 60, 1)))
        changed |= {self.chance.randrange(self.chunks) for _ in range(self.chance.randrange(1, 12))}
        if self.chance.random() < 0.08:
            changed |= set(range(self.chunks * 7 // 10, self.chunks * 8 // 10))
        for chunk in changed:
            self.disk[chunk * CHUNK:(chunk + 1) * CHUNK] = self.chance.randbytes(CHUNK)
        return changed

    def image(self, startedAt, base, password):
        self.number += 1
        name = f"{self.job}-{time.strftime('%Y%m%dT%H%M%SZ', time.gmtime(startedAt))}.kstx"
        written = kestrix_image.make_image(self.path(name), bytes(self.disk), password, base, chunkSize=CHUNK)
        self.names.append(name)
        self.write_sidecar(name, sidecar_of(written, startedAt, job=self.job, number=self.number))
        return written

    def read_sidecar(self, name):
        with open(self.path(name + ".json"), encoding="utf-8") as file:
            return json.load(file)

    def write_sidecar(self, name, content):
        with open(self.path(name + ".json"), "w", encoding="utf-8") as file:
            json.dump(content, file)
