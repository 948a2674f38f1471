// The machine's disks, as \\.\PhysicalDriveN.
#include "host/open_handle_windows.h"

#include <winioctl.h>

namespace host
{

static constexpr uint32_t largestSector = 65536; // bytes

Trouble OpenDisk(uint32_t number, Caching caching, Source *source)
{
    const std::wstring path = L"\\\\.\\PhysicalDrive" + std::to_wstring(number);
    source->handle.reset(new OpenHandle);
    OpenHandle &handle = *source->handle;
    handle.isDisk = true;
    handle.isUnbuffered = caching == Caching::Medium;
    handle.file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              handle.isUnbuffered ? FILE_FLAG_NO_BUFFERING : 0, nullptr);
    if (handle.file == INVALID_HANDLE_VALUE) {
        return SystemText(GetLastError());
    }
    DWORD bytesReturned = 0;
    GET_LENGTH_INFORMATION length = {};
    DISK_GEOMETRY_EX geometry = {};
    if (!DeviceIoControl(handle.file, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &bytesReturned,
                         nullptr) ||
        !DeviceIoControl(handle.file, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry),
                         &bytesReturned, nullptr)) {
        return SystemText(GetLastError());
    }
    source->sizeBytes = static_cast<uint64_t>(length.Length.QuadPart);
    source->sectorBytes = geometry.Geometry.BytesPerSector;
    if (source->sectorBytes == 0 || source->sectorBytes > largestSector) {
        return "its sectors have an impossible length";
    }
    handle.blockBytes = source->sectorBytes;
    return {};
}

} // namespace host
