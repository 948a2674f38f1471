"""Completion: in a real bash on a terminal, and the lists of options against the programs' own words."""
import fcntl
import json
import os
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import termios
import time

from harness import MIB, PROGRAM, ROOT, SANITIZERS
from keep_machine import KeepMachineTest
from test_manual_pages import options, said, synopses

COMPLETION = os.path.join(ROOT, "completion")
PROGRAMS = ("kestrix", "kestrix-image", "kestrix-keep", "kestrix-vm")
# As kestrix-vm shows what QEMU tells; which way it was asked stands in a file beside it.
GUESTS = """#!/bin/sh
echo "$*" >>"$(dirname "$0")/asked"
cat <<END
win2022  vda  libvirt-1-format  80.00 GiB  qcow2  /images/win.qcow2
    tracked; nothing is proved: no bitmap of a committed image is there
    last capture: /backup/01.kstx, complete
win2022  sda  libvirt-2-format  8.00 GiB  raw  /images/two  spaces
    tracked until the guest's process ends; nothing is proved: no bitmap of a committed image is there
database  sda  libvirt-1-format  80.00 GiB  qcow2  /images/db.qcow2
    tracked; proves what changed since epoch 6A3F1B77C0D2E9
END
"""
# The line as it is, for the test to read, and an empty one; a bell or a question would stand in its way.
SETTINGS = r"""PS1='READY> '
bind 'set bell-style none' 'set completion-query-items 0' 'set page-completions off' 'set enable-bracketed-paste off'
bind -x '"\C-o": printf "\n<%s>\n" "$READLINE_LINE"; READLINE_LINE=; READLINE_POINT=0'
"""


class Bash:
    """A bash on a terminal of its own."""

    def __init__(self, folder, path):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            environment = {**SANITIZERS, "PATH": path, "HOME": folder, "TERM": "dumb", "LC_ALL": "C.UTF-8"}
            os.execve("/bin/bash", ["bash", "--norc", "--noprofile", "-i"], environment)
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 50, 300, 0, 0))
        self.text = ""

    def type(self, text):
        os.write(self.terminal, text.encode())

    def expect(self, pattern):
        """What came up to the pattern, and its match."""
        deadline = time.monotonic() + 10
        while not (found := re.search(pattern, self.text)):
            if not select.select([self.terminal], [], [], deadline - time.monotonic())[0]:
                raise AssertionError(f"{pattern} did not come: {self.text}")
            self.text += os.read(self.terminal, 65536).decode()
        before, self.text = self.text[:found.start()], self.text[found.end():]
        return before, found

    def close(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.terminal)


