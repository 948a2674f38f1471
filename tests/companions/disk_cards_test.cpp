// Which disk a name means, what a card says of one, and what hostile text becomes.
#include "host/disk_number.h"
#include "kestrix-keep/disk_cards.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{

host::DiskFacts Disk(uint32_t number, const std::string &serial = "", const std::string &wwn = "")
{
    host::DiskFacts disk;
    disk.number = number;
    disk.node = "/dev/disk-of-test-" + std::to_string(number);
    disk.serial = serial;
    disk.wwn = wwn;
    disk.sizeBytes = 1000204886016;
    disk.deviceNumber = "8:" + std::to_string(16 * number);
    return disk;
}

// The machine of most tests: a serial that two disks have, a WWN, and a disk that is called nothing.
std::vector<host::DiskFacts> Machine()
{
    return {Disk(0, "TWIN"), Disk(2, "S5 ab.1", "0x5000C500a1b2c3d4"), Disk(3, "TWIN"), Disk(11)};
}

// The number of the disk that a name means, or the fault's sentence.
std::string Found(const std::vector<host::DiskFacts> &disks, const std::string &name)
{
    reader::Result<host::DiskFacts> found = FindDisk(disks, name);
    return found ? std::to_string(found->number) : found.fault.text;
}

bool IsRefused(const std::string &name)
{
    const std::string text = Found(Machine(), name);
    return text.find(name) != std::string::npos && text.size() > name.size() + 10;
}

bool HasLine(const std::vector<std::string> &card, const std::string &line)
{
    return std::find(card.begin(), card.end(), line) != card.end();
}

std::string AllOf(const std::vector<std::string> &card)
{
    std::string text;
    for (const std::string &line : card) {
        text += line + "\n";
    }
    return text;
}

} // namespace

// ---- Names ----

TEST(FindDisk, TakesANumberAsKestrixPrintsIt)
{
    EXPECT_EQ(Found(Machine(), "0"), "0");
    EXPECT_EQ(Found(Machine(), "2"), "2");
    EXPECT_EQ(Found(Machine(), "11"), "11");
    for (const char *name :
         {"1", "00", "02", "+2", "-2", " 2", "2 ", "0x2", "2.0", "4294967298", "99999999999999999999"}) {
        EXPECT_TRUE(IsRefused(name)) << Found(Machine(), name);
    }
}

TEST(FindDisk, TakesASerialExactly)
{
    EXPECT_EQ(Found(Machine(), "serial:S5 ab.1"), "2");
    EXPECT_EQ(Found(Machine(), "serial: \tS5 ab.1 "), "2");
    for (const char *name : {"serial:S5 AB.1", "serial:S5 ab.", "serial:S5 ab.10", "serial:S5  ab.1", "serial:0",
                             "Serial:S5 ab.1", "S5 ab.1", "serial=S5 ab.1"}) {
        EXPECT_TRUE(IsRefused(name)) << Found(Machine(), name);
    }
}

TEST(FindDisk, TakesASerialThatLooksLikeSomethingElse)
{
    const std::vector<host::DiskFacts> disks = {Disk(0, "1"), Disk(1, "serial:7"), Disk(2, "wwn:5"),
                                                Disk(3, "/dev/sda")};
    EXPECT_EQ(Found(disks, "serial:1"), "0");
    EXPECT_EQ(Found(disks, "serial:serial:7"), "1");
    EXPECT_EQ(Found(disks, "serial:wwn:5"), "2");
    EXPECT_EQ(Found(disks, "serial:/dev/sda"), "3");
    EXPECT_EQ(Found(disks, "1"), "1");
}

TEST(FindDisk, NamesNoDiskByAnEmptySerialOrWwn)
{
    for (const char *name : {"serial:", "serial:  ", "wwn:", "wwn:\t"}) {
        EXPECT_TRUE(IsRefused(name)) << Found(Machine(), name);
        EXPECT_EQ(Found({Disk(5)}, name).find('5'), std::string::npos);
    }
}

TEST(FindDisk, TakesAWwnWhateverTheCaseOfItsDigits)
{
    EXPECT_EQ(Found(Machine(), "wwn:0x5000C500a1b2c3d4"), "2");
    EXPECT_EQ(Found(Machine(), "wwn:0x5000c500A1B2C3D4"), "2");
    EXPECT_EQ(Found(Machine(), "wwn: 0x5000c500a1b2c3d4 "), "2");
    for (const char *name : {"wwn:5000c500a1b2c3d4", "wwn:0x5000c500a1b2c3d", "serial:0x5000C500a1b2c3d4"}) {
        EXPECT_TRUE(IsRefused(name)) << Found(Machine(), name);
    }
}

