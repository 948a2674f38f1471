// restore: the ladder of refusals in its order, the calls on the target, and what is written there.
#include "operations/restoring.h"

#include <winioctl.h>

#include <functional>

using namespace operations;

namespace
{
const std::string note = "NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
                         "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
                         "      this larger disk - Windows generally repairs this automatically on next boot/\n"
                         "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
                         "      that repair happened. This is a known limitation of restoring to a differently\n"
                         "      sized disk, not specific to this tool.\n";
const std::string systemDiskRefusal =
    "Refusing: PhysicalDrive1 is the disk this copy of Windows is currently running from.\n"
    "A live raw write to your own booted system disk cannot be made safe - boot from\n"
    "separate media (Windows Recovery/PE) and run kestrix restore from there instead.\n";
const std::string unconfirmedRefusal =
    "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n";

std::string OpenAdvice(DWORD error)
{
    return "Could not open disk 1 exclusively for writing (GetLastError=" + std::to_string(error) +
           ").\nThis almost always means a volume on it is still mounted/in use.\n"
           "Take it offline first: diskpart > select disk 1 > offline disk\n";
}

// A rung of the ladder: what makes a run fail there, and its words.
struct Rung {
    const char *name;
    std::function<void(Machine &machine)> apply;
    std::string error;
    bool isUnconfirmed = false;
    bool hasNoImage = false;
};

std::vector<Rung> Ladder()
{
    return {
        {"C: is on the target", [](Machine &machine) { machine.volumeC->extents[0].diskNumber = 1; },
         systemDiskRefusal},
        {"unconfirmed", [](Machine &) {}, unconfirmedRefusal, true},
        {"no image", [](Machine &) {},
         "could not open image file: image.kstx\n" + FatalLine("could not open image file", ERROR_FILE_NOT_FOUND),
         false, true},
        {"target in use", [](Machine &machine) { machine.disks[1].exclusiveOpenError = ERROR_ACCESS_DENIED; },
         OpenAdvice(ERROR_ACCESS_DENIED)},
        {"no length", [](Machine &machine) { machine.disks[1].lengthError = ERROR_NOT_SUPPORTED; },
         FatalLine("IOCTL_DISK_GET_LENGTH_INFO failed", ERROR_NOT_SUPPORTED)},
        {"no geometry", [](Machine &machine) { machine.disks[1].geometryError = ERROR_CRC; },
         FatalLine("IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed", ERROR_CRC)},
        {"too small", [](Machine &machine) { machine.disks[1].lengthBytes = diskBytes - 1; },
         "Refusing: target disk 1 is 0.00 GiB, smaller than the image's 0.00 GiB source.\n"},
    };
}
} // namespace

TEST_F(Restore, RefusesAtEachRungOfItsLadderAndAtTheFirstOfTwo)
{
    const std::vector<Rung> ladder = Ladder();
    for (size_t i = 0; i < ladder.size(); ++i) {
        for (size_t k = i; k < ladder.size(); ++k) {
            SCOPED_TRACE(std::string(ladder[i].name) + ", " + ladder[k].name);
            machine.volumeC = Volume();
            SetTarget(diskBytes);
            Write(SmallPlan());
            ladder[i].apply(machine);
            ladder[k].apply(machine);
            if (ladder[i].hasNoImage || ladder[k].hasNoImage) {
                std::filesystem::remove(path);
            }
            const bool isConfirmed = !ladder[i].isUnconfirmed && !ladder[k].isUnconfirmed;
            ExpectRefused(Run(isConfirmed ? Arguments{"--confirm", "YES"} : Arguments()), ladder[i].error);
            EXPECT_EQ(CountCalls(machine, "CreateFileW", "file") == 0, i < 2);
            EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk1") == 0, i < 3);
        }
    }
}

TEST_F(Restore, TakesNoOtherWordThanYes)
{
    Write(SmallPlan());
    for (const Arguments &words : std::vector<Arguments>{{},
                                                         {"--confirm", "yes"},
                                                         {"--confirm", "YES "},
                                                         {"--confirm", "YE"},
                                                         {"--confirm", "YESS"},
                                                         {"--confirm", "Yes"},
                                                         {"--confirm", ""},
                                                         {"--confirm"}}) {
        ExpectRefused(Run(words), unconfirmedRefusal);
    }
    ExpectRestored(Run({"--CONFIRM", "YES"}), SmallPlan().disk);
}

