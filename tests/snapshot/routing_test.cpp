// Where each chunk of a snapshot capture comes from: whole from the one shadow device that holds it whole, or else
// whole from the live disk. Live and frozen bytes differ everywhere, so the image shows by every byte which it was.
#include "snapshot/snapshotting.h"

namespace
{
constexpr uint64_t sector = 512;
constexpr uint64_t C = chunkBytes;
constexpr uint64_t routedBytes = 8 * C + 1536;

// The disk as it was at the moment of the snapshot.
Bytes Frozen(Bytes disk)
{
    for (uint8_t &byte : disk) {
        byte = static_cast<uint8_t>(~byte);
    }
    return disk;
}

const Bytes &RoutedDisk()
{
    static const Bytes disk = PatternBytes(routedBytes, 21);
    return disk;
}

struct SnapshotRouting : Snapshotting {
    SnapshotRouting()
    {
        machine.volumes.clear();
    }

    // A volume from first to end whose snapshot shows the frozen disk.
    void AddPlace(const Bytes &disk, uint64_t first, uint64_t end)
    {
        const Bytes frozen = Frozen(Bytes(disk.data() + first, disk.data() + end));
        const std::wstring name = L"\\\\?\\Volume{" + std::to_wstring(machine.volumes.size() + 1) + L"}\\";
        AddVolume(machine, name, {{1, first, end - first}}, frozen).shadow.refusesUnalignedBuffers = true;
    }

    // Every move and every read of the disk and of shadow devices.
    std::string Reads() const
    {
        return LogText(machine, [](const Call &call) {
            const bool isSource = call.object.compare(0, 5, "disk1") == 0 || call.object.compare(0, 7, "shadow:") == 0;
            return isSource && (call.name == "SetFilePointerEx" || call.name == "ReadFile");
        });
    }

    // disk with the frozen bytes in these chunks.
    static Bytes Mixed(const Bytes &disk, const std::vector<uint64_t> &frozenChunks)
    {
        Bytes mixed = disk;
        for (const uint64_t chunk : frozenChunks) {
            const Bytes frozen = Frozen(ChunkOf(disk, chunk));
            std::copy(frozen.begin(), frozen.end(), mixed.begin() + static_cast<std::ptrdiff_t>(chunk * C));
        }
        return mixed;
    }
};
} // namespace

TEST_F(SnapshotRouting, TakesEachChunkFromTheOneRightPlace)
{
    UseDisk(RoutedDisk());
    machine.disks[1].refusesUnalignedBuffers = true;
    AddPlace(RoutedDisk(), 6 * C + sector, routedBytes);  // 1: begins a sector behind chunk 6, ends with the disk
    AddPlace(RoutedDisk(), 2 * C + sector, 4 * C);        // 2: touches 3, ends with chunk 3
    AddPlace(RoutedDisk(), MiB, 2 * C + sector);          // 3: begins within chunk 0, ends within chunk 2
    AddPlace(RoutedDisk(), 5 * C + sector, 5 * C + 1024); // 4: lies within chunk 5
    AddPlace(RoutedDisk(), 4 * C, 5 * C);                 // 5: is chunk 4
    CaptureWithSnapshots();
    EXPECT_EQ(Reads(), "SetFilePointerEx disk1#1 0\n"
                       "ReadFile disk1#1 4194304 at 0 -> 4194304\n"
                       "SetFilePointerEx shadow:3#1 3145728\n"
                       "ReadFile shadow:3#1 4194304 at 3145728 -> 4194304\n"
                       "SetFilePointerEx disk1#1 8388608\n"
                       "ReadFile disk1#1 4194304 at 8388608 -> 4194304\n"
                       "SetFilePointerEx shadow:2#1 4193792\n"
                       "ReadFile shadow:2#1 4194304 at 4193792 -> 4194304\n"
                       "SetFilePointerEx shadow:5#1 0\n"
                       "ReadFile shadow:5#1 4194304 at 0 -> 4194304\n"
                       "SetFilePointerEx disk1#1 20971520\n"
                       "ReadFile disk1#1 4194304 at 20971520 -> 4194304\n"
                       "SetFilePointerEx disk1#1 25165824\n"
                       "ReadFile disk1#1 4194304 at 25165824 -> 4194304\n"
                       "SetFilePointerEx shadow:1#1 4193792\n"
                       "ReadFile shadow:1#1 4194304 at 4193792 -> 4194304\n"
                       "SetFilePointerEx shadow:1#1 8388096\n"
                       "ReadFile shadow:1#1 1536 at 8388096 -> 1536\n");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errorText, "");
    EXPECT_NE(result.outputText.find("  --vss: 5 volume(s) snapshotted"), std::string::npos);
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(Mixed(RoutedDisk(), {1, 3, 4, 7, 8}))));
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(SnapshotRouting, ReadsBothKindsIntoTheSameBuffer)
{
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), C, 2 * C);
    CaptureWithSnapshots();
    std::vector<Call> reads = CallsOf(machine, "ReadFile", "disk1");
    const std::vector<Call> shadowReads = CallsOf(machine, "ReadFile", "shadow:1");
    ASSERT_EQ(reads.size() + shadowReads.size(), 3U);
    reads.insert(reads.end(), shadowReads.begin(), shadowReads.end());
    for (const Call &read : reads) {
        EXPECT_EQ(read.buffer, reads[0].buffer);
        EXPECT_GE(Field(read, "aligned"), 512U);
    }
}