TEST(FindDisk, RefusesWhatFitsSeveralAndNamesThem)
{
    EXPECT_EQ(Found(Machine(), "serial:TWIN"),
              "serial:TWIN: the disks 0 and 3 all fit that; name one of them in another "
              "way, or unplug the others");
    const std::vector<host::DiskFacts> three = {Disk(1, "A", "0x5"), Disk(4, "A", "0x5"), Disk(7, "A", "0x5")};
    EXPECT_NE(Found(three, "wwn:0x5").find("the disks 1, 4 and 7 all fit"), std::string::npos);
}

TEST(FindDisk, SaysWhenNoDiskFits)
{
    EXPECT_EQ(Found(Machine(), "serial:GONE"), "serial:GONE: no disk of this machine fits that");
    EXPECT_EQ(Found(Machine(), "7"), "disk 7: no disk of this machine fits that");
    EXPECT_EQ(Found({}, "0"), "disk 0: no disk of this machine fits that");
}

TEST(FindDisk, RefusesWordsThatAreNoNames)
{
    for (const char *name : {"", "sda", "disk", "PhysicalDrive0", "\\\\.\\PhysicalDrive0", "C:", "*"}) {
        EXPECT_TRUE(IsRefused(name)) << Found(Machine(), name);
    }
}

TEST(FindDisk, TakesNoPathsButThoseBelowDevDisk)
{
    const std::string why = "only those below /dev/disk";
    for (const char *path : {"/dev/sda", "/dev/disk", "/dev/disks/by-id/x", "/", "/dev/disk/../sda",
                             "/dev/disk/by-id/..", "/dev/../dev/disk/by-id/x"}) {
        EXPECT_NE(Found(Machine(), path).find(why), std::string::npos) << Found(Machine(), path);
    }
    const std::string absent = Found(Machine(), "/dev/disk/by-id/no-such-disk-is-there");
    EXPECT_EQ(absent.rfind("/dev/disk/by-id/no-such-disk-is-there: no disk of this machine fits that: ", 0), 0U)
        << absent;
}

TEST(FindDisk, TakesThePathOfAWholeDisk)
{
    const std::string path = "/dev/disk/by-id/x";
    reader::Result<host::DiskFacts> found = FindDiskOfDevice(Machine(), path, {"/dev/sdc", "8:32", "8:32"});
    ASSERT_TRUE(found) << found.fault.text;
    EXPECT_EQ(found->number, 2U);
}

TEST(FindDisk, RefusesThePathOfAPartitionAndNamesItsDisk)
{
    const std::string path = "/dev/disk/by-uuid/x";
    reader::Result<host::DiskFacts> found = FindDiskOfDevice(Machine(), path, {"/dev/sdc1", "8:33", "8:32"});
    ASSERT_FALSE(found);
    EXPECT_EQ(found.fault.text,
              "/dev/disk/by-uuid/x: it leads to /dev/sdc1, a partition of disk 2; name the whole disk");
}

TEST(FindDisk, RefusesThePathOfADeviceThatIsNoDiskOfTheMachine)
{
    EXPECT_FALSE(FindDiskOfDevice(Machine(), "/dev/disk/by-id/dm", {"/dev/dm-0", "253:0", "253:0"}));
    EXPECT_FALSE(FindDiskOfDevice(Machine(), "/dev/disk/by-id/p", {"/dev/sdq1", "65:1", "65:0"}));
    host::DiskFacts inFile = Disk(1);
    inFile.deviceNumber = "";
    EXPECT_FALSE(FindDiskOfDevice({inFile}, "/dev/disk/by-id/x", {"/dev/x", "", ""}));
    std::vector<host::DiskFacts> linkedTwice = {Disk(1), Disk(2)};
    linkedTwice[1].deviceNumber = linkedTwice[0].deviceNumber;
    EXPECT_FALSE(FindDiskOfDevice(linkedTwice, "/dev/disk/by-id/x", {"/dev/sdb", "8:16", "8:16"}));
}

// ---- The same disk ----

