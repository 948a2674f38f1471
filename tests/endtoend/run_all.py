#!/usr/bin/python3
"""Runs the end-to-end tests: all of them, or those whose name contains one of the words given.

Each file of tests gets a line with a mark per test (. passed, F failed, s skipped); failures follow in full, then the
reason of every skip, for the Windows program the number of runs that were made twice, and one line with the three
counts. The exit status is 0 when a test ran and none failed. What the tests make lies in one temporary folder, which
must be free of mounts and loop devices at the end.
"""
import argparse
import atexit
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))


def tests_of(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from tests_of(item)
        else:
            yield item


class Report(unittest.TestResult):
    def __init__(self):
        super().__init__()
        self.passed, self.failed, self.skips, self.failures_text = 0, [], [], []
        self.fault = None

    def startTest(self, test):
        super().startTest(test)
        self.fault, self.skipped_now = [], []

    def note(self, test, error):
        self.fault.append(f"{test}\n{self._exc_info_to_string(error, test)}")

    def addError(self, test, error):
        # The failure of a class's or a module's set-up comes without a test.
        if self.fault is None or not isinstance(test, unittest.TestCase):
            self.failed.append(str(test))
            self.failures_text.append(f"{test}\n{self._exc_info_to_string(error, test)}")
        else:
            self.note(test, error)

    def addFailure(self, test, error):
        self.note(test, error)

    def addSubTest(self, test, subtest, error):
        if error is not None:
            self.fault.append(f"{subtest}\n{self._exc_info_to_string(error, test)}")

    def addSkip(self, test, reason):
        self.skipped_now.append((test.id(), reason))

    def addUnexpectedSuccess(self, test):
        self.fault.append(f"{test}\npassed unexpectedly\n")

    def stopTest(self, test):
        super().stopTest(test)
        if self.fault:
            self.failed.append(test.id())
            self.failures_text += self.fault
            mark = "F"
        elif self.skipped_now:
            self.skips += self.skipped_now
            mark = "s"
        else:
            self.passed += 1
            mark = "."
        print(mark, end="", flush=True)


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


def main():
    parser = argparse.ArgumentParser(description="Run the end-to-end tests of Kestrix.")
    parser.add_argument("names", nargs="*", help="run only tests whose id contains one of these")
    parser.add_argument("--but", nargs="+", default=[], help="and none whose id contains one of these")
    parser.add_argument("--list", action="store_true", help="print the ids of the tests and run none")
    parser.add_argument("--windows", action="store_true", help="the tests of the Windows program, which run under Wine")
    parser.add_argument("--browse", action="store_true", help="the tests that start small virtual machines")
    options = parser.parse_args()
    sys.path.insert(0, HERE)
    sys.dont_write_bytecode = True
    folder = os.path.join(HERE, "windows" if options.windows else "browse" if options.browse else "")
    suite = unittest.TestLoader().discover(folder, pattern="test_*.py", top_level_dir=folder)
    tests = [test for test in tests_of(suite)
             if (not options.names or any(name in test.id() for name in options.names)) and
             not any(name in test.id() for name in options.but)]
    if options.list:
        print("\n".join(test.id() for test in tests))
        return 0
    # Started in the background they may be ignored, and the programs under test would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    folder = tempfile.mkdtemp(prefix="kestrix-endtoend-")
    atexit.register(take_down, folder)
    tempfile.tempdir = folder
    report = Report()
    groups = {}
    for test in tests:
        groups.setdefault(type(test).__module__, []).append(test)
    for name, group in groups.items():
        started = time.monotonic()
        print(f"{name:24} ", end="", flush=True)
        unittest.TestSuite(group).run(report)
        print(f"  {time.monotonic() - started:.1f} s", flush=True)
    left = leftovers(folder)
    for text in report.failures_text:
        print(f"\nFAILED {text}", end="")
    for name, reason in report.skips:
        print(f"SKIPPED {name}: {reason}")
    for command in left:
        print(f"LEFT BEHIND, to be ended by: {' '.join(command)}")
    if options.windows:
        from wine import StartedWindowsProgram
        print(f"run again after a silent end under Wine: {StartedWindowsProgram.repeats}")
    if not tests:
        print("no test was found")
    print(f"endtoend: {report.passed} passed, {len(report.failed)} failed, {len(report.skips)} skipped")
    return 0 if tests and not report.failed and not left else 1


if __name__ == "__main__":
    sys.exit(main())
