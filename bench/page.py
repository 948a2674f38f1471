"""The page of results: Markdown and a chart from the records of the runs. Nothing here measures."""
import re
import statistics
import sys
from dataclasses import dataclass

import chart
import closing
import images
import nightly
import serving
from commands import ROWS
from growth import OPEN, PROVED_THIN
from machine import GIB, MIB, TIB
from peers import PEERS

OPEN_SECONDS, OPEN_MIB, OPEN_SIZE = 0.5, 120, 2 * TIB
FAR_SIZE, FAR_CHAIN = 16 * TIB, 30  # what the lines are drawn out to
TRUSTED_MISS = 0.10  # a line that misses one of its rows by more is not drawn out
DISKS = {"loop": "loop device", "file": "ordinary file", "none": "-"}


# ---- Figures ----

def pick(records, **wanted):
    """The runs that count, in the order of their rounds."""
    return sorted((record for record in records
                   if record["counts"] and all(record[name] == value for name, value in wanted.items())),
                  key=lambda record: record["round"])


def values(records, name):
    if name == "settled":
        return [record["wall"] + record["settle"] for record in records]
    return [record[name] for record in records]


def middle(records, name):
    return statistics.median(values(records, name))


def spread(figures, digits=2):
    return f"{statistics.median(figures):.{digits}f} ({min(figures):.{digits}f} to {max(figures):.{digits}f})"


def paired(ours, theirs, name):
    """Run by run: so much of what the other took beside it."""
    return [mine / other for mine, other in zip(values(ours, name), values(theirs, name))]


def table(head, rows):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + " --- |" * len(head),
                      *["| " + " | ".join(row) + " |" for row in rows]]) + "\n"


def size_text(size):
    for unit, name in ((TIB, "TiB"), (GIB, "GiB"), (MIB, "MiB")):
        if size % unit == 0:
            break
    return f"{size // unit} {name}"


def fitted(points):
    """The factors of the sum that misses the given figures by the least in proportion: points are pairs of a tuple of
    terms and a figure. None where the points are too few to tell."""
    size = len(points[0][0])
    equations = [[sum(terms[i] * terms[j] / (y * y) for terms, y in points) for j in range(size)] +
                 [sum(terms[i] / y for terms, y in points)] for i in range(size)]
    for i in range(size):
        pivot = max(range(i, size), key=lambda row: abs(equations[row][i]))
        equations[i], equations[pivot] = equations[pivot], equations[i]
        if abs(equations[i][i]) < 1e-12:
            return None
        equations[i] = [value / equations[i][i] for value in equations[i]]
        for row in range(size):
            if row != i:
                equations[row] = [value - equations[row][i] * own for value, own in zip(equations[row], equations[i])]
    return [row[size] for row in equations]


@dataclass
class Line:
    """The sum that is fitted to rows, and how well it fits them."""
    factors: list  # None where the rows are too few to tell
    miss: float = 0  # at the row that it misses by the most, of that row's figure
    worst: str = ""  # that row

    def at(self, terms):
        return sum(factor * term for factor, term in zip(self.factors, terms))

    def text(self, unit, per):
        if self.factors is None:
            return "too few rows for a line"
        units = [unit, f"{unit} per {per}", f"{unit} per {per} and image above the first"]
        terms = " ".join(f"{factor:+.3f} {name}" for factor, name in zip(self.factors, units))
        return f"{terms.lstrip('+').replace(' +', ' + ')} (misses {self.worst} by {100 * self.miss:.1f} %)"

    def doubt(self):
        """Why it says nothing beyond its rows; empty where they bear it out."""
        if self.factors is None:
            return "not known, for want of rows"
        if self.miss > TRUSTED_MISS:
            return f"not known, since the line misses {self.worst} by {100 * self.miss:.1f} %"
        return ""


