"""A disk as Windows lays one out, captured and restored by the stick."""
import os

import debian
from cases import MIB, Disk, Machine, blank, case, digest, host, noise, past_firmware, reach_prompt, stick

GROUP = "A Windows-like disk"
# Name, type, MiB: what the setup of Windows makes, in its order, made small.
PARTITIONS = [("EFI system partition", "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", 64),
              ("Microsoft reserved partition", "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", 16),
              ("Basic data partition", "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 160),
              ("Recovery", "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", 48)]
DISK_MIB = 300


def parts(folder):
    """A file for each partition, filled as Windows fills it."""
    paths = [os.path.join(folder, f"part{number}") for number in range(1, 5)]
    letter = noise(os.path.join(folder, "letter.dat"), 7 * MIB, 5)
    host("mkfs.fat", "-F", "32", "-n", "SYSTEM", blank(paths[0], PARTITIONS[0][2] * MIB))
    host("mmd", "-i", paths[0], "::/EFI", "::/EFI/Microsoft")
    host("mcopy", "-i", paths[0], letter, "::/EFI/Microsoft/bootmgfw.efi")
    noise(paths[1], PARTITIONS[1][2] * MIB, 6)
    for path, label, size in ((paths[2], "Windows", PARTITIONS[2][2]), (paths[3], "Recovery", PARTITIONS[3][2])):
        host("mkntfs", "-F", "-Q", "-q", "-L", label, blank(path, size * MIB))
        host("ntfscp", "-f", path, letter, "letter.dat")
    return paths


def part(disk, start, size):
    path = disk + ".part"
    with open(disk, "rb") as file, open(path, "wb") as out:
        file.seek(start * MIB)
        out.write(file.read(size * MIB))
    return path


@case(GROUP, "EFI, MSR, NTFS and recovery partition: captured, and restored onto a larger disk of another kind; each "
             "partition is the same, NTFS clean")
def test_windows_disk(folder):
    old = blank(os.path.join(folder, "old"), DISK_MIB * MIB)
    host("sfdisk", "-q", old, text="label: gpt\n" + "".join(
        f'start={1 + sum(size for _, _, size in PARTITIONS[:number])}MiB, size={size}MiB, type={kind}, name="{name}"\n'
        for number, (name, kind, size) in enumerate(PARTITIONS)))
    for number, path in enumerate(parts(folder)):
        debian.place(old, path, 1 + sum(size for _, _, size in PARTITIONS[:number]))
    new = noise(os.path.join(folder, "new"), (DISK_MIB + 100) * MIB, 7)
    store = blank(os.path.join(folder, "store"), (DISK_MIB + 100) * MIB)
    host("mke2fs", "-q", "-t", "ext4", "-L", "BACKUP", store)
    before = digest(old)
    with Machine(os.path.join(folder, "line.log"),
                 [Disk(old, "sata", "WINDOWS-OLD"), Disk(new, "nvme", "WINDOWS-NEW"), Disk(store, "virtio", "STORE"),
                  stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("mount /dev/disk/by-label/BACKUP /mnt")
        shown = machine.run("kestrix-keep disks")
        for name in ("(EFI system partition)", "ntfs, label Windows", "ntfs, label Recovery", "partition table: gpt"):
            assert name in shown, shown
        machine.run("N=$(kestrix-keep disks | grep -B3 'serial: WINDOWS-OLD' | sed -n 's/^disk \\([0-9]*\\):.*/\\1/p')")
        machine.run("kestrix capture --disk $N --out /mnt/windows.kstx", seconds=400)
        machine.run("kestrix verify --in /mnt/windows.kstx", seconds=400)
        said = machine.run("kestrix-keep restore --image /mnt/windows.kstx --disk serial:WINDOWS-NEW --yes-overwrite "
                           "WINDOWS-NEW --move-backup-gpt", seconds=900)
        assert "RESTORED: " in said, said
        machine.run("umount /mnt")
        machine.type("poweroff")
        machine.wait_until_off()
    assert digest(old) == before
    assert "No errors detected" in host("sfdisk", "--verify", new)
    begin = 1
    for name, _, size in PARTITIONS:
        assert digest(part(new, begin, size)) == digest(part(old, begin, size)), name
        if name in ("Basic data partition", "Recovery"):
            assert "processed successfully" in host("ntfsfix", "-n", part(new, begin, size))
        begin += size
