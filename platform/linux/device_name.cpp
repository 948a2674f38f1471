// What stands behind \\.\NAME.
//
// If a folder named devices lies beside the program, it is the whole machine, otherwise the machine's own disks are.
// That is settled once, at the first question. Where it can't be told for certain whether there is such a folder,
// nothing exists: the machine's own disks are never a guess. A name is never taken as a path: one that holds a
// separator names nothing.
#include "port.h"
#include "system_text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <link.h>
#include <sys/stat.h>

static const char diskPrefix[] = "PhysicalDrive";

bool ParseDiskName(const std::string &name, uint32_t *number)
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

// ---- The devices folder ----

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

// ---- Which of the two ----

// Where the linker puts the headers of the program that this is part of.
extern "C" __attribute__((visibility("hidden"))) const ElfW(Ehdr) __ehdr_start;

// True when the file at path begins as the program in memory does: the headers differ between any two programs.
static bool IsThisProgram(const std::string &path)
{
    const size_t headerBytes = __ehdr_start.e_phoff + size_t{__ehdr_start.e_phnum} * __ehdr_start.e_phentsize;
    std::string found(headerBytes, '\0');
    std::ifstream file(path, std::ios::binary);
    return file.read(found.data(), static_cast<std::streamsize>(headerBytes)) &&
           memcmp(found.data(), &__ehdr_start, headerBytes) == 0;
}

// True when path, which /proc gives for the program that runs, leads to it, or led there until the file was removed. A
// path that was cut short, by a mount that is gone or another root, ends otherwise, and may lead anywhere.
static bool IsPathOfThisProgram(const std::string &path)
{
    static const std::string link = "/proc/self/exe";
    static const std::string mark = " (deleted)";
    struct stat program = {};
    struct stat folder = {};
    if (IsThisProgram(path)) {
        return true;
    }
    return path.size() > mark.size() && path.compare(path.size() - mark.size(), mark.size(), mark) == 0 &&
           IsThisProgram(link) && stat(link.c_str(), &program) == 0 &&
           stat(path.substr(0, path.find_last_of('/') + 1).c_str(), &folder) == 0 && program.st_dev == folder.st_dev;
}

struct MachineSeen {
    bool isFolder;
    bool isOwn;
    std::string folder;
};

static MachineSeen FindMachine()
{
    // Of a program loader, where one was put in front, and empty without /proc.
    const std::string program = ReadLink("/proc/self/exe");
    MachineSeen machine = {false, false, program.substr(0, program.find_last_of('/') + 1) + "devices"};
    struct stat name = {};
    struct stat found = {};
    if (program.empty() || !IsPathOfThisProgram(program)) {
        return machine;
    }
    if (lstat(machine.folder.c_str(), &name) != 0) {
        machine.isOwn = errno == ENOENT || errno == ENOTDIR;
    } else if (stat(machine.folder.c_str(), &found) == 0) { // else a link that leads nowhere, as yet
        machine.isFolder = S_ISDIR(found.st_mode);
        machine.isOwn = !machine.isFolder;
    }
    return machine;
}

Device FindDevice(const std::string &name)
{
    static const MachineSeen machine = FindMachine();
    return machine.isFolder ? FindDeviceInFolder(machine.folder, name) : machine.isOwn ? FindOwnDevice(name) : Device();
}
