// The clock and the C run-time's additions.
//
// Calls held here: GetTickCount64, _aligned_malloc, _aligned_free, _fullpath, _stricmp, fopen_s.
#include "page_block.h"
#include "port.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

extern "C" ULONGLONG GetTickCount64(void)
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1000000;
}

extern "C" void *_aligned_malloc(size_t size, size_t alignment)
{
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) {
        abort();
    }
    void *block = nullptr;
    if (IsWholeHugePages(size)) {
        block = MakePageBlock(size, alignment);
    } else if (posix_memalign(&block, std::max(alignment, sizeof(void *)), size == 0 ? 1 : size) != 0) {
        block = nullptr;
    }
    if (block == nullptr) {
        SetPortError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return block;
}

extern "C" void _aligned_free(void *block)
{
    if (!FreePageBlock(block)) {
        free(block);
    }
}

// Takes one component onto the end of an absolute path without a separator at its end.
static void AppendComponent(std::string &path, const std::string &component)
{
    if (component.empty() || component == ".") {
        return;
    }
    if (component == "..") {
        path.resize(path.empty() ? 0 : path.find_last_of('/'));
        return;
    }
    path += '/';
    path += component;
}

extern "C" char *_fullpath(char *buffer, const char *path, size_t size)
{
    if (buffer == nullptr || path == nullptr) {
        return nullptr;
    }
    std::string text = path;
    if (text.empty() || text[0] != '/') {
        char *folder = getcwd(nullptr, 0);
        if (folder == nullptr) {
            return nullptr;
        }
        text = text.empty() ? folder : std::string(folder) + "/" + text;
        free(folder);
    }
    std::string full;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('/', begin) == std::string::npos ? text.size() : text.find('/', begin);
        AppendComponent(full, text.substr(begin, end - begin));
        begin = end + 1;
    }
    if (full.empty() || text.back() == '/') {
        full += '/';
    }
    if (full.size() >= size) {
        return nullptr;
    }
    memcpy(buffer, full.c_str(), full.size() + 1);
    return buffer;
}

static int LowerCase(char letter)
{
    const int value = static_cast<unsigned char>(letter);
    return value >= 'A' && value <= 'Z' ? value - 'A' + 'a' : value;
}

extern "C" int _stricmp(const char *left, const char *right)
{
    while (*left != '\0' && LowerCase(*left) == LowerCase(*right)) {
        ++left;
        ++right;
    }
    return LowerCase(*left) - LowerCase(*right);
}

extern "C" errno_t fopen_s(FILE **stream, const char *path, const char *mode)
{
    struct stat found = {};
    *stream = nullptr;
    if (stat(path, &found) == 0 && S_ISDIR(found.st_mode)) {
        errno = EISDIR;
    } else {
        *stream = fopen(path, mode);
    }
    if (*stream == nullptr) {
        const int error = errno;
        SetPortError(WindowsErrorOfPath(error, path));
        return error;
    }
    return 0;
}
