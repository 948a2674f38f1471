// What is shared by what opens the machine's disks and what tells of them.
#pragma once

#include "host/open_handle_linux.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace host
{

// A disk of the kernel's block layer.
struct OwnDisk {
    std::string name;
    uint64_t sequence = 0; // 0 where the kernel gives none
    unsigned int majorNumber = 0;
    unsigned int minorNumber = 0;
};

struct Machine {
    std::string folder; // of disks; empty where the disks are the machine's own, or none
    std::vector<OwnDisk> ownDisks;
    Trouble trouble; // why no disk exists: which machine it is, or the list of its disks, can't be told
};

// Looks which machine the kestrix beside this program sees.
Machine FindMachine();

// Where the disk's node lies; empty if there is none. *ownDisk is what the list says of it, if it is one of the
// machine's own.
std::string NodeOfDisk(const Machine &machine, uint32_t number, OwnDisk *ownDisk);

// The node of the device that sysfs has under that name.
std::string NodeOfName(std::string name);

// False for another disk that has come under the name of the one in the list. Any node is that of an empty one.
bool IsDiskOfList(int descriptor, const struct stat &node, const OwnDisk &ownDisk);

// The first line of a small file; empty if there is none.
std::string ReadLine(const std::string &path);

} // namespace host
