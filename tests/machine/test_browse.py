"""Looking into an image through the kernel, in a system whose device manager starts what it finds."""
import os

import debian
from cases import MIB, Disk, Machine, blank, case, host, noise, past_firmware, reach_prompt, stick
from test_faults import NUMBER

GROUP = "Looking into images"
DISK_MIB = 160


def volume_disk(folder):
    """A disk with a plain partition and a volume group on another one."""
    root, part, disk = [os.path.join(folder, name) for name in ("root", "part", "disk")]
    os.makedirs(root)
    noise(os.path.join(root, "letter.dat"), 2 * MIB, 18)
    host("mke2fs", "-q", "-t", "ext4", "-d", root, blank(part, 64 * MIB))
    host("sfdisk", "-q", blank(disk, DISK_MIB * MIB), text="label: gpt\nstart=1MiB, size=64MiB\nsize=80MiB, type=lvm\n")
    debian.place(disk, part, 1)
    return disk


@case(GROUP, "a volume group in an image is started where the image is a plain disk of the kernel's, and never where "
             "kestrix-browse shows it")
def test_browse(folder):
    disk = volume_disk(folder)
    store = blank(os.path.join(folder, "store"), 256 * MIB)
    host("mke2fs", "-q", "-t", "ext4", store)
    with Machine(os.path.join(folder, "line.log"),
                 [Disk(disk, "scsi", "SOURCE"), Disk(store, "virtio", "STORE"), stick()],
                 past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("D=$(readlink -f /dev/disk/by-id/*_SOURCE); test -b $D && mount /dev/disk/by-id/virtio-STORE /mnt")
        machine.run("pvcreate -qy ${D}2; vgcreate -q tempting ${D}2; lvcreate -qy -n root -L 32M tempting; "
                    "mkfs.ext4 -q /dev/tempting/root; vgchange -qan tempting")
        machine.run(f"kestrix capture --disk {NUMBER.format('SOURCE')} --out /mnt/disk.kstx", seconds=180)
        # The very disk would have the same identifiers.
        machine.tell("device_del", id="dev-disk0")
        machine.run("while test -e $D; do sleep 0.3; done; sha256sum /mnt/disk.kstx >/tmp/before")
        # The stick starts nothing. As another system, it does.
        machine.run("rm /etc/udev/rules.d/69-lvm.rules /etc/lvm/lvmlocal.conf; udevadm control --reload; modprobe nbd")
        machine.run("nbdkit --unix /tmp/plain kestrix image=/mnt/disk.kstx; nbd-client -unix /tmp/plain /dev/nbd3 "
                    "-readonly; until dmsetup info tempting-root >/dev/null 2>&1; do sleep 0.5; done", seconds=120)
        machine.run("udevadm settle; vgchange -qan tempting; nbd-client -d /dev/nbd3; udevadm settle")
        # What was started once is noted, and would not be started again.
        machine.run("rm -rf /run/lvm/*_online")
        shown = machine.run("kestrix-browse /mnt/disk.kstx /root/look", seconds=120)
        assert "logical volumes" in shown, shown
        assert machine.run("stat -c %s /root/look/1/letter.dat") == str(2 * MIB)
        # As whatever looks for new devices has it done, and as long as that took before.
        machine.run("udevadm trigger --subsystem-match=block --action=change; udevadm settle; sleep 20", seconds=120)
        assert "No devices found" in machine.run("dmsetup ls")
        machine.run("kestrix-browse --stop /root/look", seconds=60)
        machine.run("sha256sum -c /tmp/before")
        machine.type("poweroff")
        machine.wait_until_off()
