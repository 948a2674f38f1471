// Captures against a base: what each kind of run reads, stores, refers to and prints, the image to the byte, and what
// becomes of the base's file.
#include "capture/capturing_on_base.h"

#include <cstring>

namespace
{
const std::string lostLine =
    "  --base: cannot prove what changed (no change tracker for this disk) - doing a FULL capture (correct, just "
    "slower).\n";
const std::string lostThinLine =
    "  --base: cannot prove what changed (no change tracker for this disk) - reading every chunk and comparing hashes "
    "with the base (no driver needed; slower to read, still a small file).\n";

struct BlockCase {
    const char *name;
    uint32_t blockShift;
    Bytes bitmap;
    std::vector<uint64_t> chunksRead;
};
} // namespace

// The five kinds of run: without a base is told elsewhere, the other four follow.

TEST_F(IncrementalCapture, WithoutProofIsAFullCaptureThatClosesTheBaseAtOnce)
{
    machine.tracker.reset();
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 1));
    CaptureCopying();
    ExpectSuccess(threeChunkSource + noTrackerLine + baseLine + lostLine + threeChunkProgress +
                  "Capture complete: image.kstx\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(WithChangedChunk(ThreeChunkDisk(), 1))));
    ExpectReads({0, 1, 2});
    ExpectOrder({"CreateFileW base.kstx", "CloseHandle file:base.kstx#1", "CreateFileW image.kstx"});
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
    EXPECT_EQ(CountCalls(machine, "ReadFile", "file:base.kstx"), 2U);
}

TEST_F(IncrementalCapture, WithProofCopiesCleanChunksAndReadsTheOthers)
{
    Bytes disk = WithChangedChunk(ThreeChunkDisk(), 1);
    disk[0] ^= 0xFF; // behind the tracker's back
    UseDisk(disk);
    MarkChunk(1);
    CaptureCopying();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  "Capture complete: image.kstx (Read from disk: 1, Copied from base: 2 chunks)\n");
    ExpectReads({1});
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(WithChangedChunk(ThreeChunkDisk(), 1), 6)));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(IncrementalCapture, WithProofAndThinStoresChangedChunksAlone)
{
    Bytes disk = WithChangedChunk(ThreeChunkDisk(), 1);
    disk[0] ^= 0xFF; // behind the tracker's back
    UseDisk(disk);
    MarkChunk(1);
    CaptureThin();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  ThinComplete("stored 1 of 3 chunks, 2 are references to the base; read from disk: 1"));
    ExpectReads({1});
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 1), {0, 2}));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(IncrementalCapture, WithoutProofAndThinReadsEverythingAndComparesHashes)
{
    machine.tracker.reset();
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 1));
    CaptureThin();
    ExpectSuccess(threeChunkSource + noTrackerLine + baseLine + lostThinLine + threeChunkProgress +
                  ThinComplete("stored 1 of 3 chunks, 2 are references to the base; read from disk: 3"));
    ExpectReads({0, 1, 2});
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 1), {0, 2}, 0));
    ExpectOrder({"CloseHandle disk1", "CloseHandle file:base.kstx", "stdout Capture complete"});
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
}

TEST_F(IncrementalCapture, MakesEveryCallOfAThinRunInItsOrder)
{
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 2));
    MarkChunk(2);
    CaptureThin();
    EXPECT_EQ(StepsFrom("stdout Change tracker"),
              "stdout Change tracker: disk 1 epoch 6\n" + baseLine + "\n" +
                  "CreateFileW base.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:base.kstx#1\n"
                  "ReadFile file:base.kstx#1 64 at 0 -> 64\n"
                  "ReadFile file:base.kstx#1 216 at 64 -> 216\n"
                  "stdout " +
                  provedLine +
                  "\n"
                  "_fullpath base.kstx -> base.kstx\n"
                  "_fullpath image.kstx -> image.kstx\n"
                  "CreateFileW image.kstx access=0x40000000 share=0x0 disposition=2 flags=0x80 -> "
                  "file:image.kstx#1\n"
                  "SetFilePointerEx file:image.kstx#1 280\n"
                  "_aligned_malloc 4194304 512 -> block#1\n"
                  "_aligned_malloc 4194304 512 -> block#2\n"
                  "GetTickCount64 -> 1000\n"
                  "GetTickCount64 -> 1000\n"
                  "stdout \r   49.99%  4 / 8 MiB  (0.0 MiB/s)   \n"
                  "SetFilePointerEx disk1#1 8388608\n"
                  "ReadFile disk1#1 1536 at 8388608 -> 1536\n"
                  "WriteFile file:image.kstx#1 1536 at 280 -> 1536\n"
                  "GetTickCount64 -> 1000\n"
                  "stdout \r  100.00%  8 / 8 MiB  (0.0 MiB/s)   \n\n"
                  "WriteFile file:image.kstx#1 57 at 1816 -> 57\n"
                  "SetFilePointerEx file:image.kstx#1 0\n"
                  "WriteFile file:image.kstx#1 64 at 0 -> 64\n"
                  "WriteFile file:image.kstx#1 216 at 64 -> 216\n"
                  "CloseHandle file:image.kstx#1\n"
                  "CloseHandle disk1#1\n"
                  "CloseHandle file:base.kstx#1\n"
                  "DeviceIoControl tracker#1 code=0x8C7D200C input=16 output=0\n"
                  "stdout " +
                  ThinComplete("stored 1 of 3 chunks, 2 are references to the base; read from disk: 1") +
                  "\n"
                  "_aligned_free block#2\n"
                  "_aligned_free block#1\n"
                  "CloseHandle tracker#1\n");
}

