// What a folder lies on, and locks in it.
#include "host/open_handle_windows.h"

#include <winioctl.h>

#include <utility>

namespace host
{

static constexpr DWORD pathUnits = 32768;

// The disks that a volume has extents on.
static bool AddDisksOf(const std::wstring &volume, std::vector<std::string> *disks)
{
    const HANDLE handle =
        CreateFileW(volume.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    std::vector<uint8_t> reply(sizeof(VOLUME_DISK_EXTENTS) + 64 * sizeof(DISK_EXTENT));
    DWORD bytesReturned = 0;
    const BOOL answered = DeviceIoControl(handle, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, reply.data(),
                                          static_cast<DWORD>(reply.size()), &bytesReturned, nullptr);
    CloseHandle(handle);
    if (!answered || bytesReturned < sizeof(VOLUME_DISK_EXTENTS)) {
        return false;
    }
    const auto *extents = reinterpret_cast<const VOLUME_DISK_EXTENTS *>(reply.data());
    for (DWORD i = 0; i < extents->NumberOfDiskExtents; ++i) {
        disks->push_back(std::to_string(extents->Extents[i].DiskNumber));
    }
    return true;
}

// \\server\share of a folder on one, by the name that the system resolves it to; empty for a folder on a volume.
static std::string ShareOf(const std::string &folder)
{
    const HANDLE handle = CreateFileW(Widen(folder).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    std::wstring path(pathUnits, L'\0');
    const DWORD length =
        handle == INVALID_HANDLE_VALUE ? 0 : GetFinalPathNameByHandleW(handle, path.data(), pathUnits, VOLUME_NAME_DOS);
    if (handle != INVALID_HANDLE_VALUE) {
        CloseHandle(handle);
    }
    static const std::wstring mark = L"\\\\?\\UNC\\";
    if (length == 0 || length >= pathUnits || path.compare(0, mark.size(), mark) != 0) {
        return {};
    }
    const std::wstring rest = path.substr(mark.size(), length - mark.size());
    const size_t share = rest.find(L'\\');
    const size_t end = share == std::wstring::npos ? share : rest.find(L'\\', share + 1);
    return "\\\\" + Narrow(rest.substr(0, end).c_str());
}

Trouble FileSystemOf(const std::string &folder, FileSystemFacts *facts)
{
    ULARGE_INTEGER freeForUser = {};
    ULARGE_INTEGER total = {};
    ULARGE_INTEGER free = {};
    std::wstring point(pathUnits, L'\0');
    if (!GetDiskFreeSpaceExW(Widen(folder).c_str(), &freeForUser, &total, &free) ||
        !GetVolumePathNameW(Widen(folder).c_str(), point.data(), pathUnits)) {
        return SystemText(GetLastError());
    }
    facts->freeBytes = freeForUser.QuadPart;
    facts->totalBytes = total.QuadPart;
    DWORD flags = 0;
    GetVolumeInformationW(point.c_str(), nullptr, 0, nullptr, nullptr, &flags, nullptr, 0);
    facts->isReadOnly = (flags & FILE_READ_ONLY_VOLUME) != 0;
    facts->source = ShareOf(folder);
    if (!facts->source.empty()) {
        facts->disksAreKnown = true;
        return {};
    }
    wchar_t volume[64] = {}; // \\?\Volume{GUID}\ and a zero
    if (GetVolumeNameForVolumeMountPointW(point.c_str(), volume, 64)) {
        std::wstring name = volume;
        name.pop_back(); // the volume itself, not its root folder
        const size_t begin = name.find(L'{');
        facts->source = Narrow(name.c_str());
        facts->uuid =
            begin == std::wstring::npos ? "" : Narrow(name.substr(begin + 1, name.size() - begin - 2).c_str());
        facts->disksAreKnown = AddDisksOf(name, &facts->disks);
    }
    return {};
}

LockResult TakeLock(const std::string &path, Lock *lock, std::string *trouble)
{
    lock->handle.reset(new OpenHandle);
    lock->handle->file =
        CreateFileW(Widen(path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
    if (lock->handle->file != INVALID_HANDLE_VALUE) {
        return LockResult::Held;
    }
    const DWORD error = GetLastError();
    *trouble = SystemText(error);
    return error == ERROR_SHARING_VIOLATION ? LockResult::Busy : LockResult::Failed;
}

} // namespace host