def line_through(rows):
    """rows: what each is called, its terms and its figure. There must be one more than there are terms, or nothing
    would show how well the line fits."""
    factors = fitted([(terms, figure) for _, terms, figure in rows]) if len(rows) > len(rows[0][1]) else None
    if factors is None:
        return Line(None)
    line = Line(factors)
    line.miss, line.worst = max((abs(line.at(terms) / figure - 1), name) for name, terms, figure in rows)
    return line


def duration(seconds):
    if seconds < 120:
        return f"{seconds:.1f} s"
    return f"{seconds / 60:.0f} minutes" if seconds < 7200 else f"{seconds / 3600:.1f} hours"


# ---- Goals ----

class Goals:
    """Cells of figures that have a goal, and a line for each goal that is missed, with the causes that a person noted.
    What a cause amounts to changes from run to run, so that a note holds no figures."""

    def __init__(self, notesPath):
        self.missed = []
        with open(notesPath, encoding="utf-8") as file:
            notes = re.findall(r"^- ([^:\n]+): (.+(?:\n  .+)*)", file.read(), re.MULTILINE)
        self.notes = {name: re.sub(r"\s+", " ", text) for name, text in notes}
        for name, text in self.notes.items():
            if re.search(r"\d", text):
                sys.exit(f"{notesPath}: the note on {name} holds a figure, which the next measurement makes untrue")

    def cell(self, name, figures, goal, keyShare=None):
        """keyShare: how much of the figure is the derivation of the key, which the bare loop is spared."""
        median = statistics.median(figures)
        if median <= goal:
            return f"{spread(figures, 3)}; goal: at most {goal:.2f}"
        best = "the best run reaches it" if min(figures) <= goal else "no run reaches it"
        self.missed.append(f"- {name}: {median:.3f}, which is {median - goal:.3f} above {goal:.2f}; {best}. "
                           f"{self.causes(name, median - goal, keyShare)}")
        return f"**{spread(figures, 3)}; goal: at most {goal:.2f}**"

    def causes(self, name, missing, keyShare):
        found = []
        if keyShare is not None:
            found.append(f"Deriving the key takes {keyShare:.3f} of it" +
                         (", which is more than what is missing." if keyShare >= missing else "."))
        if name in self.notes:
            found.append("Known causes, unmeasured: " + self.notes[name])
        return " ".join(found) or "No cause is noted."


def command_goals(records, keySeconds, goals):
    rows = []
    for row in ROWS:
        disk = "loop" if row.uses_disk() else "none"
        ours, theirs = (pick(records, row=row.name, disk=disk, cache="cold", who=who)
                        for who in ("kestrix", "bare loop"))
        cells = []
        for name, figure, goal in (("CPU", "cpu", row.cpuGoal), ("wall", "wall", row.wallGoal),
                                   ("wall until all is on the disk", "settled", row.settledGoal)):
            ratios = paired(ours, theirs, figure)
            if goal is None:
                cells.append(spread(ratios, 3) if row.writes() else "-")
                continue
            keyShare = keySeconds / middle(theirs, figure) if "{key}" in row.bareLoop else None
            cells.append(goals.cell(f"{row.name}, {name}", ratios, goal, keyShare))
        rows.append([row.name, *cells])
    return ("Of the bare loop's, cold, disks on loop devices with direct I/O:\n\n" +
            table(["", "CPU", "wall", "wall until all is on the disk"], rows))


def opening_goals(records, goals):
    rows = []
    for name, wanted in (("opening the thin capture", {"row": OPEN, "chain": 2}),
                         ("making it", {"row": PROVED_THIN, "chain": 1})):
        runs = pick(records, part="table", size=OPEN_SIZE, cache="cold", **wanted)
        if runs:
            peaks = [peak / 1024 for peak in values(runs, "peak")]
            rows.append([name, goals.cell(f"{name}, seconds", values(runs, "wall"), OPEN_SECONDS),
                         goals.cell(f"{name}, MiB", peaks, OPEN_MIB)])
    if not rows:
        return ""
    return ("\nA thin capture of an unchanged disk of 2 TiB, proved by the change tracker, on a full image:\n\n" +
            table(["", "seconds, cold", "MiB of memory"], rows))


