// Files that have their name only when they are complete and on the disk. Until then the system is told to take the
// file away with its handle, so that no end of the process leaves it there.
#include "host/open_handle_windows.h"

#include <winioctl.h>

#include <algorithm>
#include <utility>

namespace host
{

// Whether the file goes when its handle does. A file system that can't do that keeps it.
static void SetGoesWithHandle(HANDLE file, bool goes)
{
    FILE_DISPOSITION_INFO disposition = {};
    disposition.DeleteFile = goes ? TRUE : FALSE;
    SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition));
}

NewFile::~NewFile()
{
    handle.reset();
    if (!unfinishedPath.empty()) {
        DeleteFileW(Widen(unfinishedPath).c_str());
    }
}

Trouble LengthOfFile(const std::string &path, uint64_t *lengthBytes)
{
    WIN32_FILE_ATTRIBUTE_DATA found = {};
    if (!GetFileAttributesExW(Widen(path).c_str(), GetFileExInfoStandard, &found)) {
        return SystemText(GetLastError());
    }
    *lengthBytes = (uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow;
    return {};
}

bool NameIsFree(const std::string &path)
{
    return GetFileAttributesW(Widen(path).c_str()) == INVALID_FILE_ATTRIBUTES && GetLastError() == ERROR_FILE_NOT_FOUND;
}

Trouble CreateNewFile(const std::string &path, Existing existing, NewFile *file)
{
    if (existing == Existing::IsTrouble && GetFileAttributesW(Widen(path).c_str()) != INVALID_FILE_ATTRIBUTES) {
        return SystemText(ERROR_FILE_EXISTS);
    }
    file->handle.reset(new OpenHandle);
    file->path = path;
    file->unfinishedPath =
        path + "." + std::to_string(GetCurrentProcessId()) + unfinishedEnding; // known before there is a file
    file->handle->file = CreateFileW(Widen(file->unfinishedPath).c_str(), GENERIC_WRITE | DELETE, 0, nullptr,
                                     CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file->handle->file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        file->unfinishedPath.clear();
        return SystemText(error);
    }
    SetGoesWithHandle(file->handle->file, true);
    DWORD bytesReturned = 0; // where the file system knows no holes, the file just takes its whole length
    DeviceIoControl(file->handle->file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &bytesReturned, nullptr);
    return {};
}

Trouble SetLength(const NewFile &file, uint64_t lengthBytes)
{
    const std::lock_guard<std::mutex> lock(file.handle->mutex);
    LARGE_INTEGER length;
    length.QuadPart = static_cast<LONGLONG>(lengthBytes);
    if (length.QuadPart < 0 || !SetFilePointerEx(file.handle->file, length, nullptr, FILE_BEGIN) ||
        !SetEndOfFile(file.handle->file)) {
        return SystemText(length.QuadPart < 0 ? ERROR_FILE_TOO_LARGE : GetLastError());
    }
    return {};
}

Trouble WriteAt(const NewFile &file, uint64_t offsetBytes, const void *data, size_t byteCount)
{
    constexpr size_t largestWrite = size_t{1} << 30;
    const auto *bytes = static_cast<const uint8_t *>(data);
    while (byteCount != 0) {
        DWORD moved = 0;
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offsetBytes);
        place.OffsetHigh = static_cast<DWORD>(offsetBytes >> 32);
        if (!WriteFile(file.handle->file, bytes, static_cast<DWORD>(std::min(byteCount, largestWrite)), &moved,
                       &place) ||
            moved == 0) {
            return SystemText(GetLastError());
        }
        offsetBytes += moved;
        bytes += moved;
        byteCount -= moved;
    }
    return {};
}

static Trouble Finish(NewFile *file, DWORD flags)
{
    if (!FlushFileBuffers(file->handle->file)) {
        return SystemText(GetLastError());
    }
    SetGoesWithHandle(file->handle->file, false);
    if (!CloseHandle(std::exchange(file->handle->file, INVALID_HANDLE_VALUE)) ||
        !MoveFileExW(Widen(file->unfinishedPath).c_str(), Widen(file->path).c_str(), MOVEFILE_WRITE_THROUGH | flags)) {
        return SystemText(GetLastError());
    }
    file->unfinishedPath.clear();
    return {};
}

Trouble FlushNewFile(const NewFile &file)
{
    return FlushFileBuffers(file.handle->file) ? Trouble() : Trouble(SystemText(GetLastError()));
}

Trouble FinishNewFile(NewFile *file)
{
    return Finish(file, 0);
}

Trouble FinishInPlaceOf(NewFile *file)
{
    return Finish(file, MOVEFILE_REPLACE_EXISTING);
}

void RemoveFinishedFile(const NewFile &file)
{
    DeleteFileW(Widen(file.path).c_str());
}

static Trouble Move(const std::string &from, const std::string &to, DWORD flags)
{
    if (!MoveFileExW(Widen(from).c_str(), Widen(to).c_str(), MOVEFILE_WRITE_THROUGH | flags)) {
        return SystemText(GetLastError());
    }
    return {};
}

Trouble GiveFinalName(const std::string &from, const std::string &to)
{
    return Move(from, to, 0);
}

Trouble GiveNameInPlaceOf(const std::string &from, const std::string &to)
{
    return Move(from, to, MOVEFILE_REPLACE_EXISTING);
}

Trouble RemoveName(const std::string &path)
{
    if (!DeleteFileW(Widen(path).c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) {
        return SystemText(GetLastError());
    }
    return {};
}

Trouble BringToDisk(const std::string &path)
{
    const HANDLE file =
        CreateFileW(Widen(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return SystemText(GetLastError());
    }
    const Trouble trouble = FlushFileBuffers(file) ? Trouble() : Trouble(SystemText(GetLastError()));
    CloseHandle(file);
    return trouble;
}

} // namespace host
