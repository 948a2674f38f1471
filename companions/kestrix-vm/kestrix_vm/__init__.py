"""Running QEMU guests as disks of a machine that Kestrix captures, and as its change tracker."""

VERSION = "1.0.0"  # of the whole project
