"""Images of tests/vectors under the Windows program: one of each kind.

A kind is what has its defect in the same place, as the first word of the name says, and ends verify in the same words.
Disks answer nothing here, so verify and consolidate are what is run. A table of gigabytes is left out: whether that
much memory is promised is Windows' own affair.
"""
import re

from test_vectors import VectorTest
from wine import WindowsTest

# Names that Windows reads in another way, or has another number for.
OTHER_NAMES = {"trailer-longest", "base-name-control", "base-name-format", "base-name-blank", "base-name-bytes",
               "base-name-bytes-missing", "base-name-utf-8", "base-name-zero-first"}


def kind(vector):
    """The place of the defect, and how verify ends: the words of its failure without the names and numbers in them."""
    outcome = vector["expect"]["verify"]
    told = re.sub(r"\S*[\d.]\S*", "", outcome.get("err", ""))
    return vector["name"].split("-")[0], outcome["status"], told


class WindowsVectors(WindowsTest, VectorTest):
    def sample(self):
        kinds = {}
        for vector in self.index:
            if vector["name"] not in OTHER_NAMES and "claims" not in vector:
                kinds.setdefault(kind(vector), vector)
        return kinds.values()

    def errors_as_stated(self, stated, told, command):
        """Where no call of the system's failed, the number is what a call of the run-time's own left."""
        if b"GetLastError=*)" not in stated:
            return told
        return re.sub(rb"GetLastError=\d+\)\n$", b"GetLastError=*)\n", told)

    def test_verify_says_of_a_sample_of_the_images_what_is_stated(self):
        self.check_command("verify", vectors=self.sample())

    def test_consolidate_says_and_writes_of_a_sample_of_the_images_what_is_stated(self):
        self.check_command("consolidate", vectors=self.sample())
