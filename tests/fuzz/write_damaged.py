#!/usr/bin/python3
"""Writes damaged chains as inputs of the fuzz target image_check to standard output: write_damaged.py COUNT SEED.

Each input stands behind its length in four bytes, as the driver of the targets takes it. The same seed gives the same
chains, whatever the count.
"""
import os
import struct
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, "..", "endtoend")]
import damaged_images  # noqa: E402
import make_seeds  # noqa: E402


def main():
    count, seed = int(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory() as folder:
        for case in damaged_images.cases(count, seed, folder):
            data = make_seeds.image_input(list(case.files.values()),
                                          0 if case.withPassword else make_seeds.WITHOUT_PASSWORD)
            sys.stdout.buffer.write(struct.pack("<I", len(data)) + data)


if __name__ == "__main__":
    main()
