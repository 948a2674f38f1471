"""The page of results: Markdown and a chart from the records of the runs. Nothing here measures."""
import re
import statistics

import chart
from commands import ROWS
from growth import OPEN, PROVED_THIN
from machine import GIB, MIB, TIB
from peers import PEERS

OPEN_SECONDS, OPEN_MIB, OPEN_SIZE = 0.5, 120, 2 * TIB
FAR_SIZE, FAR_CHAIN = 16 * TIB, 30  # what the lines are drawn out to
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


def at(factors, terms):
    return sum(factor * term for factor, term in zip(factors, terms))


def line_text(factors, unit, per):
    if factors is None:
        return "too few points for a line"
    units = [unit, f"{unit} per {per}", f"{unit} per {per} and image above the first"]
    return " ".join(f"{factor:+.3f} {name}" for factor, name in zip(factors, units)).lstrip("+").replace(" +", " + ")


def duration(seconds):
    if seconds < 120:
        return f"{seconds:.1f} s"
    return f"{seconds / 60:.0f} minutes" if seconds < 7200 else f"{seconds / 3600:.1f} hours"


# ---- What was asked for ----

class Demands:
    """The lines of what is not reached, with what a person noted on each."""

    def __init__(self, notesPath):
        self.missed = []
        with open(notesPath, encoding="utf-8") as file:
            self.notes = dict(re.findall(r"^- ([^:\n]+): (.+(?:\n  .+)*)", file.read(), re.MULTILINE))

    def cell(self, name, figures, limit, apart=""):
        """apart: what is to be known of a figure that is not reached, before the reason."""
        median = statistics.median(figures)
        if median <= limit:
            return f"{spread(figures, 3)}; at most {limit:.2f}"
        why = re.sub(r"\s+", " ", self.notes.get(name, "not noted yet."))
        self.missed.append(f"- {name}: {median:.3f}, which is {median - limit:.3f} above {limit:.2f}{apart}. "
                           f"Why: {why}")
        return f"**{spread(figures, 3)}; at most {limit:.2f}**"


def commands_asked(records, keySeconds, demands):
    rows = []
    for row in ROWS:
        disk = "loop" if row.uses_disk() else "none"
        ours, theirs = (pick(records, row=row.name, disk=disk, cache="cold", who=who)
                        for who in ("kestrix", "bare loop"))
        cells = []
        for name, figure, limit in (("CPU", "cpu", row.cpuLimit), ("wall", "wall", row.wallLimit)):
            apart = ""
            if "{key}" in row.bareLoop:
                apart = f"; deriving the key takes {keySeconds / middle(theirs, figure):.3f} of it"
            cells.append(demands.cell(f"{row.name}, {name}", paired(ours, theirs, figure), limit, apart))
        rows.append([row.name, *cells])
    return table(["", "CPU, of the bare loop's", "wall, of the bare loop's; cold, loop device with direct I/O"], rows)


def opening_asked(records, demands):
    rows = []
    for name, wanted in (("opening the thin capture", {"row": OPEN, "chain": 2}),
                         ("making it", {"row": PROVED_THIN, "chain": 1})):
        runs = pick(records, part="table", size=OPEN_SIZE, cache="cold", **wanted)
        if runs:
            peaks = [peak / 1024 for peak in values(runs, "peak")]
            rows.append([name, demands.cell(f"{name}, seconds", values(runs, "wall"), OPEN_SECONDS),
                         demands.cell(f"{name}, MiB", peaks, OPEN_MIB)])
    if not rows:
        return ""
    return ("\nA thin capture of an unchanged disk of 2 TiB, proved by the change tracker, on a full image:\n\n" +
            table(["", "seconds, cold", "MiB of memory"], rows))


