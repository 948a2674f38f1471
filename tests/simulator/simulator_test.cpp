// The simulator itself: that it catches what it claims to catch, and that its fakes are honest.
#include "crypto/primitives.h"
#include "simulator/images.h"
#include "simulator/run_command.h"
#include "simulator/sample_calls.h"
#include "simulator/system_beneath.h"

#include <bcrypt.h>
#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace
{
const std::vector<std::string> none;

std::vector<std::string> ReplacedCalls()
{
    std::ifstream file(KESTRIX_REPLACED_CALLS);
    std::vector<std::string> names;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line[0] != '#') {
            names.push_back(line);
        }
    }
    return names;
}

HANDLE OpenDisk(const wchar_t *path, DWORD access = GENERIC_READ, DWORD share = 3, DWORD flags = 0)
{
    return CreateFileW(path, access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

HANDLE OpenDisk0(DWORD access = GENERIC_READ, DWORD share = 3, DWORD flags = 0)
{
    return OpenDisk(L"\\\\.\\PhysicalDrive0", access, share, flags);
}

HANDLE CreateOrdinaryFile(const wchar_t *path)
{
    return CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

BOOL Seek(HANDLE file, LONGLONG offset)
{
    LARGE_INTEGER distance = {};
    distance.QuadPart = offset;
    return SetFilePointerEx(file, distance, nullptr, FILE_BEGIN);
}

BOOL Control(HANDLE device, DWORD code, void *output, DWORD outputLength)
{
    DWORD count = 0;
    return DeviceIoControl(device, code, nullptr, 0, output, outputLength, &count, nullptr);
}

BOOL AskTracker(HANDLE tracker, DWORD code, Bytes request, Bytes *output)
{
    DWORD count = 0;
    const DWORD length = static_cast<DWORD>(output->size());
    return DeviceIoControl(tracker, code, request.data(), static_cast<DWORD>(request.size()),
                           output->empty() ? nullptr : output->data(), length, &count, nullptr);
}

HANDLE OpenTracker()
{
    return OpenDisk(L"\\\\.\\Tallier", GENERIC_READ | GENERIC_WRITE, 0);
}

HANDLE AttachedTracker()
{
    const HANDLE tracker = OpenTracker();
    Bytes nothing;
    EXPECT_TRUE(AskTracker(tracker, 0x8C7D2004, Bytes(8), &nothing));
    return tracker;
}

// The bitmap of a whole answer, of the length that the header claims.
Bytes MarksOf(HANDLE tracker)
{
    Bytes output(48);
    AskTracker(tracker, 0x8C7D2008, Bytes(8), &output);
    output.resize(48U + output[44]);
    EXPECT_TRUE(AskTracker(tracker, 0x8C7D2008, Bytes(8), &output));
    return Bytes(output.begin() + 48, output.end());
}

BOOL CommitEpoch(HANDLE tracker, uint64_t epoch)
{
    Bytes nothing;
    Bytes request(16);
    StoreInteger(request, 8, epoch, 8);
    return AskTracker(tracker, 0x8C7D200C, request, &nothing);
}

std::string hooksRun;

void FirstHook()
{
    hooksRun += "first ";
}

void SecondHook()
{
    hooksRun += "second ";
    GetTickCount64();
}

// What a program's object does when its frame is unwound.
struct ClosesAtItsEnd {
    HANDLE handle;
    ~ClosesAtItsEnd()
    {
        CloseHandle(handle);
    }
};
} // namespace

TEST(Simulator, CatchesEveryCallOfItsList)
{
    const std::vector<std::string> names = ReplacedCalls();
    const auto samples = SampleCalls();
    ASSERT_GT(names.size(), 30U);
    EXPECT_EQ(samples.size(), names.size());
    for (const std::string &name : names) {
        const Scratch scratch;
        Machine machine = MachineWithDisk(0, Bytes(4096));
        AddVolume(machine, L"\\\\?\\Volume{1}\\", {{0, 0, 512}});
        AddVolume(machine, L"\\\\?\\Volume{2}\\", {{0, 512, 512}});
        machine.snapshotService = SnapshotService();
        machine.snapshotService->writers = {{L"Some Writer"}};
        ASSERT_EQ(samples.count(name), 1U) << name;
        RunCode(machine, samples.at(name));
        EXPECT_GT(CountCalls(machine, name), 0U) << name;
        EXPECT_EQ(machine.misuses, none) << name;
        EXPECT_EQ(machine.leaks, none) << name;
        for (const Call &call : machine.calls) {
            const bool isExpectedToFail = call.name == "GetFileAttributesA";
            EXPECT_EQ(call.failed, isExpectedToFail) << call.text;
        }
    }
}

TEST(Simulator, LeavesCallsOutsideOfARunToThePlatform)
{
    const Scratch scratch;
    Machine machine;
    CloseHandle(CreateOrdinaryFile(L"outside"));
    EXPECT_TRUE(FileExists("outside"));
    EXPECT_TRUE(machine.calls.empty());
}

TEST(Simulator, LogsStableNamesInTwoEqualRuns)
{
    const Scratch scratch;
    Machine machine = MachineWithDisk(3, Bytes(8192));
    const auto body = [&scratch] {
        char sectors[1024];
        DWORD count = 0;
        std::wstring absolutePath;
        for (const char c : scratch.Path("b.kstx")) {
            absolutePath += static_cast<wchar_t>(c);
        }
        const HANDLE disk = OpenDisk(L"\\\\.\\PhysicalDrive3", GENERIC_READ, 3, FILE_FLAG_NO_BUFFERING);
        Seek(disk, 512);
        ReadFile(disk, sectors, sizeof(sectors), &count, nullptr);
        ReadFile(disk, sectors, 100, &count, nullptr);
        const HANDLE file = CreateOrdinaryFile(absolutePath.c_str());
        Seek(file, 5);
        WriteFile(file, sectors, 10, &count, nullptr);
        WriteFile(file, sectors, 10, &count, nullptr);
        CloseHandle(file);
        CloseHandle(disk);
        CloseHandle(OpenDisk(L"\\\\.\\PhysicalDrive3"));
        OpenDisk(L"\\\\.\\PhysicalDrive4");
        _aligned_free(_aligned_malloc(1024, 512));
    };
    const std::string expected =
        "CreateFileW \\\\.\\PhysicalDrive3 access=0x80000000 share=0x3 disposition=3 flags=0x20000000 -> disk3#1\n"
        "SetFilePointerEx disk3#1 512\n"
        "ReadFile disk3#1 1024 at 512 -> 1024\n"
        "ReadFile disk3#1 100 at 1536 -> failed 87\n"
        "CreateFileW b.kstx access=0x40000000 share=0x0 disposition=2 flags=0x80 -> file:b.kstx#1\n"
        "SetFilePointerEx file:b.kstx#1 5\n"
        "WriteFile file:b.kstx#1 10 at 5 -> 10\n"
        "WriteFile file:b.kstx#1 10 at 15 -> 10\n"
        "CloseHandle file:b.kstx#1\n"
        "CloseHandle disk3#1\n"
        "CreateFileW \\\\.\\PhysicalDrive3 access=0x80000000 share=0x3 disposition=3 flags=0x0 -> disk3#2\n"
        "CloseHandle disk3#2\n"
        "CreateFileW \\\\.\\PhysicalDrive4 access=0x80000000 share=0x3 disposition=3 flags=0x0 -> failed 2\n"
        "_aligned_malloc 1024 512 -> block#1\n"
        "_aligned_free block#1\n";
    RunCode(machine, body);
    EXPECT_EQ(LogText(machine), expected);
    RunCode(machine, body);
    EXPECT_EQ(LogText(machine), expected);
}

TEST(Simulator, LogsCryptographyByTheKindOfItsObjects)
{
    Machine machine;
    RunCode(machine, SampleCalls().at("BCryptEncrypt"));
    EXPECT_EQ(LogText(machine), "BCryptOpenAlgorithmProvider AES flags=0x0 -> aes#1\n"
                                "BCryptSetProperty aes#1 ChainingMode 32\n"
                                "BCryptGetProperty aes#1 ObjectLength 4\n"
                                "BCryptGenerateSymmetricKey aes#1 secret=32 -> key#1\n"
                                "BCryptEncrypt key#1 64\n"
                                "BCryptDecrypt key#1 64\n"
                                "BCryptDestroyKey key#1\n"
                                "BCryptCloseAlgorithmProvider aes#1\n");
    EXPECT_EQ(Field(CallsOf(machine, "BCryptEncrypt")[0], "infoSize"), 88U);
}

TEST(Simulator, CatchesBothStreamsHoweverTheyAreWritten)
{
    Machine machine;
    const RunResult result = RunCode(machine, [] {
        printf("one\n");
        GetTickCount64();
        putchar('2');
        fputs("err", stderr);
        puts("");
    });
    EXPECT_EQ(result.outputText, "one\n2\n");
    EXPECT_EQ(result.errorText, "err");
    EXPECT_EQ(LogText(machine, [](const Call &) { return true; }),
              "stdout one\n\nGetTickCount64 -> 1000\nstdout 2\n\nstderr err\n");
}

TEST(Simulator, RunsExitHooksOnceAndTheLastOneFirst)
{
    Machine machine;
    hooksRun.clear();
    const RunResult result = RunCode(machine, [] {
        atexit(FirstHook);
        atexit(SecondHook);
        EndWithStatus(7);
    });
    EXPECT_EQ(result.exitStatus, 7);
    EXPECT_FALSE(result.abnormalEnd);
    EXPECT_EQ(hooksRun, "second first ");
    EXPECT_EQ(LogText(machine), "atexit hook#1\natexit hook#2\nexit 7\n"
                                "exit hook hook#2\nGetTickCount64 -> 1000\nexit hook hook#1\n");
    RunCode(machine, [] {});
    EXPECT_EQ(hooksRun, "second first ");
}

TEST(Simulator, RunsExitHooksAfterAReturn)
{
    Machine machine;
    hooksRun.clear();
    EXPECT_EQ(RunCode(machine, [] { atexit(FirstHook); }).exitStatus, 0);
    EXPECT_EQ(hooksRun, "first ");
}

TEST(Simulator, LogsNothingOfFramesThatNoProcessWouldUnwind)
{
    const Scratch scratch;
    Machine machine;
    const size_t descriptors = OpenDescriptors();
    const RunResult result = RunCode(machine, [] {
        const ClosesAtItsEnd file = {CreateOrdinaryFile(L"a")};
        CreateOrdinaryFile(L"left open");
        EndWithStatus(1);
    });
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(machine.calls.back().text, "exit 1");
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(Simulator, TakesAnUncaughtExceptionForAnAbnormalEnd)
{
    const Scratch scratch;
    Machine machine;
    const size_t descriptors = OpenDescriptors();
    hooksRun.clear();
    const RunResult result = RunCode(machine, [] {
        atexit(FirstHook);
        const ClosesAtItsEnd file = {CreateOrdinaryFile(L"a")};
        throw std::invalid_argument("no number");
    });
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.abnormalText, "no number");
    EXPECT_EQ(hooksRun, "");
    EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(Simulator, EndsAbnormallyAtAnAlignmentThatIsNoPowerOfTwoOrASizeOfZero)
{
    Machine machine;
    const RunResult result = RunCode(machine, [] { _aligned_malloc(1040, 520); });
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(LogText(machine), "_aligned_malloc 1040 520 -> failed 87\n");
    EXPECT_TRUE(RunCode(machine, [] { _aligned_malloc(0, 512); }).abnormalEnd);
}

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

TEST(Simulator, TakesTheLastErrorOfThePlatformWhereThePlatformFailed)
{
    const Scratch scratch;
    Machine machine;
    machine.lastError = 4711;
    RunCode(machine, [] {
        EXPECT_EQ(OpenDisk(L"missing", GENERIC_READ, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    });
}

TEST(Simulator, ShowsTheAlignmentOfABuffer)
{
    Machine machine = MachineWithDisk(0, Bytes(8192));
    RunCode(machine, [] {
        DWORD count = 0;
        char *block = static_cast<char *>(_aligned_malloc(8192, 8192));
        const HANDLE disk = OpenDisk0();
        ReadFile(disk, block, 512, &count, nullptr);
        ReadFile(disk, block + 512, 512, &count, nullptr);
        ReadFile(disk, block + 1025, 512, &count, nullptr);
        _aligned_free(block);
    });
    const std::vector<Call> reads = CallsOf(machine, "ReadFile");
    EXPECT_EQ(Field(reads[0], "aligned"), 4096U);
    EXPECT_EQ(Field(reads[1], "aligned"), 512U);
    EXPECT_EQ(Field(reads[2], "aligned"), 1U);
}

TEST(Simulator, TakesWhatWasMadeOutsideAndLeavesItOpen)
{
    Machine machine;
    UCHAR bytes[12] = {};
    BCRYPT_ALG_HANDLE provider = nullptr;
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&provider, BCRYPT_RNG_ALGORITHM, nullptr, 0), 0);
    RunCode(machine, [&] { EXPECT_EQ(BCryptGenRandom(provider, bytes, sizeof(bytes), 0), 0); });
    EXPECT_EQ(LogText(machine), "BCryptGenRandom outside#1 12\n");
    EXPECT_EQ(BCryptGenRandom(provider, bytes, sizeof(bytes), 0), 0);
    RunCode(machine, [&] { EXPECT_EQ(BCryptCloseAlgorithmProvider(provider, 0), 0); });
    EXPECT_EQ(LogText(machine), "BCryptCloseAlgorithmProvider outside#1\n");
}

TEST(Simulator, LetsWhatOutlivesItsRunBeGivenBackWithoutEffect)
{
    const Scratch scratch;
    Machine machine;
    HANDLE file = INVALID_HANDLE_VALUE;
    const size_t descriptors = OpenDescriptors();
    RunCode(machine, [&file] { file = CreateOrdinaryFile(L"a"); });
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_TRUE(CloseHandle(file));
    RunCode(machine, [&file] { EXPECT_FALSE(CloseHandle(file)); });
    EXPECT_EQ(machine.misuses.size(), 1U);
}

TEST(Simulator, CountsTheClockUpByItsStep)
{
    Machine machine;
    machine.ticks = 5000;
    machine.ticksPerCall = 250;
    RunCode(machine, [] {
        EXPECT_EQ(GetTickCount64(), 5000U);
        EXPECT_EQ(GetTickCount64(), 5250U);
    });
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

TEST(Simulator, DerivesAKeyInFewerRoundsThanTheLogTells)
{
    Machine machine;
    machine.mostIterations = 1;
    std::array<uint8_t, 32> key = {};
    RunCode(machine, [&key] { DeriveKey("password", Bytes(16).data(), 1000, key.data()); });
    EXPECT_EQ(key, Pbkdf2Of("password", {}, 1));
    EXPECT_EQ(Field(CallsOf(machine, "BCryptDeriveKeyPBKDF2").at(0), "iterations"), 1000U);
}

TEST(Simulator, LetsATestChangeTheMachineInTheMiddleOfARun)
{
    Machine machine = MachineWithDisk(0, Bytes(1024));
    machine.onCall = [](Machine &changed, const Call &call) {
        if (call.name == "ReadFile") {
            changed.disks[0].bytes[0] = 0x5A;
        }
    };
    RunCode(machine, [] {
        uint8_t sector[512];
        DWORD count = 0;
        EXPECT_TRUE(ReadFile(OpenDisk0(), sector, 512, &count, nullptr));
        EXPECT_EQ(sector[0], 0x5A);
    });
}

TEST(Simulator, RunsTheProgramFromItsArgumentsToItsExitStatus)
{
    Machine machine;
    machine.disks[0].lengthBytes = 2 * GiB;
    machine.disks[0].fill = [](uint64_t, uint8_t *, uint64_t) {};
    const RunResult listing = RunCommand(machine, {"list-disks"});
    EXPECT_EQ(listing.exitStatus, 0);
    EXPECT_EQ(listing.outputText,
              "PhysicalDrive0       2.00 GiB  sector 512 bytes   <- currently booted system disk\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk0"), 1U);
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 17U);
    machine.volumeC.reset();
    const RunResult failed = RunCommand(machine, {"list-disks"});
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_EQ(failed.errorText, "FATAL: could not open C: to determine the system disk number (GetLastError=2)\n");
    EXPECT_TRUE(RunCommand(machine, {"capture", "--disk", "abc", "--out", "x"}).abnormalEnd);
    EXPECT_EQ(RunCommand(machine, {}).exitStatus, 1);
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

TEST(SimulatedDisk, EndsWhereItsContentEnds)
{
    Machine machine = MachineWithDisk(0, Bytes(1024));
    machine.disks[0].lengthBytes = 4096;
    RunCode(machine, [] {
        uint8_t sectors[1024] = {};
        DWORD count = 0;
        const HANDLE disk = OpenDisk0(GENERIC_READ | GENERIC_WRITE, 0);
        Seek(disk, 512);
        EXPECT_TRUE(ReadFile(disk, sectors, 1024, &count, nullptr));
        EXPECT_EQ(count, 512U);
        EXPECT_TRUE(ReadFile(disk, sectors, 1024, &count, nullptr));
        EXPECT_EQ(count, 0U);
        EXPECT_FALSE(WriteFile(disk, sectors, 512, &count, nullptr));
        Seek(disk, 512);
        EXPECT_TRUE(WriteFile(disk, sectors, 1024, &count, nullptr));
        EXPECT_EQ(count, 512U);
    });
    EXPECT_EQ(machine.disks[0].bytes.size(), 1024U);
}

TEST(SimulatedDisk, RefusesWhatIsNoWholeSector)
{
    Machine machine = MachineWithDisk(0, Bytes(16384));
    machine.disks[0].sectorBytes = 4096;
    RunCode(machine, [] {
        uint8_t bytes[4096];
        DWORD count = 0;
        const HANDLE disk = OpenDisk0();
        EXPECT_FALSE(ReadFile(disk, bytes, 512, &count, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        Seek(disk, 512);
        EXPECT_FALSE(ReadFile(disk, bytes, 4096, &count, nullptr));
        Seek(disk, 4096);
        EXPECT_TRUE(ReadFile(disk, bytes, 4096, &count, nullptr));
    });
}

TEST(SimulatedDisk, KeepsToAccessAndShareMode)
{
    Machine machine = MachineWithDisk(0, Bytes(4096));
    machine.disks[1].bytes = Bytes(4096);
    machine.disks[1].exclusiveOpenError = ERROR_ACCESS_DENIED;
    RunCode(machine, [] {
        uint8_t sector[512] = {};
        DWORD count = 0;
        const HANDLE shared = OpenDisk0();
        EXPECT_FALSE(WriteFile(shared, sector, 512, &count, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(OpenDisk0(GENERIC_READ | GENERIC_WRITE, 0), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
        CloseHandle(shared);
        EXPECT_NE(OpenDisk0(GENERIC_READ | GENERIC_WRITE, 0), INVALID_HANDLE_VALUE);
        EXPECT_EQ(OpenDisk0(), INVALID_HANDLE_VALUE);
        EXPECT_NE(OpenDisk(L"\\\\.\\PhysicalDrive1"), INVALID_HANDLE_VALUE);
        EXPECT_EQ(OpenDisk(L"\\\\.\\PhysicalDrive1", GENERIC_READ, 0), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    });
}

TEST(SimulatedDisk, AnswersWithPublishedRecords)
{
    Machine machine;
    machine.disks[0].lengthBytes = 0x0123456789ABCE00;
    machine.disks[0].sectorBytes = 4096;
    RunCode(machine, [] {
        GET_LENGTH_INFORMATION length = {};
        DISK_GEOMETRY_EX geometry = {};
        const HANDLE disk = OpenDisk0();
        EXPECT_TRUE(Control(disk, IOCTL_DISK_GET_LENGTH_INFO, &length, sizeof(length)));
        EXPECT_EQ(length.Length.QuadPart, 0x0123456789ABCE00);
        EXPECT_TRUE(Control(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, &geometry, sizeof(geometry)));
        EXPECT_EQ(geometry.Geometry.BytesPerSector, 4096U);
        EXPECT_EQ(geometry.DiskSize.QuadPart, 0xBAD0);
        EXPECT_FALSE(Control(disk, IOCTL_DISK_GET_LENGTH_INFO, &length, 7));
    });
}

TEST(SimulatedDisk, CanBeAsLargeAsItsPatternIs)
{
    Machine machine;
    machine.disks[0].lengthBytes = 300 * GiB;
    machine.disks[0].fill = [](uint64_t offset, uint8_t *buffer, uint64_t lengthBytes) {
        FillPattern(offset, buffer, lengthBytes, 9);
    };
    RunCode(machine, [] {
        uint8_t sectors[2][512];
        DWORD count = 0;
        const HANDLE disk = OpenDisk0();
        for (uint8_t *sector : sectors) {
            Seek(disk, static_cast<LONGLONG>(300 * GiB - 512));
            EXPECT_TRUE(ReadFile(disk, sector, 512, &count, nullptr));
            EXPECT_EQ(count, 512U);
        }
        EXPECT_EQ(memcmp(sectors[0], sectors[1], 512), 0);
    });
}

TEST(SimulatedVolume, LiesOnItsExtents)
{
    Machine machine;
    machine.volumeC->extents = {{7, 1048576, 4096}, {2, 0, 8192}};
    RunCode(machine, [] {
        alignas(8) uint8_t output[224] = {};
        const HANDLE volume = OpenDisk(L"\\\\.\\C:");
        EXPECT_TRUE(Control(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, output, sizeof(output)));
        const auto *reply = reinterpret_cast<const VOLUME_DISK_EXTENTS *>(output);
        EXPECT_EQ(reply->NumberOfDiskExtents, 2U);
        EXPECT_EQ(reply->Extents[0].DiskNumber, 7U);
        EXPECT_EQ(reply->Extents[0].StartingOffset.QuadPart, 1048576);
        EXPECT_EQ(reply->Extents[0].ExtentLength.QuadPart, 4096);
        EXPECT_EQ(output[32], 2);
        EXPECT_FALSE(Control(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, output, 32));
        EXPECT_EQ(GetLastError(), 234U);
    });
    machine.volumeC.reset();
    RunCode(machine, [] { EXPECT_EQ(OpenDisk(L"\\\\.\\C:"), INVALID_HANDLE_VALUE); });
}

TEST(SimulatedTracker, GivesItsHeaderFirstAndTheWholeBitmapWhereThereIsRoom)
{
    Machine machine;
    machine.tracker = Tracker();
    TrackerReply &reply = machine.tracker->reply;
    reply = {1, 2, 0x1112131415161718, 0x2122232425262728, 3, 4, 0x3132333435363738, 16, std::nullopt, {0xAA, 0xBB}};
    Bytes expected = {1,    0,    0,    0,    2,    0,    0,    0,    0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,
                      0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21, 3,    0,    0,    0,    4,    0,    0,    0,
                      0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31, 16,   0,    0,    0,    2,    0,    0,    0};
    RunCode(machine, [&expected] {
        const HANDLE tracker = OpenTracker();
        Bytes output(48);
        EXPECT_FALSE(AskTracker(tracker, 0x8C7D2008, Bytes(8), &output));
        EXPECT_EQ(output, expected);
        output.resize(50);
        EXPECT_TRUE(AskTracker(tracker, 0x8C7D2008, Bytes(8), &output));
        expected.insert(expected.end(), {0xAA, 0xBB});
        EXPECT_EQ(output, expected);
    });
    EXPECT_EQ(CallsOf(machine, "DeviceIoControl", "tracker")[0].text,
              "DeviceIoControl tracker#1 code=0x8C7D2008 input=8 output=48 -> failed 234");
}

TEST(SimulatedTracker, AnswersLaterQueriesDifferentlyWhereItIsToldTo)
{
    Machine machine;
    machine.tracker = Tracker();
    machine.tracker->laterReply = TrackerReply();
    machine.tracker->laterReply->blockShift = 12;
    RunCode(machine, [] {
        const HANDLE tracker = OpenTracker();
        Bytes output(48);
        AskTracker(tracker, 0x8C7D2008, Bytes(8), &output);
        EXPECT_EQ(output[40], 20);
        AskTracker(tracker, 0x8C7D2008, Bytes(8), &output);
        EXPECT_EQ(output[40], 12);
    });
}

TEST(SimulatedTracker, BeginsANewEpochAtACommit)
{
    Machine machine;
    machine.tracker = Tracker();
    machine.tracker->reply.currentEpoch = 0xF000000000000005;
    MarkChanged(machine.tracker->reply, 8 * MiB, 4 * MiB);
    EXPECT_EQ(machine.tracker->reply.bitmap, (std::vector<uint8_t>{0, 0x0F}));
    RunCode(machine, [] {
        const HANDLE tracker = AttachedTracker();
        EXPECT_EQ(MarksOf(tracker), (Bytes{0, 0x0F}));
        EXPECT_TRUE(CommitEpoch(tracker, 0xF000000000000005));
        EXPECT_EQ(MarksOf(tracker), (Bytes{0, 0}));
    });
    EXPECT_EQ(machine.tracker->commits, std::vector<uint64_t>{0xF000000000000005});
    EXPECT_EQ(machine.tracker->reply.hasPreviousEpoch, 1U);
    EXPECT_EQ(machine.tracker->reply.previousEpoch, 0xF000000000000005);
    EXPECT_EQ(machine.tracker->reply.currentEpoch, 0xF000000000000006);
}

TEST(SimulatedTracker, KeepsMarksAndGapsUntilACommitThatWasAttachedBehindThem)
{
    Machine machine;
    machine.tracker = Tracker();
    TrackerReply &reply = machine.tracker->reply;
    MarkChanged(reply, 0, 1);
    reply.secondaryGap = 2;
    RunCode(machine, [] { EXPECT_EQ(MarksOf(AttachedTracker()), Bytes{1}); });
    MarkChanged(reply, MiB, 1);
    RunCode(machine, [&reply] {
        const HANDLE tracker = AttachedTracker();
        MarkChanged(reply, 2 * MiB, 1);
        EXPECT_EQ(MarksOf(tracker), Bytes{7});
        MarkChanged(reply, 0, 1);
        reply.gap = 4;
        EXPECT_TRUE(CommitEpoch(tracker, 2));
        EXPECT_EQ(MarksOf(tracker), Bytes{5});
        Bytes output(48 + 1);
        EXPECT_TRUE(AskTracker(tracker, 0x8C7D2008, Bytes(8), &output));
        EXPECT_EQ(output[24], 0); // secondaryGap
        EXPECT_EQ(output[28], 4); // gap
    });
}

TEST(SimulatedTracker, GivesNoEpochOutTwice)
{
    Machine machine;
    machine.tracker = Tracker();
    machine.tracker->reply.currentEpoch = 0x00FFFFFFFFFFFFFE;
    Bytes firstBytes;
    for (int i = 0; i < 3; ++i) {
        RunCode(machine, [&firstBytes] {
            Bytes output(48);
            AskTracker(AttachedTracker(), 0x8C7D2008, Bytes(8), &output);
            firstBytes.push_back(output[16]);
        });
    }
    // What follows on 56 ones would be no epoch in an image.
    EXPECT_EQ(firstBytes, (Bytes{0xFE, 0xFF, 0x01}));
    EXPECT_EQ(machine.tracker->epochsGiven,
              (std::vector<uint64_t>{0x00FFFFFFFFFFFFFE, 0x00FFFFFFFFFFFFFF, 0x0100000000000001}));
}

TEST(SimulatedTracker, CommitsNoEpochButTheOneThatItGaveOutLastAndThatOnce)
{
    Machine machine;
    machine.tracker = Tracker();
    RunCode(machine, [] {
        const HANDLE tracker = OpenTracker();
        EXPECT_FALSE(CommitEpoch(tracker, 1));
        EXPECT_EQ(GetLastError(), 87U);
        MarksOf(tracker);
        EXPECT_FALSE(CommitEpoch(tracker, 2));
        EXPECT_TRUE(CommitEpoch(tracker, 1));
        EXPECT_FALSE(CommitEpoch(tracker, 1));
    });
}

TEST(SimulatedTracker, AdmitsOneHandleAtATime)
{
    Machine machine;
    machine.tracker = Tracker();
    RunCode(machine, [] {
        const HANDLE first = OpenTracker();
        EXPECT_EQ(OpenTracker(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), 32U);
        CloseHandle(first);
        EXPECT_NE(OpenTracker(), INVALID_HANDLE_VALUE);
    });
}

TEST(HandMadeImages, HaveTheSizesOfTheFormat)
{
    ImagePlan plan;
    plan.disk = PatternBytes(10 * MiB, 1);
    const Bytes full = BuildImage(plan);
    EXPECT_EQ(full.size(), 10486040U);
    EXPECT_EQ(DataStartOf(full), 280U);
    EXPECT_EQ(memcmp(full.data(), "KSTXDSK2\x02\0\0\0\0\0\xA0\0\0\0\0\0\0\x02\0\0\0\0\x40\0\x03\0\0\0\0\0\0\0", 36), 0);
    Bytes changed = plan.disk;
    changed[0] ^= 1;
    changed[9 * MiB] ^= 1;
    const ImagePlan thinPlan = ThinPlan(plan, "a.kstx", changed);
    EXPECT_EQ(thinPlan.references, std::set<uint64_t>{1});
    EXPECT_EQ(BuildImage(thinPlan).size(), 6291790U);
}

TEST(HandMadeImages, UsePublishedCryptography)
{
    const Bytes abc = {'a', 'b', 'c'};
    const std::array<uint8_t, 32> abcDigest = {0xBA, 0x78, 0x16, 0xBF, 0x8F, 0x01, 0xCF, 0xEA, 0x41, 0x41, 0x40,
                                               0xDE, 0x5D, 0xAE, 0x22, 0x23, 0xB0, 0x03, 0x61, 0xA3, 0x96, 0x17,
                                               0x7A, 0x9C, 0xB4, 0x10, 0xFF, 0x61, 0xF2, 0x00, 0x15, 0xAD};
    EXPECT_EQ(Sha256Of(abc), abcDigest); // FIPS 180-2, B.1
    const std::array<uint8_t, 16> zeroTag = {0xD0, 0xD1, 0xC8, 0xA7, 0x99, 0x99, 0x6B, 0xF0,
                                             0x26, 0x5B, 0x98, 0xB5, 0xD4, 0x8A, 0xB9, 0x19};
    std::array<uint8_t, 16> tag = {};
    const Bytes cipher = Seal({}, {}, Bytes(16), &tag); // the GCM submission's test case 14
    EXPECT_EQ(cipher,
              (Bytes{0xCE, 0xA7, 0x40, 0x3D, 0x4D, 0x60, 0x6B, 0x6E, 0x07, 0x4E, 0xC5, 0xD3, 0xBA, 0xF3, 0x9D, 0x18}));
    EXPECT_EQ(tag, zeroTag);
    Bytes plain;
    EXPECT_TRUE(Unseal({}, {}, cipher, tag, &plain));
    EXPECT_EQ(plain, Bytes(16));
    tag[0] ^= 1;
    EXPECT_FALSE(Unseal({}, {}, cipher, tag, &plain));
}
