// The machine's disks with what is known of each: how it is called, what lies on it, and what is done with it.
//
// A block device is asked through sysfs first, which needs no rights; what lies on it is read from the device. A disk
// in a file is its length and its content. In a folder of disks, what a card file says of a disk comes before what the
// system says.
#include "host/disk_facts_linux.h"
#include "host/disk_number.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

namespace host
{

// ---- The numbers ----

static std::vector<uint32_t> NumbersOfDisks(const Machine &machine)
{
    std::vector<uint32_t> numbers;
    for (uint32_t number = 0; number < machine.ownDisks.size(); ++number) {
        numbers.push_back(number);
    }
    for (const std::string &name : machine.folder.empty() ? std::vector<std::string>() : NamesIn(machine.folder)) {
        if (const std::optional<uint32_t> number = NumberOfDiskName(name)) {
            numbers.push_back(*number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// ---- The system disk ----

// The disk of the folder that C: there is a link to.
static std::optional<uint32_t> SystemDiskOfFolder(const std::string &folder)
{
    char target[PATH_MAX];
    const ssize_t length = readlink((folder + "/C:").c_str(), target, sizeof(target));
    if (length <= 0 || static_cast<size_t>(length) == sizeof(target)) {
        return {};
    }
    const std::string path(target, static_cast<size_t>(length));
    const std::string name = path.substr(path.find_last_of('/') + 1);
    const std::string inFolder = path.substr(0, path.size() - name.size());
    const std::string real = RealPath(path[0] == '/' ? inFolder : folder + "/" + inFolder);
    return real == RealPath(folder) ? NumberOfDiskName(name) : std::nullopt;
}

// What tells of all disks at once.
struct Surroundings {
    Machine machine;
    Uses uses;
    std::set<std::string> belowRoot;
    std::optional<uint32_t> systemDisk; // of a folder of disks
};

static Trouble LookAround(Surroundings *around)
{
    around->machine = FindMachine();
    if (around->machine.trouble) {
        return around->machine.trouble;
    }
    if (Trouble trouble = ReadUses(&around->uses)) {
        return trouble;
    }
    if (around->machine.folder.empty()) {
        around->belowRoot = DevicesBelowRoot(around->uses);
    } else {
        around->systemDisk = SystemDiskOfFolder(around->machine.folder);
    }
    return {};
}

// ---- One disk ----

static void AskDevice(const std::string &deviceFolder, DiskFacts *disk)
{
    const std::string folder = DiskFolder(deviceFolder);
    const std::string removable = ReadLine(folder + "/removable");
    disk->deviceNumber = ReadLine(deviceFolder + "/dev");
    disk->sequence = NumberIn(folder + "/diskseq");
    disk->sizeBytes = NumberIn(deviceFolder + "/size") * 512; // in which the kernel counts on any disk
    disk->logicalSectorBytes = static_cast<uint32_t>(NumberIn(folder + "/queue/logical_block_size"));
    disk->physicalSectorBytes = static_cast<uint32_t>(NumberIn(folder + "/queue/physical_block_size"));
    if (removable == "0" || removable == "1") {
        disk->isRemovable = removable == "1";
    }
    AskNames(folder, disk);
}

static void TakeUse(const UseOfDevice &use, PartitionFacts *partition)
{
    partition->mounts = use.mounts;
    partition->holders = use.holders;
    partition->isSwap = use.isSwap;
}

static void AskUse(const Uses &uses, const std::string &deviceFolder, DiskFacts *disk)
{
    bool isWholeListed = false;
    for (PartitionFacts &partition : disk->partitions) {
        if (!partition.deviceNumber.empty()) {
            const UseOfDevice use = FindUse(uses, FolderOfDevice(partition.deviceNumber));
            TakeUse(use, &partition);
            disk->isInUse = disk->isInUse || IsInUse(use);
        }
        isWholeListed = isWholeListed || partition.number == 0;
    }
    const UseOfDevice use = FindUse(uses, deviceFolder);
    disk->isInUse = disk->isInUse || IsInUse(use);
    if (IsInUse(use) && !isWholeListed) {
        PartitionFacts whole;
        whole.node = disk->node;
        whole.deviceNumber = disk->deviceNumber;
        whole.lengthBytes = disk->sizeBytes;
        TakeUse(use, &whole);
        disk->partitions.insert(disk->partitions.begin(), whole);
    }
}

// What uses a device for itself alone shows nowhere else where it is a ZFS pool, or is mounted in a name space that is
// not ours. Another program that asks the same has it for a moment only.
static bool IsClaimed(const std::string &node)
{
    constexpr int mostTries = 10;
    for (int i = 0; i < mostTries; ++i) {
        const int descriptor = open(node.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC | O_NONBLOCK);
        const int error = errno;
        if (descriptor >= 0) {
            close(descriptor);
        }
        if (descriptor >= 0 || error != EBUSY) {
            return false;
        }
        usleep(20000);
    }
    return true;
}

// Opens what the descriptions so far are of. A device may have gone, and another have come in its place.
static Trouble OpenToLook(const OwnDisk &ownDisk, DiskFacts *disk, Source *source)
{
    struct stat found = {};
    source->handle.reset(new OpenHandle);
    source->handle->descriptor = open(disk->node.c_str(), O_RDONLY | O_CLOEXEC);
    if (source->handle->descriptor < 0) {
        disk->unreadable = SystemText(errno);
        return {};
    }
    if (fstat(source->handle->descriptor, &found) != 0) {
        return disk->node + ": " + SystemText(errno);
    }
    const std::string deviceNumber = S_ISBLK(found.st_mode) ? DeviceNumberText(found.st_rdev) : std::string();
    if (deviceNumber != disk->deviceNumber || !IsDiskOfList(source->handle->descriptor, found, ownDisk)) {
        return disk->node + ": another disk has taken its place while the disks were looked at; try again";
    }
    if (S_ISREG(found.st_mode)) {
        disk->sizeBytes = static_cast<uint64_t>(found.st_size);
        disk->file = {found.st_dev, found.st_ino};
    }
    return {};
}

static Trouble DescribeDisk(const Surroundings &around, const OwnDisk &ownDisk, DiskFacts *disk)
{
    Source source;
    struct stat found = {};
    const bool isDevice = !ownDisk.name.empty() || (stat(disk->node.c_str(), &found) == 0 && S_ISBLK(found.st_mode));
    const std::string number = ownDisk.name.empty()
                                   ? DeviceNumberText(found.st_rdev)
                                   : std::to_string(ownDisk.majorNumber) + ":" + std::to_string(ownDisk.minorNumber);
    const std::string deviceFolder = isDevice ? FolderOfDevice(number) : std::string();
    if (isDevice && deviceFolder.empty()) {
        return disk->node + ": the system tells nothing of this device";
    }
    if (isDevice) {
        AskDevice(deviceFolder, disk);
    } else {
        disk->logicalSectorBytes = 512; // as kestrix has it
        disk->sizeBytes = static_cast<uint64_t>(found.st_size);
    }
    if (Trouble trouble = OpenToLook(ownDisk, disk, &source)) {
        return trouble;
    }
    AskContent(source.handle->descriptor, deviceFolder, disk);
    if (isDevice) {
        AskUse(around.uses, deviceFolder, disk);
        disk->isInUse = disk->isInUse || IsClaimed(disk->node);
    }
    const std::string sequence = DiskFolder(deviceFolder) + "/diskseq";
    if (isDevice && (disk->deviceNumber != number || NumberIn(sequence) != disk->sequence ||
                     (!ownDisk.name.empty() && disk->sequence != ownDisk.sequence))) {
        return disk->node + ": the disk has gone while the disks were looked at; try again";
    }
    return {};
}

// What kestrix can open: a link that leads nowhere, or a folder, is none.
static bool IsDisk(const std::string &node)
{
    struct stat found = {};
    return stat(node.c_str(), &found) == 0 ? S_ISREG(found.st_mode) || S_ISBLK(found.st_mode)
                                           : errno != ENOENT && errno != ELOOP && errno != ENOTDIR;
}

static Trouble AddDisk(const Surroundings &around, uint32_t number, std::vector<DiskFacts> *disks)
{
    OwnDisk ownDisk;
    DiskFacts disk;
    disk.number = number;
    disk.node = NodeOfDisk(around.machine, number, &ownDisk);
    if (ownDisk.name.empty() && !IsDisk(disk.node)) {
        return {};
    }
    if (Trouble trouble = DescribeDisk(around, ownDisk, &disk)) {
        return trouble;
    }
    if (!around.machine.folder.empty()) {
        if (Trouble trouble = ReadDiskCard(disk.node + ".json", &disk)) {
            return trouble;
        }
    }
    disk.isSystemDisk = around.systemDisk == number || around.belowRoot.count(disk.deviceNumber) != 0;
    disks->push_back(disk);
    return {};
}

Trouble ListDisks(std::vector<DiskFacts> *disks)
{
    Surroundings around;
    disks->clear();
    if (Trouble trouble = LookAround(&around)) {
        return trouble;
    }
    for (const uint32_t number : NumbersOfDisks(around.machine)) {
        if (Trouble trouble = AddDisk(around, number, disks)) {
            disks->clear();
            return trouble;
        }
    }
    return {};
}

} // namespace host
