"""The page about an image every night: its commands, its configuration and its scripts are run as they stand there, in
a file system view where the backup disk, the folders of the system and systemd are the test's own."""
import os
import re
import shutil
import stat
import unittest

import kestrix_image
from harness import MIB, ROOT, Started, needs, why_no_loop_devices
from keep_machine import KEEP_PROGRAM
from test_keep_schedule import TIMER, ScheduleTest, why_no_view

PAGE = os.path.join(ROOT, "docs", "nightly.md")
SIZE = 9 * MIB
# /etc is a copy, so that what the page writes there is the test's; the backup disk is a file, and its UUID is known by
# the link that a device manager makes.
VIEW = """set -e
mount --bind "{folder}/etc" /etc
mount --bind "{folder}/root" /root
mount --bind "{folder}/systemd" /run/systemd
mount --bind "{folder}/systemctl" /usr/bin/systemctl
mount --bind "{folder}/systemd-inhibit" /usr/bin/systemd-inhibit
mount -t tmpfs mnt /mnt
mkdir /mnt/backup
mount -o loop "{folder}/backup" /mnt/backup
disk=$(findmnt --noheadings --output SOURCE /mnt/backup)
mount -t tmpfs dev "{folder}/dev"
cp -a /dev/null /dev/random /dev/urandom "$disk" "{folder}/dev"
mkdir -p "{folder}/dev/disk/by-uuid"
ln -s "$disk" "{folder}/dev/disk/by-uuid/{uuid}"
mount --bind "{folder}/dev" /dev
cd /root
PATH="{folder}/stand-ins:{folder}:$PATH"
"""


def page():
    with open(PAGE, encoding="utf-8") as file:
        return file.read()


def blocks(language, text=None):
    return re.findall(rf"^```{language}\n(.*?)^```$", text or page(), re.M | re.S)


def commands(headline):
    """The blocks of commands below a headline."""
    section = re.split(r"^#+ ", page().split(f"# {headline}\n")[1], flags=re.M)[0]
    return [block for block in blocks("sh", section) if not block.startswith(("#!", " "))]


def script():
    return next(block for block in blocks("sh") if block.startswith("#!"))


def script_of_a_string():
    """The script with the two lines that the page puts in the place of others."""
    change = next(block for block in blocks("sh") if block.startswith(" ")).splitlines()
    lines = script().splitlines()
    begin = lines.index(change[0])
    assert lines[begin + 1].startswith(change[1].split("=")[0])
    return "\n".join(lines[:begin] + change + lines[begin + 2:]) + "\n"


