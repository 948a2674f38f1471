"""The page of the bad day: each of its commands is run, taken from the page, in its order."""
import os
import re

import debian
import servers
from cases import MIB, ROOT, STICK, Disk, Machine, PROMPT, blank, case, digest, host, noise, reach_prompt, stick
from test_bad_day import answer_restore

GROUP = "The pages"
IMAGE = "/mnt/system/system-20261122T020005Z.kstx"
PASSWORD = "of the share"


def blocks(page):
    """The blocks of commands, each a list of lines."""
    with open(os.path.join(ROOT, "docs", page), encoding="utf-8") as file:
        return [block.strip().splitlines() for block in re.findall(r"^```sh\n(.*?)^```$", file.read(), re.M | re.S)]


def disks(folder):
    """The old disk, small, with what it takes to start; the new one, larger; one with each kind of place for images."""
    root = os.path.join(folder, "root")
    os.makedirs(os.path.join(root, "home"))
    noise(os.path.join(root, "home", "letter.dat"), 3 * MIB, 8)
    old, part, efi = [os.path.join(folder, name) for name in ("old", "old.part", "old.efi")]
    host("sfdisk", "-q", blank(old, 96 * MIB), text="label: gpt\nstart=1MiB, size=16MiB, "
         "type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B\nsize=64MiB\n")
    host("mkfs.fat", blank(efi, 16 * MIB))
    host("mke2fs", "-q", "-t", "ext4", "-d", root, blank(part, 64 * MIB))
    debian.place(old, efi, 1)
    debian.place(old, part, 17)
    backup = blank(os.path.join(folder, "backup"), 512 * MIB)
    host("mke2fs", "-q", "-t", "ext4", "-L", "BACKUP", backup)
    places = blank(os.path.join(folder, "places"), 256 * MIB)
    host("sfdisk", "-q", places, text="label: gpt\nstart=1MiB, size=48MiB, name=VOLUME\nsize=48MiB, name=SECRET\n"
         "size=48MiB, name=HALF1\nsize=48MiB, name=HALF2\n")
    new = noise(os.path.join(folder, "new"), 128 * MIB, 9)
    to_be_stick = blank(os.path.join(folder, "stick"), (os.path.getsize(STICK) // MIB + 1) * MIB)
    return [Disk(new, "sata", "NEW-DISK", name="new"), Disk(to_be_stick, "usb", "STICK", name="tobe"),
            Disk(old, "virtio", "OLD-DISK", name="old"), Disk(backup, "virtio", "BACKUP-DISK", name="backup"),
            Disk(places, "virtio", "PLACES", name="places"), stick()]


def make_places(machine):
    """What the page takes for granted, made in the machine: the image, and the other kinds of places."""
    machine.run("mount /dev/disk/by-label/BACKUP /mnt && mkdir /mnt/system")
    machine.run("N=$(kestrix-keep disks | grep -B3 'serial: OLD-DISK' | sed -n 's/^disk \\([0-9]*\\):.*/\\1/p')")
    machine.run(f"kestrix capture --disk $N --out {IMAGE}; umount /mnt", seconds=180)
    machine.run("part() { readlink -f /dev/disk/by-partlabel/$1; }; pvcreate -qy $(part VOLUME) && "
                "vgcreate -q backup $(part VOLUME) && lvcreate -qy -n images -L 16M backup && vgchange -qan backup")
    machine.run("printf secret | cryptsetup luksFormat -q --pbkdf pbkdf2 --pbkdf-force-iterations 1000 "
                "$(part SECRET) -")
    machine.run("yes | mdadm --create /dev/md0 --run --level=1 --raid-devices=2 $(part HALF1) $(part HALF2); "
                "mdadm --wait /dev/md0; mdadm --stop /dev/md0", seconds=180)
    machine.run("echo '10.0.2.2 nas' >>/etc/hosts; cd /root; ln -s /dev/sr0 kestrix-rescue.iso")


def run_line(machine, line):
    """One command of the page, with what a person does around it."""
    if line == "restore":
        machine.type(line)
        answer_restore(machine, "NEW-DISK", moves=True, refused=["BACKUP-DISK"], folder="/mnt/system")
        machine.expect(PROMPT)
    elif line.startswith("mount -t cifs"):
        machine.type(line)
        machine.expect("Password for backup@.*:")
        machine.type(PASSWORD)
        machine.expect(PROMPT)
        machine.run("findmnt -t cifs /mnt")
    elif line.startswith("cryptsetup open"):
        machine.type(line)
        machine.expect("Enter passphrase.*:")
        machine.type("secret")
        machine.expect(PROMPT, seconds=120)
        machine.run("test -b /dev/mapper/secret")
    else:
        machine.run(line, seconds=900)
        if line.startswith("cat /root/look"):
            assert machine.run("stat -c %s /root/look/2/home/letter.dat") == str(3 * MIB)


# What stands in the way of the next command, by how the next one begins.
BEFORE = [("mount -o ro,noload", "umount /mnt"), ("network", "umount /mnt"), ("mount -t cifs", "umount /mnt"),
          ("ip link set", "umount /mnt; systemctl stop systemd-networkd"),
          ("vgchange", "ip address flush dev enp0s3"),
          ("restore", "vgchange -qan backup; cryptsetup close secret; mdadm --stop /dev/md0; "
                      "mount -o ro /dev/disk/by-label/BACKUP /mnt"),
          ("umount /mnt", "true")]


@case(GROUP, "each command of the page of the rescue stick is run, taken from the page")
def test_linux_page(folder):
    machines = disks(folder)
    lines = [line for block in blocks("recovery-linux.md") for line in block]
    assert len(lines) > 20 and not blocks("recovery-windows.md")
    # The machine goes off where the page says so; what stands behind that is run before.
    at_end = [line for line in lines if line in ("umount /mnt", "poweroff")]
    lines = [line for line in lines if line not in at_end] + at_end
    share = os.path.join(folder, "share")
    os.makedirs(share)
    with servers.smb(folder, share, PASSWORD), servers.nfs(folder, share), \
            Machine(os.path.join(folder, "line.log"), machines, "uefi", network=True, memory=1536) as machine:
        reach_prompt(machine, seconds=600)
        make_places(machine)
        for line in lines:
            for begin, command in BEFORE:
                if line.startswith(begin):
                    machine.run(command)
            if line == "poweroff":
                machine.type(line)
            else:
                run_line(machine, line)
        machine.wait_until_off()
    size = os.path.getsize(STICK)
    with open(machines[1].path, "r+b") as file:
        file.truncate(size)
    assert digest(machines[1].path) == digest(STICK)
    made = Disk(machines[1].path, "usb", "STICK", boots=0)
    with Machine(os.path.join(folder, "stick.log"), [made], "uefi") as machine:
        reach_prompt(machine, seconds=600)
    return f"{len(lines)} commands"
