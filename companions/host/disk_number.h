// How kestrix numbers disks: the same on every system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace host
{

// N of the name PhysicalDriveN, which is written without leading zeros and no larger than kestrix takes it.
std::optional<uint32_t> NumberOfDiskName(const std::string &name);

} // namespace host