@unittest.skipIf(why_no_view(), why_no_view())
class NightlyPage(ScheduleTest):
    def setUp(self):
        super().setUp()
        shutil.copy2(os.path.join(os.path.dirname(KEEP_PROGRAM), "kestrix-image"), self.folder)
        shutil.copytree("/etc", os.path.join(self.folder, "etc"), symlinks=True)
        for name in ("dev", "root", "stand-ins"):
            self.make(name)
        self.write(os.path.join(self.folder, "stand-ins", "date"), '#!/bin/sh\ncat "$(dirname "$0")/today"\n', 0o755)
        self.units = os.path.join(self.folder, "etc", "systemd", "system")
        self.system_disk()
        self.disk(1, kestrix_image.seeded_disk(SIZE, 1))
        self.card(1, {"model": "Model", "serial": "S3Z9NB0K123456"})
        self.disk(2, SIZE)
        self.card(2, {"model": "Model", "serial": "SPARE-DISK"})
        self.backupDisk = os.path.join(self.folder, "backup")
        with open(self.backupDisk, "wb") as file:
            file.truncate(160 * MIB)
        self.configured, = blocks("toml")
        self.uuid = re.search("uuid:([-0-9a-f]*)", self.configured).group(1)
        self.must("mkfs.ext4", "-q", "-U", self.uuid, self.backupDisk)

    def shell(self, text, status=0):
        """What a shell prints that runs the text as root of the machine."""
        started = Started(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                           VIEW.format(folder=self.folder, uuid=self.uuid) + text], self.folder)
        self.addCleanup(self.end, started)
        run = started.finish()
        self.assertEqual(run.status, status, (text, run.out.decode(), run.err.decode()))
        return run.out.decode()

    def change_disk(self, offset):
        with open(self.disk_path(1), "r+b") as file:
            file.seek(offset)
            file.write(b"changed")

    @needs(why_no_loop_devices)
    def test_from_the_first_day_to_the_drill_with_kestrix_keep(self):
        look, prepare, start = commands("The first day")
        shown = self.shell(look)
        self.assertIn("serial: S3Z9NB0K123456\n", shown)
        self.assertIn(self.uuid, shown)
        self.shell(prepare)
        self.write(os.path.join(self.folder, "etc", "kestrix", "keep.toml"), self.configured)
        password = os.path.join(self.folder, "etc", "kestrix", "password")
        self.assertEqual(stat.S_IMODE(os.stat(password).st_mode), 0o600)
        self.assertNotIn("WARNING", self.shell(start))
        self.assertIn("OnCalendar=*-*-* 05:00:00", self.lines(TIMER))
        self.change_disk(5 * MIB)
        self.shell("kestrix-keep backup")
        month, = commands("The month")
        said = self.shell(month)
        self.assertTrue(said.startswith("server: well\n"), said)
        self.assertRegex(said, "(?m)^  server-.*: full, sealed, .*\n    server-.*: thin, sealed, ")
        self.assertTrue(os.path.getsize(os.path.join(self.folder, "root", "kestrix.html")))
        check, restore = commands("The drill")
        self.assertRegex(self.shell(check), ": sound: .* checked in 2 files")
        self.assertIn("RESTORED", self.shell(restore))
        self.assertEqual(self.disk_bytes(2), self.disk_bytes(1))

    def night(self, text, day, status=0):
        self.write(os.path.join(self.folder, "stand-ins", "today"), day)
        self.write(os.path.join(self.folder, "nightly-image"), text, 0o755)
        return self.shell(os.path.join(self.folder, "nightly-image"), status)

    def tree(self):
        """How deep each image of the folder stands, its name and its kind."""
        lines = self.shell("kestrix-image tree /mnt/backup/server").splitlines()[1:]
        return [(len(blanks) // 2 - 1, name, kind) for blanks, name, kind in
                (re.match("( *)(.*?): (.*?), disk", line).groups() for line in lines)]

    def seal(self):
        self.shell(commands("The first day")[1])

    @needs(why_no_loop_devices)
    def test_by_hand_with_the_same_base_every_night(self):
        self.seal()
        self.night(script(), "2026-11-01")
        for day in ("2026-11-02", "2026-11-03"):
            self.change_disk(5 * MIB)
            self.assertIn("Verify OK", self.night(script(), day))
        self.night(script(), "2026-11-03", status=1)
        self.assertEqual(self.tree(), [(0, "full.kstx", "full, sealed"), (1, "server-2026-11-02.kstx", "thin, sealed"),
                                       (1, "server-2026-11-03.kstx", "thin, sealed")])

    @needs(why_no_loop_devices)
    def test_by_hand_with_a_string_of_images(self):
        self.seal()
        self.night(script_of_a_string(), "2026-11-01")
        for day in ("2026-11-02", "2026-11-03"):
            self.change_disk(5 * MIB)
            self.assertIn("Verify OK", self.night(script_of_a_string(), day))
        consolidate, = commands("On Linux")
        self.assertIn("Consolidated: month.kstx", self.shell(consolidate))
        self.assertEqual(self.tree(), [(0, "full.kstx", "full, sealed"), (1, "server-2026-11-02.kstx", "thin, sealed"),
                                       (2, "server-2026-11-03.kstx", "thin, sealed"),
                                       (0, "month.kstx", "full, sealed")])

    @needs(why_no_loop_devices)
    def test_by_hand_nothing_is_captured_where_the_disk_or_its_place_is_missing(self):
        self.seal()
        self.night("#!/bin/sh\numount /mnt/backup\nmkdir /mnt/backup/server\n" + script(), "2026-11-01", status=1)
        self.night(script().replace("S3Z9NB0K123456", "S3Z9NB0K12345"), "2026-11-01", status=1)
        self.assertEqual(self.shell("ls /mnt/backup/server"), "")


class Lines(unittest.TestCase):
    def test_the_lines_that_tell_what_a_night_costs_are_on_the_page_of_performance(self):
        paragraph, = re.findall(r"^What that costs in time.*?\n\n", page(), re.M | re.S)
        rows = re.findall(r"\*([^*]+)\*", paragraph.replace("\n", " "))
        self.assertEqual(len(rows), 3)
        with open(os.path.join(ROOT, "docs", "performance.md"), encoding="utf-8") as file:
            measured = re.findall(r"^\| ([^|]+) \|", file.read(), re.M)
        self.assertLessEqual(set(rows), set(measured))

    def test_the_line_for_cron_runs_the_script(self):
        line, = blocks("crontab")
        self.assertRegex(line, r"^[0-9]+ [0-9]+ \* \* \* (\S+)\n$")
        self.assertIn(f"`{line.split()[-1]}`, for the same base every night", page())
