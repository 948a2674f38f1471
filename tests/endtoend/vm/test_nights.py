"""Thirty nights of a disk that kestrix-vm captures, over shutdowns and failures."""
import unittest

from guest_disks import GuestTest, why_no_guests


@unittest.skipIf(why_no_guests(), why_no_guests())
class Nights(GuestTest):
    def test_thirty_nights_with_proof(self):
        self.run_nights(30)
