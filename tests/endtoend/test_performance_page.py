"""What the page on performance says of the figures that it is written from."""
import os
import sys
import tempfile
import unittest

import harness

sys.path.append(os.path.join(harness.ROOT, "bench"))
import page  # noqa: E402
from commands import ROWS  # noqa: E402
from machine import GIB, TIB  # noqa: E402

NOTES = os.path.join(harness.ROOT, "bench", "notes.md")


def goals(notes):
    with tempfile.NamedTemporaryFile("w", suffix=".md") as file:
        file.write(notes)
        file.flush()
        return page.Goals(file.name)


class Goals(unittest.TestCase):
    def test_a_cause_is_printed_where_the_goal_is_missed_and_nowhere_else(self):
        found = goals("- verify, CPU: One cause\n  on two lines.\n- verify, wall: Another.\n")
        self.assertEqual(found.cell("verify, CPU", [0.9, 1.03, 1.1], 1.03),
                         "1.030 (0.900 to 1.100); goal: at most 1.03")
        self.assertEqual(found.missed, [])
        self.assertEqual(found.cell("verify, CPU", [0.9, 1.05, 1.1], 1.03),
                         "**1.050 (0.900 to 1.100); goal: at most 1.03**")
        found.cell("restore, CPU", [1.04, 1.05, 1.1], 1.03)
        self.assertEqual(found.missed, [
            "- verify, CPU: 1.050, which is 0.020 above 1.03; the best run reaches it. Known causes, unmeasured: "
            "One cause on two lines.",
            "- restore, CPU: 1.050, which is 0.020 above 1.03; no run reaches it. No cause is noted."])

    def test_the_key_is_more_than_what_is_missing_only_where_it_is(self):
        found = goals("")
        for share in (0.03, 0.01):
            found.cell("verify sealed, CPU", [1.05], 1.03, share)
        self.assertEqual([line.split("reaches it. ")[1] for line in found.missed],
                         ["Deriving the key takes 0.030 of it, which is more than what is missing.",
                          "Deriving the key takes 0.010 of it."])

    def test_a_note_with_a_figure_is_refused(self):
        with self.assertRaisesRegex(SystemExit, "the note on verify, CPU holds a figure"):
            goals("- verify, CPU: By hand it was 1.02.\n")

    def test_every_note_is_on_a_figure_that_has_a_goal(self):
        named = {f"{row.name}, {figure}" for row in ROWS for figure in ("CPU", "wall", "wall until all is on the disk")}
        named |= {f"{row.name}, wall" for row in page.images.ROWS}
        named |= {f"{row}, {cache}" for row in page.SERVING_GOALS for cache in ("cold", "warm")}
        named |= {f"a night, {row.name}, {figure}" for row in page.nightly.ROWS if row.hasBase
                  for figure in ("cpu", "wall", "settled")}
        self.assertLessEqual(set(page.Goals(NOTES).notes), named)


class Forecast(unittest.TestCase):
    """A line is drawn out to a large disk only where its own rows bear it out."""

    def records(self, part, row, points):
        return [{"part": part, "row": row, "cache": "cold", "counts": True, "round": 1, "size": size, "chain": chain,
                 "who": "kestrix", "wall": wall, "peak": 1024 * mib} for size, chain, wall, mib in points]

    def far(self, walls):
        rows = self.records("size", "capture", [(size * GIB, 1, wall, 15) for size, wall in walls])
        fits = {"capture": page.fits_of(rows, ("size",), "capture", GIB)}
        rows = self.records("table", "open", [(size * TIB, chain, 0.1 * size * chain, 40 * size * chain)
                                              for size, chain in ((1, 1), (1, 8), (4, 1), (4, 2))])
        tables = {"open": page.fits_of(rows, ("table",), "open", TIB)}
        return page.far_text(fits, tables).split(":\n\n")[1].splitlines()

    def test_rows_on_a_line_are_drawn_out(self):
        capture, opening = self.far([(1, 1.5), (4, 6.0), (16, 24.0)])
        self.assertEqual(capture, "- capture: 6.8 hours for a full image")
        self.assertEqual(opening, "- open the chain: time: 48.0 s; memory: 18.8 GiB")

    def test_a_row_that_contradicts_its_line_ends_the_forecast(self):
        capture, _ = self.far([(1, 1.5), (4, 6.0), (16, 48.0)])
        self.assertRegex(capture, r"^- capture: not known, since the line misses \d+ GiB by \d+\.\d %$")

    def test_as_many_rows_as_the_line_has_terms_tell_nothing(self):
        self.assertEqual(self.far([(1, 1.5), (4, 6.0)])[0], "- capture: not known, for want of rows")


if __name__ == "__main__":
    unittest.main()