SERVING_GOALS = {serving.SEQUENTIAL: 1.00, serving.RANDOM: 2.00, serving.OPENING: 1.00}


def serving_pairs(records):
    """The rows of what nbdkit serves that stand beside another program, with the runs of both."""
    for row, cache, ours, theirs in ((serving.SEQUENTIAL, "cold", serving.COPY, serving.VERIFY),
                                     (serving.SEQUENTIAL, "warm", serving.COPY, serving.VERIFY),
                                     (serving.RANDOM, "warm", serving.PLUGIN, serving.FILE)):
        yield row, cache, *(pick(records, row=row, cache=cache, who=who) for who in (ours, theirs))


def serving_goals(records, goals):
    rows = [[f"{row}, {cache}", ours[0]["who"], theirs[0]["who"],
             goals.cell(f"{row}, {cache}", paired(ours, theirs, "wall"), SERVING_GOALS[row])]
            for row, cache, ours, theirs in serving_pairs(records)]
    seconds = values(pick(records, row=serving.OPENING, cache="cold"), "wall")
    rows.append([f"{serving.OPENING}, cold", serving.PLUGIN, "a second",
                 goals.cell(serving.OPENING, seconds, SERVING_GOALS[serving.OPENING])])
    return "\nServed by nbdkit, time of the second's:\n\n" + table(["", "who", "beside", "time"], rows)


def all_serving(records, size):
    rows = []
    for row, cache, ours, theirs in serving_pairs(records):
        for runs in (ours, theirs):
            walls = values(runs, "wall")
            figures = [1 / wall if row == serving.RANDOM else size / MIB / wall for wall in walls]
            rows.append([row, cache, runs[0]["who"],
                         spread(figures, 0) + (" reads/s" if row == serving.RANDOM else " MiB/s")])
    for cache in ("cold", "warm"):
        runs = pick(records, row=serving.OPENING, cache=cache)
        rows.append([serving.OPENING, cache, serving.PLUGIN,
                     f"{spread(values(runs, 'wall'), 3)} s, {max(values(runs, 'peak')) / 1024:.0f} MiB"])
    return table(["", "cache", "", ""], rows)


def peers_goals(records):
    ours = pick(records, row="capture on one core", who="kestrix")
    ahead, behind = [], []
    for peer in PEERS:
        theirs = pick(records, row="capture on one core", who=peer.name)
        if theirs:
            ratio = statistics.median(paired(ours, theirs, "wall"))
            (ahead if ratio < 1 else behind).append(f"{peer.name} ({ratio:.2f} of its time)")
    found = [f"ahead of {', '.join(ahead)}"] * bool(ahead) + [f"**behind {', '.join(behind)}**"] * bool(behind)
    if not found:
        return ""
    return "\nCapture beside each peer that takes SHA-256, all held on one core: " + "; ".join(found) + ".\n"


# ---- All figures ----

def run_cells(runs):
    return [spread(values(runs, "wall")), spread(values(runs, "settled")), spread(values(runs, "cpu")),
            f"{max(values(runs, 'peak')) / 1024:.0f}"]


RUN_HEAD = ["wall s", "wall s until all is on the disk", "CPU s", "MiB"]


def all_commands(records):
    rows = []
    for row in ROWS:
        for disk in DISKS:
            for cache in ("cold", "warm"):
                ours, theirs = (pick(records, row=row.name, disk=disk, cache=cache, who=who)
                                for who in ("kestrix", "bare loop"))
                if ours:
                    rows.append([row.name, DISKS[disk], cache, "kestrix", *run_cells(ours),
                                 ", ".join(f"{name} {statistics.median(paired(ours, theirs, figure)):.3f}"
                                           for name, figure in (("CPU", "cpu"), ("wall", "wall"),
                                                                ("on the disk", "settled")))])
                    rows.append(["", "", "", "bare loop", *run_cells(theirs), ""])
    return table(["", "disk", "cache", "", *RUN_HEAD, "of the bare loop's"], rows)


