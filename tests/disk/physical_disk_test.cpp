// The shared disk operations one by one: how each opens what it opens, what it asks and in which record, and the words
// and the exit status of each failure.
//
// Last errors are spoiled by every call that succeeds, so that a number taken a call too late shows.
#include "disk/physical_disk.h"

#include "simulator/expectations.h"
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <winioctl.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <utility>

namespace
{
struct PhysicalDisk : testing::Test {
    PhysicalDisk()
    {
        machine.lastErrorAfterSuccess = spoiledError;
    }

    void ExpectDeath(const std::string &errorText)
    {
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_FALSE(result.abnormalEnd);
        EXPECT_EQ(result.errorText, errorText);
        EXPECT_EQ(result.outputText, "");
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    Machine machine = MachineWithDisk(1, Bytes(4096));
    RunResult result;
};

// Leaves bytes on the stack that a record would show if it were not cleared.
__attribute__((noinline)) void PoisonStack()
{
    volatile uint8_t bytes[4096];
    for (volatile uint8_t &byte : bytes) {
        byte = 0xA5;
    }
}

DiskGeometry GeometryOf(Machine &machine)
{
    DiskGeometry geometry = {};
    RunCode(machine, [&geometry] {
        const HANDLE disk = OpenDiskForRead(1);
        PoisonStack();
        geometry = GetDiskGeometry(disk);
    });
    return geometry;
}

int32_t SystemDiskOf(Machine &machine)
{
    int32_t number = INT_MIN;
    RunCode(machine, [&number] {
        PoisonStack();
        number = SystemDiskNumber();
    });
    return number;
}
} // namespace

TEST_F(PhysicalDisk, IsReadUnbufferedWhileOthersUseIt)
{
    result = RunCode(machine, [] { EXPECT_NE(OpenDiskForRead(1), INVALID_HANDLE_VALUE); });
    EXPECT_EQ(LogText(machine),
              "CreateFileW \\\\.\\PhysicalDrive1 access=0x80000000 share=0x3 disposition=3 flags=0x20000000 "
              "-> disk1#1\n");
    const Call open = CallsOf(machine, "CreateFileW")[0];
    EXPECT_EQ(Field(open, "security"), 0U);
    EXPECT_EQ(Field(open, "template"), 0U);
}

TEST_F(PhysicalDisk, IsWrittenUnbufferedAndAlone)
{
    result = RunCode(machine, [] { EXPECT_NE(OpenDiskForWrite(1), INVALID_HANDLE_VALUE); });
    EXPECT_EQ(LogText(machine),
              "CreateFileW \\\\.\\PhysicalDrive1 access=0xC0000000 share=0x0 disposition=3 flags=0x20000000 "
              "-> disk1#1\n");
    const Call open = CallsOf(machine, "CreateFileW")[0];
    EXPECT_EQ(Field(open, "security"), 0U);
    EXPECT_EQ(Field(open, "template"), 0U);
}

TEST_F(PhysicalDisk, MayHaveTheLongestNumber)
{
    machine.disks[2147483647].bytes = Bytes(512);
    for (HANDLE (*open)(int32_t) : {OpenDiskForRead, OpenDiskForWrite}) {
        result = RunCode(machine, [open] { open(2147483647); });
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk2147483647"), 1U);
    }
}

TEST_F(PhysicalDisk, ThatDoesNotOpenForReadingShowsOnlyTheNumberOfTheReason)
{
    for (const DWORD error : {DWORD{ERROR_FILE_NOT_FOUND}, DWORD{ERROR_ACCESS_DENIED}}) {
        machine.disks[1].openError = error;
        result = RunCode(machine, [] { OpenDiskForRead(1); });
        ExpectDeath("FATAL: could not open source disk for raw read (run as Administrator?) (GetLastError=" +
                    std::to_string(error) + ")\n");
    }
}

TEST_F(PhysicalDisk, ThatDoesNotOpenForWritingBringsAdviceWithItsNumberTwice)
{
    machine.disks[37].exclusiveOpenError = ERROR_ACCESS_DENIED;
    result = RunCode(machine, [] { OpenDiskForWrite(37); });
    ExpectDeath("Could not open disk 37 exclusively for writing (GetLastError=5).\n"
                "This almost always means a volume on it is still mounted/in use.\n"
                "Take it offline first: diskpart > select disk 37 > offline disk\n");
    EXPECT_EQ(LogText(machine),
              "CreateFileW \\\\.\\PhysicalDrive37 access=0xC0000000 share=0x0 disposition=3 flags=0x20000000 "
              "-> failed 5\nGetLastError -> 5\nexit 1\n");
}

TEST_F(PhysicalDisk, HeldByAnyoneElseDoesNotOpenForWriting)
{
    result = RunCode(machine, [] {
        OpenDiskForRead(1);
        OpenDiskForWrite(1);
    });
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errorText.substr(0, 70),
              "Could not open disk 1 exclusively for writing (GetLastError=32).\nThis ");
}

