"""An image served by nbdkit: the whole disk through nbdcopy beside the program's own verify, small reads out of a warm
cache beside nbdkit's file plugin on the raw disk, and the opening of an image of a huge disk.

The disk has no zeros, which the plugin would not read. The server and its client have two cores, verify has one, which
is all that it uses. Two threads for each connection are what two cores take: with its usual 16, nbdkit and nbdcopy fill
more memory with whole chunks than the processor's caches hold.
"""
import json
import os
import random

from growth import write_head
from machine import CHUNK, MIB, TIB, Contender

VERIFY, COPY, FILE, PLUGIN = "kestrix verify", "nbdkit, nbdcopy", "nbdkit's file plugin", "nbdkit's kestrix plugin"
OPEN_SIZE = 2 * TIB
DISK = 9
SEQUENTIAL, RANDOM, OPENING = "the whole disk", "4 KiB at random", "opening an image of 2 TiB"
# Every chunk is wanted in pieces, so that the plugin keeps it.
WARM_UP = "fio --name=warm --ioengine=nbd --uri=$uri --rw=read --bs=256k --size={size} --output=/dev/null"
WORKING_SET = 512 * MIB  # what the random reads go to


def plugin(machine):
    return os.path.join(machine.build, "nbdkit-kestrix-plugin.so")


def prepare(machine, size):
    chance = random.Random(3)
    with open(machine.path("dense.disk"), "wb") as file:
        for start in range(0, size, CHUNK):
            file.write(chance.randbytes(min(CHUNK, size - start)))
        os.fsync(file.fileno())
    machine.link_disk(DISK, machine.path("dense.disk"))
    machine.must(machine.kestrix, "capture", "--disk", str(DISK), "--out", "dense")


def on_cores(count, *command):
    cores = sorted(os.sched_getaffinity(0))[-count:]
    return ["taskset", "--cpu-list", ",".join(map(str, cores)), *command]


def sequential(machine, rounds):
    def check():
        machine.must("nbdkit", "-U", "-", plugin(machine), "dense", "--run", "nbdcopy $uri copy")
        machine.must_be_equal("copy", "dense.disk")
        os.unlink(machine.path("copy"))

    contenders = {
        VERIFY: Contender(on_cores(1, machine.kestrix, "verify", "--in", "dense")),
        COPY: Contender(on_cores(2, "nbdkit", "--threads=2", "-U", "-", plugin(machine), "dense",
                                 "--run", "nbdcopy $uri null:"), check=check),
    }
    return [record for cache in ("cold", "warm")
            for record in machine.compare(contenders, rounds, {"row": SEQUENTIAL}, cache, [machine.path("dense")])]


def small_reads(machine, size, seconds, *served):
    """Seconds for each small read, 32 under way at a time, when every byte has been read once."""
    size = min(size, WORKING_SET)
    reads = (f"fio --name=small --ioengine=nbd --uri=$uri --rw=randread --bs=4k --iodepth=32 --size={size} "
             f"--time_based --runtime={seconds} --output-format=json --output=figures")
    machine.must(*on_cores(2, "nbdkit", "-U", "-", *served, "--run", f"{WARM_UP.format(size=size)} && {reads}"))
    with open(machine.path("figures"), encoding="utf-8") as file:
        return 1 / json.load(file)["jobs"][0]["read"]["iops"]


def at_random(machine, size, rounds, seconds):
    served = {PLUGIN: [plugin(machine), "dense", f"cache={size + CHUNK}"], FILE: ["file", "dense.disk"]}
    records = []
    for number in range(rounds + 1):
        for who in served if number % 2 == 0 else reversed(served):
            wall = small_reads(machine, size, seconds, *served[who])
            records.append({"row": RANDOM, "cache": "warm", "who": who, "counts": number > 0 or rounds == 0,
                            "round": number, "wall": wall})
    return records


def opening(machine, rounds):
    """Of the image header and table are there, which is all that is read of it; its disk is one of zeros."""
    write_head(machine.path("huge"), OPEN_SIZE)
    os.truncate(machine.path("huge"), os.path.getsize(machine.path("huge")) + OPEN_SIZE)
    contender = Contender(["nbdkit", "-U", "-", plugin(machine), "huge", "--run", "nbdinfo --size $uri"],
                          check=machine.log_holds(str(OPEN_SIZE)))
    return [record for cache in ("cold", "warm")
            for record in machine.compare({PLUGIN: contender}, rounds, {"row": OPENING}, cache)]


def measure(machine, size, rounds, seconds):
    prepare(machine, size)
    return sequential(machine, rounds) + at_random(machine, size, rounds, seconds) + opening(machine, rounds)
