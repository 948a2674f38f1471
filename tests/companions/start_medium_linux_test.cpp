// What the firmware's record of a start says of the partition, by the published form of boot entries.
#include "host/start_medium_linux.h"

#include <gtest/gtest.h>

namespace
{

std::string Number(uint64_t value, size_t bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> (8 * i));
    }
    return text;
}

// The bytes of C12A7328-F81F-11D2-BA4B-00A0C93EC93B, as tables of partitions have them.
const std::string identifier("\x28\x73\x2a\xc1\x1f\xf8\xd2\x11\xba\x4b\x00\xa0\xc9\x3e\xc9\x3b", 16);

std::string PartitionNode(const std::string &signature, uint8_t format, uint8_t kind)
{
    return Number(4, 1) + Number(1, 1) + Number(42, 2) + Number(3, 4) + Number(2048, 8) + Number(4096, 8) + signature +
           Number(format, 1) + Number(kind, 1);
}

const std::string busNode = Number(2, 1) + Number(1, 1) + Number(12, 2) + std::string(8, '\7');
const std::string lastNode = Number(0x7F, 1) + Number(0xFF, 1) + Number(4, 2);

// The variable's four bytes of attributes, and an entry named "Ab".
std::string Variable(const std::string &path)
{
    return Number(7, 4) + Number(1, 4) + Number(path.size(), 2) + std::string("A\0b\0\0\0", 6) + path;
}

} // namespace

TEST(StartMedium, IsThePartitionOfTheBootEntry)
{
    EXPECT_EQ(host::PartitionOfBootEntry(Variable(busNode + PartitionNode(identifier, 2, 2) + lastNode)),
              "c12a7328-f81f-11d2-ba4b-00a0c93ec93b");
}

TEST(StartMedium, OfAnOldTableIsItsSignatureAndThePartitionsNumber)
{
    const std::string signature = Number(0x90a1b2c3, 4) + std::string(12, '\0');
    EXPECT_EQ(host::PartitionOfBootEntry(Variable(PartitionNode(signature, 1, 1) + lastNode)), "90a1b2c3-03");
}

TEST(StartMedium, IsNotKnownFromAnEntryWithoutAPartition)
{
    EXPECT_EQ(host::PartitionOfBootEntry(""), "");
    EXPECT_EQ(host::PartitionOfBootEntry(Variable("")), "");
    EXPECT_EQ(host::PartitionOfBootEntry(Variable(busNode + lastNode)), "");
    EXPECT_EQ(host::PartitionOfBootEntry(Variable(PartitionNode(identifier, 2, 0))), "");
}

TEST(StartMedium, OfAnEntryThatIsCutAnywhereIsNoneOrTheSame)
{
    const std::string whole = Variable(busNode + PartitionNode(identifier, 2, 2));
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(host::PartitionOfBootEntry(whole.substr(0, length)), "") << length;
    }
    for (size_t place = 0; place + 2 <= whole.size(); ++place) { // lengths that lead anywhere
        std::string changed = whole;
        changed.replace(place, 2, "\xff\xff");
        host::PartitionOfBootEntry(changed);
        changed.replace(place, 2, std::string(2, '\0'));
        host::PartitionOfBootEntry(changed);
    }
}
