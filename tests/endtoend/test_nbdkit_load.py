"""nbdkit with the plugin under many clients: every byte that it gives, and the memory that it takes meanwhile.

Runs for a few seconds, or as long as KESTRIX_LOAD_SECONDS says; scripts/check-nbdkit-load gives it a minute each, with
and without the thread sanitizer.
"""
import multiprocessing
import os
import random
import time

import nbd

from harness import KIB, MIB
from kestrix_image import flip_byte, make_chain, seeded_disk
from nbdkit_server import NbdkitTest, sanitizer

SECONDS = float(os.environ.get("KESTRIX_LOAD_SECONDS", "3"))
CLIENTS = 8
LARGEST = 128 * KIB  # bytes of one request
BESIDES, PER_ENTRY = 48 * MIB, 80


def read_at_random(path, socket, seed, bad, chunkSize, wholeChunks, until, told):
    """One client: several requests at a time, each compared with the disk. Tells how many, and what was wrong."""
    chance = random.Random(seed)
    with open(path, "rb") as file:
        disk = file.read()
    client = nbd.NBD()
    client.connect_unix(socket)
    done, wrong = 0, []
    while (time.monotonic() < until or done == 0) and not wrong:  # one that begins late reads too
        waiting = []
        for _ in range(8):
            length = chance.randint(1, LARGEST)
            offset = chance.randrange(len(disk) - length)
            if chance.random() < wholeChunks:
                length, offset = chunkSize, chance.randrange(len(disk) // chunkSize) * chunkSize
            buffer = nbd.Buffer(length)
            waiting.append((offset, length, buffer, client.aio_pread(buffer, offset)))
        for offset, length, buffer, cookie in waiting:
            fails = any(i in bad for i in range(offset // chunkSize, (offset + length - 1) // chunkSize + 1))
            try:
                while not client.aio_command_completed(cookie):
                    client.poll(-1)
                right = not fails and buffer.to_bytearray() == disk[offset:offset + length]
            except nbd.Error as error:
                right = fails and error.errno == "EIO"
            if not right:
                wrong.append((offset, length))
            done += 1
    client.shutdown()
    told.put((done, wrong))


class Load(NbdkitTest):
    def check_load(self, server, disk, chunkSize, bad=(), wholeChunks=0.0):
        with open(os.path.join(self.folder, "disk"), "wb") as file:
            file.write(disk)
        told = multiprocessing.Queue()
        until = time.monotonic() + SECONDS
        clients = [multiprocessing.Process(target=read_at_random, args=(
            file.name, server.socket, seed, bad, chunkSize, wholeChunks, until, told)) for seed in range(CLIENTS)]
        for client in clients:
            client.start()
        found = [told.get(timeout=SECONDS + 60) for _ in clients]
        for client in clients:
            client.join()
        self.assertEqual([wrong for _, wrong in found if wrong], [])
        self.assertGreater(min(done for done, _ in found), 0)
        self.assertNotIn("ThreadSanitizer", server.said())

    def check_memory(self, server, cacheBytes, entries):
        used, limit = server.status("VmHWM") * KIB, cacheBytes + PER_ENTRY * entries + BESIDES
        if not sanitizer():
            self.assertLessEqual(used, limit, f"{used / MIB:.1f} MiB")

    def test_eight_clients_get_their_bytes_from_a_sealed_chain_that_does_not_fit_into_the_cache(self):
        self.file("password", b"secret\n")
        chain = make_chain(self.images, 3, b"secret", chunks=30, chunkSize=4 * MIB)
        server = self.serve("level02.kstx", "password-file=password", "cache=16M")
        self.check_load(server, chain[-1].disk, 4 * MIB)
        self.check_memory(server, 16 * MIB, 3 * 30)

    def test_eight_clients_some_of_whom_want_whole_chunks_get_their_bytes_and_errors(self):
        disk = seeded_disk(24 * MIB, 5)
        written = self.image("full", disk, chunkSize=MIB)
        bad = {3, 20}
        for i in bad:
            flip_byte(self.path("full"), len(written.record.head()) + i * MIB)
        # nbdkit keeps memory for the largest request of each of its threads.
        server = self.serve("full", "cache=0", options=["--threads=2"])
        self.check_load(server, disk, MIB, bad, wholeChunks=0.3)
        self.check_memory(server, 16 * MIB, 24)
        self.assertEqual(server.said().count("its digest is not the recorded one"), len(bad))

    def test_eight_clients_get_their_bytes_and_errors_from_a_damaged_image_of_small_chunks(self):
        disk = seeded_disk(24 * MIB, 3)
        written = self.image("full", disk, chunkSize=64 * KIB)
        bad = {7, 100, 101, 383}
        for i in bad:
            flip_byte(self.path("full"), len(written.record.head()) + i * 64 * KIB + i)
        server = self.serve("full", "cache=0")
        self.check_load(server, disk, 64 * KIB, bad)
        self.check_memory(server, 16 * MIB, 384)
        self.assertEqual(server.said().count("its digest is not the recorded one"), len(bad))

    def test_copies_of_a_large_disk_take_no_more_memory_than_random_reads(self):
        disk = seeded_disk(160 * MIB, 4)
        self.image("full", disk, chunkSize=4 * MIB)
        # nbdcopy asks for whole chunks, and nbdkit itself has memory for as many requests as it has threads.
        server = self.serve("full", options=["--threads=4"])
        self.must("nbdcopy", server.uri, self.path("copy"))
        self.must("qemu-img", "convert", "-f", "raw", "-O", "raw", server.uri, self.path("raw"))
        self.assertTrue(self.file_bytes("copy") == disk)
        self.assertTrue(self.file_bytes("raw") == disk)
        self.check_memory(server, 64 * MIB, 40)

    def test_an_entry_of_a_table_costs_80_bytes_at_most(self):
        count = 200000
        self.image("small", bytes(512), chunkSize=512)
        self.image("large", seeded_disk(512, 1) + bytes((count - 1) * 512), chunkSize=512)
        small, large = (self.serve(name, "cache=0").status("VmHWM") * KIB for name in ("small", "large"))
        if not sanitizer():
            self.assertGreater(large - small, 72 * count)
            self.assertLess(large - small, PER_ENTRY * count + MIB)
