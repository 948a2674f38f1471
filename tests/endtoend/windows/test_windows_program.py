"""What the Windows programs are made of: the libraries it asks for, how it may be loaded, what it says of itself.

Windows decides from these tables whether a program starts at all, so they are read with another hand than the one
that wrote them.
"""
import os
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
from xml.etree import ElementTree

from harness import ROOT
from wine import PROGRAM, StartedWindowsProgram

LATE_LIBRARY = "VSSAPI.DLL"
LOAD_CONFIGURATION = 10  # the place of the load configuration in the table of data directories
SYSTEM_FOLDER_ALONE = 0x800  # LOAD_LIBRARY_SEARCH_SYSTEM32


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as file:
        return re.search(r"^project\(Kestrix VERSION (\d+\.\d+\.\d+)", file.read(), re.MULTILINE).group(1)


class WindowsProgram:
    """What holds for each program; the class of one says which it is, and the libraries that it may ask for."""

    @classmethod
    def setUpClass(cls):
        cls.path = os.path.join(os.path.dirname(PROGRAM), cls.program + ".exe")
        with open(cls.path, "rb") as file:
            cls.bytes = file.read()
        cls.headers = cls.readobj("--file-headers")

    @classmethod
    def readobj(cls, *options):
        tool = shutil.which("llvm-readobj")
        if tool is None:
            raise AssertionError("llvm-readobj is missing")
        return subprocess.run([tool, *options, cls.path], check=True, text=True, stdout=subprocess.PIPE).stdout

    def imports(self):
        """The names of the libraries, each list with the names of the calls."""
        found = {"Import": {}, "DelayImport": {}}
        for kind, body in re.findall(r"^(Import|DelayImport) \{\n(.*?)^\}", self.readobj("--coff-imports"),
                                     re.MULTILINE | re.DOTALL):
            name = re.search(r"^  Name: (\S+)$", body, re.MULTILINE).group(1).upper()
            found[kind][name] = re.findall(r"Symbol: (\w+)", body)
        return found

    def test_it_needs_system_libraries_alone(self):
        imports = self.imports()["Import"]
        self.assertEqual(set(imports), {"KERNEL32.DLL", "MSVCRT.DLL", "BCRYPT.DLL", *self.libraries})
        self.assertEqual(self.imports()["DelayImport"], {})
        self.assertIn("CreateFileW", imports["KERNEL32.DLL"])

    def number(self, layout, at):
        return struct.unpack_from(f"<{layout}", self.bytes, at)[0]

    def file_offset(self, address):
        """Where in the file the byte lies that is loaded at this address of the image."""
        signature = self.number("I", 0x3C)
        sections = signature + 24 + self.number("H", signature + 20)
        for section in range(sections, sections + 40 * self.number("H", signature + 6), 40):
            size, start, stored, offset = struct.unpack_from("<4I", self.bytes, section + 8)
            if start <= address < start + min(size, stored):
                return offset + address - start
        self.fail(f"no section holds {address:#x}")

    def test_the_libraries_of_its_import_list_come_from_the_system_folder_alone(self):
        optional = self.number("I", 0x3C) + 24
        self.assertEqual(self.number("H", optional), 0x20B)
        address, size = struct.unpack_from("<2I", self.bytes, optional + 112 + 8 * LOAD_CONFIGURATION)
        self.assertGreater(address, 0)
        at = self.file_offset(address)
        # Its length stands in the table and in its first field; a loader takes from it what lies within.
        self.assertEqual((size, self.number("I", at)), (0x140, 0x140))
        known = dict.fromkeys(range(0, size, 2), 0)
        known.update({0: size, 78: SYSTEM_FOLDER_ALONE})
        self.assertEqual({place: self.number("H", at + place) for place in known}, known)

    def header(self, name):
        return re.search(rf"^ +{name}: (.*)$", self.headers, re.MULTILINE).group(1)

    def test_it_is_a_console_program_for_64_bit_windows(self):
        self.assertTrue(self.header("Machine").startswith("IMAGE_FILE_MACHINE_AMD64"))
        self.assertTrue(self.header("Subsystem").startswith("IMAGE_SUBSYSTEM_WINDOWS_CUI"))

    def test_it_may_be_loaded_anywhere_and_executes_no_data(self):
        for flag in ("DYNAMIC_BASE", "HIGH_ENTROPY_VA", "NX_COMPAT"):
            self.assertIn(f"IMAGE_DLL_CHARACTERISTICS_{flag} (", self.headers)
        # Without relocations the first two would be empty promises.
        self.assertNotIn("IMAGE_FILE_RELOCS_STRIPPED", self.headers)
        self.assertGreater(int(self.header("BaseRelocationTableSize"), 16), 0)
        sections = self.readobj("--sections")
        for body in re.findall(r"Section \{(.*?)\n  \}", sections, re.DOTALL):
            self.assertFalse("IMAGE_SCN_MEM_EXECUTE" in body and "IMAGE_SCN_MEM_WRITE" in body, body)

    def test_it_names_no_table_of_allowed_targets_while_none_is_complete(self):
        # Windows would end the program at the first start-up function that such a table leaves out, and Wine would not.
        self.assertNotIn("IMAGE_DLL_CHARACTERISTICS_GUARD_CF", self.headers)

    def test_it_carries_no_debug_information_no_symbols_no_time_and_no_path_of_the_machine_that_built_it(self):
        self.assertEqual(self.header("SymbolCount"), "0")
        self.assertNotIn("Name: .debug", self.readobj("--sections"))
        self.assertIn("(0x0)", self.header("TimeDateStamp"))
        for path in (ROOT.encode(), b"/usr/", b"/build/", b"/home/", b".cpp\0", b".pdb"):
            self.assertNotIn(path, self.bytes)

    def test_its_manifest_asks_for_no_rights_and_for_long_paths(self):
        texts = re.findall(rb"<\?xml(?:(?!<\?xml).)*?</assembly>", self.bytes, re.DOTALL)
        self.assertEqual(len(texts), 1)
        tree = ElementTree.fromstring(texts[0])
        level, = tree.iter("{urn:schemas-microsoft-com:asm.v3}requestedExecutionLevel")
        self.assertEqual(level.attrib, {"level": "asInvoker", "uiAccess": "false"})
        aware, = tree.iter("{http://schemas.microsoft.com/SMI/2016/WindowsSettings}longPathAware")
        self.assertEqual(aware.text, "true")
        self.assertIn("Type: MANIFEST (ID 24)", self.readobj("--coff-resources"))

    def test_its_version_is_that_of_the_project(self):
        version = project_version()
        for key, value in (("FileVersion", version), ("ProductVersion", version), ("ProductName", "Kestrix"),
                           ("OriginalFilename", f"{self.program}.exe")):
            at = self.bytes.find(f"{key}\0".encode("utf-16-le"))
            self.assertGreater(at, 0, key)
            text = self.bytes[at + 2 * len(key) + 2:][:80].lstrip(b"\0")
            self.assertTrue(text.startswith(f"{value}\0".encode("utf-16-le")), (key, text))
        numbers = [int(part) for part in version.split(".")]
        fixed = self.bytes.find(b"\xbd\x04\xef\xfe")
        words = [int.from_bytes(self.bytes[fixed + 8 + 2 * i:][:2], "little") for i in range(4)]
        self.assertEqual(words, [numbers[1], numbers[0], 0, numbers[2]])


