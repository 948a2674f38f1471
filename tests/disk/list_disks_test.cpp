// list-disks: the lines, which disks get one, the order of the calls behind a line, and what ends the listing early.
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <winioctl.h>

#include <gtest/gtest.h>

#include <set>

namespace
{
struct ListDisks : testing::Test {
    void AddDisk(uint32_t number, uint64_t lengthBytes, uint32_t sectorBytes = 512)
    {
        machine.disks[number].lengthBytes = lengthBytes;
        machine.disks[number].sectorBytes = sectorBytes;
        machine.disks[number].fill = [](uint64_t, uint8_t *, uint64_t) { FAIL() << "a listing reads nothing"; };
    }

    // Runs the command, which must end with these texts.
    void ExpectListing(const std::string &outputText, int exitStatus = 0, const std::string &errorText = "")
    {
        const RunResult result = RunCommand(machine, {"list-disks"});
        EXPECT_EQ(result.outputText, outputText);
        EXPECT_EQ(result.errorText, errorText);
        EXPECT_EQ(result.exitStatus, exitStatus);
        EXPECT_FALSE(result.abnormalEnd);
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    Machine machine;
};
} // namespace

TEST_F(ListDisks, ShowsSizeAndSectorSizeAndMarksTheSystemDisk)
{
    AddDisk(0, 500107862016);
    AddDisk(1, 2 * GiB, 4096);
    AddDisk(10, 123456 * GiB, 520);
    machine.volumeC->extents = {{1, 0, MiB}, {0, 0, MiB}};
    ExpectListing("PhysicalDrive0     465.76 GiB  sector 512 bytes\n"
                  "PhysicalDrive1       2.00 GiB  sector 4096 bytes   <- currently booted system disk\n"
                  "PhysicalDrive10  123456.00 GiB  sector 520 bytes\n");
}

TEST_F(ListDisks, AsksEachDiskInTheSameOrderAndClosesItAfterItsLine)
{
    AddDisk(2, GiB);
    ExpectListing("PhysicalDrive2       1.00 GiB  sector 512 bytes\n");
    const auto isOfDisk2OrText = [](const Call &call) {
        return call.object == "disk2" || call.object == "disk2#1" || call.object.substr(0, 6) == "volume" ||
               call.name == "stdout";
    };
    EXPECT_EQ(LogText(machine, isOfDisk2OrText),
              "CreateFileW \\\\.\\PhysicalDrive2 access=0x80000000 share=0x3 disposition=3 flags=0x0 -> disk2#1\n"
              "DeviceIoControl disk2#1 code=0x0007405C input=0 output=8 -> 8\n"
              "DeviceIoControl disk2#1 code=0x000700A0 input=0 output=40 -> 40\n"
              "CreateFileW \\\\.\\C: access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:C#1\n"
              "DeviceIoControl volume:C#1 code=0x00560000 input=0 output=224 -> 32\n"
              "CloseHandle volume:C#1\n"
              "stdout PhysicalDrive2       1.00 GiB  sector 512 bytes\n\n"
              "CloseHandle disk2#1\n");
}

TEST_F(ListDisks, TriesTheNumbersFrom0To15InOrder)
{
    for (uint32_t number = 0; number < 18; ++number) {
        machine.disks[number].openError = ERROR_ACCESS_DENIED;
    }
    ExpectListing("");
    const std::vector<Call> opens = CallsOf(machine, "CreateFileW");
    ASSERT_EQ(opens.size(), 16U);
    for (size_t i = 0; i < opens.size(); ++i) {
        EXPECT_EQ(opens[i].object, "disk" + std::to_string(i));
        EXPECT_EQ(Field(opens[i], "security") + Field(opens[i], "template"), 0U);
    }
    EXPECT_EQ(CountCalls(machine, "GetLastError"), 0U);
}

TEST_F(ListDisks, StopsBeforeDisk16)
{
    AddDisk(15, GiB);
    AddDisk(16, GiB);
    ExpectListing("PhysicalDrive15      1.00 GiB  sector 512 bytes\n");
}

TEST_F(ListDisks, PassesOverGapsInSilence)
{
    AddDisk(0, GiB);
    AddDisk(2, GiB);
    ExpectListing("PhysicalDrive0       1.00 GiB  sector 512 bytes   <- currently booted system disk\n"
                  "PhysicalDrive2       1.00 GiB  sector 512 bytes\n");
}

TEST_F(ListDisks, ShowsAnEmptyDisk)
{
    machine.disks[3] = Disk();
    ExpectListing("PhysicalDrive3       0.00 GiB  sector 512 bytes\n");
}

TEST_F(ListDisks, MarksNoDiskWhenTheSystemsIsNotListed)
{
    AddDisk(1, GiB);
    machine.volumeC->extents = {{17, 0, MiB}};
    ExpectListing("PhysicalDrive1       1.00 GiB  sector 512 bytes\n");
}

TEST_F(ListDisks, AsksForTheSystemDiskAnewForEachLine)
{
    AddDisk(0, GiB);
    AddDisk(1, GiB);
    machine.onCall = [](Machine &changed, const Call &call) {
        if (call.name == "CloseHandle" && call.object == "disk0#1") {
            changed.volumeC->extents[0].diskNumber = 1;
        }
    };
    ExpectListing("PhysicalDrive0       1.00 GiB  sector 512 bytes   <- currently booted system disk\n"
                  "PhysicalDrive1       1.00 GiB  sector 512 bytes   <- currently booted system disk\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "volume:C"), 2U);
}

TEST_F(ListDisks, EndsAtTheFirstDiskThatOpensWithoutAVolumeC)
{
    AddDisk(4, GiB);
    AddDisk(5, GiB);
    machine.volumeC.reset();
    ExpectListing("", 1, "FATAL: could not open C: to determine the system disk number (GetLastError=2)\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk5"), 0U);
}

TEST_F(ListDisks, EndsAtAVolumeCThatDoesNotTellItsExtents)
{
    AddDisk(4, GiB);
    machine.volumeC->extentsError = ERROR_NOT_SUPPORTED;
    ExpectListing("", 1, "FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed (GetLastError=50)\n");
}

TEST_F(ListDisks, EndsAtADiskThatAnswersBadlyBehindTheLinesAlreadyPrinted)
{
    const std::string firstLine = "PhysicalDrive1       1.00 GiB  sector 512 bytes\n";
    AddDisk(1, GiB);
    AddDisk(2, GiB);
    AddDisk(3, GiB);
    machine.disks[2].geometryError = ERROR_NOT_SUPPORTED;
    ExpectListing(firstLine, 1, "FATAL: IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed (GetLastError=50)\n");
    machine.disks[2].lengthError = ERROR_CRC;
    ExpectListing(firstLine, 1, "FATAL: IOCTL_DISK_GET_LENGTH_INFO failed (GetLastError=23)\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk3"), 0U);
}

TEST_F(ListDisks, TakesNoNoticeOfAFailedClose)
{
    AddDisk(1, GiB);
    FailCall(machine, "CloseHandle", 1, ERROR_IO_DEVICE).forGood = true;
    ExpectListing("PhysicalDrive1       1.00 GiB  sector 512 bytes\n");
}

TEST_F(ListDisks, OpensNothingButDisksAndC)
{
    AddDisk(0, GiB);
    machine.tracker = Tracker();
    ExpectListing("PhysicalDrive0       1.00 GiB  sector 512 bytes   <- currently booted system disk\n");
    std::set<std::string> names;
    for (const Call &call : machine.calls) {
        names.insert(call.name);
    }
    EXPECT_EQ(names, (std::set<std::string>{"CreateFileW", "DeviceIoControl", "CloseHandle", "stdout"}));
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "tracker"), 0U);
}
