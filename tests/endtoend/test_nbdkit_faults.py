"""An image served by nbdkit: what damage does to it, and what stands in the way of serving it."""
import fcntl
import os
import signal
import time

import nbd

import harness
from harness import MIB
from kestrix_image import flip_byte, seeded_disk
from nbdkit_server import CHUNK, PLUGIN, Served, data_offset, run_nbdkit, sanitizer


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

    def test_all_but_one_bad_seal_are_errors_and_do_not_look_like_a_wrong_password(self):
        written = self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        for sound in (0, 9):
            with self.subTest(sound):
                bad = set(range(10)) - {sound}
                for i in bad:
                    flip_byte(self.path("sealed"), data_offset(written, i) + 17)
                self.check_bad(self.serve("sealed", self.password()), self.content, bad)
                for i in bad:
                    flip_byte(self.path("sealed"), data_offset(written, i) + 17)

    def test_the_one_chunk_that_is_needed_of_an_image_may_have_a_bad_seal(self):
        base = self.image("full", self.content, b"secret", chunkSize=CHUNK)
        changed = seeded_disk(CHUNK, 7) + self.content[CHUNK:]
        thin = self.image("thin", changed, b"secret", base, chunkSize=CHUNK)
        flip_byte(self.path("thin"), data_offset(thin, 0))
        self.check_bad(self.serve("thin", self.password()), changed, {0})

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

    def test_what_passes_does_not_use_up_the_line_of_a_chunk_that_is_bad_later(self):
        written = self.image("full", self.content, chunkSize=CHUNK)
        whole = self.file_bytes("full")
        server = self.serve("full")
        client = self.connect(server)
        os.truncate(self.path("full"), data_offset(written, 4))
        for _ in range(2):
            self.check_read_fails(client, 1, 4 * CHUNK)
        with open(self.path("full"), "r+b") as file:
            file.write(whole)
        flip_byte(self.path("full"), data_offset(written, 4))
        for _ in range(2):
            self.check_read_fails(client, 1, 4 * CHUNK)
        said = [line.partition(": chunk 4: ")[2] for line in server.said().splitlines()]
        self.assertEqual([text.partition(":")[0] for text in said],
                         ["it can't be read"] * 2 + ["its digest is not the recorded one"])

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

    def test_a_password_that_opens_nothing_of_an_image_is_refused(self):
        refused = "{}: the password is another than it was sealed with, or it is damaged throughout"
        base = self.image("sealed", self.content, b"secret", chunkSize=CHUNK)
        self.check_refused(refused.format(self.path("sealed")), "sealed", self.password(b"other"))
        self.image("thin", seeded_disk(CHUNK, 7) + self.content[CHUNK:], b"other", base, chunkSize=CHUNK)
        self.check_refused(refused.format(self.path("sealed")), "thin", "password-file=password")
        self.image("plain", seeded_disk(CHUNK, 7) + self.content[CHUNK:], None, base, chunkSize=CHUNK)
        self.check_refused(refused.format(self.path("sealed")), "plain", "password-file=password")

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
