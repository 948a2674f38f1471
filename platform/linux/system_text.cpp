// Lines, links and folders as the kernel shows them.
#include "system_text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sys/sysmacros.h>
#include <unistd.h>

std::string ReadLine(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::string ReadLink(const std::string &path)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof(target));
    return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

std::string RealPath(const std::string &path)
{
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved == nullptr ? "" : resolved;
    free(resolved);
    return result;
}

bool ListFolder(const std::string &path, std::vector<std::string> *names)
{
    names->clear();
    DIR *folder = opendir(path.c_str());
    if (folder == nullptr) {
        return false;
    }
    errno = 0;
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            names->emplace_back(entry->d_name);
        }
    }
    const bool cameToTheEnd = errno == 0;
    closedir(folder);
    std::sort(names->begin(), names->end());
    return cameToTheEnd;
}

std::string DeviceNumberText(dev_t device)
{
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}
