"""The stick starts, says what it is, and leaves every disk alone."""
import os

from cases import (MIB, Disk, Machine, PROMPT, blank, case, digests, host, noise, past_firmware, reach_prompt, stick)

GROUP = "The stick"


def starts(folder, kind, boots):
    with Machine(os.path.join(folder, "line.log"), [stick(kind)], boots) as machine:
        said = machine.expect(r"This is the Kestrix rescue stick\.((?:.|\n)*?)" + PROMPT, seconds=600)
        for word in ("restore", "network", "pages recovery-linux"):
            assert word in said[1], said[1]
        reach_again(machine)
        assert machine.run("id -u") == "0"
        assert "sanity" not in machine.run("kestrix-keep --version")
        is_uefi = machine.run("test -d /sys/firmware/efi && echo yes || echo no")
        assert is_uefi == ("no" if boots == "bios" else "yes")
        if boots == "secure":
            assert "Secure boot enabled" in machine.run("dmesg | grep -i 'secure boot'")
        # A disk that fails holds up who tells the system of its devices, and the serial line is one.
        assert machine.run("systemctl show -P JobRunningTimeoutUSec dev-ttyS0.device") == "infinity"
        assert machine.run("ip -4 -brief address | grep -v ^lo", status=1) == ""
        machine.type("poweroff")
        machine.wait_until_off()


def reach_again(machine):
    machine.type("")
    reach_prompt(machine)


@case(GROUP, "starts by BIOS from a CD")
def test_bios_cd(folder):
    starts(folder, "cd", "bios")


@case(GROUP, "starts by BIOS from a USB stick")
def test_bios_usb(folder):
    starts(folder, "usb", "bios")


@case(GROUP, "starts by UEFI from a CD")
def test_uefi_cd(folder):
    starts(folder, "cd", "uefi")


@case(GROUP, "starts by UEFI from a USB stick")
def test_uefi_usb(folder):
    starts(folder, "usb", "uefi")


@case(GROUP, "starts by UEFI with Secure Boot from a USB stick", short=True)
def test_secure_usb(folder):
    starts(folder, "usb", "secure")


# ---- It leaves the disks alone ----

# What a system that means well would start, replay, resume or take for its own, made by a machine that is cut off in
# the middle of its work.
TEMPTATIONS = """
mkfs.ext4 -q -F /dev/disk/by-id/virtio-JOURNAL
mkfs.xfs -q -f /dev/disk/by-id/virtio-XFSLOG
mdadm --create /dev/md0 --run --metadata=1.2 --level=1 --raid-devices=2 /dev/disk/by-id/virtio-MEMBER1 missing
mdadm --create /dev/md1 --run --force --metadata=0.90 --level=1 --raid-devices=1 /dev/disk/by-id/virtio-MEMBER2
mkfs.ext4 -q /dev/md0
pvcreate -q -y /dev/disk/by-id/virtio-VOLUME && vgcreate -q tempting /dev/disk/by-id/virtio-VOLUME
lvcreate -q -y -n root -L 32M tempting && mkfs.ext4 -q -L root /dev/tempting/root
printf 'label: gpt\\ntype=0657FD6D-A4AB-43C4-84E5-0933C8484B4F, size=16MiB\\n' | sfdisk -q /dev/disk/by-id/virtio-SLEEP
udevadm settle; mkswap -q /dev/disk/by-id/virtio-SLEEP-part1
printf 'S1SUSPEND\\0' | dd of=/dev/disk/by-id/virtio-SLEEP-part1 bs=1 seek=4086 conv=notrunc,fsync status=none
mkfs.btrfs -q -f /dev/disk/by-id/virtio-BTRFS1 /dev/disk/by-id/virtio-BTRFS2
mkdir /mnt/a /mnt/b /mnt/c /mnt/d
mount /dev/disk/by-id/virtio-JOURNAL /mnt/a; mount /dev/disk/by-id/virtio-XFSLOG /mnt/b
mount /dev/md0 /mnt/c; mount /dev/tempting/root /mnt/d
for f in /mnt/?; do for i in $(seq 200); do echo $i >$f/file$i; done; sync -f $f; rm $f/file1*; done
for f in /mnt/?; do for i in $(seq 300 400); do echo $i >$f/file$i; done; sync $f/file400; done
"""
TEMPTED = ["JOURNAL", "MEMBER1", "MEMBER2", "VOLUME", "SLEEP", "BTRFS1", "BTRFS2", "XFSLOG"]


