"""The example on the page about the image file is what the program writes, byte for byte."""
import os
import re
import unittest

import harness

PAGE = os.path.join(harness.ROOT, "docs", "image-format.md")


class ImageFormatPage(harness.MachineTest):
    def test_the_example_in_hex_is_what_a_capture_of_that_disk_writes(self):
        with open(PAGE, encoding="utf-8") as file:
            lines = re.findall(r"^[0-9a-f]{4}  ((?:[0-9a-f]{2} )+)", file.read(), re.M)
        self.system_disk()
        self.disk(1, b"sixteen bytes...")
        self.assertEqual(self.kestrix("capture", "--disk", "1", "--out", "image.kstx").status, 0)
        self.assertEqual(self.file_bytes("image.kstx"), bytes.fromhex("".join(lines)))


if __name__ == "__main__":
    unittest.main()
