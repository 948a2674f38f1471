"""A year of nights in minutes, by the seeds that there is time for."""
import os
import random

from keep_machine import KeepMachineTest
from keep_year import Year
from test_large_disk import is_sanitized

SEED = int(os.environ.get("KESTRIX_SEED", random.SystemRandom().randrange(1 << 32)))


class AYear(KeepMachineTest):
    def one_year(self, seed):
        self.system_disk()
        year = Year(self, seed, 90 if is_sanitized() else 365)  # with sanitizers a night takes several times as long
        try:
            year.year()
        finally:
            year.end()
            print(f"\n    KESTRIX_SEED={seed}: {dict(year.counts)}", end=" ", flush=True)

    def test_a_year_breaks_no_rule(self):
        self.one_year(SEED)

    def test_another_year_breaks_no_rule(self):
        self.one_year(SEED + 1)
