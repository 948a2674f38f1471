// Captures against a base: what each kind of run reads, stores, refers to and prints, the image to the byte, and what
// becomes of the base's file.
//
// Where the tracker calls a chunk clean, the disk differs from the base all the same: so the image shows by its content
// whether the disk was read.
#include "capture/capturing.h"

#include <cstring>
#include <set>

namespace
{
const std::string baseLine = "Incremental mode: base image base.kstx\n";
const std::string headLines = threeChunkSource + "Change tracker: disk 1 epoch 6\n" + baseLine;
const std::string provedLine =
    "  --base: base epoch 5 matches tracker; unchanged chunks will be copied from the base image.\n";
const std::string lostLine =
    "  --base: cannot prove what changed (no change tracker for this disk) - doing a FULL capture (correct, just "
    "slower).\n";
const std::string lostThinLine =
    "  --base: cannot prove what changed (no change tracker for this disk) - reading every chunk and comparing hashes "
    "with the base (no driver needed; slower to read, still a small file).\n";

struct IncrementalCapture : Capturing {
    IncrementalCapture()
    {
        UseDisk(ThreeChunkDisk());
        UseTracker();
        UseBase(PlanOf(ThreeChunkDisk(), 5));
    }

    void UseBase(const ImagePlan &plan)
    {
        basePlan = plan;
        base = BuildImage(plan);
        WriteBytes("base.kstx", base);
    }

    void MarkChunk(uint64_t chunk)
    {
        MarkChanged(machine.tracker->reply, chunk * chunkBytes, 1);
    }

    // Another program's write to the chunk, in the sight of the driver.
    void WriteChunk(uint64_t chunk)
    {
        machine.disks[1].bytes = WithChangedChunk(machine.disks[1].bytes, chunk);
        MarkChunk(chunk);
    }

    // Has the chunk written once, ahead of the first call whose line begins so.
    void WriteChunkAt(const std::string &line, uint64_t chunk)
    {
        machine.onCall = [this, line, chunk, isWritten = false](Machine &, const Call &call) mutable {
            if (!isWritten && (call.name + " " + call.text).compare(0, line.size(), line) == 0) {
                isWritten = true;
                WriteChunk(chunk);
            }
        };
    }

    const RunResult &CaptureThin(std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--base", "base.kstx", "--thin"});
        return Capture(options);
    }

    const RunResult &CaptureCopying(std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--base", "base.kstx"});
        return Capture(options);
    }

    // The thin image of disk, with these chunks referred to whatever they hold.
    Bytes ThinImage(const Bytes &disk, const std::set<uint64_t> &references, uint64_t epoch = 6)
    {
        ImagePlan plan = ThinPlan(basePlan, "base.kstx", disk);
        plan.encrypted = false;
        plan.references = references;
        plan.epoch = epoch;
        return BuildImage(plan);
    }

    // The places of the disk that were read, one behind the other.
    std::vector<uint64_t> ReadOffsets()
    {
        std::vector<uint64_t> offsets;
        for (const Call &read : CallsOf(machine, "ReadFile", "disk1")) {
            offsets.push_back(Field(read, "offset") / chunkBytes);
        }
        return offsets;
    }

    void ExpectReads(const std::vector<uint64_t> &chunks)
    {
        EXPECT_EQ(ReadOffsets(), chunks);
    }

    ImagePlan basePlan;
    Bytes base;
};

struct BlockCase {
    const char *name;
    uint32_t blockShift;
    Bytes bitmap;
    std::vector<uint64_t> chunksRead;
};

struct SealCase {
    bool isBaseSealed;
    bool encrypt;
};

const SealCase sealCases[] = {{false, false}, {false, true}, {true, false}, {true, true}};

std::string ThinComplete(const std::string &counts)
{
    return "Capture complete (thin): image.kstx  (" + counts + ")\n";
}
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

// The base's content, good and bad

TEST_F(IncrementalCapture, CopiesThroughAThinBaseFromTheImageThatStoresTheChunk)
{
    const Bytes changed = WithChangedChunk(ThreeChunkDisk(), 1);
    WriteBytes("first.kstx", BuildImage(PlanOf(ThreeChunkDisk(), 4)));
    ImagePlan plan = ThinPlan(PlanOf(ThreeChunkDisk(), 4), "first.kstx", changed);
    plan.epoch = 5;
    UseBase(plan);
    UseDisk(Bytes(threeChunkBytes));
    CaptureCopying();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  "Capture complete: image.kstx (Read from disk: 0, Copied from base: 3 chunks)\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(changed, 6)));
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:first.kstx"), 0U);
}

TEST_F(IncrementalCapture, WithoutProofClosesOnlyTheBasesOwnFile)
{
    WriteBytes("first.kstx", BuildImage(PlanOf(ThreeChunkDisk(), 4)));
    UseBase(ThinPlan(PlanOf(ThreeChunkDisk(), 4), "first.kstx", ThreeChunkDisk()));
    CaptureCopying();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:first.kstx"), 0U);
}

TEST_F(IncrementalCapture, DiesAtADamagedChunkOfItsBaseAndLeavesNoImage)
{
    base[280 + chunkBytes + 7] ^= 0x01;
    WriteBytes("base.kstx", base);
    CaptureCopying();
    ExpectFatal(headLines + provedLine + "\r   49.99%  4 / 8 MiB  (0.0 MiB/s)   ",
                "FATAL: chunk failed its hash check (corrupt image or base) (GetLastError=4711)\n");
    const Bytes image = ReadBytes("image.kstx");
    EXPECT_EQ(image.size(), 280 + chunkBytes);
    EXPECT_EQ(Bytes(image.data(), image.data() + 280), Bytes(280));
    EXPECT_TRUE(Commits().empty());
}

TEST_F(IncrementalCapture, DiesAtASealedBaseOfAnotherPassword)
{
    basePlan.encrypted = true;
    UseBase(basePlan);
    WriteText("pw.txt", "another");
    CaptureCopying({"--password-file", "pw.txt"});
    ExpectFatal(headLines + provedLine,
                "FATAL: chunk failed authentication (corrupt or tampered image) (GetLastError=4711)\n");
    EXPECT_TRUE(Commits().empty());
}

TEST_F(IncrementalCapture, NeverLooksIntoTheBaseOfAThinRun)
{
    Bytes cut(base.data(), base.data() + 280);
    WriteBytes("base.kstx", cut);
    MarkChunk(1);
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 1));
    CaptureThin();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 1), {0, 2}));
}

