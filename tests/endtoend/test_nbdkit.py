"""An image served by nbdkit: its content, its extents, what damage does to it, and what the server says of itself."""
import errno
import fcntl
import hashlib
import json
import os
import signal
import subprocess
import time

import nbd

import harness
import kestrix_image
from harness import MIB
from kestrix_image import flip_byte, make_chain, seeded_disk
from nbdkit_server import PLUGIN, NbdkitTest, nbdkit, run_nbdkit, sanitizer, surroundings

CHUNK = 8192
HOLE, DATA = nbd.STATE_HOLE | nbd.STATE_ZERO, 0


def data_offset(written, i):
    """File offset of what the image stores of chunk i."""
    return len(written.record.head()) + sum(len(data) for data in written.record.data[:i])


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


class Served(NbdkitTest):
    def password(self, content=b"secret\n"):
        self.file("password", content)
        return "password-file=password"

    def check_read_fails(self, client, length, offset):
        with self.assertRaises(nbd.Error) as caught:
            client.pread(length, offset)
        self.assertEqual(caught.exception.errno, "EIO")

    def check_bad(self, server, disk, bad, chunkSize=CHUNK):
        """Exactly these chunks of the disk can't be read."""
        client = self.connect(server)
        for i in range(kestrix_image.count_chunks(len(disk), chunkSize)):
            part = disk[i * chunkSize:(i + 1) * chunkSize]
            if i in bad:
                for offset in (0, len(part) - 1):
                    self.check_read_fails(client, 1, i * chunkSize + offset)
            else:
                self.assertTrue(client.pread(len(part), i * chunkSize) == part, f"chunk {i} has other bytes")


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


