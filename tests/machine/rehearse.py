"""Runs rehearsals and writes their table; scripts/rehearse prepares what they need and starts this."""
import argparse
import concurrent.futures
import datetime
import glob
import importlib
import os
import re
import shutil
import subprocess
import sys
import time
import traceback

from cases import CASES, ROOT, WORK

PAGE = os.path.join(ROOT, "docs", "rehearsals.md")
HEAD = """# Rehearsals

The bad day, and what may go wrong before it, on whole machines: QEMU with emulated processors, a real kernel, disks in
files, the first serial line as the terminal. `scripts/rehearse` does all of it again from nothing on a Debian 12
machine and writes this page; `scripts/rehearse WORD` runs the cases with that word in their names.

"""


def load_cases():
    folder = os.path.dirname(os.path.abspath(__file__))
    for path in sorted(glob.glob(os.path.join(folder, "test_*.py"))):
        importlib.import_module(os.path.basename(path).removesuffix(".py"))


def version_of(*packages):
    said = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *packages], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True, check=False).stdout
    return ", ".join(said.strip().splitlines())


def git(*arguments):
    done = subprocess.run(["git", "-C", ROOT, *arguments], stdout=subprocess.PIPE, text=True, check=False)
    return done.stdout.strip()


def versions():
    # The page itself changes with every case.
    changed = git("status", "--porcelain", "--untracked-files=no", "--", ".", f":!{os.path.relpath(PAGE, ROOT)}")
    commit = (git("rev-parse", "--short", "HEAD") or "unknown") + ("-dirty" if changed else "")
    return f"commit {commit}, {version_of('qemu-system-x86', 'ovmf')}"


def run(chosen):
    """One case: its row. What its machines said stands in its folder, which stays only if it failed."""
    name = chosen.function.__name__.removeprefix("test_")
    folder = os.path.join(WORK, name)
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    begin = time.monotonic()
    tried = versions()
    noted = None
    try:
        noted = chosen.function(folder)
        outcome = "passed"
    except Exception:  # pylint: disable=broad-except
        outcome = "FAILED"
        traceback.print_exc()
        print(f"What its machines said stands in {folder}", flush=True)
    seconds = round(time.monotonic() - begin)
    print(f"{outcome:8}{chosen.group}: {chosen.name} ({seconds} s){': ' + noted if noted else ''}", flush=True)
    if outcome == "passed":
        for path in glob.glob(os.path.join(folder, "*")):
            if not path.endswith(".log"):
                shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)
    return {"outcome": outcome, "seconds": seconds, "noted": noted, "versions": tried,
            "date": datetime.date.today().isoformat()}


def read_page():
    """What the page tells of cases that were run, by their names."""
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    keys = dict(re.findall(r"^(\d+)\. (.+)$", text, re.M))
    rows = re.findall(r"^\| (.+) \| (passed|FAILED)(?:: (.+))? \| (\d+) s \| (\S+) \| (\d+) \|$", text, re.M)
    return {name: {"outcome": outcome, "noted": noted, "seconds": int(seconds), "date": date, "versions": keys[key]}
            for name, outcome, noted, seconds, date, key in rows}


def write_page(results):
    lines = [HEAD]
    keys = []
    for one in CASES:
        if one.name in results and results[one.name]["versions"] not in keys:
            keys.append(results[one.name]["versions"])
    group = None
    for one in CASES:
        if one.group != group:
            group = one.group
            lines.append(f"## {group}\n\n| Case | Outcome | Time | Day | Versions |\n|---|---|---|---|---|\n")
        result = results.get(one.name)
        lines.append(f"| {one.name} | " + (
            f"{result['outcome']}{': ' + result['noted'] if result['noted'] else ''} | {result['seconds']} s | "
            f"{result['date']} | {keys.index(result['versions']) + 1} |\n" if result else "not run yet | | | |\n"))
        if one is CASES[-1] or CASES[CASES.index(one) + 1].group != group:
            lines.append("\n")
    lines.append("Versions:\n\n")
    lines += [f"{number}. {key}\n" for number, key in enumerate(keys, 1)]
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write("".join(lines))


def main():
    parser = argparse.ArgumentParser(prog="scripts/rehearse", description="Rehearses the bad day on whole machines.")
    parser.add_argument("--short", action="store_true", help="only what is done in minutes; writes no page")
    parser.add_argument("-j", "--jobs", type=int, default=max(1, (os.cpu_count() or 1) // 2),
                        help="machines at a time")
    parser.add_argument("words", nargs="*", metavar="WORD", help="only cases with this in their group or name")
    options = parser.parse_args()
    load_cases()
    chosen = [one for one in CASES if (one.short or not options.short) and (not options.words or any(
        word.lower() in f"{one.group}: {one.name} {one.function.__name__}".lower() for word in options.words))]
    if not chosen:
        print("there is no such case", file=sys.stderr)
        return 1
    os.makedirs(WORK, exist_ok=True)
    results = read_page() if options.words else {}
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        begun = {pool.submit(run, one): one for one in chosen}
        for done in concurrent.futures.as_completed(begun):
            results[begun[done].name] = result = done.result()
            failed += result["outcome"] != "passed"
            if not options.short:
                write_page(results)
    print(f"{len(chosen) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
