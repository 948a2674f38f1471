"""A Debian machine on a disk: what a user would have installed, small, with Kestrix on it."""
import glob
import os
import shutil
import threading
import uuid

from cases import MIB, RESCUE, WORK, Disk, Machine, blank, host, past_firmware, reach_prompt, stick

PASSWORD = "rehearsal"
PACKAGES = ["linux-image-amd64", "systemd-sysv", "initramfs-tools", "zstd", "udev", "kmod", "dbus", "login", "passwd",
            "e2fsprogs", "lvm2", "cryptsetup-initramfs", "ntfs-3g", "cifs-utils", "nfs-common", "grub2-common",
            "grub-pc-bin", "procps", "iproute2", "util-linux-extra", "libssl3"]
# Drivers for what no machine of a rehearsal has, and what nobody reads there.
LEFT_OUT = ["/lib/modules/*/kernel/sound/*", "/lib/modules/*/kernel/drivers/media/*",
            "/lib/modules/*/kernel/drivers/gpu/*", "/lib/modules/*/kernel/drivers/net/wireless/*",
            "/lib/modules/*/kernel/drivers/net/ethernet/*", "/lib/modules/*/kernel/drivers/infiniband/*",
            "/lib/modules/*/kernel/drivers/staging/*", "/lib/modules/*/kernel/drivers/iio/*",
            "/lib/modules/*/kernel/drivers/hwmon/*", "/usr/share/doc/*", "/usr/share/man/*", "/usr/share/locale/*"]
ROOT_MIB = 600
EFI_MIB = 48
DISK_MIB = 680


# There is one folder with the system, and machines are made from it side by side.
ONE_AT_A_TIME = threading.RLock()


def packages_of_kestrix():
    return sorted(glob.glob(os.path.join(RESCUE, "packages", "kestrix_*.deb")))


def system():
    """The folder with a Debian system in it, made once."""
    tree = os.path.join(WORK, "debian")
    with ONE_AT_A_TIME:
        make_system(tree)
    return tree


def make_system(tree):
    if os.path.exists(os.path.join(tree, "made")):
        return
    shutil.rmtree(tree, ignore_errors=True)
    os.makedirs(tree)
    debs = packages_of_kestrix()
    hooks = [
        f'mkdir "$1/tmp/k" && cp {" ".join(debs)} "$1/tmp/k/"',
        'chroot "$1" sh -c "apt-get install -y -qq --no-install-recommends /tmp/k/*.deb"; rm -r "$1/tmp/k"',
        f'mkdir -p {tree}/loader && cd {tree}/loader && APT_CONFIG=$MMDEBSTRAP_APT_CONFIG apt-get download -qq '
        'shim-signed shim-helpers-amd64-signed grub-efi-amd64-signed && for d in *.deb; do dpkg-deb -x "$d" .; done',
        f'echo root:{PASSWORD} | chroot "$1" chpasswd',
        'echo CRYPTSETUP=y >>"$1/etc/cryptsetup-initramfs/conf-hook"; chroot "$1" update-initramfs -u',
        'rm -rf "$1"/var/lib/apt/lists/* "$1"/var/cache/apt/*.bin',
    ]
    host("mmdebstrap", "--variant=minbase", "--components=main", f"--include={','.join(PACKAGES)}",
         *[f"--dpkgopt=path-exclude={path}" for path in LEFT_OUT], *[f"--customize-hook={hook}" for hook in hooks],
         "bookworm", os.path.join(tree, "root"))
    write(os.path.join(tree, "made"), "")


def kernel_of(tree):
    return [os.path.basename(glob.glob(os.path.join(tree, "root", "boot", name))[0]) for name in
            ("vmlinuz-*", "initrd.img-*")]


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def root_file_system(*arguments, **options):
    with ONE_AT_A_TIME:
        return make_root_file_system(*arguments, **options)


def make_root_file_system(path, fstab, root, search, options="", before=""):
    """An ext4 file system with the system on it. root is what the kernel mounts; search, how GRUB finds /boot."""
    tree = system()
    kernel, initrd = kernel_of(tree)
    folder = os.path.join(tree, "root")
    write(f"{folder}/etc/fstab", fstab)
    write(f"{folder}/etc/hostname", "machine\n")
    write(f"{folder}/boot/grub/grub.cfg",
          f"set timeout=0\n{before}\n{search}\nlinux /boot/{kernel} root={root} ro console=ttyS0,115200 {options}\n"
          f"initrd /boot/{initrd}\nboot\n")
    identity = str(uuid.uuid4())
    host("mke2fs", "-q", "-t", "ext4", "-U", identity, "-L", "system", "-d", folder, blank(path, ROOT_MIB * MIB))
    return identity


def place(disk, part, offset):
    host("dd", f"if={part}", f"of={disk}", "bs=1M", f"seek={offset}", "conv=notrunc,sparse", "status=none")


def efi_system(path, identity, fallback, prefix="/boot/grub"):
    """The EFI partition as an installation leaves it; with fallback also as a removable medium has it."""
    loader = os.path.join(system(), "loader", "usr", "lib")
    config = path + ".cfg"
    write(config, f"search.fs_uuid {identity} root\nset prefix=($root)'{prefix}'\nconfigfile $prefix/grub.cfg\n")
    host("mkfs.fat", "-F", "16", blank(path, EFI_MIB * MIB))
    folders = ["::/EFI", "::/EFI/debian"] + (["::/EFI/BOOT"] if fallback else [])
    host("mmd", "-i", path, *folders)
    shim, manager = f"{loader}/shim/shimx64.efi.signed", f"{loader}/shim/mmx64.efi.signed"
    grub = f"{loader}/grub/x86_64-efi-signed/grubx64.efi.signed"
    for source, target in ((shim, "debian/shimx64.efi"), (manager, "debian/mmx64.efi"), (grub, "debian/grubx64.efi"),
                           (config, "debian/grub.cfg")):
        host("mcopy", "-i", path, source, f"::/EFI/{target}")
    if fallback:
        for source, target in ((shim, "BOOTX64.EFI"), (manager, "mmx64.efi"), (grub, "grubx64.efi")):
            host("mcopy", "-i", path, source, f"::/EFI/BOOT/{target}")


