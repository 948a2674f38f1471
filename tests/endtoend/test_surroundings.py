"""What a process finds around it: descriptors that are closed, a reader that leaves, no /proc, a loader in front, a
configuration of the cryptography library, modes of new files, disks that go away, and the power that fails at once.
"""
import errno
import itertools
import os
import shutil
import stat
import subprocess

import change_tracker
from harness import (MIB, SANITIZERS, TIME_LIMIT, MachineTest, Run, is_sanitized, needs, source_line,
                     why_no_loop_devices, why_no_mounts)
from kestrix_image import seeded_disk

SIZE = 9 * MIB + 512
READ_FAILED = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"
NO_SYSTEM_DISK = "could not open C: to determine the system disk number"


class Surroundings(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = self.disk(1, seeded_disk(SIZE, 1))
        self.disk(2, SIZE)

    def shell(self, script, *arguments):
        """Runs the program by a line of shell, in which "$@" is the program with its arguments."""
        self.assertTrue(os.path.lexists(self.devices), "without its devices folder the program sees real disks")
        done = subprocess.run(["bash", "-c", script, "bash", self.program, *arguments], cwd=self.images, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=TIME_LIMIT, env={**SANITIZERS, **os.environ})
        return Run(done.returncode, done.stdout, done.stderr)

    def run_each_command(self, script):
        """All five commands by that line of shell: each ends well, and images and disk are what they should be."""
        for name in ("x", "thin", "whole"):
            if os.path.exists(self.path(name)):
                os.unlink(self.path(name))
        self.disk(2, SIZE)
        for line in ("list-disks", "capture --disk 1 --out x", "capture --disk 1 --out thin --base x --thin",
                     "verify --in thin", "restore --in x --disk 2 --confirm YES", "consolidate --in thin --out whole"):
            run = self.shell(script, *line.split())
            self.assertEqual(run.status, 0, (script, line, run.err))
        self.check_image("x", self.content)
        self.check_image("whole", self.content)
        self.assertEqual(self.disk_bytes(1), self.content)
        self.assertEqual(self.disk_bytes(2), self.content)

    # Descriptors and readers

    @needs(why_no_mounts)
    def test_closed_standard_descriptors_never_become_an_image_or_a_disk(self):
        # A disk that takes lines of any length: one that is written past the page cache refuses them.
        self.link_disk(2, os.path.join(self.small_file_system("16m"), "disk"))
        closings = ("<&-", ">&-", "2>&-")
        for count in (1, 2, 3):
            for closed in itertools.combinations(closings, count):
                with self.subTest(closed):
                    self.run_each_command(f'"$@" {" ".join(closed)}')

    def test_a_failed_run_with_closed_descriptors_writes_its_lines_into_no_file(self):
        image = self.file("x", b"no image")
        self.assertEqual(self.shell('"$@" <&- >&- 2>&-', "verify", "--in", image).status, 1)
        self.assertEqual(self.shell('"$@" <&- >&- 2>&-', "nonsense").status, 1)
        self.assertEqual(self.file_bytes(image), b"no image")

    @needs(why_no_mounts)
    def test_standard_descriptors_are_open_where_there_is_no_null_device(self):
        self.run_each_command(
            'exec unshare --mount bash -c \'mount -t tmpfs none /dev && exec "$@" <&- >&- 2>&-\' bash "$@"')

    def test_a_reader_that_leaves_changes_nothing_in_a_run(self):
        self.run_each_command('set -o pipefail; "$@" | head -c 5 >/dev/null')
        self.run_each_command('set -o pipefail; "$@" | true')
        self.run_each_command('"$@" 2> >(true)')

    def test_a_reader_that_leaves_changes_no_exit_status_of_a_failure(self):
        self.file("x", b"no image")
        run = self.shell('set -o pipefail; "$@" 2>&1 | true', "verify", "--in", "x")
        self.assertEqual(run.status, 1)

    def test_lines_that_find_no_room_change_nothing_in_a_run(self):
        self.run_each_command('"$@" >/dev/full 2>/dev/full')

    # Where the program can't tell which machine it sees

    def check_no_device(self, script):
        """Nothing is listed, and there is no system disk to compare with. An unconfirmed restore touches no disk."""
        self.check(self.shell(script, "list-disks"))
        self.check_fatal(self.shell(script, "restore", "--in", "x", "--disk", "1"), NO_SYSTEM_DISK, 2)

    @needs(why_no_mounts)
    def test_without_proc_no_device_exists(self):
        script = 'exec unshare --mount bash -c \'mount -t tmpfs none /proc && exec "$@"\' bash "$@"'
        if is_sanitized():  # the sanitizers have their options from /proc, and can't end well without it
            self.assertEqual(self.shell(script, "list-disks").out, b"")
        else:
            self.check_no_device(script)

    def test_a_devices_folder_that_cannot_be_looked_at_leaves_no_device(self):
        shutil.rmtree(self.devices)
        os.symlink("devices", self.devices)
        self.assertRaises(OSError, os.stat, self.devices)
        self.check_no_device('"$@"')

    def test_a_devices_folder_of_which_nobody_can_tell_whether_it_is_there_leaves_no_device(self):
        longest = 4095  # bytes of a path
        folder = os.path.join(self.folder, "")
        while len(folder) + len("devices") <= longest:
            folder += "f" * max(1, min(200, longest - len("devices") - len(folder))) + "/"
        os.makedirs(folder)
        shutil.copy2(self.program, folder + "k")
        handle = os.open(folder, os.O_RDONLY)
        self.addCleanup(os.close, handle)
        os.mkdir("devices", dir_fd=handle)
        with self.assertRaises(OSError) as raised:
            os.lstat(folder + "devices")
        self.assertEqual(raised.exception.errno, errno.ENAMETOOLONG)
        self.check_no_device(f'shift; exec {folder}k "$@"')

    def test_behind_a_loader_no_device_exists(self):
        loader = [word for word in self.must("readelf", "--program-headers", self.program).split()
                  if "ld-linux" in word or "/ld" in word][0].rstrip("]")
        self.check_no_device(f'exec {loader} "$@"')

    def test_a_program_that_is_replaced_while_it_runs_keeps_its_devices(self):
        run = self.shell('exec 3<"$1"; rm "$1"; shift; exec /proc/self/fd/3 "$@"', "list-disks")
        self.assertEqual((run.status, run.err), (0, b""))
        self.assertEqual(run.out.count(b"PhysicalDrive"), 3)

    @needs(why_no_mounts)
    def test_a_program_on_a_medium_that_is_gone_sees_no_device(self):
        # What /proc gives then as its path is one on another file system.
        self.check_no_device(
            'exec unshare --mount bash -c \'mkdir m && mount -t tmpfs none m && cp -a "$1" ../devices m && '
            'exec 3<m/kestrix && umount -l m && rmdir m && shift && exec /proc/self/fd/3 "$@"\' bash "$@"')

    # Configuration and modes

    def test_a_configuration_of_the_cryptography_library_changes_nothing(self):
        self.file("openssl.cnf", b"openssl_conf = all\n[all]\nalg_section = algorithms\n"
                                 b"[algorithms]\ndefault_properties = provider=nobody\n")
        self.file("p", b"secret")
        self.run_each_command('OPENSSL_CONF=$PWD/openssl.cnf "$@"')
        self.assertEqual(self.shell('OPENSSL_CONF=$PWD/openssl.cnf "$@"', "capture", "--disk", "1", "--out", "sealed",
                                    "--encrypt", "--password-file", "p").status, 0)
        self.check_image("sealed", self.content, b"secret")

    def mode_of(self, name):
        return stat.S_IMODE(os.stat(self.path(name)).st_mode)

    def test_a_new_image_is_its_owners_alone(self):
        self.file("p", b"secret")
        for mask, mode in (("000", 0o600), ("022", 0o600), ("277", 0o400)):
            self.assertEqual(self.shell(f'umask {mask}; "$@"', "capture", "--disk", "1", "--out", f"x{mask}").status, 0)
            self.assertEqual(self.shell(f'umask {mask}; "$@"', "consolidate", "--in", f"x{mask}", "--out",
                                        f"whole{mask}").status, 0)
            self.assertEqual((self.mode_of(f"x{mask}"), self.mode_of(f"whole{mask}")), (mode, mode))

    def test_an_image_that_is_replaced_keeps_its_mode(self):
        self.file("x", b"before")
        os.chmod(self.path("x"), 0o640)
        self.assertEqual(self.shell('umask 077; "$@"', "capture", "--disk", "1", "--out", "x").status, 0)
        self.assertEqual(self.mode_of("x"), 0o640)

    # What an error number says

    def test_a_damaged_image_that_is_there_is_not_told_as_missing(self):
        self.image("x", self.content)
        damaged = bytearray(self.file_bytes("x"))
        damaged[:8] = b"\0" * 8
        self.file("x", bytes(damaged))
        run = self.kestrix("consolidate", "--in", "x", "--out", "whole")
        self.assertEqual(run.status, 1)
        self.assertNotIn(b"GetLastError=2)", run.err)
        self.assertIn(b"GetLastError=0)", run.err)

    @needs(why_no_loop_devices)
    def test_a_disk_that_goes_away_between_two_reads_is_an_io_fault(self):
        self.loop_disk(3, 10 * MIB)
        backing = self.must("losetup", "--noheadings", "--output", "BACK-FILE", os.readlink(self.disk_path(3)))

        def pull():
            os.truncate(backing, 0)
            self.must("losetup", "--set-capacity", os.readlink(self.disk_path(3)))

        tracker = change_tracker.attach_to(self)
        tracker.before[change_tracker.QUERY] = pull
        run = self.kestrix("capture", "--disk", "3", "--out", "x")
        self.check_fatal(run, READ_FAILED, 1117, source_line(3, 10 * MIB) +
                         "Change tracker: disk 3 epoch 1A2B\n")

    # Power

    def found_after_a_power_cut(self, backing, name):
        """The file in what the device under the file system holds now, looked at elsewhere."""
        copy = os.path.join(self.folder, "found")
        shutil.copyfile(backing, copy)
        folder = self.mount(self.loop_device(copy), "rw", "ext4")
        with open(os.path.join(folder, name), "rb") as file:
            return file.read()

    @needs(why_no_loop_devices, why_no_mounts)
    def test_what_is_announced_as_complete_is_on_the_disk(self):
        backing = os.path.join(self.folder, "file-system")
        with open(backing, "wb") as file:
            file.truncate(96 * MIB)
        self.must("mkfs.ext4", "-q", "-F", backing)
        folder = self.mount(self.loop_device(backing), "rw", "ext4")
        image, thin, whole = (os.path.join(folder, name) for name in ("x", "thin", "whole"))
        for name, arguments in (("x", ("capture", "--disk", "1", "--out", image)),
                                ("thin", ("capture", "--disk", "1", "--out", thin, "--base", image, "--thin")),
                                ("whole", ("consolidate", "--in", thin, "--out", whole))):
            with self.subTest(name):
                run = self.kestrix(*arguments)
                self.assertEqual(run.status, 0, run.err)
                found = self.found_after_a_power_cut(backing, name)
                with open(os.path.join(folder, name), "rb") as file:
                    self.assertTrue(found == file.read())
