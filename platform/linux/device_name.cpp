// What stands behind \\.\NAME.
//
// If a folder named devices lies beside the executable, it is the whole machine. Otherwise the disks are the whole
// disks of the kernel's block layer in the order of their arrival, and C: is the volume that holds the root folder. A
// name is never taken as a path: one that holds a separator names nothing.
#include "port.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static const char diskPrefix[] = "PhysicalDrive";

// True, with *number set, for PhysicalDriveN with N written as printf writes it.
static bool ParseDiskName(const std::string &name, uint32_t *number)
{
    const std::string digits =
        name.substr(0, sizeof(diskPrefix) - 1) == diskPrefix ? name.substr(sizeof(diskPrefix) - 1) : std::string();
    if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits.size() > 1 && digits[0] == '0')) {
        return false;
    }
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, 10);
    *number = static_cast<uint32_t>(value);
    return value <= INT_MAX;
}

static std::string ReadLine(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

static std::string ReadLink(const std::string &path)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof(target));
    return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

static std::string RealPath(const std::string &path)
{
    char *resolved = realpath(path.c_str(), nullptr);
    std::string result = resolved == nullptr ? "" : resolved;
    free(resolved);
    return result;
}

static std::vector<std::string> ListFolder(const std::string &path)
{
    std::vector<std::string> names;
    DIR *folder = opendir(path.c_str());
    if (folder == nullptr) {
        return names;
    }
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

static std::string DeviceNumberText(dev_t device)
{
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

// The length of a disk that need not be opened for it: that of a file, or what the block layer says of a device.
static uint64_t LengthOfNode(const std::string &path)
{
    struct stat node = {};
    if (stat(path.c_str(), &node) != 0) {
        return 0;
    }
    if (S_ISREG(node.st_mode)) {
        return static_cast<uint64_t>(node.st_size);
    }
    const std::string sectors = ReadLine("/sys/dev/block/" + DeviceNumberText(node.st_rdev) + "/size");
    return std::strtoull(sectors.c_str(), nullptr, 10) * 512;
}

// ---- The devices folder ----

// C: has to be a link to one of the folder's own disks, whatever that disk is a link to in its turn, and even if that
// disk doesn't open.
static Device FindVolumeInFolder(const std::string &folder)
{
    Device device;
    const std::string target = ReadLink(folder + "/C:");
    const size_t separator = target.find_last_of('/');
    const std::string diskName = separator == std::string::npos ? target : target.substr(separator + 1);
    std::string targetFolder = folder;
    if (separator != std::string::npos) {
        targetFolder = target[0] == '/' ? target.substr(0, separator + 1) : folder + "/" + target.substr(0, separator);
    }
    struct stat node = {};
    if (ParseDiskName(diskName, &device.diskNumber) && RealPath(targetFolder) == RealPath(folder) &&
        lstat((folder + "/" + diskName).c_str(), &node) == 0) {
        device.kind = DeviceKind::Volume;
        device.lengthBytes = LengthOfNode(folder + "/" + diskName);
    }
    return device;
}

Device FindDeviceInFolder(const std::string &folder, const std::string &name)
{
    Device device;
    uint32_t number = 0;
    struct stat node = {};
    if (name == "C:") {
        return FindVolumeInFolder(folder);
    }
    if (ParseDiskName(name, &number)) {
        device.kind = DeviceKind::Disk;
        device.path = folder + "/" + name;
    } else if (name.find('/') == std::string::npos && stat((folder + "/" + name).c_str(), &node) == 0 &&
               S_ISSOCK(node.st_mode)) {
        device.kind = DeviceKind::ControlDevice;
        device.folder = folder;
        device.name = name;
    }
    return device;
}

// ---- The machine's own disks ----

// Loop, memory, device mapper, md, optical and floppy devices, and paths of a disk that has a node of its own
// elsewhere.
static bool IsWholeDisk(const std::string &sysRoot, const std::string &name)
{
    for (const char *prefix : {"loop", "ram", "zram", "dm-", "md", "sr", "fd"}) {
        if (name.rfind(prefix, 0) == 0) {
            return false;
        }
    }
    const std::string folder = sysRoot + "/block/" + name;
    return !ReadLine(folder + "/dev").empty() && ReadLine(folder + "/hidden") != "1";
}

struct OwnDisk {
    std::string name;
    std::string sequence; // empty where the kernel gives none
    unsigned long long order[2];
};

static OwnDisk DescribeOwnDisk(const std::string &sysRoot, const std::string &name)
{
    OwnDisk disk = {name, ReadLine(sysRoot + "/block/" + name + "/diskseq"), {0, 0}};
    const std::string number = ReadLine(sysRoot + "/block/" + name + "/dev");
    const size_t colon = number.find(':');
    disk.order[0] = std::strtoull(number.c_str(), nullptr, 10);
    disk.order[1] = colon == std::string::npos ? 0 : std::strtoull(number.c_str() + colon + 1, nullptr, 10);
    return disk;
}

std::vector<std::string> ListOwnDisks(const std::string &sysRoot)
{
    std::vector<OwnDisk> disks;
    for (const std::string &name : ListFolder(sysRoot + "/block")) {
        if (IsWholeDisk(sysRoot, name)) {
            disks.push_back(DescribeOwnDisk(sysRoot, name));
        }
    }
    const bool haveSequence =
        std::all_of(disks.begin(), disks.end(), [](const OwnDisk &disk) { return !disk.sequence.empty(); });
    for (OwnDisk &disk : disks) {
        if (haveSequence) {
            disk.order[0] = std::strtoull(disk.sequence.c_str(), nullptr, 10);
            disk.order[1] = 0;
        }
    }
    std::sort(disks.begin(), disks.end(), [](const OwnDisk &left, const OwnDisk &right) {
        return std::lexicographical_compare(left.order, left.order + 2, right.order, right.order + 2);
    });
    std::vector<std::string> names(disks.size());
    std::transform(disks.begin(), disks.end(), names.begin(), [](const OwnDisk &disk) { return disk.name; });
    return names;
}

// Follows a block device, as its folder in sysfs, down to the first of the disks that it lies on.
static uint32_t DiskBelow(const std::string &deviceFolder, const std::vector<std::string> &disks, int levelsLeft)
{
    if (deviceFolder.empty() || levelsLeft == 0) {
        return noDisk;
    }
    if (access((deviceFolder + "/partition").c_str(), F_OK) == 0) {
        return DiskBelow(deviceFolder.substr(0, deviceFolder.find_last_of('/')), disks, levelsLeft - 1);
    }
    const auto found = std::find(disks.begin(), disks.end(), deviceFolder.substr(deviceFolder.find_last_of('/') + 1));
    if (found != disks.end()) {
        return static_cast<uint32_t>(found - disks.begin());
    }
    uint32_t first = noDisk;
    for (const std::string &slave : ListFolder(deviceFolder + "/slaves")) {
        first = std::min(first, DiskBelow(RealPath(deviceFolder + "/slaves/" + slave), disks, levelsLeft - 1));
    }
    return first;
}

uint32_t OwnDiskHolding(const std::string &sysRoot, unsigned int majorNumber, unsigned int minorNumber)
{
    const std::string link = sysRoot + "/dev/block/" + std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
    return DiskBelow(RealPath(link), ListOwnDisks(sysRoot), 16);
}

dev_t SourceOfRoot(const std::string &mountInfo)
{
    std::ifstream mounts(mountInfo);
    dev_t device = 0;
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string field;
        std::string mountPoint;
        for (int i = 0; i < 5; ++i) {
            fields >> mountPoint;
        }
        while (fields >> field && field != "-") {
        }
        std::string source;
        fields >> field >> source;
        struct stat node = {};
        if (mountPoint == "/") { // the last one lies on top
            const bool isDevice = source[0] == '/' && stat(source.c_str(), &node) == 0 && S_ISBLK(node.st_mode);
            device = isDevice ? node.st_rdev : 0;
        }
    }
    return device;
}

static Device FindOwnDevice(const std::string &name)
{
    static const std::string sysRoot = "/sys";
    Device device;
    uint32_t number = 0;
    struct stat rootFolder = {};
    if (name == "C:" && stat("/", &rootFolder) == 0) {
        const bool hasDevice = major(rootFolder.st_dev) != 0;
        const dev_t volume = hasDevice ? rootFolder.st_dev : SourceOfRoot("/proc/self/mountinfo");
        device.kind = DeviceKind::Volume;
        device.diskNumber = OwnDiskHolding(sysRoot, major(volume), minor(volume));
        const std::string sectors = ReadLine(sysRoot + "/dev/block/" + DeviceNumberText(volume) + "/size");
        device.lengthBytes = std::strtoull(sectors.c_str(), nullptr, 10) * 512;
    } else if (ParseDiskName(name, &number)) {
        const std::vector<std::string> disks = ListOwnDisks(sysRoot);
        if (number < disks.size()) {
            std::string node = disks[number];
            std::replace(node.begin(), node.end(), '!', '/');
            device.kind = DeviceKind::Disk;
            device.path = "/dev/" + node;
        }
    }
    return device;
}

Device FindDevice(const std::string &name)
{
    const std::string program = ReadLink("/proc/self/exe");
    const std::string folder = program.substr(0, program.find_last_of('/') + 1) + "devices";
    struct stat found = {};
    if (!program.empty() && stat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) {
        return FindDeviceInFolder(folder, name);
    }
    return FindOwnDevice(name);
}
