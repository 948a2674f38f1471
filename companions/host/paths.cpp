// What is the same for paths and files everywhere. Both separators count on every system, since images travel.
#include "host/host.h"

#include <tuple>

namespace host
{

bool operator==(const FileIdentity &left, const FileIdentity &right)
{
    return left.volume == right.volume && left.file == right.file;
}

bool operator<(const FileIdentity &left, const FileIdentity &right)
{
    return std::tie(left.volume, left.file) < std::tie(right.volume, right.file);
}

std::string FolderOf(const std::string &path)
{
    const size_t separator = path.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

std::string NameOf(const std::string &path)
{
    return path.substr(FolderOf(path).size());
}

} // namespace host
