"""Chains that nobody thought of: random disks, writes, drivers and captures, each report worked out beforehand.

The seed is printed. KESTRIX_SEED repeats a run, KESTRIX_WORLDS asks for more than the usual number of machines. Each
machine goes through a few steps; after each the new image must verify, restore to the disk of its moment and
consolidate to it, plain and sealed, and the independent reader must agree with every entry and every byte.
"""
import collections
import os
import random

from harness import KIB, MIB
from tracked_disk import CHUNK, TrackedDiskTest, show

WORLDS, STEPS, DEEPEST = 3, 5, 5


class RandomChains(TrackedDiskTest):
    def build_world(self):
        chance = self.chance
        size = chance.choice((0, 1, 1, 2)) * CHUNK + chance.choice((1, 511, 512, 70 * KIB + 9, MIB, CHUNK))
        shift = chance.choice((9, 12, 16, 20, 22, 23, 40))
        whole = -(-(-(-size >> shift)) // 8)
        self.begin(chance.randbytes(size), blockShift=shift,
                   firstEpoch=chance.choice((1, 0xFF, 2**32 - 2, 2**56 - 2, 2**56 + 1, 2**63 + 7)),
                   bitmapBytes=chance.choice((whole, whole, whole, whole + 3, chance.randrange(whole + 1))))
        for name in os.listdir(self.images):
            if name != "p":
                os.unlink(self.path(name))
        self.history = []

    def random_write(self):
        """Offset and bytes: new ones, those that stand there already, or those of an earlier day."""
        chance = self.chance
        offset = chance.choice((0, self.size - 1, chance.randrange(self.size), chance.randrange(self.count) * CHUNK))
        offset = max(0, offset - chance.choice((0, 0, 1, 300)))
        length = chance.choice((1, 512, chance.randrange(1, 64 * KIB), CHUNK))
        kind = chance.random()
        if kind < 0.2:
            return offset, bytes(self.content[offset:offset + length])
        if kind < 0.3 and self.history:
            return offset, chance.choice(self.history).disk[offset:offset + length]
        return offset, chance.randbytes(min(length, self.size - offset))

    def live(self):
        """The machine between two captures."""
        if self.chance.random() < 0.12:
            self.restart_driver()
        for _ in range(self.chance.choice((0, 1, 1, 2))):
            lost = self.chance.choice(("",) * 12 + ("gap", "secondary"))
            self.write(*self.random_write(), lost)

    def choose_base(self):
        chance = self.chance
        if not self.history or chance.random() < 0.03:
            return None
        base = self.history[-1] if chance.random() < 0.3 else chance.choice(self.history)
        return self.committed if self.committed and chance.random() < 0.7 else base

    def next_image(self, step):
        chance = self.chance
        base = self.choose_base()
        thin = base is not None and base.depth() < DEEPEST and chance.random() < 0.7
        meanwhile = self.random_write() if chance.random() < 0.2 else None
        return self.capture(f"image{step}", base, thin, sealed=chance.random() < 0.25,
                            tracked=chance.random() < 0.9, commits=chance.random() < 0.92, meanwhile=meanwhile)

    def check_all(self, image, step):
        self.check_verify(image)
        self.check_restore(image)
        for sealed in (False, True):
            folded = self.consolidate(image, f"folded{step}{int(sealed)}", sealed)
            if self.chance.random() < 0.15:
                self.history.append(folded)
            else:
                self.remove(folded)

    def go_on(self, step):
        self.live()
        image = self.next_image(step)
        self.check_all(image, step)
        self.history.append(image)
        return image

    def test_any_history_gives_the_images_that_it_must(self):
        seed = int(os.environ.get("KESTRIX_SEED") or random.SystemRandom().randrange(10**9))
        worlds = int(os.environ.get("KESTRIX_WORLDS") or WORLDS)
        show(f"KESTRIX_SEED={seed}")
        self.chance = random.Random(seed)
        decisions = collections.Counter()
        for world in range(worlds):
            self.build_world()
            for step in range(STEPS):
                try:
                    image = self.go_on(step)
                except Exception as error:
                    raise AssertionError(f"KESTRIX_SEED={seed}, world {world}, step {step}") from error
                kind = "thin" if image.base else "full"
                decisions[image.reason or (f"proved {kind}" if image.proved else "no base")] += 1
        show(", ".join(f"{count} {reason}" for reason, count in decisions.most_common()))
