// The machine's disks by the numbers that the kestrix beside this program gives them.
//
// If a folder named devices lies beside the executable, it is the whole machine. Otherwise the disks are the whole
// disks of the kernel's block layer in the order of their arrival. Which of the two holds, and the list, is settled
// once for all disks that a run opens. Where it can't be told, no disk exists: a wrong guess would be another machine's
// disk.
#include "host/disks_linux.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <sstream>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <tuple>
#include <unistd.h>

namespace host
{

static const char noSuchDisk[] = "this machine has no such disk";

std::string ReadLine(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// ---- Which machine it is ----

// The file that this very function was loaded from, as the kernel names it; empty if it doesn't say.
static std::string OwnCodeFile()
{
    const auto here = reinterpret_cast<uintptr_t>(&OwnCodeFile);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uintptr_t begin = 0;
        uintptr_t end = 0;
        char dash = 0;
        std::istringstream(line) >> std::hex >> begin >> dash >> end;
        const size_t path = line.find('/');
        if (begin <= here && here < end && path != std::string::npos) {
            return line.substr(path);
        }
    }
    return {};
}

// True when path, as the kernel gives it for the executable, leads there, or led there until the file was removed. One
// that was cut short, by a mount that is gone or another root, ends otherwise and may lead anywhere.
static bool LeadsToExecutable(const std::string &path)
{
    static const std::string mark = " (deleted)";
    struct stat executable = {};
    struct stat found = {};
    if (stat("/proc/self/exe", &executable) != 0) {
        return false;
    }
    if (stat(path.c_str(), &found) == 0) {
        return found.st_dev == executable.st_dev && found.st_ino == executable.st_ino;
    }
    return path.size() > mark.size() && path.compare(path.size() - mark.size(), mark.size(), mark) == 0 &&
           stat(path.substr(0, path.find_last_of('/') + 1).c_str(), &found) == 0 && found.st_dev == executable.st_dev;
}

// Where devices would lie; empty where the executable can't be told, or is another's, such as the loader's.
static std::string DevicesFolder()
{
    char target[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", target, sizeof(target));
    if (length <= 0 || static_cast<size_t>(length) == sizeof(target)) {
        return {};
    }
    const std::string program(target, static_cast<size_t>(length));
    const size_t separator = program.find_last_of('/');
    if (separator == std::string::npos || program != OwnCodeFile() || !LeadsToExecutable(program)) {
        return {};
    }
    return program.substr(0, separator + 1) + "devices";
}

// ---- The machine's own disks ----

static bool IsWholeDisk(const std::string &folder, const std::string &name)
{
    for (const char *prefix : {"loop", "ram", "zram", "dm-", "md", "sr", "fd"}) {
        if (name.rfind(prefix, 0) == 0) {
            return false;
        }
    }
    return name[0] != '.' && !ReadLine(folder + "/dev").empty() && ReadLine(folder + "/hidden") != "1";
}

// None if the list can't be read to its end.
static Trouble FindOwnDisks(std::vector<OwnDisk> *disks)
{
    static const std::string blockDevices = "/sys/block";
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(blockDevices.c_str()), closedir);
    if (listing == nullptr) {
        return blockDevices + ": " + SystemText(errno);
    }
    errno = 0;
    while (const dirent *entry = readdir(listing.get())) {
        const std::string folder = blockDevices + "/" + entry->d_name;
        if (IsWholeDisk(folder, entry->d_name)) {
            OwnDisk disk = {entry->d_name, std::strtoull(ReadLine(folder + "/diskseq").c_str(), nullptr, 10)};
            char colon = 0;
            std::istringstream(ReadLine(folder + "/dev")) >> disk.majorNumber >> colon >> disk.minorNumber;
            disks->push_back(disk);
        }
        errno = 0;
    }
    if (errno != 0) {
        disks->clear();
        return blockDevices + ": " + SystemText(errno);
    }
    return {};
}

// In the order of their arrival. Where the kernel gives sequences, a disk without one is just going away, and must not
// change the order of the others.
static Machine ListOwnDisks()
{
    const auto hasNone = [](const OwnDisk &disk) { return disk.sequence == 0; };
    const auto order = [](const OwnDisk &disk) {
        return std::make_tuple(disk.sequence, disk.majorNumber, disk.minorNumber);
    };
    Machine machine;
    machine.trouble = FindOwnDisks(&machine.ownDisks);
    std::vector<OwnDisk> &disks = machine.ownDisks;
    if (!std::all_of(disks.begin(), disks.end(), hasNone)) {
        disks.erase(std::remove_if(disks.begin(), disks.end(), hasNone), disks.end());
    }
    std::sort(disks.begin(), disks.end(),
              [&order](const OwnDisk &left, const OwnDisk &right) { return order(left) < order(right); });
    return machine;
}

Machine FindMachine()
{
    const std::string folder = DevicesFolder();
    struct stat name = {};
    struct stat found = {};
    if (folder.empty()) {
        return {
            {}, {}, "it can't be told which machine's disks to see, as the system doesn't say where this program lies"};
    }
    if (lstat(folder.c_str(), &name) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? ListOwnDisks()
                                                   : Machine{{}, {}, folder + ": " + SystemText(errno)};
    }
    if (stat(folder.c_str(), &found) != 0) { // a link that leads nowhere, as yet
        return {{}, {}, folder + ": " + SystemText(errno)};
    }
    return S_ISDIR(found.st_mode) ? Machine{folder, {}, {}} : ListOwnDisks();
}

std::string NodeOfDisk(const Machine &machine, uint32_t number, OwnDisk *ownDisk)
{
    if (!machine.folder.empty()) {
        return number > INT_MAX ? std::string() : machine.folder + "/PhysicalDrive" + std::to_string(number);
    }
    if (number >= machine.ownDisks.size()) {
        return {};
    }
    *ownDisk = machine.ownDisks[number];
    return NodeOfName(ownDisk->name);
}

std::string NodeOfName(std::string name)
{
    std::replace(name.begin(), name.end(), '!', '/');
    return "/dev/" + name;
}

bool IsDiskOfList(int descriptor, const struct stat &node, const OwnDisk &ownDisk)
{
    uint64_t sequence = 0;
    return ownDisk.name.empty() ||
           (S_ISBLK(node.st_mode) && node.st_rdev == makedev(ownDisk.majorNumber, ownDisk.minorNumber) &&
            (ownDisk.sequence == 0 ||
             (ioctl(descriptor, BLKGETDISKSEQ, &sequence) == 0 && sequence == ownDisk.sequence)));
}

// ---- Opening ----

// Shared with all readers; a restore onto the disk keeps it to itself. A device manager that looks at a device holds
// its lock for a moment only, so that one is waited for.
static bool ShareDisk(int descriptor, bool isBlockDevice)
{
    for (int triesLeft = isBlockDevice ? 20 : 0; flock(descriptor, LOCK_SH | LOCK_NB) != 0; --triesLeft) {
        if (errno != EINTR && (errno != EWOULDBLOCK || triesLeft <= 0)) {
            return false;
        }
        usleep(50000);
    }
    return true;
}

static Trouble AskBlockDevice(Source *source)
{
    int sectorBytes = 0;
    if (ioctl(source->handle->descriptor, BLKSSZGET, &sectorBytes) != 0 ||
        ioctl(source->handle->descriptor, BLKGETSIZE64, &source->sizeBytes) != 0) {
        return SystemText(errno);
    }
    source->sectorBytes = static_cast<uint32_t>(sectorBytes);
    source->handle->blockBytes = source->sectorBytes;
    return {};
}

Trouble OpenDisk(uint32_t number, Caching caching, Source *source)
{
    static const Machine machine = FindMachine();
    OwnDisk ownDisk;
    const std::string node = NodeOfDisk(machine, number, &ownDisk);
    struct stat found = {};
    if (node.empty() || (stat(node.c_str(), &found) != 0 && errno == ENOENT)) {
        return noSuchDisk;
    }
    if (!S_ISREG(found.st_mode) && !S_ISBLK(found.st_mode)) {
        return noSuchDisk;
    }
    source->handle.reset(new OpenHandle);
    OpenHandle &handle = *source->handle;
    handle.isDirect = caching == Caching::Medium;
    handle.descriptor = open(node.c_str(), O_RDONLY | O_CLOEXEC | (handle.isDirect ? O_DIRECT : 0));
    if (handle.descriptor < 0 && errno == EINVAL && handle.isDirect) { // a file system that knows no direct reads
        handle.isDirect = false;
        handle.descriptor = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (handle.descriptor < 0 || fstat(handle.descriptor, &found) != 0) {
        return SystemText(errno);
    }
    if (!IsDiskOfList(handle.descriptor, found, ownDisk)) {
        return "another disk has taken its place since the disks were counted";
    }
    if (!ShareDisk(handle.descriptor, S_ISBLK(found.st_mode))) {
        return errno == EWOULDBLOCK ? "another program is writing it" : SystemText(errno);
    }
    if (caching == Caching::Medium && !handle.isDirect) {
        ForgetCached(handle.descriptor);
    }
    source->sizeBytes = static_cast<uint64_t>(found.st_size);
    return S_ISBLK(found.st_mode) ? AskBlockDevice(source) : Trouble();
}

} // namespace host
