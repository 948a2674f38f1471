"""list-disks: which disks show, with which size and sector size, and where the mark of the system disk stands."""
import os
import re

from harness import MIB, MachineTest, gib, needs, system, why_no_loop_devices

SYSTEM = "   <- currently booted system disk"


def line(number, size, sectorSize=512, mark=""):
    return "PhysicalDrive%-2d  %8s GiB  sector %d bytes%s\n" % (number, gib(size)[:-4], sectorSize, mark)


class ListDisks(MachineTest):
    def list(self):
        return self.kestrix("list-disks")

    def test_a_machine_without_disks_lists_nothing_and_succeeds(self):
        self.check(self.list(), 0, "")

    def test_disks_are_listed_in_ascending_order_with_the_system_disk_marked(self):
        self.disk(0, 512)
        self.disk(2, 3 * 1024 * MIB)
        self.disk(10, 10 * MIB)
        self.volume_c(2)
        self.check(self.list(), 0, "PhysicalDrive0       0.00 GiB  sector 512 bytes\n"
                                   "PhysicalDrive2       3.00 GiB  sector 512 bytes" + SYSTEM + "\n"
                                   "PhysicalDrive10      0.01 GiB  sector 512 bytes\n")

    def test_disk_15_is_the_last_that_is_listed(self):
        self.disk(15, 512)
        self.disk(16, 512)
        self.volume_c(16)
        self.check(self.list(), 0, line(15, 512))

    def test_words_behind_the_command_are_ignored(self):
        self.system_disk()
        self.check(self.kestrix("list-disks", "extra", "--disk", "x"), 0, line(0, 512, mark=SYSTEM))

    def test_without_a_volume_c_the_listing_ends_at_the_first_disk_before_any_line(self):
        self.disk(3, 512)
        self.check_fatal(self.list(), "could not open C: to determine the system disk number", 2)

    def test_what_does_not_open_as_a_disk_is_passed_over_in_silence(self):
        os.mkdir(self.disk_path(0))
        os.symlink("nothing", self.disk_path(1))
        self.disk(4, MIB)
        self.volume_c(4)
        self.check(self.list(), 0, line(4, MIB, mark=SYSTEM))

    def test_a_disk_of_no_bytes_and_one_of_odd_length_are_listed(self):
        self.disk(0, 0)
        self.disk(1, 11 * MIB + 513)
        self.volume_c(0)
        self.check(self.list(), 0, line(0, 0, mark=SYSTEM) + line(1, 11 * MIB + 513))

    def test_sizes_are_rounded_to_hundredths_of_a_gib(self):
        self.disk(0, 1024 * MIB - 5368710)
        self.disk(1, 1024 * MIB - 5368708)
        self.volume_c(0)
        self.check(self.list(), 0, "PhysicalDrive0       0.99 GiB  sector 512 bytes" + SYSTEM + "\n"
                                   "PhysicalDrive1       1.00 GiB  sector 512 bytes\n")

    @needs(why_no_loop_devices)
    def test_a_block_device_answers_for_its_own_length_and_sector_size(self):
        self.loop_disk(0, 16 * MIB, 512)
        self.loop_disk(1, 32 * MIB, 4096)
        self.volume_c(1)
        self.check(self.list(), 0, line(0, 16 * MIB) + line(1, 32 * MIB, 4096, SYSTEM))

    def test_without_a_devices_folder_the_disks_are_those_of_the_machine(self):
        os.rmdir(self.devices)
        done, text = system(self.program, "list-disks")
        self.assertTrue(done, text)
        lines = text.splitlines()
        self.assertLessEqual(sum(SYSTEM in line for line in lines), 1)
        self.assertEqual([re.sub(SYSTEM + "$", "", line) for line in lines], self.disks_of_the_kernel())

    @staticmethod
    def disks_of_the_kernel():
        def read(*parts):
            with open(os.path.join("/sys/block", *parts), encoding="ascii") as file:
                return file.read().strip()

        names = [name for name in os.listdir("/sys/block")
                 if not re.match("loop|ram|zram|dm-|md|sr|fd", name)]
        names.sort(key=lambda name: int(read(name, "diskseq")))
        lines = []
        for number, name in enumerate(names[:16]):
            try:
                os.close(os.open("/dev/" + name.replace("!", "/"), os.O_RDONLY))
            except OSError:
                continue
            size = int(read(name, "size")) * 512
            lines.append(line(number, size, int(read(name, "queue", "logical_block_size")))[:-1])
        return lines
