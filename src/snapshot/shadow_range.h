// The volumes that lie in one piece on a disk, and which bytes of the disk a shadow device serves. A snapshot is of a
// volume and an image is of a disk: the link between them is one run of bytes per volume.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

// One volume on the source disk.
struct VolumeExtent {
    std::wstring volumeName; // as enumerated, with its trailing backslash: what the snapshot service takes
    std::wstring devicePath; // one trailing backslash less: what opens the volume, and what messages show
    uint64_t diskOffset;     // bytes; first byte on the disk
    uint64_t diskEnd;        // bytes; one past the last
};

// Bytes diskOffset to diskEnd of the source disk; byte p of the shadow device is byte diskOffset + p of the disk at the
// moment of the snapshot. The handle is borrowed: CloseSnapshots closes it.
struct ShadowRange {
    uint64_t diskOffset;
    uint64_t diskEnd; // one past the last
    HANDLE shadowHandle;
};

// The volumes that lie wholly, in one extent, on disk diskNumber, in the platform's order. Whatever goes wrong makes
// the list shorter; nothing is printed.
std::vector<VolumeExtent> EnumerateVolumesOnDisk(uint32_t diskNumber);

// The first range that holds all of the length bytes at offset, or null.
const ShadowRange *FindShadowRange(const std::vector<ShadowRange> &ranges, uint64_t offset, uint64_t length);
