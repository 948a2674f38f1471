"""Running QEMU guests as disks of a machine that Kestrix captures, and as its change tracker."""
