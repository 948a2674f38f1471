"""kestrix-browse without a virtual machine: what --stop obeys and leaves alone, and the kernel's way of mounting.

Each test is a script of shell in a space of mounts of its own, where /sys/block and /dev can be others. What a server
of the kernel's would do, programs in front of the PATH stand in for.
"""
import os
import re
import shlex
import subprocess
import tempfile

import harness
from harness import MIB, TIME_LIMIT, MachineTest, needs, why_no_loop_devices, why_no_mounts
from nbdkit_server import sanitizer, surroundings

BROWSE = os.environ.get("KESTRIX_BROWSE", os.path.join(os.path.dirname(harness.PROGRAM), "kestrix-browse"))
NOBODY = 65534


def programs_but(folder, missing):
    """A new folder in that one, of every program of this machine but one."""
    programs = tempfile.mkdtemp(dir=folder)
    os.chmod(programs, 0o755)
    for path in ("/usr/bin", "/usr/sbin"):
        for name in os.listdir(path):
            if name != missing and not os.path.lexists(os.path.join(programs, name)):
                os.symlink(os.path.join(path, name), os.path.join(programs, name))
    return programs


class BrowseScript(MachineTest):
    def setUp(self):
        super().setUp()
        self.bin = self.path("bin")
        os.mkdir(self.bin)
        self.runFolder = self.must("mktemp", "-d", "/tmp/kestrix-browse.XXXXXXXXXX")
        self.addCleanup(subprocess.run, ["rm", "-rf", self.runFolder], check=True)
        self.browsed = self.path("look")
        os.mkdir(self.browsed)
        if sanitizer():
            settings = " ".join(f"{name}={shlex.quote(surroundings()[name])}"
                                for name in ("LD_PRELOAD", "ASAN_OPTIONS"))
            self.stand_in("nbdkit", f'exec env {settings} /usr/bin/nbdkit "$@"')

    def stand_in(self, name, text):
        path = os.path.join(self.bin, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write("#!/bin/bash\n" + text + "\n")
        os.chmod(path, 0o755)

    def note(self, name, text):
        with open(os.path.join(self.runFolder, name), "w", encoding="utf-8") as file:
            file.write(text)

    def known(self, folder=None):
        """A folder as a browse that was killed has left it."""
        folder = folder or self.browsed
        os.symlink(self.runFolder, os.path.join(folder, ".browse"))
        self.note("folder", folder)
        return folder

    def shell(self, script):
        done = subprocess.run(["unshare", "--mount", "--propagation", "private", "bash", "-euc",
                               f"browse={shlex.quote(BROWSE)} look={shlex.quote(self.browsed)}\n{script}"],
                              cwd=self.images, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=harness.TIME_LIMIT, check=False,
                              env={**os.environ, "PATH": f"{self.bin}:{os.environ['PATH']}"})
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def refused(self, message, script='"$browse" --stop "$look"'):
        self.assertEqual(self.shell(script), (1, "", f"kestrix-browse: {message}\n"))

    def stopped(self, script='"$browse" --stop "$look"'):
        self.assertEqual(self.shell(script), (0, "", ""))
        self.assertFalse(os.path.exists(self.runFolder))


class Stop(BrowseScript):
    @needs(why_no_mounts)
    def test_a_run_folder_that_another_user_made_is_not_obeyed(self):
        victim = tempfile.mkdtemp(prefix="libguestfsvictim", dir="/tmp")
        self.addCleanup(os.rmdir, victim)
        self.known()
        self.note("sockets", f"{victim}\n")
        os.chown(self.runFolder, NOBODY, NOBODY)
        self.refused(f"{self.runFolder} belongs to another user, who alone can stop it")
        self.assertTrue(os.path.exists(victim))

    @needs(why_no_mounts)
    def test_a_link_in_place_of_a_run_folder_is_not_followed(self):
        self.known()
        link = "/tmp/kestrix-browse.0link12345"
        os.symlink(self.runFolder, link)
        self.addCleanup(os.unlink, link)
        os.unlink(os.path.join(self.browsed, ".browse"))
        os.symlink(link, os.path.join(self.browsed, ".browse"))
        self.refused(f"{link} belongs to another user, who alone can stop it")

    @needs(why_no_mounts)
    def test_a_link_to_the_run_folder_of_another_folder_is_not_obeyed(self):
        self.known()
        self.note("folder", "/elsewhere")
        self.refused(f"{self.runFolder} is that of another folder")

    @needs(why_no_mounts)
    def test_what_it_has_not_mounted_stays_mounted(self):
        self.known()
        other = os.path.join(self.browsed, "1")
        os.mkdir(other)
        said = "what is mounted at {} is not known here: unmount it yourself, and stop it again"
        self.refused(said.format(other), """
            mount -t tmpfs mine "$look/1"
            status=0; "$browse" --stop "$look" || status=$?
            mountpoint --quiet "$look/1"; exit $status""")
        self.refused(said.format(self.browsed), """
            mount -t tmpfs mine "$look"
            status=0; "$browse" --stop "$look" || status=$?
            mountpoint --quiet "$look"; exit $status""")

    @needs(why_no_mounts)
    def test_what_it_has_mounted_is_unmounted_whatever_the_name_of_the_folder(self):
        for name in ("two words", "tab\there", "line\nend", "back\\slash", "back\\040slash", "line end\n", "-n", "#1"):
            with self.subTest(name):
                os.makedirs(self.runFolder, exist_ok=True)
                self.browsed = os.path.join(self.folder, name)
                os.mkdir(self.browsed)
                self.known()
                self.note("mounts", f"{self.browsed}\0{self.browsed}/1\0")
                os.mkdir(os.path.join(self.browsed, "1"))
                self.stopped("""mount -t tmpfs a "$look/1"; mount -t tmpfs a "$look"
                    "$browse" --stop "$look/"; ! mountpoint --quiet "$look" """)
                self.assertEqual(os.listdir(self.browsed), [])

    def in_use(self, until):
        """A hanging server, and someone in a mounted folder who leaves when that command fails."""
        self.known()
        self.note("mounts", f"{self.browsed}/1\0")
        os.mkdir(os.path.join(self.browsed, "1"))
        return f"""
            mount -t tmpfs a "$look/1"
            (exec -a nbdkit /usr/bin/python3 -c 'import time; time.sleep(60)' {self.runFolder}/socket) & server=$!
            sleep 0.3; kill -STOP $server; disown $server
            (cd "$look/1"; while {until}; do sleep 0.05; done) & sleep 0.1"""

    @needs(why_no_mounts)
    def test_who_waits_for_a_server_that_hangs_is_freed_from_it(self):
        self.stopped(self.in_use("kill -0 $server 2>/dev/null") + """
            "$browse" --stop "$look"; wait; ! mountpoint --quiet "$look/1" """)
        self.assertEqual(os.listdir(self.browsed), [])

    @needs(why_no_mounts)
    def test_unmounting_does_not_itself_wait_for_a_server_that_hangs(self):
        self.stand_in("umount", f"""! pgrep -f '^nbdkit .*{self.runFolder}/' >/dev/null || exec sleep {TIME_LIMIT}
            exec /usr/bin/umount "$@" """)
        self.stopped(self.in_use("kill -0 $server 2>/dev/null") + """
            "$browse" --stop "$look"; wait; ! mountpoint --quiet "$look/1" """)

    @needs(why_no_mounts)
    def test_what_someone_stays_in_is_not_unmounted_and_goes_when_they_have_left(self):
        status, out, err = self.shell(self.in_use(f"[ ! -e {self.folder}/left ]") + f"""
            status=0; "$browse" --stop "$look" || status=$?
            mountpoint --quiet "$look/1"; touch {self.folder}/left; wait
            "$browse" --stop "$look"; exit $status""")
        self.assertEqual((status, out), (1, ""))
        self.assertIn(f"kestrix-browse: {self.browsed}/1 is in use: leave it, and stop it again\n", err)
        self.assertFalse(os.path.exists(self.runFolder))

    @needs(why_no_mounts)
    def test_the_folder_may_be_named_as_the_one_that_one_is_in(self):
        self.known()
        self.note("mounts", f"{self.browsed}/1\0")
        os.mkdir(os.path.join(self.browsed, "1"))
        self.stopped('mount -t tmpfs a "$look/1"; cd "$look"; "$browse" --stop .')
        self.assertEqual(os.listdir(self.browsed), [])

    @needs(why_no_mounts)
    def test_a_folder_where_nothing_is_browsed_is_an_error(self):
        self.refused(f"nothing is browsed in {self.browsed}")
        self.refused("there is no folder nowhere/at/all", '"$browse" --stop nowhere/at/all')

    @needs(why_no_mounts)
    def test_only_a_device_that_our_server_still_holds_is_released(self):
        self.stand_in("nbd-client", f'echo "$@" >>{shlex.quote(self.path("released"))}')
        for noted, server in (("4711", "4712"), ("4711", ""), ("4711", "4711")):
            with self.subTest(noted=noted, server=server):
                os.makedirs(self.runFolder, exist_ok=True)
                self.known()
                self.note("device", f"/dev/nbd7 {noted}\n")
                self.stopped(f"""mount -t tmpfs a /sys/block; mkdir /sys/block/nbd7
                    [ -z "{server}" ] || echo {server} >/sys/block/nbd7/pid
                    "$browse" --stop "$look" """)
                self.assertEqual(os.path.exists(self.path("released")), noted == server)
        self.assertEqual(self.file_bytes("released"), b"-d /dev/nbd7\n")

    @needs(why_no_mounts)
    def test_what_is_no_nbd_device_is_not_released(self):
        self.known()
        self.note("device", "/dev/sda 1\n")
        self.refused(f"{self.runFolder}/device names no NBD device: /dev/sda")

    @needs(why_no_mounts)
    def test_a_guest_whose_number_has_become_another_process_is_not_asked_to_end(self):
        self.stand_in("guestfish", f'echo "$@" >>{shlex.quote(self.path("asked"))}')
        self.known()
        self.note("guest", "1\n")
        self.stopped()
        self.assertFalse(os.path.exists(self.path("asked")))

    @needs(why_no_mounts)
    def test_only_the_socket_folder_that_the_machine_names_is_removed(self):
        named, other = "/tmp/libguestfsNamed1", "/tmp/libguestfsOther1"
        for folder in (named, other):
            os.mkdir(folder)
            self.addCleanup(subprocess.run, ["rm", "-rf", folder], check=True)
        self.known()
        self.stopped(f"""
            (exec -a qemu-system-x86_64 /usr/bin/python3 -c 'import time; time.sleep(20)' \\
                -chardev socket,path={named}/guestfsd.sock,id=channel0 file={other}/x {self.runFolder}/socket) &
            (exec -a nbdkit /usr/bin/python3 -c 'import time; time.sleep(20)' image={other}/x {self.runFolder}/socket) &
            sleep 0.3; "$browse" --stop "$look" 2>&1; wait""")
        self.assertEqual((os.path.exists(named), os.path.exists(other)), (False, True))

    @needs(why_no_mounts)
    def test_a_start_that_is_under_way_starts_nothing_more(self):
        self.stand_in("nbdkit", "sleep 2")
        self.stand_in("guestfish", f"touch {shlex.quote(self.path('started'))}")
        self.image("image", bytes(MIB), chunkSize=MIB)
        status, out, err = self.shell("""
            "$browse" --untrusted image "$look" & until [ -L "$look/.browse" ]; do sleep 0.1; done
            "$browse" --stop "$look"; [ -z "$(jobs -r)" ] || echo "it still runs"
            wait $! || echo "it ended with $?"; ls -A "$look" """)
        self.assertEqual((status, out, err), (0, "it ended with 1\n", ""))
        self.assertFalse(os.path.exists(self.path("started")))


class Start(BrowseScript):
    def setUp(self):
        super().setUp()
        self.image("image", bytes(MIB), chunkSize=MIB)
        self.before = self.run_folders()

    @staticmethod
    def run_folders():
        return {name for name in os.listdir("/tmp") if name.startswith("kestrix-browse.")}

    @needs(why_no_mounts)
    def test_a_program_that_is_missing_is_told_with_its_package_and_nothing_is_left(self):
        os.chmod(self.folder, 0o755)
        if tempfile.tempdir:
            os.chmod(tempfile.tempdir, 0o711)
        os.chown(self.browsed, NOBODY, NOBODY)
        for missing, package in (("nbdkit", "nbdkit"), ("guestfish", "guestfish"), ("fusermount", "fuse3")):
            with self.subTest(missing):
                self.refused(f"there is no {missing} here: install the package {package}",
                             f"""PATH={programs_but(self.folder, missing)}
                             setpriv --reuid={NOBODY} --clear-groups "$browse" --untrusted image "$look" """)
                self.assertEqual((os.listdir(self.browsed), self.run_folders()), ([], self.before))

    @needs(why_no_mounts)
    def test_a_folder_that_takes_no_link_is_an_error_and_nothing_is_left(self):
        self.stand_in("ln", "echo 'ln: no links here' >&2; exit 1")
        self.assertEqual(self.shell('"$browse" --untrusted image "$look"'), (1, "", "ln: no links here\n"))
        self.assertEqual((os.listdir(self.browsed), self.run_folders()), ([], self.before))

    @needs(why_no_mounts)
    def test_a_folder_that_another_start_has_taken_meanwhile_is_left_to_it(self):
        self.known()
        os.rename(os.path.join(self.browsed, ".browse"), self.path("taken"))
        self.stand_in("ln", f"""mv {shlex.quote(self.path("taken"))} {shlex.quote(self.browsed)}/.browse
            exec /usr/bin/ln "$@" """)
        status, out, err = self.shell('"$browse" --untrusted image "$look"')
        self.assertEqual((status, out), (1, ""))
        self.assertIn("File exists", err)
        self.assertEqual((os.listdir(self.browsed), self.run_folders()), ([".browse"], self.before))

    @needs(why_no_mounts)
    def test_a_wrong_password_is_told_by_the_server_and_nothing_is_left(self):
        self.image("image", bytes(2 * MIB), b"secret", chunkSize=MIB)
        self.file("password", b"other\n")
        status, out, err = self.shell('"$browse" --untrusted --password-file password image "$look"')
        self.assertEqual((status, out, err), (1, "", f"nbdkit: error: {self.path('image')}: the password is another "
                                                     "than it was sealed with, or it is damaged throughout\n"))
        self.assertEqual((os.listdir(self.browsed), self.run_folders()), ([], self.before))


class KernelWay(BrowseScript):
    """A device of the kernel's that is a loop device of another name."""

    def browse_disk(self, disk, after="", sectorSize=512, start='"$browse" image "$look"',
                    end='"$browse" --stop "$look"'):
        """Browses the disk in a file, with its loop device as /dev/nbd0, and then does what comes after. Of the list
        it gives the lines of partitions."""
        with open(disk, "rb") as file:
            self.image("image", file.read(), chunkSize=65 * 8 * sectorSize, sectorSize=sectorSize)
        device = os.stat(self.loop_device(disk, 4096 if sectorSize == 4096 else 512)).st_rdev
        self.stand_in("lsblk", 'echo "$3 disk"')  # it knows devices by what is covered in /sys/block
        status, out, err = self.shell(f"""
            for program in nbd-client mount guestfish; do >>{self.folder}/$program; done
            /usr/bin/mount -t tmpfs a /sys/block; mkdir /sys/block/nbd0 /sys/block/nbd1
            /usr/bin/mount -t tmpfs a /dev; mknod /dev/null c 1 3; ln -s /proc/self/fd /dev/fd
            mknod /dev/full c 1 7; mknod /dev/fuse c 10 229
            for device in nbd0 nbd1; do mknod /dev/$device b {os.major(device)} {os.minor(device)}; done
            {start}
            {after}
            {end}; ls -A "$look"; ! grep -F "$look" /proc/self/mounts""")
        told = "What can't be read is told in /tmp/kestrix-browse."
        return status, "".join(line for line in out.splitlines(True) if not line.startswith(told)), err

    def setUp(self):
        super().setUp()
        os.rmdir(self.browsed)
        self.client("")

    def client(self, first):
        """Stands in for nbd-client, with what it does first, and notes how it was called."""
        self.stand_in("nbd-client", f"""echo "$@" >>{self.folder}/nbd-client
            case $1 in -d) rm /sys/block/${{2#/dev/}}/pid; exit ;; esac
            device=${{4#/dev/}}
            {first}
            echo $$ >/sys/block/$device/pid""")

    def called(self, program):
        with open(os.path.join(self.folder, program), encoding="utf-8") as file:
            return file.read()

    def ext(self, kind, *options):
        disk = self.path("disk")
        with open(disk, "wb") as file:
            file.truncate(16 * MIB)
        self.must("mke2fs", "-q", "-t", kind, *options, disk)
        return disk

    @needs(why_no_mounts, why_no_loop_devices)
    def test_each_kind_of_ext_is_mounted_read_only(self):
        for kind in ("ext2", "ext3", "ext4"):
            with self.subTest(kind):
                status, out, err = self.browse_disk(self.ext(kind, "-L", "name"),
                                                    'findmnt -nro FSTYPE,OPTIONS "$look/1"; sleep 0.3; nbdinfo --size '
                                                    '"nbd+unix:///?socket=$(readlink "$look/.browse")/socket"')
                self.assertEqual((status, err), (0, ""))
                listed, mounted, served = out.splitlines()
                self.assertEqual(served, str(16 * MIB))  # the server has not ended with what started it
                self.assertEqual(listed.split(), ["1", "16.0MiB", kind, "name"])
                self.assertTrue(re.match(kind + " ro,", mounted), mounted)

    @needs(why_no_mounts, why_no_loop_devices)
    def test_a_label_does_not_command_the_terminal(self):
        status, out, err = self.browse_disk(self.ext("ext4", "-L", "a\x1b[2J\u009bm\x07b"), "")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.split()[3:], ["a[2J?mb"])

    @needs(why_no_mounts, why_no_loop_devices)
    def test_ntfs_is_mounted_read_only(self):
        disk = self.path("disk")
        with open(disk, "wb") as file:
            file.truncate(8 * MIB)
        self.must("mkntfs", "-q", "-F", "-L", "name", disk)
        status, out, err = self.browse_disk(disk, 'findmnt -nro FSTYPE,OPTIONS "$look/1"')
        self.assertEqual((status, err), (0, ""))
        listed, mounted = out.splitlines()
        self.assertEqual(listed.split(), ["1", "8.0MiB", "ntfs", "name"])
        self.assertRegex(mounted, "^(fuseblk|ntfs3?) ro,")

    @needs(why_no_mounts, why_no_loop_devices)
    def test_the_device_gets_the_sectors_of_the_image_and_is_read_only(self):
        for sectorSize in (512, 4096):
            with self.subTest(sectorSize):
                status, out, err = self.browse_disk(self.ext("ext4", "-b", "4096"), sectorSize=sectorSize)
                self.assertEqual((status, out.split()[:3], err), (0, ["1", "16.0MiB", "ext4"], ""))
                self.assertRegex(self.called("nbd-client").splitlines()[-2],
                                 f"^-nonetlink -unix /tmp/\\S+/socket /dev/nbd0 -readonly -block-size {sectorSize}$")

    def without_machine(self):
        self.stand_in("guestfish", f'echo "$@" >>{self.folder}/guestfish; echo "no machine here" >&2; exit 1')
        self.stand_in("mount", f'echo "$@" >>{self.folder}/mount; exec /usr/bin/mount "$@"')

    def check_kernel_untouched(self, options, sectorSize):
        self.without_machine()
        status, out, err = self.browse_disk(self.ext("ext4"), "exit 9", sectorSize,
                                            f'"$browse" {options} image "$look"')
        self.assertEqual((status, out, err), (1, "", "no machine here\n"))
        self.assertEqual((self.called("nbd-client"), self.called("mount")), ("", ""))
        self.assertIn("--listen --ro --format=raw -a nbd://", self.called("guestfish"))

    @needs(why_no_mounts, why_no_loop_devices)
    def test_an_untrusted_image_never_comes_near_the_kernel(self):
        self.check_kernel_untouched("--untrusted", 512)

    @needs(why_no_mounts, why_no_loop_devices)
    def test_a_disk_of_sectors_that_the_kernel_does_not_know_goes_to_the_machine(self):
        self.check_kernel_untouched("", 520)

    @needs(why_no_mounts, why_no_loop_devices)
    def test_a_device_that_another_takes_meanwhile_is_left_to_it(self):
        for status in (0, 1):  # it may not even notice
            with self.subTest(status):
                self.client(f"""[ $device != nbd0 ] || {{
                    echo 1 >/sys/block/nbd0/pid; echo 'Cannot set NBD: busy' >&2; exit {status}; }}""")
                mounted = 'grep -o "^/dev/nbd[^ ]* $look/1" /proc/self/mounts; ls "$look/1"'
                done, out, err = self.browse_disk(self.ext("ext4", "-L", "name"), mounted,
                                                  end='"$browse" --stop "$look"; cat /sys/block/nbd0/pid')
                self.assertEqual((done, err), (0, ""))
                self.assertEqual(out.split()[3:], ["name", "/dev/nbd1", f"{self.browsed}/1", "lost+found", "1"])
                self.assertNotIn("-d /dev/nbd0", self.called("nbd-client"))

    @needs(why_no_mounts, why_no_loop_devices)
    def test_where_no_device_is_to_be_had_the_reason_is_told(self):
        self.client("echo 'Cannot set NBD: busy' >&2; exit 1")
        self.assertEqual(self.browse_disk(self.ext("ext4")), (
            1, "", "kestrix-browse: there is no NBD device to be had (/dev/nbd1 gets no server: Cannot set NBD: busy); "
            "--untrusted needs none\n"))
        self.assertEqual(os.listdir(self.browsed), [])

    @needs(why_no_mounts, why_no_loop_devices)
    def test_what_the_kernel_does_not_mount_the_machine_may(self):
        disk = self.ext("ext4", "-O", "^metadata_csum", "-L", "name")
        with open(disk, "r+b") as file:
            file.seek(1024 + 4)
            file.write((1 << 24).to_bytes(4, "little"))  # blocks: more than there are
        status, out, err = self.browse_disk(disk)
        self.assertEqual((status, err), (0, ""))
        self.assertRegex(out, "ext4 +name: can't be mounted: .*; --untrusted may show it\n$")

    @needs(why_no_mounts, why_no_loop_devices)
    def test_it_is_mounted_also_where_the_list_can_not_be_printed(self):
        for sink in (">/dev/full", "| true"):
            with self.subTest(sink):
                status, out, err = self.browse_disk(self.ext("ext4"), 'ls "$look/1"; grep -c ext4 "$look/list.txt"',
                                                    start=f'set -o pipefail; "$browse" image "$look" {sink}')
                self.assertEqual((status, out.split()), (0, ["lost+found", "1"]))
                self.assertIn(f"kestrix-browse: {self.browsed} shows it; the list lies there in list.txt\n", err)

    @needs(why_no_mounts, why_no_loop_devices)
    def test_without_the_machine_the_command_that_goes_on_is_one_of_this_system(self):
        disk = self.path("disk")
        with open(disk, "wb") as file:
            file.write((b"LUKS\xba\xbe\0\1").ljust(MIB, b"\0"))
        others = programs_but(self.folder, "guestfish")
        start = f'PATH={self.bin}:{others} "$browse" image "$look"'
        self.assertEqual(self.browse_disk(disk, start=start), (0, "1       1.0MiB  crypto_LUKS   locked; to open it: "
                         "cryptsetup open --readonly /dev/nbd0 open, which makes /dev/mapper/open\n", ""))
