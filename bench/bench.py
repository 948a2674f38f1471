#!/usr/bin/python3
"""Measures the program and writes docs/performance.md; scripts/bench builds what is needed and calls this.

What was measured is kept, run by run, in a file of results, part by part: a part that is measured anew replaces the old
one, and the page can be written again without measuring.
"""
import argparse
import datetime
import hashlib
import json
import os
import platform
import signal
import subprocess
import sys
import time

import closing
import commands
import growth
import images
import nightly
import page
import peers
import serving
from machine import GIB, MIB, PASSWORD, TIB, Machine

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PARTS = ("commands", "closing", "images", "nightly", "serving", "peers", "growth")
PLAN = {"sizes": [GIB, 4 * GIB, 16 * GIB], "chainSize": GIB, "chains": [1, 8, 64],
        "tables": [2 * TIB, 4 * TIB, 16 * TIB, 64 * TIB], "tableChainSize": TIB}
QUICK_PLAN = {"sizes": [8 * MIB, 24 * MIB], "chainSize": 16 * MIB, "chains": [1, 3], "tables": [2 * TIB],
              "tableChainSize": 64 * GIB}


def parse(arguments):
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measures the program beside the bare loop and "
                                     "beside its peers, and writes docs/performance.md. Needs root.")
    parser.add_argument("--size", type=int, default=2048, metavar="MIB", help="size of the disk (default: %(default)s)")
    parser.add_argument("--runs", type=int, default=5, help="runs that count; one more is dropped (default: 5)")
    parser.add_argument("--growth-runs", type=int, default=3, help="the same for how cost grows (default: 3)")
    parser.add_argument("--parts", default=",".join(PARTS), help="those to measure (default: %(default)s)")
    parser.add_argument("--folder", help="where the disks lie while it measures (default: build/bench/work)")
    parser.add_argument("--page", action="store_true", help="measure nothing, write the page from the last results")
    parser.add_argument("--peers", action="store_true", help="install the peers first")
    parser.add_argument("--quick", action="store_true", help="64 MiB and one run of each, without peers, to see that "
                        "all of it works; its page goes to build/bench/quick")
    options = parser.parse_args(arguments)
    options.parts = options.parts.split(",")
    if not set(options.parts) <= set(PARTS) or min(options.runs, options.growth_runs, options.size) < 1:
        parser.error("a part is one of " + ", ".join(PARTS) + "; a number is at least 1")
    if options.quick:
        options.size, options.runs, options.growth_runs = 64, 0, 0
        options.parts = [part for part in PARTS if part != "peers"]
    return options


def first_line(*command):
    try:
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                              check=False)
    except OSError:
        return "unknown"
    return (done.stdout.strip().splitlines() or ["unknown"])[0]


def field(path, name, separator):
    """The value of a line of a file of names and values."""
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.split(separator)[0].strip() == name:
                return line.split(separator, 1)[1].strip().strip('"')
    return "unknown"


def setting(folder):
    """The machine, and the versions of what was measured on it."""
    flags = field("/proc/cpuinfo", "flags", ":").split()
    commit = first_line("git", "describe", "--always", "--dirty")
    return {
        "date": datetime.date.today().isoformat(),
        "processor": field("/proc/cpuinfo", "model name", ":"),
        "cores": os.cpu_count(),
        "extensions": [flag for flag in ("sha_ni", "aes", "vaes", "avx2", "avx512f") if flag in flags],
        "virtual": "hypervisor" in flags,
        "memory": int(field("/proc/meminfo", "MemTotal", ":").split()[0]) * 1024,
        "kernel": "Linux " + platform.release().split("-")[0],
        "system": field("/etc/os-release", "PRETTY_NAME", "="),
        "fileSystem": first_line("findmnt", "--noheadings", "--output", "FSTYPE", "--target", folder),
        "load": os.getloadavg()[0],
        "kestrix": commit,
        "openssl": first_line("openssl", "version"),
        "compiler": first_line("g++", "--version"),
        "keySeconds": seconds_of_a_key(),
        "peers": peers.versions(),
    }


def seconds_of_a_key():
    taken = []
    for _ in range(3):
        begin = time.monotonic()
        hashlib.pbkdf2_hmac("sha256", PASSWORD, bytes(16), commands.ITERATIONS)
        taken.append(time.monotonic() - begin)
    return min(taken)


def measure(options, part, folder):
    with Machine(os.path.join(ROOT, "build", "linux"), folder, MIB if options.quick else 6 * GIB) as machine:
        if part == "growth":
            return growth.measure(machine, options.growth_runs, QUICK_PLAN if options.quick else PLAN)
        if part == "serving":
            return serving.measure(machine, options.size * MIB, options.runs, 1 if options.quick else 10)
        commands.prepare(machine, options.size * MIB)
        if part == "peers":
            return peers.measure(machine, options.runs)
        if part == "images":
            return images.measure(machine, options.runs, options.quick)
        if part == "nightly":
            return nightly.measure(machine, options.runs)
        if part == "closing":
            return closing.measure(machine, options.runs)
        return commands.measure(machine, options.runs, options.quick)


def main():
    options = parse(sys.argv[1:])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by a signal"))
    output = os.path.join(ROOT, "build", "bench", *["quick"] * options.quick)
    os.makedirs(output, exist_ok=True)
    kept = os.path.join(output, "results.json")
    results = {}
    if os.path.exists(kept) and not options.quick:
        with open(kept, encoding="utf-8") as file:
            results = json.load(file)
    if not options.page:
        if os.geteuid() != 0:
            sys.exit("loop devices and the page cache need root")
        folder = options.folder or os.path.join(output, "work")
        for part in options.parts:
            about = setting(output)
            results[part] = {"about": about, "size": options.size * MIB, "records": measure(options, part, folder)}
            with open(kept, "w", encoding="utf-8") as file:
                json.dump(results, file, indent=1)
    if not results:
        sys.exit("nothing has been measured yet")
    docs = output if options.quick else os.path.join(ROOT, "docs")
    for name, text in page.write(results, os.path.join(ROOT, "bench", "notes.md")).items():
        with open(os.path.join(docs, name), "w", encoding="utf-8") as file:
            file.write(text)
        print(f"wrote {os.path.relpath(os.path.join(docs, name), ROOT)}")


if __name__ == "__main__":
    main()
