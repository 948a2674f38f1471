// What a folder lies on, and locks in it.
#include "host/open_handle_linux.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace host
{

// ---- The mount that a folder is in ----

// The kernel writes spaces, tabs, line ends and backslashes of a path as a backslash and three octal digits.
static std::string Unescaped(const std::string &text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool isEscape = text[i] == '\\' && i + 3 < text.size();
        if (isEscape) {
            plain += static_cast<char>(std::strtoul(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

static bool LiesIn(const std::string &path, const std::string &mountPoint)
{
    return mountPoint == "/" || path == mountPoint || path.rfind(mountPoint + "/", 0) == 0;
}

struct Mount {
    std::string device; // major:minor
    std::string point;
    std::string kind; // of file system
    std::string source;
};

// The mount with the longest path above the folder; of two at one place the later one covers the other.
static bool FindMount(const std::string &folder, Mount *found)
{
    std::ifstream mounts("/proc/self/mountinfo");
    bool isFound = false;
    for (std::string line; std::getline(mounts, line);) {
        Mount mount;
        std::string skipped;
        std::istringstream fields(line);
        fields >> skipped >> skipped >> mount.device >> skipped >> mount.point;
        while (fields >> skipped && skipped != "-") {
        }
        fields >> mount.kind >> mount.source;
        mount.point = Unescaped(mount.point);
        mount.source = Unescaped(mount.source);
        if (LiesIn(folder, mount.point) && (!isFound || mount.point.size() >= found->point.size())) {
            *found = mount;
            isFound = true;
        }
    }
    return isFound;
}

// ---- The disks below a device ----

static std::string SysFolderOf(const std::string &device)
{
    char path[PATH_MAX];
    return realpath(("/sys/dev/block/" + device).c_str(), path) == nullptr ? std::string() : path;
}

static std::string FirstLine(const std::string &path)
{
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

// False where it can't be told.
static bool AddDisksBelow(const std::string &folder, std::vector<std::string> *disks, int levelsLeft)
{
    if (folder.empty() || levelsLeft == 0) {
        return false;
    }
    if (access((folder + "/partition").c_str(), F_OK) == 0) {
        return AddDisksBelow(folder.substr(0, folder.find_last_of('/')), disks, levelsLeft - 1);
    }
    const std::string own = FirstLine(folder + "/dev");
    if (std::find(disks->begin(), disks->end(), own) == disks->end()) {
        disks->push_back(own);
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> below(opendir((folder + "/slaves").c_str()), closedir);
    while (const dirent *entry = below == nullptr ? nullptr : readdir(below.get())) {
        char path[PATH_MAX];
        if (entry->d_name[0] != '.' && (realpath((folder + "/slaves/" + entry->d_name).c_str(), path) == nullptr ||
                                        !AddDisksBelow(path, disks, levelsLeft - 1))) {
            return false;
        }
    }
    const std::string backingFile = FirstLine(folder + "/loop/backing_file"); // lies on a disk in its turn
    Mount mount;
    return backingFile.empty() ||
           (FindMount(backingFile, &mount) && AddDisksBelow(SysFolderOf(mount.device), disks, levelsLeft - 1));
}

// By the links that the device manager keeps.
static std::string UuidOf(const std::string &device)
{
    static const std::string folder = "/dev/disk/by-uuid";
    struct stat wanted = {};
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(folder.c_str()), closedir);
    if (listing == nullptr || stat(device.c_str(), &wanted) != 0 || !S_ISBLK(wanted.st_mode)) {
        return {};
    }
    while (const dirent *entry = readdir(listing.get())) {
        struct stat found = {};
        if (stat((folder + "/" + entry->d_name).c_str(), &found) == 0 && S_ISBLK(found.st_mode) &&
            found.st_rdev == wanted.st_rdev) {
            return entry->d_name;
        }
    }
    return {};
}

// File systems that span devices have a number of their own, and name a device as their source.
static std::string DeviceOf(const Mount &mount)
{
    struct stat source = {};
    if (mount.device.rfind("0:", 0) == 0 && stat(mount.source.c_str(), &source) == 0 && S_ISBLK(source.st_mode)) {
        return std::to_string(major(source.st_rdev)) + ":" + std::to_string(minor(source.st_rdev));
    }
    return mount.device;
}

// What lies on no disk of this machine: memory, and what another machine has. Of any other kind without a device, such
// as ZFS, an overlay or a program's, it is not known what it lies on.
static bool IsOnNoDisk(const Mount &mount)
{
    static const char *const kinds[] = {"tmpfs", "ramfs", "nfs", "nfs4",     "cifs",       "smb3",       "smbfs",
                                        "9p",    "ceph",  "afs", "virtiofs", "fuse.sshfs", "fuse.davfs", "fuse.rclone"};
    return std::find(std::begin(kinds), std::end(kinds), mount.kind) != std::end(kinds);
}

static std::vector<std::string> NamesIn(const std::string &folder)
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(opendir(folder.c_str()), closedir);
    while (const dirent *entry = listing == nullptr ? nullptr : readdir(listing.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

// The devices of the mount's file system: its own, and where it is a btrfs all of its pool. Empty where they can't be
// told.
static std::vector<std::string> DevicesOf(const Mount &mount)
{
    static const std::string pools = "/sys/fs/btrfs";
    const std::string own = DeviceOf(mount);
    if (mount.kind != "btrfs") {
        return {own};
    }
    for (const std::string &pool : NamesIn(pools)) {
        const std::string folder = pools + "/" + pool + "/devices";
        std::vector<std::string> devices;
        for (const std::string &device : NamesIn(folder)) {
            devices.push_back(FirstLine(folder + "/" + device + "/dev"));
        }
        if (std::find(devices.begin(), devices.end(), own) != devices.end()) {
            return devices;
        }
    }
    return {};
}

static bool AddDisksOf(const Mount &mount, std::vector<std::string> *disks)
{
    const std::vector<std::string> devices = DevicesOf(mount);
    bool areKnown = !devices.empty();
    for (const std::string &device : devices) {
        areKnown = AddDisksBelow(SysFolderOf(device), disks, 16) && areKnown;
    }
    return areKnown;
}

Trouble FileSystemOf(const std::string &folder, FileSystemFacts *facts)
{
    struct statvfs space = {};
    char path[PATH_MAX];
    Mount mount;
    if (realpath(folder.c_str(), path) == nullptr || statvfs(path, &space) != 0) {
        return SystemText(errno);
    }
    facts->freeBytes = uint64_t{space.f_bavail} * space.f_frsize;
    facts->totalBytes = uint64_t{space.f_blocks} * space.f_frsize;
    facts->isReadOnly = (space.f_flag & ST_RDONLY) != 0;
    if (!FindMount(path, &mount)) {
        return {};
    }
    facts->source = mount.source;
    facts->uuid = UuidOf(mount.source);
    const bool isOnDevice = DeviceOf(mount).rfind("0:", 0) != 0;
    facts->disksAreKnown = isOnDevice ? AddDisksOf(mount, &facts->disks) : IsOnNoDisk(mount);
    return {};
}

// ---- Locks ----

LockResult TakeLock(const std::string &path, Lock *lock, std::string *trouble)
{
    lock->handle.reset(new OpenHandle);
    lock->handle->descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock->handle->descriptor < 0) {
        *trouble = SystemText(errno);
        return LockResult::Failed;
    }
    if (flock(lock->handle->descriptor, LOCK_EX | LOCK_NB) == 0) {
        return LockResult::Held;
    }
    *trouble = SystemText(errno);
    return errno == EWOULDBLOCK                                                           ? LockResult::Busy
           : errno == ENOLCK || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL ? LockResult::NoLocks
                                                                                          : LockResult::Failed;
}

} // namespace host
