// Files read at an offset, over POSIX.
//
// An audit is to meet the medium: what the page cache holds of a file is brought to the disk and let go before the
// first read. Reads say beforehand how much they want, so that a device gets it in one go. A reader's lock keeps out a
// kestrix that would write the file, and a file that is being written is refused.
#include "host/open_handle_linux.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host
{

static constexpr size_t bounceBytes = size_t{1} << 20;
static constexpr size_t worthAnnouncing = size_t{256} << 10; // bytes of a read

std::string SystemText(int systemError)
{
    char buffer[256] = {};
    return strerror_r(systemError, buffer, sizeof(buffer)); // the variant of the C library that gives the text
}

void CloseOpenHandle::operator()(OpenHandle *handle) const
{
    if (handle->descriptor >= 0) {
        close(handle->descriptor);
    }
    delete handle;
}

void FreePages::operator()(uint8_t *pages) const
{
    free(pages);
}

Pages MakePages(size_t byteCount)
{
    void *pages = nullptr;
    if (posix_memalign(&pages, pageBytes, std::max(byteCount, pageBytes)) != 0) {
        throw std::bad_alloc();
    }
    return Pages(static_cast<uint8_t *>(pages));
}

static FileIdentity IdentityOfFile(const struct stat &found)
{
    return {found.st_dev, found.st_ino};
}

void ForgetCached(int descriptor)
{
    fdatasync(descriptor); // only what is on the disk can be let go; a file nobody writes has nothing else to say here
    posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
}

// Gives the system's error, or 0. Where the file system knows no locks nobody has one, and kestrix reads as well.
static int LockShared(int descriptor)
{
    while (flock(descriptor, LOCK_SH | LOCK_NB) != 0) {
        if (errno == ENOLCK || errno == ENOSYS || errno == EOPNOTSUPP) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

Trouble OpenFileToRead(const std::string &path, Caching caching, Source *source)
{
    struct stat found = {};
    source->handle.reset(new OpenHandle);
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    source->handle->descriptor = descriptor;
    if (descriptor < 0 || fstat(descriptor, &found) != 0) {
        return SystemText(errno);
    }
    if (!S_ISREG(found.st_mode)) {
        return "it is no ordinary file";
    }
    if (const int error = LockShared(descriptor)) {
        return error == EWOULDBLOCK ? beingWritten : SystemText(error);
    }
    source->sizeBytes = static_cast<uint64_t>(found.st_size);
    source->identity = IdentityOfFile(found);
    if (caching == Caching::Medium) {
        ForgetCached(descriptor);
    }
    return {};
}

Trouble OpenAgain(const Source &source, Source *again)
{
    const std::string path = "/proc/self/fd/" + std::to_string(source.handle->descriptor);
    again->handle.reset(new OpenHandle(*source.handle));
    again->handle->descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | (source.handle->isDirect ? O_DIRECT : 0));
    if (again->handle->descriptor < 0) { // without /proc the two share a file position, which no read here moves
        again->handle->descriptor = fcntl(source.handle->descriptor, F_DUPFD_CLOEXEC, 0);
    }
    if (again->handle->descriptor < 0) {
        return SystemText(errno);
    }
    again->sizeBytes = source.sizeBytes;
    again->sectorBytes = source.sectorBytes;
    again->identity = source.identity;
    return {};
}

static Trouble ReadFully(int descriptor, uint64_t offsetBytes, uint8_t *buffer, size_t byteCount)
{
    while (byteCount != 0) {
        const ssize_t step = pread(descriptor, buffer, byteCount, static_cast<off_t>(offsetBytes));
        if (step < 0 && errno == EINTR) {
            continue;
        }
        if (step < 0 && errno == ENOMEM) {
            throw std::bad_alloc(); // ours, and not the medium's
        }
        if (step <= 0) {
            return step < 0 ? SystemText(errno) : "it ends there";
        }
        offsetBytes += static_cast<uint64_t>(step);
        buffer += step;
        byteCount -= static_cast<size_t>(step);
    }
    return {};
}

// Whole blocks around what is asked for, through memory that a device takes. A read at the end comes back short.
static Trouble ReadAround(const Source &source, uint64_t offsetBytes, uint8_t *buffer, size_t byteCount)
{
    const uint64_t block = source.handle->blockBytes;
    const Pages bounce = MakePages(bounceBytes);
    while (byteCount != 0) {
        const auto skipped = static_cast<size_t>(offsetBytes % block);
        const uint64_t wanted = (skipped + byteCount + block - 1) / block * block;
        const size_t piece = std::min<uint64_t>(wanted, bounceBytes - bounceBytes % block);
        const ssize_t step =
            pread(source.handle->descriptor, bounce.get(), piece, static_cast<off_t>(offsetBytes - skipped));
        if (step < 0 && errno == EINTR) {
            continue;
        }
        if (step < 0 && errno == ENOMEM) {
            throw std::bad_alloc();
        }
        if (step < 0) {
            return SystemText(errno);
        }
        if (static_cast<size_t>(step) <= skipped) {
            return "it ends there";
        }
        const size_t taken = std::min(byteCount, static_cast<size_t>(step) - skipped);
        memcpy(buffer, bounce.get() + skipped, taken);
        offsetBytes += taken;
        buffer += taken;
        byteCount -= taken;
    }
    return {};
}

Trouble ReadAt(const Source &source, uint64_t offsetBytes, void *buffer, size_t byteCount)
{
    if (offsetBytes > source.sizeBytes || byteCount > source.sizeBytes - offsetBytes) {
        return "it ends before";
    }
    auto *bytes = static_cast<uint8_t *>(buffer);
    if (source.handle->isDirect) {
        const uint64_t block = source.handle->blockBytes;
        const bool isAligned =
            offsetBytes % block == 0 && byteCount % block == 0 && reinterpret_cast<uintptr_t>(buffer) % pageBytes == 0;
        return isAligned ? ReadFully(source.handle->descriptor, offsetBytes, bytes, byteCount)
                         : ReadAround(source, offsetBytes, bytes, byteCount);
    }
    if (byteCount >= worthAnnouncing) {
        Announce(source, offsetBytes, byteCount);
    }
    return ReadFully(source.handle->descriptor, offsetBytes, bytes, byteCount);
}

void Announce(const Source &source, uint64_t offsetBytes, uint64_t byteCount)
{
    if (!source.handle->isDirect) {
        posix_fadvise(source.handle->descriptor, static_cast<off_t>(offsetBytes), static_cast<off_t>(byteCount),
                      POSIX_FADV_WILLNEED);
    }
}

bool IsGone(const Source &source)
{
    uint8_t first = 0;
    posix_fadvise(source.handle->descriptor, 0, pageBytes, POSIX_FADV_DONTNEED); // where it may be remembered
    return source.sizeBytes != 0 && ReadAt(source, 0, &first, sizeof(first)).has_value();
}

Trouble IdentityOf(const std::string &path, FileIdentity *identity)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0) {
        return SystemText(errno);
    }
    *identity = IdentityOfFile(found);
    return {};
}

