// What the answers of storage drivers say, and that no length or offset in one leads out of it.
#include "host/disk_ids_windows.h"

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<uint8_t>;

void AddNumber(Bytes *bytes, uint32_t number, size_t byteCount)
{
    for (size_t i = 0; i < byteCount; ++i) {
        bytes->push_back(static_cast<uint8_t>(number >> (8 * i)));
    }
}

struct Identifier {
    uint32_t codeSet;
    uint32_t type;
    uint32_t association;
    Bytes name;
};

// As the system documents STORAGE_DEVICE_ID_DESCRIPTOR and STORAGE_IDENTIFIER.
Bytes Descriptor(const std::vector<Identifier> &identifiers)
{
    Bytes bytes;
    AddNumber(&bytes, 12, 4);
    AddNumber(&bytes, 0, 4);
    AddNumber(&bytes, static_cast<uint32_t>(identifiers.size()), 4);
    for (size_t i = 0; i < identifiers.size(); ++i) {
        const Identifier &identifier = identifiers[i];
        const size_t next = i + 1 == identifiers.size() ? 0 : 16 + identifier.name.size();
        AddNumber(&bytes, identifier.codeSet, 4);
        AddNumber(&bytes, identifier.type, 4);
        AddNumber(&bytes, static_cast<uint32_t>(identifier.name.size()), 2);
        AddNumber(&bytes, static_cast<uint32_t>(next), 2);
        AddNumber(&bytes, identifier.association, 4);
        bytes.insert(bytes.end(), identifier.name.begin(), identifier.name.end());
    }
    return bytes;
}

const Bytes naaName = {0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD4};
const Bytes euiName = {0x00, 0x25, 0x38, 0x5B, 0x71, 0xB0, 0x0A, 0x0F};

} // namespace

TEST(DeviceIds, GiveTheNaaNameOfTheDevice)
{
    EXPECT_EQ(host::WwnOfIds(Descriptor({{1, 3, 0, naaName}})), "0x5000c500a1b2c3d4");
    EXPECT_EQ(host::WwnOfIds(Descriptor({{2, 1, 0, {'t', '1', '0'}}, {1, 2, 0, euiName}, {1, 3, 0, naaName}})),
              "0x5000c500a1b2c3d4");
}

TEST(DeviceIds, GiveTheEuiNameWhereThereIsNoOther)
{
    EXPECT_EQ(host::WwnOfIds(Descriptor({{2, 1, 0, {'t', '1', '0'}}, {1, 2, 0, euiName}})), "eui.0025385b71b00a0f");
}

TEST(DeviceIds, GiveNoNameOfAPortAndNoneInText)
{
    EXPECT_EQ(host::WwnOfIds(Descriptor({{1, 3, 1, naaName}, {2, 3, 0, naaName}, {1, 3, 0, {}}})), "");
    EXPECT_EQ(host::WwnOfIds({}), "");
}

TEST(DeviceIds, AreNotBelievedBeyondTheirAnswer)
{
    const Bytes whole = Descriptor({{1, 2, 0, euiName}, {1, 3, 0, naaName}});
    for (size_t length = 0; length < whole.size(); ++length) {
        const std::string wwn = host::WwnOfIds(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
        EXPECT_EQ(wwn, length < 12 + 16 + euiName.size() ? "" : "eui.0025385b71b00a0f") << length;
    }
    Bytes endless = Descriptor({{1, 2, 0, euiName}});
    endless[12 + 8] = 0xFF;
    endless[12 + 10] = 0xFF;
    endless[12 + 11] = 0xFF;
    EXPECT_EQ(host::WwnOfIds(endless), "");
}

TEST(DeviceTexts, LieWithinTheirAnswer)
{
    const Bytes answer = {'x', ' ', 'a', 'b', ' ', 0, 'c', 'd'};
    EXPECT_EQ(host::TextAt(answer, 0), "");
    EXPECT_EQ(host::TextAt(answer, 1), "ab");
    EXPECT_EQ(host::TextAt(answer, 5), "");
    EXPECT_EQ(host::TextAt(answer, 6), "cd");
    EXPECT_EQ(host::TextAt(answer, 8), "");
    EXPECT_EQ(host::TextAt(answer, 0xFFFFFFFF), "");
}
