"""The manual pages' synopses against the programs' own words."""
import os
import re
import shutil
import subprocess
import unittest

from harness import PROGRAM, ROOT

FOLDER = os.path.dirname(PROGRAM)


def synopses(page):
    """The paragraphs of the page's synopsis as plain text, by what stands behind the program's name."""
    with open(os.path.join(ROOT, "docs", "man", page + ".scd"), encoding="utf-8") as file:
        synopsis = re.search(r"^# SYNOPSIS\n(.*?)^# ", file.read(), re.M | re.S).group(1)
    return [re.sub(r"[*_]", "", paragraph) for paragraph in synopsis.strip().split("\n\n")]


def said(*command):
    return subprocess.run(command, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          stdin=subprocess.DEVNULL).stdout


def options(text):
    return set(re.findall(r"(?<![\w-])(?:--[a-z][a-z-]*|-[a-z])(?![\w-])", text))


class Synopses(unittest.TestCase):
    def check_subcommands(self, page):
        program = page.rsplit(".", 1)[0]
        path = os.path.join(FOLDER, program)
        listed = re.search(r"^Subcommands:\n(.*)", said(path, "--help"), re.M | re.S).group(1)
        found = {}
        for text in synopses(page):
            subcommand = text.split()[1]
            if not subcommand.startswith("-"):
                found.setdefault(subcommand, set()).update(options(text))
        self.assertEqual(set(found), set(re.findall(r"^  ([a-z]+)", listed, re.M)))
        for subcommand, shown in found.items():
            with self.subTest(subcommand):
                helped = said(path, subcommand, "--help")
                named = re.findall(r"^ +((?:-{1,2}[a-z][a-z-]*,?)+)", helped, re.M)
                self.assertEqual(shown, options(" ".join(named).replace(",", " ")) - {"-h", "--help"} - self.everywhere)

    def test_of_kestrix_are_its_usage(self):
        usage = re.findall(r"^  (kestrix .*?)(?:  \(.*)?$", said(PROGRAM), re.M)
        self.assertEqual(synopses("kestrix.8"), [re.sub(" +", " ", line) for line in usage])

    def test_of_kestrix_image_have_the_options_of_each_subcommand(self):
        self.everywhere = set()
        self.check_subcommands("kestrix-image.1")

    def test_of_kestrix_keep_have_the_options_of_each_subcommand(self):
        self.everywhere = {"--json", "--quiet", "--config", "--now"}
        self.check_subcommands("kestrix-keep.8")

    def test_of_kestrix_vm_have_the_options_of_each_subcommand(self):
        self.everywhere = set()
        self.check_subcommands("kestrix-vm.8")

    def test_of_kestrix_browse_are_its_usage(self):
        helped = said(os.path.join(FOLDER, "kestrix-browse"), "--help")
        usage = re.findall(r"(?:Usage: |^ {7})(kestrix-browse .*)$", helped, re.M)
        self.assertEqual(synopses("kestrix-browse.1"), usage)

    @unittest.skipUnless(shutil.which("nbdkit"), "nbdkit is missing")
    def test_of_the_plugin_has_its_parameters(self):
        helped = said("nbdkit", os.path.join(FOLDER, "nbdkit-kestrix-plugin.so"), "--help")
        self.assertEqual(set(re.findall(r"([a-z-]+)\]?=", synopses("nbdkit-kestrix-plugin.1")[0])),
                         set(re.findall(r"^\[?([a-z-]+)=\]?<", helped, re.M)))