TEST_F(PhysicalDisk, IsAskedForItsLengthThenForItsGeometry)
{
    machine.disks[1].sectorBytes = 4096;
    const DiskGeometry geometry = GeometryOf(machine);
    EXPECT_EQ(geometry.diskSize, 4096U);
    EXPECT_EQ(geometry.sectorSize, 4096U);
    EXPECT_EQ(LogOf(machine, {"DeviceIoControl"}), "DeviceIoControl disk1#1 code=0x0007405C input=0 output=8 -> 8\n"
                                                   "DeviceIoControl disk1#1 code=0x000700A0 input=0 output=40 -> 40\n");
    for (const Call &query : CallsOf(machine, "DeviceIoControl")) {
        EXPECT_EQ(Field(query, "count"), 1U);
        EXPECT_EQ(Field(query, "overlapped"), 0U);
    }
}

TEST_F(PhysicalDisk, HasTheSizeOfItsLengthWhateverTheGeometrySays)
{
    machine.disks[1].lengthBytes = 0x123456789ABCDE00;
    machine.disks[1].geometryLengthBytes = 512;
    EXPECT_EQ(GeometryOf(machine).diskSize, 0x123456789ABCDE00U);
}

TEST_F(PhysicalDisk, TakesTheSectorSizeOutOfAReplyOfAnyLength)
{
    ShortenCall(machine, "DeviceIoControl", 2, 24);
    EXPECT_EQ(GeometryOf(machine).sectorSize, 512U);
}

TEST_F(PhysicalDisk, HasAClearedGeometryRecord)
{
    ShortenCall(machine, "DeviceIoControl", 2, 0);
    EXPECT_EQ(GeometryOf(machine).sectorSize, 0U);
    bool isCleared = false;
    machine.onCall = [&isCleared](Machine &, const Call &call) {
        static const uint8_t zeros[40] = {};
        isCleared = isCleared || (call.name == "DeviceIoControl" && Field(call, "code") == 0x700A0 &&
                                  memcmp(call.buffer, zeros, sizeof(zeros)) == 0);
    };
    GeometryOf(machine);
    EXPECT_TRUE(isCleared);
}

TEST_F(PhysicalDisk, ThatDoesNotTellItsLengthIsFatal)
{
    machine.disks[1].lengthError = ERROR_CRC;
    result = RunCode(machine, [] { GetDiskGeometry(OpenDiskForRead(1)); });
    ExpectDeath("FATAL: IOCTL_DISK_GET_LENGTH_INFO failed (GetLastError=23)\n");
    EXPECT_EQ(CountCalls(machine, "DeviceIoControl"), 1U);
}

TEST_F(PhysicalDisk, ThatDoesNotTellItsGeometryIsFatal)
{
    machine.disks[1].geometryError = ERROR_NOT_SUPPORTED;
    result = RunCode(machine, [] { GetDiskGeometry(OpenDiskForRead(1)); });
    ExpectDeath("FATAL: IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed (GetLastError=50)\n");
}

TEST_F(PhysicalDisk, OfTheSystemIsThatOfTheFirstExtentOfC)
{
    machine.volumeC->extents = {{7, MiB, MiB}, {3, 0, MiB}};
    EXPECT_EQ(SystemDiskOf(machine), 7);
    EXPECT_EQ(LogText(machine), "CreateFileW \\\\.\\C: access=0x80000000 share=0x3 disposition=3 flags=0x0 "
                                "-> volume:C#1\n"
                                "DeviceIoControl volume:C#1 code=0x00560000 input=0 output=224 -> 56\n"
                                "CloseHandle volume:C#1\n");
    EXPECT_EQ(Field(CallsOf(machine, "CreateFileW")[0], "security"), 0U);
    EXPECT_EQ(Field(CallsOf(machine, "CreateFileW")[0], "template"), 0U);
    EXPECT_EQ(Field(CallsOf(machine, "DeviceIoControl")[0], "count"), 1U);
    EXPECT_EQ(Field(CallsOf(machine, "DeviceIoControl")[0], "overlapped"), 0U);
}

TEST_F(PhysicalDisk, OfTheSystemHasASignedNumber)
{
    machine.volumeC->extents = {{0xFFFFFFFF, 0, MiB}};
    EXPECT_EQ(SystemDiskOf(machine), -1);
}

TEST_F(PhysicalDisk, OfTheSystemIsReadOutOfAClearedRecordWithoutALookAtTheCount)
{
    machine.volumeC->extents = {};
    EXPECT_EQ(SystemDiskOf(machine), 0);
    machine.volumeC->extents = {{9, 0, MiB}};
    ShortenCall(machine, "DeviceIoControl", 1, 12);
    EXPECT_EQ(SystemDiskOf(machine), 9);
    machine.faults.clear();
    ShortenCall(machine, "DeviceIoControl", 1, 0);
    EXPECT_EQ(SystemDiskOf(machine), 0);
}

