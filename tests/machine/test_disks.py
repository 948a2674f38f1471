"""What the programs make of a real machine's disks: their numbers, which is the system's, which are in use."""
import json
import os
import re
import shutil

from cases import MIB, STICK, Disk, Machine, blank, case, digest, noise, past_firmware, reach_prompt, stick
from test_faults import NUMBER

GROUP = "Disks"
GIB = 1 << 30


def listed(machine):
    """What list-disks prints: size, sector and mark of each number."""
    lines = machine.run("kestrix list-disks").splitlines()
    found = [re.fullmatch(r"PhysicalDrive(\d+) +([\d.]+) GiB  sector (\d+) bytes(.*)", line) for line in lines]
    assert all(found), lines
    assert [int(one[1]) for one in found] == list(range(len(found))), lines
    return [(one[2], int(one[3]), one[4].strip()) for one in found]


def cards(machine):
    return json.loads(machine.run("kestrix-keep disks --json"))["disks"]


def by_arrival(machine):
    """The kernel's own order of arrival, of what counts as a disk."""
    said = machine.run("grep . /sys/block/*/diskseq | sort -t: -k2n")
    names = [line.split("/")[3] for line in said.splitlines()]
    return ["/dev/" + name for name in names if not re.match(r"(loop|ram|zram|dm-|md|sr|fd)", name)]


def agree(machine, serials):
    """Both programs and the kernel see the same disks in the same order, and these serials among them."""
    shown, known, arrived = listed(machine), cards(machine), by_arrival(machine)
    assert [card["node"] for card in known] == arrived, (known, arrived)
    assert [f"{card['sizeBytes'] / GIB:.2f}" for card in known] == [one[0] for one in shown], shown
    assert [card["logicalSectorBytes"] for card in known] == [one[1] for one in shown], shown
    assert {card["serial"] for card in known} == set(serials), known
    assert not any(one[2] for one in shown), shown  # the stick runs from memory: none is the system's
    return known


@case(GROUP, "every kind of disk has its number; one that comes is the last, one that goes moves those behind it",
      short=True)
