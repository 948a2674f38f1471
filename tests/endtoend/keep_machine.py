"""A machine with kestrix-keep beside kestrix, in one folder and with the same disks."""
import atexit
import functools
import json
import os
import shutil
import tempfile

import jsonschema

from harness import MIB, PROGRAM, ROOT, MachineTest, Started

KEEP_PROGRAM = os.path.join(os.path.dirname(PROGRAM), "kestrix-keep")
WELL, FAILED, COMMAND_LINE, BUSY = range(4)  # the exit statuses


@functools.lru_cache(maxsize=None)
def form_of(subcommand):
    """The form that is stated for what a subcommand prints with --json."""
    with open(os.path.join(ROOT, "docs", "kestrix-keep.schema.json"), encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    del schema["anyOf"]
    return jsonschema.Draft202012Validator({**schema, "$ref": f"#/$defs/{subcommand}"})


@functools.lru_cache(maxsize=None)
def keep_program_copy():
    """A copy that stays the same while the tests run, whatever the build does meanwhile."""
    folder = tempfile.mkdtemp(prefix="kestrix-keep-program-")
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    return shutil.copy2(KEEP_PROGRAM, os.path.join(folder, "kestrix-keep"))


class KeepMachineTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.keepProgram = os.path.join(self.folder, "kestrix-keep")
        try:
            os.link(keep_program_copy(), self.keepProgram)
        except OSError:
            shutil.copy2(keep_program_copy(), self.keepProgram)

    # Filling the machine

    def let_all_change_the_program(self):
        """Of this machine alone: the other ones' is another name of the same file."""
        own = self.program + "-own"
        shutil.copy2(self.program, own)
        os.replace(own, self.program)
        os.chmod(self.program, 0o777)

    def card(self, number, content):
        """The card of a disk in a file: an object, or the bytes of what is none."""
        if not isinstance(content, bytes):
            content = json.dumps(content).encode()
        with open(self.disk_path(number) + ".json", "wb") as file:
            file.write(content)

    def file_system(self, size, *command):
        """The bytes of a file system that a command of the system makes in a file of so many bytes."""
        descriptor, path = tempfile.mkstemp(prefix="file-system-", dir=self.folder)
        os.truncate(descriptor, size)
        os.close(descriptor)
        self.must(*command, path)
        with open(path, "rb") as file:
            return file.read()

    def ext4(self, size=4 * MIB, label="data"):
        return self.file_system(size, "mkfs.ext4", "-q", "-L", label)

    def vfat(self, size=2 * MIB, label="ESP"):
        return self.file_system(size, "mkfs.vfat", "-n", label)

    def partitioned(self, number, size, script, contents=(), sectorSize=512):
        """A disk in a file with the partitions of sfdisk's script; contents are bytes by their offset."""
        self.disk(number, size)
        path = os.path.join(self.folder, "script")
        with open(path, "w", encoding="utf-8") as file:
            file.write(script)
        target = self.disk_path(number) if sectorSize == 512 else self.loop_device(self.disk_path(number), sectorSize)
        self.must("sh", "-c", 'exec sfdisk --quiet "$1" <"$2"', "sh", target, path)
        with open(self.disk_path(number), "r+b") as file:
            for offset, content in dict(contents).items():
                file.seek(offset)
                file.write(content)

    # Running the program

    def start_keep(self, *arguments):
        self.assertTrue(os.path.isdir(self.devices), "without its devices folder the program sees real disks")
        started = Started([self.keepProgram, *arguments], self.images)
        self.addCleanup(self.end, started)
        return started

    def keep(self, *arguments):
        return self.start_keep(*arguments).finish()

    def ask(self, *arguments):
        """A run with --json: its exit status and the object that it printed, in the form that is stated, with nothing
        on the error stream."""
        run = self.keep(*arguments, "--json")
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        form_of(arguments[0]).validate(said)
        return run.status, said

    def disks(self):
        """The disks that are listed, by their numbers."""
        status, said = self.ask("disks")
        self.assertEqual((status, said["fault"]), (WELL, None))
        numbers = [disk["number"] for disk in said["disks"]]
        self.assertEqual(numbers, sorted(set(numbers)))
        return dict(zip(numbers, said["disks"]))