Trouble ListFiles(const std::string &folder, std::vector<std::string> *names)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(folder.c_str()), closedir);
    if (listing == nullptr) {
        return SystemText(errno);
    }
    errno = 0;
    while (const dirent *entry = readdir(listing.get())) {
        struct stat found = {};
        const bool isFile = fstatat(dirfd(listing.get()), entry->d_name, &found, 0) == 0
                                ? S_ISREG(found.st_mode)
                                : errno != ENOENT && errno != ELOOP; // what can't be told is for whoever opens it
        if (isFile) {
            names->emplace_back(entry->d_name);
        }
        errno = 0;
    }
    if (errno != 0) {
        return SystemText(errno);
    }
    std::sort(names->begin(), names->end());
    return {};
}

// A zero byte ends the name, as it does for the system's own calls.
BasePlace FindBase(const std::string &imagePath, const std::string &baseName)
{
    BasePlace place;
    place.path = FolderOf(imagePath) + baseName.c_str();
    struct stat found = {};
    // What can't be looked at for another reason may well be there: opening it tells the reason.
    const bool isAbsent =
        stat(place.path.c_str(), &found) != 0 && (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG);
    place.exists = !isAbsent;
    return place;
}

Trouble ReadSmallFile(const std::string &path, std::string *content)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) {
        return SystemText(EISDIR);
    }
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "rbe"), fclose);
    if (file == nullptr) {
        return SystemText(errno);
    }
    char block[256];
    size_t bytesRead = 0;
    while ((bytesRead = fread(block, 1, sizeof(block), file.get())) != 0) {
        content->append(block, bytesRead);
        if (content->size() > mostSmallBytes) {
            return tooLargeText;
        }
    }
    return ferror(file.get()) != 0 ? Trouble(SystemText(errno)) : Trouble();
}

} // namespace host