TEST_F(PhysicalDisk, OfTheSystemIsAskedForAnewEachTime)
{
    machine.onCall = [](Machine &changed, const Call &call) {
        if (call.name == "CloseHandle") {
            changed.volumeC->extents[0].diskNumber = 5;
        }
    };
    RunCode(machine, [] {
        EXPECT_EQ(SystemDiskNumber(), 0);
        EXPECT_EQ(SystemDiskNumber(), 5);
    });
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "volume:C"), 2U);
}

TEST_F(PhysicalDisk, OfTheSystemIsFoundThroughNineExtentsAndNotThroughTen)
{
    machine.volumeC->extents.assign(9, {4, 0, MiB});
    EXPECT_EQ(SystemDiskOf(machine), 4);
    machine.volumeC->extents.assign(10, {4, 0, MiB});
    machine.lastErrorAfterSuccess = 0;
    result = RunCode(machine, [] { SystemDiskNumber(); });
    ExpectDeath("FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed (GetLastError=234)\n");
}

TEST_F(PhysicalDisk, OfTheSystemIsFatalWithoutAVolumeC)
{
    machine.volumeC->openError = ERROR_ACCESS_DENIED;
    result = RunCode(machine, [] { SystemDiskNumber(); });
    ExpectDeath("FATAL: could not open C: to determine the system disk number (GetLastError=5)\n");
    machine.volumeC.reset();
    result = RunCode(machine, [] { SystemDiskNumber(); });
    ExpectDeath("FATAL: could not open C: to determine the system disk number (GetLastError=2)\n");
}

TEST_F(PhysicalDisk, OfTheSystemClosesTheVolumeBeforeItReportsTheFailure)
{
    machine.volumeC->extentsError = ERROR_NOT_SUPPORTED;
    result = RunCode(machine, [] { SystemDiskNumber(); });
    ExpectDeath("FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed (GetLastError=4711)\n");
    EXPECT_EQ(LogOf(machine, {"DeviceIoControl", "CloseHandle", "GetLastError", "exit"}),
              "DeviceIoControl volume:C#1 code=0x00560000 input=0 output=224 -> failed 50\n"
              "CloseHandle volume:C#1\nGetLastError -> 4711\nexit 1\n");
}

// Restore and capture ask for the system disk's number; without a C: neither gets to what it would write.
TEST_F(PhysicalDisk, IsLeftAloneByCaptureAndRestoreWithoutAVolumeC)
{
    const Scratch scratch;
    ImagePlan plan;
    plan.disk = PatternBytes(4096, 1);
    WriteBytes("old.kstx", BuildImage(plan));
    machine.volumeC.reset();
    const std::string errorText = "FATAL: could not open C: to determine the system disk number (GetLastError=2)\n";
    result = RunCommand(machine, {"restore", "--in", "old.kstx", "--disk", "1", "--confirm", "YES"});
    ExpectDeath(errorText);
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 1U);
    EXPECT_EQ(machine.disks[1].bytes, Bytes(4096));
    result = RunCommand(machine, {"capture", "--disk", "1", "--out", "image.kstx"});
    EXPECT_EQ(result.errorText, errorText);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(CountCalls(machine, "ReadFile"), 0U);
    EXPECT_FALSE(FileExists("image.kstx"));
}

TEST_F(PhysicalDisk, BufferHasSizeAndAlignmentAndIsFreedOnce)
{
    result = RunCode(machine, [] {
        AlignedBuffer buffer(8192, 4096);
        EXPECT_EQ(buffer.size, 8192U);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data) % 4096, 0U);
        AlignedBuffer owner(std::move(buffer));
        EXPECT_EQ(buffer.data, nullptr);
        EXPECT_EQ(buffer.size, 0U);
        AlignedBuffer last;
        EXPECT_EQ(last.data, nullptr);
        EXPECT_EQ(last.size, 0U);
        last = std::move(owner);
        memset(last.data, 1, 8192);
    });
    EXPECT_EQ(LogText(machine), "_aligned_malloc 8192 4096 -> block#1\n_aligned_free block#1\n");
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(PhysicalDisk, BufferWithoutMemoryIsFatal)
{
    FailCall(machine, "_aligned_malloc", 1, ERROR_NOT_ENOUGH_MEMORY);
    result = RunCode(machine, [] { AlignedBuffer(8192, 512); });
    ExpectDeath("FATAL: out of memory allocating aligned I/O buffer (GetLastError=8)\n");
    EXPECT_EQ(LogText(machine), "_aligned_malloc 8192 512 -> failed 8\nGetLastError -> 8\nexit 1\n");
}

TEST_F(PhysicalDisk, BufferOfNoBytesIsABlockAllTheSame)
{
    result = RunCode(machine, [] {
        const AlignedBuffer buffer(0, 64);
        EXPECT_EQ(buffer.size, 0U);
        EXPECT_NE(buffer.data, nullptr);
    });
    EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
    EXPECT_EQ(CountCalls(machine, "_aligned_free"), 1U);
}

TEST_F(PhysicalDisk, BufferCanNotBeAlignedToWhatIsNoPowerOfTwo)
{
    result = RunCode(machine, [] { AlignedBuffer(1040, 520); });
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.errorText, "");
}