// Sealed or not: every pair of base and new image goes together

TEST_F(IncrementalCapture, StoresCopiedChunksAsTheNewImageWantsThem)
{
    WriteText("pw.txt", "password");
    for (const SealCase &one : sealCases) {
        SCOPED_TRACE(std::to_string(one.isBaseSealed) + std::to_string(one.encrypt));
        basePlan.encrypted = one.isBaseSealed;
        UseBase(basePlan);
        UseTracker();
        MarkChunk(2);
        one.encrypt ? CaptureCopying({"--password-file", "pw.txt", "--encrypt"})
                    : CaptureCopying({"--password-file", "pw.txt"});
        ExpectSuccess(headLines + provedLine + threeChunkProgress +
                      "Capture complete: image.kstx (Read from disk: 1, Copied from base: 2 chunks)\n");
        const Bytes image = ReadBytes("image.kstx");
        if (!one.encrypt) {
            EXPECT_TRUE(image == BuildImage(PlanOf(ThreeChunkDisk(), 6)));
            continue;
        }
        EXPECT_EQ(HeaderOf(image).kdfIterations, 200000U);
        EXPECT_NE(HeaderOf(image).salt, basePlan.salt);
        std::set<std::array<uint8_t, 12>> nonces = {{}};
        for (uint64_t i = 0; i < 3; ++i) {
            const EntryFields entry = EntriesOf(image)[i];
            EXPECT_EQ(entry.hash, Sha256Of(ChunkOf(ThreeChunkDisk(), i)));
            EXPECT_TRUE(OpenedChunk(image, i) == ChunkOf(ThreeChunkDisk(), i));
            nonces.insert({entry.nonce, EntriesOf(base)[i].nonce});
        }
        EXPECT_EQ(nonces.size(), one.isBaseSealed ? 7U : 4U);
    }
}

TEST_F(IncrementalCapture, SealsWhatAThinImageStoresAndNothingOfAReference)
{
    WriteText("pw.txt", "password");
    const Bytes disk = WithChangedChunk(ThreeChunkDisk(), 2);
    UseDisk(disk);
    for (const SealCase &one : sealCases) {
        SCOPED_TRACE(std::to_string(one.isBaseSealed) + std::to_string(one.encrypt));
        basePlan.encrypted = one.isBaseSealed;
        UseBase(basePlan);
        UseTracker();
        MarkChunk(2);
        one.encrypt ? CaptureThin({"--password-file", "pw.txt", "--encrypt"})
                    : CaptureThin({"--password-file", "pw.txt"});
        ExpectSuccess(headLines + provedLine + threeChunkProgress +
                      ThinComplete("stored 1 of 3 chunks, 2 are references to the base; read from disk: 1"));
        const Bytes image = ReadBytes("image.kstx");
        if (!one.encrypt) {
            EXPECT_TRUE(image == ThinImage(disk, {0, 1}));
            continue;
        }
        const std::vector<EntryFields> entries = EntriesOf(image);
        EXPECT_EQ(HeaderOf(image).version, 3U);
        EXPECT_EQ(HeaderOf(image).encrypted, 1U);
        EXPECT_TRUE(OpenedChunk(image, 2) == ChunkOf(disk, 2));
        for (uint64_t i = 0; i < 2; ++i) {
            EXPECT_EQ(entries[i].nonce, (std::array<uint8_t, 12>{}));
            EXPECT_EQ(entries[i].tag, (std::array<uint8_t, 16>{}));
            EXPECT_EQ(entries[i].storedLength, 0U);
        }
        EXPECT_EQ(CountCalls(machine, "BCryptEncrypt"), 1U);
        const Bytes trailer(image.data() + 280 + 1536, image.data() + image.size());
        EXPECT_EQ(trailer, BuildTrailer("base.kstx", ImageIdOf(base)));
    }
}

TEST_F(IncrementalCapture, ReadsOnePasswordFileForEachSealedImage)
{
    WriteText("pw.txt", "password");
    basePlan.encrypted = true;
    UseBase(basePlan);
    CaptureThin({"--password-file", "pw.txt", "--encrypt"});
    const std::vector<Call> derivations = CallsOf(machine, "BCryptDeriveKeyPBKDF2");
    ASSERT_EQ(derivations.size(), 2U);
    EXPECT_EQ(Field(derivations[0], "iterations"), 1000U);
    EXPECT_EQ(Field(derivations[1], "iterations"), 200000U);
    EXPECT_EQ(CountCalls(machine, "fopen_s", "stream:pw.txt"), 2U);
    EXPECT_NE(derivations[0].input, derivations[1].input);
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