def gpt_machine(folder, fallback=True, extra_fstab=""):
    """A disk with a GPT: an EFI partition, the system, and the old disk's remaining room."""
    disk, root, efi = [os.path.join(folder, name) for name in ("system.disk", "root.part", "efi.part")]
    blank(disk, DISK_MIB * MIB)
    host("sfdisk", "-q", disk, text="label: gpt\n"
         f"start=1MiB, size={EFI_MIB}MiB, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name=EFI\n"
         f"size={ROOT_MIB}MiB, type=4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709, name=system\n")
    identity = root_file_system(root, f"LABEL=system / ext4 errors=remount-ro 0 1\n{extra_fstab}", "LABEL=system",
                                "search --set=root --label system")
    efi_system(efi, identity, fallback)
    place(disk, efi, 1)
    place(disk, root, 1 + EFI_MIB)
    for part in (root, efi):
        os.remove(part)
    return disk


# ---- What the kernel of this machine may not know is made inside of one on the stick ----

def installed(folder, commands, root, disk_bytes, prepare=None):
    """A disk that the commands make, $D, from the root file system in the file, $R."""
    disk = blank(os.path.join(folder, "system.disk"), disk_bytes)
    if prepare:
        prepare(disk)
    with Machine(os.path.join(folder, "install.log"),
                 [Disk(disk, "sata", "INSTALL"), Disk(root, "virtio", "ROOTFS", writable=False), stick()],
                 past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("D=$(readlink -f /dev/disk/by-id/*INSTALL); R=$(readlink -f /dev/disk/by-id/*ROOTFS)")
        for command in commands:
            machine.run(command, seconds=400)
        machine.type("poweroff")
        machine.wait_until_off()
    os.remove(root)
    return disk


def lvm_machine(folder):
    """A disk with an MBR, started by BIOS, with one partition that is a volume group's."""
    root = os.path.join(folder, "root.part")
    root_file_system(root, "/dev/system/root / ext4 errors=remount-ro 0 1\n/dev/system/swap none swap sw 0 0\n",
                     "/dev/mapper/system-root", "search --set=root --label system", before="insmod lvm")
    return installed(folder, [
        "printf 'label: dos\\nstart=1MiB, type=8e, bootable\\n' | sfdisk -q $D; udevadm settle",
        f"pvcreate -qy ${{D}}1; vgcreate -q system ${{D}}1; lvcreate -qy -n root -L {ROOT_MIB}M system; "
        "lvcreate -qy -n swap -L 32M system; mkswap -q /dev/system/swap",
        "dd if=$R of=/dev/system/root bs=4M conv=fsync status=none",
        "mount /dev/system/root /mnt; for i in dev proc sys run; do mount --rbind /$i /mnt/$i; "
        "mount --make-rslave /mnt/$i; done",
        "chroot /mnt grub-install --target=i386-pc $D",
        "umount -l /mnt/dev /mnt/proc /mnt/sys /mnt/run; umount /mnt; vgchange -qan system"], root, DISK_MIB * MIB)


def luks_machine(folder):
    """A disk with a GPT, started by UEFI, with /boot in the clear and the system in LUKS."""
    root, efi, boot = [os.path.join(folder, name) for name in ("root.part", "efi.part", "boot.part")]
    root_file_system(root, "/dev/mapper/root / ext4 errors=remount-ro 0 1\n", "/dev/mapper/root",
                     "search --set=root --label system")
    tree = os.path.join(system(), "root", "boot")
    kernel, initrd = kernel_of(system())
    write(os.path.join(folder, "grub", "grub.cfg"),
          f"set timeout=0\nsearch --set=root --label BOOT\nlinux /{kernel} root=/dev/mapper/root ro "
          f"console=ttyS0,115200 cryptopts=target=root,source=PARTLABEL=secret\ninitrd /{initrd}\nboot\n")
    for name in (kernel, initrd):
        shutil.copy(f"{tree}/{name}", folder)
    start = os.path.join(folder, "boot")
    os.makedirs(start)
    for name in (kernel, initrd, "grub"):
        shutil.move(os.path.join(folder, name), start)
    host("mke2fs", "-q", "-t", "ext4", "-L", "BOOT", "-d", start, blank(boot, 96 * MIB))
    identity = host("blkid", "-p", "-s", "UUID", "-o", "value", boot).strip()
    efi_system(efi, identity, True, "/grub")

    def prepare(disk):
        host("sfdisk", "-q", disk, text="label: gpt\n"
             f"start=1MiB, size={EFI_MIB}MiB, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name=EFI\n"
             f"size=96MiB, name=boot\nsize={ROOT_MIB + 17}MiB, name=secret\n")
        place(disk, efi, 1)
        place(disk, boot, 1 + EFI_MIB)
    return installed(folder, [
        f"S=/dev/disk/by-partlabel/secret; printf {PASSWORD} | cryptsetup luksFormat -q --pbkdf pbkdf2 "
        "--pbkdf-force-iterations 1000 $S -",
        f"printf {PASSWORD} | cryptsetup open --key-file - $S secret",
        "dd if=$R of=/dev/mapper/secret bs=4M conv=fsync status=none; cryptsetup close secret"],
        root, (DISK_MIB + 120) * MIB, prepare)
