"""An image served by nbdkit: its content, its extents, what is kept of it, and what the server says of itself."""
import errno
import hashlib
import json
import os
import re
import subprocess

import nbd

import harness
import kestrix_image
from harness import MIB
from kestrix_image import make_chain, seeded_disk
from nbdkit_server import CHUNK, PLUGIN, Served, data_offset, nbdkit, run_nbdkit, surroundings

HOLE, DATA = nbd.STATE_HOLE | nbd.STATE_ZERO, 0


def disk_with_zeros(count, zeros, tail=0):
    """So many chunks, of which those named are zeros, and a shorter one behind them."""
    disk = bytearray(seeded_disk(count * CHUNK + tail, 5))
    for i in zeros:
        disk[i * CHUNK:(i + 1) * CHUNK] = bytes(len(disk[i * CHUNK:(i + 1) * CHUNK]))
    return bytes(disk)


def stretches(disk, chunkSize=CHUNK):
    """The extents that a disk should have: (length, type), told from its bytes."""
    found = []
    for start in range(0, len(disk), chunkSize):
        chunk = disk[start:start + chunkSize]
        kind = HOLE if not any(chunk) else DATA
        if found and found[-1][1] == kind:
            found[-1] = (found[-1][0] + len(chunk), kind)
        else:
            found.append((len(chunk), kind))
    return found


