// Block devices, as sysfs shows them.
#include "host/disk_facts_linux.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace host
{

std::string DeviceNumberText(dev_t number)
{
    return std::to_string(major(number)) + ":" + std::to_string(minor(number));
}

std::string RealPath(const std::string &path)
{
    char real[PATH_MAX];
    return realpath(path.c_str(), real) == nullptr ? std::string() : std::string(real);
}

std::string FolderOfDevice(const std::string &deviceNumber)
{
    return deviceNumber.empty() ? std::string() : RealPath("/sys/dev/block/" + deviceNumber);
}

std::vector<std::string> NamesIn(const std::string &folder)
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(folder.c_str()), closedir);
    while (const dirent *entry = listing == nullptr ? nullptr : readdir(listing.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

static bool IsPartition(const std::string &deviceFolder)
{
    return access((deviceFolder + "/partition").c_str(), F_OK) == 0;
}

std::vector<std::string> PartitionFolders(const std::string &diskFolder)
{
    std::vector<std::string> folders;
    for (const std::string &name : NamesIn(diskFolder)) {
        if (IsPartition(diskFolder + "/" + name)) {
            folders.push_back(diskFolder + "/" + name);
        }
    }
    return folders;
}

std::string DiskFolder(const std::string &deviceFolder)
{
    return IsPartition(deviceFolder) ? deviceFolder.substr(0, deviceFolder.find_last_of('/')) : deviceFolder;
}

uint64_t NumberIn(const std::string &path)
{
    return std::strtoull(ReadLine(path).c_str(), nullptr, 10);
}

Trouble ReadStart(const std::string &path, size_t mostBytes, std::string *content)
{
    Source file;
    struct stat found = {};
    file.handle.reset(new OpenHandle);
    file.handle->descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file.handle->descriptor < 0 || fstat(file.handle->descriptor, &found) != 0) {
        return SystemText(errno);
    }
    if (!S_ISREG(found.st_mode)) {
        return "it is no ordinary file";
    }
    content->resize(mostBytes);
    size_t filled = 0;
    while (filled != mostBytes) {
        const ssize_t step = read(file.handle->descriptor, &(*content)[filled], mostBytes - filled);
        if (step < 0 && errno == EINTR) {
            continue;
        }
        if (step < 0) {
            return SystemText(errno);
        }
        if (step == 0) {
            break;
        }
        filled += static_cast<size_t>(step);
    }
    content->resize(filled);
    return {};
}

Trouble FollowDeviceLink(const std::string &path, DeviceAt *device)
{
    struct stat found = {};
    device->node = RealPath(path);
    if (device->node.empty() || stat(device->node.c_str(), &found) != 0) {
        return SystemText(errno);
    }
    if (!S_ISBLK(found.st_mode)) {
        return "it leads to no block device";
    }
    device->deviceNumber = DeviceNumberText(found.st_rdev);
    device->diskNumber = ReadLine(DiskFolder(FolderOfDevice(device->deviceNumber)) + "/dev");
    if (device->diskNumber.empty()) {
        return "the system tells nothing of the device that it leads to";
    }
    return {};
}

} // namespace host
