"""The bad day: a machine is captured by its own scheduled job, its disk becomes noise, the stick brings it back."""
import os
import re
import subprocess

import debian
from cases import (MIB, PLAIN_DIGESTS, Disk, Machine, blank, case, host, make_ready, noise, past_firmware,
                   reach_prompt, stick)

GROUP = "The bad day"
BACKUP_MIB = 1200
# What the machine itself writes all the time is no part of the comparison, nor is all that would take minutes.
MANIFEST = ("find /boot /etc /root /usr/bin /usr/sbin /usr/lib/systemd -xdev -type f ! -name manifest "
            "! -name .bash_history -print0 | sort -z | xargs -0 sha256sum")


# ---- Parts of the day ----

def backup_disk(folder, system):
    """A disk with one partition, labelled BACKUP: of ext4 or of NTFS."""
    disk, part = os.path.join(folder, "backup.disk"), os.path.join(folder, "backup.part")
    blank(disk, BACKUP_MIB * MIB)
    blank(part, (BACKUP_MIB - 2) * MIB)
    if system == "ntfs":
        host("mkntfs", "-F", "-Q", "-q", "-L", "BACKUP", part)
    else:
        host("mke2fs", "-q", "-t", system, "-L", "BACKUP", part)
    kind = "7" if system == "ntfs" else "83"
    host("sfdisk", "-q", disk, text=f"label: dos\nstart=1MiB, size={BACKUP_MIB - 2}MiB, type={kind}\n")
    debian.place(disk, part, 1)
    os.remove(part)
    return disk


def log_in(machine, passphrase=None, seconds=420):
    """From the firmware to a shell of the machine's own root."""
    if passphrase:
        machine.expect("unlock disk .*: ?$", seconds=seconds)
        machine.type(passphrase)
    machine.expect(r"login: $", seconds=seconds)
    machine.type("root")
    machine.expect("Password: $")
    machine.type(debian.PASSWORD)
    machine.expect("# $")
    make_ready(machine, "# $")


def capture(machine, serial, password=None, writer=""):
    """Inside of the machine: a job, scheduled, and run by its service."""
    machine.run("mkdir -p /mnt/backup /etc/kestrix && mount LABEL=BACKUP /mnt/backup && mkdir -p /mnt/backup/system")
    machine.run("identity=$(findmnt -no UUID /mnt/backup); test -n \"$identity\"")
    machine.run("printf '[job.system]\\ndisk = \"serial:%s\"\\nfolder = \"/mnt/backup/system\"\\nfolder-must-be = "
                f"\"uuid:%s\"\\n' {serial} \"$identity\" >/etc/kestrix/keep.toml")
    if password:
        machine.run(f"umask 077; printf '{password}' >/etc/kestrix/password; umask 022; "
                    "echo 'password-file = \"/etc/kestrix/password\"' >>/etc/kestrix/keep.toml")
    machine.run(f"{MANIFEST} >/root/manifest; sync", seconds=300)
    machine.run("kestrix-keep schedule system --daily 05:00", seconds=120)
    machine.run("systemctl is-active kestrix-keep-system.timer")
    if writer:
        machine.run(writer)
    machine.run(f"systemctl set-environment '{PLAIN_DIGESTS}'")
    machine.run("systemctl start kestrix-keep-system.service", seconds=900, status=None)
    said = machine.run("journalctl -u kestrix-keep-system.service -o cat --no-pager")
    assert machine.run("systemctl show -P Result kestrix-keep-system.service") == "success", said
    status = machine.run("kestrix-keep status", status=None)
    machine.run("ls -l /mnt/backup/system; umount /mnt/backup")
    return said + status


def go_off(machine):
    machine.type("poweroff")
    machine.wait_until_off(240)


def answer_restore(machine, serial, moves=False, password=None, refused=(), folder="/mnt/backup/system", live=False):
    """Types what a person would: reads the cards, tries disks that must not be taken, and then takes the right one."""
    machine.expect("In which folder.*lie\\?")
    machine.type(folder)
    card = machine.expect("((?:.|\n)*)Which image is to be restored\\?.*:")[1]
    assert ("read live" in card) == live, card
    machine.type("1")
    if password:
        machine.expect("Its password")
        machine.type(password)
    if machine.expect("Is the image to be checked first\\?.*:", "Reading and checking", seconds=180)[0][0] == "I":
        machine.type("1")
    machine.expect("The image is sound", seconds=900)
    for one in refused:
        number, _ = disk_of(machine, one)
        machine.type(number)
        machine.expect(f"Disk {number} can't be overwritten: ")
    number, _ = disk_of(machine, serial)
    machine.type(number)
    count = machine.expect("type the last (\\d+) characters of its serial:")[1]
    machine.type(serial[-int(count):])
    if moves:
        machine.expect("Is it to be moved\\?.*:", seconds=1800)
        machine.type("1")
    assert machine.expect("RESTORED: |NOT DONE: .*", seconds=1800)[0] == "RESTORED: "