class Content(Served):
    def check(self, image, disk, *arguments):
        server = self.serve(image, *arguments)
        self.assertTrue(self.nbdcopy(server) == disk, f"{image} is served with other bytes")
        self.assertEqual(server.said(), "")
        server.end()

    def test_a_full_image_is_served_as_its_disk(self):
        disk = disk_with_zeros(9, (2, 3))
        self.image("full", disk, chunkSize=CHUNK)
        self.check("full", disk)

    def test_a_thin_image_is_served_with_what_it_stands_on(self):
        lower, upper = disk_with_zeros(9, (2, 3)), disk_with_zeros(9, (3, 5))
        base = self.image("full", lower, chunkSize=CHUNK)
        self.image("thin", upper, base=base, chunkSize=CHUNK)
        self.check("thin", upper)

    def announced(self, image, *chunks):
        """Where in the image's file what is announced begins when these chunks are read one after the other."""
        reads = ("import nbd, os; h = nbd.NBD(); h.connect_uri(os.environ['uri']); "
                 f"[h.pread(1, {CHUNK} * i) for i in {chunks}]")
        command = ["strace", "-f", "-qq", "-o", self.path("trace"), "-e", "trace=fadvise64", *nbdkit(
            "-f", "-U", "-", PLUGIN, image, "--run", f'export uri; /usr/bin/python3 -c "{reads}"')]
        subprocess.run(command, cwd=self.images, check=True, env=surroundings(), timeout=harness.TIME_LIMIT)
        return [int(offset) for offset in re.findall(rf"fadvise64\(\d+, (\d+), {CHUNK}, POSIX_FADV_WILLNEED\)",
                                                     self.file_bytes("trace").decode())]

    def test_what_is_read_in_order_is_announced_and_what_is_read_at_random_is_not(self):
        full = self.image("full", disk_with_zeros(60, (7, 8)), chunkSize=CHUNK)
        self.assertEqual(self.announced("full", 3), [])
        self.assertEqual(self.announced("full", 40, 3, 50), [])
        self.assertEqual(self.announced("full", 4, 5), [data_offset(full, i) for i in (6, *range(9, 22))])

    def test_a_sealed_image_is_served_with_its_password(self):
        disk = disk_with_zeros(9, (0,), tail=100)
        self.image("sealed", disk, b"secret", chunkSize=CHUNK)
        self.check("sealed", disk, self.password())

    def test_every_length_of_a_chain_is_served_whether_sealed_or_plain(self):
        chain = make_chain(self.images, 65, lambda level: b"secret" if level % 3 else None, chunks=20)
        password = self.password()
        for level, written in enumerate(chain):
            with self.subTest(level + 1):
                self.check(os.path.basename(written.path), written.disk, password)

    def test_a_disk_that_ends_within_a_chunk_is_served_to_its_last_byte(self):
        for tail in (1, 511, 512, CHUNK - 1):
            with self.subTest(tail):
                disk = disk_with_zeros(3, (), tail)
                self.image("odd", disk, chunkSize=CHUNK)
                self.check("odd", disk)

    def test_disks_of_other_sectors_have_their_own_chunks(self):
        for sectorSize in (4096, 520):
            with self.subTest(sectorSize):
                chunkSize = kestrix_image.chunk_size_of_capture(sectorSize)
                disk = seeded_disk(2 * chunkSize + 3 * sectorSize, sectorSize)
                self.image("other", disk, sectorSize=sectorSize, chunkSize=chunkSize)
                self.check("other", disk)

    def test_an_empty_disk_is_served_as_that(self):
        self.image("empty", b"", chunkSize=CHUNK)
        self.assertEqual(self.connect(self.serve("empty")).get_size(), 0)

    def test_a_chunk_that_a_lower_image_stores_longer_counts_for_its_beginning(self):
        disk = seeded_disk(3 * CHUNK, 1)

        def lengthen(record):
            record.data[1] += b"more than there is"
            record.table[1].storedLength = len(record.data[1])

        base = self.image("full", disk, chunkSize=CHUNK, edit=lengthen)
        self.image("thin", disk, base=base, chunkSize=CHUNK)
        self.check("thin", disk)

    def test_qemu_img_makes_raw_qcow2_and_vhdx_of_it_and_gets_the_disk_back(self):
        lower = seeded_disk(MIB, 3) + bytes(5 * MIB) + seeded_disk(2 * MIB, 4)
        upper = lower[:7 * MIB] + bytes(MIB // 2) + lower[7 * MIB + MIB // 2:]
        base = self.image("full", lower, b"secret", chunkSize=65536)
        self.image("thin", upper, b"secret", base, chunkSize=65536)
        server = self.serve("thin", self.password())
        for kind in ("raw", "qcow2", "vhdx", "vmdk"):
            with self.subTest(kind):
                self.must("qemu-img", "convert", "-f", "raw", "-O", kind, server.uri, self.path(kind))
                self.must("qemu-img", "convert", "-f", kind, "-O", "raw", self.path(kind), self.path("back"))
                self.assertTrue(self.file_bytes("back") == upper, f"{kind} holds another disk")

    def test_requests_of_any_place_and_length_get_their_bytes(self):
        disk = disk_with_zeros(9, (2, 3, 7), tail=100)
        self.image("full", disk, chunkSize=CHUNK)
        client = self.connect(self.serve("full"))
        for offset in (0, 1, CHUNK - 1, CHUNK, 2 * CHUNK - 1, 3 * CHUNK + 5, 9 * CHUNK - 1, 9 * CHUNK + 99):
            for length in (1, 2, 512, CHUNK, CHUNK + 1, 5 * CHUNK, len(disk)):
                length = min(length, len(disk) - offset)
                self.assertTrue(client.pread(length, offset) == disk[offset:offset + length], (offset, length))


class Extents(Served):
    def extents(self, client, count, offset, flags=0):
        """What one question brings: (length, type) each, from offset on."""
        found = []

        def take(_, start, entries, __):
            self.assertEqual(start, offset)
            found.extend(zip(entries[::2], entries[1::2]))

        client.block_status(count, offset, take, flags)
        return found

    def check_map(self, image, disk, *arguments):
        server = self.serve(image, *arguments)
        listed = json.loads(self.must("nbdinfo", "--map", "--json", server.uri))
        self.assertEqual([(entry["length"], entry["type"]) for entry in listed], stretches(disk))
        ends = [entry["offset"] + entry["length"] for entry in listed]
        self.assertEqual([entry["offset"] for entry in listed], [0, *ends[:-1]])
        self.assertEqual(ends[-1], len(disk))
        return server

    def test_the_holes_of_a_plain_image_are_its_chunks_of_zeros(self):
        disk = disk_with_zeros(12, (0, 3, 4, 5, 11), tail=100)
        self.image("full", disk, chunkSize=CHUNK)
        self.check_map("full", disk)

    def test_the_holes_of_a_sealed_image_are_the_same_and_none_of_it_is_read_for_them(self):
        disk = disk_with_zeros(12, (0, 3, 4, 5, 12), tail=100)
        written = self.image("sealed", disk, b"secret", chunkSize=CHUNK)
        server = self.check_map("sealed", disk, self.password())
        self.assertLess(server.bytes_read() - len(written.record.head()), MIB)
        before = server.bytes_read()
        self.extents(self.connect(server), len(disk), 0)
        self.assertLess(server.bytes_read() - before, CHUNK)

    def test_the_holes_of_a_thin_image_are_those_of_its_own_disk(self):
        lower, upper = disk_with_zeros(9, (2, 3)), disk_with_zeros(9, (3, 5))
        self.image("thin", upper, base=self.image("full", lower, chunkSize=CHUNK), chunkSize=CHUNK)
        self.check_map("thin", upper)

    def test_one_long_stretch_of_zeros_is_one_extent(self):
        disk = bytes(5000 * 512)
        self.image("full", disk, chunkSize=512)
        self.assertEqual(self.extents(self.connect(self.serve("full")), len(disk), 0), [(len(disk), HOLE)])

    def test_a_question_from_within_a_chunk_is_answered_from_there(self):
        disk = disk_with_zeros(6, (1, 2))
        self.image("full", disk, chunkSize=CHUNK)
        client = self.connect(self.serve("full"))
        for offset in (0, 1, CHUNK - 1, CHUNK, CHUNK + 7, 3 * CHUNK - 1, 3 * CHUNK, 6 * CHUNK - 1):
            kinds = [HOLE if CHUNK <= at < 3 * CHUNK else DATA for at in range(offset, len(disk))]
            covered = 0
            for length, kind in self.extents(client, len(disk) - offset, offset):
                self.assertEqual(set(kinds[covered:covered + length]), {kind}, offset)
                covered += length
            self.assertEqual(covered, len(disk) - offset)

    def test_who_asks_for_one_extent_gets_one(self):
        disk = disk_with_zeros(6, (1, 2))
        self.image("full", disk, chunkSize=CHUNK)
        client = self.connect(self.serve("full"))
        for offset, expected in ((0, (CHUNK, DATA)), (CHUNK + 1, (2 * CHUNK - 1, HOLE)), (3 * CHUNK, (CHUNK, DATA))):
            found = self.extents(client, len(disk) - offset, offset, nbd.CMD_FLAG_REQ_ONE)
            self.assertEqual((len(found), found[0][1]), (1, expected[1]))
            self.assertGreaterEqual(found[0][0], expected[0])

    def test_a_chunk_of_zeros_on_which_the_tables_disagree_is_no_hole(self):
        disk = disk_with_zeros(4, (1,))

        def disagree(record):
            record.table[1].hash = hashlib.sha256(bytes(CHUNK)).digest()
            record.table[1].storedLength, record.data[1] = 0, b""

        base = self.image("full", seeded_disk(4 * CHUNK, 5), chunkSize=CHUNK)
        self.image("thin", disk, base=base, chunkSize=CHUNK, edit=disagree)
        server = self.serve("thin")
        self.assertEqual(self.extents(self.connect(server), 4 * CHUNK, 0), [(4 * CHUNK, DATA)])
        self.check_bad(server, disk, {1})

    def test_chunks_of_zeros_behind_the_end_of_a_cut_file_are_no_holes(self):
        disk = disk_with_zeros(4, (1, 3))
        written = self.image("cut", disk, chunkSize=CHUNK)
        os.truncate(self.path("cut"), data_offset(written, 3) + 5)
        server = self.serve("cut")
        self.assertEqual(self.extents(self.connect(server), 4 * CHUNK, 0),
                         [(CHUNK, DATA), (CHUNK, HOLE), (2 * CHUNK, DATA)])
        self.check_bad(server, disk, {3})


class Cache(Served):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(24 * MIB, 9)
        self.image("full", self.content, chunkSize=MIB)

    def test_a_chunk_that_eight_clients_want_at_once_is_fetched_once(self):
        disk = seeded_disk(40 * MIB, 10)
        self.image("large", disk, chunkSize=20 * MIB)
        server = self.serve("large")
        clients = [self.connect(server) for _ in range(8)]
        for i in (0, 1):
            before = server.bytes_read()
            buffers = [nbd.Buffer(4096) for _ in clients]
            cookies = [client.aio_pread(buffer, i * 20 * MIB + n * MIB)
                       for n, (client, buffer) in enumerate(zip(clients, buffers))]
            for n, (client, buffer, cookie) in enumerate(zip(clients, buffers, cookies)):
                while not client.aio_command_completed(cookie):
                    client.poll(-1)
                start = i * 20 * MIB + n * MIB
                self.assertTrue(buffer.to_bytearray() == disk[start:start + 4096])
            self.assertLess(server.bytes_read() - before, 21 * MIB)

    def test_a_whole_chunk_that_eight_clients_want_at_once_is_not_fetched_by_each_of_them(self):
        size = 32 * MIB
        disk = seeded_disk(size, 10)
        self.image("large", disk, chunkSize=size)
        server = self.serve("large")
        clients = [self.connect(server) for _ in range(8)]
        before = server.bytes_read()
        buffers = [nbd.Buffer(size) for _ in clients]
        cookies = [client.aio_pread(buffer, 0) for client, buffer in zip(clients, buffers)]
        for client, buffer, cookie in zip(clients, buffers, cookies):
            while not client.aio_command_completed(cookie):
                client.poll(-1)
            self.assertTrue(buffer.to_bytearray() == disk)
        # One that comes when the first has gone, and before anyone else has asked, fetches it anew.
        self.assertLess(server.bytes_read() - before, 4 * size)

    def test_who_copies_the_disk_pushes_nothing_out(self):
        server = self.serve("full", "cache=16M")
        client = self.connect(server)
        for i in range(16):
            client.pread(1, i * MIB)
        self.assertTrue(self.nbdcopy(server) == self.content)
        before = server.bytes_read()
        for i in range(16):
            client.pread(1, i * MIB)
        self.assertLess(server.bytes_read() - before, 65536)

    def test_a_chunk_that_is_held_is_not_read_again(self):
        server = self.serve("full")
        client = self.connect(server)
        client.pread(1, 5 * MIB)
        before = server.bytes_read()
        for offset in range(5 * MIB, 6 * MIB, 4096):
            self.assertTrue(client.pread(4096, offset) == self.content[offset:offset + 4096])
        self.assertLess(server.bytes_read() - before, 65536)

    def test_no_more_is_held_than_the_cache_may(self):
        server = self.serve("full", "cache=16M")
        client = self.connect(server)
        for _ in range(2):
            before = server.bytes_read()
            for i in range(24):
                client.pread(1, i * MIB)
            self.assertGreaterEqual(server.bytes_read() - before, 8 * MIB)

    def test_a_chunk_that_is_wanted_again_and_again_stays(self):
        server = self.serve("full", "cache=16M")
        client = self.connect(server)
        client.pread(1, 0)
        before = server.bytes_read()
        for i in range(1, 24):
            client.pread(1, i * MIB)
            client.pread(1, 0)
        self.assertLess(server.bytes_read() - before, 23 * MIB + MIB // 2)

    def test_zeros_are_not_read_at_all(self):
        self.image("zeros", bytes(24 * MIB), chunkSize=MIB)
        server = self.serve("zeros")
        client = self.connect(server)
        before = server.bytes_read()
        self.assertTrue(client.pread(24 * MIB, 0) == bytes(24 * MIB))
        self.assertLess(server.bytes_read() - before, 65536)

    def test_without_a_cache_everything_is_still_served(self):
        for size in ("0", "1", "1G"):
            with self.subTest(size):
                self.assertTrue(self.nbdcopy(self.serve("full", f"cache={size}")) == self.content)


class Itself(Served):
    """What nbdkit's own checks of a plugin look at."""

    def setUp(self):
        super().setUp()
        self.content = disk_with_zeros(20, (3, 4))
        self.image("full", self.content, chunkSize=CHUNK)

    def facts(self, image, *arguments):
        return json.loads(self.must("nbdinfo", "--json", self.serve(image, *arguments).uri))["exports"][0]

    def test_the_disk_is_read_only_and_takes_several_connections(self):
        facts = self.facts("full")
        self.assertEqual((facts["export-size"], facts["is_read_only"], facts["can_multi_conn"]),
                         (len(self.content), True, True))
        client = nbd.NBD()
        client.set_strict_mode(0)
        client.connect_unix(self.serve("full").socket)
        self.addCleanup(client.shutdown)
        for command in (lambda: client.pwrite(b"x" * 512, 0), lambda: client.zero(512, 0), lambda: client.trim(512, 0)):
            self.assertRaises(nbd.Error, command)
        self.assertTrue(client.pread(CHUNK, 0) == self.content[:CHUNK])

    def test_the_preferred_block_is_the_chunk_as_far_as_a_power_of_two_can_be(self):
        for chunkSize, preferred in ((512, 512), (CHUNK, CHUNK), (4 * MIB, 4 * MIB), (8066 * 520, 4 * MIB),
                                     (100, 512), (64 * MIB, 32 * MIB)):
            with self.subTest(chunkSize):
                self.image("one", seeded_disk(max(chunkSize + 1, 4096), 1), chunkSize=chunkSize)
                facts = self.facts("one")
                self.assertEqual((facts["block_size_minimum"], facts["block_size_preferred"],
                                  facts["block_size_maximum"]), (1, preferred, 32 * MIB))

    def test_the_plugin_tells_of_itself(self):
        text = run_nbdkit("--dump-plugin", PLUGIN, cwd=self.images).stdout
        for line in ("name=kestrix", "max_thread_model=parallel", "thread_model=parallel", "magic_config_key=image",
                     f"kestrix_default_cache={64 * MIB}", "kestrix_longest_chain=65"):
            self.assertIn(line + "\n", text)
        text = run_nbdkit("--help", PLUGIN, cwd=self.images).stdout
        for word in ("read-only", "[image=]<FILENAME>", "password-file=<FILENAME>", "cache=<SIZE>", "64M"):
            self.assertIn(word, text)

    def test_it_stands_under_the_filters_of_nbdkit(self):
        for settings in ("delay", "rdelay=20ms"), ("error", "error-pread-rate=0%"):
            server = self.serve("full", settings[1], options=[f"--filter={settings[0]}"])
            self.assertTrue(self.nbdcopy(server) == self.content)
        server = self.serve("full", "error-pread=ENOSPC", "error-pread-rate=100%", options=["--filter=error"])
        with self.assertRaises(nbd.Error) as caught:
            self.connect(server).pread(1, 0)
        self.assertEqual(caught.exception.errno, errno.errorcode[errno.ENOSPC])

    def test_with_exitlast_the_server_ends_well_when_its_last_client_has_gone(self):
        server = self.serve("full", options=["--filter=exitlast"])
        first, second = server.connect(), server.connect()
        self.assertTrue(first.pread(CHUNK, 0) == self.content[:CHUNK])
        first.shutdown()
        self.assertTrue(second.pread(CHUNK, 0) == self.content[:CHUNK])
        self.assertIsNone(server.process.poll())
        second.shutdown()
        self.assertEqual(server.process.wait(harness.TIME_LIMIT), 0)

    def test_it_serves_the_command_that_nbdkit_runs(self):
        command = nbdkit("-U", "-", PLUGIN, "full", "--run", f"nbdcopy $uri {self.path('out')}")
        subprocess.run(command, cwd=self.images, check=True, env=surroundings(), timeout=harness.TIME_LIMIT)
        self.assertTrue(self.file_bytes("out") == self.content)
