// The shared disk operations, over "\\.\PhysicalDriveN" and "\\.\C:".
//
// The length query alone gives a disk's size; of the geometry only the sector size is read. A failed exclusive open is
// the one failure here that does not go through Fatal: the usual cause is a mounted volume, and the text says what to
// do.
#include "disk/physical_disk.h"

#include "cli/console.h"

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <utility>

AlignedBuffer::AlignedBuffer(uint64_t byteCount, uint64_t alignment)
    : data(static_cast<uint8_t *>(_aligned_malloc(byteCount != 0 ? byteCount : 1, alignment))), size(byteCount)
{
    if (data == nullptr) {
        Fatal("out of memory allocating aligned I/O buffer", 0);
    }
}

AlignedBuffer::AlignedBuffer(AlignedBuffer &&other) noexcept
    : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0))
{
}

AlignedBuffer &AlignedBuffer::operator=(AlignedBuffer &&other) noexcept
{
    std::swap(data, other.data);
    std::swap(size, other.size);
    return *this;
}

AlignedBuffer::~AlignedBuffer()
{
    if (data != nullptr) {
        _aligned_free(data);
    }
}

HANDLE OpenPhysicalDrive(int32_t diskNumber, DWORD access, DWORD share, DWORD flags)
{
    wchar_t path[64];
    swprintf(path, std::size(path), L"\\\\.\\PhysicalDrive%d", diskNumber);
    return CreateFileW(path, access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

HANDLE OpenDiskForRead(int32_t diskNumber)
{
    const HANDLE disk =
        OpenPhysicalDrive(diskNumber, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_FLAG_NO_BUFFERING);
    if (disk == INVALID_HANDLE_VALUE) {
        Fatal("could not open source disk for raw read (run as Administrator?)", 0);
    }
    return disk;
}

HANDLE OpenDiskForWrite(int32_t diskNumber)
{
    const HANDLE disk = OpenPhysicalDrive(diskNumber, GENERIC_READ | GENERIC_WRITE, 0, FILE_FLAG_NO_BUFFERING);
    if (disk == INVALID_HANDLE_VALUE) {
        const DWORD lastError = GetLastError();
        fprintf(stderr,
                "Could not open disk %d exclusively for writing (GetLastError=%lu).\n"
                "This almost always means a volume on it is still mounted/in use.\n"
                "Take it offline first: diskpart > select disk %d > offline disk\n",
                diskNumber, static_cast<unsigned long>(lastError), diskNumber);
        EndWithFailure();
    }
    return disk;
}

static_assert(sizeof(GET_LENGTH_INFORMATION) == 8 && offsetof(GET_LENGTH_INFORMATION, Length) == 0);
static_assert(sizeof(DISK_GEOMETRY_EX) == 40 && offsetof(DISK_GEOMETRY_EX, Geometry.BytesPerSector) == 20);

DiskGeometry GetDiskGeometry(HANDLE disk)
{
    DWORD bytesReturned = 0;
    GET_LENGTH_INFORMATION length = {};
    if (!DeviceIoControl(disk, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &bytesReturned,
                         nullptr)) {
        Fatal("IOCTL_DISK_GET_LENGTH_INFO failed", 0);
    }
    DISK_GEOMETRY_EX geometry = {};
    if (!DeviceIoControl(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry),
                         &bytesReturned, nullptr)) {
        Fatal("IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed", 0);
    }
    return {static_cast<uint64_t>(length.Length.QuadPart), geometry.Geometry.BytesPerSector};
}

BOOL TakeVolumeExtents(HANDLE volume, VolumeExtentsReply *reply)
{
    *reply = {};
    DWORD bytesReturned = 0;
    const BOOL answered = DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, reply,
                                          sizeof(*reply), &bytesReturned, nullptr);
    CloseHandle(volume);
    return answered;
}

int32_t SystemDiskNumber()
{
    const HANDLE volume =
        CreateFileW(L"\\\\.\\C:", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE) {
        Fatal("could not open C: to determine the system disk number", 0);
    }
    VolumeExtentsReply extents;
    const BOOL answered = TakeVolumeExtents(volume, &extents);
    if (!answered) {
        Fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 0);
    }
    return static_cast<int32_t>(extents.first.Extents[0].DiskNumber);
}