class Damage(Served):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(9 * CHUNK + 100, 6)

    def test_a_bad_chunk_of_a_full_image_is_an_error_there_and_nowhere_else(self):
        written = self.image("full", self.content, chunkSize=CHUNK)
        flip_byte(self.path("full"), data_offset(written, 4) + CHUNK - 1)
        flip_byte(self.path("full"), data_offset(written, 9))
        self.check_bad(self.serve("full"), self.content, {4, 9})

    def test_a_bad_seal_is_an_error_there_and_nowhere_else(self):
        written = self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        flip_byte(self.path("sealed"), data_offset(written, 4) + 17)
        self.check_bad(self.serve("sealed", self.password()), self.content, {4})

    def test_a_wrong_password_makes_every_chunk_bad(self):
        self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        self.check_bad(self.serve("sealed", self.password(b"other")), self.content, range(10))

    def test_a_request_across_a_bad_chunk_fails_as_a_whole(self):
        written = self.image("full", self.content, chunkSize=CHUNK)
        flip_byte(self.path("full"), data_offset(written, 4))
        client = self.connect(self.serve("full"))
        self.check_read_fails(client, CHUNK, 3 * CHUNK + 1)
        self.check_read_fails(client, CHUNK, 5 * CHUNK - 1)
        self.check_read_fails(client, len(self.content), 0)
        self.assertTrue(client.pread(CHUNK, 3 * CHUNK) == self.content[3 * CHUNK:4 * CHUNK])

    def test_a_bad_chunk_is_told_once_with_the_file_that_holds_it_and_its_number(self):
        base = self.image("full", self.content, chunkSize=CHUNK)
        changed = seeded_disk(CHUNK, 7) + self.content[CHUNK:]
        thin = self.image("thin", changed, base=base, chunkSize=CHUNK)
        flip_byte(self.path("full"), data_offset(base, 4))
        flip_byte(self.path("thin"), data_offset(thin, 0))
        server = self.serve("thin")
        for client in (self.connect(server), self.connect(server)):
            for _ in range(3):
                self.check_read_fails(client, 10, 4 * CHUNK)
                self.check_read_fails(client, 10, 0)
        said = [line.partition(" error: ")[2] for line in server.said().splitlines()]  # before it: which worker
        self.assertEqual(said, [f"{self.path('full')}: chunk 4: its digest is not the recorded one",
                                f"{self.path('thin')}: chunk 0: its digest is not the recorded one"])

    def test_of_a_cut_file_all_is_served_that_is_there(self):
        written = self.image("cut", self.content, chunkSize=CHUNK)
        os.truncate(self.path("cut"), data_offset(written, 7) + CHUNK - 1)
        self.check_bad(self.serve("cut"), self.content, {7, 8, 9})

    def test_a_file_cut_while_it_is_served_loses_what_is_cut_and_no_more(self):
        written = self.image("full", self.content, chunkSize=CHUNK)
        server = self.serve("full")
        os.truncate(self.path("full"), data_offset(written, 7) + CHUNK - 1)
        self.check_bad(server, self.content, {7, 8, 9})

    def test_a_file_overwritten_while_it_is_served_is_never_served_with_other_bytes(self):
        self.image("full", self.content, chunkSize=CHUNK)
        server = self.serve("full")
        client = self.connect(server)
        client.pread(1, 2 * CHUNK)
        with open(self.path("full"), "r+b") as file:
            file.write(os.urandom(os.path.getsize(self.path("full"))))
        self.check_bad(server, self.content, set(range(10)) - {2})

    def test_a_base_removed_or_replaced_while_it_is_served_changes_nothing(self):
        base = self.image("full", self.content, chunkSize=CHUNK)
        changed = seeded_disk(CHUNK, 7) + self.content[CHUNK:]
        self.image("thin", changed, base=base, chunkSize=CHUNK)
        server = self.serve("thin")
        os.unlink(self.path("full"))
        self.assertTrue(self.nbdcopy(server) == changed)
        other = self.serve_replaced(changed)
        self.assertTrue(self.nbdcopy(other) == changed)

    def serve_replaced(self, changed):
        base = self.image("base", self.content, chunkSize=CHUNK)
        self.image("upper", changed, base=base, chunkSize=CHUNK)
        server = self.serve("upper")
        self.image("another", seeded_disk(len(self.content), 8), chunkSize=CHUNK)
        os.replace(self.path("another"), self.path("base"))
        return server

    def test_a_disk_longer_than_its_chunks_ends_in_errors(self):
        def lengthen(record):
            record.header.diskSize += 5 * CHUNK

        self.image("long", self.content[:8 * CHUNK], chunkSize=CHUNK, edit=lengthen)
        server = self.serve("long")
        self.check_bad(server, self.content[:8 * CHUNK] + bytes(5 * CHUNK), range(8, 13))
        self.assertEqual(server.said().count("has no chunks for the disk's bytes from 65536 on"), 1)
        self.assertTrue(self.connect(server).can_multi_conn())

    def test_an_entry_that_names_another_place_is_a_bad_chunk(self):
        def misplace(record):
            record.table[2].diskOffset += CHUNK

        self.image("full", self.content, chunkSize=CHUNK, edit=misplace)
        self.check_bad(self.serve("full"), self.content, {2})


