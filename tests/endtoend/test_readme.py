"""What the README shows is what the program prints.

The console blocks of the README are run in their order on one machine like that of the demo. Speeds differ from run to
run, and of a progress line the README shows the end.
"""
import os
import re
import unittest

import harness

README = os.path.join(harness.ROOT, "README.md")
DISK_BYTES = 42 * harness.MIB


def console_commands():
    """Each command of the console blocks with the lines that the README shows for it."""
    commands = []
    with open(README, encoding="utf-8") as file:
        blocks = re.findall(r"^```console\n(.*?)^```", file.read(), re.S | re.M)
    for line in "".join(blocks).splitlines():
        if line.startswith("$ "):
            commands.append((line[2:], []))
        else:
            commands[-1][1].append(line)
    return commands


def as_shown(line):
    """A line as a terminal leaves it, without its speed."""
    return re.sub(r"\(\d+\.\d MiB/s\)", "(- MiB/s)", line.split("\r")[-1]).rstrip()


class Readme(harness.MachineTest):
    def run_shown(self, command):
        words = command.split()
        self.assertEqual(words[0], "kestrix")
        run = self.kestrix(*words[1:])
        text = (run.out + run.err).decode("utf-8")
        return [as_shown(line) for line in text.rstrip("\n").split("\n")]

    def test_every_command_of_the_readme_prints_what_the_readme_shows(self):
        self.disk(0, 16 * harness.MIB)
        self.volume_c(0)
        self.disk(1, os.urandom(harness.MIB) * 42)
        self.disk(2, DISK_BYTES)
        self.file("password.txt", b"a password\n")
        commands = console_commands()
        self.assertGreater(len(commands), 8)
        for command, shown in commands:
            if "--thin" in command:
                with open(self.disk_path(1), "r+b") as disk:
                    disk.seek(20 * harness.MIB)
                    disk.write(b"changed since")
            with self.subTest(command):
                self.assertEqual(self.run_shown(command), [as_shown(line) for line in shown])


if __name__ == "__main__":
    unittest.main()
