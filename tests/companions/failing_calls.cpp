// Each call counts itself and goes on to the real one, unless it is its turn to fail. A close that fails has closed.
#include "companions/failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <openssl/crypto.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
struct Shared {
    std::atomic<uint64_t> counted = 0;
    std::atomic<uint64_t> failed = 0;
};

FailingCall failing;
bool isOn = false;
char wantedCall[32]; // failing.call, for where no memory may be asked for

Shared &TheShared()
{
    static auto *const shared =
        new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared();
    return *shared;
}

bool IsItsTurn(const char *name)
{
    if (!isOn) {
        return false;
    }
    const bool isSpecial = strcmp(name, "memory") == 0 || strcmp(name, "thread") == 0;
    if (wantedCall[0] == 0 ? isSpecial : strcmp(wantedCall, name) != 0) {
        return false;
    }
    const uint64_t number = ++TheShared().counted;
    if (number != failing.nth && (!failing.forGood || number < failing.nth)) {
        return false;
    }
    ++TheShared().failed;
    return true;
}

// True if the call is to fail; errno is then set.
bool Fails(const char *name)
{
    if (!IsItsTurn(name) || failing.error == 0) {
        return false;
    }
    errno = failing.error;
    return true;
}

// How much of a transfer takes place; -1 if it fails.
ssize_t Transfer(const char *name, size_t byteCount)
{
    if (!IsItsTurn(name)) {
        return static_cast<ssize_t>(byteCount);
    }
    errno = failing.error;
    return failing.error != 0 ? -1 : static_cast<ssize_t>(byteCount > 1 ? byteCount - 1 : byteCount);
}

void *Allocate(size_t byteCount)
{
    return Fails("memory") ? nullptr : malloc(byteCount == 0 ? 1 : byteCount);
}

void *AllocateForLibrary(size_t byteCount, const char *, int)
{
    return Allocate(byteCount);
}

void *ReallocateForLibrary(void *block, size_t byteCount, const char *, int)
{
    if (byteCount == 0) {
        free(block);
        return nullptr;
    }
    return Fails("memory") ? nullptr : realloc(block, byteCount);
}

void FreeForLibrary(void *block, const char *, int)
{
    free(block);
}

// Before libcrypto has asked for any.
const bool libraryAsksHere = CRYPTO_set_mem_functions(AllocateForLibrary, ReallocateForLibrary, FreeForLibrary) == 1;
} // namespace

const std::vector<std::string> &CallNames()
{
    static const std::vector<std::string> names = {"close",  "fdatasync", "flock",    "fopen",          "fread",
                                                   "fstat",  "fstatat",   "fsync",    "ftruncate",      "link",
                                                   "lstat",  "open",      "opendir",  "posix_memalign", "pread",
                                                   "pwrite", "readdir",   "readlink", "renameat2",      "stat"};
    return names;
}

void FailCalls(const FailingCall &asked)
{
    TheShared().counted = 0;
    TheShared().failed = 0;
    failing = asked;
    strncpy(wantedCall, asked.call.c_str(), sizeof(wantedCall) - 1);
    if (!libraryAsksHere) {
        abort();
    }
    isOn = true;
}

uint64_t CallsFailed()
{
    return TheShared().failed;
}

uint64_t CallsCounted()
{
    return TheShared().counted;
}

// ---- Memory and threads ----

