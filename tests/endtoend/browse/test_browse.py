"""kestrix-browse: the files in an image, whatever file systems and partition tables it holds, and a clean end.

The virtual machine that mounts them runs without the processor's help, as it must wherever there is none, so that each
of them takes some ten seconds to start; few tests start one.
"""
import errno
import glob
import hashlib
import os
import re
import signal
import subprocess
import tempfile
import time

import harness
import kestrix_image
from file_systems import HELLO, MIB, Maker

BROWSE = os.path.join(os.path.dirname(harness.PROGRAM), "kestrix-browse")
SURROUNDINGS = {**os.environ, "LIBGUESTFS_BACKEND_SETTINGS": "force_tcg"}
TIME_LIMIT = 300  # seconds; several times what a start takes


class BrowseTest(harness.MachineTest):
    def setUp(self):
        super().setUp()
        os.chmod(self.folder, 0o755)
        self.browsed = os.path.join(self.folder, "a folder")
        self.maker = Maker(self.path("."), self.loop_device)
        self.addCleanup(self.stop_if_browsed)
        self.runFolder = None
        self.socketsBefore = set(glob.glob("/tmp/libguestfs*"))

    def digest(self, name):
        return hashlib.sha256(self.file_bytes(name)).hexdigest()

    def image_of(self, disk, sectorSize=512, **options):
        """An image called `image` of the disk in a file."""
        with open(disk, "rb") as file:
            return self.image("image", file.read(), chunkSize=MIB, sectorSize=sectorSize, **options)

    def command(self, *arguments, user=None):
        as_user = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"] if user else []
        return [*as_user, BROWSE, *arguments]

    def browse(self, *arguments, user=None):
        # Through pipes: whatever stays in the background must not keep them open.
        done = subprocess.run(self.command(*arguments, user=user), cwd=self.images, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=SURROUNDINGS, timeout=TIME_LIMIT)
        return harness.Run(done.returncode, done.stdout, done.stderr)

    def show(self, *arguments, user=None):
        """Browses the image; gives the list as {number: (size, kind, the rest)}."""
        run = self.browse(*arguments, "image", self.browsed, user=user)
        self.assertEqual((run.status, run.err.decode()), (0, ""))
        self.listed = run.out
        *listed, last = run.out.decode().splitlines()
        self.assertRegex(last, r"^What can't be read is told in /\S+/kestrix-browse\.\w+/server\.log$")
        self.runFolder = os.path.dirname(last.split()[-1])
        lines = [re.fullmatch(r"(\d+) +(\S+) +(\S+) +(.*)", line).groups() for line in listed]
        return {int(number): (size, kind, rest) for number, size, kind, rest in lines}

    def run_folder(self):
        """The private folder of what is browsed here, told from the command lines of its processes."""
        for pid, line in self.processes("/kestrix-browse."):
            if line.startswith("nbdkit "):
                return re.search(r"\S*/kestrix-browse\.\w+", line).group()
        return None

    @staticmethod
    def processes(text):
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/cmdline", "rb") as file:
                    line = file.read().replace(b"\0", b" ").decode(errors="replace")
            except OSError:
                continue
            if text in line and int(pid) != os.getpid():
                found.append((int(pid), line))
        return found

    def kill(self, program, number=signal.SIGKILL):
        pids = [pid for pid, line in self.processes(self.runFolder) if line.startswith(program)]
        self.assertNotEqual(pids, [], f"there is no {program}")
        for pid in pids:
            os.kill(pid, number)

    def stop(self, user=None):
        if os.path.isdir(self.folder):
            run = self.browse("--stop", self.browsed, user=user)
            self.assertEqual((run.status, run.err.decode(), run.out), (0, "", b""))

    def stop_if_browsed(self):
        if os.path.islink(os.path.join(self.browsed, ".browse")) or os.path.ismount(self.browsed):
            self.stop()

    def check_nothing_is_left(self):
        self.assertEqual(os.listdir(self.browsed), [])
        with open("/proc/self/mounts", encoding="utf-8") as file:
            self.assertNotIn(self.browsed.replace(" ", "\\040"), file.read())
        self.assertEqual(self.processes(self.runFolder), [])
        self.assertFalse(os.path.exists(self.runFolder))
        self.assertEqual(set(glob.glob("/tmp/libguestfs*")) - self.socketsBefore, set())

    def read(self, number, name="hello.txt"):
        with open(os.path.join(self.browsed, str(number), name), "rb") as file:
            return file.read()

    def check_read_only(self, number):
        with self.assertRaises(OSError) as caught:
            with open(os.path.join(self.browsed, str(number), "new"), "wb"):
                pass
        self.assertEqual(caught.exception.errno, errno.EROFS)


def data_offset(written, i):
    """File offset of what the image stores of chunk i."""
    return len(written.record.head()) + sum(len(data) for data in written.record.data[:i])