def impostors(folder):
    """Disks that would be taken for the stick by a search that is content with less than its very name."""
    tree = os.path.join(folder, "tree")
    for name in ("live", "rescue", "casper", ".disk", "boot/grub"):
        os.makedirs(os.path.join(tree, name))
    os.makedirs(os.path.join(folder, "wrong", "etc"))
    host("mksquashfs", os.path.join(folder, "wrong"), os.path.join(tree, "live", "filesystem.squashfs"), "-quiet",
         "-no-progress")
    for name in ("rescue/0123456789abcdef.squashfs", "casper/filesystem.squashfs"):
        os.link(os.path.join(tree, "live", "filesystem.squashfs"), os.path.join(tree, name))
    with open(os.path.join(tree, ".disk", "info"), "w", encoding="utf-8") as file:
        file.write("Kestrix rescue stick\n")
    with open(os.path.join(tree, "boot", "grub", "grub.cfg"), "w", encoding="utf-8") as file:
        file.write("echo wrong; halt\n")
    ext4, iso, fat = [os.path.join(folder, name) for name in ("live.ext4", "live.iso", "live.fat")]
    host("mke2fs", "-q", "-t", "ext4", "-d", tree, blank(ext4, 32 * MIB))
    host("xorriso", "-as", "mkisofs", "-quiet", "-R", "-V", "KESTRIX_RESCUE", "-o", iso, tree)
    host("mkfs.fat", "-n", "KESTRIX", blank(fat, 32 * MIB))
    host("mcopy", "-s", "-i", fat, *[os.path.join(tree, name) for name in ("live", ".disk", "boot")], "::")
    return [Disk(ext4, "sata", "LIVE-EXT4", name="liveext4"), Disk(iso, "virtio", "LIVE-ISO", name="liveiso"),
            Disk(fat, "usb", "LIVE-FAT", name="livefat")]


def tempting_disks(folder):
    """Made by a first machine, whose power is cut."""
    disks = [Disk(blank(os.path.join(folder, name), (320 if name == "XFSLOG" else 128) * MIB), "virtio", name,
                  name=name.lower()) for name in TEMPTED]
    with Machine(os.path.join(folder, "maker.log"), [*disks, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        for line in TEMPTATIONS.strip().splitlines():
            machine.run(line, seconds=180)
        machine.cut_power()
    assert b"needs_recovery" in host("dumpe2fs", "-h", disks[0].path).encode()
    return disks


@case(GROUP, "a start to the prompt changes no byte of any disk, and none is taken for the stick", short=True)
def test_leaves_disks_alone(folder):
    disks = [Disk(noise(os.path.join(folder, "noise"), 16 * MIB, 1), "nvme", "NOISE", name="noise")]
    disks += tempting_disks(folder) + impostors(folder)
    before = digests(disk.path for disk in disks)
    with Machine(os.path.join(folder, "line.log"), [*disks, stick("usb")], "uefi") as machine:
        reach_prompt(machine, seconds=600)
        machine.run("udevadm settle --timeout=120; systemctl is-system-running --wait", seconds=240, status=None)
        serials = machine.run("lsblk -dno SERIAL").split()
        assert set(serials) >= {disk.serial for disk in disks}, serials
        assert "active" not in machine.run("cat /proc/mdstat", status=None)
        assert "No devices found" in machine.run("dmsetup ls")
        assert len(machine.run("cat /proc/swaps").splitlines()) == 1
        mounted = machine.run("findmnt -rno SOURCE | grep ^/dev/ | sort -u").split()
        medium = machine.run("findmnt -no SOURCE /run/live/medium")
        assert machine.run(f"lsblk -no SERIAL {medium}").split()[0] == "RESCUE-STICK"
        assert all(source == medium or source.startswith("/dev/loop") for source in mounted), mounted
        assert machine.run("cat /etc/hostname") == "kestrix-rescue"
        machine.type("poweroff")
        machine.wait_until_off()
    assert digests(before) == before
