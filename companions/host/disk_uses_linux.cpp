// What is done with block devices: mounts, swap, and the devices that stand on others.
//
// A partition below a volume, an array or an unlocked container is mounted where that is. A file system over several
// devices is mounted by one of them and lies on all.
#include "host/disk_facts_linux.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <sys/sysmacros.h>

namespace host
{

static constexpr int mostLevels = 16; // of devices on devices

// ---- What the kernel tells of all devices ----

// Bytes that the kernel's lists write as \040.
static std::string Unescaped(const std::string &text)
{
    const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool isCode = text.size() - i >= 4 && text[i] == '\\' && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
                            isOctal(text[i + 3]);
        bytes += isCode ? static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8)) : text[i];
        i += isCode ? 3 : 0;
    }
    return bytes;
}

// The number of the block device whose node lies at path; empty if there is none.
static std::string NumberOfNode(const std::string &path)
{
    struct stat found = {};
    const bool isDevice = path[0] == '/' && stat(path.c_str(), &found) == 0 && S_ISBLK(found.st_mode);
    return isDevice ? DeviceNumberText(found.st_rdev) : std::string();
}

// A line of mountinfo: id, parent, device, root, folder, options, further ones up to a dash, kind, source. A file
// system over several devices has a device number of its own, of major number 0, and is known by its source.
static void AddMount(const std::string &line, Uses *uses)
{
    std::istringstream fields(line);
    std::string id, parent, device, root, folder, word, kind, source;
    fields >> id >> parent >> device >> root >> folder;
    while (fields >> word && word != "-") {
    }
    fields >> kind >> source;
    if (device.rfind("0:", 0) == 0) {
        device = NumberOfNode(Unescaped(source));
    }
    if (!device.empty()) {
        std::vector<std::string> &folders = uses->mounts[device];
        const std::string name = PrintableText(Unescaped(folder));
        if (std::find(folders.begin(), folders.end(), name) == folders.end()) {
            folders.push_back(name);
        }
    }
}

static void AddSwap(const std::string &line, Uses *uses)
{
    const std::string device = NumberOfNode(Unescaped(line.substr(0, line.find_first_of(" \t"))));
    if (!device.empty()) {
        uses->swaps.insert(device);
    }
}

static std::vector<std::vector<std::string>> FindPools()
{
    static const std::string fileSystems = "/sys/fs/btrfs";
    std::vector<std::vector<std::string>> pools;
    for (const std::string &name : NamesIn(fileSystems)) {
        const std::string folder = fileSystems + "/" + name + "/devices";
        pools.emplace_back();
        for (const std::string &device : NamesIn(folder)) {
            pools.back().push_back(ReadLine(folder + "/" + device + "/dev"));
        }
    }
    return pools;
}

Trouble ReadUses(Uses *uses)
{
    static const std::string mountInfo = "/proc/self/mountinfo";
    std::ifstream mounts(mountInfo);
    for (std::string line; std::getline(mounts, line);) {
        AddMount(line, uses);
    }
    if (mounts.bad() || !mounts.eof()) {
        return "it can't be told what is mounted: " + mountInfo + " can't be read";
    }
    std::ifstream swaps("/proc/swaps"); // which a kernel without swap has not
    for (std::string line; std::getline(swaps, line);) {
        AddSwap(line, uses);
    }
    uses->pools = FindPools();
    return {};
}

// ---- One device ----

bool IsInUse(const UseOfDevice &use)
{
    return !use.mounts.empty() || !use.holders.empty() || use.isSwap || use.isPooled;
}

static bool IsIn(const std::vector<std::string> &pool, const std::string &deviceNumber)
{
    return !deviceNumber.empty() && std::find(pool.begin(), pool.end(), deviceNumber) != pool.end();
}

static void AddUse(const Uses &uses, const std::string &deviceNumber, UseOfDevice *use)
{
    const auto mounts = uses.mounts.find(deviceNumber);
    if (mounts != uses.mounts.end()) {
        use->mounts.insert(use->mounts.end(), mounts->second.begin(), mounts->second.end());
    }
    use->isSwap = use->isSwap || uses.swaps.count(deviceNumber) != 0;
    for (const std::vector<std::string> &pool : uses.pools) {
        use->isPooled = use->isPooled || IsIn(pool, deviceNumber);
    }
}

// What a device that stands on another is known by.
static std::string NameOfHolder(const std::string &folder)
{
    const std::string name = ReadLine(folder + "/dm/name");
    return PrintableText(name.empty() ? folder.substr(folder.find_last_of('/') + 1) : name);
}

static void AddUsesOf(const Uses &uses, const std::string &folder, int levelsLeft, std::set<std::string> *seen,
                      UseOfDevice *use)
{
    AddUse(uses, ReadLine(folder + "/dev"), use);
    for (const std::string &name : NamesIn(folder + "/holders")) {
        const std::string holder = RealPath(folder + "/holders/" + name);
        if (holder.empty() || levelsLeft == 0 || !seen->insert(holder).second) {
            continue;
        }
        use->holders.push_back(NameOfHolder(holder));
        AddUsesOf(uses, holder, levelsLeft - 1, seen, use);
        for (const std::string &partition : PartitionFolders(holder)) {
            AddUsesOf(uses, partition, levelsLeft - 1, seen, use);
        }
    }
}

UseOfDevice FindUse(const Uses &uses, const std::string &deviceFolder)
{
    UseOfDevice use;
    std::set<std::string> seen;
    AddUsesOf(uses, deviceFolder, mostLevels, &seen, &use);
    return use;
}

// ---- The root folder ----

static void AddDevicesBelow(const std::string &folder, int levelsLeft, std::set<std::string> *numbers)
{
    if (folder.empty() || levelsLeft == 0) {
        return;
    }
    const std::string disk = DiskFolder(folder);
    const std::string number = ReadLine(disk + "/dev");
    if (!number.empty()) {
        numbers->insert(number);
    }
    for (const std::string &name : NamesIn(disk + "/slaves")) {
        AddDevicesBelow(RealPath(disk + "/slaves/" + name), levelsLeft - 1, numbers);
    }
}

// The numbers of the devices that the file system of the root folder lies on itself.
static std::vector<std::string> DevicesOfRoot(const Uses &uses)
{
    struct stat root = {};
    if (stat("/", &root) == 0 && major(root.st_dev) != 0) {
        return {DeviceNumberText(root.st_dev)};
    }
    std::vector<std::string> devices;
    for (const auto &[device, folders] : uses.mounts) {
        if (IsIn(folders, "/")) {
            devices.push_back(device);
            for (const std::vector<std::string> &pool : uses.pools) {
                if (IsIn(pool, device)) {
                    devices.insert(devices.end(), pool.begin(), pool.end());
                }
            }
        }
    }
    return devices;
}

std::set<std::string> DevicesBelowRoot(const Uses &uses)
{
    std::set<std::string> numbers;
    for (const std::string &device : DevicesOfRoot(uses)) {
        AddDevicesBelow(FolderOfDevice(device), mostLevels, &numbers);
    }
    return numbers;
}

} // namespace host
