"""kestrix-keep disks: which disks there are, what each is called, what lies on it, and what is done with it."""
import json
import os
import random
import re
import subprocess

from harness import MIB, SANITIZERS, TIME_LIMIT, gib, needs, system, why_no_loop_devices, why_no_mounts
from keep_machine import COMMAND_LINE, FAILED, WELL, KeepMachineTest, form_of

GPT = """label: gpt
start=2048, size=4096, type=C12A7328-F81F-11D2-BA4B-00C04FC9EC93, name="EFI System"
start=8192, size=8192, type=L, name="root"
start=16384, size=2048, type=L
"""
MBR = """label: dos
start=2048, size=4096, type=c
start=8192, size=20480, type=5
start=10240, size=8192, type=83
start=20480, size=2048, type=82
"""
SECTOR = 512


def sysfs(device, *parts):
    with open(os.path.join("/sys/class/block", os.path.basename(device), *parts), encoding="ascii") as file:
        return file.read().strip()


class Numbers(KeepMachineTest):
    def kestrix_lines(self):
        """What kestrix list-disks prints: size in GiB, sector size and the mark of the system disk, by number."""
        lines = {}
        for line in self.kestrix("list-disks").out.decode().splitlines():
            number, size, sector, mark = re.fullmatch(
                r"PhysicalDrive(\d+) +([\d.]+ GiB)  sector (\d+) bytes( +<- currently booted system disk)?",
                line).groups()
            lines[int(number)] = (size, int(sector), mark is not None)
        return lines

    def compare_with_kestrix(self):
        listed = {number: (gib(disk["sizeBytes"]), disk["logicalSectorBytes"], disk["systemDisk"])
                  for number, disk in self.disks().items() if number < 16}
        self.assertEqual(listed, self.kestrix_lines())
        return listed

    def test_numbers_sizes_and_the_system_disk_are_those_of_list_disks(self):
        self.disk(0, 0)
        self.disk(2, 3 * 1024 * MIB)
        self.disk(10, 11 * MIB + 513)
        self.volume_c(2)
        self.assertEqual(self.compare_with_kestrix(),
                         {0: ("0.00 GiB", 512, False), 2: ("3.00 GiB", 512, True), 10: ("0.01 GiB", 512, False)})

    @needs(why_no_loop_devices)
    def test_block_devices_are_those_of_list_disks(self):
        self.loop_disk(1, 16 * MIB, 512)
        self.loop_disk(4, 32 * MIB, 4096)
        self.volume_c(4)
        self.assertEqual(len(self.compare_with_kestrix()), 2)

    def test_disks_beyond_the_last_that_list_disks_shows_are_listed(self):
        self.disk(16, MIB)
        self.disk(2147483647, MIB)
        self.disk(2147483648, MIB)
        self.assertEqual(list(self.disks()), [16, 2147483647])

    def test_what_kestrix_opens_as_no_disk_is_not_listed(self):
        os.mkdir(self.disk_path(0))
        os.symlink("nothing", self.disk_path(1))
        os.symlink("PhysicalDrive2", self.disk_path(2))
        os.mkfifo(self.disk_path(3))
        for name in ("PhysicalDrive04", "PhysicalDrive5 ", "PhysicalDrive", "physicaldrive6", "PhysicalDrive7.json"):
            with open(self.device(name), "w", encoding="ascii"):
                pass
        self.disk(8, MIB)
        self.assertEqual(list(self.disks()), [8])

    def test_a_machine_without_disks_says_so(self):
        self.check(self.keep("disks"), WELL, "this machine has no disk that can be seen\n")
        self.assertEqual(self.ask("disks"), (WELL, {"disks": [], "fault": None}))

    def test_the_system_disk_is_what_c_links_to_and_no_other_folder_s(self):
        for number in (0, 1):
            self.disk(number, MIB)
        other = os.path.join(self.folder, "other")
        os.mkdir(other)
        for target, number in ((self.disk_path(1), 1), ("./PhysicalDrive0", 0), ("../devices/PhysicalDrive1", 1),
                               (os.path.join(other, "PhysicalDrive0"), None), ("PhysicalDrive00", None)):
            with self.subTest(target):
                os.symlink(target, self.device("C:"))
                marked = [disk["number"] for disk in self.disks().values() if disk["systemDisk"]]
                self.assertEqual(marked, [] if number is None else [number])
                os.unlink(self.device("C:"))

    def test_a_folder_of_disks_that_can_not_be_told_is_a_fault(self):
        os.rmdir(self.devices)
        os.symlink("nowhere", self.devices)
        run = subprocess.run([self.keepProgram, "disks", "--json"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             timeout=TIME_LIMIT, check=False, env={**SANITIZERS, **os.environ})
        said = json.loads(run.stdout)
        form_of("disks").validate(said)
        self.assertEqual((run.returncode, run.stderr, said["disks"]), (FAILED, b"", []))
        self.assertIn(self.devices, said["fault"])


class OwnDisks(KeepMachineTest):
    """Without a folder of disks. The disks of this machine are only looked at."""

    def setUp(self):
        super().setUp()
        os.rmdir(self.devices)
        done, text = system(self.keepProgram, "disks", "--json")
        self.assertTrue(done, text)
        said = json.loads(text)
        form_of("disks").validate(said)
        self.listed = said["disks"]
        done, text = system(self.program, "list-disks")
        self.assertTrue(done, text)
        self.kestrixLines = text.splitlines()

    def test_the_disks_are_those_of_the_kernel_in_the_order_of_their_arrival(self):
        names = [name for name in os.listdir("/sys/block") if not re.match("loop|ram|zram|dm-|md|sr|fd", name)]
        names.sort(key=lambda name: int(sysfs(name, "diskseq")))
        self.assertEqual([disk["node"] for disk in self.listed], ["/dev/" + name.replace("!", "/") for name in names])
        for number, (disk, name) in enumerate(zip(self.listed, names)):
            self.assertEqual((disk["number"], disk["deviceNumber"], disk["sequence"], disk["sizeBytes"]),
                             (number, sysfs(name, "dev"), int(sysfs(name, "diskseq")), int(sysfs(name, "size")) * 512))
            self.assertEqual((disk["logicalSectorBytes"], disk["physicalSectorBytes"], disk["removable"]),
                             (int(sysfs(name, "queue", "logical_block_size")),
                              int(sysfs(name, "queue", "physical_block_size")), sysfs(name, "removable") == "1"))

    def test_the_disk_that_list_disks_marks_is_marked(self):
        marked = [int(re.search(r"\d+", line).group()) for line in self.kestrixLines if "<- currently booted" in line]
        # It leaves out those that don't open.
        opened = [int(re.search(r"\d+", line).group()) for line in self.kestrixLines]
        ours = [disk["number"] for disk in self.listed if disk["systemDisk"] and disk["number"] in opened]
        self.assertEqual(ours[:1], marked)

    def test_the_partition_that_is_the_root_folder_is_in_use(self):
        found = {partition["deviceNumber"]: disk for disk in self.listed for partition in disk["partitions"]
                 if "/" in partition["mounts"]}
        root = os.stat("/").st_dev
        if os.major(root) == 0 or not any(disk["systemDisk"] for disk in self.listed):
            self.skipTest("the root folder lies on no disk")
        self.assertTrue(found)
        self.assertTrue(all(disk["inUse"] and disk["systemDisk"] for disk in found.values()))


class Cards(KeepMachineTest):
    def one(self):
        disk, = self.disks().values()
        return disk

    def names(self):
        disk = self.one()
        return {name: disk[name] for name in ("model", "serial", "wwn", "bus", "removable")}

    def test_a_disk_in_a_file_is_called_nothing_and_says_so(self):
        self.disk(3, 5 * MIB + 100)
        self.assertEqual(self.names(), {"model": None, "serial": None, "wwn": None, "bus": None, "removable": None})
        disk = self.one()
        self.assertEqual((disk["deviceNumber"], disk["sequence"], disk["physicalSectorBytes"]), (None, None, None))
        self.check(self.keep("disks"), WELL, f"disk 3: {self.disk_path(3)}\n"
                                             "  model: not known\n"
                                             "  no serial\n"
                                             "  no WWN\n"
                                             "  size: 5.00 MiB (5242980 bytes)\n"
                                             "  sectors: logical ones of 512 bytes, physical ones of a length that is "
                                             "not known\n"
                                             "  bus: not known, not known whether removable\n")

    def test_a_card_file_gives_a_disk_its_names(self):
        self.disk(0, MIB)
        card = {"model": "Tester 1", "serial": "S-1 ä", "wwn": "0x5000c500a1b2c3d4", "bus": "usb", "removable": True}
        self.card(0, card)
        self.assertEqual(self.names(), card)
        self.card(0, {"serial": "only"})
        self.assertEqual(self.names(), {"model": None, "serial": "only", "wwn": None, "bus": None, "removable": None})
        self.card(0, {})
        self.assertEqual(self.names()["serial"], None)

    def test_a_card_file_is_for_its_own_disk_only(self):
        self.disk(1, MIB)
        self.card(11, {"serial": "eleven"})
        self.assertEqual(self.names()["serial"], None)

    def test_equal_serials_are_listed_one_beside_the_other(self):
        for number in (0, 4, 5):
            self.disk(number, MIB)
            self.card(number, {"serial": "same" if number else "other"})
        self.assertEqual([disk["serial"] for disk in self.disks().values()], ["other", "same", "same"])

    @needs(why_no_loop_devices)
    def test_a_card_file_comes_before_what_a_device_says_of_itself(self):
        self.loop_disk(0, MIB)
        self.assertEqual(self.names()["removable"], False)
        self.card(0, {"serial": "S", "removable": True})
        self.assertEqual((self.names()["serial"], self.names()["removable"]), ("S", True))

    def test_text_of_a_card_is_trimmed_and_fit_to_be_shown(self):
        self.disk(0, MIB)
        self.card(0, {"serial": "  WD-1  ",
                  "model": "a\x1b[2J\nSYSTEM DISK\x7f\x9b", "wwn": "0x5\0hidden", "bus": "\0\0"})
        self.assertEqual(self.names(), {"serial": "WD-1", "model": "a?[2J?SYSTEM DISK???", "wwn": "0x5", "bus": None,
                                        "removable": None})
        self.assertNotIn(b"\x1b", self.keep("disks").out)

    def refused(self, number=0):
        status, said = self.ask("disks")
        self.assertEqual((status, said["disks"]), (FAILED, []))
        self.assertTrue(said["fault"].startswith(self.disk_path(number) + ".json: "), said["fault"])
        run = self.keep("disks")
        self.assertEqual((run.status, run.out), (FAILED, b""))
        self.assertTrue(run.err.startswith(b"kestrix-keep: "), run.err)
        return said["fault"]

    def test_a_card_that_says_what_is_not_understood_is_a_fault(self):
        self.disk(0, MIB)
        self.disk(1, MIB)
        for content in (b"", b"{", b"[]", b"null", b"5", b'"serial"', b"{} {}", b"{}x", b'{"serial": 5}',
                        b'{"serial": null}', b'{"serial": ["a"]}', b'{"seriel": "a"}', b'{"Serial": "a"}',
                        b'{"": "a"}', b'{"serial": "a", "serial": "b"}', b'{"serial": "a", "serial": "a"}',
                        b'{"removable": "yes"}', b'{"removable": 1}', b'{"logicalSector": 4096}', b'{"serial": "\xff"}',
                        b'{"serial": "a}', b"{'serial': 'a'}", b'{"serial": "a",}', b"\0", b"[" * 60000,
                        b'{"serial":' * 6000, b'{"model": {"serial": "a"}}'):
            with self.subTest(content[:40]):
                self.card(0, content)
                self.refused()

    def test_the_fault_names_the_member(self):
        self.disk(0, MIB)
        self.card(0, {"seriel": "a"})
        self.assertIn("seriel", self.refused())
        self.card(0, {"removable": 1})
        self.assertIn("removable is neither true nor false", self.refused())

    def test_a_card_of_64_kib_is_read_and_a_longer_one_refused(self):
        self.disk(0, MIB)
        self.card(0, b'{"serial": "a"}'.ljust(65536))
        self.assertEqual(self.names()["serial"], "a")
        self.card(0, b'{"serial": "a"}'.ljust(65537))
        self.assertIn("too long", self.refused())

    def test_what_is_no_file_is_no_card(self):
        self.disk(0, MIB)
        path = self.disk_path(0) + ".json"
        os.mkdir(path)
        self.refused()
        os.rmdir(path)
        os.mkfifo(path)
        self.refused()
        os.unlink(path)
        os.symlink("/dev/zero", path)
        self.refused()
        os.unlink(path)
        os.symlink("nowhere", path)
        self.refused()

    def test_a_card_may_be_a_link_to_a_file(self):
        self.disk(0, MIB)
        with open(os.path.join(self.folder, "card"), "w", encoding="ascii") as file:
            file.write('{"serial": "linked"}')
        os.symlink("../card", self.disk_path(0) + ".json")
        self.assertEqual(self.names()["serial"], "linked")


class Content(KeepMachineTest):
    def partitions(self, number=0):
        """Number, offset, length, file system and label of each partition."""
        disk = self.disks()[number]
        return disk["table"], [tuple(partition[name] for name in ("number", "offsetBytes", "lengthBytes", "fileSystem",
                                                                  "label")) for partition in disk["partitions"]]

    def test_a_gpt_disk_in_a_file_tells_its_partitions(self):
        self.partitioned(0, 20 * MIB, GPT, {2048 * SECTOR: self.vfat(), 8192 * SECTOR: self.ext4(label="röot")})
        self.assertEqual(self.partitions(), ("gpt", [(1, MIB, 2 * MIB, "vfat", "ESP"),
                                                     (2, 4 * MIB, 4 * MIB, "ext4", "röot"),
                                                     (3, 8 * MIB, MIB, None, None)]))
        disk = self.disks()[0]
        self.assertEqual([partition["name"] for partition in disk["partitions"]], ["EFI System", "root", None])
        self.assertEqual((disk["inUse"], disk["unreadable"]), (False, None))
        out = self.keep("disks").out.decode()
        self.assertIn("\n  partition table: gpt\n"
                      "  partition 1 (EFI System): 2.00 MiB at 1048576, vfat, label ESP\n"
                      "  partition 2 (root): 4.00 MiB at 4194304, ext4, label röot\n"
                      "  partition 3: 1.00 MiB at 8388608, no known file system\n", out)

    def test_an_mbr_disk_with_an_extended_partition_tells_its_partitions(self):
        swap = self.file_system(MIB, "mkswap", "-q", "-L", "swp")
        self.partitioned(0, 20 * MIB, MBR, {2048 * SECTOR: self.vfat(),
                         10240 * SECTOR: self.ext4(), 20480 * SECTOR: swap})
        table, partitions = self.partitions()
        self.assertEqual((table, [partition[:2] + partition[3:] for partition in partitions]),
                         ("dos", [(1, MIB, "vfat", "ESP"), (2, 4 * MIB, None, None), (5, 5 * MIB, "ext4", "data"),
                                  (6, 10 * MIB, "swap", "swp")]))
        self.assertEqual([partition["extended"] for partition in self.disks()[0]["partitions"]],
                         [False, True, False, False])
        self.assertIn(b"partition 2: 10.00 MiB at 4194304, holds further partitions\n", self.keep("disks").out)

    def test_a_file_system_on_the_disk_itself_is_told(self):
        self.disk(0, self.ext4(label="whole"))
        self.assertEqual(self.partitions(), (None, [(0, 0, 4 * MIB, "ext4", "whole")]))
        self.assertIn(b"  on the disk itself: 4.00 MiB at 0, ext4, label whole\n", self.keep("disks").out)

    def test_an_empty_table_is_a_table(self):
        self.partitioned(0, 20 * MIB, "label: gpt\n")
        self.assertEqual(self.partitions(), ("gpt", []))

    def test_zeros_and_noise_are_nothing_that_is_known(self):
        self.disk(0, 8 * MIB)
        self.disk(1, random.Random(1).randbytes(8 * MIB))
        self.disk(2, 100)
        for number in range(3):
            self.assertEqual(self.partitions(number), (None, []))

    def test_labels_that_would_steer_a_terminal_do_not(self):
        content = bytearray(self.file_system(4 * MIB, "mkfs.ext2", "-q", "-L", "x"))
        content[1024 + 120:1024 + 136] = b" \x1b[2J\n\xff\xc3\xa4\x9b".ljust(16, b" ")
        self.disk(0, bytes(content))
        self.assertEqual(self.partitions()[1][0][4], "?[2J??ä?")
        self.assertNotIn(b"\x1b", self.keep("disks").out)

    def test_marks_of_several_file_systems_are_no_file_system(self):
        content = bytearray(self.ext4())
        content[65536:65536 + 512] = self.file_system(4 * MIB, "mkfs.ext4", "-q")[1024:1536]
        fat = self.vfat(4 * MIB)
        content[:512] = fat[:512]
        self.disk(0, bytes(content))
        partition, = self.disks()[0]["partitions"]
        self.assertEqual((partition["fileSystem"], partition["label"], partition["unclear"]),
                         (None, None, "it has the marks of several file systems"))
        self.assertIn(b"its content can't be told: it has the marks of several file systems\n", self.keep("disks").out)

    def test_a_partition_beyond_the_end_says_so(self):
        self.partitioned(0, 20 * MIB, "label: dos\nstart=2048, size=2048, type=83\nstart=8192, size=8192, type=83\n",
                         {2048 * SECTOR: self.ext4(MIB)})
        os.truncate(self.disk_path(0), 6 * MIB)
        partitions = self.disks()[0]["partitions"]
        self.assertEqual([(partition["number"], partition["fileSystem"], partition["unclear"])
                          for partition in partitions],
                         [(1, "ext4", None), (2, None, "it goes beyond the disk's end")])

    def test_damaged_tables_end_in_a_list(self):
        self.partitioned(0, 20 * MIB, GPT, {2048 * SECTOR: self.vfat()})
        self.partitioned(1, 20 * MIB, MBR)
        pick = random.Random(2)
        for number in (0, 1):
            whole = self.disk_bytes(number)
            for _ in range(20):
                damaged = bytearray(whole)
                for _ in range(8):
                    damaged[pick.choice([pick.randrange(440, 512), pick.randrange(512, 2048),
                                         pick.randrange(4 * MIB, 4 * MIB + 512)])] = pick.choice([0, 1, 0x7F, 0xFF])
                self.disk(number, bytes(damaged))
                self.assertEqual(len(self.disks()), 2)
            self.disk(number, whole)

    def test_nothing_is_written_to_a_disk(self):
        self.partitioned(0, 20 * MIB, GPT, {2048 * SECTOR: self.vfat()})
        before, times = self.disk_bytes(0), os.stat(self.disk_path(0))
        self.disks()
        after = os.stat(self.disk_path(0))
        self.assertEqual((self.disk_bytes(0), after.st_mtime_ns, after.st_ctime_ns),
                         (before, times.st_mtime_ns, times.st_ctime_ns))

    def test_a_disk_that_can_not_be_opened_is_listed_and_says_why(self):
        self.partitioned(0, 20 * MIB, GPT)
        self.card(0, {"serial": "closed"})
        os.chmod(self.disk_path(0), 0)
        for path, mode in ((self.folder, 0o755), (self.keepProgram, 0o755), (os.path.dirname(self.folder), 0o711)):
            os.chmod(path, mode)
        command = [self.keepProgram, "disks", "--json"]
        if os.geteuid() == 0:
            command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *command]
        done, text = system(*command)
        self.assertTrue(done, text)
        disk, = json.loads(text)["disks"]
        self.assertEqual((disk["unreadable"], disk["serial"], disk["sizeBytes"], disk["partitions"]),
                         ("Permission denied", "closed", 20 * MIB, []))