def all_closes(records):
    """Each command beside itself where nothing is waited for at its closes."""
    rows = []
    for row in closing.ROWS:
        waits, doesNot = (pick(records, row=row, who=who) for who in (closing.WAITS, closing.DOES_NOT))
        rows.append([row, spread(values(waits, "wall")), spread(values(doesNot, "wall")),
                     spread(paired(waits, doesNot, "wall"), 3), spread(paired(waits, doesNot, "settled"), 3)])
    return table(["", "wall s", "wall s without the wait", "wall, of that without the wait",
                  "wall until all is on the disk, of that without the wait"], rows)


TREE_SECONDS, TREE_MIB = 5.0, 200


def image_goals(records, goals):
    """kestrix-image beside what each row names, and what tree costs."""
    rows = []
    for row in images.ROWS:
        ours, theirs = (pick(records, row=row.name, who=who) for who in (images.PROGRAM, row.beside))
        rows.append([row.name, row.beside, spread(values(ours, "wall")), spread(values(theirs, "wall")),
                     goals.cell(f"{row.name}, wall", paired(ours, theirs, "wall"), row.goal),
                     f"{max(values(ours, 'peak')) / 1024:.0f}"])
    tree = pick(records, row=images.TREE)
    peaks = [peak / 1024 for peak in values(tree, "peak")]
    return (table(["", "beside", "wall s", "wall s of that", "wall, of that", "MiB"], rows) +
            f"\n{images.TREE.capitalize()}: {tree[0]['images']} images of disks of 16 GiB, cold: " +
            goals.cell(f"{images.TREE}, seconds", values(tree, "wall"), TREE_SECONDS) + " seconds; " +
            goals.cell(f"{images.TREE}, MiB", peaks, TREE_MIB) + " MiB.\n")


NIGHT_GOAL = 1.02


def night_goals(records, goals):
    """A night beside a capture of the same kind; only one without changes has a goal, since it writes next to nothing
    that could be read back."""
    rows = []
    for row in nightly.ROWS:
        for beside in [nightly.CAPTURE] + [nightly.CHECKED] * row.isChecked:
            ours, theirs = (pick(records, row=row.name, who=who) for who in (nightly.PROGRAM, beside))
            ratios = {figure: paired(ours, theirs, figure) for figure in ("cpu", "wall", "settled")}
            cells = [goals.cell(f"a night, {row.name}, {figure}", ratios[figure], NIGHT_GOAL) if row.hasBase
                     else spread(ratios[figure], 3) for figure in ratios]
            rows.append([row.name, beside, spread(values(ours, "settled")), spread(values(theirs, "settled")), *cells])
    return table(["", "beside", "wall s until all is on the disk", "of that", "CPU, of that", "wall, of that",
                  "wall until all is on the disk, of that"], rows)


def names_of(records, row):
    names = dict.fromkeys(record["who"] for record in records if record["row"] == row)
    return sorted(names, key=lambda name: middle(pick(records, row=row, who=name), "wall"))


def all_peers(records):
    does = {"kestrix": "copies, SHA-256 of each chunk", "kestrix sealed": "copies, SHA-256 of each chunk, AES-256-GCM",
            "bare loop": "copies, SHA-256 of each chunk, keeps none", **{peer.name: peer.does for peer in PEERS}}
    text = []
    for row, title in (("capture", "Capture, as many cores as each takes"),
                       ("capture on one core", "Capture, one core"), ("verify", "Verify: a digest of a file"),
                       ("restore", "Restore: a file onto a disk")):
        names = names_of(records, row)
        isCapture = row.startswith("capture")
        text += [f"\n{title}:\n", table(["", *RUN_HEAD] + ["what it does"] * isCapture, [
            [name, *run_cells(pick(records, row=row, who=name))] + [does.get(name, "")] * isCapture for name in names])]
    return "\n".join(text)


