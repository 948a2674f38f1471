// Enumerating volumes, and the lookup that routes a chunk's read.
//
// A volume that spans disks, has several extents or can't be opened is left out in silence: its bytes are read live. A
// chunk is never split, so one that a range does not hold whole is no range's.
#include "snapshot/shadow_range.h"

#include "disk/physical_disk.h"

static constexpr DWORD volumeNameUnits = 260;

// True, with the extent's place on the disk filled in, if the volume is one extent on disk diskNumber.
static bool LocateVolume(uint32_t diskNumber, VolumeExtent &volume)
{
    const HANDLE handle = CreateFileW(volume.devicePath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    VolumeExtentsReply extents;
    const BOOL answered = TakeVolumeExtents(handle, &extents);
    const DISK_EXTENT &extent = extents.first.Extents[0];
    if (!answered || extents.first.NumberOfDiskExtents != 1 || extent.DiskNumber != diskNumber) {
        return false;
    }
    volume.diskOffset = static_cast<uint64_t>(extent.StartingOffset.QuadPart);
    volume.diskEnd = volume.diskOffset + static_cast<uint64_t>(extent.ExtentLength.QuadPart);
    return true;
}

std::vector<VolumeExtent> EnumerateVolumesOnDisk(uint32_t diskNumber)
{
    std::vector<VolumeExtent> volumes;
    wchar_t name[volumeNameUnits];
    const HANDLE search = FindFirstVolumeW(name, volumeNameUnits);
    if (search == INVALID_HANDLE_VALUE) {
        return volumes;
    }
    do {
        VolumeExtent volume = {name, name, 0, 0};
        if (!volume.devicePath.empty() && volume.devicePath.back() == L'\\') {
            volume.devicePath.pop_back();
        }
        if (LocateVolume(diskNumber, volume)) {
            volumes.push_back(volume);
        }
    } while (FindNextVolumeW(search, name, volumeNameUnits));
    FindVolumeClose(search);
    return volumes;
}

const ShadowRange *FindShadowRange(const std::vector<ShadowRange> &ranges, uint64_t offset, uint64_t length)
{
    for (const ShadowRange &range : ranges) {
        if (offset >= range.diskOffset && offset + length <= range.diskEnd) {
            return &range;
        }
    }
    return nullptr;
}
