// What the answers of a storage driver say of a disk. A driver's lengths and offsets are believed only within what it
// returned.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host
{

// The text that begins at an offset of a device descriptor; empty where the offset is 0 or lies outside.
std::string TextAt(const std::vector<uint8_t> &descriptor, uint32_t offset);

// The world wide name among the identifiers of a STORAGE_DEVICE_ID_DESCRIPTOR: an NAA name as "0x" and digits, or else
// an EUI-64 name as "eui." and digits. Empty if there is none.
std::string WwnOfIds(const std::vector<uint8_t> &descriptor);

} // namespace host