# ---- How cost grows ----

def cost_rows(records, part, rows, name, columns):
    """Time and memory of each row, one column for each size or length."""
    lines = []
    for row in rows:
        runs = [pick(records, part=part, row=row, **{name: column}) for column in columns]
        lines += [[row + ", s", *(spread(values(run, "wall")) for run in runs)],
                  [row + ", MiB", *(f"{middle(run, 'peak') / 1024:.1f}" for run in runs)]]
    return lines


def fits_of(records, parts, row, unit, cache="cold"):
    """The lines of time and memory: a constant, a term for the size, one for the size times the images above the
    bottom of the chain where there are such."""
    runs = [record for record in pick(records, row=row, cache=cache) if record["part"] in parts]
    groups = sorted({(run["size"], run["chain"]) for run in runs})
    isChain = any(chain > 1 for _, chain in groups)
    points = [(f"{size_text(size)}{f' with {chain} images' * (chain > 1)}",
               (1, size / unit, size / unit * (chain - 1))[:2 + isChain],
               [run for run in runs if (run["size"], run["chain"]) == (size, chain)]) for size, chain in groups]
    return (line_through([(name, terms, middle(run, "wall")) for name, terms, run in points]),
            line_through([(name, terms, middle(run, "peak") / 1024) for name, terms, run in points]))


def fit_lines(fits, per):
    return "\n".join(f"- {row}: {time.text('s', per)}; {memory.text('MiB', per)}"
                     for row, (time, memory) in fits.items()) + "\n"


def growth_text(records):
    sizes = sorted({record["size"] for record in records if record["part"] == "size"})
    lengths = sorted({record["chain"] for record in records if record["part"] == "chain"})
    chainSize = next(record["size"] for record in records if record["part"] == "chain")
    readers = ["verify", "restore", "consolidate"]
    # A chain costs the readers a buffer or two, however long it is, and tables too small to be seen here.
    fits = {row: (fits_of(records, ("size", "chain"), row, GIB)[0], fits_of(records, ("size",), row, GIB)[1])
            for row in ["capture", *readers]}
    tableFits = {row: fits_of(records, ("table",), row, TIB) for row in (OPEN, PROVED_THIN)}
    return "\n".join([
        "Cold, on a loop device. With the size of the disk, as full images:\n",
        table(["", *map(size_text, sizes)], cost_rows(records, "size", ["capture", *readers], "size", sizes)),
        f"With the length of the chain: a disk of {size_text(chainSize)}, of which each image changes one chunk in a "
        "hundred. A chunk is digested once more for each image above the one that stores it.\n",
        table(["", *(f"{length} image{'s' * (length > 1)}" for length in lengths)],
              cost_rows(records, "chain", readers, "chain", lengths)),
        "The lines of time through both, of memory through the full images:\n", fit_lines(fits, "GiB"),
        "With the tables alone: disks that are never read. Of the full image at the bottom header and table are\n"
        "there, which is all that these commands read of it.\n",
        table(["", "disk", "chain", "cold s", "warm s", "MiB"], table_rows(records)),
        "The lines through these, cold:\n", fit_lines(tableFits, "TiB"), far_text(fits, tableFits)])


def table_rows(records):
    rows = []
    runs = [record for record in records if record["part"] == "table"]
    for size, row, length in dict.fromkeys((run["size"], run["row"], run["chain"]) for run in runs):
        cold, warm = (pick(runs, size=size, row=row, chain=length, cache=cache) for cache in ("cold", "warm"))
        rows.append([row, size_text(size), str(length or "-"), spread(values(cold, "wall"), 3),
                     spread(values(warm, "wall"), 3) if warm else "-", f"{middle(cold, 'peak') / 1024:.1f}"])
    return rows


