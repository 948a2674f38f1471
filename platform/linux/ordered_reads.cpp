// Reading in ascending order, from the reader's side: what the kernel is told of an image, and for a disk, when to read
// ahead and when to take what is there already.
//
// One read of a disk in ascending order takes what is there already, and the second in a row begins to read ahead: a
// block that a capture skips costs a needless read, so one alone is no sign of what comes. Nothing is ever asked of a
// disk beyond its end.
#include "read_ahead.h"

#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static constexpr uint64_t nothingReadYet = UINT64_MAX;

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

void AdviseSequentialReading(int descriptor, dev_t device)
{
    if (!ReadsFarAhead(device)) {
        posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL); // nothing depends on it
    }
}

// True when both descriptors lead to the same file or device.
static bool IsSameNode(int left, int right)
{
    struct stat one = {};
    struct stat other = {};
    return fstat(left, &one) == 0 && fstat(right, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino && one.st_rdev == other.st_rdev;
}

int OpenForReadAhead(const std::string &path, const PortHandle &disk)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | (disk.isDirect ? O_DIRECT : 0));
    if (descriptor >= 0 && !IsSameNode(descriptor, disk.descriptor)) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

bool ReadInOrder(PortHandle &handle, void *buffer, DWORD byteCount, DWORD *bytesRead)
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
