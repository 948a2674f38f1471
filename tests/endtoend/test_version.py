"""The version: every program tells that of the tree."""
import os
import re
import shutil
import subprocess
import unittest

from harness import PROGRAM, ROOT

FOLDER = os.path.dirname(PROGRAM)
PLUGIN = os.path.join(FOLDER, "nbdkit-kestrix-plugin.so")


def said(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, stdin=subprocess.DEVNULL).stdout


def of_the_tree():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as file:
        return re.search(r"^project\(Kestrix VERSION (\d+\.\d+\.\d+)", file.read(), re.M).group(1)


class Version(unittest.TestCase):
    @unittest.skipUnless(shutil.which("strings"), "strings is missing")
    def test_of_kestrix_is_found_by_each_command_of_its_page(self):
        with open(os.path.join(ROOT, "docs", "man", "kestrix.8.scd"), encoding="utf-8") as file:
            commands = re.findall(r"^\t?((?:strings|grep) .*?)(?:\+\+)?$", file.read(), re.M)
        self.assertEqual(len(commands), 2)
        for command in commands:
            with self.subTest(command):
                command = command.replace("\\", "").replace("/usr/bin/kestrix", '"$0"')
                self.assertEqual(said("sh", "-c", command, PROGRAM), f"Kestrix {of_the_tree()}\n")

    def test_of_companions_is_told_by_an_option(self):
        for name in ("kestrix-image", "kestrix-keep", "kestrix-browse", "kestrix-vm"):
            with self.subTest(name):
                self.assertEqual(said(os.path.join(FOLDER, name), "--version"), f"{name} {of_the_tree()}\n")

    @unittest.skipUnless(shutil.which("nbdkit"), "nbdkit is missing")
    def test_of_the_plugin_is_told_by_nbdkit(self):
        self.assertIn(f"kestrix {of_the_tree()}", said("nbdkit", PLUGIN, "--version").splitlines())


if __name__ == "__main__":
    unittest.main()
