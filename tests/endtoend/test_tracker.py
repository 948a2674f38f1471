"""capture with a change tracker: what is asked of the driver, and what its answers make of the image and the report."""
import os

import change_tracker
from change_tracker import ATTACH, COMMIT, QUERY, commit_request, disk_request
from harness import NO_TRACKER, MachineTest, capture_text
from kestrix_image import seeded_disk

WARNING = "WARNING: tracker COMMIT failed - the next capture will be a full one.\n"


class Tracker(MachineTest):
    def setUp(self):
        super().setUp()
        self.system_disk()
        self.content = self.disk(1, seeded_disk(5000, 1))
        self.tracker = change_tracker.attach_to(self)

    def capture(self, line, epoch, warning=""):
        self.check(self.kestrix("capture", "--disk", "1", "--out", "x"), 0,
                   capture_text(1, 5000, "x", tracker=line, warning=warning))
        self.check_image("x", self.content, epoch=epoch)

    def tracked(self, epoch=0x1A2B, text="", warning="", kept=None):
        self.capture("Change tracker: disk 1 epoch %X%s\n" % (epoch, text), epoch if kept is None else kept, warning)

    def untracked(self, codes):
        self.capture(NO_TRACKER, 0)
        self.assertEqual(self.tracker.codes(), codes)

    def test_a_capture_attaches_asks_twice_and_commits_the_epoch(self):
        self.tracker.bitmap = bytes(range(7))
        self.tracked()
        self.assertEqual(self.tracker.log, [(ATTACH, disk_request(1), 0), (QUERY, disk_request(1), 48),
                                            (QUERY, disk_request(1), 48 + 7), (COMMIT, commit_request(1, 0x1A2B), 0)])
        self.assertEqual(self.tracker.connections, 1)

    def test_the_image_is_made_after_the_query_and_whole_before_the_commit(self):
        seen = []
        self.tracker.before[QUERY] = lambda: seen.append(os.path.exists(self.path("x")))
        self.tracker.before[COMMIT] = lambda: seen.append(self.file_bytes("x"))
        self.tracked()
        self.assertEqual(seen, [False, False, self.file_bytes("x")])

    def test_a_second_capture_carries_the_next_epoch(self):
        self.tracked()
        self.tracked(0x1A2C)
        self.assertEqual(self.tracker.log[-1], (COMMIT, commit_request(1, 0x1A2C), 0))
        self.assertEqual(self.tracker.connections, 2)

    def test_a_gap_is_shown_and_the_epoch_kept(self):
        self.tracker.gap = 1
        self.tracked(text=" (GAP - untracked write seen)")
        self.assertEqual(self.tracker.codes(), [ATTACH, QUERY, QUERY, COMMIT])

    def test_a_secondary_gap_is_not_shown(self):
        self.tracker.secondaryGap = 1
        self.tracked()

    def test_an_epoch_of_more_than_56_bits_is_cut_in_the_header_and_committed_in_full(self):
        for epoch, kept in ((2**56 + 5, 5), (2**64 - 1, 2**56 - 1), (2**56 - 1, 2**56 - 1), (2**63, 0),
                            (0x0102030405060708, 0x02030405060708)):
            with self.subTest(epoch):
                self.tracker.remember(None, epoch)
                self.tracked(epoch, kept=kept)
                self.assertEqual(self.tracker.log[-1], (COMMIT, commit_request(1, epoch), 0))

    def test_a_second_capture_meanwhile_is_one_without_a_tracker(self):
        runs = []
        self.tracker.before[QUERY] = lambda: runs.append(self.kestrix("capture", "--disk", "1", "--out", "y"))
        self.tracked()
        for run in runs:
            self.check(run, 0, capture_text(1, 5000, "y", tracker=NO_TRACKER))
        self.check_image("y", self.content, epoch=0)
        self.assertEqual((self.tracker.connections, self.tracker.refused), (1, 2))
        self.assertEqual(self.tracker.codes(), [ATTACH, QUERY, QUERY, COMMIT])

    def test_the_epoch_of_the_second_reply_counts(self):
        def move_on():
            self.tracker.currentEpoch += 1

        self.tracker.before[QUERY] = move_on
        self.tracked(0x1A2D)
        self.assertEqual(self.tracker.log[-1], (COMMIT, commit_request(1, 0x1A2D), 0))

    def test_a_refused_attach_is_followed_by_nothing(self):
        self.tracker.attachError = 5
        self.untracked([ATTACH])

    def test_a_first_query_that_gives_nothing_is_the_last(self):
        self.tracker.queryErrors = [5]
        self.untracked([ATTACH, QUERY])

    def test_a_refused_second_query_is_followed_by_nothing(self):
        self.tracker.queryErrors = [0, 5]
        self.untracked([ATTACH, QUERY, QUERY])

    def test_a_disk_without_usable_tracking_is_asked_once(self):
        for name in ("active", "trackedExtent"):
            with self.subTest(name):
                setattr(self.tracker, name, 0)
                self.tracker.log.clear()
                self.untracked([ATTACH, QUERY])
                setattr(self.tracker, name, 1)

    def test_a_tracker_without_a_bitmap_is_asked_for_48_bytes_twice(self):
        self.tracker.bitmap = b""
        self.tracked()
        self.assertEqual([length for _, _, length in self.tracker.log], [0, 48, 48, 0])

    def test_a_reply_shorter_than_promised_is_taken(self):
        self.tracker.shortReply = 50
        self.tracker.bitmap = b"\xff" * 100
        self.tracked()

    def test_a_large_bitmap_is_taken_whole(self):
        self.tracker.bitmap = b"\xff" * (3 * 1024 * 1024 + 1)
        self.tracked()
        self.assertEqual(self.tracker.log[2][2], 48 + 3 * 1024 * 1024 + 1)

    def test_a_refused_commit_is_a_warning(self):
        self.tracker.commitError = 5
        self.tracked(warning=WARNING)
        self.assertEqual(self.tracker.codes()[-1], COMMIT)

    def test_a_driver_that_breaks_off_is_a_driver_that_refuses(self):
        self.tracker.breakAt = COMMIT
        self.tracked(warning=WARNING)
        self.tracker.breakAt = QUERY
        self.tracker.log.clear()
        self.untracked([ATTACH, QUERY])
        self.tracker.breakAt = ATTACH
        self.tracker.log.clear()
        self.untracked([ATTACH])

    def test_a_device_that_nobody_serves_is_an_absent_tracker(self):
        # The socket's name outlives the one who listened on it.
        os.unlink(self.device("Tallier"))
        change_tracker.ChangeTracker(self.device("Tallier")).close()
        self.capture(NO_TRACKER, 0)

    def test_a_capture_that_fails_commits_nothing(self):
        os.mkdir(self.path("x"))
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.assertEqual((run.status, run.err),
                         (1, b"FATAL: could not create output image file (GetLastError=5)\n"))
        self.assertEqual(self.tracker.codes(), [ATTACH, QUERY, QUERY])

    def test_a_disk_that_does_not_open_is_not_attached(self):
        self.assertEqual(self.kestrix("capture", "--disk", "2", "--out", "x").status, 1)
        self.assertEqual(self.tracker.log, [])

    def test_only_a_capture_talks_to_the_driver(self):
        self.image("a", bytes(5000))
        self.kestrix("list-disks")
        self.kestrix("verify", "--in", "a")
        self.kestrix("restore", "--in", "a", "--disk", "1", "--confirm", "YES")
        self.assertEqual(self.disk_bytes(1), bytes(5000))
        self.assertEqual(self.tracker.connections, 0)

    def test_a_capture_of_no_bytes_commits_too(self):
        self.disk(1, b"")
        run = self.kestrix("capture", "--disk", "1", "--out", "x")
        self.assertEqual(run.status, 0)
        self.check_image("x", b"", epoch=0x1A2B)
        self.assertEqual(self.tracker.codes(), [ATTACH, QUERY, QUERY, COMMIT])

    def test_a_sealed_image_carries_the_epoch_in_the_clear(self):
        self.file("p", b"secret")
        run = self.kestrix("capture", "--disk", "1", "--out", "x", "--encrypt", "--password-file", "p")
        self.check(run, 0, capture_text(1, 5000, "x", tracker="Change tracker: disk 1 epoch 1A2B\n"))
        self.check_image("x", self.content, b"secret", epoch=0x1A2B)