TEST(SameDisk, IsOneThatNothingTellsFromTheEarlierOne)
{
    host::DiskFacts earlier = Disk(2, "A", "0x5");
    earlier.sequence = 9;
    earlier.file = {1, 2};
    EXPECT_TRUE(IsSameDisk(earlier, earlier));
    using Change = void (*)(host::DiskFacts &);
    for (const Change change : {Change([](host::DiskFacts &disk) { disk.number = 3; }),
                                Change([](host::DiskFacts &disk) { disk.node = "/dev/x"; }),
                                Change([](host::DiskFacts &disk) { disk.serial = "B"; }),
                                Change([](host::DiskFacts &disk) { disk.wwn = "0x6"; }),
                                Change([](host::DiskFacts &disk) { disk.sizeBytes -= 512; }),
                                Change([](host::DiskFacts &disk) { disk.deviceNumber = "8:1"; }),
                                Change([](host::DiskFacts &disk) { disk.sequence = 10; }),
                                Change([](host::DiskFacts &disk) { disk.file.file = 3; })}) {
        host::DiskFacts later = earlier;
        change(later);
        EXPECT_FALSE(IsSameDisk(earlier, later));
    }
}

TEST(SameDisk, MayHaveOtherPartitionsAndUses)
{
    host::DiskFacts later = Disk(2);
    later.isInUse = true;
    later.partitions.emplace_back();
    EXPECT_TRUE(IsSameDisk(Disk(2), later));
}

// ---- Cards ----

TEST(DiskCard, TellsADiskInPlainLines)
{
    host::DiskFacts disk = Disk(2, "S5", "0x5000c500a1b2c3d4");
    disk.model = "WDC WD40";
    disk.bus = "ata";
    disk.logicalSectorBytes = 512;
    disk.physicalSectorBytes = 4096;
    disk.isRemovable = false;
    disk.isSystemDisk = true;
    disk.isInUse = true;
    disk.table = "gpt";
    host::PartitionFacts partition;
    partition.number = 1;
    partition.offsetBytes = 1048576;
    partition.lengthBytes = 536870912;
    partition.name = "EFI System";
    partition.fileSystem = "vfat";
    partition.label = "ESP";
    partition.mounts = {"/boot/efi"};
    disk.partitions = {partition};
    EXPECT_EQ(AllOf(DiskCard(disk)),
              "disk 2: /dev/disk-of-test-2\n"
              "  model: WDC WD40\n"
              "  serial: S5\n"
              "  WWN: 0x5000c500a1b2c3d4\n"
              "  size: 931.51 GiB (1000204886016 bytes)\n"
              "  sectors: logical ones of 512 bytes, physical ones of 4096 bytes\n"
              "  bus: ata, not removable\n"
              "  SYSTEM DISK\n"
              "  IN USE\n"
              "  partition table: gpt\n"
              "  partition 1 (EFI System): 512.00 MiB at 1048576, vfat, label ESP, mounted at /boot/efi\n");
}

TEST(DiskCard, SaysWhatIsNotKnown)
{
    const std::vector<std::string> card = DiskCard(Disk(2));
    for (const char *line :
         {"  model: not known", "  no serial", "  no WWN", "  bus: not known, not known whether removable",
          "  sectors: logical ones of a length that is not known, physical ones of a length that is "
          "not known"}) {
        EXPECT_TRUE(HasLine(card, line)) << line;
    }
    EXPECT_EQ(AllOf(card).find("SYSTEM"), std::string::npos);
    EXPECT_EQ(AllOf(card).find("IN USE"), std::string::npos);
}

TEST(DiskCard, TellsUsesAndWhatCanNotBeTold)
{
    host::DiskFacts disk = Disk(1);
    disk.isRemovable = true;
    disk.unreadable = "Permission denied";
    host::PartitionFacts partition;
    partition.number = 5;
    disk.partitions.push_back(partition);
    EXPECT_TRUE(HasLine(DiskCard(disk), "  bus: not known, removable"));
    EXPECT_TRUE(HasLine(DiskCard(disk), "  what lies on it can't be read: Permission denied"));
    EXPECT_TRUE(HasLine(DiskCard(disk), "  partition 5: 0 bytes at 0"));
    disk.unreadable = "";
    EXPECT_TRUE(HasLine(DiskCard(disk), "  partition 5: 0 bytes at 0, no known file system"));
    disk.partitions[0].isExtended = true;
    EXPECT_TRUE(HasLine(DiskCard(disk), "  partition 5: 0 bytes at 0, holds further partitions"));
    disk.partitions[0].unclear = "it can't be read";
    EXPECT_TRUE(HasLine(DiskCard(disk), "  partition 5: 0 bytes at 0, its content can't be told: it can't be read"));
    disk.partitions[0] = {};
    disk.partitions[0].fileSystem = "LVM2_member";
    disk.partitions[0].holders = {"vg-swap", "vg-root"};
    disk.partitions[0].isSwap = true;
    disk.partitions[0].mounts = {"/", "/b", "/c", "/d", "/e", "/f"};
    EXPECT_TRUE(HasLine(DiskCard(disk),
                        "  on the disk itself: 0 bytes at 0, LVM2_member, held by vg-swap, vg-root, used as "
                        "swap, mounted at /, /b, /c, /d and 2 more"));
}

