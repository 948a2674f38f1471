"""Disks with file systems on them, made in user space: no kernel of the machine need know the file system or the
partition table. Each file system holds the file hello.txt; a few partitions hold no file system but what one lies in.
"""
import os
import struct
import subprocess
import zlib

MIB = 1024 * 1024
HELLO = b"hello from a file\n"
BLOCK = 4096


def run(*command, text=None):
    done = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stdout}")
    return done.stdout


class Maker:
    """Makes file systems as files in a folder. loop gives a loop device of a file, where a tool wants a device."""

    def __init__(self, folder, loop):
        self.folder, self.loop = folder, loop
        self.content = os.path.join(folder, "content")
        os.mkdir(self.content)
        self.put("content/hello.txt", HELLO)

    def path(self, name):
        return os.path.join(self.folder, name)

    def put(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def sized(self, name, mebibytes):
        path = self.put(name, b"")
        os.truncate(path, mebibytes * MIB)
        return path

    def ext4(self, name, label, *options):
        path = self.sized(name, 16)
        run("mke2fs", "-q", "-t", "ext4", "-L", label, "-d", self.content, *options, path)
        return path

    def ext4_after_a_crash(self, name, label, data):
        """Its journal holds a block for hello.txt that has not yet got to its place."""
        path = self.ext4(name, label, "-b", str(BLOCK))
        block = run("debugfs", "-R", "blocks /hello.txt", path).split()[-1]
        journal = self.put("journal", data.ljust(BLOCK, b"\0"))
        run("debugfs", "-w", "-f", self.put("commands", f"jo\njw -b {block} {journal}\njc\n".encode()), path)
        if "needs_recovery" not in run("dumpe2fs", "-h", path):
            raise RuntimeError("the journal is empty")
        return path

    def ext4_that_is_cut_off(self, name, label):
        """It says of itself that it has more blocks than the partition."""
        path = self.ext4(name, label, "-O", "^metadata_csum")
        with open(path, "r+b") as file:
            file.seek(1024 + 4)
            file.write(struct.pack("<I", 1 << 24))
        return path

    def xfs(self, name, label):
        path = self.sized(name, 32)
        proto = self.put("proto", f"/\n0 0\nd--755 0 0\nhello.txt ---644 0 0 {self.content}/hello.txt\n$\n".encode())
        run("mkfs.xfs", "-q", "--unsupported", "-L", label, "-p", proto, path)
        return path

    def btrfs(self, name, label):
        path = self.sized(name, 40)
        run("mkfs.btrfs", "-q", "--mixed", "-m", "single", "-d", "single", "-L", label, "--rootdir", self.content, path)
        return path

    def ntfs(self, name, label):
        path = self.sized(name, 8)
        run("mkntfs", "-q", "-F", "-L", label, path)
        run("ntfscp", "-q", path, f"{self.content}/hello.txt", "hello.txt")
        return path

    def vfat(self, name, label):
        path = self.sized(name, 8)
        run("mkfs.vfat", "-n", label, path)
        run("mcopy", "-i", path, f"{self.content}/hello.txt", "::hello.txt")
        return path

    def exfat(self, name, label):
        path = self.sized(name, 8)
        run("mkfs.exfat", "-L", label, path)
        folder = self.path("mounted")
        os.mkdir(folder)
        run("mount.exfat-fuse", self.loop(path), folder)
        try:
            run("cp", f"{self.content}/hello.txt", folder)
        finally:
            run("umount", folder)
            os.rmdir(folder)
        return path

    def swap(self, name):
        path = self.sized(name, 1)
        run("mkswap", path)
        return path

    def luks(self, name):
        return self.put(name, (b"LUKS\xba\xbe" + struct.pack(">H", 1)).ljust(MIB, b"\0"))

    def lvm(self, name):
        header = struct.pack("<I", 32) + b"LVM2 001" + b"0123456789abcdefghijklmnopqrstuv"
        body = header.ljust(492, b"\0")
        # The digest of these labels starts from a value of their own.
        start = 0xF597A6CF
        crc = zlib.crc32(body, start ^ 0xFFFFFFFF) ^ 0xFFFFFFFF
        label = b"LABELONE" + struct.pack("<QI", 1, crc) + body
        return self.put(name, (bytes(512) + label).ljust(2 * MIB, b"\0"))  # on less nobody looks for one

    def bitlocker(self, name):
        at = 64 * 1024
        boot = bytearray(b"\xeb\x58\x90-FVE-FS-".ljust(512, b"\0"))
        boot[176:184] = struct.pack("<Q", at)
        metadata = b"-FVE-FS-" + struct.pack("<HH", 64, 2)
        return self.put(name, (bytes(boot).ljust(at, b"\0") + metadata).ljust(MIB, b"\0"))

    def disk(self, name, kind, partitions, sectorSize=512):
        """A disk with these files as its partitions, one MiB apart. The table is sfdisk's, of the given kind; for MBR
        those behind the third are logical ones."""
        table, start, places = [f"label: {kind}"], MIB, []
        for number, path in enumerate(partitions, 1):
            if kind == "dos" and number == 4:
                table.append(f"start={start // sectorSize}, type=5")
                start += MIB
            size = os.path.getsize(path)
            table.append(f"start={start // sectorSize}, size={size // sectorSize}")
            places.append((start, path))
            start += size + MIB
        disk = self.put(name, b"")
        with open(disk, "r+b") as file:
            file.truncate(start + MIB)
            for start, path in places:
                with open(path, "rb") as source:
                    file.seek(start)
                    file.write(source.read())
        run("sfdisk", "-q", disk if sectorSize == 512 else self.loop(disk, sectorSize), text="\n".join(table))
        return disk