class Devices(KeepMachineTest):
    """Real block devices, as links in the folder of disks."""

    def loop(self, number=0, partitions=False):
        """The loop device of disk N."""
        device = os.path.realpath(self.disk_path(number))
        if partitions:
            self.must("partx", "--add", device)
            self.addCleanup(system, "partx", "--delete", device)
        return device

    @needs(why_no_loop_devices)
    def test_a_device_says_what_tells_it_from_a_later_one(self):
        self.loop_disk(0, 4 * MIB, 4096)
        disk = self.disks()[0]
        loop = self.loop()
        self.assertEqual((disk["deviceNumber"], disk["sequence"]), (sysfs(loop, "dev"), int(sysfs(loop, "diskseq"))))
        self.assertEqual((disk["logicalSectorBytes"], disk["physicalSectorBytes"],
                         disk["removable"]), (4096, 4096, False))
        self.assertEqual((disk["serial"], disk["model"], disk["inUse"]), (None, None, False))

    @needs(why_no_loop_devices)
    def test_a_gpt_in_sectors_of_4096_bytes_is_read(self):
        script = "label: gpt\nstart=256, size=1024, type=L, name=big\n"
        self.partitioned(7, 20 * MIB, script, {MIB: self.ext4()}, 4096)
        content = self.disk_bytes(7)
        os.unlink(self.disk_path(7))
        self.loop_disk(0, content, 4096)
        disk = self.disks()[0]
        partition, = disk["partitions"]
        self.assertEqual((disk["table"], partition["number"], partition["offsetBytes"], partition["lengthBytes"],
                          partition["name"], partition["fileSystem"]), ("gpt", 1, MIB, 4 * MIB, "big", "ext4"))

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_mounted_file_system_puts_its_disk_in_use(self):
        self.loop_disk(0, self.ext4())
        self.loop_disk(1, self.ext4())
        folder = self.mount(self.loop(), "ro,noload", "ext4")
        disks = self.disks()
        self.assertEqual([disk["inUse"] for disk in disks.values()], [True, False])
        self.assertEqual([disk["partitions"][0]["mounts"] for disk in disks.values()], [[folder], []])
        self.assertIn(f"  IN USE\n  on the disk itself: 4.00 MiB at 0, ext4, label data, mounted at {folder}\n",
                      self.keep("disks").out.decode())

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_mounted_partition_is_told_with_its_node(self):
        self.partitioned(7, 20 * MIB, GPT, {8192 * SECTOR: self.ext4()})
        content = self.disk_bytes(7)
        os.unlink(self.disk_path(7))
        self.loop_disk(0, content)
        loop = self.loop(partitions=True)
        folder = self.mount(f"{loop}p2", "ro,noload", "ext4")
        disk = self.disks()[0]
        self.assertTrue(disk["inUse"])
        self.assertEqual([(partition["node"], partition["deviceNumber"], partition["mounts"]) for partition in
                          disk["partitions"]], [(f"{loop}p{n}", sysfs(f"{loop}p{n}", "dev"), [folder] if n == 2 else [])
                                                for n in (1, 2, 3)])
        self.assertEqual(len(disk["partitions"]), 3)

    @needs(why_no_loop_devices)
    def test_partitions_that_only_the_kernel_has_are_listed(self):
        self.partitioned(7, 20 * MIB, GPT, {8192 * SECTOR: self.ext4()})
        content = self.disk_bytes(7)
        os.unlink(self.disk_path(7))
        backing = self.loop_disk(0, content)
        loop = self.loop(partitions=True)
        with open(loop, "r+b") as file:
            file.write(bytes(34 * SECTOR))
            file.seek(-34 * SECTOR, os.SEEK_END)
            file.write(bytes(34 * SECTOR))
        self.assertEqual(os.path.getsize(backing), 20 * MIB)
        disk = self.disks()[0]
        self.assertEqual(disk["table"], None)
        self.assertEqual([(partition["number"], partition["fileSystem"]) for partition in disk["partitions"]],
                         [(1, None), (2, "ext4"), (3, None)])

    @needs(why_no_loop_devices, why_no_mounts)
    def test_mount_points_with_odd_names_are_told_as_they_can_be_shown(self):
        self.loop_disk(0, self.ext4())
        folder = os.path.join(self.folder, "a b\tc\\d\n\x1b")
        os.mkdir(folder)
        self.must("mount", "-o", "ro,noload", self.loop(), folder)
        self.addCleanup(self.must, "umount", folder)
        shown = os.path.join(self.folder, "a b?c\\d??")
        self.assertEqual(self.disks()[0]["partitions"][0]["mounts"], [shown])

    @needs(why_no_loop_devices)
    def test_swap_in_use_is_told(self):
        self.loop_disk(0, self.file_system(4 * MIB, "mkswap", "-q"))
        done, text = system("swapon", "--priority", "0", self.loop())
        if not done:
            self.skipTest(f"no swap: {text}")
        try:
            disk = self.disks()[0]
        finally:
            self.must("swapoff", self.loop())
        self.assertEqual((disk["inUse"], disk["partitions"][0]["swap"], disk["partitions"][0]["fileSystem"]),
                         (True, True, "swap"))

    @needs(why_no_loop_devices)
    def test_what_stands_on_a_disk_puts_it_in_use(self):
        self.loop_disk(0, 8 * MIB)
        name = f"kestrix-test-{os.getpid()}"
        done, text = system("dmsetup", "create", name, "--table", f"0 8192 linear {self.loop()} 0")
        if not done:
            self.skipTest(f"no device mapper: {text}")
        try:
            disk = self.disks()[0]
        finally:
            self.must("dmsetup", "remove", name)
        partition, = disk["partitions"]
        self.assertEqual((disk["inUse"], partition["number"], partition["holders"]), (True, 0, [name]))

    def with_database(self, properties):
        """The disk that is listed where the device manager's database has these lines for disk 0."""
        number = sysfs(self.loop(), "dev")
        lines = os.path.join(self.folder, "properties")
        with open(lines, "wb") as file:
            file.write(b"I:1\n" + b"".join(b"E:" + line + b"\n" for line in properties) + b"G:systemd\nV:1\n")
        script = ('mount -t tmpfs none /run && mkdir -p /run/udev/data && cp "$1" "/run/udev/data/b$2" && '
                  'touch /run/udev/control && exec "$3" disks --json')
        text = self.must("unshare", "--mount", "sh", "-c", script, "sh", lines, number, self.keepProgram)
        said = json.loads(text)
        form_of("disks").validate(said)
        disk, = said["disks"]
        return tuple(disk[name] for name in ("model", "serial", "wwn"))

    @needs(why_no_loop_devices, why_no_mounts)
    def test_the_database_of_the_device_manager_names_a_disk(self):
        self.loop_disk(0, MIB)
        self.assertEqual(self.with_database([b"ID_MODEL=Big_Disk", b"ID_MODEL_ENC=Big\\x20Disk\\x20\\x20",
                                             b"ID_SERIAL=Big_Disk_S1", b"ID_SERIAL_SHORT=S1",
                                             b"ID_WWN=0x5000c500a1b2c3d4"]),
                         ("Big Disk", "S1", "0x5000c500a1b2c3d4"))
        self.assertEqual(self.with_database([b"ID_SCSI_SERIAL=unit", b"ID_SERIAL_SHORT=5000c", b"ID_WWN=0x6000",
                                             b"ID_WWN_WITH_EXTENSION=0x6000123"]), (None, "unit", "0x6000123"))

    @needs(why_no_loop_devices, why_no_mounts)
    def test_text_of_the_database_is_fit_to_be_shown(self):
        self.loop_disk(0, MIB)
        self.assertEqual(self.with_database([b"ID_MODEL_ENC=a\\x1b[2J\\x0aSYSTEM\\x00DISK",
                                             b"ID_SERIAL_SHORT=S\x1b\x7f1"]),
                         ("a?[2J?SYSTEM", "S??1", None))

    @needs(why_no_loop_devices, why_no_mounts)
    def test_without_a_database_nothing_is_said_that_is_not_known(self):
        self.loop_disk(0, MIB)
        text = self.must("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /run && exec "$0" disks --json',
                         self.keepProgram)
        disk, = json.loads(text)["disks"]
        self.assertEqual((disk["model"], disk["serial"], disk["wwn"], disk["bus"]), (None, None, None, None))