def far_text(fits, tableFits):
    """What the lines say of a large disk with a long chain, nearly all of which lies in the image at its bottom."""
    lines = [f"What these lines say of a disk of {size_text(FAR_SIZE)} with a chain of {FAR_CHAIN}, nearly all of "
             "which\nlies in the full image at the bottom, on this machine, where they miss none of their rows by more "
             f"than {100 * TRUSTED_MISS:.0f} %:\n"]
    for row, (time, _) in fits.items():
        lines.append(f"- {row}: {time.doubt() or far_time(time)}")
    terms = (1, FAR_SIZE / TIB, FAR_SIZE / TIB * (FAR_CHAIN - 1))
    for row, (time, memory) in tableFits.items():
        lines.append(f"- {row}{' the chain' * (row == OPEN)}: time: {time.doubt() or duration(time.at(terms))}; "
                     f"memory: {memory.doubt() or f'{memory.at(terms) / 1024:.1f} GiB'}")
    return "\n".join(lines) + "\n"


def far_time(line):
    full, chain = ((1, FAR_SIZE / GIB, FAR_SIZE / GIB * above) for above in (0, FAR_CHAIN - 1))
    return (f"{duration(line.at(full))} for a full image" +
            (f", {duration(line.at(chain))} for the chain" if len(line.factors) > 2 else ""))


# ---- The page ----

def setting_text(about):
    cores = f"{about['cores']} cores{' of a virtual machine' * about['virtual']}"
    lines = [
        f"- Measured on {about['date']} with Kestrix at {about['kestrix']}; {about['compiler']}, {about['openssl']}",
        f"- Machine: {about['processor']}, {cores} (extensions: {', '.join(about['extensions']) or 'none of note'}), "
        f"{about['memory'] / GIB:.0f} GiB of memory; load before the first run {about['load']:.2f}",
        f"- {about['system']}, {about['kernel']}; disks and images on {about['fileSystem']}",
        f"- Deriving the key of a sealed image takes {about['keySeconds']:.3f} s here, once in every sealed run of the "
        "program; the bare loop is given its key",
    ]
    return "\n".join(lines) + "\n"


def measured_when(results, part):
    """A part may have been measured on another day than the first, and of another commit."""
    about = results[part]["about"]
    return f"Measured on {about['date']} at {about['kestrix']}."


def bars(records, names, wanted, ours):
    found = []
    for name in names:
        runs = pick(records, **wanted(name))
        walls = values(runs, "wall")
        found.append(chart.Bar(name, middle(runs, "wall"), min(walls), max(walls), middle(runs, "cpu"), ours(name)))
    return found


def draw(results):
    panels = []
    if "commands" in results:
        records = results["commands"]["records"]
        found = []
        for row in ROWS:
            disk = "loop" if row.uses_disk() else "none"
            pair = bars(records, ["kestrix", "bare loop"], lambda name: {
                "row": row.name, "disk": disk, "cache": "cold", "who": name}, lambda name: name == "kestrix")
            pair[0].name = row.name.replace(" without tracker, nothing changed", ", unchanged")
            found += pair
        panels.append(("Each command and its bare loop, cold, loop device with direct I/O", found))
    if "peers" in results:
        records = results["peers"]["records"]
        for row, title in (("capture", "Capture and its peers"), ("capture on one core", "The same on one core")):
            panels.append((title, bars(records, names_of(records, row), lambda name: {"row": row, "who": name},
                                       lambda name: name.startswith("kestrix"))))
    return chart.draw(panels) if panels else None


