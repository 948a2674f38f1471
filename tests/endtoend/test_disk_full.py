"""File systems and disks that take no more: the fatal line, its error number, and nothing left that opens."""
import os

from harness import (MIB, NO_TRACKER, MachineTest, needs, progress, restoring_line, source_line,
                     why_no_loop_devices, why_no_mounts)
from kestrix_image import seeded_disk

CHUNK = 4 * MIB
FULL = "WriteFile to image file failed mid-capture (disk full?)"
NOT_CREATED = "could not create output image file"
NOT_WRITTEN = "WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet"


class FullImages(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = seeded_disk(22 * MIB, 1)  # reads are ahead of it from 12 MiB on
        self.size = len(self.content)
        self.disk(1, self.content)
        self.out = source_line(1, self.size) + NO_TRACKER

    def capture(self, folder, *more):
        self.name = os.path.join(folder, "x")
        return self.kestrix("capture", "--disk", "1", "--out", self.name, *more)

    @needs(why_no_mounts)
    def test_a_capture_that_fills_the_file_system_says_so_and_leaves_no_image(self):
        for size, shown in (("1m", ""), ("6m", progress(CHUNK, self.size)), ("18m", progress(CHUNK, self.size))):
            with self.subTest(size):
                self.check_fatal(self.capture(self.small_file_system(size)), FULL, 112, self.out + shown)
                self.assertTrue(os.path.exists(self.name))
                self.check_unfinished(self.name)

    @needs(why_no_mounts)
    def test_a_sealed_capture_that_fills_the_file_system_says_so_and_leaves_no_image(self):
        self.file("p", b"secret")
        run = self.capture(self.small_file_system("6m"), "--encrypt", "--password-file", "p")
        self.check_fatal(run, FULL, 112, self.out + progress(CHUNK, self.size))
        self.check_unfinished(self.name)

    @needs(why_no_mounts)
    def test_a_capture_over_an_older_image_that_fills_the_file_system_leaves_no_image(self):
        folder = self.small_file_system("6m")
        self.image(os.path.join(folder, "x"), seeded_disk(5 * MIB, 2), chunkSize=CHUNK)
        self.check_fatal(self.capture(folder), FULL, 112, self.out + progress(CHUNK, self.size))
        self.check_unfinished(self.name)

    @needs(why_no_mounts)
    def test_an_image_that_just_fits_is_whole(self):
        folder = self.small_file_system(str(64 + 3 * 72 + self.size + 4096))
        self.assertEqual(self.capture(folder).status, 0)
        self.check_image(self.name, self.content)

    @needs(why_no_mounts)
    def test_a_file_system_without_room_for_a_file_is_full(self):
        folder = self.small_file_system("1m", ",nr_inodes=1")
        self.check_fatal(self.capture(folder), NOT_CREATED, 112, self.out)

    @needs(why_no_mounts)
    def test_a_read_only_file_system_is_write_protected(self):
        folder = self.small_file_system("1m", ",ro")
        self.check_fatal(self.capture(folder), NOT_CREATED, 19, self.out)

    def test_a_missing_folder_and_a_folder_in_place_of_the_file_are_told_apart(self):
        self.check_fatal(self.capture("missing"), NOT_CREATED, 3, self.out)
        os.makedirs(self.path("folder/x"))
        self.check_fatal(self.capture("folder"), NOT_CREATED, 5, self.out)


class FailingTargets(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()

    def target_on_a_full_file_system(self, room, size):
        """A block device of so many bytes, of which only the first ones can be written."""
        folder = self.small_file_system(str(room))
        backing = os.path.join(folder, "backing")
        with open(backing, "wb") as file:
            file.truncate(size)
        self.link_disk(1, self.loop_device(backing))
        return backing

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_target_that_fails_on_the_way_is_left_partially_written(self):
        content = seeded_disk(8 * MIB, 3)
        self.image("a", content, chunkSize=MIB)
        backing = self.target_on_a_full_file_system(3 * MIB + MIB // 2, len(content))
        run = self.kestrix("restore", "--in", "a", "--disk", "1", "--confirm", "YES")
        begun = restoring_line("a", 1, 8, len(content)) + progress(MIB, len(content))
        self.check_fatal(run, NOT_WRITTEN, None, begun)
        self.assertRegex(run.err.decode(), r"\(GetLastError=(1117|112)\)\n$")
        with open(backing, "rb") as file:
            self.assertEqual(file.read(3 * MIB), content[:3 * MIB])

    @needs(why_no_mounts)
    def test_a_target_in_a_file_on_a_full_file_system_fails_on_the_way(self):
        content = seeded_disk(8 * MIB, 4)
        self.image("a", content, chunkSize=MIB)
        backing = os.path.join(self.small_file_system(str(3 * MIB + MIB // 2)), "backing")
        with open(backing, "wb") as file:
            file.truncate(len(content))
        self.link_disk(1, backing)
        run = self.kestrix("restore", "--in", "a", "--disk", "1", "--confirm", "YES")
        self.check_fatal(run, NOT_WRITTEN, 112, restoring_line("a", 1, 8, len(content)) +
                         progress(MIB, len(content)))
        self.assertEqual(os.path.getsize(backing), len(content))

    @needs(why_no_mounts)
    def test_a_target_on_a_read_only_file_system_is_refused(self):
        folder = self.small_file_system("1m")
        with open(os.path.join(folder, "disk"), "wb") as file:
            file.truncate(4096)
        self.must("mount", "-o", "remount,ro", folder)
        self.link_disk(1, os.path.join(folder, "disk"))
        self.image("a", bytes(4096))
        run = self.kestrix("restore", "--in", "a", "--disk", "1", "--confirm", "YES")
        self.assertEqual((run.status, run.out), (1, b""))
        self.assertEqual(run.err.splitlines()[0],
                         b"Could not open disk 1 exclusively for writing (GetLastError=19).")

    @needs(why_no_loop_devices, why_no_mounts)
    def test_a_source_that_cannot_be_read_ends_the_capture_and_leaves_no_image(self):
        # The backing file is cut while the device keeps its length, so that reads behind the cut fail.
        folder = self.small_file_system("12m")
        backing = os.path.join(folder, "backing")
        with open(backing, "wb") as file:
            file.write(seeded_disk(10 * MIB, 5))
        self.link_disk(1, self.loop_device(backing))
        os.truncate(backing, 5 * MIB)
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.check_fatal(run, "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it",
                         None, source_line(1, 10 * MIB) + NO_TRACKER + progress(CHUNK, 10 * MIB))
        self.check_no_image("x")