TEST_F(IncrementalCapture, FetchesACopiedChunkIntoTheReadBufferAndHashesItOnceMore)
{
    MarkChunk(0);
    CaptureCopying();
    const std::vector<Call> fetches = CallsOf(machine, "ReadFile", "file:base.kstx");
    ASSERT_EQ(CountCalls(machine, "ReadFile", "disk1"), 1U);
    const void *readBuffer = CallsOf(machine, "ReadFile", "disk1")[0].buffer;
    ASSERT_EQ(fetches.size(), 4U); // header, table, two chunks
    for (const Call &write : CallsOf(machine, "WriteFile", "file:image.kstx")) {
        EXPECT_TRUE(Field(write, "length") < 512 || write.buffer == readBuffer);
    }
    EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), 4U); // the base's identity, one read, two checked fetches
    ExpectOrder({"CloseHandle file:image.kstx", "CloseHandle disk1", "CloseHandle file:base.kstx",
                 "DeviceIoControl tracker#1 code=0x8C7D200C"});
}

TEST_F(IncrementalCapture, ReferringByProofTakesTheHashFromTheBasesTableAndReadsNothing)
{
    Bytes other = base;
    other[64 + 72 + 12 + 31] ^= 0x01; // the hash of chunk 1
    WriteBytes("base.kstx", other);
    CaptureThin();
    ExpectReads({});
    const Bytes image = ReadBytes("image.kstx");
    EXPECT_EQ(EntriesOf(image)[1].hash, EntriesOf(other)[1].hash);
    EXPECT_EQ(EntriesOf(image)[1].storedLength, 0U);
    EXPECT_EQ(CountCalls(machine, "ReadFile", "file:base.kstx"), 2U);
    EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), 1U);
}

TEST_F(IncrementalCapture, ComparesAll32BytesOfAHash)
{
    machine.tracker.reset();
    UseDisk(TinyDisk());
    for (const size_t place : {0U, 1U, 15U, 16U, 30U, 31U}) {
        Bytes other = BuildImage(PlanOf(TinyDisk()));
        other[64 + 12 + place] ^= 0x01;
        WriteBytes("base.kstx", other);
        CaptureThin();
        EXPECT_EQ(EntriesOf(ReadBytes("image.kstx"))[0].storedLength, tinyDiskBytes) << place;
        EXPECT_EQ(EntriesOf(ReadBytes("image.kstx"))[0].hash, Sha256Of(TinyDisk())) << place;
    }
}

TEST_F(IncrementalCapture, OfAnUnchangedDiskHasNoDataArea)
{
    CaptureThin();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  ThinComplete("stored 0 of 3 chunks, 3 are references to the base; read from disk: 0"));
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(ThreeChunkDisk(), {0, 1, 2}));
    EXPECT_EQ(ReadBytes("image.kstx").size(), 280U + 57U);
}

TEST_F(IncrementalCapture, RefersToARewrittenBlockOfEqualContents)
{
    MarkChunk(1);
    CaptureThin();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  ThinComplete("stored 0 of 3 chunks, 3 are references to the base; read from disk: 1"));
    ExpectReads({1});
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(ThreeChunkDisk(), {0, 1, 2}));
}

