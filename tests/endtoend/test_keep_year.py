"""A year of nights in minutes, by the seeds that there is time for.

KESTRIX_SEED names the first seed, KESTRIX_YEARS_SECONDS how long all years may take when there are more than two, and
KESTRIX_YEARS a file to which the figures of each year that broke no rule are added, a line of JSON each.
"""
import itertools
import json
import os
import random
import time

from keep_machine import KeepMachineTest
from keep_year import Year
from harness import is_sanitized

SEED = int(os.environ.get("KESTRIX_SEED", random.SystemRandom().randrange(1 << 32)))
SECONDS = float(os.environ.get("KESTRIX_YEARS_SECONDS", "0"))
WHOLE_YEAR = range(365)
# With sanitizers a night takes several times as long: some weeks of spring and of autumn, with the machine off between.
SHORT_YEAR = [*range(60, 110), *range(270, 310)]


class AYear(KeepMachineTest):
    begun = time.monotonic()

    longest = 0  # seconds of a year

    def one_year(self, seed):
        begin = time.monotonic()
        self.system_disk()
        year = Year(self, seed, SHORT_YEAR if is_sanitized() else WHOLE_YEAR)
        try:
            year.year()
        finally:
            year.end()
            print(f"\n    KESTRIX_SEED={seed}: {dict(year.figures)}, {dict(year.counts)}", end=" ", flush=True)
        AYear.longest = max(AYear.longest, time.monotonic() - begin)
        if "KESTRIX_YEARS" in os.environ:
            with open(os.environ["KESTRIX_YEARS"], "a", encoding="utf-8") as file:
                file.write(json.dumps({"outcome": year.figures, "night": year.counts}) + "\n")

    def test_a_year_breaks_no_rule(self):
        self.one_year(SEED)

    def test_years_with_the_tracker_on_the_other_disk_too_break_no_rule(self):
        for seed in itertools.count(SEED + 1):
            self.one_year(seed)
            if time.monotonic() - AYear.begun + AYear.longest > SECONDS:
                break
            self.doCleanups()
            self.setUp()
