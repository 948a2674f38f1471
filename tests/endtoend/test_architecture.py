"""The includes of the tree against docs/development/architecture.dot: what stands on what, and on nothing else."""
import glob
import os
import re
import unittest

from harness import ROOT

DRAWING = os.path.join(ROOT, "docs", "development", "architecture.dot")
SEAM = "platform/linux/include"  # and the header of the guard, which both systems have
LIBRARIES = {"CLI/CLI.hpp", "nlohmann/json.hpp", "toml++/toml.h", "nbdkit-plugin.h"}
# Where the build looks for headers, by the folder of who includes them.
FOLDERS = {"src": ["src", "platform", SEAM], "platform": ["platform", SEAM], "companions": ["companions", "src"]}
PLATFORM = re.compile(r"\b(_WIN32|WIN32|_MSC_VER|__linux__|__unix__|__GNUC__|__MINGW\w*)\b")


def drawn():
    """The boxes of the drawing, and the pairs that its solid arrows join."""
    with open(DRAWING, encoding="utf-8") as file:
        text = re.sub(r"//.*", "", file.read())
    arrows = re.findall(r'"([^"]+)" -> "([^"]+)"\s*(\[.*?\])?;', text)
    return (set(re.findall(r'^\s*"([^"]+)" \[', text, re.M)),
            {(one, other) for one, other, how in arrows if "dashed" not in how})


BOXES, ARROWS = drawn()


def sources():
    for folder in FOLDERS:
        for path in glob.glob(os.path.join(ROOT, folder, "**", "*"), recursive=True):
            if path.endswith((".cpp", ".h")):
                yield os.path.relpath(path, ROOT)


def box_of(path):
    """The innermost box that a file lies in."""
    if path == "platform/structured_guard.h":
        return SEAM
    while path and path not in BOXES:
        path = os.path.dirname(path)
    return path


def text_of(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return re.sub(r"/\*.*?\*/|//[^\n]*", "", file.read(), flags=re.S)


def includes(path):
    """The names that a file includes, each with the file of the tree that it leads to, or None."""
    for name in re.findall(r'^\s*#\s*include\s*["<]([^">]+)[">]', text_of(path), re.M):
        folders = [os.path.dirname(path), *FOLDERS[path.split("/")[0]]]
        found = [os.path.join(folder, name) for folder in folders if os.path.isfile(os.path.join(ROOT, folder, name))]
        yield name, os.path.normpath(found[0]) if found else None


class Includes(unittest.TestCase):
    def test_every_include_is_an_arrow_of_the_drawing_and_every_arrow_an_include(self):
        found = {}
        for path in sources():
            for name, target in includes(path):
                if target and box_of(path) != box_of(target):
                    found.setdefault((box_of(path), box_of(target)), []).append(f"{path} includes {name}")
        self.assertEqual({arrow: where for arrow, where in found.items() if arrow not in ARROWS}, {})
        self.assertEqual(ARROWS - set(found), set())

    def test_every_file_lies_in_a_box(self):
        self.assertGreater(len(list(sources())), 150)
        self.assertEqual([path for path in sources() if not box_of(path)], [])

    def test_a_quoted_name_is_a_file_of_the_tree(self):
        for path in sources():
            quoted = set(re.findall(r'^\s*#\s*include\s*"([^"]+)"', text_of(path), re.M))
            with self.subTest(path):
                self.assertEqual({name for name, target in includes(path) if name in quoted and not target}, set())

    def test_of_headers_that_are_not_the_languages_the_program_uses_the_published_ones(self):
        for path in sources():
            if path.startswith("src/"):
                with self.subTest(path):
                    foreign = {name for name, target in includes(path) if "." in name and not target}
                    self.assertEqual(foreign - {"malloc.h"}, set())

    def test_outside_of_host_companions_use_no_header_of_a_system(self):
        for path in sources():
            if path.startswith("companions/") and box_of(path) != "companions/host":
                with self.subTest(path):
                    foreign = {name for name, target in includes(path) if "." in name and not target}
                    self.assertEqual(foreign - LIBRARIES, set())

    def test_only_host_and_platform_know_which_system_they_are_on(self):
        for path in sources():
            if path.startswith(("src/", "companions/")) and box_of(path) != "companions/host":
                with self.subTest(path):
                    lines = [line for line in text_of(path).splitlines() if line.lstrip().startswith("#")]
                    self.assertIsNone(PLATFORM.search("\n".join(lines)))


if __name__ == "__main__":
    unittest.main()
