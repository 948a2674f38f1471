// Every call of verify, restore and consolidate is made to fail, one after the other, once and for good.
//
// A run then ends in one of three ways: with exit status 1 and one of the lines that belong to the call that failed,
// as one without memory does, or, where nobody looks at the call's result, as if nothing had happened. Whatever it is,
// nothing is closed twice, a target holds the chunks that were written and else what it held, and a new file that
// verify accepts has the right content.
#include "operations/operations_fixture.h"

#include <map>
#include <regex>
#include <set>

using namespace operations;

namespace
{
using Messages = std::set<std::string>;

const Messages findings = {
    "Verify FAILED - 1 of 3 chunks did not match. Do not trust this image for restore.\n",
    "Verify FAILED - 2 of 3 chunks did not match. Do not trust this image for restore.\n",
    "Verify FAILED - 3 of 3 chunks did not match. Do not trust this image for restore.\n",
};
const std::string badPin =
    "Base image base.kstx is not the one this image was made against (it was modified or replaced).\n"
    "FATAL: base image does not match the one pinned in the thin image";
const Messages badChunks = {"FATAL: chunk failed its hash check (corrupt image or base)",
                            "FATAL: chunk failed authentication (corrupt or tampered image)",
                            "FATAL: could not read chunk data - image is truncated"};

Messages operator+(Messages all, const Messages &more)
{
    all.insert(more.begin(), more.end());
    return all;
}

// Both lines of a restore that stops at a chunk with a bad tag or digest, for each chunk.
Messages RestoreFindings()
{
    Messages all;
    for (const char *chunk : {"0", "1", "2"}) {
        for (const char *what : {" failed authentication (corrupt/tampered image)", " hash mismatch (corrupt image)"}) {
            all.insert(std::string("\nFATAL: chunk ") + chunk + what +
                       " - restore aborted, target disk left partially written.\n");
        }
    }
    return all;
}

// What may end a run after a call of that name failed, without the number in brackets. The empty text stands for a run
// without any effect. A failed digest or seek shows in what is read or compared next.
const std::map<std::string, Messages> &Endings()
{
    static const Messages badDigest = findings + badChunks + RestoreFindings() + Messages{badPin, ""};
    static const std::map<std::string, Messages> endings = {
        {"CreateFileW",
         {"could not open image file: image.kstx\nFATAL: could not open image file",
          "could not open image file: base.kstx\nFATAL: could not open image file",
          "could not open image file: out.kstx\nFATAL: could not open image file",
          "FATAL: could not create output image file", "FATAL: could not open C: to determine the system disk number",
          "Could not open disk 1 exclusively for writing (GetLastError=1117).\n"
          "This almost always means a volume on it is still mounted/in use.\n"
          "Take it offline first: diskpart > select disk 1 > offline disk\n"}},
        {"ReadFile",
         {"FATAL: could not read image header - file is truncated or not a .kstx image",
          "FATAL: could not read chunk table - image is truncated",
          "FATAL: thin image has no valid trailer - file is truncated", "FATAL: could not read thin image trailer",
          "FATAL: could not read chunk data - image is truncated",
          "FATAL: could not read chunk data from image (truncated?)",
          "FATAL: could not read chunk data from image - restore aborted, target disk left partially written"}},
        {"WriteFile",
         {"FATAL: WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet",
          "FATAL: WriteFile failed while consolidating (disk full?)",
          "FATAL: not a recognized Kestrix image (bad magic/version)",
          "FATAL: image has a thin chunk but no base image"}},
        {"SetFilePointerEx", findings + badChunks + RestoreFindings() +
                                 Messages{"FATAL: thin image has no valid trailer - file is truncated",
                                          "FATAL: could not read thin image trailer",
                                          "FATAL: could not read chunk data from image (truncated?)",
                                          "FATAL: not a recognized Kestrix image (bad magic/version)", ""}},
        {"GetFileSizeEx", {"FATAL: thin image has no valid trailer - file is truncated"}},
        // The first of a consolidation asks for a file that shall not be there.
        {"GetFileAttributesA",
         {"This is a thin (incremental) image; its base image is missing: base.kstx\n"
          "Keep every image of a chain in the same folder.\nFATAL: base image of a thin image not found",
          ""}},
        {"CloseHandle", {"", "FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"}},
        {"DeviceIoControl",
         {"FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", "FATAL: IOCTL_DISK_GET_LENGTH_INFO failed",
          "FATAL: IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed", ""}},
        {"_fullpath", {"FATAL: could not resolve image paths"}},
        {"_aligned_malloc", {"FATAL: out of memory allocating aligned I/O buffer"}},
        {"fopen_s", {"FATAL: could not open password file"}},
        {"fread", {"FATAL: password file is empty", ""}},
        {"fclose", {""}},
        {"BCryptOpenAlgorithmProvider",
         {"FATAL: BCryptOpenAlgorithmProvider(SHA256)", "FATAL: BCryptOpenAlgorithmProvider(HMAC-SHA256)",
          "FATAL: BCryptOpenAlgorithmProvider(AES)", "FATAL: BCryptOpenAlgorithmProvider(RNG)"}},
        {"BCryptCloseAlgorithmProvider", {""}},
        {"BCryptSetProperty", {"FATAL: BCryptSetProperty(GCM)"}},
        // Its length stays 0, and what the platform makes of that decides.
        {"BCryptGetProperty", {"FATAL: BCryptCreateHash", "FATAL: BCryptGenerateSymmetricKey", ""}},
        {"BCryptCreateHash", {"FATAL: BCryptCreateHash"}},
        {"BCryptHashData", badDigest},
        {"BCryptFinishHash", badDigest},
        {"BCryptDestroyHash", {""}},
        {"BCryptDeriveKeyPBKDF2", {"FATAL: BCryptDeriveKeyPBKDF2"}},
        {"BCryptGenerateSymmetricKey", {"FATAL: BCryptGenerateSymmetricKey"}},
        {"BCryptDestroyKey", {""}},
        {"BCryptEncrypt", {"FATAL: BCryptEncrypt"}},
        {"BCryptDecrypt", findings + badChunks + RestoreFindings()},
        {"BCryptGenRandom", {"FATAL: BCryptGenRandom"}},
    };
    return endings;
}

std::string WithoutNumber(const std::string &errorText)
{
    static const std::regex number(" \\((GetLastError=(1117|5|8|0|4711)|NTSTATUS 0xC000[0-9A-F]{4})\\)\n$");
    return std::regex_replace(errorText, number, "");
}

struct OperationsSweep : OperationsTest {
    OperationsSweep()
    {
        disk = WriteThin(SmallPlan(false), {1}, true);
    }

