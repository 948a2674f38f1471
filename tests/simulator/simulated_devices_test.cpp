// The machine's own devices: that its disks, volumes and its tracker are honest fakes.
#include "simulator/calling.h"
#include "simulator/images.h"

#include <winioctl.h>

#include <cstring>

namespace
{
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
} // namespace

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
