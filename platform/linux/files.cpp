// Files, disks and volumes behind one kind of handle.
//
// Calls held here: CreateFileW, ReadFile, WriteFile, SetFilePointerEx, GetFileSizeEx, GetFileAttributesA, CloseHandle,
// DeviceIoControl.
//
// A handle keeps its own position; transfers name it, repeat after an interrupt and go on after a partial count until
// the end or a real error. Share modes are locks of the open file: shared for a reader, exclusive for an opener that
// shares with nobody, taken before a file is truncated. Unbuffered disks have O_DIRECT where the target takes it, and a
// buffer that the device would refuse goes through an aligned one piece by piece. A disk that is only read is read
// ahead of its reader, an image is sent on to its disk behind its writer. What a restore writes is neither: each write
// ends within its own call, so that a failure is that of the chunk in hand and the chunks before it are on the target.
#include "port.h"
#include "read_ahead.h"

#include <winioctl.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <memory>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static constexpr DWORD negativeSeek = 131;       // ERROR_NEGATIVE_SEEK
static constexpr DWORD insufficientBuffer = 122; // ERROR_INSUFFICIENT_BUFFER
static constexpr uint64_t bounceBytes = uint64_t{1} << 20;
static constexpr uint64_t bounceAlignment = 4096;
static constexpr uint64_t largestTransfer = uint64_t{1} << 30;  // of one system call
static constexpr uint64_t writeBehindBytes = uint64_t{8} << 20; // a window: what a device's queue takes at once
static constexpr uint64_t neverSent = UINT64_MAX;
static constexpr uint64_t nothingReadYet = UINT64_MAX;
static const char devicePrefix[] = R"(\\.\)";

// ---- Opening ----

struct OpenRequest {
    DWORD access;
    DWORD share;
    DWORD disposition;
    DWORD flags;
};

static bool IsRequest(const OpenRequest &request, DWORD access, DWORD share, DWORD disposition, DWORD flags)
{
    return request.access == access && request.share == share && request.disposition == disposition &&
           request.flags == flags;
}

static HANDLE RefuseOpen(DWORD error)
{
    SetPortError(error);
    return INVALID_HANDLE_VALUE;
}

static HANDLE MakeHandle(const PortHandle &record)
{
    return std::make_unique<PortHandle>(record).release();
}

// Each unit carries one byte of the path, widened with its sign.
static std::string NarrowPath(LPCWSTR path)
{
    std::string narrow;
    for (; *path != L'\0'; ++path) {
        narrow.push_back(static_cast<char>(*path));
    }
    return narrow;
}

// Takes the lock that stands for the share mode; false with errno set, EWOULDBLOCK when another handle is in the way. A
// device manager that looks at a device holds its lock for a moment only, so that one is waited for.
static bool TakeLock(int descriptor, bool exclusive, bool waitsBriefly)
{
    const int operation = (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
    for (int triesLeft = waitsBriefly ? 20 : 0; flock(descriptor, operation) != 0; --triesLeft) {
        if (errno != EINTR && (errno != EWOULDBLOCK || triesLeft <= 0)) {
            return false;
        }
        usleep(50000);
    }
    return true;
}

// True when the kernel reads a chunk and more ahead on this device as it is. Told to do yet more, it would keep the
// device busy with reads while the writes of a restore wait for their turn.
static bool ReadsFarAhead(dev_t device)
{
    constexpr uint64_t farKiB = 4096;
    const std::string folder = "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    for (const char *place : {"/queue/read_ahead_kb", "/../queue/read_ahead_kb"}) { // of a disk, of a partition's disk
        uint64_t kib = 0;
        if (std::ifstream(folder + place) >> kib) {
            return kib >= farKiB;
        }
    }
    return false;
}

static HANDLE OpenExistingFile(const std::string &path)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0) {
        return RefuseOpen(WindowsErrorOfPath(errno, path));
    }
    if (!S_ISREG(found.st_mode)) {
        return RefuseOpen(ERROR_ACCESS_DENIED);
    }
    PortHandle record;
    record.descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (record.descriptor < 0) {
        return RefuseOpen(WindowsErrorOfPath(errno, path));
    }
    if (!TakeLock(record.descriptor, false, false)) {
        const DWORD error = WindowsError(errno);
        close(record.descriptor);
        return RefuseOpen(error);
    }
    if (!ReadsFarAhead(found.st_dev)) {
        posix_fadvise(record.descriptor, 0, 0, POSIX_FADV_SEQUENTIAL); // advice; nothing depends on it
    }
    return MakeHandle(record);
}

