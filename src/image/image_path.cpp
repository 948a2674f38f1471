// Splitting, widening and resolving. Both separators count on every system, since images travel between systems.
#include "image/image_path.h"

#include "cli/console.h"

#include <windows.h>

#include <cstdlib>

std::wstring WidenPath(const std::string &path)
{
    std::wstring wide;
    for (const char byte : path) {
        wide.push_back(static_cast<wchar_t>(static_cast<signed char>(byte)));
    }
    return wide;
}

std::string ParentFolder(const std::string &path)
{
    const size_t separator = path.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

std::string BareFileName(const std::string &path)
{
    return path.substr(ParentFolder(path).size());
}

ResolvedPaths ResolvePaths(const std::string &first, const std::string &second)
{
    char firstFull[_MAX_PATH];
    char secondFull[_MAX_PATH];
    if (_fullpath(firstFull, first.c_str(), sizeof(firstFull)) == nullptr ||
        _fullpath(secondFull, second.c_str(), sizeof(secondFull)) == nullptr) {
        Fatal("could not resolve image paths", 0);
    }
    return {firstFull, secondFull};
}
