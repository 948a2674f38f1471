"""A machine for the subcommands of kestrix-image: a disk of four chunks, and what can happen to images of it."""
import os

from harness import MIB
from image_machine import ImageMachineTest
from kestrix_image import seeded_disk

CHUNK = 4096
TABLE = 64 + 72 * 4  # bytes before the data of a disk of four chunks


class CommandTest(ImageMachineTest):
    def setUp(self):
        super().setUp()
        self.file("p", b"secret\n")
        self.content = seeded_disk(3 * CHUNK + 100, 1)
        self.secret = ("--password-file", "p")

    def flip(self, name, place):
        content = bytearray(self.file_bytes(name))
        content[place] ^= 1
        return self.file(name, content)

    def changed(self, chunk, seed=2):
        disk = bytearray(self.content)
        end = min((chunk + 1) * CHUNK, len(disk))
        disk[chunk * CHUNK:end] = seeded_disk(end - chunk * CHUNK, seed)
        return bytes(disk)

    def left(self, *names):
        """What lies in the working folder besides what the test put there."""
        return sorted(set(os.listdir(self.images)) - {"p", *names})

    def other_file_system(self, make, mount):
        """The folder "other" as a file system made and mounted by these commands."""
        backing, folder = os.path.join(self.folder, "other-file-system"), self.path("other")
        with open(backing, "wb") as file:
            file.truncate(16 * MIB)
        os.mkdir(folder)
        device = self.loop_device(backing)
        self.must(*make, device)
        self.must(*mount, device, folder)
        self.addCleanup(self.must, "umount", folder)
        return folder