class Opening(Served):
    def setUp(self):
        super().setUp()
        self.content = seeded_disk(3 * CHUNK, 6)

    def check_refused(self, sentence, *arguments):
        self.assertEqual(self.refused(*arguments), f"nbdkit: error: {sentence}\n")

    def test_what_stands_in_the_way_is_told_in_a_sentence_and_nothing_is_served(self):
        base = self.image("full", self.content, chunkSize=CHUNK)
        self.image("thin", self.content, base=base, chunkSize=CHUNK)
        self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        self.file("text", b"no image" * 100)
        self.file("none", b"\n")
        at = self.path
        for sentence, *arguments in (
                (f"{at('text')}: it is no image of Kestrix, or of a kind that is not known here", "text"),
                (f"{at('sealed')}: it is sealed, and no password file is named", "sealed"),
                (f"{at('none')}: the password file is empty", "sealed", "password-file=none"),
                (f"{at('none')}: it is no image of Kestrix, or of a kind that is not known here", "none")):
            with self.subTest(sentence):
                self.check_refused(sentence, *arguments)
        if sanitizer() != "asan":  # whose strerror leaves nbdkit waiting for a lock at its end, with any plugin
            self.check_refused(f"{at('missing')}: it can't be opened: No such file or directory", "missing")
        with open(at("full"), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.check_refused(f"{at('full')}: it can't be opened: another program is writing it", "full")
        os.unlink(at("full"))
        self.check_refused(f"{at('thin')}: the image that it stands on is missing: {at('full')}", "thin")
        self.image("full", seeded_disk(3 * CHUNK, 7), chunkSize=CHUNK)
        self.check_refused(f"{at('full')}: it is not the image that {at('thin')} was made against: it was modified or "
                           "replaced", "thin")

    def test_a_command_line_that_is_not_understood_is_refused(self):
        self.image("full", self.content, chunkSize=CHUNK)
        for sentence, *arguments in (
                ("name the image to serve: nbdkit kestrix IMAGE",),
                ("image= wants one file, once", "full", "full"),
                ("image= wants one file, once", "image="),
                ("password-file= wants one file, once", "full", "password-file=a", "password-file=b"),
                ("there is no parameter password: it is image, password-file or cache", "full", "password=secret")):
            with self.subTest(arguments):
                self.check_refused(sentence, *arguments)
        self.assertIn("could not parse size string (many)", self.refused("full", "cache=many"))

    def test_chunks_larger_than_the_cache_are_refused_with_the_size_that_does(self):
        disk = bytes(MIB) + seeded_disk(17 * MIB, 1)
        self.image("large", disk, chunkSize=17 * MIB)
        self.check_refused(f"{self.path('large')}: its chunks are larger than the cache: give it cache={17 * MIB}",
                           "large", "cache=1M")
        self.assertTrue(self.nbdcopy(self.serve("large", f"cache={17 * MIB}")) == disk)

    def test_headers_that_no_disk_has_are_refused(self):
        def no_chunk_size(record):
            record.header.chunkSize = 0

        def too_large(record):
            record.header.diskSize = 2**63

        self.image("none", self.content, chunkSize=CHUNK, edit=no_chunk_size)
        self.check_refused(f"{self.path('none')}: its chunks have no length", "none")
        self.image("huge", self.content, chunkSize=CHUNK, edit=too_large)
        self.check_refused(f"{self.path('huge')}: its disk is larger than any that can be served", "huge")

    def test_names_from_the_command_line_hold_in_the_background(self):
        self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        self.password()
        socket, pidFile = os.path.join(self.folder, "socket"), os.path.join(self.folder, "pid")
        run = run_nbdkit("-U", socket, "-P", pidFile, PLUGIN, "image=sealed", "password-file=password",
                         cwd=self.images)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        pid = self.number_in(pidFile)
        try:
            self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
            client = nbd.NBD()
            client.connect_unix(socket)
            self.assertTrue(client.pread(len(self.content), 0) == self.content)
            client.shutdown()
        finally:
            os.kill(pid, signal.SIGTERM)
            while os.path.exists(f"/proc/{pid}"):
                time.sleep(0.01)

    def number_in(self, path):
        """The number that another process writes into a file, and a line end behind it."""
        limit = time.monotonic() + harness.TIME_LIMIT
        while time.monotonic() < limit:
            if os.path.exists(path):
                with open(path, encoding="ascii") as file:
                    text = file.read()
                if text.endswith("\n"):
                    return int(text)
            time.sleep(0.01)
        return self.fail(f"there is no number in {path}")

    def test_while_it_is_served_no_capture_overwrites_the_image(self):
        self.system_disk()
        self.disk(1, self.content)
        self.image("full", self.content, chunkSize=CHUNK)
        server = self.serve("full")
        self.assertEqual(self.kestrix("capture", "--disk", "1", "--out", "full").status, 1)
        self.assertTrue(self.nbdcopy(server) == self.content)


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
