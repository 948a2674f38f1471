"""kestrix-browse through the kernel's own NBD client, which few machines that run these tests have: inside the virtual
machine of libguestfs, in a small root folder with the programs of this machine that it takes."""
import hashlib
import os
import re
import shutil
import subprocess

import harness
from file_systems import HELLO, MIB, Maker, run
from kestrix_image import flip_byte
from nbdkit_server import PLUGIN
from test_browse import BROWSE, SURROUNDINGS, TIME_LIMIT, data_offset

PROGRAMS = """awk basename bash blkid blockdev cat cmp cp cryptsetup cut dirname env flock grep head id insmod kill
    ln ls lsblk mkdir mktemp mount nbd-client nbdkit numfmt od partx pgrep readlink realpath rm rmdir sed setsid
    sh sha256sum sleep sort stat tail timeout touch tr true umount uname""".split()
SCRIPT = r"""
set -eu
export PATH=/usr/sbin:/usr/bin
mount -t tmpfs tmpfs /tmp
mkdir -p /tmp/guest && cd /tmp/guest
kestrix-browse --password-file /password /image look >/dev/null
sed 's/browse\.[A-Za-z0-9]*/browse.RUN/' look/list.txt
sed 's/.* error: //' look/.browse/server.log
cat look/1/hello.txt look/2/hello.txt look/5/hello.txt look/6/hello.txt look/7/hello.txt
grep ' /tmp/guest/look/' /proc/mounts
cat /sys/block/nbd0/ro
flock --shared --nonblock /dev/nbd0 true || echo locked
if echo x 2>/dev/null >look/1/new; then echo written; fi
kestrix-browse --stop look
ls -A look
grep -c look /proc/mounts || true
ls /tmp
cat /sys/block/nbd0/pid 2>/dev/null || echo free
flock --shared --nonblock /dev/nbd0 true && echo not locked
sha256sum </image
# Sectors of 4096 bytes, and the server killed under it.
kestrix-browse /image4096 look >/dev/null
cat look/1/hello.txt /sys/block/nbd0/queue/logical_block_size
kill -9 "$(pgrep nbdkit)"
kestrix-browse --stop look
ls -A look
cat /sys/block/nbd0/pid 2>/dev/null || echo free
# Someone reads while its server hangs.
kestrix-browse /image4096 look >/dev/null
kill -STOP "$(pgrep nbdkit)"
cat look/1/large >/dev/null 2>&1 & reader=$!
sleep 2
kill -0 $reader && echo it waits
kestrix-browse --stop look
wait $reader || echo it was freed
ls -A look
# The start of the disk is damaged.
kestrix-browse /damaged look || echo status $?
ls -A look
# The command of the list opens what is locked.
kestrix-browse /locked look >/dev/null
command=$(sed -n 's/.*to open it: \(.*\), which makes .*/\1/p' look/list.txt)
export DM_DISABLE_UDEV=1
$command --key-file /key
blockdev --getro --getsize64 /dev/mapper/open
cryptsetup close open
kestrix-browse --stop look
"""


def needed_by(program):
    """The libraries that a program is linked with, and its loader."""
    listed = subprocess.run(["ldd", program], stdout=subprocess.PIPE, text=True, check=False).stdout
    return re.findall(r"(/\S+) \(0x", listed)