TEST_F(Restore, LooksForTheSystemDiskBeforeAnythingElse)
{
    Write(SmallPlan());
    machine.volumeC->extentsError = ERROR_NOT_SUPPORTED;
    ExpectRefused(Run(),
                  FatalLine("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", spoiledError)); // C: is closed first
    machine.volumeC->openError = ERROR_ACCESS_DENIED;
    ExpectRefused(Run({}), FatalLine("could not open C: to determine the system disk number", ERROR_ACCESS_DENIED));
    machine.volumeC.reset();
    std::filesystem::remove(path);
    ExpectRefused(Run({}), FatalLine("could not open C: to determine the system disk number", ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 1U);
}

TEST_F(Restore, TakesTheDiskOfTheFirstExtentOfCForTheSystemDisk)
{
    Write(SmallPlan());
    machine.volumeC->extents = {{1, MiB, MiB}, {0, MiB, MiB}};
    ExpectRefused(Run(), systemDiskRefusal);
    machine.volumeC->extents = {{0, MiB, MiB}, {1, MiB, MiB}};
    ExpectRestored(Run(), SmallPlan().disk);
}

TEST_F(Restore, OpensTheWholeChainBeforeTheTarget)
{
    WriteThin(SmallPlan(), {0}, false);
    std::filesystem::remove("base.kstx");
    ExpectRefused(Run(), "This is a thin (incremental) image; its base image is missing: base.kstx\n"
                         "Keep every image of a chain in the same folder.\n" +
                             FatalLine("base image of a thin image not found", ERROR_FILE_NOT_FOUND));
    WriteBytes("base.kstx", BuildImage(SmallPlan(true)));
    ExpectRefused(Run(), "Base image base.kstx is not the one this image was made against (it was modified or "
                         "replaced).\n" +
                             FatalLine("base image does not match the one pinned in the thin image"));
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk1"), 0U);
}

TEST_F(Restore, AsksForThePasswordBeforeTheTarget)
{
    Write(SmallPlan(true));
    ExpectRefused(RunCommand(machine, {"restore", "--in", path, "--disk", "1", "--confirm", "YES"}),
                  FatalLine("this image is encrypted - pass --password-file"));
    WriteText("pw", "\r\n");
    ExpectRefused(Run(), FatalLine("password file is empty", spoiledError));
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk1"), 0U);
}

TEST_F(Restore, NamesAMountedDiskTwiceWhateverItsSize)
{
    Write(SmallPlan());
    machine.disks[1].exclusiveOpenError = ERROR_SHARING_VIOLATION;
    machine.disks[1].lengthBytes = 512;
    ExpectRefused(Run(), OpenAdvice(ERROR_SHARING_VIOLATION));
    const RunResult missing = RunCommand(machine, {"restore", "--in", path, "--disk", "12", "--confirm", "YES"});
    EXPECT_EQ(missing.errorText, "Could not open disk 12 exclusively for writing (GetLastError=2).\n"
                                 "This almost always means a volume on it is still mounted/in use.\n"
                                 "Take it offline first: diskpart > select disk 12 > offline disk\n");
    EXPECT_EQ(missing.exitStatus, 1);
}

TEST_F(Restore, ShowsBothSizesWhenTheTargetIsTooSmall)
{
    Write(SmallPlan());
    ChangeFile(path, 12, 3 * GiB + GiB / 2, 8);
    machine.disks[1].lengthBytes = 2 * GiB + GiB / 4;
    ExpectRefused(Run(), "Refusing: target disk 1 is 2.25 GiB, smaller than the image's 3.50 GiB source.\n");
    EXPECT_EQ(CallsOnTarget(), "CreateFileW \\\\.\\PhysicalDrive1 access=0xC0000000 share=0x0 disposition=3 "
                               "flags=0x20000000 -> disk1#1\n"
                               "DeviceIoControl disk1#1 code=0x0007405C input=0 output=8 -> 8\n"
                               "DeviceIoControl disk1#1 code=0x000700A0 input=0 output=40 -> 40\n");
}

TEST_F(Restore, NotesALargerTargetAndLeavesItsEndAlone)
{
    struct {
        uint64_t lengthBytes;
        bool hasNote;
        bool isRefused;
    } const cases[] = {{diskBytes - 1, false, true}, {diskBytes, false, false}, {diskBytes + 1, true, false}};
    Write(SmallPlan());
    SetTarget(diskBytes + 512);
    const Bytes restored = WithChunksOf(SmallPlan().disk, old, 3);
    for (const auto &[lengthBytes, hasNote, isRefused] : cases) {
        machine.disks[1].lengthBytes = lengthBytes;
        const RunResult result = Run();
        EXPECT_EQ(result.exitStatus, isRefused ? 1 : 0);
        EXPECT_EQ(result.outputText, isRefused ? "" : (hasNote ? note : "") + opening + first + last + "\n" + closing);
        EXPECT_TRUE(Target() == (isRefused ? old : restored));
    }
}

TEST_F(Restore, MakesTheseCallsForAPlainImage)
{
    Write(SmallPlan());
    ExpectRestored(Run(), SmallPlan().disk);
    EXPECT_EQ(LogWithout(machine, {}),
              "CreateFileW \\\\.\\C: access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:C#1\n"
              "DeviceIoControl volume:C#1 code=0x00560000 input=0 output=224 -> 32\n"
              "CloseHandle volume:C#1\n"
              "CreateFileW image.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:image.kstx#1\n"
              "ReadFile file:image.kstx#1 64 at 0 -> 64\n"
              "calloc 3 72\n"
              "ReadFile file:image.kstx#1 216 at 64 -> 216\n" +
                  DigestLog(1, 280) +
                  "CreateFileW \\\\.\\PhysicalDrive1 access=0xC0000000 share=0x0 disposition=3 flags=0x20000000 -> "
                  "disk1#1\n"
                  "DeviceIoControl disk1#1 code=0x0007405C input=0 output=8 -> 8\n"
                  "DeviceIoControl disk1#1 code=0x000700A0 input=0 output=40 -> 40\n"
                  "stdout " +
                  opening +
                  "\n"
                  "_aligned_malloc 4096 4096 -> block#1\n"
                  "calloc 4096 1\n"
                  "GetTickCount64 -> 1000\n"
                  "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n" +
                  DigestLog(2, 4096) +
                  "SetFilePointerEx disk1#1 0\n"
                  "WriteFile disk1#1 4096 at 0 -> 4096\n"
                  "GetTickCount64 -> 1000\n"
                  "stdout " +
                  first +
                  "\n"
                  "ReadFile file:image.kstx#1 4096 at 4376 -> 4096\n" +
                  DigestLog(3, 4096) +
                  "SetFilePointerEx disk1#1 4096\n"
                  "WriteFile disk1#1 4096 at 4096 -> 4096\n"
                  "ReadFile file:image.kstx#1 2048 at 8472 -> 2048\n" +
                  DigestLog(4, 2048) +
                  "SetFilePointerEx disk1#1 8192\n"
                  "WriteFile disk1#1 2048 at 8192 -> 2048\n"
                  "GetTickCount64 -> 1000\n"
                  "stdout " +
                  last +
                  "\n\n"
                  "DeviceIoControl disk1#1 code=0x00070140 input=0 output=0\n"
                  "CloseHandle disk1#1\n"
                  "CloseHandle file:image.kstx#1\n"
                  "stdout " +
                  closing + "\n_aligned_free block#1\n");
}

TEST_F(Restore, MakesTheseCallsForEachSealedChunk)
{
    Write(SmallPlan(true));
    ExpectRestored(Run(), SmallPlan().disk);
    const std::string log = LogWithout(machine, {"stdout"});
    EXPECT_EQ(log.substr(log.find("GetTickCount64")), "GetTickCount64 -> 1000\n"
                                                      "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n"
                                                      "BCryptDecrypt key#1 4096\n"
                                                      "SetFilePointerEx disk1#1 0\n"
                                                      "WriteFile disk1#1 4096 at 0 -> 4096\n"
                                                      "GetTickCount64 -> 1000\n"
                                                      "ReadFile file:image.kstx#1 4096 at 4376 -> 4096\n"
                                                      "BCryptDecrypt key#1 4096\n"
                                                      "SetFilePointerEx disk1#1 4096\n"
                                                      "WriteFile disk1#1 4096 at 4096 -> 4096\n"
                                                      "ReadFile file:image.kstx#1 2048 at 8472 -> 2048\n"
                                                      "BCryptDecrypt key#1 2048\n"
                                                      "SetFilePointerEx disk1#1 8192\n"
                                                      "WriteFile disk1#1 2048 at 8192 -> 2048\n"
                                                      "GetTickCount64 -> 1000\n"
                                                      "DeviceIoControl disk1#1 code=0x00070140 input=0 output=0\n"
                                                      "CloseHandle disk1#1\n"
                                                      "CloseHandle file:image.kstx#1\n"
                                                      "_aligned_free block#1\n"
                                                      "BCryptDestroyKey key#1\n"
                                                      "BCryptCloseAlgorithmProvider aes#1\n");
}

TEST_F(Restore, AsksForTheNewPartitionTableWithNothingInAndNothingOut)
{
    Write(SmallPlan());
    Run();
    const Call request = CallsOf(machine, "DeviceIoControl", "disk1").at(2);
    EXPECT_EQ(Field(request, "code"), 0x70140U);
    EXPECT_EQ(Field(request, "count"), 0U);
    EXPECT_EQ(Field(request, "overlapped"), 0U);
    EXPECT_EQ(request.buffer, nullptr);
    for (const Call &seek : CallsOf(machine, "SetFilePointerEx", "disk1")) {
        EXPECT_EQ(Field(seek, "method"), static_cast<uint64_t>(FILE_BEGIN));
        EXPECT_EQ(Field(seek, "newPosition"), 0U);
    }
}

TEST_F(Restore, AlignsItsReadBufferToTheTargetsSectorButToAPageAtLeast)
{
    Write(SmallPlan());
    for (const uint32_t sectorBytes : {512U, 2048U, 4096U, 8192U, 65536U}) {
        machine.disks[1].sectorBytes = sectorBytes;
        machine.disks[1].refusesUnaligned = false;
        ExpectRestored(Run(), SmallPlan().disk);
        const Call memory = CallsOf(machine, "_aligned_malloc").at(0);
        EXPECT_EQ(Field(memory, "length"), 4096U);
        EXPECT_EQ(Field(memory, "alignment"), std::max(sectorBytes, 4096U));
    }
}

TEST_F(Restore, WritesAPlainChunkAndAReferenceFromTheBufferTheyWereReadInto)
{
    WriteThin(SmallPlan(true), {0}, false);
    Run();
    const void *readBuffer = CallsOf(machine, "ReadFile", "file:image.kstx").back().buffer;
    const std::vector<Call> writes = CallsOf(machine, "WriteFile", "disk1");
    ASSERT_EQ(writes.size(), 3U);
    for (const Call &write : writes) {
        EXPECT_EQ(write.buffer, readBuffer);
        EXPECT_EQ(Field(write, "aligned"), 4096U);
    }
}

// That buffer is an ordinary one, and where the platform wants an aligned one the write is what fails.
TEST_F(Restore, WritesASealedChunkFromTheBufferItWasOpenedInto)
{
    ImagePlan plan = SmallPlan(true);
    plan.disk = PatternBytes(2 * MiB, 5);
    plan.chunkSize = MiB;
    Write(plan);
    SetTarget(2 * MiB);
    machine.disks[1].sectorBytes = 4096;
    EXPECT_EQ(Run().exitStatus, 0);
    EXPECT_TRUE(Target() == plan.disk);
    const void *readBuffer = CallsOf(machine, "ReadFile").back().buffer;
    EXPECT_NE(CallsOf(machine, "WriteFile").at(0).buffer, readBuffer);
    machine.disks[1].refusesUnalignedBuffers = true;
    const RunResult refused = Run();
    EXPECT_EQ(refused.errorText, FatalLine(writeFault, ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(Target() == old);
}

TEST_F(Restore, WritesTheLastChunkAtItsOwnLength)
{
    ImagePlan plan = SmallPlan();
    plan.disk.resize(8192 + 512);
    Write(plan);
    SetTarget(12288);
    machine.disks[1].sectorBytes = 4096;
    const RunResult refused = Run();
    EXPECT_EQ(refused.errorText, FatalLine(writeFault, ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(Target() == WithChunksOf(plan.disk, old, 2));
    EXPECT_EQ(Field(CallsOf(machine, "WriteFile").back(), "length"), 512U);
    machine.disks[1].refusesUnaligned = false;
    EXPECT_EQ(Run().exitStatus, 0);
    EXPECT_TRUE(Target() == WithChunksOf(plan.disk, old, 3));
}

TEST_F(Restore, TakesATargetWithAnotherSectorSize)
{
    ImagePlan plan = SmallPlan();
    plan.disk.resize(8192);
    plan.sectorSize = 512;
    Write(plan);
    SetTarget(8192);
    machine.disks[1].sectorBytes = 4096;
    EXPECT_EQ(Run().exitStatus, 0);
    EXPECT_TRUE(Target() == plan.disk);
}

TEST_F(Restore, WritesAChunkWhereItsEntrySays)
{
    Bytes image = BuildImage(SmallPlan());
    StoreInteger(image, EntryAt(0), 4096, 8);
    StoreInteger(image, EntryAt(1), 0, 8);
    WriteBytes(path, image);
    Bytes swapped = SmallPlan().disk;
    std::swap_ranges(swapped.begin(), swapped.begin() + 4096, swapped.begin() + 4096);
    ExpectRestored(Run(), swapped, ProgressLine(8192, diskBytes) + last);
    EXPECT_EQ(LogOf(machine, {"SetFilePointerEx"}),
              "SetFilePointerEx disk1#1 4096\nSetFilePointerEx disk1#1 0\nSetFilePointerEx disk1#1 8192\n");
}

TEST_F(Restore, FailsWhereAnEntryLeadsBehindTheTarget)
{
    Write(SmallPlan());
    ChangeFile(path, EntryAt(1), 1048576, 8);
    ExpectStopped(Run(), SmallPlan().disk, 1, FatalLine(writeFault, 27));
}

TEST_F(Restore, ShowsProgressAtEvery32ndChunkAndAtTheLastWithItsSpeed)
{
    ImagePlan plan = SmallPlan();
    plan.chunkSize = 512;
    plan.disk = PatternBytes(70 * 512, 2);
    Write(plan);
    SetTarget(70 * 512);
    machine.ticksPerCall = 10;
    const RunResult result = Run();
    EXPECT_EQ(result.outputText, "Restoring image.kstx -> PhysicalDrive1 (70 chunks, 0.00 GiB)\n"
                                 "\r    1.43%  0 / 0 MiB  (0.0 MiB/s)   "
                                 "\r   47.14%  0 / 0 MiB  (0.0 MiB/s)   "
                                 "\r   92.86%  0 / 0 MiB  (0.0 MiB/s)   "
                                 "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n" +
                                     closing);
    plan.chunkSize = MiB;
    plan.disk = PatternBytes(3 * MiB, 2);
    Write(plan);
    SetTarget(3 * MiB);
    machine.ticksPerCall = 250;
    EXPECT_EQ(Run().outputText, opening +
                                    "\r   33.33%  1 / 3 MiB  (4.0 MiB/s)   "
                                    "\r  100.00%  3 / 3 MiB  (6.0 MiB/s)   \n" +
                                    closing);
}

// A reference adds nothing to the figure that is shown.
TEST_F(Restore, ShowsTheStartOfAChunkThatIsAReference)
{
    const Bytes disk = WriteThin(SmallPlan(), {1}, false);
    ExpectRestored(Run(), disk, ProgressLine(0, diskBytes) + ProgressLine(8192, diskBytes));
}

TEST_F(Restore, ReadsTheStoredChunksOfAThinImageInSequenceAmongItsReferences)
{
    for (const bool sealed : {false, true}) {
        const Bytes disk = WriteThin(SmallPlan(!sealed), {0, 2}, sealed);
        ExpectRestored(Run(), disk);
        const std::string log = LogText(machine, [](const Call &call) {
            return call.name == "SetFilePointerEx" || call.name == "WriteFile" || call.name == "CloseHandle" ||
                   (call.name == "ReadFile" && Field(call, "length") >= 2048);
        });
        EXPECT_EQ(log, "CloseHandle volume:C#1\n"
                       "SetFilePointerEx file:image.kstx#1 6477\n"
                       "SetFilePointerEx file:image.kstx#1 6424\n"
                       "SetFilePointerEx file:image.kstx#1 0\n"
                       "SetFilePointerEx file:image.kstx#1 280\n"
                       "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n"
                       "SetFilePointerEx disk1#1 0\n"
                       "WriteFile disk1#1 4096 at 0 -> 4096\n"
                       "SetFilePointerEx file:base.kstx#1 4376\n"
                       "ReadFile file:base.kstx#1 4096 at 4376 -> 4096\n"
                       "SetFilePointerEx disk1#1 4096\n"
                       "WriteFile disk1#1 4096 at 4096 -> 4096\n"
                       "ReadFile file:image.kstx#1 2048 at 4376 -> 2048\n"
                       "SetFilePointerEx disk1#1 8192\n"
                       "WriteFile disk1#1 2048 at 8192 -> 2048\n"
                       "CloseHandle disk1#1\n"
                       "CloseHandle file:image.kstx#1\n");
    }
}
