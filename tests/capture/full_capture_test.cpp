// A capture without a base, from start to end: the order of every call, the image to the byte, the lines, buffers, the
// tracker's part in it, sealed chunks, and disks of unusual sizes.
#include "capture/capturing.h"

#include <bcrypt.h>

#include <cstring>
#include <set>

namespace
{
const std::string completeLine = "Capture complete: image.kstx\n";

struct FullCapture : Capturing {
    void UsePassword(const std::string &text = "password")
    {
        WriteText("pw.txt", text);
    }

    const RunResult &CaptureSealed()
    {
        return Capture({"--encrypt", "--password-file", "pw.txt"});
    }

    void ExpectImage(const ImagePlan &plan)
    {
        EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(plan));
    }
};

struct TrackerCase {
    const char *name;
    std::function<void(Machine &machine)> arrange;
    bool isDeviceOpen;
};

const std::vector<TrackerCase> uselessTrackers = {
    {"no device", [](Machine &machine) { machine.tracker.reset(); }, false},
    {"open refused", [](Machine &machine) { machine.tracker->openError = ERROR_ACCESS_DENIED; }, false},
    {"attach refused", [](Machine &machine) { machine.tracker->attachError = ERROR_NOT_SUPPORTED; }, true},
    {"not active", [](Machine &machine) { machine.tracker->reply.active = 0; }, true},
    {"nothing tracked", [](Machine &machine) { machine.tracker->reply.trackedExtent = 0; }, true},
    {"first query writes nothing", [](Machine &machine) { machine.tracker->queryError = ERROR_IO_DEVICE; }, true},
    {"second query fails", [](Machine &machine) { FailControl(machine, 0x8C7D2008, 2, ERROR_IO_DEVICE); }, true},
};
} // namespace

