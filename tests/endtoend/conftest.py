"""What the end-to-end tests have in common under pytest.

What they make lies in one temporary folder, which must be free of mounts and loop devices at the end. Of the Windows
program it is told how many runs were made twice.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

import pytest


def leftovers(folder):
    """What is still mounted or attached below the folder, as commands that would end it."""
    loops = subprocess.run(["losetup", "--list", "--noheadings", "--output", "NAME,BACK-FILE"], text=True,
                           stdout=subprocess.PIPE, check=False).stdout if shutil.which("losetup") else ""
    with open("/proc/mounts", encoding="utf-8") as file:
        mounts = [line.split()[1] for line in file]
    devices = [line.split()[0] for line in loops.splitlines() if folder + "/" in line]
    return ([("umount", mount) for mount in reversed(mounts) if mount.startswith(folder + "/")] +
            [("losetup", "--detach", device) for device in devices])


def take_down(folder):
    for _ in range(2):  # a file system and a loop device can stand on one another
        for command in leftovers(folder):
            subprocess.run(command, stderr=subprocess.DEVNULL, check=False)
    shutil.rmtree(folder, ignore_errors=True)


def pytest_configure(config):
    # Started in the background they may be ignored, and the programs under test would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    config.leftBehind = []
    config.testsFolder = tempfile.tempdir = tempfile.mkdtemp(prefix="kestrix-endtoend-")


def pytest_unconfigure(config):
    tempfile.tempdir = None
    take_down(config.testsFolder)


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session):
    session.config.leftBehind = leftovers(session.config.testsFolder)
    if session.config.leftBehind:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter, config):
    for command in config.leftBehind:
        terminalreporter.write_line(f"LEFT BEHIND, to be ended by: {' '.join(command)}")
    if "wine" in sys.modules:
        repeats = sys.modules["wine"].StartedWindowsProgram.repeats
        terminalreporter.write_line(f"run again after a silent end under Wine: {repeats}")


if "KESTRIX" in os.environ:  # tests work in folders of their own
    os.environ["KESTRIX"] = os.path.abspath(os.environ["KESTRIX"])
