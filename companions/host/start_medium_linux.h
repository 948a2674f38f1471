// What the firmware's record of the start holds.
#pragma once

#include <string>

namespace host
{

// What /dev/disk/by-partuuid calls the partition that a boot entry leads to; empty if it leads to none. variable is
// what the kernel gives for the firmware's variable: four bytes of attributes, and the entry.
std::string PartitionOfBootEntry(const std::string &variable);

} // namespace host
