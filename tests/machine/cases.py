"""What a rehearsal is: a case with a name, found by its file, and what all of them stand on."""
import hashlib
import os
import random
import subprocess

from machine import PLAIN_DIGESTS, PROMPT, Disk, Machine

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
WORK = os.path.join(ROOT, "build", "rehearse")
RESCUE = os.path.join(ROOT, "build", "rescue")
STICK = os.path.join(RESCUE, "kestrix-rescue.iso")
MIB = 1 << 20

CASES = []


class Case:
    """A function of one argument, the folder that is its own, and where its row stands."""

    def __init__(self, group, name, function, short):
        self.group = group
        self.name = name
        self.function = function
        self.short = short


def case(group, name, short=False):
    def add(function):
        CASES.append(Case(group, name, function, short))
        return function
    return add


# ---- Disks ----

def blank(path, size):
    with open(path, "wb") as file:
        file.truncate(size)
    return path


def noise(path, size, seed):
    """A disk full of what is no file system's, the same for the same seed."""
    numbers = random.Random(seed)
    with open(path, "wb") as file:
        for _ in range(size // MIB):
            file.write(numbers.randbytes(MIB))
    return path


def digest(path):
    total = hashlib.sha256()
    with open(path, "rb") as file:
        for piece in iter(lambda: file.read(4 * MIB), b""):
            total.update(piece)
    return total.hexdigest()


def digests(paths):
    return {path: digest(path) for path in paths}


def host(*command, text=None):
    """A command on the machine that rehearses."""
    done = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode == 0, f"{' '.join(command)}: {done.stdout}"
    return done.stdout


# ---- The stick ----

def stick(kind="cd", boots=0):
    return Disk(STICK, kind, serial="RESCUE-STICK" if kind != "cd" else "", boots=boots, name="stick", writable=False)


def past_firmware():
    """What the stick's own menu would start, for cases in which the firmware has no part."""
    listed = host("xorriso", "-osirrox", "on", "-indev", STICK, "-report_about", "WARNING", "-lsl", "/rescue")
    name = [word for word in listed.replace("'", " ").split() if word.endswith(".squashfs")][0]
    options = (f"boot=rescue rescue={name.removesuffix('.squashfs')} console=tty0 console=ttyS0,115200 quiet noresume "
               "systemd.gpt_auto=0 no_timer_check")
    return os.path.join(RESCUE, "vmlinuz"), os.path.join(RESCUE, "initrd"), options


def make_ready(machine, prompt):
    """Makes the shell ready for long lines; of what the kernel would say in between, the log of the kernel has it."""
    machine.type("dmesg -n 1; stty cols 2000; bind 'set enable-bracketed-paste off'; export TERM=dumb PAGER=cat "
                 + PLAIN_DIGESTS)
    machine.expect(prompt)


def reach_prompt(machine, seconds=420):
    """From the firmware, or past it, to the shell of the stick."""
    machine.expect(PROMPT, seconds=seconds)
    make_ready(machine, PROMPT)


__all__ = ["CASES", "Disk", "MIB", "Machine", "PLAIN_DIGESTS", "PROMPT", "RESCUE", "ROOT", "STICK", "WORK", "blank",
           "case", "digest", "digests", "host", "make_ready", "noise", "past_firmware", "reach_prompt", "stick"]