TEST_F(FullCapture, MakesEveryCallInItsOrder)
{
    UseDisk(ThreeChunkDisk());
    UseTracker();
    machine.volumeC->extents[0].diskNumber = 1;
    Capture();
    EXPECT_EQ(LogText(machine, IsStepOfCapture),
              "CreateFileW \\\\.\\PhysicalDrive1 access=0x80000000 share=0x3 disposition=3 flags=0x20000000 "
              "-> disk1#1\n"
              "DeviceIoControl disk1#1 code=0x0007405C input=0 output=8 -> 8\n"
              "DeviceIoControl disk1#1 code=0x000700A0 input=0 output=40 -> 40\n"
              "stdout Source: PhysicalDrive1  Size: 0.01 GiB  SectorSize: 512  Chunks: 3 (4194304 bytes each)\n\n"
              "CreateFileW \\\\.\\C: access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:C#1\n"
              "DeviceIoControl volume:C#1 code=0x00560000 input=0 output=224 -> 32\n"
              "CloseHandle volume:C#1\n"
              "stdout NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
              "      is crash-consistent only (see the file header comment). Proceeding anyway.\n\n"
              "CreateFileW \\\\.\\Tallier access=0xC0000000 share=0x0 disposition=3 flags=0x0 -> tracker#1\n"
              "DeviceIoControl tracker#1 code=0x8C7D2004 input=8 output=0\n"
              "DeviceIoControl tracker#1 code=0x8C7D2008 input=8 output=48 -> failed 234\n"
              "DeviceIoControl tracker#1 code=0x8C7D2008 input=8 output=56 -> 56\n"
              "stdout Change tracker: disk 1 epoch 6\n\n"
              "CreateFileW image.kstx access=0x40000000 share=0x0 disposition=2 flags=0x80 -> file:image.kstx#1\n"
              "SetFilePointerEx file:image.kstx#1 280\n"
              "_aligned_malloc 4194304 512 -> block#1\n"
              "_aligned_malloc 4194304 512 -> block#2\n"
              "GetTickCount64 -> 1000\n"
              "SetFilePointerEx disk1#1 0\n"
              "ReadFile disk1#1 4194304 at 0 -> 4194304\n"
              "WriteFile file:image.kstx#1 4194304 at 280 -> 4194304\n"
              "GetTickCount64 -> 1000\n"
              "stdout \r   49.99%  4 / 8 MiB  (0.0 MiB/s)   \n"
              "SetFilePointerEx disk1#1 4194304\n"
              "ReadFile disk1#1 4194304 at 4194304 -> 4194304\n"
              "WriteFile file:image.kstx#1 4194304 at 4194584 -> 4194304\n"
              "SetFilePointerEx disk1#1 8388608\n"
              "ReadFile disk1#1 1536 at 8388608 -> 1536\n"
              "WriteFile file:image.kstx#1 1536 at 8388888 -> 1536\n"
              "GetTickCount64 -> 1000\n"
              "stdout \r  100.00%  8 / 8 MiB  (0.0 MiB/s)   \n\n"
              "SetFilePointerEx file:image.kstx#1 0\n"
              "WriteFile file:image.kstx#1 64 at 0 -> 64\n"
              "WriteFile file:image.kstx#1 216 at 64 -> 216\n"
              "CloseHandle file:image.kstx#1\n"
              "CloseHandle disk1#1\n"
              "DeviceIoControl tracker#1 code=0x8C7D200C input=16 output=0\n"
              "stdout Capture complete: image.kstx\n\n"
              "_aligned_free block#2\n"
              "_aligned_free block#1\n"
              "CloseHandle tracker#1\n");
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(FullCapture, WritesTheImageToTheByte)
{
    UseDisk(ThreeChunkDisk());
    UseTracker();
    Capture();
    ExpectSuccess(threeChunkSource + "Change tracker: disk 1 epoch 6\n" + threeChunkProgress + completeLine);
    ExpectImage(PlanOf(ThreeChunkDisk(), 6));
}

TEST_F(FullCapture, FillsTheHeaderFieldByField)
{
    machine.disks[1].sectorBytes = 1024;
    UseTracker();
    machine.tracker->reply.currentEpoch = 0x8877665544332211;
    Capture();
    const Bytes image = ReadBytes("image.kstx");
    const Bytes expected = {
        'K',  'S',  'T',  'X',  'D',  'S',  'K',  '2',                         // magic
        2,    0,    0,    0,                                                   // version
        0,    4,    0,    0,    0,    0,    0,    0,                           // disk size
        0,    4,    0,    0,                                                   // sector size
        0,    0,    0x40, 0,                                                   // chunk size
        1,    0,    0,    0,    0,    0,    0,    0,                           // chunk count
        0,                                                                     // encrypted
        0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,                              // epoch, without its highest byte
        0,    0,    0,    0,    0,    0,    0,    0,   0, 0, 0, 0, 0, 0, 0, 0, // salt
        0,    0,    0,    0,                                                   // iterations
    };
    ASSERT_EQ(image.size(), 64U + 72U + 1024U);
    EXPECT_EQ(Bytes(image.data(), image.data() + 64), expected);
}

TEST_F(FullCapture, MakesItsTableBehindItsFileAndAheadOfItsBuffers)
{
    Capture();
    ExpectOrder({"CreateFileW image.kstx", "calloc 1 72", "SetFilePointerEx file:image.kstx#1 136", "_aligned_malloc"});
}

TEST_F(FullCapture, OpensTheImageWithoutSecurityOrTemplate)
{
    Capture();
    const std::vector<Call> opens = CallsOf(machine, "CreateFileW", "file:image.kstx");
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_EQ(Field(opens[0], "security"), 0U);
    EXPECT_EQ(Field(opens[0], "template"), 0U);
    for (const Call &seek : CallsOf(machine, "SetFilePointerEx")) {
        EXPECT_EQ(Field(seek, "method"), 0U);
        EXPECT_EQ(Field(seek, "newPosition"), 0U);
    }
}

TEST_F(FullCapture, ReplacesALongerFileOfThatName)
{
    WriteBytes("image.kstx", Bytes(100000, 0xEE));
    Capture();
    ExpectSuccess(tinySource + noTrackerLine + tinyProgress + completeLine);
    ExpectImage(PlanOf(TinyDisk()));
}

TEST_F(FullCapture, NamesTheFileByTheBytesThatWereTyped)
{
    const std::string outPath = "s\xC3\xBCss \xFF.kstx";
    Capture({}, outPath);
    ExpectSuccess(tinySource + noTrackerLine + tinyProgress + "Capture complete: " + outPath + "\n");
    EXPECT_TRUE(FileExists(outPath));
}

TEST_F(FullCapture, ReadsIntoOneAlignedBufferAndWritesFromIt)
{
    UseDisk(PatternBytes(2 * chunkBytes, 3));
    machine.disks[1].sectorBytes = 4096;
    machine.disks[1].refusesUnalignedBuffers = true;
    Capture();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(LogOf(machine, {"_aligned_malloc", "_aligned_free"}), "_aligned_malloc 4194304 4096 -> block#1\n"
                                                                    "_aligned_malloc 4194304 4096 -> block#2\n"
                                                                    "_aligned_free block#2\n"
                                                                    "_aligned_free block#1\n");
    const std::vector<Call> reads = CallsOf(machine, "ReadFile", "disk1");
    const std::vector<Call> writes = CallsOf(machine, "WriteFile");
    const std::vector<Call> hashes = CallsOf(machine, "BCryptHashData");
    ASSERT_EQ(reads.size(), 2U);
    ASSERT_EQ(hashes.size(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(reads[i].buffer, reads[0].buffer);
        EXPECT_EQ(Field(reads[i], "aligned"), 4096U);
        EXPECT_EQ(hashes[i].buffer, reads[0].buffer);
        EXPECT_EQ(writes[i].buffer, reads[0].buffer);
    }
}

TEST_F(FullCapture, OfAMultipleOfTheChunkSizeHasNoEmptyChunk)
{
    UseDisk(PatternBytes(2 * chunkBytes, 3));
    Capture();
    ExpectSuccess("Source: PhysicalDrive1  Size: 0.01 GiB  SectorSize: 512  Chunks: 2 (4194304 bytes each)\n" +
                  noTrackerLine + "\r   50.00%  4 / 8 MiB  (0.0 MiB/s)   \r  100.00%  8 / 8 MiB  (0.0 MiB/s)   \n" +
                  completeLine);
    ExpectImage(PlanOf(PatternBytes(2 * chunkBytes, 3)));
}

TEST_F(FullCapture, OfOneSectorMoreThanAChunkHasAChunkOfThatSector)
{
    const Bytes disk = PatternBytes(chunkBytes + 512, 3);
    UseDisk(disk);
    Capture();
    EXPECT_EQ(result.exitStatus, 0);
    ExpectImage(PlanOf(disk));
    EXPECT_EQ(EntriesOf(ReadBytes("image.kstx"))[1].storedLength, 512U);
}

TEST_F(FullCapture, OfAnEmptyDiskIsAHeaderAlone)
{
    UseDisk({});
    UseTracker();
    Capture();
    ExpectSuccess("Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 0 (4194304 bytes each)\n"
                  "Change tracker: disk 1 epoch 6\n\n" +
                  completeLine);
    ExpectImage(PlanOf({}, 6));
    EXPECT_EQ(ReadBytes("image.kstx").size(), 64U);
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
    EXPECT_EQ(LogOf(machine, {"SetFilePointerEx", "WriteFile", "GetTickCount64", "_aligned_malloc"}),
              "SetFilePointerEx file:image.kstx#1 64\n"
              "_aligned_malloc 4194304 512 -> block#1\n"
              "_aligned_malloc 4194304 512 -> block#2\n"
              "GetTickCount64 -> 1000\n"
              "SetFilePointerEx file:image.kstx#1 0\n"
              "WriteFile file:image.kstx#1 64 at 0 -> 64\n"
              "WriteFile file:image.kstx#1 0 at 64 -> 0\n");
}

TEST_F(FullCapture, OfSectorsThatDoNotDivideAChunkTakesTheNextMultiple)
{
    UseDisk(PatternBytes(8 * MiB, 3));
    machine.disks[1].sectorBytes = 8 * MiB;
    Capture();
    EXPECT_EQ(result.exitStatus, 0);
    ImagePlan plan = PlanOf(PatternBytes(8 * MiB, 3));
    plan.sectorSize = 8 * MiB;
    plan.chunkSize = 8 * MiB;
    ExpectImage(plan);
}

TEST_F(FullCapture, OfSectorsThatAreNoPowerOfTwoEndsAtItsBuffer)
{
    UseDisk(Bytes(8066 * 520 + 520));
    machine.disks[1].sectorBytes = 520;
    Capture();
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.outputText,
              "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 520  Chunks: 2 (4194320 bytes each)\n" +
                  noTrackerLine);
    EXPECT_EQ(result.errorText, "");
    EXPECT_EQ(machine.calls.back().text, "_aligned_malloc 4194320 520 -> failed 87");
    EXPECT_EQ(ReadBytes("image.kstx").size(), 0U);
}

TEST_F(FullCapture, ShowsSizesAsTheyAre)
{
    machine.disks[1].lengthBytes = 500107862016;
    FailCall(machine, "ReadFile", 1, ERROR_CRC);
    Capture();
    EXPECT_EQ(result.outputText.substr(0, 94), "Source: PhysicalDrive1  Size: 465.76 GiB  SectorSize: 512  Chunks: "
                                               "119236 (4194304 bytes each)");
}

TEST_F(FullCapture, ShowsProgressByTheClock)
{
    UseDisk(ThreeChunkDisk());
    machine.ticksPerCall = 800;
    Capture();
    ExpectSuccess(threeChunkSource + noTrackerLine +
                  "\r   49.99%  4 / 8 MiB  (5.0 MiB/s)   \r  100.00%  8 / 8 MiB  (5.0 MiB/s)   \n" + completeLine);
    EXPECT_EQ(CountCalls(machine, "GetTickCount64"), 3U);
}

TEST_F(FullCapture, NotesALiveSystemDiskAndGoesOn)
{
    const std::string note = "NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
                             "      is crash-consistent only (see the file header comment). Proceeding anyway.\n";
    machine.volumeC->extents = {{1, 0, MiB}, {0, 0, MiB}};
    Capture();
    ExpectSuccess(tinySource + note + noTrackerLine + tinyProgress + completeLine);
    machine.volumeC->extents = {{0, 0, MiB}, {1, 0, MiB}};
    Capture();
    ExpectSuccess(tinySource + noTrackerLine + tinyProgress + completeLine);
}

TEST_F(FullCapture, NotesNothingWhenSnapshotsAreAskedForButAsksForTheSystemDiskAllTheSame)
{
    machine.volumeC->extents[0].diskNumber = 1;
    Capture({"--vss"});
    EXPECT_EQ(result.outputText.find("NOTE:"), std::string::npos);
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "volume:C"), 1U);
    machine.volumeC.reset();
    Capture({"--vss"});
    ExpectFatal(tinySource, "FATAL: could not open C: to determine the system disk number (GetLastError=2)\n");
}