TEST(DiskCard, ShowsHostileTextAsTextOfOneLine)
{
    host::DiskFacts disk = Disk(1, "a\x1b[2Jb");
    disk.model = "m\nSYSTEM DISK";
    host::PartitionFacts partition;
    partition.label = "\xff\xfe\r\n\x9b";
    disk.partitions.push_back(partition);
    disk.partitions[0].fileSystem = "x";
    for (const std::string &line : DiskCard(disk)) {
        EXPECT_EQ(std::count_if(line.begin(), line.end(), [](char byte) { return (byte & 0xE0) == 0 || byte == 0x7F; }),
                  0);
        EXPECT_NE(line, "SYSTEM DISK");
    }
    EXPECT_TRUE(HasLine(DiskCard(disk), "  serial: a?[2Jb"));
    EXPECT_TRUE(HasLine(DiskCard(disk), "  model: m?SYSTEM DISK"));
    EXPECT_TRUE(HasLine(DiskCard(disk), "  on the disk itself: 0 bytes at 0, x, label ?????"));
}

TEST(DiskCard, IsInJsonWithNullForWhatIsNotKnown)
{
    const Json unknown = DiskJson(Disk(1));
    for (const char *name : {"model", "serial", "wwn", "bus", "removable", "logicalSectorBytes", "physicalSectorBytes",
                             "sequence", "unreadable", "table"}) {
        EXPECT_TRUE(unknown.at(name).is_null()) << name;
    }
    host::DiskFacts disk = Disk(1, "S\xff");
    disk.isRemovable = false;
    disk.sequence = 18446744073709551615U;
    disk.partitions.emplace_back();
    const Json known = DiskJson(disk);
    EXPECT_EQ(known.at("removable"), Json(false));
    EXPECT_EQ(known.at("sequence"), Json(18446744073709551615U));
    EXPECT_EQ(known.at("deviceNumber"), Json("8:16"));
    EXPECT_EQ(known.at("sizeBytes"), Json(1000204886016U));
    EXPECT_EQ(known.at("partitions").size(), 1U);
    EXPECT_TRUE(known.at("partitions")[0].at("fileSystem").is_null());
    EXPECT_NO_THROW((void)known.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// ---- Text of disks ----

TEST(FieldText, IsWhatStandsBeforeAZeroByteWithoutSpaceAroundIt)
{
    EXPECT_EQ(host::FieldText("   WD-WX1   "), "WD-WX1");
    EXPECT_EQ(host::FieldText(std::string("abc\0def", 7)), "abc");
    EXPECT_EQ(host::FieldText(std::string("abc \0\0\0\0", 8)), "abc");
    EXPECT_EQ(host::FieldText(std::string("\0abc", 4)), "");
    EXPECT_EQ(host::FieldText("\t\n two words \r\v\f"), "two words");
    EXPECT_EQ(host::FieldText(""), "");
    EXPECT_EQ(host::FieldText("    "), "");
    EXPECT_EQ(host::FieldText("\x1b[2J\xff\xc3\xa4"), "?[2J?\xc3\xa4");
}

TEST(DiskNumber, IsThatOfANameAsKestrixWritesIt)
{
    const auto number = [](const char *name) { return host::NumberOfDiskName(name); };
    EXPECT_EQ(number("PhysicalDrive0"), 0U);
    EXPECT_EQ(number("PhysicalDrive16"), 16U);
    EXPECT_EQ(number("PhysicalDrive2147483647"), 2147483647U);
    for (const char *name : {"PhysicalDrive", "PhysicalDrive00", "PhysicalDrive01", "PhysicalDrive2147483648",
                             "PhysicalDrive99999999999999999999", "PhysicalDrive0.json", "PhysicalDrive-1",
                             "physicaldrive0", "PhysicalDrive 0", "APhysicalDrive0", "C:", ""}) {
        EXPECT_FALSE(number(name)) << name;
    }
}
