// The simulator itself: that it catches what it claims to catch, and how a run begins and ends.
#include "crypto/primitives.h"
#include "simulator/calling.h"
#include "simulator/images.h"
#include "simulator/sample_calls.h"
#include "simulator/system_beneath.h"

#include <bcrypt.h>
#include <winioctl.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace
{
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
