"""kestrix-keep backup with one call of the system failing, wherever in the run that is."""
import json
import os
import random
import re

import kestrix_image
from keep_job import DAY, NOW, JobTest
from keep_machine import FAILED, WELL

# Of each kind so many calls of a run fail, one in a run; KESTRIX_KEEP_FAULTS=all has each of them fail.
TRIED_OF_EACH = 4
KINDS = {"EIO": "openat pread64 pwrite64 fsync fdatasync ftruncate fallocate rename renameat renameat2 link linkat "
                "unlink unlinkat mkdir symlink rmdir getdents64 newfstatat statfs readlink ioctl",
         "ENOSPC": "pwrite64 fsync linkat mkdir",
         "EMFILE": "openat pipe2",
         "ENOMEM": "mmap clone clone3 vfork"}
NOT_STARTED = 127  # the system could not load the program, or its libraries


class OneFailingCall(JobTest):
    def setUp(self):
        super().setUp()
        self.configure('keep = { last = 1 }\nnew-full = { every = "1d" }\ncheck = { whole-every = "1d" }')

    def calls(self, kinds):
        """How many of each kind a run makes."""
        self.first_night()
        traced = self.traced(NOW + DAY, "-e", "trace=" + ",".join(f"?{kind}" for kind in kinds))
        self.assertEqual(traced.finish().status, WELL)
        with open(os.path.join(self.folder, "trace"), encoding="utf-8") as file:
            names = re.findall(r"^(\w+)\(", file.read(), re.MULTILINE)
        return {kind: names.count(kind) for kind in kinds}

    def first_night(self):
        for name in os.listdir(self.place):
            os.unlink(self.place_path(name))
        self.change_disk(0, b"the first night")
        self.well()
        return self.disk_bytes(1)

    def each_fault(self):
        for error, names in KINDS.items():
            kinds = names.split()
            for kind, count in self.calls(kinds).items():
                numbers = range(1, count + 1)
                if os.environ.get("KESTRIX_KEEP_FAULTS") != "all":
                    numbers = sorted(random.Random(kind).sample(numbers, min(TRIED_OF_EACH, count)))
                for number in numbers:
                    yield error, kind, number

    def images_hold(self, disks):
        for name in self.image_names():
            self.assertIn(bytes(kestrix_image.read_image(self.place_path(name)).disk()), disks, name)

    def test_it_says_so_or_gets_its_image_and_what_has_an_images_name_is_one(self):
        ends = {}
        for error, kind, number in self.each_fault():
            with self.subTest(error=error, kind=kind, number=number):
                before = self.first_night()
                now = self.change_disk(0, f"{error} {kind} {number}".encode())
                run = self.traced(NOW + DAY, "-e", f"trace={kind}", "-e",
                                  f"inject={kind}:error={error}:when={number}").finish()
                self.assertIn(run.status, (WELL, FAILED, 2, 3, NOT_STARTED), run)
                ends[run.status] = ends.get(run.status, 0) + 1
                self.images_hold((before, now))
                self.assertTrue(self.image_names())
                if run.status == WELL:
                    report, = json.loads(run.out)["jobs"]
                    self.assertEqual(bytes(kestrix_image.read_image(self.place_path(report["image"])).disk()), now)
                last = self.well(NOW + 2 * DAY)
                self.images_hold((now,))
                self.assertEqual(self.names(), [last, last + ".json", "job.keep.json"])
        self.assertGreater(ends.get(FAILED, 0), 20, ends)
