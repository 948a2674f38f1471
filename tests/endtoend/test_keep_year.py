"""A year of nights in minutes, by the seeds that there is time for.

KESTRIX_SEED names the first seed, KESTRIX_YEARS_SECONDS for how long more years than two are tried, and KESTRIX_YEARS a
file to which the figures of each year that broke no rule are added, a line of JSON each.
"""
import json
import os
import random
import time

from keep_machine import KeepMachineTest
from keep_year import Year
from test_large_disk import is_sanitized

SEED = int(os.environ.get("KESTRIX_SEED", random.SystemRandom().randrange(1 << 32)))
SECONDS = float(os.environ.get("KESTRIX_YEARS_SECONDS", "0"))
WHOLE_YEAR = range(365)
# With sanitizers a night takes several times as long: some weeks of spring and of autumn, with the machine off between.
SHORT_YEAR = [*range(60, 110), *range(270, 310)]


class AYear(KeepMachineTest):
    begun = time.monotonic()

    def one_year(self, seed):
        self.system_disk()
        year = Year(self, seed, SHORT_YEAR if is_sanitized() else WHOLE_YEAR)
        try:
            year.year()
        finally:
            year.end()
            figures = {**year.figures, **year.counts}
            print(f"\n    KESTRIX_SEED={seed}: {figures}", end=" ", flush=True)
        if "KESTRIX_YEARS" in os.environ:
            with open(os.environ["KESTRIX_YEARS"], "a", encoding="utf-8") as file:
                file.write(json.dumps({"figures": year.figures, "events": year.counts}) + "\n")

    def test_a_year_breaks_no_rule(self):
        self.one_year(SEED)

    def test_another_year_with_the_tracker_on_the_other_disk_breaks_no_rule(self):
        self.one_year(SEED + 1)
