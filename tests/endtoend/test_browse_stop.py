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
from harness import MIB, MachineTest, needs, why_no_loop_devices, why_no_mounts
from nbdkit_server import sanitizer

BROWSE = os.environ.get("KESTRIX_BROWSE", os.path.join(os.path.dirname(harness.PROGRAM), "kestrix-browse"))
NOBODY = 65534


class BrowseScript(MachineTest):
    def setUp(self):
        super().setUp()
        self.bin = self.path("bin")
        os.mkdir(self.bin)
        self.runFolder = self.must("mktemp", "-d", "/tmp/kestrix-browse.XXXXXXXXXX")
        self.addCleanup(subprocess.run, ["rm", "-rf", self.runFolder], check=True)
        self.browsed = self.path("look")
        os.mkdir(self.browsed)

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


class KernelWay(BrowseScript):
    """A device of the kernel's that is a loop device of another name."""

    def setUp(self):
        super().setUp()
        os.rmdir(self.browsed)

    def browse_disk(self, disk, after):
        """Browses the disk in a file, with its loop device as /dev/nbd0, and then does what comes after."""
        with open(disk, "rb") as file:
            self.image("image", file.read(), chunkSize=MIB)
        device = os.stat(self.loop_device(disk)).st_rdev
        self.stand_in("nbd-client", 'case $1 in -d) rm /sys/block/nbd0/pid ;; *) echo $$ >/sys/block/nbd0/pid ;; esac')
        self.stand_in("lsblk", "echo /dev/nbd0 disk")  # it knows devices by what is covered in /sys/block
        return self.shell(f"""
            mount -t tmpfs a /sys/block; mkdir /sys/block/nbd0
            mount -t tmpfs a /dev; mknod /dev/null c 1 3; ln -s /proc/self/fd /dev/fd
            mknod /dev/nbd0 b {os.major(device)} {os.minor(device)}
            "$browse" image "$look"
            {after}
            "$browse" --stop "$look"; ls -A "$look"; ! grep -F "$look" /proc/self/mounts""")

    def ext(self, kind, *options):
        disk = self.path("disk")
        with open(disk, "wb") as file:
            file.truncate(16 * MIB)
        self.must("mke2fs", "-q", "-t", kind, *options, disk)
        return disk

    @needs(why_no_mounts, why_no_loop_devices)
    def test_each_kind_of_ext_is_mounted_read_only(self):
        if sanitizer():  # nbdkit would have to load its run-time first
            return
        for kind in ("ext2", "ext3", "ext4"):
            with self.subTest(kind):
                status, out, err = self.browse_disk(self.ext(kind, "-L", "name"),
                                                    'findmnt -nro FSTYPE,OPTIONS "$look/1"')
                self.assertEqual((status, err), (0, ""))
                listed, mounted = out.splitlines()
                self.assertEqual(listed.split(), ["1", "16.0MiB", kind, "name"])
                self.assertTrue(re.match(kind + " ro,", mounted), mounted)

    @needs(why_no_mounts, why_no_loop_devices)
    def test_a_label_does_not_command_the_terminal(self):
        if sanitizer():  # nbdkit would have to load its run-time first
            return
        status, out, err = self.browse_disk(self.ext("ext4", "-L", "a\x1b[2J\u009bm\x07b"), "")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.split()[3:], ["a[2J?mb"])