TEST_F(IncrementalCapture, StoresARewrittenBlockOfEqualContentsInAFullImage)
{
    MarkChunk(1);
    CaptureCopying();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  "Capture complete: image.kstx (Read from disk: 1, Copied from base: 2 chunks)\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(ThreeChunkDisk(), 6)));
}

TEST_F(IncrementalCapture, OfADiskThatChangedEverywhereStillCountsItsCopies)
{
    const Bytes disk = PatternBytes(threeChunkBytes, 99);
    UseDisk(disk);
    machine.tracker->reply.bitmap = Bytes(8, 0xFF);
    CaptureCopying();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  "Capture complete: image.kstx (Read from disk: 3, Copied from base: 0 chunks)\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(disk, 6)));
}

TEST_F(IncrementalCapture, OfADiskThatChangedEverywhereStillNamesItsBase)
{
    const Bytes disk = PatternBytes(threeChunkBytes, 99);
    UseDisk(disk);
    machine.tracker->reply.bitmap = Bytes(8, 0xFF);
    CaptureThin();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  ThinComplete("stored 3 of 3 chunks, 0 are references to the base; read from disk: 3"));
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(disk, {}));
}

TEST_F(IncrementalCapture, ReadsTheChunksWhoseBlocksTheBitmapDoesNotClear)
{
    const BlockCase cases[] = {
        {"blocks of a quarter chunk, all clear", 20, {0, 0, 0}, {}},
        {"the last block of chunk 0", 20, {0x08, 0, 0}, {0}},
        {"the first block of chunk 1", 20, {0x10, 0, 0}, {1}},
        {"the one block of chunk 2", 20, {0, 0x01, 0}, {2}},
        {"a block behind the disk's end", 20, {0, 0x02, 0}, {}},
        {"blocks of a chunk", 22, {0x02}, {1}},
        {"blocks of two chunks, the first", 23, {0x01}, {0, 1}},
        {"blocks of two chunks, the second", 23, {0x02}, {2}},
        {"one block for everything", 40, {0x01}, {0, 1, 2}},
        {"one block for everything, clear", 40, {0xFE}, {}},
        {"blocks of a sector, the last of chunk 1", 9, Bytes(2049), {}},
        {"a bitmap that ends with chunk 1", 20, {0}, {2}},
        {"a bitmap that ends with chunk 0", 19, {0}, {1, 2}},
        {"a bitmap that ends within chunk 0", 18, {0}, {0, 1, 2}},
        {"no bitmap", 20, {}, {0, 1, 2}},
    };
    for (BlockCase one : cases) {
        SCOPED_TRACE(one.name);
        UseTracker(one.blockShift);
        if (one.blockShift == 9) {
            one.bitmap[16383 / 8] = 0x80; // block 16383 ends where chunk 2 begins
            one.chunksRead = {1};
        }
        machine.tracker->reply.bitmap = one.bitmap;
        CaptureThin();
        EXPECT_EQ(result.exitStatus, 0);
        ExpectReads(one.chunksRead);
    }
}

TEST_F(IncrementalCapture, ShowsProgressAtEvery32ndChunkAndAtTheLastReadOrNot)
{
    HeaderFields header; // nothing is read of such a base but this and its table
    header.diskSize = 66 * chunkBytes;
    header.chunkCount = 66;
    header.epoch = 5;
    Bytes bytes = BuildHeader(header);
    bytes.resize(64 + 72 * 66);
    WriteBytes("base.kstx", bytes);
    machine.disks[1].lengthBytes = header.diskSize;
    machine.tracker->reply.bitmap = Bytes(33);
    CaptureThin();
    ExpectSuccess("Source: PhysicalDrive1  Size: 0.26 GiB  SectorSize: 512  Chunks: 66 (4194304 bytes each)\n"
                  "Change tracker: disk 1 epoch 6\n" +
                  baseLine + provedLine +
                  "\r    1.52%  4 / 264 MiB  (0.0 MiB/s)   \r   50.00%  132 / 264 MiB  (0.0 MiB/s)   "
                  "\r   98.48%  260 / 264 MiB  (0.0 MiB/s)   \r  100.00%  264 / 264 MiB  (0.0 MiB/s)   \n" +
                  ThinComplete("stored 0 of 66 chunks, 66 are references to the base; read from disk: 0"));
}

// Writes while a capture runs

