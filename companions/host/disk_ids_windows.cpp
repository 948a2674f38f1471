// Reads the answers of storage drivers, byte by byte.
#include "host/disk_ids_windows.h"

#include "host/host.h"

#include <algorithm>
#include <cstring>

namespace host
{

std::string TextAt(const std::vector<uint8_t> &descriptor, uint32_t offset)
{
    if (offset == 0 || offset >= descriptor.size()) {
        return {};
    }
    return FieldText(std::string(descriptor.begin() + offset, descriptor.end()));
}

template <typename Number>
static Number NumberAt(const std::vector<uint8_t> &bytes, size_t offset)
{
    Number number = 0;
    memcpy(&number, bytes.data() + offset, sizeof(number));
    return number;
}

// The record of an identifier, as a driver lays it out: code set, type, byte count of the name, offset of the next
// record from this one, what it names, the name.
static constexpr size_t firstRecord = 12;
static constexpr size_t recordHeader = 16;

static std::string DigitsOf(const std::vector<uint8_t> &bytes, size_t offset, size_t byteCount)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = offset; i < offset + byteCount; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string WwnOfIds(const std::vector<uint8_t> &descriptor)
{
    constexpr uint32_t binary = 1;
    constexpr uint32_t eui64 = 2;
    constexpr uint32_t naa = 3;
    constexpr uint32_t device = 0;
    std::string wwn;
    for (size_t at = firstRecord; at <= descriptor.size() && descriptor.size() - at >= recordHeader;) {
        const auto type = NumberAt<uint32_t>(descriptor, at + 4);
        const size_t byteCount = NumberAt<uint16_t>(descriptor, at + 8);
        const size_t next = NumberAt<uint16_t>(descriptor, at + 10);
        const bool isName = NumberAt<uint32_t>(descriptor, at) == binary &&
                            NumberAt<uint32_t>(descriptor, at + 12) == device && byteCount != 0 &&
                            byteCount <= descriptor.size() - at - recordHeader;
        if (isName && type == naa) {
            return "0x" + DigitsOf(descriptor, at + recordHeader, byteCount);
        }
        if (isName && type == eui64 && wwn.empty()) {
            wwn = "eui." + DigitsOf(descriptor, at + recordHeader, byteCount);
        }
        if (next == 0) {
            break;
        }
        at += next;
    }
    return wwn;
}

} // namespace host