def test_numbers(folder):
    kinds = [("VIRTIO", "virtio", 512), ("NVME", "nvme", 512), ("NVME4K", "nvme", 4096), ("SATA", "sata", 512),
             ("USB", "usb", 512), ("SCSI", "scsi", 512), ("SCSI4K", "scsi", 4096)]
    disks = [Disk(blank(os.path.join(folder, serial), (32 + 16 * number) * MIB), kind, serial, sector,
                  name=serial.lower()) for number, (serial, kind, sector) in enumerate(kinds)]
    disks.append(Disk(blank(os.path.join(folder, "floppy"), 1440 * 1024), "floppy", name="floppy"))
    late = Disk(blank(os.path.join(folder, "late"), 208 * MIB), "usb", "LATE", name="late")
    serials = [serial for serial, _, _ in kinds]
    with Machine(os.path.join(folder, "line.log"), [*disks, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("modprobe floppy; udevadm settle", seconds=120, status=None)
        known = agree(machine, serials)
        sectors = {card["serial"]: card["logicalSectorBytes"] for card in known}
        assert sectors == {serial: sector for serial, _, sector in kinds}, sectors
        before = [card["serial"] for card in known]

        machine.tell("blockdev-add", **late.node())
        machine.tell("device_add", driver="usb-storage", bus="xhci.0", drive="late", id="dev-late", serial="LATE")
        machine.run("until lsblk -dno SERIAL | grep -q LATE; do sleep 1; done; udevadm settle", seconds=90)
        known = agree(machine, [*serials, "LATE"])
        assert [card["serial"] for card in known] == [*before, "LATE"], known

        machine.tell("device_del", id="dev-usb")
        machine.run("while lsblk -dno SERIAL | grep -qx 'USB *'; do sleep 1; done; udevadm settle", seconds=90)
        known = agree(machine, [serial for serial in [*serials, "LATE"] if serial != "USB"])
        assert [card["serial"] for card in known] == [one for one in [*before, "LATE"] if one != "USB"], known


# ---- The system disk ----

# Each: a name, and what makes /new a root folder on disk A, on A and B, or over A.
SYSTEMS = [
    ("a partition", "printf 'start=1MiB\\n' | sfdisk -q $A; udevadm settle; mkfs.ext4 -q ${A}1; mount ${A}1 /new"),
    ("LVM", "pvcreate -qy $A; vgcreate -q v $A; lvcreate -qy -n l -L 64M v; mkfs.ext4 -q /dev/v/l; "
     "mount /dev/v/l /new"),
    ("LVM on md", "yes | mdadm --create /dev/md9 --run --level=1 --raid-devices=2 $A $B; pvcreate -qy /dev/md9; "
     "vgcreate -q v /dev/md9; lvcreate -qy -n l -L 64M v; mkfs.ext4 -q /dev/v/l; mount /dev/v/l /new"),
    ("dm-crypt", "echo secret | cryptsetup luksFormat -q --pbkdf pbkdf2 --pbkdf-force-iterations 1000 $A; "
     "echo secret | cryptsetup open $A c; mkfs.ext4 -q /dev/mapper/c; mount /dev/mapper/c /new"),
    ("btrfs on two disks", "mkfs.btrfs -q -f $A $B; btrfs device scan >/dev/null; mount $A /new"),
]
UNMAKE = ("umount -R /new; vgchange -qan v 2>/dev/null; vgremove -qfy v 2>/dev/null; cryptsetup close c 2>/dev/null; "
          "mdadm --stop /dev/md9 2>/dev/null; udevadm settle; wipefs -qaf $A $B; blockdev --rereadpt $A; "
          "dd if=/dev/zero of=$A bs=1M count=8 conv=fsync status=none; udevadm settle; true")
# The same programs, over another root folder.
ENTER = ("cd /new && mkdir -p usr proc sys dev etc tmp run; cd /; for i in usr proc sys dev etc run; do "
         "mount --rbind /$i /new/$i; mount --make-rslave /new/$i; done; ln -s usr/bin usr/sbin usr/lib usr/lib64 /new/")


def refuses_stick(machine):
    """The root folder lies over a file on the stick, which makes it nobody's system disk, and not free to be taken."""
    refused = machine.run(f"kestrix restore --in /tmp/small.kstx --disk {NUMBER.format('RESCUE-STICK')} --confirm YES",
                          status=1)
    assert "FATAL" in refused, refused
    refused = machine.run("kestrix-keep restore --image /tmp/small.kstx --disk serial:RESCUE-STICK --yes-overwrite "
                          "RESCUE-STICK", status=1)
    assert "the running system was started from it" in refused, refused


@case(GROUP, "the system disk is found below a partition, LVM, LVM on md, dm-crypt and btrfs; restore refuses it, "
             "capture notes it; the stick that runs is refused too")
def test_system_disk(folder):
    disks = [Disk(blank(os.path.join(folder, name), 256 * MIB), "scsi", name, name=name.lower())
             for name in ("SYSTEMA", "SYSTEMB")]
    image = Disk(blank(os.path.join(folder, "image"), 64 * MIB), "virtio", "IMAGE", name="image")
    own = Disk(os.path.join(folder, "stick"), "usb", "RESCUE-STICK", name="stick")
    shutil.copy(STICK, own.path)
    with Machine(os.path.join(folder, "line.log"), [*disks, image, own], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("A=$(readlink -f /dev/disk/by-id/*SYSTEMA); B=$(readlink -f /dev/disk/by-id/*SYSTEMB); mkdir /new")
        assert not any(one[2] for one in listed(machine))
        machine.run(f"kestrix capture --disk {NUMBER.format('IMAGE')} --out /tmp/small.kstx", seconds=120)
        refuses_stick(machine)
        for name, make in SYSTEMS:
            machine.run(make, seconds=180)
            machine.run(ENTER)
            machine.run("mount --bind /tmp /new/tmp")
            shown = machine.run("chroot /new kestrix list-disks")
            marked = [re.match(r"PhysicalDrive(\d+)", line)[1] for line in shown.splitlines() if "system disk" in line]
            assert len(marked) == 1, f"{name}: {shown}"
            known = {card["number"]: card["node"] for card in cards(machine)}
            assert known[int(marked[0])] == machine.run("echo $A"), f"{name}: {shown}, {known}"
            refused = machine.run(f"chroot /new kestrix restore --in /tmp/small.kstx --disk {marked[0]} --confirm YES",
                                  status=1)
            assert "is the disk this copy of Windows is currently running from" in refused, f"{name}: {refused}"
            noted = machine.run(f"chroot /new kestrix capture --disk {marked[0]} --out /tmp/system.kstx", seconds=120)
            assert "NOTE: this is the currently booted system disk" in noted, f"{name}: {noted}"
            machine.run("rm /tmp/system.kstx; " + UNMAKE, seconds=120)
    assert digest(own.path) == digest(STICK)


# ---- In use ----

# Each: what takes disk A into use, and what lets it go.
USES = [
    ("mounted", "mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 $A; mount $A /new", "umount /new"),
    ("a partition of it mounted", "printf 'start=1MiB\\n' | sfdisk -q $A; udevadm settle; "
     "mkfs.ext4 -q -E lazy_itable_init=0,lazy_journal_init=0 ${A}1; "
     "mount ${A}1 /new", "umount /new"),
    ("swap", "mkswap -q $A; swapon $A", "swapoff $A"),
    ("an active volume group", "pvcreate -qy $A; vgcreate -q v $A; lvcreate -qy -n l -L 16M v",
     "vgchange -qan v; vgremove -qfy v"),
    ("a member of an array", "yes | mdadm --create /dev/md9 --run --level=1 --raid-devices=2 $A missing",
     "mdadm --stop /dev/md9"),
    ("LUKS, open", "echo secret | cryptsetup luksFormat -q --pbkdf pbkdf2 --pbkdf-force-iterations 1000 $A; "
     "echo secret | cryptsetup open $A c", "cryptsetup close c"),
    ("held by device mapper", "dmsetup create h --table \"0 2048 linear $A 0\"", "dmsetup remove h"),
]
READ = "dd if=$A iflag=direct bs=1M status=none | sha256sum"


@case(GROUP, "a disk in use is refused and untouched: mounted, swap, LVM, md, LUKS, held")
def test_in_use(folder):
    used = Disk(blank(os.path.join(folder, "used"), 64 * MIB), "scsi", "USED-DISK", name="used")
    source = Disk(noise(os.path.join(folder, "source"), 16 * MIB, 3), "virtio", "SOURCE", name="source")
    with Machine(os.path.join(folder, "line.log"), [used, source, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("A=$(readlink -f /dev/disk/by-id/*USED-DISK); mkdir /new")
        machine.run(f"N={NUMBER.format('USED-DISK')}; S={NUMBER.format('SOURCE')}; test -n \"$N\" -a -n \"$S\"")
        machine.run("kestrix capture --disk $S --out /tmp/source.kstx", seconds=120)
        for name, take, let_go in USES:
            machine.run(take, seconds=120)
            # What the kernel still has to write is none of what is looked for.
            machine.run("sync; sleep 3; sync; blockdev --flushbufs $A; " + READ + " >/tmp/before")
            said = machine.run("kestrix restore --in /tmp/source.kstx --disk $N --confirm YES", status=1)
            assert "FATAL" in said or "Could not" in said, f"{name}: {said}"
            said = machine.run("kestrix-keep restore --image /tmp/source.kstx --disk serial:USED-DISK "
                               "--yes-overwrite USED-DISK", status=1)
            assert "it is in use" in said and "Nothing was written" in said, f"{name}: {said}"
            machine.run(READ + " | cmp - /tmp/before")
            machine.run(f"{let_go}; udevadm settle; wipefs -qaf $A; blockdev --rereadpt $A; udevadm settle", seconds=60)
        machine.run("kestrix restore --in /tmp/source.kstx --disk $N --confirm YES", seconds=120)
        machine.type("poweroff")
        machine.wait_until_off()
    with open(used.path, "rb") as file:
        restored = file.read(16 * MIB)
    with open(source.path, "rb") as file:
        assert restored == file.read()
