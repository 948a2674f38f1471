// The raw devices: opening a disk by its number, what is asked of an open disk, which disk the system lives on, and the
// aligned memory that unbuffered I/O wants. A handle is used directly with the platform's calls by the operation that
// opened it, and closed by it.
#pragma once

#include <windows.h>

#include <winioctl.h>

#include <cstddef>
#include <cstdint>

struct DiskGeometry {
    uint64_t diskSize;   // bytes
    uint32_t sectorSize; // bytes, logical
};

// What a volume's extents query fills: the count and room for nine extents.
struct VolumeExtentsReply {
    VOLUME_DISK_EXTENTS first;
    DISK_EXTENT others[8];
};
static_assert(sizeof(VolumeExtentsReply) == 224 && offsetof(VolumeExtentsReply, others) == 32);
static_assert(offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents) == 0 && offsetof(VOLUME_DISK_EXTENTS, Extents) == 8);
static_assert(sizeof(DISK_EXTENT) == 24 && offsetof(DISK_EXTENT, DiskNumber) == 0);
static_assert(offsetof(DISK_EXTENT, StartingOffset) == 8 && offsetof(DISK_EXTENT, ExtentLength) == 16);

// A block of byteCount bytes whose address is a multiple of alignment, a power of two. Move-only owner: a moved-from or
// default-made buffer is empty. Without memory the construction is fatal. Where a damaged image asks for no bytes a
// block is made all the same, since the platform takes a size of 0 for a programming error.
struct AlignedBuffer {
    AlignedBuffer() = default;
    AlignedBuffer(uint64_t byteCount, uint64_t alignment);
    AlignedBuffer(AlignedBuffer &&other) noexcept;
    AlignedBuffer &operator=(AlignedBuffer &&other) noexcept;
    ~AlignedBuffer();

    uint8_t *data = nullptr;
    uint64_t size = 0; // bytes
};

// Opens disk diskNumber with the given access, share mode and flags of CreateFileW. INVALID_HANDLE_VALUE on failure,
// with GetLastError as the call left it.
HANDLE OpenPhysicalDrive(int32_t diskNumber, DWORD access, DWORD share, DWORD flags);

// Disk diskNumber for unbuffered reading while others go on using it: positions, lengths and buffers must keep to whole
// sectors. The handle is the caller's. Fatal on failure.
HANDLE OpenDiskForRead(int32_t diskNumber);

// Disk diskNumber for unbuffered reading and writing, alone: fails while anyone else, a mounted volume included, holds
// it. The handle is the caller's. A failure prints its advice and ends the process.
HANDLE OpenDiskForWrite(int32_t diskNumber);

// Length and sector size of an open disk. Fatal on failure.
DiskGeometry GetDiskGeometry(HANDLE disk);

// Asks an open volume for its extents into *reply, which is zeroed first, and closes it; gives the query's result.
BOOL TakeVolumeExtents(HANDLE volume, VolumeExtentsReply *reply);

// Number of the disk that holds C:, that of its first extent if it spans several. Asked anew at each call. Fatal if
// there is no C: or it does not answer.
int32_t SystemDiskNumber();
