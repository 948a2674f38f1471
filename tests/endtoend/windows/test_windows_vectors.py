"""Images of tests/vectors under the Windows program: every eighth one, so that each kind of defect has some.

Disks answer nothing here, so verify and consolidate are what is run. A table of gigabytes is left out: whether that
much memory is promised is Windows' own affair.
"""
import re

from test_vectors import VectorTest
from wine import WindowsTest

EVERY = 8
# Names that Windows reads in another way, or has another number for.
OTHER_NAMES = {"trailer-longest", "base-name-control", "base-name-format", "base-name-blank", "base-name-bytes",
               "base-name-bytes-missing", "base-name-utf-8", "base-name-zero-first"}


class WindowsVectors(WindowsTest, VectorTest):
    def sample(self):
        return [vector for vector in self.index
                if vector["name"] not in OTHER_NAMES and "claims" not in vector][::EVERY]

    def errors_as_stated(self, stated, told, command):
        """Where no call of the system's failed, the number is what a call of the run-time's own left."""
        if b"GetLastError=*)" not in stated:
            return told
        return re.sub(rb"GetLastError=\d+\)\n$", b"GetLastError=*)\n", told)

    def test_verify_says_of_a_sample_of_the_images_what_is_stated(self):
        self.check_command("verify", vectors=self.sample())

    def test_consolidate_says_and_writes_of_a_sample_of_the_images_what_is_stated(self):
        self.check_command("consolidate", vectors=self.sample())
