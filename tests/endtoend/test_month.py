"""A month of daily thin captures on one full image: every day's disk comes back, from its chain and consolidated."""
import os
import random

from harness import MIB
from kestrix_image import seeded_disk
from test_thin import GAP, NO_DRIVER, NO_EPOCH, NO_PREVIOUS, NOT_LATEST
from tracked_disk import CHUNK, TrackedDiskTest, show

DAYS = 30
SIZE = 2 * CHUNK + MIB // 2 + 512
QUIET_DAY, SAME_BYTES_DAY, BUSY_CAPTURE_DAY, SEALED_DAY = 4, 27, 6, 26
# Why the proof is lost on a day; it holds on every other.
LOST = {9: NO_PREVIOUS, 14: GAP, 15: GAP, 18: NO_DRIVER, 19: NO_EPOCH, 23: NOT_LATEST}


class Month(TrackedDiskTest):
    def spend(self, day, chance):
        """What happens to the machine from one capture to the next."""
        if day == 9:
            self.restart_driver()
        if day == SAME_BYTES_DAY:
            self.write(CHUNK + 77, bytes(self.content[CHUNK + 77:CHUNK + 5000]))
        elif day != QUIET_DAY:
            # Chunk 1 is left alone but for day 6, so that its references lead far down.
            length = chance.randrange(1, 60000)
            offset = chance.choice((0, 2 * CHUNK)) + chance.randrange(MIB // 2 - length)
            lost = {14: "gap", 15: "secondary"}.get(day, "")
            self.write(offset, chance.randbytes(length), lost)

    def captured(self, day, base, chance):
        meanwhile = (CHUNK - 100, chance.randbytes(300)) if day == BUSY_CAPTURE_DAY else None
        image = self.capture(f"day{day:02d}", base, thin=True, sealed=day == SEALED_DAY, tracked=day != 18,
                             commits=day != 22, meanwhile=meanwhile)
        self.assertEqual(image.reason, LOST.get(day))
        return image

    def test_a_month_of_daily_thin_images_gives_back_every_day(self):
        chance = random.Random(30)
        self.begin(seeded_disk(SIZE, 1))
        month = [self.capture("day00")]
        for day in range(1, DAYS + 1):
            self.spend(day, chance)
            month.append(self.captured(day, month[-1], chance))
        self.assertEqual((month[QUIET_DAY].read, month[QUIET_DAY].stored), ([], []))
        self.assertEqual((month[SAME_BYTES_DAY].read, month[SAME_BYTES_DAY].stored), ([1], []))
        # What was written while day 6 was captured belongs to day 7.
        self.assertEqual(set(month[BUSY_CAPTURE_DAY + 1].stored) & {0, 1}, {0, 1})
        self.assertEqual(len({image.disk for image in month}), DAYS - 1)
        stored = sum(os.path.getsize(self.path(image.name)) for image in month[1:])
        for image in month:
            self.check_restore(image)
            self.remove(self.consolidate(image, "alone"))
        self.check_verify(month[-1])
        show(f"{DAYS} thin images hold {stored / MIB:.1f} MiB, full ones would hold {DAYS * SIZE / MIB:.1f} MiB")