INTRODUCTION = """# Performance

Each command is measured beside the *bare loop*: what the command can't do without, on one thread and with one buffer.
Runs alternate. Figures are medians, with the least and the most; ratios are taken pair by pair. Cold: the page cache
was dropped before the run. Warm: what is read was in it. CPU is user and system time of the process and those that it
waited for. Memory is the most of any one process. How all of this is done stands in the source tree, in
`docs/development/measuring.md`.
"""


def write(results, notesPath):
    """The files of the page by their names."""
    goals = Goals(notesPath)
    text = [INTRODUCTION, setting_text(next(iter(results.values()))["about"])]
    stated = []
    if "commands" in results:
        found = results["commands"]
        stated += [command_goals(found["records"], found["about"]["keySeconds"], goals)]
    if "growth" in results:
        stated += [opening_goals(results["growth"]["records"], goals)]
    if "peers" in results:
        stated += [peers_goals(results["peers"]["records"])]
    imageText = []
    if "images" in results:
        found = results["images"]
        imageText = [f"## kestrix-image\n\nA disk of {size_text(found['size'])}. {measured_when(results, 'images')}\n",
                     image_goals(found["records"], goals)]
    nightText = []
    if "nightly" in results:
        found = results["nightly"]
        nightText = [f"## A night of kestrix-keep\n\nA disk of {size_text(found['size'])} on a loop device, cold. "
                     f"{measured_when(results, 'nightly')} A full image is read back from the medium\nas it has to be, "
                     "once for its chunks and once for the digest of the file; with that left out it is a capture.\n",
                     night_goals(found["records"], goals)]
    if "serving" in results:
        stated += [serving_goals(results["serving"]["records"], goals)]
    text += ["## Goals\n\nA figure in bold misses its goal.\n", "".join(stated)]
    if goals.missed:
        text += ["Missed:\n", "\n".join(goals.missed) + "\n"]
    picture = draw(results)
    if picture:
        text += ["![Wall and processor time](performance.svg)\n"]
    if "commands" in results:
        text += [f"## Commands\n\nA disk of {size_text(results['commands']['size'])}. "
                 f"{measured_when(results, 'commands')}\n",
                 all_commands(results["commands"]["records"])]
    if "closing" in results:
        text += ["## What complete costs\n\nClosing what was written brings it to the disk. Beside that, the same "
                 "program without the calls that wait for\nthe disk at the close, which ends before all is there. "
                 "Waiting makes no run faster: a ratio below 1\ntells how far figures swing on such a machine. "
                 f"Cold, loop devices, a disk of {size_text(results['closing']['size'])}. "
                 f"{measured_when(results, 'closing')}\n",
                 all_closes(results["closing"]["records"])]
    text += imageText + nightText
    if "peers" in results:
        found = results["peers"]
        names = "; ".join(f"{name}: {version}" for name, version in found["about"]["peers"].items())
        text += [f"## Peers\n\nThe same disk of {size_text(found['size'])} on a loop device, cold, since "
                 "a warm cache would help only those who read through it; the fastest first. "
                 f"{measured_when(results, 'peers')} Versions: {names}.\n", all_peers(found["records"])]
    if "growth" in results:
        found = results["growth"]
        text += [f"## How cost grows\n\n{measured_when(results, 'growth')}\n", growth_text(found["records"])]
    if "serving" in results:
        found = results["serving"]
        text += ["## An image served by nbdkit\n\n"
                 f"A disk of {size_text(found['size'])} of random bytes. {measured_when(results, 'serving')} The "
                 "whole disk goes through nbdcopy into "
                 "nothing, server and client\non two cores and nbdkit with `--threads=2`, beside `kestrix verify` of "
                 "the image on one. The small reads are fio's,\n32 under way, out of a cache that holds all of what "
                 "they read, beside nbdkit's file plugin on the raw disk in the page cache.\n",
                 all_serving(found["records"], found["size"])]
    files = {"performance.md": "\n".join(text).rstrip("\n") + "\n"}
    if picture:
        files["performance.svg"] = picture
    return files
