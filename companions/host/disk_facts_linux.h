// What the Linux files that tell of disks share. A block device is looked at through its folder in sysfs, as a path
// without links; the numbers of devices are texts such as "8:1".
#pragma once

#include "host/disks_linux.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace host
{

// ---- sysfs: disk_sysfs_linux.cpp ----

std::string DeviceNumberText(dev_t number);

// Where path leads to, without links; empty if nowhere.
std::string RealPath(const std::string &path);

// The folder of a block device; empty if there is no such device.
std::string FolderOfDevice(const std::string &deviceNumber);

// The names in a folder but those that begin with a dot, sorted; none if it can't be read.
std::vector<std::string> NamesIn(const std::string &folder);

// The folders of a disk's partitions.
std::vector<std::string> PartitionFolders(const std::string &diskFolder);

// The folder of the disk whose partition the device is, or its own.
std::string DiskFolder(const std::string &deviceFolder);

// The number in a small file; 0 if there is none.
uint64_t NumberIn(const std::string &path);

// The first bytes of a file, at most so many. A trouble if it can't be read or is no ordinary file.
Trouble ReadStart(const std::string &path, size_t mostBytes, std::string *content);

// ---- What a disk is called: disk_names_linux.cpp, disk_card_linux.cpp ----

// Fills in model, serial, WWN and bus, as far as they are known.
void AskNames(const std::string &diskFolder, DiskFacts *disk);

// Fills in what the card file at path says, if there is one.
Trouble ReadDiskCard(const std::string &path, DiskFacts *disk);

// ---- What is done with it: disk_uses_linux.cpp ----

struct Uses {
    std::map<std::string, std::vector<std::string>> mounts; // by the device's number
    std::set<std::string> swaps;                            // numbers of devices
    std::vector<std::vector<std::string>> pools;            // numbers of devices that one mounted file system lies on
};
Trouble ReadUses(Uses *uses);

struct UseOfDevice {
    std::vector<std::string> mounts;
    std::vector<std::string> holders;
    bool isSwap = false;
    bool isPooled = false;
};
bool IsInUse(const UseOfDevice &use);

// What is done with a device and with all that stands on it, its partitions left aside.
UseOfDevice FindUse(const Uses &uses, const std::string &deviceFolder);

// The numbers of the devices that the root folder lies on, down to disks.
std::set<std::string> DevicesBelowRoot(const Uses &uses);

// ---- What lies on it: disk_content_linux.cpp ----

// Fills in table and partitions. The descriptor is that of the disk, or -1 if it didn't open; the folder is empty for a
// disk in a file.
void AskContent(int descriptor, const std::string &deviceFolder, DiskFacts *disk);

} // namespace host
