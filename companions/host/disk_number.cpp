// The numbers in the names of disks.
#include "host/disk_number.h"

#include <climits>
#include <cstdlib>

namespace host
{

std::optional<uint32_t> NumberOfDiskName(const std::string &name)
{
    static const std::string prefix = "PhysicalDrive";
    const std::string digits = name.rfind(prefix, 0) == 0 ? name.substr(prefix.size()) : std::string();
    if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits.size() > 1 && digits[0] == '0')) {
        return {};
    }
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, 10);
    return value <= INT_MAX ? std::optional<uint32_t>(static_cast<uint32_t>(value)) : std::nullopt;
}

} // namespace host