class InBash(KeepMachineTest):
    def setUp(self):
        super().setUp()
        for name in ("kestrix-image", "kestrix-browse"):
            shutil.copy2(os.path.join(os.path.dirname(PROGRAM), name), self.folder)
        self.system_disk()
        self.disk(1, 9 * MIB)
        self.card(1, {"model": "Fast 1", "serial": "SERIAL1"})
        self.disk(12, 3 * MIB)
        self.card(12, {"model": "Slow 2", "serial": "SERIAL2"})
        for name in ("full.kstx", "full.kstx.json", "a blank.kstx", "password", "keep.toml"):
            self.file(name, b"")
        self.file("keep.toml", b'[job.server]\n[job."data.base"]\n')
        os.mkdir(self.path("folder"))
        self.bash = Bash(self.images, f"{self.folder}:{os.environ['PATH']}")
        self.addCleanup(self.bash.close)
        self.bash.type(SETTINGS + f"for one in {COMPLETION}/bash/*; do . $one; done; echo DO''NE\n")
        self.bash.expect(r"DONE\r\n")
        self.bash.expect("READY> ")

    def press(self, line, tabs=1):
        """What tabs behind the line make of it, and what bash shows meanwhile."""
        self.bash.type(line + "\t" * tabs + "\x0f")
        shown, found = self.bash.expect("\r?\n<(.*)>\r?\n")
        self.bash.expect("READY> $")
        return found.group(1), shown

    def check(self, *pairs):
        for line, becomes in pairs:
            with self.subTest(line):
                self.assertEqual(self.press(line)[0], becomes)

    def check_nothing(self, *lines):
        """Neither one tab nor two change these lines or offer anything."""
        for line in lines:
            with self.subTest(line):
                becomes, shown = self.press(line, 2)
                self.assertEqual((becomes, shown.replace("READY> ", "").strip()), (line, line.strip()))

    def offered(self, line):
        """The words that bash shows for a line that may go on in several ways."""
        becomes, shown = self.press(line, 2)
        self.assertEqual(becomes, line)
        return shown.split("\r\n", 1)[1].split("READY> ")[0].split()

    def test_subcommands_and_options_are_completed(self):
        self.check(("kestrix cap", "kestrix capture "), ("kestrix-image ch", "kestrix-image check "),
                   ("kestrix-keep sc", "kestrix-keep schedule "), ("kestrix capture --th", "kestrix capture --thin "),
                   ("./../kestrix ver", "./../kestrix verify "),
                   ("kestrix-keep backup --d", "kestrix-keep backup --dry-run "),
                   ("kestrix-browse --u", "kestrix-browse --untrusted "))
        self.assertEqual(set(self.offered("kestrix ")), {"list-disks", "capture", "verify", "restore", "consolidate"})

    def test_an_option_that_is_there_already_is_not_offered_again(self):
        self.assertEqual(set(self.offered("kestrix verify --")), {"--in", "--password-file"})
        self.check(("kestrix verify --in full.kstx ", "kestrix verify --in full.kstx --password-file "))

    def test_disks_are_shown_with_model_and_size_and_filled_in_by_number(self):
        for line in ("kestrix capture --disk ", "kestrix-image compare full.kstx --disk ", "../kestrix capture --disk ",
                     "kestrix-image extract full.kstx --twin-disk "):
            with self.subTest(line):
                becomes, shown = self.press(line, 2)
                self.assertEqual(becomes, line)
                self.assertIn("0  not known, 512 bytes, SYSTEM DISK", shown)
                self.assertIn("1  Fast 1, 9.00 MiB", shown)
                self.assertIn("12  Slow 2, 3.00 MiB", shown)
        self.check(("kestrix capture --disk 12", "kestrix capture --disk 12 "),
                   ("kestrix capture --disk 0", "kestrix capture --disk 0 "),
                   ("kestrix capture --disk 1", "kestrix capture --disk 1"))

    def test_without_kestrix_keep_disks_come_from_kestrix(self):
        os.unlink(self.keepProgram)
        shown = self.press("kestrix capture --disk ", 2)[1]
        for text in ("0  0.00 GiB", "1  0.01 GiB", "12  0.00 GiB"):
            self.assertIn(text, shown)

    def test_a_list_that_comes_with_the_first_tab_fills_in_no_model(self):
        self.bash.type("bind 'set show-all-if-ambiguous on'; bind '\"\\t\": complete'\n")
        self.bash.expect("READY> $")
        becomes, shown = self.press("kestrix capture --disk 1")
        self.assertEqual(becomes, "kestrix capture --disk 1")
        self.assertIn("12  Slow 2, 3.00 MiB", shown)
        self.bash.type("bind '\"\\t\": menu-complete'\n")
        self.bash.expect("READY> $")
        self.assertIn(self.press("kestrix capture --disk 1")[0].rstrip()[-2:], (" 1", "12"))

    def test_images_and_password_files_are_completed(self):
        self.check(("kestrix verify --in fu", "kestrix verify --in full.kstx "),
                   ("kestrix verify --in a", r"kestrix verify --in a\ blank.kstx "),
                   (r"kestrix verify --in a\ b", r"kestrix verify --in a\ blank.kstx "),
                   ("kestrix verify --in \"a b", "kestrix verify --in \"a blank.kstx\" "),
                   ("kestrix verify --in fo", "kestrix verify --in folder/"),
                   ("kestrix capture --disk 1 --base fu", "kestrix capture --disk 1 --base full.kstx "),
                   ("kestrix-image check fu", "kestrix-image check full.kstx "),
                   ("kestrix-image tree f", "kestrix-image tree folder/"),
                   ("kestrix-keep restore --image fu", "kestrix-keep restore --image full.kstx "),
                   ("kestrix verify --password-file pa", "kestrix verify --password-file password "),
                   ("kestrix verify --password-file fu", "kestrix verify --password-file fu"),
                   ("kestrix-keep backup --config ke", "kestrix-keep backup --config keep.toml "),
                   ("kestrix-browse fu", "kestrix-browse full.kstx"),
                   ("kestrix-browse full.kstx fo", "kestrix-browse full.kstx folder/"),
                   ("kestrix-browse --stop fo", "kestrix-browse --stop folder/"))

    def test_where_no_file_has_the_name_of_an_image_all_files_are_offered(self):
        self.check(("kestrix verify --in pass", "kestrix verify --in password "))

    def test_jobs_are_those_of_the_configuration(self):
        self.assertEqual(self.offered("kestrix-keep backup --config keep.toml "), ["data.base", "server"])
        self.check(("kestrix-keep backup --config keep.toml s", "kestrix-keep backup --config keep.toml server "))

    def test_the_target_of_a_restore_its_serial_and_the_yes_are_never_filled_in(self):
        for beginning in ("kestrix restore --in full.kstx", "kestrix-keep restore --image full.kstx"):
            for disk in ("", "1", "12", "s", "="):
                self.check_nothing(f"{beginning} --disk {disk}")
        self.check_nothing("kestrix restore --in full.kstx --disk 12 --confirm ",
                           "kestrix restore --in full.kstx --disk 12 --confirm Y",
                           "kestrix restore --disk=", "kestrix-keep restore --disk=",
                           "kestrix-keep restore --disk 12 --yes-overwrite ",
                           "kestrix-keep restore --disk 12 --yes-overwrite S",
                           "kestrix-keep restore --disk 12 --yes-overwrite=")

    def test_a_new_file_or_folder_never_gets_the_name_of_a_file_that_is_there(self):
        self.check_nothing("kestrix capture --disk 1 --out fu", "kestrix consolidate --out a",
                           "kestrix-image extract full.kstx --out pa", "kestrix-keep status --html ke",
                           "kestrix-browse full.kstx pa", "kestrix-browse --stop fu")
        self.check(("kestrix capture --disk 1 --out fo", "kestrix capture --disk 1 --out folder/"))

    def guests(self, text=GUESTS):
        path = os.path.join(self.folder, "kestrix-vm")
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def test_guests_and_their_disks_are_those_that_the_machine_tells(self):
        self.guests()
        self.assertEqual(self.offered("kestrix-vm capture "), ["database", "win2022"])
        self.check(("kestrix-vm capture w", "kestrix-vm capture win2022 "),
                   ("kestrix-vm capture database ", "kestrix-vm capture database sda "),
                   ("../kestrix-vm capture database ", "../kestrix-vm capture database sda "),
                   ("kestrix-vm capture --thin --timeout 5 d", "kestrix-vm capture --thin --timeout 5 database "),
                   ("kestrix-vm capture win2022 --out 1.kstx v", "kestrix-vm capture win2022 --out 1.kstx vda "),
                   ("kestrix-vm capture --th", "kestrix-vm capture --thin "),
                   ("kestrix-vm capture win2022 vda --base fu", "kestrix-vm capture win2022 vda --base full.kstx "),
                   ("kestrix-vm d", "kestrix-vm disks "), ("kestrix-vm disks --j", "kestrix-vm disks --json "))
        self.assertEqual(self.offered("kestrix-vm capture win2022 "), ["sda", "vda"])

    def test_guests_are_asked_by_the_way_that_the_line_names(self):
        self.guests()
        self.check(("kestrix-vm capture --qmp /run/a --agent /run/b --state s d",
                    "kestrix-vm capture --qmp /run/a --agent /run/b --state s database "),
                   ("kestrix-vm capture d", "kestrix-vm capture database "))
        with open(os.path.join(self.folder, "asked"), encoding="ascii") as file:
            self.assertEqual(file.read(), "disks --qmp /run/a --state s\ndisks\n")

    def test_where_no_guest_is_told_none_is_filled_in_and_no_target_ever(self):
        self.guests("#!/bin/sh\necho 'kestrix-vm: there is no libvirt' >&2\nexit 3\n")
        self.check_nothing("kestrix-vm capture ", "kestrix-vm capture f", "kestrix-vm capture win2022 ")
        self.guests()
        self.check_nothing("kestrix-vm capture win2022 vda --out fu", "kestrix-vm capture win2022 vda --out=fu",
                           "kestrix-vm capture win2022 vda x", "kestrix-vm capture other ",
                           "kestrix-vm capture win2022 vda --connect ")

    def test_a_word_with_an_equals_sign_is_completed_too(self):
        self.check(("kestrix-image compare full.kstx --disk=12", "kestrix-image compare full.kstx --disk=12 "))


