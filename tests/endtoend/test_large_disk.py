"""A disk of 2 GiB on a loop device through every command: equal to the byte, and within the memory that is promised.

The content is made so that each chunk differs from every other and most of the backing file stays sparse; the target
holds something else everywhere a chunk begins and ends.
"""
import os
import unittest

import harness
from harness import MIB

DISK_BYTES = 2048 * MIB
CHUNK_BYTES = 4 * MIB
CHUNKS = DISK_BYTES // CHUNK_BYTES
BYTES_PER_CHUNK = 160
PLAIN_LIMIT = 24 * MIB + BYTES_PER_CHUNK * CHUNKS


class LargeDisk(harness.MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.source = self.loop_disk(1, DISK_BYTES)
        self.target = self.loop_disk(2, DISK_BYTES)
        for backing in (self.source, self.target):
            with open(backing, "r+b") as file:
                for chunk in range(CHUNKS):
                    for offset in (chunk * CHUNK_BYTES, (chunk + 1) * CHUNK_BYTES - 4096):
                        file.seek(offset)
                        file.write(os.urandom(4096))
        self.must("blockdev", "--flushbufs", self.disk_path(1))
        self.must("blockdev", "--flushbufs", self.disk_path(2))
        self.file("password", b"secret")

    def run_within(self, limit, *arguments):
        """A run that must end well and stay within limit bytes of memory; gives what it used."""
        used = self.peak_memory(*arguments)
        if not harness.is_sanitized():
            self.assertLessEqual(used, limit, arguments)
        return used

    def check_target(self):
        self.must("blockdev", "--flushbufs", self.disk_path(2))
        self.must("cmp", self.disk_path(1), self.disk_path(2))

    @harness.needs(harness.why_no_loop_devices)
    def test_a_plain_image_of_2_gib_goes_through_every_command_within_its_memory(self):
        self.run_within(PLAIN_LIMIT, "capture", "--disk", "1", "--out", "full")
        self.run_within(PLAIN_LIMIT, "verify", "--in", "full")
        self.run_within(PLAIN_LIMIT, "restore", "--in", "full", "--disk", "2", "--confirm", "YES")
        self.check_target()

    @harness.needs(harness.why_no_loop_devices)
    def test_a_sealed_image_of_2_gib_goes_through_every_command_within_its_memory(self):
        sealed = ["--password-file", "password"]
        self.run_within(PLAIN_LIMIT, "capture", "--disk", "1", "--out", "full", "--encrypt", *sealed)
        self.run_within(PLAIN_LIMIT, "verify", "--in", "full", *sealed)
        self.run_within(PLAIN_LIMIT, "restore", "--in", "full", "--disk", "2", "--confirm", "YES", *sealed)
        self.check_target()


class MeasuredRun(harness.MachineTest):
    def test_a_measured_run_that_ends_otherwise_than_stated_fails_its_test(self):
        self.assertRaises(AssertionError, self.peak_memory, "verify", "--in", "missing")
        self.assertGreater(self.peak_memory("verify", "--in", "missing", status=1), 0)


if __name__ == "__main__":
    unittest.main()