TEST_F(SnapshotRouting, SealsFrozenBytesLikeLiveOnes)
{
    const Bytes disk = PatternBytes(C + 1024, 4);
    UseDisk(disk);
    AddPlace(disk, C, C + 1024);
    WriteText("pw.txt", "password");
    CaptureWithSnapshots({"--encrypt", "--password-file", "pw.txt"});
    EXPECT_EQ(result.exitStatus, 0);
    const Bytes image = ReadBytes("image.kstx");
    EXPECT_TRUE(OpenedChunk(image, 0) == ChunkOf(disk, 0));
    EXPECT_TRUE(OpenedChunk(image, 1) == Frozen(ChunkOf(disk, 1)));
    EXPECT_EQ(EntriesOf(image)[1].hash, Sha256Of(Frozen(ChunkOf(disk, 1))));
}

// The query comes behind the snapshots: what was written between them is in the bitmap that this capture gets, and yet
// not in its image.
TEST_F(SnapshotRouting, LeavesToTheNextCaptureWhatWasWrittenBehindTheSnapshot)
{
    UseDisk(ThreeChunkDisk());
    UseTracker();
    AddPlace(ThreeChunkDisk(), C, 2 * C);
    machine.onCall = [this](Machine &, const Call &call) {
        if (call.name == "DeviceIoControl" && Field(call, "code") == 0x8C7D2008) {
            MarkChanged(machine.tracker->reply, C, 1);
        }
    };
    CaptureWithSnapshots();
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(Mixed(ThreeChunkDisk(), {1}), 6)));
    machine.onCall = nullptr;
    Capture({"--base", "image.kstx", "--thin"}, "next.kstx");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Reads(), "SetFilePointerEx disk1#1 4194304\nReadFile disk1#1 4194304 at 4194304 -> 4194304\n");
    EXPECT_EQ(EntriesOf(ReadBytes("next.kstx"))[1].hash, Sha256Of(ChunkOf(ThreeChunkDisk(), 1)));
}

TEST_F(SnapshotRouting, WithoutTheOptionReadsTheDiskAlone)
{
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), 0, threeChunkBytes);
    Capture();
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(ThreeChunkDisk())));
    CaptureWithSnapshots();
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(Frozen(ThreeChunkDisk()))));
}