TEST_F(IncrementalCapture, LeavesWhatWasWrittenBehindItsReadToTheNextOne)
{
    for (const char *moment : {"ReadFile disk1#1 4194304 at 4194304", "DeviceIoControl tracker#1 code=0x8C7D200C"}) {
        SCOPED_TRACE(moment);
        UseDisk(ThreeChunkDisk());
        UseTracker();
        machine.tracker->reply.bitmap = Bytes(8, 0xFF);
        WriteChunkAt(moment, 0);
        Capture({}, "base.kstx");
        ASSERT_TRUE(ReadBytes("base.kstx") == BuildImage(PlanOf(ThreeChunkDisk(), 6)));
        basePlan = PlanOf(ThreeChunkDisk(), 6);
        CaptureThin();
        ExpectReads({0});
        EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 0), {1, 2}, 7));
        EXPECT_EQ(Commits(), (std::vector<uint64_t>{6, 7}));
    }
}

TEST_F(IncrementalCapture, LeavesToTheNextOneWhateverWasWrittenBehindItsAttach)
{
    const struct {
        const char *moment;
        std::vector<uint64_t> readAgain;
    } cases[] = {{"DeviceIoControl tracker#1 code=0x8C7D2004", {}}, {"DeviceIoControl tracker#1 code=0x8C7D2008", {1}}};
    for (const auto &one : cases) {
        SCOPED_TRACE(one.moment);
        UseDisk(ThreeChunkDisk());
        UseTracker();
        WriteChunkAt(one.moment, 1);
        CaptureThin();
        ExpectReads({1});
        EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 1), {0, 2}));
        Capture({"--base", "image.kstx", "--thin"}, "next.kstx");
        EXPECT_EQ(result.exitStatus, 0);
        ExpectReads(one.readAgain);
    }
}

TEST_F(IncrementalCapture, ThatFailsLeavesItsMarksToTheNextOneAndItsEpochToNobody)
{
    for (const uint64_t chunk : {0U, 2U}) {
        WriteChunk(chunk);
        FailCall(machine, "WriteFile", 1, ERROR_DISK_FULL);
        EXPECT_EQ(CaptureThin().exitStatus, 1);
        machine.faults.clear();
    }
    CaptureThin();
    ExpectReads({0, 2});
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(machine.disks[1].bytes, {1}, 8));
    EXPECT_EQ(Commits(), std::vector<uint64_t>{8});
}

TEST_F(IncrementalCapture, OfAnEmptyDiskHasATrailerBehindItsHeader)
{
    UseDisk({});
    UseBase(PlanOf({}, 5));
    CaptureThin();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage({}, {}));
}

// The trailer

TEST_F(IncrementalCapture, WritesTheTrailerByteForByteBehindTheLastStoredChunk)
{
    UseDisk(TinyDisk());
    UseBase(PlanOf(TinyDisk(), 5));
    CaptureThin();
    const Bytes image = ReadBytes("image.kstx");
    Bytes expected = {'K', 'S', 'T', 'X', 'B', 'A', 'S', 'E', 9, 0, 0, 0, 'b', 'a', 's', 'e', '.', 'k', 's', 't', 'x'};
    const std::array<uint8_t, 32> pin = Sha256Of(Bytes(base.data(), base.data() + 136));
    expected.insert(expected.end(), pin.begin(), pin.end());
    expected.insert(expected.end(), {57, 0, 0, 0});
    EXPECT_EQ(Bytes(image.data() + 136, image.data() + image.size()), expected);
}

TEST_F(IncrementalCapture, DiesWithoutItsTrailer)
{
    UseDisk(TinyDisk());
    UseBase(PlanOf(TinyDisk(), 5));
    const std::string head = tinySource + "Change tracker: disk 1 epoch 6\n" + baseLine + provedLine + tinyProgress;
    FailCall(machine, "WriteFile", 1, ERROR_DISK_FULL);
    CaptureThin();
    ExpectFatal(head, "FATAL: could not write thin image trailer (GetLastError=112)\n");
    machine.faults.clear();
    UseTracker();
    ShortenCall(machine, "WriteFile", 1, 56);
    CaptureThin();
    ExpectFatal(head, "FATAL: could not write thin image trailer (GetLastError=4711)\n");
    const Bytes image = ReadBytes("image.kstx");
    EXPECT_EQ(Bytes(image.data(), image.data() + 136), Bytes(136));
    EXPECT_TRUE(Commits().empty());
}

TEST_F(IncrementalCapture, MakesImagesThatVerifyWithTheirChain)
{
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 1));
    MarkChunk(1);
    CaptureThin();
    const RunResult verified = RunCommand(machine, {"verify", "--in", "image.kstx"});
    EXPECT_EQ(verified.exitStatus, 0) << verified.errorText;
}