void *operator new(size_t byteCount)
{
    void *block = Allocate(byteCount);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void *operator new[](size_t byteCount)
{
    return operator new(byteCount);
}

void *operator new(size_t byteCount, const std::nothrow_t &) noexcept
{
    return Allocate(byteCount);
}

void *operator new[](size_t byteCount, const std::nothrow_t &) noexcept
{
    return Allocate(byteCount);
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete[](void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}

void operator delete[](void *block, size_t) noexcept
{
    free(block);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                              void *argument)
{
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return Fails("thread") ? EAGAIN : real(thread, attributes, body, argument);
}

// ---- The system's calls ----

extern "C" {

int __real_close(int descriptor);
int __wrap_close(int descriptor)
{
    const bool fails = Fails("close");
    const int error = errno;
    const int status = __real_close(descriptor);
    errno = fails ? error : errno;
    return fails ? -1 : status;
}

int __real_fdatasync(int descriptor);
int __wrap_fdatasync(int descriptor)
{
    return Fails("fdatasync") ? -1 : __real_fdatasync(descriptor);
}

int __real_flock(int descriptor, int operation);
int __wrap_flock(int descriptor, int operation)
{
    return Fails("flock") ? -1 : __real_flock(descriptor, operation);
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return Fails("fopen") ? nullptr : __real_fopen(path, mode);
}

size_t __real_fread(void *buffer, size_t size, size_t count, FILE *file);
size_t __wrap_fread(void *buffer, size_t size, size_t count, FILE *file)
{
    return Fails("fread") ? 0 : __real_fread(buffer, size, count, file);
}

int __real_fstat(int descriptor, struct stat *found);
int __wrap_fstat(int descriptor, struct stat *found)
{
    return Fails("fstat") ? -1 : __real_fstat(descriptor, found);
}

int __real_fstatat(int folder, const char *path, struct stat *found, int flags);
int __wrap_fstatat(int folder, const char *path, struct stat *found, int flags)
{
    return Fails("fstatat") ? -1 : __real_fstatat(folder, path, found, flags);
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor)
{
    return Fails("fsync") ? -1 : __real_fsync(descriptor);
}

int __real_ftruncate(int descriptor, off_t length);
int __wrap_ftruncate(int descriptor, off_t length)
{
    return Fails("ftruncate") ? -1 : __real_ftruncate(descriptor, length);
}

int __real_link(const char *from, const char *to);
int __wrap_link(const char *from, const char *to)
{
    return Fails("link") ? -1 : __real_link(from, to);
}

int __real_lstat(const char *path, struct stat *found);
int __wrap_lstat(const char *path, struct stat *found)
{
    return Fails("lstat") ? -1 : __real_lstat(path, found);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Fails("open") ? -1 : __real_open(path, flags, mode);
}

DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path)
{
    return Fails("opendir") ? nullptr : __real_opendir(path);
}

int __real_posix_memalign(void **block, size_t alignment, size_t byteCount);
int __wrap_posix_memalign(void **block, size_t alignment, size_t byteCount)
{
    return Fails("posix_memalign") ? ENOMEM : __real_posix_memalign(block, alignment, byteCount);
}

ssize_t __real_pread(int descriptor, void *buffer, size_t byteCount, off_t offset);
ssize_t __wrap_pread(int descriptor, void *buffer, size_t byteCount, off_t offset)
{
    if (failing.error == otherBytes) {
        const bool changes = byteCount >= leastOtherBytes && IsItsTurn("pread");
        const ssize_t got = __real_pread(descriptor, buffer, byteCount, offset);
        if (changes && got > 0) {
            *static_cast<uint8_t *>(buffer) ^= 1;
        }
        return got;
    }
    const ssize_t some = Transfer("pread", byteCount);
    return some < 0 ? -1 : __real_pread(descriptor, buffer, static_cast<size_t>(some), offset);
}

ssize_t __real_pwrite(int descriptor, const void *buffer, size_t byteCount, off_t offset);
ssize_t __wrap_pwrite(int descriptor, const void *buffer, size_t byteCount, off_t offset)
{
    const ssize_t some = Transfer("pwrite", byteCount);
    return some < 0 ? -1 : __real_pwrite(descriptor, buffer, static_cast<size_t>(some), offset);
}

dirent *__real_readdir(DIR *listing);
dirent *__wrap_readdir(DIR *listing)
{
    return Fails("readdir") ? nullptr : __real_readdir(listing);
}

ssize_t __real_readlink(const char *path, char *buffer, size_t byteCount);
ssize_t __wrap_readlink(const char *path, char *buffer, size_t byteCount)
{
    return Fails("readlink") ? -1 : __real_readlink(path, buffer, byteCount);
}

int __real_renameat2(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags);
int __wrap_renameat2(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags)
{
    return Fails("renameat2") ? -1 : __real_renameat2(fromFolder, from, toFolder, to, flags);
}

int __real_stat(const char *path, struct stat *found);
int __wrap_stat(const char *path, struct stat *found)
{
    return Fails("stat") ? -1 : __real_stat(path, found);
}
}
