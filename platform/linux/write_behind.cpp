// Getting what was written to its disk: an image behind its writer while it is being written, and whatever was written
// at the close.
#include "write_behind.h"

#include "system_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>

static constexpr uint64_t writeBehindBytes = uint64_t{8} << 20; // a window: what a device's queue takes at once
static constexpr uint64_t neverSent = UINT64_MAX;

bool TakeLateFault(int descriptor)
{
    // Nothing is waited for: the question goes to a range far behind the end, and the answer is for the whole file.
    constexpr off_t behindTheEnd = off_t{1} << 62;
    return sync_file_range(descriptor, behindTheEnd, 1, SYNC_FILE_RANGE_WAIT_BEFORE) != 0;
}

// The folder that holds the name of the file that path leads to; below 0 if it can't be opened.
static int OpenFolderOf(const std::string &path)
{
    const std::string file = RealPath(path);
    return open(file.substr(0, file.find_last_of('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

void StartWritingBehind(PortHandle &handle, const std::string &path)
{
    handle.isWritten = true;
    handle.folder = OpenFolderOf(path);
    // A sandbox refuses the call, or one way of it, and the bytes get there all the same. Any other answer is a fault
    // of what the file held before, which is nobody's any more.
    if (sync_file_range(handle.descriptor, 0, 0, 0) != 0 || (TakeLateFault(handle.descriptor) && errno == ENOSYS)) {
        handle.underWayTo = neverSent;
    }
}

bool WriteBehind(PortHandle &handle)
{
    if (handle.kind != HandleKind::File || handle.underWayTo == neverSent) {
        return true;
    }
    const uint64_t begin = handle.underWayTo;
    const uint64_t end = std::max(begin, handle.position - handle.position % writeBehindBytes);
    handle.underWayTo = end;
    if (!TakeLateFault(handle.descriptor) &&
        (begin == end || sync_file_range(handle.descriptor, static_cast<off_t>(begin), static_cast<off_t>(end - begin),
                                         SYNC_FILE_RANGE_WRITE) == 0)) {
        return true;
    }
    SetPortError(WindowsErrorOfTransfer(errno, true));
    return false;
}

// The entry of the file in its folder, or all of its file system where the folder can't be opened or takes no such
// call.
static bool BringNameToDisk(const PortHandle &handle)
{
    if (handle.folder >= 0) {
        if (fsync(handle.folder) == 0) {
            return true;
        }
        if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) {
            return false;
        }
    }
    return syncfs(handle.descriptor) == 0;
}

bool BringToDisk(const PortHandle &handle)
{
    if (handle.isWritten && (fsync(handle.descriptor) != 0 || // of a block device, the drive's own cache too
                             (handle.kind == HandleKind::File && !BringNameToDisk(handle)))) {
        SetPortError(WindowsErrorOfTransfer(errno, true));
        return false;
    }
    return true;
}