    // The calls of the run that faults have hit.
    std::vector<Call> Faulted() const
    {
        std::vector<Call> faulted;
        for (const Call &call : machine.calls) {
            if (call.faulted) {
                faulted.push_back(call);
            }
        }
        return faulted;
    }

    void ExpectStatedEnd(const RunResult &result, const std::string &cleanOutput) const
    {
        Messages allowed;
        bool isWithoutMemory = false;
        bool mayPass = true;
        for (const Call &call : Faulted()) {
            isWithoutMemory = isWithoutMemory || call.name == "calloc";
            if (call.name != "calloc") {
                const Messages &endings = Endings().at(call.name);
                allowed.insert(endings.begin(), endings.end());
            }
            mayPass = mayPass && call.name != "calloc" && Endings().at(call.name).count("") != 0;
        }
        if (result.abnormalEnd) {
            EXPECT_TRUE(isWithoutMemory);
            EXPECT_EQ(result.abnormalText, "std::bad_alloc");
            EXPECT_EQ(result.errorText, "");
        } else if (result.exitStatus == 0) {
            EXPECT_TRUE(mayPass);
            EXPECT_EQ(result.outputText, cleanOutput);
            EXPECT_EQ(result.errorText, "");
        } else {
            EXPECT_EQ(result.exitStatus, 1);
            EXPECT_NE(result.errorText, "");
            EXPECT_EQ(allowed.count(WithoutNumber(result.errorText)), 1U) << result.errorText;
        }
    }

    // Runs the command with each of its first calls failing in turn; after each run, prepared anew, check looks at the
    // rest.
    void SweepCalls(const Arguments &arguments, uint32_t calls, bool forGood, const std::function<void()> &prepare,
                    const std::function<void(const RunResult &result)> &check)
    {
        machine.faults.clear();
        prepare();
        const std::string cleanOutput = RunCommand(machine, arguments).outputText;
        for (uint32_t nth = 1; nth <= calls; ++nth) {
            machine.faults.clear();
            FailAnyCall(machine, nth, forGood);
            prepare();
            const RunResult result = RunCommand(machine, arguments);
            ASSERT_GT(machine.faultsFired, 0U);
            SCOPED_TRACE(Faulted()[0].text + (forGood ? " and every later call" : ""));
            ExpectStatedEnd(result, cleanOutput);
            ExpectNoMisuse();
            check(result);
        }
    }