class FileSystems(BrowseTest):
    def go_on(self, opening="", volume="DEVICE"):
        return (f"guestfish --ro --format=raw -a 'nbd://?socket={self.runFolder}/socket' run : {opening}"
                f"list-filesystems, then the same with : mount-ro {volume} / : ll / behind it")

    def run_listed(self, line, behind, text=""):
        """What the command in a line of the list says, with more behind it."""
        command = re.search("guestfish .* list-filesystems", line).group()
        done = subprocess.run(["bash", "-c", f"{command} : {behind}"], input=text, stdout=subprocess.PIPE, text=True,
                              timeout=TIME_LIMIT, env={**SURROUNDINGS, "LIBGUESTFS_BACKEND": "direct"}, check=True)
        return done.stdout

    def test_every_file_system_of_a_gpt_disk_shows_its_files_and_the_image_stays_as_it_is(self):
        make = self.maker
        replayed = b"what the journal holds\n"
        partitions = [make.ext4_after_a_crash("p1", "after a crash", replayed), make.xfs("p2", "second"),
                      make.btrfs("p3", "third"), make.ntfs("p4", "fourth"), make.vfat("p5", "FIFTH"),
                      make.exfat("p6", "sixth"), make.swap("p7"), make.luks("p8"), make.lvm("p9"),
                      make.bitlocker("p10"), make.sized("p11", 1), make.ext4_that_is_cut_off("p12", "cut off"),
                      self.path("p2"), make.vfat("p14", "BAD")]
        self.file("password", b"secret\n")
        written = self.image_of(make.disk("disk", "gpt", partitions), password=b"secret")
        bad = sum(os.path.getsize(partition) // MIB + 1 for partition in partitions[:13]) + 1
        kestrix_image.flip_byte(self.path("image"), data_offset(written, bad))
        before = self.digest("image")
        listed = self.show("--password-file", "password")
        cannot = listed[12][2].partition("can't be mounted: ")[2]
        self.assertRegex(cannot, "/dev/sd[a-z]12")  # the letter is that which the disk got inside of the machine
        unlock = "cryptsetup-open /dev/sda%d open : lvm-scan true : "
        cause = f"{self.path('image')}: chunk {bad}: its seal is broken, or the password is another"
        self.assertEqual(listed, {
            1: ("16.0MiB", "ext4", "after a crash"), 2: ("32.0MiB", "xfs", "second"), 3: ("40.0MiB", "btrfs", "third"),
            4: ("8.0MiB", "ntfs", "fourth"), 5: ("8.0MiB", "vfat", "FIFTH"), 6: ("8.0MiB", "exfat", "sixth"),
            7: ("1.0MiB", "swap", "no files"),
            8: ("1.0MiB", "crypto_LUKS", "locked; to open it: " + self.go_on(unlock % 8)),
            9: ("2.0MiB", "LVM2_member", "logical volumes; to see them: " + self.go_on("", "/dev/VG/LV")),
            10: ("1.0MiB", "BitLocker", "locked; to open it: " + self.go_on(unlock % 10)),
            11: ("1.0MiB", "unknown", "nothing that is known here"),
            12: ("16.0MiB", "ext4", "cut off: can't be mounted: " + cannot),
            13: ("32.0MiB", "xfs", "second"), 14: ("8.0MiB", "unknown", "can't be read: " + cause)})
        self.assertEqual(sorted(os.listdir(self.browsed)), ["1", "13", "2", "3", "4", "5", "6", "list.txt"])
        self.assertIn(f"error: {cause}\n", self.file_bytes(f"{self.runFolder}/server.log").decode())
        with open(os.path.join(self.browsed, "list.txt"), "rb") as file:
            self.assertEqual(file.read(), self.listed)
        self.assertEqual(self.read(1)[:len(replayed)], replayed[:len(HELLO)])
        for number in (2, 3, 4, 5, 6, 13):
            self.assertEqual(self.read(number), HELLO)
            self.check_read_only(number)
        self.check_read_only(1)
        self.stop()
        self.check_nothing_is_left()
        self.assertEqual(self.digest("image"), before)

    def test_an_mbr_disk_shows_its_logical_partitions_and_ends_well_when_its_server_was_killed(self):
        make = self.maker
        partitions = [make.ext4("p1", "first"), make.vfat("p2", "SECOND"), make.swap("p3"), make.ntfs("p5", "fifth"),
                      make.vfat("p6", "SIXTH")]
        base = self.image_of(make.disk("disk", "dos", partitions))
        os.rename(self.path("image"), self.path("base"))
        changed = bytearray(base.disk)
        changed[-MIB:] = bytes(MIB)
        self.image("image", bytes(changed), base=base, chunkSize=MIB, baseName=b"base")
        before = self.digest("image"), self.digest("base")
        listed = self.show("--untrusted")
        self.assertEqual({number: kind for number, (_, kind, _) in listed.items()},
                         {1: "ext4", 2: "vfat", 3: "swap", 5: "ntfs", 6: "vfat"})
        for number in (1, 2, 5, 6):
            self.assertEqual(self.read(number), HELLO)
        self.kill("nbdkit")
        self.stop()
        self.check_nothing_is_left()
        self.assertEqual((self.digest("image"), self.digest("base")), before)

    def test_a_disk_without_partitions_is_shown_as_the_first_and_ends_well_when_its_machine_was_killed(self):
        self.image_of(self.maker.ext4("disk", "whole"))
        self.assertEqual(self.show(), {1: ("16.0MiB", "ext4", "whole")})
        self.assertEqual(self.read(1), HELLO)
        self.kill("guestfish")
        self.stop()
        self.check_nothing_is_left()

    def fill(self, disk, opening, device, text=""):
        """Makes a volume group of a device, with hello.txt in its one volume."""
        subprocess.run(["guestfish", "--format=raw", "-a", disk, "run", *opening, ":", "pvcreate", device, ":",
                        "vgcreate", "group", device, ":", "lvcreate", "files", "group", "8", ":",
                        "mkfs", "ext4", "/dev/group/files", ":", "mount", "/dev/group/files", "/", ":",
                        "upload", f"{self.maker.content}/hello.txt", "/hello.txt"], input=text, text=True, check=True,
                       stdout=subprocess.PIPE, timeout=TIME_LIMIT,
                       env={**SURROUNDINGS, "LIBGUESTFS_BACKEND": "direct"})

    def check_only_listed(self, listed, told):
        self.assertEqual(listed, {1: told})
        self.assertEqual(sorted(os.listdir(self.browsed)), [".browse", "list.txt"])
        with open(os.path.join(self.browsed, "list.txt"), "rb") as file:
            self.assertEqual(file.read(), self.listed)

    def test_a_disk_of_nothing_but_luks_is_listed_and_its_command_opens_the_volumes_in_it(self):
        disk = self.maker.sized("disk", 32)
        self.file("key", b"secret")
        self.must("cryptsetup", "luksFormat", "-q", "--type", "luks1", "--pbkdf-force-iterations", "1000", "--key-file",
                  self.path("key"), disk)
        opening = "cryptsetup-open /dev/sda open"
        self.fill(disk, [":", *opening.split()], "/dev/mapper/open", "secret\n")
        self.image_of(disk)
        listed = self.show()
        self.check_only_listed(listed, ("32.0MiB", "crypto_LUKS",
                                        "locked; to open it: " + self.go_on(f"{opening} : lvm-scan true : ")))
        said = self.run_listed(listed[1][2], "mount-ro /dev/group/files / : cat /hello.txt", "secret\n")
        self.assertIn("/dev/group/files: ext4\n" + HELLO.decode(), said)
        self.stop()
        self.check_nothing_is_left()

    def test_a_disk_of_nothing_but_volumes_is_listed_and_its_command_opens_them(self):
        disk = self.maker.sized("disk", 32)
        self.fill(disk, [], "/dev/sda")
        self.image_of(disk)
        listed = self.show("--untrusted")
        self.check_only_listed(listed, ("32.0MiB", "LVM2_member",
                                        "logical volumes; to see them: " + self.go_on("", "/dev/VG/LV")))
        said = self.run_listed(listed[1][2], "mount-ro /dev/group/files / : cat /hello.txt")
        self.assertIn("/dev/group/files: ext4\n" + HELLO.decode(), said)
        self.stop()
        self.check_nothing_is_left()

    def test_a_disk_whose_start_can_not_be_read_does_not_look_empty(self):
        written = self.image_of(self.maker.ext4("disk", "whole"))
        kestrix_image.flip_byte(self.path("image"), data_offset(written, 0))
        run = self.browse("image", self.browsed)
        self.assertEqual((run.status, run.out), (1, b""))
        self.assertEqual(run.err.decode().splitlines()[0], f"kestrix-browse: the disk can't be read: "
                         f"{self.path('image')}: chunk 0: its digest is not the recorded one")
        self.assertEqual(os.listdir(self.browsed), [])

    def test_it_is_stopped_while_its_server_hangs_and_someone_reads(self):
        self.maker.put("content/large", os.urandom(8 * MIB))
        self.image_of(self.maker.ext4("disk", "whole"))
        self.show()
        self.kill("nbdkit", signal.SIGSTOP)
        reader = subprocess.Popen(["cat", os.path.join(self.browsed, "1", "large")], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        with self.assertRaises(subprocess.TimeoutExpired):
            reader.wait(2)
        self.stop()
        self.assertNotEqual(reader.wait(TIME_LIMIT), 0)
        self.check_nothing_is_left()

    def test_a_user_without_rights_browses_a_disk_of_4096_byte_sectors(self):
        user = 65534
        disk = self.maker.disk("disk", "gpt", [self.maker.ext4("p1", "first", "-b", "4096")], 4096)
        self.image_of(disk, sectorSize=4096)
        if tempfile.tempdir:
            os.chmod(tempfile.tempdir, 0o711)
        os.mkdir(self.browsed)
        os.chown(self.browsed, user, user)
        self.assertEqual(self.show(user=user), {1: ("16.0MiB", "ext4", "first")})
        shown = subprocess.run(["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", "cat",
                                f"{self.browsed}/1/hello.txt"], stdout=subprocess.PIPE, check=False).stdout
        self.assertEqual(shown, HELLO)
        self.stop(user)
        self.check_nothing_is_left()


class HalfStarted(BrowseTest):
    def setUp(self):
        super().setUp()
        self.image_of(self.maker.ext4("disk", "whole"))

    def begin(self):
        """kestrix-browse, as far as its virtual machine has begun to start."""
        with open(self.path("begun"), "wb") as err:
            process = subprocess.Popen(self.command("image", self.browsed), cwd=self.images, stdin=subprocess.DEVNULL,
                                       stdout=err, stderr=err, env=SURROUNDINGS)
        self.addCleanup(process.wait)
        limit = time.monotonic() + TIME_LIMIT
        while time.monotonic() < limit:
            self.runFolder = self.run_folder()
            if self.runFolder and any("qemu-system" in line.split()[0] for _, line in self.processes(self.runFolder)):
                return process
            self.assertIsNone(process.poll(), self.file_bytes("begun"))
            time.sleep(0.05)
        return self.fail("the virtual machine does not start")

    def test_it_is_stopped_from_elsewhere(self):
        process = self.begin()
        self.stop()
        self.assertEqual(process.wait(TIME_LIMIT), 1)
        self.check_nothing_is_left()

    def test_it_is_ended_by_a_signal(self):
        process = self.begin()
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(TIME_LIMIT), 1)
        self.check_nothing_is_left()

    def test_it_is_stopped_when_it_was_killed(self):
        process = self.begin()
        process.kill()
        process.wait()
        self.stop()
        self.check_nothing_is_left()


class Refused(BrowseTest):
    def check_refused(self, err, *arguments):
        run = self.browse(*arguments)
        self.assertEqual((run.status, run.err.decode(), run.out), (1, err, b""))
        self.assertEqual(self.processes("/kestrix-browse."), [])

    def test_an_image_that_does_not_open_is_told_by_the_server_and_nothing_is_left(self):
        self.file("image", b"no image" * 100)
        self.check_refused(f"nbdkit: error: {self.path('image')}: it is no image of Kestrix, or of a kind that is not "
                           "known here\n", "image", self.browsed)
        self.assertEqual(os.listdir(self.browsed), [])

    def test_a_folder_that_holds_something_is_left_alone(self):
        self.image("image", kestrix_image.seeded_disk(MIB, 1), chunkSize=MIB)
        os.mkdir(self.browsed)
        self.file("../a folder/mine", b"mine")
        self.check_refused(f"kestrix-browse: {self.browsed} is not empty\n", "image", self.browsed)
        self.check_refused(f"kestrix-browse: nothing is browsed in {self.browsed}\n", "--stop", self.browsed)
        self.assertEqual(os.listdir(self.browsed), ["mine"])

    def test_a_link_that_is_not_its_own_is_left_alone(self):
        os.mkdir(self.browsed)
        os.symlink("/tmp", os.path.join(self.browsed, ".browse"))
        self.check_refused(f"kestrix-browse: {self.browsed}/.browse was not made by kestrix-browse, or by another "
                           "user\n", "--stop", self.browsed)
        os.unlink(os.path.join(self.browsed, ".browse"))

    def test_a_folder_whose_machine_was_switched_off_is_cleaned(self):
        os.mkdir(self.browsed)
        os.mkdir(os.path.join(self.browsed, "1"))
        os.symlink("/tmp/kestrix-browse.0123456789", os.path.join(self.browsed, ".browse"))
        self.stop()
        self.assertEqual(os.listdir(self.browsed), [])

    def test_a_command_line_that_is_not_understood_is_refused(self):
        self.check_refused("kestrix-browse: there is no option --stopp; --help tells which there are\n", "--stopp", "x")
        self.check_refused("kestrix-browse: --stop wants the folder and nothing else\n", "--stop")
        self.check_refused("kestrix-browse: --stop wants the folder and nothing else\n", "--stop", "--untrusted", "x")
        self.check_refused("kestrix-browse: --password-file wants a path\n", "--password-file")
        usage = self.browse("--help").out.decode()
        self.assertIn("kestrix-browse --stop FOLDER\n", usage)
        self.check_refused(usage, "image")