class Options(KeepMachineTest):
    def tables(self):
        """The options by program and subcommand, as each of the two shells has them."""
        shown = subprocess.run(["bash", "-c", '. "$1"; for key in "${!_kestrix_options[@]}"; do '
                                'echo "$key: ${_kestrix_options[$key]}"; done', "bash",
                                os.path.join(COMPLETION, "bash", "kestrix")], check=True, text=True,
                               stdout=subprocess.PIPE).stdout
        yield "bash", dict(line.split(": ", 1) for line in shown.splitlines())
        with open(os.path.join(COMPLETION, "powershell", "kestrix.ps1"), encoding="utf-8") as file:
            yield "PowerShell", dict(re.findall(r"^    '([^']+)' *= '([^']*)'$", file.read(), re.M))

    def own(self):
        """The same, as the programs tell."""
        found = {}
        for text in synopses("kestrix.8"):
            found["kestrix " + text.split()[1]] = options(text)
        for program in PROGRAMS[1:]:
            path = os.path.join(os.path.dirname(PROGRAM), program)
            listed = re.search(r"^Subcommands:\n(.*)", said(path, "--help"), re.M | re.S).group(1)
            for subcommand in re.findall(r"^  ([a-z]+)", listed, re.M):
                named = re.findall(r"^ +((?:-{1,2}[a-z][a-z-]*,?)+)", said(path, subcommand, "--help"), re.M)
                found[f"{program} {subcommand}"] = (options(" ".join(named).replace(",", " ")) -
                                                    {"-h", "--help", "--now"})
        return found

    def test_of_each_subcommand_are_those_that_the_program_has(self):
        own = self.own()
        self.assertEqual(len(own), 20)
        for shell, table in self.tables():
            with self.subTest(shell):
                there = {key: value for key, value in own.items() if shell == "bash" or "kestrix-vm" not in key}
                self.assertEqual({key: set(text.split()) for key, text in table.items()}, there)

    def test_of_kestrix_browse_are_its_own(self):
        with open(os.path.join(COMPLETION, "bash", "kestrix-browse"), encoding="utf-8") as file:
            listed = re.search(r"-W '(.*?)'", file.read()).group(1)
        self.assertEqual(set(listed.split()),
                         options(said(os.path.join(os.path.dirname(PROGRAM), "kestrix-browse"), "--help")))

    def test_the_disks_in_json_have_what_powershell_shows_of_them(self):
        self.system_disk()
        self.card(0, {"model": "Fast 1", "serial": "SERIAL1"})
        disk, = json.loads(self.keep("disks", "--json").out)["disks"]
        with open(os.path.join(COMPLETION, "powershell", "kestrix.ps1"), encoding="utf-8") as file:
            used = set(re.findall(r"\$_\.([a-z]\w*)", file.read()))
        self.assertEqual(used, {"number", "model", "sizeBytes", "systemDisk"})
        self.assertLessEqual(used, set(disk))
