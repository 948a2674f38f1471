// Reading and writing files and disks.
//
// Calls held here: ReadFile, WriteFile, SetFilePointerEx.
//
// A handle keeps its own position; transfers name it, repeat after an interrupt and go on after a partial count until
// the end or a real error. On an unbuffered disk a buffer that the device would refuse goes through an aligned one
// piece by piece. A disk that is only read is read ahead of its reader, an image is sent on to its disk behind its
// writer. What a restore writes is neither: each write ends within its own call, so that a failure is that of the chunk
// in hand and the chunks before it are on the target.
#include "port.h"
#include "read_ahead.h"
#include "write_behind.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr DWORD negativeSeek = 131; // ERROR_NEGATIVE_SEEK
static constexpr uint64_t bounceBytes = uint64_t{1} << 20;
static constexpr uint64_t bounceAlignment = 4096;
static constexpr uint64_t largestTransfer = uint64_t{1} << 30; // of one system call

// A disk that may be written through the page cache has the bytes before the call ends, or the call fails. In an
// ordinary file that is so with O_DIRECT too: some file systems take it and don't heed it.
static ssize_t WriteOnce(const PortHandle &handle, const void *buffer, size_t count, off_t offset)
{
    const ssize_t moved = pwrite(handle.descriptor, buffer, count, offset);
    const bool mayBeCached = handle.kind == HandleKind::Disk &&
                             (!handle.isBlockDevice || (fcntl(handle.descriptor, F_GETFL) & O_DIRECT) == 0);
    return moved > 0 && mayBeCached && fdatasync(handle.descriptor) != 0 ? -1 : moved;
}

// One system call's worth of a transfer; a read when buffer is to be filled. Below 0 with errno set.
static ssize_t CallOnce(const PortHandle &handle, void *buffer, uint64_t byteCount, uint64_t position, bool isWrite)
{
    const auto offset = static_cast<off_t>(position);
    const size_t count = std::min(byteCount, largestTransfer);
    return isWrite ? WriteOnce(handle, buffer, count, offset) : pread(handle.descriptor, buffer, count, offset);
}

static void SetDirect(const PortHandle &handle, bool isDirect)
{
    const int flags = fcntl(handle.descriptor, F_GETFL);
    fcntl(handle.descriptor, F_SETFL, isDirect ? flags | O_DIRECT : flags & ~O_DIRECT);
}

static ssize_t CallThroughBounceBuffer(PortHandle &handle, uint8_t *buffer, uint64_t byteCount, uint64_t position,
                                       bool isWrite)
{
    if (handle.bounceBuffer == nullptr && posix_memalign(&handle.bounceBuffer, bounceAlignment, bounceBytes) != 0) {
        handle.bounceBuffer = nullptr;
        errno = ENOMEM;
        return -1;
    }
    const uint64_t piece = std::min(byteCount, bounceBytes);
    if (isWrite) {
        memcpy(handle.bounceBuffer, buffer, piece);
    }
    const ssize_t moved = CallOnce(handle, handle.bounceBuffer, piece, position, isWrite);
    if (moved > 0 && !isWrite) {
        memcpy(buffer, handle.bounceBuffer, static_cast<size_t>(moved));
    }
    return moved;
}

// One step of a transfer on a descriptor with O_DIRECT. A disk in an ordinary file may end off a sector; what lies
// there goes the buffered way. A file system that wants more than a sector's alignment gets the buffered way for good.
static ssize_t CallDirect(PortHandle &handle, uint8_t *buffer, uint64_t byteCount, uint64_t position, bool isWrite)
{
    const uint64_t sector = handle.sectorBytes;
    const uint64_t wholeSectors = byteCount - byteCount % sector;
    if (position % sector != 0 || wholeSectors == 0) {
        SetDirect(handle, false);
        const ssize_t moved = CallOnce(handle, buffer, byteCount, position, isWrite);
        const int error = errno;
        SetDirect(handle, true);
        errno = error;
        return moved;
    }
    const bool isAligned = reinterpret_cast<uintptr_t>(buffer) % sector == 0;
    const ssize_t moved = isAligned ? CallOnce(handle, buffer, wholeSectors, position, isWrite)
                                    : CallThroughBounceBuffer(handle, buffer, wholeSectors, position, isWrite);
    if (moved >= 0 || errno != EINVAL) {
        return moved;
    }
    if (handle.isBlockDevice) {
        return isAligned ? CallThroughBounceBuffer(handle, buffer, wholeSectors, position, isWrite) : moved;
    }
    SetDirect(handle, false);
    handle.isDirect = false;
    return CallOnce(handle, buffer, byteCount, position, isWrite);
}