// Opens path for writing and tells whether it came into being here.
static int OpenOrCreate(const std::string &path, bool mustBeNew, bool *created)
{
    constexpr mode_t permissions = 0666;
    for (;;) {
        int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
        *created = descriptor >= 0;
        if (descriptor >= 0 || errno != EEXIST || mustBeNew) {
            return descriptor;
        }
        struct stat found = {};
        if (stat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
            errno = EISDIR;
            return -1;
        }
        descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
        if (descriptor >= 0 || errno != ENOENT) {
            return descriptor;
        }
        struct stat link = {};
        if (lstat(path.c_str(), &link) == 0) {
            return open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, permissions); // a link to what is not there yet
        }
    }
}

// False with errno set if something of the file failed on its way to the disk since the last question. Nothing is
// waited for: the question goes to a range far behind the end, and the answer is for the whole file.
static bool HasNoLateFault(int descriptor)
{
    constexpr off_t behindTheEnd = off_t{1} << 62;
    return sync_file_range(descriptor, behindTheEnd, 1, SYNC_FILE_RANGE_WAIT_BEFORE) == 0;
}

// A file that is empty stays as it is: some file systems bring one that was ever cut down to its disk within close.
static bool MakeEmpty(int descriptor)
{
    struct stat found = {};
    return fstat(descriptor, &found) == 0 && (found.st_size == 0 || ftruncate(descriptor, 0) == 0);
}

