// One disk in a folder of devices of its own, beside a kestrix that sees nothing else.
//
// The steps: a new folder where programs may run; the lock that tells the folder of a living process from one that was
// left behind; kestrix; the disk by a path that no other disk can get; a C: that lies on the system's disk, even if
// that one is not there to be opened. What dead processes left is taken away first.
#include "host/open_handle_linux.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace host
{

namespace fs = std::filesystem;

static const std::string folderPrefix = "kestrix-keep-disk-";

struct HeldDiskState {
    HeldDiskState() = default;
    HeldDiskState(const HeldDiskState &) = delete;
    HeldDiskState &operator=(const HeldDiskState &) = delete;
    ~HeldDiskState()
    {
        std::error_code ignored;
        if (!folder.empty()) {
            fs::remove_all(folder, ignored);
        }
        for (const int descriptor : {lock, disk}) {
            if (descriptor >= 0) {
                close(descriptor);
            }
        }
    }

    std::string folder; // our own, gone at the end
    int lock = -1;      // of that folder
    int disk = -1;      // open as long as it is held
    DiskFacts facts;
};

void ReleaseHeldDisk::operator()(HeldDiskState *state) const
{
    delete state;
}

// ---- A place for programs ----

// What was made here, by its names, and nothing else: a folder that holds more stays, whoever made it.
static void RemoveHeldFolder(const std::string &folder)
{
    const std::string devices = folder + "/devices";
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(devices, ignored)) {
        if (entry.is_symlink(ignored)) {
            unlink(entry.path().c_str());
        }
    }
    rmdir(devices.c_str());
    unlink((folder + "/kestrix").c_str());
    rmdir(folder.c_str());
}

// Whether it looks as such a folder does, and is nobody's mount.
static bool LooksHeld(const std::string &path, dev_t parentDevice)
{
    constexpr size_t lettersOfMkdtemp = 6;
    const std::string name = NameOf(path);
    struct stat found = {};
    return name.rfind(folderPrefix, 0) == 0 && name.size() == folderPrefix.size() + lettersOfMkdtemp &&
           lstat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && (found.st_mode & 0777) == 0700 &&
           found.st_uid == geteuid() && found.st_dev == parentDevice;
}

// Folders of processes that are no more: nobody holds their lock.
static void RemoveDeadFolders(const std::string &parent)
{
    struct stat around = {};
    if (stat(parent.c_str(), &around) != 0) {
        return;
    }
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(parent, error)) {
        const std::string path = entry.path().string();
        if (!LooksHeld(path, around.st_dev)) {
            continue;
        }
        const int lock = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        if (lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0) {
            RemoveHeldFolder(path);
        }
        if (lock >= 0) {
            close(lock);
        }
    }
}

static bool RunsPrograms(const std::string &parent)
{
    struct statvfs facts = {};
    return statvfs(parent.c_str(), &facts) == 0 && (facts.f_flag & (ST_NOEXEC | ST_RDONLY)) == 0 &&
           access(parent.c_str(), W_OK | X_OK) == 0;
}

// Until it is locked, another process may take a new folder for a dead one's and remove it.
static bool LockNewFolder(HeldDiskState &state, const std::string &path)
{
    struct stat locked = {};
    struct stat found = {};
    state.lock = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    const bool isHeld = state.lock >= 0 && flock(state.lock, LOCK_SH) == 0 && fstat(state.lock, &locked) == 0 &&
                        lstat(path.c_str(), &found) == 0 && found.st_dev == locked.st_dev &&
                        found.st_ino == locked.st_ino;
    if (!isHeld && state.lock >= 0) {
        close(state.lock);
        state.lock = -1;
    }
    return isHeld;
}

// A folder of our own in the parent, locked.
static bool MakeFolderIn(HeldDiskState &state, const std::string &parent)
{
    constexpr int mostTries = 16;
    for (int i = 0; i < mostTries; ++i) {
        std::string path = parent + "/" + folderPrefix + "XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            return false;
        }
        if (LockNewFolder(state, path)) {
            state.folder = path;
            return true;
        }
        rmdir(path.c_str()); // if it is still there
    }
    return false;
}

static Trouble MakeFolder(HeldDiskState &state)
{
    const char *temporary = getenv("TMPDIR");
    for (const std::string &parent :
         {std::string("/var/lib/kestrix"), std::string(temporary == nullptr ? "" : temporary), std::string("/tmp"),
          std::string("/var/tmp")}) {
        if (parent.empty() || !RunsPrograms(parent) || CheckTrustedFolder(parent)) {
            continue; // what others can change is no place for what root runs
        }
        RemoveDeadFolders(parent);
        if (MakeFolderIn(state, parent)) {
            return {};
        }
    }
    return "there is no folder that programs may be run from and nobody else can change: make /var/lib/kestrix, on a "
           "file system that is not noexec";
}