bool Transfer(PortHandle &handle, void *buffer, uint64_t byteCount, DWORD *moved, bool isWrite)
{
    uint64_t done = 0;
    ssize_t step = 1;
    while (done < byteCount && step != 0) {
        auto *rest = static_cast<uint8_t *>(buffer) + done;
        step = handle.isDirect ? CallDirect(handle, rest, byteCount - done, handle.position, isWrite)
                               : CallOnce(handle, rest, byteCount - done, handle.position, isWrite);
        if (step < 0 && errno != EINTR) {
            SetPortError(WindowsErrorOfTransfer(errno, isWrite));
            break;
        }
        if (step > 0) {
            done += static_cast<uint64_t>(step);
            handle.position += static_cast<uint64_t>(step);
        }
    }
    *moved = static_cast<DWORD>(done);
    // A device that went away has no bytes and no room any more, which looks like its end.
    if (done < byteCount && HasGoneAway(handle)) {
        SetPortError(ERROR_IO_DEVICE);
        return false;
    }
    return step >= 0;
}

// A block device takes whole sectors alone, as an unbuffered disk does everywhere.
static bool IsWholeSectors(const PortHandle &handle, DWORD byteCount)
{
    return !handle.isBlockDevice || !handle.isDirect ||
           (handle.position % handle.sectorBytes == 0 && byteCount % handle.sectorBytes == 0);
}

static PortHandle *HandleForTransfer(HANDLE file, DWORD byteCount, LPDWORD moved, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleRecord(file);
    if (handle == nullptr) {
        return nullptr;
    }
    if (moved == nullptr || overlapped != nullptr ||
        (handle->kind != HandleKind::File && handle->kind != HandleKind::Disk) || !IsWholeSectors(*handle, byteCount)) {
        SetPortError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    *moved = 0;
    return handle;
}

extern "C" BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD byteCount, LPDWORD bytesRead, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleForTransfer(file, byteCount, bytesRead, overlapped);
    if (handle == nullptr) {
        return FALSE;
    }
    const bool hasRead = handle->readsAhead ? ReadInOrder(*handle, buffer, byteCount, bytesRead)
                                            : Transfer(*handle, buffer, byteCount, bytesRead, false);
    return hasRead ? TRUE : FALSE;
}

// Bytes that a write may cover: a disk in an ordinary file never grows.
static bool RoomForWrite(const PortHandle &handle, DWORD byteCount, uint64_t *room)
{
    *room = byteCount;
    if (handle.kind != HandleKind::Disk || handle.isBlockDevice) {
        return true;
    }
    struct stat file = {};
    if (fstat(handle.descriptor, &file) != 0) {
        SetPortError(WindowsError(errno));
        return false;
    }
    const auto lengthBytes = static_cast<uint64_t>(file.st_size);
    *room = handle.position >= lengthBytes ? 0 : std::min<uint64_t>(byteCount, lengthBytes - handle.position);
    if (*room == 0 && byteCount != 0) {
        SetPortError(ERROR_DISK_FULL);
        return false;
    }
    return true;
}

extern "C" BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD byteCount, LPDWORD bytesWritten, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleForTransfer(file, byteCount, bytesWritten, overlapped);
    uint64_t room = 0;
    if (handle == nullptr || !WriteBehind(*handle) || !RoomForWrite(*handle, byteCount, &room)) {
        return FALSE;
    }
    handle->isWritten = true;
    return Transfer(*handle, const_cast<void *>(buffer), room, bytesWritten, true) ? TRUE : FALSE;
}

extern "C" BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method)
{
    PortHandle *handle = HandleRecord(file);
    if (handle == nullptr) {
        return FALSE;
    }
    if (newPosition != nullptr || method != FILE_BEGIN ||
        (handle->kind != HandleKind::File && handle->kind != HandleKind::Disk)) {
        SetPortError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (distance.QuadPart < 0) {
        SetPortError(negativeSeek);
        return FALSE;
    }
    handle->position = static_cast<uint64_t>(distance.QuadPart);
    return TRUE;
}
