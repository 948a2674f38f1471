"""check-windows.cmd, which a user starts on a real Windows, as far as Wine's cmd.exe can walk through it.

Everything that the script starts is stand_in.exe under the other program's name: diskpart, powershell, certutil, fc,
fsutil, ping and fltmc in a system folder of the test's own, and kestrix.exe, which is the program's own objects on the
disks that those made. Find is Wine's. What a stand-in says is what the script's author takes the real one to say.
"""
import os
import re
import shutil
import subprocess
import unittest
from unittest import mock

from harness import ROOT, MachineTest
from wine import PREFIX, TEST_PROGRAMS, WINE, StartedWindowsProgram, drive_path, machine

SCRIPT = os.path.join(ROOT, "platform", "windows", "check-windows.cmd")
TOOLS = ("certutil", "diskpart", "fc", "fltmc", "fsutil", "ping")
LONGEST_RUN = 900  # seconds
FIRST_ATTACHED = 2
CLEANED = ["ok: all disks are detached", "ok: what was made is gone"]
DETACHING = re.compile(r'  (select vdisk file="[^"]*"|detach vdisk noerr)')


class CheckWindows(MachineTest):
    def setUp(self):
        super().setUp()
        self.assertIsNone(machine()[1])
        self.place = os.path.join(self.folder, "un zipped (1)")
        self.state = os.path.join(self.folder, "state")
        self.work = os.path.join(self.place, "check-windows-work")
        system = os.path.join(self.folder, "windows", "System32")
        shell = os.path.join(system, "WindowsPowerShell", "v1.0")
        for folder in (self.place, self.state, shell):
            os.makedirs(folder)
        stand_in = os.path.join(TEST_PROGRAMS, "stand_in.exe")
        for path in [os.path.join(system, f"{tool}.exe") for tool in TOOLS] + [
                os.path.join(shell, "powershell.exe"), os.path.join(self.place, "kestrix.exe")]:
            shutil.copy(stand_in, path)
        shutil.copy(os.path.join(PREFIX, "drive_c", "windows", "system32", "find.exe"), system)
        shutil.copy(SCRIPT, self.place)

    def run_once(self, place, faults):
        # The script finds everything by SystemRoot, which cmd.exe hands on and Wine itself doesn't ask for.
        with open(os.path.join(self.folder, "start.cmd"), "w", encoding="ascii", newline="\r\n") as file:
            file.write(f'@set "SystemRoot={drive_path(os.path.join(self.folder, "windows"))}"\n'
                       f'@call "{drive_path(os.path.join(place, "check-windows.cmd"))}"\n@exit /b %errorlevel%\n')
        surroundings = {
            "KESTRIX_STAND_IN": drive_path(self.state), "KESTRIX_STAND_IN_FAULTS": faults,
            # Wine has programs of its own for some of these names.
            "WINEDLLOVERRIDES": ",".join(f"{tool}.exe" for tool in TOOLS) + ",powershell.exe=n"}
        with mock.patch.dict(os.environ, surroundings):
            done = subprocess.run([WINE, "cmd.exe", "/c", drive_path(os.path.join(self.folder, "start.cmd"))],
                                  cwd=self.folder, check=False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, timeout=LONGEST_RUN)
        return done.returncode, done.stdout.decode("ascii")

    def lines(self, *path):
        path = os.path.join(*path)
        if not os.path.exists(path):
            return []
        with open(path, encoding="ascii", newline="") as file:
            return [line.rstrip("\r") for line in file.read().split("\n")]

    def check_windows(self, *faults):
        """A run: its exit status, what it printed, its report's lines and the calls it made."""
        for _ in range(2):
            status, printed = self.run_once(self.place, " ".join(faults))
            report = self.lines(self.place, "check-windows-report.txt")
            log = self.lines(self.state, "log")
            told, begun = ([line for line in text if line.startswith("kestrix ")] for text in (report, log))
            if len(told) == len(begun):
                break
            StartedWindowsProgram.repeats += 1
            self.begin_anew()
        return status, printed, report, log

    def begin_anew(self):
        shutil.rmtree(self.state)
        os.mkdir(self.state)

    def verdicts(self, report):
        return [line for line in report if line.startswith(("ok: ", "noted: ", "FAILED: "))]

    def check_gone(self, report):
        """Nothing that was made is left, and nothing is attached."""
        self.assertEqual(self.verdicts(report)[-2:], CLEANED)
        self.assertEqual(self.lines(self.state, "attached"), [""])
        self.assertEqual(sorted(os.listdir(self.place)),
                         ["check-windows-report.txt", "check-windows.cmd", "kestrix.exe"])

    def check_only_own_disks(self, log):
        """Each use of a disk's number comes behind the question for that number, of a disk that was made here."""
        attached, selected, asked = {}, None, None
        unconfirmed = 0
        for line in log:
            file = re.search(r"(?:vdisk file=\"|-ImagePath ')([^\"']*)", line)
            if line.startswith("powershell"):
                asked = attached.get(file.group(1)) if file else None
            elif file:
                self.assertEqual(os.path.dirname(file.group(1).replace("\\", "/")[2:]), self.work)
                selected = file.group(1)
            elif line == "  attach vdisk":
                attached[selected] = min(set(range(FIRST_ATTACHED, 9)) - set(attached.values()))
            elif line == "  detach vdisk noerr":
                attached.pop(selected, None)
            elif line.startswith("  select disk "):
                self.assertEqual(int(line.split()[-1]), asked)
            elif line.startswith("kestrix restore") and "--confirm" not in line:
                self.assertEqual(line, "kestrix restore --in no-such-image.img --disk 0")
                unconfirmed += 1
            elif line.startswith("kestrix ") and "--disk" in line:
                self.assertEqual(int(line.split("--disk ")[1].split()[0]), asked, line)
                asked = None
        return unconfirmed

    def check_stopped(self, report, log, step):
        """Nothing but the cleaning up comes behind the last question for that disk, which wasn't answered rightly."""
        failed = [line for line in self.verdicts(report) if line.startswith("FAILED: ")]
        self.assertEqual(failed[-1], "FAILED: " + step)
        last = max(i for i, line in enumerate(log) if line.startswith("powershell"))
        for line in log[last + 1:]:
            if line and not line.startswith(("ping ", "diskpart /s ")):
                self.assertRegex(line, DETACHING)
        self.check_gone(report)

    def test_all_is_well_where_all_works(self):
        status, printed, report, log = self.check_windows()
        verdicts = self.verdicts(report)
        self.assertEqual((status, report[-2:]), (0, ["61 ok, 0 noted, 0 failed", ""]))
        self.assertEqual(len(verdicts), 61)
        self.assertIn("61 ok, 0 noted, 0 failed. Please send check-windows-report.txt.\r\n", printed)
        for step in ("a: the disk and the target hold the same bytes", "b: the disk and the target hold the same bytes",
                     "a: captured through a snapshot", "b: captured through a snapshot",
                     "a: what changed is captured, a-2.img", "b-2.img and its base are folded into b-3.img",
                     "a restore over a mounted volume fails", "a restore over the system disk is refused"):
            self.assertIn("ok: " + step, verdicts)
        # Each was done with what it is about: a change, a password, a mounted volume.
        text = "\n".join(report)
        self.assertEqual(text.count("(stored 1 of 32 chunks, 31 are references to the base;"), 2)
        self.assertEqual(sum("--encrypt --password-file password.txt" in line for line in log), 2)
        self.assertIn("exclusively for writing (GetLastError=5)", text)
        self.assertEqual(self.check_only_own_disks(log), 1)
        self.check_gone(report)

    def test_a_step_that_fails_is_told_and_ends_the_run_with_1(self):
        status, _, report, log = self.check_windows(
            "kestrix 1 1 read",      # the capture of a through a snapshot
            "kestrix 3 3 1",         # the verify of a-1.img
            "fc 1 1 1",              # the images of a and of the target
            "diskpart 6 6 5")        # a goes online again
        verdicts = self.verdicts(report)
        self.assertIn("noted: a: captured through a snapshot", verdicts)
        self.assertNotIn("a-vss.img verifies", " ".join(verdicts))
        for step in ("a-1.img verifies", "a: images of the disk and of the target are the same", "a: online"):
            self.assertIn("FAILED: " + step, verdicts)
        self.check_stopped(report, log, "a: not proven to be the disk that was made, online, label [KESTRIX_a]; "
                           "nothing more is tried")
        self.assertRegex(report[-2], r"^\d+ ok, 1 noted, 4 failed$")
        self.assertEqual(status, 1)
        self.check_only_own_disks(log)

    def stopped_by(self, step, *faults):
        status, _, report, log = self.check_windows(*faults)
        self.assertEqual(status, 1)
        self.check_stopped(report, log, step)
        self.check_only_own_disks(log)
        self.begin_anew()
        return log

    def test_a_disk_that_is_not_proven_is_left_alone(self):
        step = "%s: not proven to be the disk that was made, %s, label [%s]; nothing more is tried"
        for fact in ("none", "number", "imageSize", "diskSize", "system", "label"):
            with self.subTest(fact):
                log = self.stopped_by(step % ("a", "online", "KESTRIX_a"), f"powershell 2 4 {fact}")
                self.assertFalse([line for line in log if line.startswith("kestrix ")])
        # Of the target, just ahead of the first restore, when it should be offline.
        for fact in ("number", "offline"):
            with self.subTest((fact, "ahead of a restore")):
                log = self.stopped_by(step % ("c", "offline", ""), f"powershell 12 14 {fact}")
                self.assertTrue([line for line in log if line.startswith("kestrix capture")])
                self.assertFalse([line for line in log if line.startswith("kestrix restore")])

    def test_a_proof_that_comes_late_is_taken(self):
        status, _, report, _ = self.check_windows("powershell 2 3 label", "powershell 5 7 none")
        self.assertEqual(status, 1)
        self.assertIn("ok: a: the volume lies where it should", self.verdicts(report))
        self.assertEqual(self.verdicts(report)[-3], "FAILED: b: not proven to be the disk that was made, online, "
                         "label [KESTRIX_b]; nothing more is tried")

    def check_not_begun(self, told, *faults):
        kept = sorted(os.listdir(self.place))
        status, printed = self.run_once(self.place, " ".join(faults))
        self.assertEqual((status, printed.splitlines()[0]), (1, told))
        self.assertEqual(sorted(os.listdir(self.place)), kept)
        self.assertFalse([line for line in self.lines(self.state, "log") if not line.startswith("fltmc") and line])

    def test_nothing_is_begun_without_the_rights_of_an_administrator(self):
        self.check_not_begun("Start this as administrator.", "fltmc 1 1 5")

    def test_nothing_is_begun_without_the_program(self):
        os.unlink(os.path.join(self.place, "kestrix.exe"))
        self.check_not_begun("kestrix.exe must lie beside check-windows.cmd.")

    def test_nothing_is_begun_in_a_folder_whose_path_would_end_a_quoted_text(self):
        renamed = os.path.join(self.folder, "Anna's")
        os.rename(self.place, renamed)
        self.place = renamed
        self.check_not_begun("The path of this folder must hold no apostrophe.")

    def test_nothing_is_begun_where_an_earlier_run_left_something(self):
        os.mkdir(self.work)
        self.check_not_begun(drive_path(self.work) + " is left from an earlier run.")


class Script(unittest.TestCase):
    def test_its_lines_are_plain_and_end_as_windows_wants_them(self):
        with open(SCRIPT, "rb") as file:
            data = file.read()
        self.assertEqual(data.count(b"\n"), data.count(b"\r\n"))
        self.assertEqual(data.count(b"\r"), data.count(b"\r\n"))
        data.decode("ascii")
        self.assertTrue(data.endswith(b"\r\n"))

    def test_every_label_that_it_jumps_to_is_there_once(self):
        with open(SCRIPT, encoding="ascii") as file:
            text = file.read()
        labels = re.findall(r"^:(\w+)$", text, re.MULTILINE)
        self.assertEqual(len(labels), len(set(labels)))
        self.assertEqual(set(re.findall(r"(?:goto |call :)(\w+)", text)) - set(labels), set())
