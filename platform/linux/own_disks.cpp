// The machine's own disks: the whole disks of the kernel's block layer in the order of their arrival. C: is the volume
// that holds the root folder.
#include "port.h"
#include "system_text.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <linux/fs.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <tuple>
#include <unistd.h>

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

static OwnDisk DescribeOwnDisk(const std::string &sysRoot, const std::string &name)
{
    const std::string folder = sysRoot + "/block/" + name;
    const std::string number = ReadLine(folder + "/dev");
    const size_t colon = number.find(':');
    const auto majorNumber = static_cast<unsigned int>(std::strtoul(number.c_str(), nullptr, 10));
    const auto minorNumber = static_cast<unsigned int>(
        colon == std::string::npos ? 0 : std::strtoul(number.c_str() + colon + 1, nullptr, 10));
    return {name, std::strtoull(ReadLine(folder + "/diskseq").c_str(), nullptr, 10), makedev(majorNumber, minorNumber)};
}

static bool ArrivedBefore(const OwnDisk &left, const OwnDisk &right)
{
    return std::make_tuple(left.sequence, major(left.number), minor(left.number)) <
           std::make_tuple(right.sequence, major(right.number), minor(right.number));
}

std::vector<OwnDisk> ListOwnDisks(const std::string &sysRoot)
{
    std::vector<std::string> names;
    std::vector<OwnDisk> disks;
    if (!ListFolder(sysRoot + "/block", &names)) {
        return disks;
    }
    for (const std::string &name : names) {
        if (IsWholeDisk(sysRoot, name)) {
            disks.push_back(DescribeOwnDisk(sysRoot, name));
        }
    }
    // Where the kernel gives sequences, a disk without one is just going away, and must not change the order of the
    // others.
    if (std::any_of(disks.begin(), disks.end(), [](const OwnDisk &disk) { return disk.sequence != 0; })) {
        disks.erase(std::remove_if(disks.begin(), disks.end(), [](const OwnDisk &disk) { return disk.sequence == 0; }),
                    disks.end());
    }
    std::sort(disks.begin(), disks.end(), ArrivedBefore);
    return disks;
}

// Follows a block device, as its folder in sysfs, down to the first of the disks that it lies on.
static uint32_t DiskBelow(const std::string &deviceFolder, const std::vector<OwnDisk> &disks, int levelsLeft)
{
    if (deviceFolder.empty() || levelsLeft == 0) {
        return noDisk;
    }
    if (access((deviceFolder + "/partition").c_str(), F_OK) == 0) {
        return DiskBelow(deviceFolder.substr(0, deviceFolder.find_last_of('/')), disks, levelsLeft - 1);
    }
    const std::string name = deviceFolder.substr(deviceFolder.find_last_of('/') + 1);
    const auto found = std::find_if(disks.begin(), disks.end(), [&](const OwnDisk &disk) { return disk.name == name; });
    if (found != disks.end()) {
        return static_cast<uint32_t>(found - disks.begin());
    }
    uint32_t first = noDisk;
    std::vector<std::string> slaves;
    ListFolder(deviceFolder + "/slaves", &slaves);
    for (const std::string &slave : slaves) {
        first = std::min(first, DiskBelow(RealPath(deviceFolder + "/slaves/" + slave), disks, levelsLeft - 1));
    }
    return first;
}

uint32_t OwnDiskHolding(const std::string &sysRoot, const std::vector<OwnDisk> &disks, unsigned int majorNumber,
                        unsigned int minorNumber)
{
    const std::string link = sysRoot + "/dev/block/" + std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
    return DiskBelow(RealPath(link), disks, 16);
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

static Device FindRootVolume(const std::string &sysRoot, const std::vector<OwnDisk> &disks)
{
    Device device;
    struct stat rootFolder = {};
    if (stat("/", &rootFolder) == 0) {
        const bool hasDevice = major(rootFolder.st_dev) != 0;
        const dev_t volume = hasDevice ? rootFolder.st_dev : SourceOfRoot("/proc/self/mountinfo");
        device.kind = DeviceKind::Volume;
        device.diskNumber = OwnDiskHolding(sysRoot, disks, major(volume), minor(volume));
        const std::string sectors = ReadLine(sysRoot + "/dev/block/" + DeviceNumberText(volume) + "/size");
        device.lengthBytes = std::strtoull(sectors.c_str(), nullptr, 10) * 512;
    }
    return device;
}

Device FindOwnDevice(const std::string &name)
{
    static const std::string sysRoot = "/sys";
    // Numbered once: a disk that comes or goes while the program runs must not give its number to another.
    static const std::vector<OwnDisk> disks = ListOwnDisks(sysRoot);
    Device device;
    uint32_t number = 0;
    if (name == "C:") {
        return FindRootVolume(sysRoot, disks);
    }
    if (ParseDiskName(name, &number) && number < disks.size()) {
        std::string node = disks[number].name;
        std::replace(node.begin(), node.end(), '!', '/');
        device.kind = DeviceKind::Disk;
        device.path = "/dev/" + node;
        device.ownDisk = disks[number];
    }
    return device;
}

bool IsDiskOfList(int descriptor, const OwnDisk &disk)
{
    struct stat node = {};
    uint64_t sequence = 0;
    return disk.number == 0 ||
           (fstat(descriptor, &node) == 0 && S_ISBLK(node.st_mode) && node.st_rdev == disk.number &&
            (disk.sequence == 0 || (ioctl(descriptor, BLKGETDISKSEQ, &sequence) == 0 && sequence == disk.sequence)));
}