    // All calls, each failing once and then for good.
    void Sweep(const Arguments &arguments, uint32_t leastCalls, const std::function<void()> &prepare,
               const std::function<void(const RunResult &result)> &check)
    {
        for (const bool forGood : {false, true}) {
            machine.faults.clear();
            prepare();
            RunCommand(machine, arguments);
            const uint32_t calls = machine.fallibleCalls;
            EXPECT_GE(calls, leastCalls);
            SweepCalls(arguments, calls, forGood, prepare, check);
        }
    }

    // As many chunks of the disk's three as were written, and behind them the old content.
    void ExpectChunksBeforeTheFault(const RunResult &result, const Bytes &old) const
    {
        const std::vector<Call> writes = CallsOf(machine, "WriteFile", "disk1");
        const auto failed = std::count_if(writes.begin(), writes.end(), [](const Call &call) { return call.failed; });
        const size_t written = writes.size() - static_cast<size_t>(failed);
        EXPECT_TRUE(machine.disks.at(1).bytes == WithChunksOf(disk, old, written));
        EXPECT_TRUE(result.abnormalEnd || result.exitStatus != 0 || written == 3);
    }

    // out.kstx is not there, is no image, or is one of the right content.
    void ExpectNoWrongImage() const
    {
        if (!FileExists("out.kstx")) {
            return;
        }
        Machine other;
        if (RunCommand(other, {"verify", "--in", "out.kstx", "--password-file", "pw"}).exitStatus != 0) {
            return;
        }
        other.disks[2].bytes = Bytes(disk.size());
        const RunResult restored = RunCommand(
            other, {"restore", "--in", "out.kstx", "--disk", "2", "--confirm", "YES", "--password-file", "pw"});
        EXPECT_EQ(restored.exitStatus, 0) << restored.errorText;
        EXPECT_TRUE(other.disks[2].bytes == disk);
    }

    Bytes disk;
};
} // namespace

TEST_F(OperationsSweep, OfVerify)
{
    for (const bool baseSealed : {false, true}) {
        disk = WriteThin(SmallPlan(baseSealed), {1}, !baseSealed);
        Sweep(
            {"verify", "--in", path, "--password-file", "pw"}, 50, [] {}, [](const RunResult &) {});
    }
}

TEST_F(OperationsSweep, OfRestore)
{
    const Bytes old = PatternBytes(diskBytes, 99);
    for (const bool baseSealed : {false, true}) {
        disk = WriteThin(SmallPlan(baseSealed), {1}, !baseSealed);
        Sweep(
            {"restore", "--in", path, "--disk", "1", "--confirm", "YES", "--password-file", "pw"}, 60,
            [&] { machine.disks[1].bytes = old; },
            [&](const RunResult &result) { ExpectChunksBeforeTheFault(result, old); });
    }
}

TEST_F(OperationsSweep, OfRestoreWithoutReferences)
{
    const Bytes old = PatternBytes(diskBytes, 99);
    disk = SmallPlan().disk;
    for (const bool sealed : {false, true}) {
        Write(SmallPlan(sealed));
        Sweep(
            {"restore", "--in", path, "--disk", "1", "--confirm", "YES", "--password-file", "pw"}, 40,
            [&] { machine.disks[1].bytes = old; },
            [&](const RunResult &result) { ExpectChunksBeforeTheFault(result, old); });
    }
}

TEST_F(OperationsSweep, OfConsolidateToAPlainImage)
{
    const Bytes sources[] = {ReadBytes(path), ReadBytes("base.kstx")};
    Sweep(
        {"consolidate", "--in", path, "--out", "out.kstx", "--password-file", "pw"}, 100,
        [] { std::filesystem::remove("out.kstx"); },
        [&](const RunResult &) {
            ExpectNoWrongImage();
            EXPECT_TRUE(ReadBytes(path) == sources[0] && ReadBytes("base.kstx") == sources[1]);
        });
}

// Up to the closing verify, whose calls are those of any verify: each key that is made takes its time.
TEST_F(OperationsSweep, OfConsolidateToASealedImage)
{
    ImagePlan plan = SmallPlan();
    plan.disk.resize(chunkBytes);
    disk = plan.disk;
    Write(plan);
    uint32_t calls = 0;
    machine.onCall = [&calls](Machine &swept, const Call &call) {
        if (call.name == "CreateFileW" && call.object == "file:out.kstx" && Field(call, "access") == GENERIC_READ) {
            calls = swept.fallibleCalls - 1;
        }
    };
    const Arguments arguments = {"consolidate",     "--in", path, "--out", "out.kstx", "--encrypt",
                                 "--password-file", "pw"};
    RunCommand(machine, arguments);
    machine.onCall = nullptr;
    EXPECT_GE(calls, 50U);
    SweepCalls(
        arguments, calls, false, [] { std::filesystem::remove("out.kstx"); },
        [&](const RunResult &) { ExpectNoWrongImage(); });
}