class Kernel(harness.MachineTest):
    def put(self, source, target=None):
        target = self.path("root" + (target or source))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if not os.path.exists(target):
            shutil.copy2(source, target)

    def make_root(self):
        os.makedirs(self.path("root/usr"))
        for name in ("bin", "sbin", "lib", "lib64"):
            os.makedirs(self.path(f"root/usr/{name}"))
            os.symlink(f"usr/{name}", self.path(f"root/{name}"))
        for name in ("dev", "proc", "run", "sys", "tmp"):
            os.mkdir(self.path(f"root/{name}"))
        for program in PROGRAMS:
            found = shutil.which(program, path="/usr/sbin:/usr/bin")
            self.assertIsNotNone(found, f"{program} is missing")
            self.put(found, f"/usr/bin/{program}")
            for library in needed_by(found):
                self.put(library)
        for library in needed_by(PLUGIN):
            self.put(library)
        self.put(PLUGIN, "/usr/bin/nbdkit-kestrix-plugin.so")
        self.put(BROWSE, "/usr/bin/kestrix-browse")
        self.file("root/script", SCRIPT.encode())
        self.file("root/password", b"secret\n")

    def make_image(self):
        make = Maker(self.path("."), self.loop_device)
        make.put("content/large", os.urandom(4 * MIB))
        inner = make.sized("p8", 1)
        run("sfdisk", "-q", inner, text="label: dos\nstart=64")
        partitions = [make.ext4_after_a_crash("p1", "after a crash", b"what the journal holds"),
                      make.xfs("p2", "second"), make.swap("p3"), make.vfat("p5", "FIFTH"),
                      make.btrfs("p6", "sixth"), self.path("p2"), inner, make.vfat("p9", "BAD")]
        written = self.image_of(make.disk("disk", "dos", partitions), "root/image", b"secret")
        self.bad = written.record.header.chunkCount - 10  # the first of the last partition: 8 MiB, and 2 behind it
        flip_byte(self.path("root/image"), data_offset(written, self.bad))
        self.image_of(make.disk("disk4096", "gpt", [make.ext4("p4096", "first", "-b", "4096")], 4096),
                      "root/image4096", sectorSize=4096)
        damaged = self.image_of(make.vfat("small", "SMALL"), "root/damaged")
        flip_byte(self.path("root/damaged"), data_offset(damaged, 0))
        self.image_of(self.locked(make), "root/locked")

    def image_of(self, disk, name, password=None, **options):
        with open(disk, "rb") as file:
            return self.image(name, file.read(), password, chunkSize=MIB, **options)

    def locked(self, make):
        self.file("root/key", b"secret")
        disk = make.sized("locked", 4)
        run("cryptsetup", "luksFormat", "-q", "--type", "luks1", "--pbkdf-force-iterations", "1000", "--key-file",
            self.path("root/key"), disk)
        return disk

    def in_machine(self):
        disk = self.file("root.ext4", b"")
        os.truncate(self.path(disk), 384 * MIB)
        self.must("mke2fs", "-q", "-t", "ext4", "-d", self.path("root"), self.path(disk))
        kernel = sorted(os.listdir("/lib/modules"))[-1]
        # Outside of the root folder lie the machine's own modules, nbd's perhaps not among them.
        module = f"/lib/modules/{kernel}/kernel/drivers/block/nbd.ko"
        commands = (f"run\nmount /dev/sda /\nupload {module} /nbd.ko\ndebug sh 'insmod /sysroot/nbd.ko'\n"
                    "sh 'bash /script 2>&1; echo ended with $?'\n")
        done = subprocess.run(["guestfish", "--format=raw", "-a", self.path(disk)], input=commands, cwd=self.images,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=TIME_LIMIT,
                              env={**SURROUNDINGS, "LIBGUESTFS_BACKEND": "direct"}, check=False)
        return done.stdout

    def test_the_kernel_mounts_each_file_system_read_only_and_without_its_journal(self):
        self.make_root()
        self.make_image()
        said = self.in_machine()
        mounts = {line.split()[1]: line.split()[2:4] for line in said.splitlines() if line.startswith("/dev/nbd0p")}
        self.assertEqual({folder: kind for folder, (kind, _) in mounts.items()},
                         {"/tmp/guest/look/1": "ext4", "/tmp/guest/look/2": "xfs", "/tmp/guest/look/5": "vfat",
                          "/tmp/guest/look/6": "btrfs", "/tmp/guest/look/7": "xfs"}, said)
        journal = {"ext4": {"norecovery"}, "xfs": {"norecovery", "nouuid"}, "vfat": set(),
                   "btrfs": {"rescue=nologreplay"}}
        for folder, (kind, options) in mounts.items():
            self.assertLessEqual({"ro", "nosuid", "nodev"} | journal[kind], set(options.split(",")), folder)
        told = [line for line in said.splitlines() if line and not line.startswith("/dev/")]
        bad = f"/image: chunk {self.bad}: its seal is broken, or the password is another"
        digest = hashlib.sha256(self.file_bytes("root/image")).hexdigest() + "  -"
        self.assertEqual(told, ["1      16.0MiB  ext4          after a crash", "2      32.0MiB  xfs           second",
                                "3       1.0MiB  swap          no files", "5       8.0MiB  vfat          FIFTH",
                                "6      40.0MiB  btrfs         sixth", "7      32.0MiB  xfs           second",
                                "8       1.0MiB  unknown       nothing that is known here",
                                f"9       8.0MiB  unknown       can't be read: {bad}",
                                "What can't be read is told in /tmp/kestrix-browse.RUN/server.log", bad,
                                *[HELLO.decode().strip()] * 5,
                                "1", "locked",  # the device is read-only, and no device manager looks at it
                                "0",  # mounts that are left, then what is left in /tmp
                                "guest", "free", "not locked", digest,
                                HELLO.decode().strip(), "4096", "free",
                                "it waits", "it was freed",
                                "kestrix-browse: the disk can't be read: /damaged: chunk 0: its digest is not the "
                                "recorded one", "status 1",
                                "1", str(2 * MIB), "ended with 0"])