TEST_F(SnapshotRouting, DoesNotFallBackOnTheDiskWhereAShadowDeviceFails)
{
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), 0, C);
    AddPlace(ThreeChunkDisk(), C, 2 * C);
    machine.volumes[1].shadow.bytes.resize(C - sector);
    CaptureWithSnapshots();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errorText, "FATAL: ReadFile from source disk failed mid-capture - image is incomplete, do not "
                                "trust it (GetLastError=4711)\n");
    EXPECT_EQ(CountCalls(machine, "ReadFile", "shadow"), 2U);
    EXPECT_EQ(CountCalls(machine, "ReadFile", "disk1"), 0U);
}

TEST_F(SnapshotRouting, LeavesCleanChunksOfAProvedThinCaptureUnread)
{
    const Bytes baseDisk = Frozen(ThreeChunkDisk());
    const ImagePlan basePlan = PlanOf(baseDisk, 5);
    WriteBytes("base.kstx", BuildImage(basePlan));
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), 0, 2 * C);
    UseTracker(22);
    MarkChanged(machine.tracker->reply, C, 1);
    CaptureWithSnapshots({"--base", "base.kstx", "--thin"});
    EXPECT_EQ(Reads(), "SetFilePointerEx shadow:1#1 4194304\nReadFile shadow:1#1 4194304 at 4194304 -> 4194304\n");
    ImagePlan plan = ThinPlan(basePlan, "base.kstx", baseDisk);
    plan.epoch = 6;
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(plan));
    EXPECT_NE(result.outputText.find("Capture complete (thin): image.kstx  (stored 0 of 3 chunks, 3 are references to "
                                     "the base; read from disk: 1)\n"),
              std::string::npos);
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(SnapshotRouting, StoresWhatTheSnapshotShowsOfAChangedChunkInAThinCapture)
{
    const ImagePlan basePlan = PlanOf(ThreeChunkDisk(), 5);
    WriteBytes("base.kstx", BuildImage(basePlan));
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), C, 2 * C);
    UseTracker(22);
    MarkChanged(machine.tracker->reply, C, C + 1);
    CaptureWithSnapshots({"--base", "base.kstx", "--thin"});
    EXPECT_EQ(Reads(), "SetFilePointerEx shadow:1#1 0\nReadFile shadow:1#1 4194304 at 0 -> 4194304\n"
                       "SetFilePointerEx disk1#1 8388608\nReadFile disk1#1 1536 at 8388608 -> 1536\n");
    ImagePlan plan = ThinPlan(basePlan, "base.kstx", Mixed(ThreeChunkDisk(), {1}));
    plan.epoch = 6;
    EXPECT_EQ(plan.references, (std::set<uint64_t>{0, 2}));
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(plan));
}

TEST_F(SnapshotRouting, CopiesCleanChunksOfAProvedFullCaptureFromTheBase)
{
    WriteBytes("base.kstx", BuildImage(PlanOf(ThreeChunkDisk(), 5)));
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), 0, threeChunkBytes);
    UseTracker(22);
    MarkChanged(machine.tracker->reply, 2 * C, 1);
    CaptureWithSnapshots({"--base", "base.kstx"});
    EXPECT_EQ(Reads(), "SetFilePointerEx shadow:1#1 8388608\nReadFile shadow:1#1 1536 at 8388608 -> 1536\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(Mixed(ThreeChunkDisk(), {2}), 6)));
}

TEST_F(SnapshotRouting, ComparesFrozenBytesWithTheBaseWhereNothingIsProved)
{
    const ImagePlan basePlan = PlanOf(Frozen(ThreeChunkDisk()));
    WriteBytes("base.kstx", BuildImage(basePlan));
    UseDisk(ThreeChunkDisk());
    AddPlace(ThreeChunkDisk(), 0, C);
    AddPlace(ThreeChunkDisk(), 2 * C, threeChunkBytes);
    CaptureWithSnapshots({"--base", "base.kstx", "--thin"});
    const ImagePlan plan = ThinPlan(basePlan, "base.kstx", Mixed(ThreeChunkDisk(), {0, 2}));
    EXPECT_EQ(plan.references, (std::set<uint64_t>{0, 2}));
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(plan));
    EXPECT_EQ(CountCalls(machine, "ReadFile", "shadow") + CountCalls(machine, "ReadFile", "disk1"), 3U);
}
