"""A machine with kestrix-image beside kestrix, in one folder and with the same disks."""
import atexit
import fcntl
import functools
import json
import os
import pty
import shutil
import signal
import struct
import subprocess
import tempfile
import termios
import time

import jsonschema

from harness import PROGRAM, ROOT, SANITIZERS, TIME_LIMIT, MachineTest, Started

IMAGE_PROGRAM = os.path.join(os.path.dirname(PROGRAM), "kestrix-image")
GOOD, FOUND, COMMAND_LINE, IMPOSSIBLE = range(4)  # the exit statuses


@functools.lru_cache(maxsize=None)
def form_of(subcommand):
    """The form that the page states for what a subcommand prints with --json."""
    with open(os.path.join(ROOT, "docs", "kestrix-image.schema.json"), encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    del schema["anyOf"]
    return jsonschema.Draft202012Validator({**schema, "$ref": f"#/$defs/{subcommand}"})


@functools.lru_cache(maxsize=None)
def image_program_copy():
    """A copy that stays the same while the tests run, whatever the build does meanwhile."""
    folder = tempfile.mkdtemp(prefix="kestrix-image-program-")
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    return shutil.copy2(IMAGE_PROGRAM, os.path.join(folder, "kestrix-image"))


@functools.lru_cache(maxsize=None)
def why_no_medium():
    """Files in memory are read from no device."""
    with tempfile.TemporaryDirectory(prefix="kestrix-medium-") as folder:
        kind = subprocess.run(["stat", "--file-system", "--format=%T", folder], stdout=subprocess.PIPE, text=True,
                              check=True).stdout.strip()
        return "the tests' files lie in memory" if kind in ("tmpfs", "ramfs") else None


class ImageMachineTest(MachineTest):
    def setUp(self):
        super().setUp()
        self.imageProgram = os.path.join(self.folder, "kestrix-image")
        try:
            os.link(image_program_copy(), self.imageProgram)
        except OSError:
            shutil.copy2(image_program_copy(), self.imageProgram)

    def start_image_program(self, *arguments):
        self.assertTrue(os.path.isdir(self.devices), "without its devices folder the program sees real disks")
        started = Started([self.imageProgram, *arguments], self.images)
        self.addCleanup(self.end, started)
        return started

    def image_program(self, *arguments):
        return self.start_image_program(*arguments).finish()

    def ask(self, *arguments):
        """A run with --json: its exit status and the object that it printed, in the form that is stated, with nothing
        on the error stream."""
        run = self.image_program(*arguments, "--json")
        self.assertEqual(run.err, b"")
        said = json.loads(run.out)
        form_of(arguments[0]).validate(said)
        return run.status, said

    def check_of(self, *arguments):
        """check of one image, as the member of images that tells of it."""
        status, said = self.ask("check", "--cached", *arguments)
        image, = said["images"]
        self.assertEqual(status, {"sound": GOOD, "damaged": FOUND, "impossible": IMPOSSIBLE}[image["verdict"]])
        return image

    def run_on_terminal(self, stopAfter, *words):
        """What a run, held up for a moment, shows on a terminal of 80 columns."""
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        process = subprocess.Popen([self.imageProgram, *words], cwd=self.images, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=slave, env={**SANITIZERS, **os.environ})
        os.close(slave)
        time.sleep(stopAfter)
        process.send_signal(signal.SIGSTOP)
        time.sleep(0.3)  # longer than the bar waits
        process.send_signal(signal.SIGCONT)
        shown = b""
        try:
            while piece := os.read(master, 4096):
                shown += piece
        except OSError:  # how the end of a terminal is told
            pass
        os.close(master)
        self.assertEqual(process.wait(TIME_LIMIT), GOOD)
        return shown.decode()