class Surroundings(KeepMachineTest):
    def test_words_that_are_not_understood_are_refused(self):
        self.disk(0, MIB)
        for words in ((), ("disk",), ("disks", "0"), ("disks", "--jsn"), ("--disks",)):
            with self.subTest(words):
                run = self.keep(*words)
                self.assertEqual((run.status, run.out), (COMMAND_LINE, b""))
                self.assertTrue(run.err.startswith(b"kestrix-keep: "), run.err)

    def test_help_and_version_are_told(self):
        self.assertIn(b"disks", self.keep("--help").out)
        self.assertEqual(self.keep("disks", "--help").status, WELL)
        self.assertRegex(self.keep("--version").out, rb"^kestrix-keep \d+\.\d+\.\d+\n$")

    def test_quiet_changes_nothing_of_a_list(self):
        self.disk(0, MIB)
        self.assertEqual(self.keep("disks", "--quiet"), self.keep("disks"))

    def test_closed_streams_are_taken_by_no_disk(self):
        self.partitioned(0, 20 * MIB, GPT, {2048 * SECTOR: self.vfat()})
        before = self.disk_bytes(0)
        for streams in (">&-", "<&-", "2>&-", "<&- >&- 2>&-"):
            done = subprocess.run(f"exec {self.keepProgram} disks {streams}", shell=True, cwd=self.images,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False,
                                  env={**SANITIZERS, **os.environ})
            self.assertEqual(done.returncode, FAILED if ">&-" in streams.replace("2>&-", "") else WELL, streams)
            self.assertEqual(self.disk_bytes(0), before)

    def test_output_that_does_not_arrive_is_no_success(self):
        self.disk(0, MIB)
        with open("/dev/full", "wb") as full:
            done = subprocess.run([self.keepProgram, "disks"], cwd=self.images, stdout=full, stderr=subprocess.PIPE,
                                  check=False, env={**SANITIZERS, **os.environ})
        self.assertEqual(done.returncode, FAILED)
        self.assertIn(b"did not arrive", done.stderr)

    def test_a_disk_that_a_restore_keeps_to_itself_is_listed(self):
        self.partitioned(0, 20 * MIB, GPT)
        done = self.must("flock", "--exclusive", self.disk_path(0), self.keepProgram, "disks", "--json")
        self.assertEqual(len(json.loads(done)["disks"][0]["partitions"]), 3)

    def test_only_kestrix_keep_stands_on_the_libraries_that_tell_of_disks(self):
        folder = os.path.dirname(os.path.realpath(os.environ.get("KESTRIX", os.path.join(
            os.path.dirname(__file__), "..", "..", "build", "linux", "kestrix"))))
        for name, libraries in (("kestrix", 0), ("kestrix-image", 0), ("kestrix-keep", 2)):
            needed = self.must("readelf", "--dynamic", "--wide", os.path.join(folder, name))
            self.assertEqual(len(re.findall(r"\[lib(?:blkid|udev)\.so", needed)), libraries, name)
