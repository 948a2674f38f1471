// One call each, with the count compared. A failure's error number is still the last one when the caller hears of it.
#include "disk/transfer.h"

bool ReadExactly(HANDLE file, void *buffer, DWORD byteCount)
{
    DWORD bytesRead = 0;
    return ReadFile(file, buffer, byteCount, &bytesRead, nullptr) && bytesRead == byteCount;
}

bool WriteExactly(HANDLE file, const void *buffer, DWORD byteCount)
{
    DWORD bytesWritten = 0;
    return WriteFile(file, buffer, byteCount, &bytesWritten, nullptr) && bytesWritten == byteCount;
}

BOOL SeekTo(HANDLE file, uint64_t position)
{
    LARGE_INTEGER distance;
    distance.QuadPart = static_cast<LONGLONG>(position);
    return SetFilePointerEx(file, distance, nullptr, FILE_BEGIN);
}