static Trouble PlaceProgram(const std::string &kestrix, const std::string &folder, std::string *program)
{
    std::error_code error;
    *program = folder + "/kestrix";
    if (link(kestrix.c_str(), program->c_str()) == 0) {
        return {};
    }
    fs::copy_file(kestrix, *program, error);
    return error ? Trouble(kestrix + ": " + error.message()) : Trouble();
}

// ---- Its devices ----

static Trouble Link(const std::string &target, const std::string &name)
{
    return symlink(target.c_str(), name.c_str()) == 0 ? Trouble() : Trouble(SystemText(errno));
}

static std::string DiskName(uint32_t number)
{
    return "PhysicalDrive" + std::to_string(number);
}

// A path that only this disk can have, where the device manager makes one.
static std::string PathOfDisk(const DiskFacts &disk)
{
    const std::string path = "/dev/disk/by-diskseq/" + std::to_string(disk.sequence);
    return disk.sequence != 0 && access(path.c_str(), F_OK) == 0 ? path : disk.node;
}

// The system's disk has no other device here than a name that nothing lies behind, unless it is the one that is held.
// Where the running system lies on no disk, its number is one that no disk has.
static Trouble PlaceSystemVolume(const HeldDisk &held, const std::vector<DiskFacts> &all, const std::string &devices)
{
    constexpr uint32_t noDisksNumber = 2147483647;
    uint32_t number = noDisksNumber;
    for (const DiskFacts &disk : all) {
        number = disk.isSystemDisk && number == noDisksNumber ? disk.number : number;
    }
    number = held.state->facts.isSystemDisk ? held.number : number;
    Trouble trouble;
    if (number != held.number) {
        trouble = Link("nothing", devices + "/" + DiskName(number));
    }
    return trouble ? trouble : Link(DiskName(number), devices + "/C:");
}

// Sockets beside the disk in a folder of devices, such as the change tracker's.
static Trouble PlaceControlDevices(const DiskFacts &disk, const std::string &devices)
{
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(FolderOf(disk.node), error)) {
        if (entry.is_socket(error)) {
            if (Trouble trouble = Link(entry.path().string(), devices + "/" + entry.path().filename().string())) {
                return trouble;
            }
        }
    }
    return {};
}

static Trouble PlaceDevices(const HeldDisk &held, const std::vector<DiskFacts> &all)
{
    const DiskFacts &disk = held.state->facts;
    const std::string devices = held.state->folder + "/devices";
    if (mkdir(devices.c_str(), 0700) != 0) {
        return SystemText(errno);
    }
    Trouble trouble = Link(PathOfDisk(disk), devices + "/" + DiskName(held.number));
    trouble = trouble ? trouble : PlaceSystemVolume(held, all, devices);
    const bool isInFolder = NameOf(disk.node) == DiskName(disk.number);
    return trouble || !isInFolder ? trouble : PlaceControlDevices(disk, devices);
}

// ---- The same disk ----

static bool IsSameDisk(int descriptor, const DiskFacts &disk)
{
    struct stat found = {};
    uint64_t sequence = 0;
    if (fstat(descriptor, &found) != 0) {
        return false;
    }
    if (S_ISREG(found.st_mode)) {
        const FileIdentity identity = {found.st_dev, found.st_ino};
        return identity == disk.file && static_cast<uint64_t>(found.st_size) == disk.sizeBytes;
    }
    const std::string number = std::to_string(major(found.st_rdev)) + ":" + std::to_string(minor(found.st_rdev));
    return S_ISBLK(found.st_mode) && number == disk.deviceNumber &&
           (disk.sequence == 0 || (ioctl(descriptor, BLKGETDISKSEQ, &sequence) == 0 && sequence == disk.sequence));
}

static Trouble CheckNode(const HeldDiskState &state)
{
    const int again = open(PathOfDisk(state.facts).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    Trouble trouble = again < 0 ? Trouble(SystemText(errno))
                      : IsSameDisk(again, state.facts)
                          ? Trouble()
                          : Trouble("another disk has taken its place since the disks were listed");
    if (again >= 0) {
        close(again);
    }
    return trouble;
}

Trouble HoldDisk(const DiskFacts &disk, const std::vector<DiskFacts> &all, const std::string &kestrix, HeldDisk *held)
{
    held->state.reset(new HeldDiskState);
    held->state->facts = disk;
    held->number = disk.number;
    held->state->disk = open(PathOfDisk(disk).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (held->state->disk < 0) {
        return SystemText(errno);
    }
    Trouble trouble = CheckNode(*held->state);
    trouble = trouble ? trouble : MakeFolder(*held->state);
    trouble = trouble ? trouble : PlaceProgram(kestrix, held->state->folder, &held->program);
    return trouble ? trouble : PlaceDevices(*held, all);
}

Trouble CheckHeldDisk(const HeldDisk &held)
{
    return CheckNode(*held.state);
}

} // namespace host