class Kestrix(WindowsProgram, unittest.TestCase):
    program, libraries = "kestrix", {"OLE32.DLL", "OLEAUT32.DLL"}

    def test_its_version_is_found_in_its_file_as_in_that_for_linux(self):
        self.assertEqual(re.findall(rb"\0(Kestrix [0-9.]+)\0", self.bytes), [f"Kestrix {project_version()}".encode()])

    def test_it_finds_the_snapshot_library_itself(self):
        self.assertIn(f"{LATE_LIBRARY}\0".encode("utf-16-le"), self.bytes)


class KestrixImage(WindowsProgram, unittest.TestCase):
    program, libraries = "kestrix-image", {"ADVAPI32.DLL", "SHELL32.DLL"}


class KestrixKeep(WindowsProgram, unittest.TestCase):
    program, libraries = "kestrix-keep", {"ADVAPI32.DLL", "SHELL32.DLL"}


class SilentEnd(unittest.TestCase):
    """Commands of the shell in place of Wine."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrix-silent-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(setattr, StartedWindowsProgram, "repeats", StartedWindowsProgram.repeats)
        StartedWindowsProgram.repeats = 0

    def run_script(self, script):
        return StartedWindowsProgram(["/bin/sh", "-c", script], self.folder).finish()

    def test_a_run_that_ends_without_a_word_is_made_once_more_and_counted(self):
        run = self.run_script("if test -e met; then printf 'said\\r\\n'; else touch met; exit 1; fi")
        self.assertEqual((run.status, run.out, StartedWindowsProgram.repeats), (0, b"said\n", 1))

    def test_a_second_silent_end_stays(self):
        self.assertEqual((self.run_script("exit 1").status, StartedWindowsProgram.repeats), (1, 1))

    def test_a_run_that_says_why_it_ends_is_made_once(self):
        self.assertEqual((self.run_script("printf 'why\\r\\n' >&2; exit 1").err, StartedWindowsProgram.repeats),
                         (b"why\n", 0))
