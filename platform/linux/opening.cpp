// Opening and closing files, disks and volumes behind one kind of handle.
//
// Calls held here: CreateFileW, CloseHandle.
//
// Share modes are locks of the open file: shared for a reader, exclusive for an opener that shares with nobody, taken
// before a file is truncated. Unbuffered disks have O_DIRECT where the target takes it. Closing what was written brings
// it to the disk.
#include "port.h"
#include "read_ahead.h"
#include "system_text.h"
#include "write_behind.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

static const char devicePrefix[] = R"(\\.\)";

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

// The same for an image. On a file system that has no locks it is opened without: an image that nobody can open is
// worse than one that nobody guards.
static bool TakeLockOfImage(int descriptor, bool exclusive)
{
    return TakeLock(descriptor, exclusive, false) || errno == ENOLCK || errno == ENOSYS || errno == EOPNOTSUPP;
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
    if (!TakeLockOfImage(record.descriptor, false)) {
        const DWORD error = WindowsError(errno);
        close(record.descriptor);
        return RefuseOpen(error);
    }
    AdviseSequentialReading(record.descriptor, found.st_dev);
    return MakeHandle(record);
}

// Opens path for writing and tells whether it came into being here. A new image is its owner's alone, since it holds
// whatever the disk held.
static int OpenOrCreate(const std::string &path, bool mustBeNew, bool *created)
{
    constexpr mode_t permissions = 0600;
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
            *created = true;
            return open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, permissions); // a link to what is not there yet
        }
    }
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
    if (!TakeLockOfImage(record.descriptor, true) || !MakeEmpty(record.descriptor)) {
        const int error = errno;
        if (created && error != EWOULDBLOCK) { // else another opener was faster and has it now
            unlink(RealPath(path).c_str());
        }
        close(record.descriptor);
        return RefuseOpen(WindowsError(error));
    }
    StartWritingBehind(record, path);
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

static HANDLE OpenDisk(const Device &device, bool exclusive, bool unbuffered)
{
    const std::string &path = device.path;
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
    if (!IsDiskOfList(record.descriptor, device.ownDisk)) {
        close(record.descriptor);
        return RefuseOpen(ERROR_FILE_NOT_FOUND);
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
        ioctl(record.descriptor, BLKGETSIZE64, &record.lengthWhenOpened);
    }
    if (exclusive) {
        TakeLateFault(record.descriptor); // one from before is not that of the first chunk
    }
    if (unbuffered && !exclusive) {
        record.aheadDescriptor = OpenForReadAhead(path, record);
        record.readsAhead = record.aheadDescriptor >= 0;
    }
    return MakeHandle(record);
}

static HANDLE OpenDiskDevice(const Device &device, const OpenRequest &request)
{
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;
    if (IsRequest(request, GENERIC_READ, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING)) {
        return OpenDisk(device, false, true);
    }
    if (IsRequest(request, GENERIC_READ, shareAll, OPEN_EXISTING, 0)) {
        return OpenDisk(device, false, false);
    }
    if (IsRequest(request, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING)) {
        return OpenDisk(device, true, true);
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
        return OpenDiskDevice(device, request);
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
    SetPortError(ERROR_SUCCESS); // what a successful open leaves, unless it replaces a file
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
    EndReadAhead(*handle);
    bool closed = BringToDisk(*handle);
    for (const int descriptor : {handle->descriptor, handle->folder, handle->aheadDescriptor}) {
        if (descriptor >= 0 && close(descriptor) != 0 && errno != EINTR) {
            SetPortError(WindowsError(errno));
            closed = false;
        }
    }
    free(handle->bounceBuffer);
    delete handle;
    return closed ? TRUE : FALSE;
}
