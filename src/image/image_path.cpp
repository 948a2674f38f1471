// Splitting and widening. Both separators count on every system, since images travel between systems.
#include "image/image_path.h"

std::wstring WidenPath(const std::string &path)
{
    std::wstring wide;
    wide.reserve(path.size());
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