def peers_asked(records):
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
                                 f"CPU {statistics.median(paired(ours, theirs, 'cpu')):.3f}, "
                                 f"wall {statistics.median(paired(ours, theirs, 'wall')):.3f}"])
                    rows.append(["", "", "", "bare loop", *run_cells(theirs), ""])
    return table(["", "disk", "cache", "", *RUN_HEAD, "of the bare loop's"], rows)


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
    points = [((1, size / unit, size / unit * (chain - 1))[:2 + isChain],
               [run for run in runs if (run["size"], run["chain"]) == (size, chain)]) for size, chain in groups]
    return (fitted([(terms, middle(run, "wall")) for terms, run in points]),
            fitted([(terms, middle(run, "peak") / 1024) for terms, run in points]))


def fit_lines(fits, per):
    return "\n".join(f"- {row}: {line_text(time, 's', per)}; {line_text(memory, 'MiB', per)}"
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
             "which\nlies in the full image at the bottom, on this machine:\n"]
    for row, (time, _) in fits.items():
        if time:
            full, chain = ((1, FAR_SIZE / GIB, FAR_SIZE / GIB * above) for above in (0, FAR_CHAIN - 1))
            lines.append(f"- {row}: {duration(at(time, full))} for a full image" +
                         f", {duration(at(time, chain))} for the chain" * (len(time) > 2))
    for row, (time, memory) in tableFits.items():
        if time and memory:
            terms = (1, FAR_SIZE / TIB, FAR_SIZE / TIB * (FAR_CHAIN - 1))
            lines.append(f"- {row}{' the chain' * (row == OPEN)}: {duration(at(time, terms))} and "
                         f"{at(memory, terms) / 1024:.1f} GiB of memory")
    return "\n".join(lines) + "\n"


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

Written by `scripts/bench`; by hand only the reasons in `bench/notes.md` are added. Each command is measured beside the
*bare loop* (`bench/bare_loop.cpp`): what the command can't do without, on one thread, with one buffer on huge pages:
unbuffered reads and writes of 4 MiB on disks, SHA-256 and AES-256-GCM of the same libcrypto, images through the page
cache. The disk is made from a fixed seed: a third random, a third hexadecimal digits, a third stored zeros. Runs
alternate, every second round in the other order, and the first round is dropped. Figures are medians, with the least
and the most; ratios are taken pair by pair. Cold: the page cache was dropped before the run. Warm: the image that is
read was in it. Before each run memory is taken, written to and given back, so that no run pays for memory that the
machine has to get from its host first. CPU is user and system time of the process and those that it waited for. Memory
is the most of any one process.
"""


def write(results, notesPath):
    """The files of the page by their names."""
    demands = Demands(notesPath)
    text = [INTRODUCTION, setting_text(next(iter(results.values()))["about"])]
    asked = []
    if "commands" in results:
        found = results["commands"]
        asked += [commands_asked(found["records"], found["about"]["keySeconds"], demands)]
    if "growth" in results:
        asked += [opening_asked(results["growth"]["records"], demands)]
    if "peers" in results:
        asked += [peers_asked(results["peers"]["records"])]
    text += ["## What is asked for\n\nA figure in bold is not reached.\n", "".join(asked)]
    if demands.missed:
        text += ["Not reached:\n", "\n".join(demands.missed) + "\n"]
    picture = draw(results)
    if picture:
        text += ["![Wall and processor time](performance.svg)\n"]
    if "commands" in results:
        text += [f"## Commands\n\nA disk of {size_text(results['commands']['size'])}.\n",
                 all_commands(results["commands"]["records"])]
    if "peers" in results:
        found = results["peers"]
        names = "; ".join(f"{name}: {version}" for name, version in found["about"]["peers"].items())
        text += [f"## Peers\n\nThe same disk of {size_text(found['size'])} on a loop device, cold, since "
                 "a warm cache would help only those who read through it; the fastest first. "
                 f"Versions: {names}.\n", all_peers(found["records"])]
    if "growth" in results:
        text += ["## How cost grows\n", growth_text(results["growth"]["records"])]
    files = {"performance.md": "\n".join(text).rstrip("\n") + "\n"}
    if picture:
        files["performance.svg"] = picture
    return files
