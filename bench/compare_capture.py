#!/usr/bin/python3
"""Times capture against the bare loop: CPU seconds (user and system) and wall seconds of each run.

Arguments: the build folder with kestrix and bare_loop, and a folder to work in, which is made anew and removed. The
disk is random data, since real data neither compresses nor digests faster. Runs alternate, the first of each is
dropped, and the file that a run writes is removed before the next so that each writes a new one.
"""
import os
import shutil
import statistics
import subprocess
import sys
import time

DISK_BYTES = 2 * 1024 ** 3
ROUNDS = 7


def run(command, folder):
    """CPU and wall seconds of one run; a run that fails ends the comparison."""
    started = time.monotonic()
    child = os.fork()
    if child == 0:
        os.chdir(folder)
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        os.execv(command[0], command)
    _, status, usage = os.wait4(child, 0)
    if status != 0:
        sys.exit(f"{command[0]} failed")
    return usage.ru_utime + usage.ru_stime, time.monotonic() - started


def main():
    build, folder = (os.path.abspath(path) for path in sys.argv[1:3])
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(os.path.join(folder, "devices"))
    kestrix = shutil.copy2(os.path.join(build, "kestrix"), folder)
    disk = os.path.join(folder, "disk")
    with open(disk, "wb") as file:
        for _ in range(DISK_BYTES // (16 * 1024 * 1024)):
            file.write(os.urandom(16 * 1024 * 1024))
    loop = subprocess.run(["losetup", "--find", "--show", "--direct-io=on", disk], check=True, text=True,
                          stdout=subprocess.PIPE).stdout.strip()
    try:
        with open(os.path.join(folder, "devices", "PhysicalDrive0"), "wb") as file:
            file.truncate(512)
        os.symlink("PhysicalDrive0", os.path.join(folder, "devices", "C:"))
        os.symlink(loop, os.path.join(folder, "devices", "PhysicalDrive1"))
        commands = {
            "bare loop": [os.path.join(build, "bare_loop"), loop, "out"],
            "capture": [kestrix, "capture", "--disk", "1", "--out", "out"],
        }
        results = {name: [] for name in commands}
        for round_number in range(ROUNDS + 1):
            for name, command in commands.items():
                os.sync()
                result = run(command, folder)
                os.unlink(os.path.join(folder, "out"))
                if round_number > 0:
                    results[name].append(result)
        print(f"{'':10} {'CPU s':>18} {'wall s':>18}   median (least to most) of {ROUNDS}")
        for name, runs in results.items():
            cpu, wall = zip(*runs)
            print(f"{name:10} {statistics.median(cpu):6.2f} ({min(cpu):.2f}-{max(cpu):.2f}) "
                  f"{statistics.median(wall):6.2f} ({min(wall):.2f}-{max(wall):.2f})")
        ratios = [ours[0] / bare[0] for ours, bare in zip(results["capture"], results["bare loop"])]
        print(f"CPU of capture to bare loop, pair by pair: median {statistics.median(ratios):.3f} "
              f"({min(ratios):.3f}-{max(ratios):.3f})")
    finally:
        subprocess.run(["losetup", "--detach", loop], check=True)
        shutil.rmtree(folder)


if __name__ == "__main__":
    main()
