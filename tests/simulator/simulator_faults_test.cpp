// The faults of the simulator: that the call fails that was meant, in the way that was meant, and no other.
#include "simulator/calling.h"
#include "simulator/images.h"
#include "simulator/sample_calls.h"
#include "simulator/system_beneath.h"

#include <bcrypt.h>
#include <winioctl.h>

#include <cstring>
#include <filesystem>

TEST(Simulator, FailsTheCallOfThatNameAndCount)
{
    Machine machine = MachineWithDisk(0, Bytes(4096));
    FailCall(machine, "SetFilePointerEx", 2, ERROR_CRC);
    RunCode(machine, [] {
        const HANDLE disk = OpenDisk0();
        EXPECT_TRUE(Seek(disk, 512));
        EXPECT_FALSE(Seek(disk, 1024));
        EXPECT_EQ(GetLastError(), ERROR_CRC);
        EXPECT_TRUE(Seek(disk, 1536));
        CloseHandle(disk);
    });
    EXPECT_EQ(machine.faultsFired, 1U);
    EXPECT_TRUE(CallsOf(machine, "SetFilePointerEx")[1].faulted);
}

TEST(Simulator, FailsEveryLaterCallWhenAskedTo)
{
    Machine machine;
    FailCall(machine, "_aligned_malloc", 2, ERROR_NOT_ENOUGH_MEMORY).forGood = true;
    RunCode(machine, [] {
        EXPECT_NE(_aligned_malloc(64, 64), nullptr);
        EXPECT_EQ(_aligned_malloc(64, 64), nullptr);
        EXPECT_EQ(_aligned_malloc(64, 64), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    });
    EXPECT_EQ(machine.faultsFired, 2U);
}

TEST(Simulator, FailsCallsOfOneObjectOnly)
{
    const Scratch scratch;
    Machine machine = MachineWithDisk(1, Bytes(4096));
    machine.disks[10].bytes = Bytes(4096);
    FailCall(machine, "CloseHandle", 1, ERROR_IO_DEVICE).object = "disk1";
    FailCall(machine, "CloseHandle", 2, ERROR_CRC).object = "file";
    RunCode(machine, [] {
        EXPECT_TRUE(CloseHandle(OpenDisk(L"\\\\.\\PhysicalDrive10")));
        EXPECT_FALSE(CloseHandle(OpenDisk(L"\\\\.\\PhysicalDrive1")));
        EXPECT_TRUE(CloseHandle(CreateOrdinaryFile(L"a")));
        EXPECT_FALSE(CloseHandle(CreateOrdinaryFile(L"b")));
        EXPECT_EQ(GetLastError(), ERROR_CRC);
    });
    EXPECT_EQ(machine.misuses, none);
}

TEST(Simulator, FailsOneControlCodeOnly)
{
    Machine machine = MachineWithDisk(0, Bytes(4096));
    FailControl(machine, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, 1, ERROR_NOT_SUPPORTED);
    RunCode(machine, [] {
        uint8_t output[40] = {};
        const HANDLE disk = OpenDisk0();
        EXPECT_TRUE(Control(disk, IOCTL_DISK_GET_LENGTH_INFO, output, 8));
        EXPECT_FALSE(Control(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, output, 40));
        EXPECT_TRUE(Control(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, output, 40));
    });
}

TEST(Simulator, GivesCryptographyTheStatusOfTheFault)
{
    Machine machine;
    machine.lastError = 77;
    FailCall(machine, "BCryptOpenAlgorithmProvider", 1, 0xC0000017U);
    RunCode(machine, [] {
        BCRYPT_ALG_HANDLE provider = nullptr;
        const NTSTATUS status = BCryptOpenAlgorithmProvider(&provider, BCRYPT_RNG_ALGORITHM, nullptr, 0);
        EXPECT_EQ(status, static_cast<NTSTATUS>(0xC0000017U));
        EXPECT_EQ(provider, nullptr);
        EXPECT_EQ(GetLastError(), 77U);
    });
}

TEST(Simulator, KeepsAFailedWriteFromHappeningUnlessItIsToFailAfterwards)
{
    for (const bool afterEffect : {false, true}) {
        Machine machine = MachineWithDisk(0, Bytes(1024));
        FailCall(machine, "WriteFile", 1, ERROR_IO_DEVICE).afterEffect = afterEffect;
        RunCode(machine, [] {
            const Bytes sector(512, 0xEE);
            DWORD count = 99;
            const HANDLE disk = OpenDisk0(GENERIC_READ | GENERIC_WRITE, 0);
            EXPECT_FALSE(WriteFile(disk, sector.data(), 512, &count, nullptr));
        });
        EXPECT_EQ(machine.disks[0].bytes[511], afterEffect ? 0xEE : 0);
    }
}

TEST(Simulator, TransfersPartOfAReadThatThenFails)
{
    Machine machine = MachineWithDisk(0, PatternBytes(1024, 1));
    Fault &fault = FailCall(machine, "ReadFile", 1, ERROR_CRC);
    fault.afterEffect = true;
    fault.transferBytes = 512;
    RunCode(machine, [&machine] {
        Bytes sectors(1024);
        DWORD count = 0;
        EXPECT_FALSE(ReadFile(OpenDisk0(), sectors.data(), 1024, &count, nullptr));
        EXPECT_EQ(count, 512U);
        EXPECT_EQ(memcmp(sectors.data(), machine.disks[0].bytes.data(), 512), 0);
        EXPECT_EQ(sectors[512], 0);
    });
}

TEST(Simulator, MakesTransfersShort)
{
    const Scratch scratch;
    WriteText("pw.txt", "password");
    Machine machine = MachineWithDisk(0, Bytes(1024));
    ShortenCall(machine, "ReadFile", 1, 512);
    ShortenCall(machine, "WriteFile", 1, 3);
    ShortenCall(machine, "fread", 1, 4);
    RunCode(machine, [] {
        char bytes[1024] = {};
        DWORD count = 0;
        EXPECT_TRUE(ReadFile(OpenDisk0(), bytes, 1024, &count, nullptr));
        EXPECT_EQ(count, 512U);
        const HANDLE file = CreateOrdinaryFile(L"a");
        EXPECT_TRUE(WriteFile(file, bytes, 10, &count, nullptr));
        EXPECT_EQ(count, 3U);
        CloseHandle(file);
        FILE *stream = nullptr;
        ASSERT_EQ(fopen_s(&stream, "pw.txt", "rb"), 0);
        EXPECT_EQ(fread(bytes, 1, 256, stream), 4U);
        EXPECT_EQ(fread(bytes, 1, 256, stream), 4U);
        EXPECT_EQ(fclose(stream), 0);
    });
    EXPECT_EQ(ReadBytes("a").size(), 3U);
}

TEST(Simulator, ClosesEvenWhenTheCloseIsToFail)
{
    const Scratch scratch;
    Machine machine;
    FailCall(machine, "CloseHandle", 1, ERROR_IO_DEVICE);
    RunCode(machine, [] {
        const HANDLE file = CreateOrdinaryFile(L"a");
        EXPECT_FALSE(CloseHandle(file));
        EXPECT_FALSE(CloseHandle(file));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>{"CloseHandle file:a#1: no open handle"});
}

TEST(Simulator, TakesNoFlagsWhereAProviderIsClosed)
{
    Machine machine;
    RunCode(machine, [] {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RNG_ALGORITHM, nullptr, 0);
        EXPECT_EQ(BCryptCloseAlgorithmProvider(algorithm, 1), 0);
    });
    EXPECT_EQ(machine.misuses,
              std::vector<std::string>{"BCryptCloseAlgorithmProvider rng#1: there are no flags for it"});
}

TEST(Simulator, UndoesAnOpenThatFailsAfterItsEffect)
{
    const Scratch scratch;
    Machine machine;
    const size_t descriptors = OpenDescriptors();
    FailCall(machine, "CreateFileW", 1, ERROR_DISK_FULL).afterEffect = true;
    RunCode(machine, [descriptors] {
        EXPECT_EQ(CreateOrdinaryFile(L"a"), INVALID_HANDLE_VALUE);
        EXPECT_EQ(OpenDescriptors(), descriptors + 4); // the two caught streams and what stood there before
    });
    EXPECT_TRUE(FileExists("a"));
}

TEST(Simulator, SweepsThroughEveryCallThatCanFail)
{
    uint32_t nth = 1;
    for (;; ++nth) {
        Machine machine = MachineWithDisk(0, Bytes(4096));
        FailAnyCall(machine, nth, false);
        RunCode(machine, SampleCalls().at("ReadFile"));
        if (machine.faultsFired == 0) {
            EXPECT_EQ(machine.fallibleCalls, nth - 1);
            break;
        }
        EXPECT_TRUE(machine.calls[nth - 1].failed);
        EXPECT_EQ(machine.calls[nth - 1].error, ERROR_IO_DEVICE);
    }
    EXPECT_EQ(nth, 7U); // an open, two seeks, a read, a write, a close, and then none
}

TEST(Simulator, KeepsTheLastErrorOfAFailureUnlessASuccessIsToSpoilIt)
{
    Machine machine = MachineWithDisk(0, Bytes(4096));
    const auto body = [](DWORD expected) {
        const HANDLE disk = OpenDisk0();
        EXPECT_EQ(OpenDisk(L"\\\\.\\PhysicalDrive9"), INVALID_HANDLE_VALUE);
        CloseHandle(disk);
        EXPECT_EQ(GetLastError(), expected);
    };
    RunCode(machine, [&] { body(ERROR_FILE_NOT_FOUND); });
    machine.lastErrorAfterSuccess = 4711;
    RunCode(machine, [&] { body(4711); });
}

TEST(Simulator, FailsTheAllocationOfThatCount)
{
    Machine machine;
    machine.failingAllocation = 2;
    const RunResult result = RunCode(machine, [] {
        const std::vector<uint64_t> first(100);
        const std::vector<uint64_t> second(100);
        printf("%p %p", static_cast<const void *>(first.data()), static_cast<const void *>(second.data()));
    });
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.abnormalText, "std::bad_alloc");
    EXPECT_EQ(result.outputText, "");
}

TEST(Simulator, LeavesNothingOpenAfterASweepOfTheProgram)
{
    const Scratch scratch;
    WriteText("pw.txt", "password");
    ImagePlan plan;
    plan.disk = PatternBytes(3 * 4096, 1);
    plan.chunkSize = 4096;
    plan.encrypted = true;
    plan.kdfIterations = 2;
    WriteBytes("image.kstx", BuildImage(plan));
    const size_t descriptors = OpenDescriptors();
    for (const bool forGood : {false, true}) {
        uint32_t nth = 1;
        for (;; ++nth) {
            Machine machine;
            FailAnyCall(machine, nth, forGood);
            const RunResult result = RunCommand(machine, {"verify", "--in", "image.kstx", "--password-file", "pw.txt"});
            ASSERT_EQ(OpenDescriptors(), descriptors) << nth;
            ASSERT_EQ(machine.misuses, none) << nth;
            if (machine.faultsFired == 0) {
                EXPECT_EQ(result.exitStatus, 0) << result.errorText;
                break;
            }
        }
        EXPECT_GT(nth, 20U);
    }
}
