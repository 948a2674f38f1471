// Files that have their name only when they are complete and on the disk.
#include "host/open_handle_windows.h"

#include <winioctl.h>

#include <algorithm>
#include <utility>

namespace host
{

NewFile::~NewFile()
{
    handle.reset();
    if (!unfinishedPath.empty()) {
        DeleteFileW(Widen(unfinishedPath).c_str());
    }
}

Trouble CreateNewFile(const std::string &path, NewFile *file)
{
    if (GetFileAttributesW(Widen(path).c_str()) != INVALID_FILE_ATTRIBUTES) {
        return SystemText(ERROR_FILE_EXISTS);
    }
    file->handle.reset(new OpenHandle);
    file->path = path;
    file->unfinishedPath =
        path + "." + std::to_string(GetCurrentProcessId()) + unfinishedEnding; // known before there is a file
    file->handle->file = CreateFileW(Widen(file->unfinishedPath).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file->handle->file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        file->unfinishedPath.clear();
        return SystemText(error);
    }
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

Trouble FinishNewFile(NewFile *file)
{
    if (!FlushFileBuffers(file->handle->file)) {
        return SystemText(GetLastError());
    }
    if (!CloseHandle(std::exchange(file->handle->file, INVALID_HANDLE_VALUE)) ||
        !MoveFileExW(Widen(file->unfinishedPath).c_str(), Widen(file->path).c_str(), MOVEFILE_WRITE_THROUGH)) {
        return SystemText(GetLastError());
    }
    file->unfinishedPath.clear();
    return {};
}

void RemoveFinishedFile(const NewFile &file)
{
    DeleteFileW(Widen(file.path).c_str());
}

} // namespace host