TEST_F(FullCapture, DoesWithoutATrackerThatIsOfNoUse)
{
    for (const TrackerCase &one : uselessTrackers) {
        SCOPED_TRACE(one.name);
        UseTracker();
        machine.faults.clear();
        one.arrange(machine);
        Capture();
        ExpectSuccess(tinySource + noTrackerLine + tinyProgress + completeLine);
        ExpectImage(PlanOf(TinyDisk(), 0));
        EXPECT_TRUE(!machine.tracker || Commits().empty());
        EXPECT_EQ(CountCalls(machine, "CloseHandle", "tracker"), one.isDeviceOpen ? 1U : 0U);
        EXPECT_EQ(machine.calls.back().text, one.isDeviceOpen ? "CloseHandle tracker#1" : "_aligned_free block#1");
    }
}

TEST_F(FullCapture, SendsNoCommitToATrackerThatIsNotAttached)
{
    for (const TrackerCase &one : uselessTrackers) {
        UseTracker();
        machine.faults.clear();
        one.arrange(machine);
        Capture();
        EXPECT_EQ(LogText(machine).find("0x8C7D200C"), std::string::npos) << one.name;
    }
}

TEST_F(FullCapture, ShowsAGapAndKeepsTheEpoch)
{
    UseTracker();
    machine.tracker->reply.gap = 0x80000000;
    Capture();
    ExpectSuccess(tinySource + "Change tracker: disk 1 epoch 6 (GAP - untracked write seen)\n" + tinyProgress +
                  completeLine);
    ExpectImage(PlanOf(TinyDisk(), 6));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(FullCapture, ShowsNoSecondaryGapAndKeepsTheEpoch)
{
    UseTracker();
    machine.tracker->reply.secondaryGap = 1;
    Capture();
    ExpectSuccess(tinySource + "Change tracker: disk 1 epoch 6\n" + tinyProgress + completeLine);
    ExpectImage(PlanOf(TinyDisk(), 6));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(FullCapture, PrintsAndCommitsAllBitsOfTheEpochAndStoresTheLow56)
{
    UseTracker();
    machine.tracker->reply.currentEpoch = 0xABCDEF0123456789;
    Capture();
    ExpectSuccess(tinySource + "Change tracker: disk 1 epoch ABCDEF0123456789\n" + tinyProgress + completeLine);
    ExpectImage(PlanOf(TinyDisk(), 0xCDEF0123456789));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{0xABCDEF0123456789});
}

TEST_F(FullCapture, CommitsTheEpochOfItsOneQueryWhateverHappensMeanwhile)
{
    UseTracker();
    machine.onCall = [](Machine &changed, const Call &call) {
        if (call.name == "ReadFile") {
            changed.tracker->reply.currentEpoch = 77;
        }
    };
    Capture();
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
    EXPECT_EQ(HeaderOf(ReadBytes("image.kstx")).epoch, 6U);
    EXPECT_EQ(CountCalls(machine, "DeviceIoControl", "tracker"), 4U);
}

TEST_F(FullCapture, CommitsOnlyAfterTheImageIsCompleteAndClosed)
{
    UseTracker();
    Bytes atCommit;
    machine.onCall = [&atCommit](Machine &, const Call &call) {
        if (call.object == "tracker#1" && call.name == "DeviceIoControl" && Field(call, "code") == 0x8C7D200C) {
            atCommit = ReadBytes("image.kstx");
        }
    };
    Capture();
    EXPECT_TRUE(atCommit == BuildImage(PlanOf(TinyDisk(), 6)));
    ExpectOrder({"CloseHandle file:image.kstx", "CloseHandle disk1", "DeviceIoControl tracker#1 code=0x8C7D200C",
                 "stdout Capture complete"});
}

TEST_F(FullCapture, WarnsOfAFailedCommitAndStillSucceeds)
{
    UseTracker();
    machine.tracker->commitError = ERROR_IO_DEVICE;
    Capture();
    ExpectSuccess(tinySource + "Change tracker: disk 1 epoch 6\n" + tinyProgress +
                  "WARNING: tracker COMMIT failed - the next capture will be a full one.\n" + completeLine);
    ExpectImage(PlanOf(TinyDisk(), 6));
}

TEST_F(FullCapture, SealsEachChunkUnderAFreshNonce)
{
    UseDisk(ThreeChunkDisk());
    UsePassword("password\r\n");
    CaptureSealed();
    ExpectSuccess(threeChunkSource + noTrackerLine + threeChunkProgress + completeLine);
    const Bytes image = ReadBytes("image.kstx");
    const HeaderFields header = HeaderOf(image);
    EXPECT_EQ(header.version, 2U);
    EXPECT_EQ(header.encrypted, 1U);
    EXPECT_EQ(header.kdfIterations, 200000U);
    const std::vector<EntryFields> entries = EntriesOf(image);
    std::set<std::array<uint8_t, 12>> nonces = {{}};
    for (uint64_t i = 0; i < 3; ++i) {
        const Bytes chunk = ChunkOf(ThreeChunkDisk(), i);
        EXPECT_EQ(entries[i].diskOffset, i * chunkBytes);
        EXPECT_EQ(entries[i].storedLength, chunk.size());
        EXPECT_EQ(entries[i].hash, Sha256Of(chunk));
        EXPECT_TRUE(OpenedChunk(image, i) == chunk);
        nonces.insert(entries[i].nonce);
    }
    EXPECT_EQ(nonces.size(), 4U);
    EXPECT_EQ(image.size(), 280 + threeChunkBytes);
}

TEST_F(FullCapture, DrawsANewSaltForEachSealedImage)
{
    UsePassword();
    std::set<std::array<uint8_t, 16>> salts = {{}};
    for (int i = 0; i < 2; ++i) {
        CaptureSealed();
        const Bytes image = ReadBytes("image.kstx");
        salts.insert(HeaderOf(image).salt);
        EXPECT_TRUE(OpenedChunk(image, 0) == TinyDisk());
    }
    EXPECT_EQ(salts.size(), 3U);
}

TEST_F(FullCapture, MakesItsKeyBeforeItsFileAndEndsItLast)
{
    UsePassword();
    UseTracker();
    CaptureSealed();
    EXPECT_EQ(LogOf(machine, {"BCryptGenRandom", "fopen_s", "fclose", "BCryptDeriveKeyPBKDF2",
                              "BCryptGenerateSymmetricKey", "CreateFileW", "ReadFile", "BCryptHashData",
                              "BCryptEncrypt", "WriteFile", "BCryptDestroyKey", "_aligned_free", "CloseHandle"}),
              "CreateFileW \\\\.\\PhysicalDrive1 access=0x80000000 share=0x3 disposition=3 flags=0x20000000 "
              "-> disk1#1\n"
              "CreateFileW \\\\.\\C: access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:C#1\n"
              "CloseHandle volume:C#1\n"
              "CreateFileW \\\\.\\Tallier access=0xC0000000 share=0x0 disposition=3 flags=0x0 -> tracker#1\n"
              "BCryptGenRandom rng#1 16\n"
              "fopen_s pw.txt rb -> stream:pw.txt#1\n"
              "fclose stream:pw.txt#1\n"
              "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=8 salt=16 iterations=200000 length=32\n"
              "BCryptGenerateSymmetricKey aes#1 secret=32 -> key#1\n"
              "CreateFileW image.kstx access=0x40000000 share=0x0 disposition=2 flags=0x80 -> file:image.kstx#1\n"
              "ReadFile disk1#1 1024 at 0 -> 1024\n"
              "BCryptHashData hash#1 1024\n"
              "BCryptGenRandom rng#2 12\n"
              "BCryptEncrypt key#1 1024\n"
              "WriteFile file:image.kstx#1 1024 at 136 -> 1024\n"
              "WriteFile file:image.kstx#1 64 at 0 -> 64\n"
              "WriteFile file:image.kstx#1 72 at 64 -> 72\n"
              "CloseHandle file:image.kstx#1\n"
              "CloseHandle disk1#1\n"
              "_aligned_free block#2\n"
              "_aligned_free block#1\n"
              "BCryptDestroyKey key#1\n"
              "CloseHandle tracker#1\n");
}

TEST_F(FullCapture, SealsFromTheReadBufferIntoTheOther)
{
    UsePassword();
    CaptureSealed();
    const void *readBuffer = CallsOf(machine, "ReadFile", "disk1")[0].buffer;
    const Call write = CallsOf(machine, "WriteFile")[0];
    EXPECT_EQ(CallsOf(machine, "BCryptEncrypt")[0].buffer, readBuffer);
    EXPECT_NE(write.buffer, readBuffer);
    EXPECT_GE(Field(write, "aligned"), 512U);
}

TEST_F(FullCapture, WithoutEncryptLeavesThePasswordFileAlone)
{
    Capture({"--password-file", "missing.txt"});
    ExpectSuccess(tinySource + noTrackerLine + tinyProgress + completeLine);
    ExpectImage(PlanOf(TinyDisk()));
    EXPECT_EQ(CountCalls(machine, "fopen_s") + CountCalls(machine, "BCryptGenRandom"), 0U);
}

TEST_F(FullCapture, LeavesTheDiskAsItWas)
{
    Capture();
    EXPECT_EQ(machine.disks[1].bytes, TinyDisk());
    EXPECT_EQ(CountCalls(machine, "WriteFile", "disk1"), 0U);
}