static HANDLE CreateFileAlone(const std::string &path, bool mustBeNew)
{
    bool created = false;
    PortHandle record;
    record.descriptor = OpenOrCreate(path, mustBeNew, &created);
    if (record.descriptor < 0) {
        return RefuseOpen(WindowsErrorOfPath(errno, path));
    }
    if (!TakeLock(record.descriptor, true, false) || !MakeEmpty(record.descriptor)) {
        const int error = errno;
        if (created && error != EWOULDBLOCK) { // else another opener was faster and has it now
            unlink(path.c_str());
        }
        close(record.descriptor);
        return RefuseOpen(WindowsError(error));
    }
    // A sandbox refuses the call, or one way of it, and the bytes get there all the same. Any other answer is a fault
    // of what the file held before, which is nobody's any more.
    if (sync_file_range(record.descriptor, 0, 0, 0) != 0 || (!HasNoLateFault(record.descriptor) && errno == ENOSYS)) {
        record.underWayTo = neverSent;
    }
    SetPortError(created ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
    return MakeHandle(record);
}

static HANDLE OpenFile(const std::string &path, const OpenRequest &request)
{
    if (IsRequest(request, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL)) {
        return OpenExistingFile(path);
    }
    if (IsRequest(request, GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL)) {
        return CreateFileAlone(path, false);
    }
    if (IsRequest(request, GENERIC_WRITE, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL)) {
        return CreateFileAlone(path, true);
    }
    return RefuseOpen(ERROR_INVALID_PARAMETER);
}

// Some drivers refuse to open such a device for writing, each with an error of its own, others only refuse the writes.
static bool IsReadOnlyDevice(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    int isReadOnly = 0;
    if (descriptor >= 0) {
        ioctl(descriptor, BLKROGET, &isReadOnly);
        close(descriptor);
    }
    return isReadOnly != 0;
}

// Opens a disk's node with O_DIRECT where it is wanted and the target takes it.
static int OpenDiskNode(const std::string &path, int flags, bool unbuffered, bool *isDirect)
{
    *isDirect = unbuffered;
    int descriptor = open(path.c_str(), flags | (unbuffered ? O_DIRECT : 0));
    if (descriptor < 0 && errno == EINVAL && unbuffered) {
        *isDirect = false;
        descriptor = open(path.c_str(), flags);
    }
    return descriptor;
}

static HANDLE OpenDisk(const std::string &path, bool exclusive, bool unbuffered)
{
    struct stat node = {};
    if (stat(path.c_str(), &node) != 0) {
        return RefuseOpen(WindowsErrorOfPath(errno, path));
    }
    if (!S_ISREG(node.st_mode) && !S_ISBLK(node.st_mode)) {
        return RefuseOpen(ERROR_FILE_NOT_FOUND);
    }
    if (exclusive && S_ISBLK(node.st_mode) && IsReadOnlyDevice(path)) {
        return RefuseOpen(ERROR_WRITE_PROTECT);
    }
    PortHandle record;
    record.kind = HandleKind::Disk;
    record.isBlockDevice = S_ISBLK(node.st_mode);
    const int exclusiveFlags = O_RDWR | (record.isBlockDevice ? O_EXCL : 0);
    record.descriptor =
        OpenDiskNode(path, (exclusive ? exclusiveFlags : O_RDONLY) | O_CLOEXEC, unbuffered, &record.isDirect);
    if (record.descriptor < 0) {
        return RefuseOpen(WindowsErrorOfPath(errno, path));
    }
    int sectorBytes = 0;
    if (!TakeLock(record.descriptor, exclusive, record.isBlockDevice) ||
        (record.isBlockDevice && ioctl(record.descriptor, BLKSSZGET, &sectorBytes) != 0)) {
        const DWORD error = WindowsError(errno);
        close(record.descriptor);
        return RefuseOpen(error);
    }
    if (record.isBlockDevice) {
        record.sectorBytes = static_cast<uint32_t>(sectorBytes);
    }
    if (exclusive) {
        HasNoLateFault(record.descriptor); // the question takes one from before off: it is not that of the first chunk
    }
    record.readsAhead = unbuffered && !exclusive;
    record.endOfLastRead = nothingReadYet;
    return MakeHandle(record);
}

static HANDLE OpenDiskDevice(const std::string &path, const OpenRequest &request)
{
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;
    if (IsRequest(request, GENERIC_READ, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING)) {
        return OpenDisk(path, false, true);
    }
    if (IsRequest(request, GENERIC_READ, shareAll, OPEN_EXISTING, 0)) {
        return OpenDisk(path, false, false);
    }
    if (IsRequest(request, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING)) {
        return OpenDisk(path, true, true);
    }
    return RefuseOpen(ERROR_INVALID_PARAMETER);
}

static HANDLE OpenVolume(const Device &device, const OpenRequest &request)
{
    if (!IsRequest(request, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0)) {
        return RefuseOpen(ERROR_INVALID_PARAMETER);
    }
    PortHandle record;
    record.kind = HandleKind::Volume;
    record.diskNumber = device.diskNumber;
    record.lengthBytes = device.lengthBytes;
    return MakeHandle(record);
}

static HANDLE OpenDevice(const std::string &name, const OpenRequest &request)
{
    const Device device = FindDevice(name);
    switch (device.kind) {
    case DeviceKind::Disk:
        return OpenDiskDevice(device.path, request);
    case DeviceKind::Volume:
        return OpenVolume(device, request);
    case DeviceKind::ControlDevice:
        if (!IsRequest(request, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0)) {
            return RefuseOpen(ERROR_INVALID_PARAMETER);
        }
        return OpenControlDevice(device.folder, device.name);
    case DeviceKind::None:
        break;
    }
    return RefuseOpen(ERROR_FILE_NOT_FOUND);
}

extern "C" HANDLE CreateFileW(LPCWSTR fileName, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                              DWORD disposition, DWORD flags, HANDLE templateFile)
{
    if (security != nullptr || templateFile != nullptr) {
        return RefuseOpen(ERROR_INVALID_PARAMETER);
    }
    signal(SIGXFSZ, SIG_IGN); // a limit of file sizes is a write's error, as a full disk is, not the process's end
    const std::string path = NarrowPath(fileName);
    const OpenRequest request = {access, share, disposition, flags};
    const size_t prefixLength = sizeof(devicePrefix) - 1;
    return path.compare(0, prefixLength, devicePrefix) == 0 ? OpenDevice(path.substr(prefixLength), request)
                                                            : OpenFile(path, request);
}

PortHandle *HandleRecord(HANDLE handle)
{
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
        SetPortError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return static_cast<PortHandle *>(handle);
}

extern "C" BOOL CloseHandle(HANDLE object)
{
    PortHandle *handle = HandleRecord(object);
    if (handle == nullptr) {
        return FALSE;
    }
    if (handle->ahead != nullptr) {
        EndReadAhead(*handle);
        flock(handle->descriptor, LOCK_UN); // the kernel may hold the open file a moment longer than its last request
    }
    const bool closed = handle->descriptor < 0 || close(handle->descriptor) == 0 || errno == EINTR;
    const DWORD error = closed ? ERROR_SUCCESS : WindowsError(errno);
    free(handle->bounceBuffer);
    delete handle;
    if (!closed) {
        SetPortError(error);
    }
    return closed ? TRUE : FALSE;
}

// ---- Transfers ----

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

// Moves up to byteCount bytes at the handle's position, and the position with them. True: *moved is short only at the
// end.
static bool Transfer(PortHandle &handle, void *buffer, uint64_t byteCount, DWORD *moved, bool isWrite)
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

// One read of a disk in ascending order takes what is there already, and the second in a row begins to read ahead: a
// block that a capture skips costs a needless read, so one alone is no sign of what comes. Nothing is ever asked of a
// disk beyond its end.
static bool ReadInOrder(PortHandle &handle, void *buffer, DWORD byteCount, DWORD *bytesRead)
{
    const bool isNext = handle.position == handle.endOfLastRead;
    handle.endOfLastRead = nothingReadYet;
    if (TakeReadAhead(handle, buffer, byteCount)) {
        handle.position += byteCount;
        *bytesRead = byteCount;
    } else if (!Transfer(handle, buffer, byteCount, bytesRead, false)) {
        return false;
    }
    handle.endOfLastRead = handle.position;
    uint64_t lengthBytes = 0;
    if (isNext && handle.readsAhead && *bytesRead == byteCount && handle.isDirect &&
        LengthOfDisk(handle, &lengthBytes) && handle.position + byteCount <= lengthBytes) {
        StartReadAhead(handle, buffer, byteCount);
    }
    return true;
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

// Hears whether something of an image failed on its way to the disk since the last write, then sends the whole windows
// behind the position on theirs; false with the last error set. An image that is told so at its header gets none.
static bool WriteBehind(PortHandle &handle)
{
    if (handle.kind != HandleKind::File || handle.underWayTo == neverSent) {
        return true;
    }
    const uint64_t begin = handle.underWayTo;
    const uint64_t end = std::max(begin, handle.position - handle.position % writeBehindBytes);
    handle.underWayTo = end;
    if (HasNoLateFault(handle.descriptor) &&
        (begin == end || sync_file_range(handle.descriptor, static_cast<off_t>(begin), static_cast<off_t>(end - begin),
                                         SYNC_FILE_RANGE_WRITE) == 0)) {
        return true;
    }
    SetPortError(WindowsErrorOfTransfer(errno, true));
    return false;
}

extern "C" BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD byteCount, LPDWORD bytesWritten, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleForTransfer(file, byteCount, bytesWritten, overlapped);
    uint64_t room = 0;
    if (handle == nullptr || !WriteBehind(*handle) || !RoomForWrite(*handle, byteCount, &room)) {
        return FALSE;
    }
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

// ---- What is asked of a handle or a path ----

extern "C" BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER fileSize)
{
    const PortHandle *handle = HandleRecord(file);
    struct stat found = {};
    if (handle == nullptr) {
        return FALSE;
    }
    if (handle->kind != HandleKind::File || fstat(handle->descriptor, &found) != 0) {
        SetPortError(handle->kind != HandleKind::File ? ERROR_INVALID_PARAMETER : WindowsError(errno));
        return FALSE;
    }
    fileSize->QuadPart = found.st_size;
    return TRUE;
}

extern "C" DWORD GetFileAttributesA(LPCSTR path)
{
    struct stat found = {};
    if (stat(path, &found) != 0) {
        SetPortError(WindowsErrorOfPath(errno, path));
        return INVALID_FILE_ATTRIBUTES;
    }
    return S_ISDIR(found.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

static bool Answer(const void *answer, DWORD answerLength, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    if (output == nullptr || outputLength < answerLength) {
        SetPortError(insufficientBuffer);
        return false;
    }
    memcpy(output, answer, answerLength);
    *bytesReturned = answerLength;
    return true;
}

bool LengthOfDisk(const PortHandle &handle, uint64_t *lengthBytes)
{
    struct stat file = {};
    const int result =
        handle.isBlockDevice ? ioctl(handle.descriptor, BLKGETSIZE64, lengthBytes) : fstat(handle.descriptor, &file);
    if (result != 0) {
        SetPortError(WindowsError(errno));
        return false;
    }
    if (!handle.isBlockDevice) {
        *lengthBytes = static_cast<uint64_t>(file.st_size);
    }
    return true;
}

static bool AnswerLength(const PortHandle &handle, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    GET_LENGTH_INFORMATION answer = {};
    uint64_t lengthBytes = 0;
    if (!LengthOfDisk(handle, &lengthBytes)) {
        return false;
    }
    answer.Length.QuadPart = static_cast<LONGLONG>(lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

static bool AnswerGeometry(const PortHandle &handle, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    DISK_GEOMETRY_EX answer = {};
    uint64_t lengthBytes = 0;
    if (!LengthOfDisk(handle, &lengthBytes)) {
        return false;
    }
    answer.Geometry.BytesPerSector = handle.sectorBytes;
    answer.DiskSize.QuadPart = static_cast<LONGLONG>(lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

static bool ReadPartitionsAgain(const PortHandle &handle)
{
    if (handle.isBlockDevice && ioctl(handle.descriptor, BLKRRPART) != 0) {
        SetPortError(WindowsError(errno));
        return false;
    }
    return true;
}

static bool ControlDisk(const PortHandle &handle, DWORD controlCode, void *output, DWORD outputLength,
                        DWORD *bytesReturned)
{
    switch (controlCode) {
    case IOCTL_DISK_GET_LENGTH_INFO:
        return AnswerLength(handle, output, outputLength, bytesReturned);
    case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX:
        return AnswerGeometry(handle, output, outputLength, bytesReturned);
    case IOCTL_DISK_UPDATE_PROPERTIES:
        return ReadPartitionsAgain(handle);
    default:
        SetPortError(ERROR_NOT_SUPPORTED);
        return false;
    }
}

static bool ControlVolume(const PortHandle &handle, DWORD controlCode, void *output, DWORD outputLength,
                          DWORD *bytesReturned)
{
    if (controlCode != IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) {
        SetPortError(ERROR_NOT_SUPPORTED);
        return false;
    }
    VOLUME_DISK_EXTENTS answer = {};
    answer.NumberOfDiskExtents = 1;
    answer.Extents[0].DiskNumber = handle.diskNumber;
    answer.Extents[0].ExtentLength.QuadPart = static_cast<LONGLONG>(handle.lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

extern "C" BOOL DeviceIoControl(HANDLE device, DWORD controlCode, LPVOID input, DWORD inputLength, LPVOID output,
                                DWORD outputLength, LPDWORD bytesReturned, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleRecord(device);
    if (handle == nullptr) {
        return FALSE;
    }
    DWORD unwantedCount = 0;
    DWORD *count = bytesReturned == nullptr ? &unwantedCount : bytesReturned;
    *count = 0;
    const bool takesInput = handle->kind == HandleKind::ControlDevice;
    if (overlapped != nullptr || handle->kind == HandleKind::File || (inputLength != 0 && !takesInput)) {
        SetPortError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (handle->kind == HandleKind::ControlDevice) {
        return ExchangeWithDevice(handle, controlCode, input, inputLength, output, outputLength, count);
    }
    const bool answered = handle->kind == HandleKind::Disk
                              ? ControlDisk(*handle, controlCode, output, outputLength, count)
                              : ControlVolume(*handle, controlCode, output, outputLength, count);
    return answered ? TRUE : FALSE;
}
