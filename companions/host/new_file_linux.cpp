// Files that have their name only when they are complete and on the disk.
//
// The steps: a name of its own beside the final one, the content, the content to the disk, the final name (which
// nothing may have yet), the folder to the disk. An interrupt takes away what is in the making, and then ends the
// process as it would have.
#include "host/open_handle_linux.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace host
{

// What a signal is to remove: paths that are complete before they are marked as such.
struct Removal {
    volatile sig_atomic_t isMarked = 0;
    char path[PATH_MAX] = {};
};
static Removal removals[4];

static void RemoveAndEnd(int signalNumber)
{
    for (const Removal &removal : removals) {
        if (removal.isMarked != 0) {
            unlink(removal.path);
        }
    }
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

static void MarkForRemoval(const std::string &path)
{
    for (Removal &removal : removals) {
        if (removal.isMarked == 0 && path.size() < sizeof(removal.path)) {
            memcpy(removal.path, path.c_str(), path.size() + 1);
            removal.isMarked = 1;
            break;
        }
    }
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present = {};
        if (sigaction(signalNumber, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            signal(signalNumber, RemoveAndEnd);
        }
    }
}

static void UnmarkForRemoval(const std::string &path)
{
    for (Removal &removal : removals) {
        if (removal.isMarked != 0 && path == removal.path) {
            removal.isMarked = 0;
        }
    }
}

NewFile::~NewFile()
{
    if (!unfinishedPath.empty()) {
        unlink(unfinishedPath.c_str());
        UnmarkForRemoval(unfinishedPath);
    }
}

Trouble LengthOfFile(const std::string &path, uint64_t *lengthBytes)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0) {
        return SystemText(errno);
    }
    *lengthBytes = static_cast<uint64_t>(found.st_size);
    return {};
}

bool NameIsFree(const std::string &path)
{
    struct stat found = {};
    return lstat(path.c_str(), &found) != 0 && errno == ENOENT;
}

// Gives the system's error, or 0.
static int OpenUnfinished(NewFile &file, const std::string &unfinishedPath)
{
    file.unfinishedPath = unfinishedPath; // known before there is a file
    MarkForRemoval(file.unfinishedPath);
    file.handle->descriptor = open(file.unfinishedPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file.handle->descriptor >= 0) {
        return 0;
    }
    const int error = errno;
    UnmarkForRemoval(file.unfinishedPath);
    file.unfinishedPath.clear();
    return error;
}

Trouble CreateNewFile(const std::string &path, Existing existing, NewFile *file)
{
    struct stat found = {};
    if (existing == Existing::IsTrouble && lstat(path.c_str(), &found) == 0) {
        return SystemText(EEXIST);
    }
    file->handle.reset(new OpenHandle);
    file->path = path;
    // In a container the program may have the number of one that died there.
    int error = OpenUnfinished(*file, path + "." + std::to_string(getpid()) + unfinishedEnding);
    for (unsigned i = 2; error == EEXIST && i < 100; ++i) {
        error =
            OpenUnfinished(*file, path + "." + std::to_string(getpid()) + "-" + std::to_string(i) + unfinishedEnding);
    }
    return error == 0 ? Trouble() : Trouble(SystemText(error));
}

Trouble SetLength(const NewFile &file, uint64_t lengthBytes)
{
    if (lengthBytes > INT64_MAX || ftruncate(file.handle->descriptor, static_cast<off_t>(lengthBytes)) != 0) {
        return SystemText(lengthBytes > INT64_MAX ? EFBIG : errno);
    }
    return {};
}

Trouble WriteAt(const NewFile &file, uint64_t offsetBytes, const void *data, size_t byteCount)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    while (byteCount != 0) {
        const ssize_t step = pwrite(file.handle->descriptor, bytes, byteCount, static_cast<off_t>(offsetBytes));
        if (step < 0 && errno != EINTR) {
            return SystemText(errno);
        }
        if (step > 0) {
            offsetBytes += static_cast<uint64_t>(step);
            bytes += step;
            byteCount -= static_cast<size_t>(step);
        }
    }
    return {};
}

// Some file systems know no renaming that refuses to replace; there the new name is made first, and the old one goes.
// Where they know no second name of a file either (FAT and exFAT over FUSE), the name is looked for and then taken: who
// else makes a file of that name in between loses it, and nobody can keep that from happening there. A file made first
// to hold the name would be found unfinished under it after a crash.
static bool GiveName(const std::string &from, const std::string &to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    if (link(from.c_str(), to.c_str()) != 0) {
        const bool knowsNoLinks = errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS || errno == EMLINK;
        if (knowsNoLinks && !NameIsFree(to)) {
            errno = EEXIST;
            return false;
        }
        return knowsNoLinks && rename(from.c_str(), to.c_str()) == 0;
    }
    if (unlink(from.c_str()) != 0) {
        const int error = errno;
        unlink(to.c_str());
        errno = error;
        return false;
    }
    return true;
}

static Trouble SyncFolderOf(const std::string &path)
{
    const size_t separator = path.find_last_of('/');
    const std::string folder = separator == std::string::npos ? "." : path.substr(0, separator + 1);
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0 || fsync(descriptor) != 0) {
        const int error = errno;
        if (descriptor >= 0) {
            close(descriptor);
        }
        // A file system without such a call has no more to give.
        return error == EINVAL || error == EACCES ? Trouble() : SystemText(error);
    }
    close(descriptor);
    return {};
}

// The content on the disk, the descriptor gone.
static Trouble CloseOnDisk(NewFile &file)
{
    if (fsync(file.handle->descriptor) != 0) {
        return SystemText(errno);
    }
    if (close(std::exchange(file.handle->descriptor, -1)) != 0 && errno != EINTR) {
        return SystemText(errno);
    }
    return {};
}

Trouble FlushNewFile(const NewFile &file)
{
    return fsync(file.handle->descriptor) != 0 ? Trouble(SystemText(errno)) : Trouble();
}

static Trouble FinishNamed(NewFile *file, bool hasName)
{
    if (!hasName) {
        return SystemText(errno);
    }
    UnmarkForRemoval(file->unfinishedPath);
    file->unfinishedPath.clear();
    return SyncFolderOf(file->path);
}

Trouble FinishNewFile(NewFile *file)
{
    Trouble trouble = CloseOnDisk(*file);
    if (trouble) {
        return trouble;
    }
    const bool hasName = GiveName(file->unfinishedPath, file->path);
    trouble = FinishNamed(file, hasName);
    if (trouble && hasName) {
        RemoveFinishedFile(*file);
    }
    return trouble;
}

Trouble FinishInPlaceOf(NewFile *file)
{
    const Trouble trouble = CloseOnDisk(*file);
    return trouble ? trouble : FinishNamed(file, rename(file->unfinishedPath.c_str(), file->path.c_str()) == 0);
}

void RemoveFinishedFile(const NewFile &file)
{
    unlink(file.path.c_str());
}

Trouble GiveFinalName(const std::string &from, const std::string &to)
{
    if (!GiveName(from, to)) {
        return SystemText(errno);
    }
    return SyncFolderOf(to);
}

Trouble GiveNameInPlaceOf(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) != 0) {
        return SystemText(errno);
    }
    return SyncFolderOf(to);
}

Trouble RemoveName(const std::string &path)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return SystemText(errno);
    }
    return SyncFolderOf(path);
}

Trouble BringToDisk(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return SystemText(errno);
    }
    Trouble trouble = fsync(descriptor) != 0 ? Trouble(SystemText(errno)) : Trouble();
    close(descriptor);
    return trouble;
}

} // namespace host