def disk_of(machine, serial):
    """The number of a disk, by the card that is shown."""
    cards = machine.expect("(The disks of this machine(?:.|\n)*?)Which disk is to be overwritten\\?.*:")[1]
    card = [card for card in re.split(r"\n(?=disk \d+: )", cards) if f"serial: {serial}\n" in card]
    assert len(card) == 1, f"{serial}: {cards}"
    return re.match(r"disk (\d+):", card[0])[1], card[0]


def restore(folder, target, backup, boots, stick_kind="usb", **answers):
    """The stick, to the end of the guided restore."""
    with Machine(os.path.join(folder, "stick.log"), [stick(stick_kind), target, backup],
                 past_firmware() if boots is None else boots) as machine:
        reach_prompt(machine, seconds=600)
        machine.run("mkdir -p /mnt/backup && mount -o ro /dev/disk/by-label/BACKUP /mnt/backup")
        machine.type("restore")
        answer_restore(machine, target.serial, **answers)
        machine.expect("# $")
        machine.run("umount /mnt/backup")
        go_off(machine)


def compare_files(machine):
    """The files of the machine are as they were when it was captured."""
    assert machine.run("sha256sum --quiet -c /root/manifest && wc -l </root/manifest", seconds=400).isdigit()
    assert machine.run("systemctl --failed --plain --no-legend") == ""


# Files that come, grow and go, each put onto the disk at once.
WRITER = ("(i=0; while :; do i=$((i+1)); dd if=/dev/urandom of=/var/tmp/w$((i%40)) bs=64k count=$((i%9+1)) conv=fsync "
          "status=none; rm -f /var/tmp/w$(((i+20)%40)); done) & true")


def found_by_fsck(folder, disk):
    """What the check of the system's file system finds, once the journal was replayed, as at the first start."""
    part = os.path.join(folder, "restored.part")
    host("dd", f"if={disk}", f"of={part}", "bs=1M", f"skip={1 + debian.EFI_MIB}", f"count={debian.ROOT_MIB}",
         "conv=sparse", "status=none")
    host("truncate", "-s", f"{debian.ROOT_MIB}M", part)
    replayed, done = [subprocess.run(["e2fsck", *options, part], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, check=False) for options in (["-E", "journal_only", "-p"], ["-fn"])]
    assert replayed.returncode in (0, 1), replayed.stdout
    os.remove(part)
    return "fsck finds nothing" if done.returncode == 0 else "fsck finds " + "; ".join(
        line.strip() for line in done.stdout.splitlines()[2:8] if line.strip())


def bad_day(folder, make=debian.gpt_machine, *, machine_boots, stick_boots, source, target, target_bytes=None,
            backup_kind="virtio", backup_system="ext4", passphrase=None, password=None, writer=""):
    """source and target are what the disk is plugged in as; writer, what writes on while it is captured."""
    system = make(folder)
    backup = backup_disk(folder, backup_system)
    with Machine(os.path.join(folder, "machine.log"),
                 [Disk(system, source, "OLD-DISK-4711", boots=0), Disk(backup, backup_kind, "BACKUP-DISK-7")],
                 machine_boots) as machine:
        log_in(machine, passphrase)
        capture(machine, "OLD-DISK-4711", password, writer)
        go_off(machine)
    size = os.path.getsize(system)
    new = noise(system, target_bytes or size, 2)
    serial = "OLD-DISK-4711" if source == target else "NEW-DISK-0815"
    restore(folder, Disk(new, target, serial), Disk(backup, backup_kind, "BACKUP-DISK-7"), stick_boots,
            moves=bool(target_bytes), refused=["BACKUP-DISK-7", "RESCUE-STICK"], password=password, live=True)
    noted = found_by_fsck(folder, new) if writer else None
    with Machine(os.path.join(folder, "again.log"), [Disk(new, target, serial, boots=0)], machine_boots) as machine:
        log_in(machine, passphrase)
        compare_files(machine)
        go_off(machine)
    return noted


@case(GROUP, "GPT, UEFI: onto an equal disk")
def test_equal_disk(folder):
    bad_day(folder, machine_boots="uefi", stick_boots="uefi", source="sata", target="sata")


@case(GROUP, "GPT, UEFI with Secure Boot: captured while it writes, onto a larger disk of another kind (SATA to NVMe), "
             "from a USB disk with NTFS")
def test_larger_disk(folder):
    return bad_day(folder, machine_boots="secure", stick_boots="secure", source="sata", target="nvme",
                   target_bytes=760 * MIB, backup_kind="usb", backup_system="ntfs", writer=WRITER)


@case(GROUP, "MBR and LVM, BIOS: onto an equal disk of another kind (SATA to virtio)")
def test_lvm(folder):
    bad_day(folder, debian.lvm_machine, machine_boots="bios", stick_boots="bios", source="sata", target="virtio")


@case(GROUP, "LUKS, UEFI: sealed images whose password is typed, onto an equal disk")
def test_luks(folder):
    bad_day(folder, debian.luks_machine, machine_boots="uefi", stick_boots="uefi", source="sata", target="sata",
            passphrase=debian.PASSWORD, password="secret of the images")
