// Disks in a devices folder that are block devices: loop devices with small and with large sectors, and such as are
// mounted, locked, read-only, faulty or gone.
#include "devices_folder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

// ---- Loop devices ----

struct LoopDeviceTest : DevicesTest, testing::WithParamInterface<uint32_t> {
    LoopDeviceTest() : scratch(ProgramFolder()), content(SeededBytes(4 * mebibyte, 4))
    {
        WriteBytes(Backing(), content);
        loop = std::make_unique<LoopDevice>(Backing(), GetParam());
        std::filesystem::create_symlink(loop->path, Device("PhysicalDrive0"));
    }

    std::string Backing() const
    {
        return scratch.File("backing");
    }

    ScratchFolder scratch;
    std::string content;
    std::unique_ptr<LoopDevice> loop;
};

INSTANTIATE_TEST_SUITE_P(, LoopDeviceTest, testing::Values(512, 4096),
                         [](const testing::TestParamInfo<uint32_t> &size) {
                             return "Of" + std::to_string(size.param) + "ByteSectors";
                         });

TEST_P(LoopDeviceTest, AnswersForItsOwnLengthAndSectorSize)
{
    for (const auto open : {OpenDiskToRead, OpenDiskToList, OpenDiskToRestore}) {
        const OwnedHandle disk(open("PhysicalDrive0"));
        EXPECT_EQ(LengthOfDisk(disk.handle), 4194304);
        EXPECT_EQ(GeometryOfDisk(disk.handle).Geometry.BytesPerSector, GetParam());
        EXPECT_EQ(GeometryOfDisk(disk.handle).DiskSize.QuadPart, 4194304);
    }
}

TEST_P(LoopDeviceTest, IsReadIntoAnyBuffer)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const AlignedBytes buffer(content.size());
    for (const size_t shift : {0, 1, 8, 512}) {
        DWORD moved = 0;
        ASSERT_TRUE(SeekTo(disk.handle, 0));
        ASSERT_TRUE(ReadInto(disk.handle, buffer.bytes + shift, content.size(), &moved)) << GetLastError();
        ASSERT_EQ(moved, content.size());
        EXPECT_EQ(memcmp(buffer.bytes + shift, content.data(), content.size()), 0) << shift;
    }
}

TEST_P(LoopDeviceTest, IsWrittenFromAnyBuffer)
{
    const AlignedBytes buffer(content.size());
    for (const size_t shift : {0, 1, 8, 512}) {
        const std::string fresh = SeededBytes(content.size(), static_cast<uint32_t>(10 + shift));
        memcpy(buffer.bytes + shift, fresh.data(), fresh.size());
        {
            const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
            DWORD moved = 0;
            ASSERT_TRUE(WriteFrom(disk.handle, buffer.bytes + shift, fresh.size(), &moved)) << GetLastError();
            ASSERT_EQ(moved, fresh.size());
        }
        EXPECT_TRUE(BytesOf(Backing()) == fresh) << shift;
    }
}

TEST_P(LoopDeviceTest, TakesWholeSectorsAlone)
{
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    const AlignedBytes buffer(2 * GetParam());
    const struct {
        LONGLONG position;
        DWORD byteCount;
    } transfers[] = {{0, GetParam() - 1}, {0, GetParam() + 1}, {1, GetParam()}, {GetParam() / 2, GetParam()}};
    for (const auto &transfer : transfers) {
        DWORD moved = 0;
        ASSERT_TRUE(SeekTo(disk.handle, transfer.position));
        EXPECT_FALSE(ReadInto(disk.handle, buffer.bytes, transfer.byteCount, &moved));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_FALSE(WriteFrom(disk.handle, buffer.bytes, transfer.byteCount, &moved));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    EXPECT_TRUE(BytesOf(Backing()) == content);
}

TEST_P(LoopDeviceTest, EndsWhereItEnds)
{
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    const AlignedBytes buffer(2 * GetParam());
    memset(buffer.bytes, 'x', 2 * GetParam());
    DWORD moved = 0;
    ASSERT_TRUE(SeekTo(disk.handle, 4194304 - GetParam()));
    EXPECT_FALSE(WriteFrom(disk.handle, buffer.bytes, 2 * GetParam(), &moved));
    EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    EXPECT_EQ(moved, GetParam());
    ASSERT_TRUE(SeekTo(disk.handle, 4194304 - GetParam()));
    EXPECT_TRUE(ReadInto(disk.handle, buffer.bytes, 2 * GetParam(), &moved));
    EXPECT_EQ(moved, GetParam());
    EXPECT_TRUE(ReadInto(disk.handle, buffer.bytes, 2 * GetParam(), &moved));
    EXPECT_EQ(moved, 0U);
    EXPECT_TRUE(BytesOf(Backing()) == content.substr(0, 4194304 - GetParam()) + std::string(GetParam(), 'x'));
}

TEST_P(LoopDeviceTest, BelongsToOneRestoreAlone)
{
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(ResultOfChild([] { return ErrorOf(OpenDiskToRestore("PhysicalDrive0")); }), 32);
}

TEST_P(LoopDeviceTest, ForgetsItsOldPartitionsWhenItsPropertiesAreUpdated)
{
    const std::string partition = loop->AddPartition(mebibyte, mebibyte);
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    EXPECT_EQ(WriteSome(disk.handle, std::string(4096, '\0')), 4096U);
    EXPECT_TRUE(std::filesystem::exists(partition));
    SetPortError(poison);
    EXPECT_TRUE(DeviceIoControl(disk.handle, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, nullptr, nullptr))
        << GetLastError();
    EXPECT_TRUE(ComesToBe(partition, false));
}

struct BlockDeviceTest : DevicesTest {
    BlockDeviceTest() : scratch(ProgramFolder())
    {
        std::filesystem::create_directory(scratch.path / "mount");
    }

    void MakeBacking(size_t byteCount) const
    {
        WriteBytes(scratch.File("backing"), std::string(byteCount, '\0'));
    }

    void MakeDisk(const LoopDevice &loop) const
    {
        std::filesystem::create_symlink(loop.path, Device("PhysicalDrive0"));
    }

    ScratchFolder scratch;
};

TEST_F(BlockDeviceTest, ThatIsBeingReadIsNotRestoredOver)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const OwnedHandle reader(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
}

TEST_F(BlockDeviceTest, ThatIsBeingRestoredOverIsNotRead)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const OwnedHandle writer(OpenDiskToRestore("PhysicalDrive0"));
    EXPECT_EQ(ErrorOf(OpenDiskToRead("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
}

TEST_F(BlockDeviceTest, IsWaitedForWhileADeviceManagerLooksAtIt)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const int look = open(loop.path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(look, LOCK_SH), 0);
    std::thread manager([look] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        close(look);
    });
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SUCCESS);
    manager.join();
}

TEST_F(BlockDeviceTest, ThatIsRestoredOverIsLockedAgainstTheDeviceManager)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const OwnedHandle writer(OpenDiskToRestore("PhysicalDrive0"));
    const int look = open(loop.path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(look, LOCK_SH | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    close(look);
}

TEST_F(BlockDeviceTest, ThatIsMountedIsReadButNotRestoredOver)
{
    MakeBacking(4 * mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    ASSERT_EQ(std::system(("mkfs.ext4 -q -F " + loop.path).c_str()), 0);
    const Mount mount(loop.path, scratch.File("mount"), "ext4");
    MakeDisk(loop);
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
    const OwnedHandle reader(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_EQ(ReadSome(reader.handle, 2048).substr(1024 + 56, 2), "\x53\xEF"); // the mark of its file system
}

TEST_F(BlockDeviceTest, ThatHoldsAMountedPartitionIsNotRestoredOver)
{
    MakeBacking(8 * mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const std::string partition = loop.AddPartition(mebibyte, 6 * mebibyte);
    ASSERT_EQ(std::system(("mkfs.ext4 -q -F " + partition).c_str()), 0);
    {
        const Mount mount(partition, scratch.File("mount"), "ext4");
        EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
    }
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_SUCCESS);
}

TEST_F(BlockDeviceTest, ThatIsReadOnlyIsReadAndWriteProtected)
{
    WriteBytes(scratch.File("backing"), std::string(4096, 'x'));
    const LoopDevice loop(scratch.File("backing"), 512, true);
    MakeDisk(loop);
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_WRITE_PROTECT);
    const OwnedHandle reader(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_EQ(ReadSome(reader.handle, 8192), std::string(4096, 'x'));
}

TEST_F(BlockDeviceTest, ThatFailsToWriteIsADeviceFault)
{
    // The file behind the device has no room for the bytes that the device claims to take.
    const Mount tmpfs("none", scratch.File("mount"), "tmpfs", "size=64k");
    WriteBytes(scratch.File("mount/backing"), "");
    std::filesystem::resize_file(scratch.File("mount/backing"), mebibyte);
    const LoopDevice loop(scratch.File("mount/backing"));
    MakeDisk(loop);
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    const AlignedBytes buffer(131072);
    memset(buffer.bytes, 'x', 131072);
    DWORD moved = 0;
    WriteFrom(disk.handle, buffer.bytes, 131072, &moved); // the device takes this one, though half of it is lost
    EXPECT_FALSE(WriteFrom(disk.handle, buffer.bytes, 131072, &moved));
    EXPECT_TRUE(GetLastError() == ERROR_IO_DEVICE || GetLastError() == ERROR_DISK_FULL) << GetLastError();
    EXPECT_EQ(moved, 0U);
}

// The kernel says of a device that is gone that it has no bytes, to handles that were opened before too.
TEST_F(BlockDeviceTest, ThatGoesAwayIsADeviceFaultInEachCall)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const HANDLE reader = OpenDiskToRead("PhysicalDrive0");
    const AlignedBytes buffer(4096);
    GET_LENGTH_INFORMATION length = {};
    DWORD moved = 0;
    ASSERT_TRUE(ReadFile(reader, buffer.bytes, 4096, &moved, nullptr));
    loop.Resize(0);
    SetPortError(poison);
    EXPECT_FALSE(ReadFile(reader, buffer.bytes, 4096, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(moved, 0U);
    SetPortError(poison);
    EXPECT_FALSE(
        DeviceIoControl(reader, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    CloseHandle(reader);
}

TEST_F(BlockDeviceTest, ThatNeverHadALengthHasNotGoneAway)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    loop.Resize(0);
    const OwnedHandle reader(OpenDiskToRead("PhysicalDrive0"));
    GET_LENGTH_INFORMATION length = {};
    DWORD moved = 0;
    length.Length.QuadPart = 1;
    EXPECT_TRUE(DeviceIoControl(reader.handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &moved,
                                nullptr));
    EXPECT_EQ(length.Length.QuadPart, 0);
}

TEST_F(BlockDeviceTest, ThatGoesAwayWhileItIsRestoredOverIsADeviceFault)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const HANDLE writer = OpenDiskToRestore("PhysicalDrive0");
    const AlignedBytes buffer(4096);
    DWORD moved = 0;
    ASSERT_TRUE(WriteFile(writer, buffer.bytes, 4096, &moved, nullptr));
    loop.Resize(0);
    SetPortError(poison);
    EXPECT_FALSE(WriteFile(writer, buffer.bytes, 4096, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(moved, 0U);
    CloseHandle(writer);
}

// The sixteenth figure counts how often a drive's cache was emptied.
TEST_F(BlockDeviceTest, ThatWasWrittenHasItsOwnCacheEmptiedByTheClose)
{
    MakeBacking(mebibyte);
    const LoopDevice loop(scratch.File("backing"));
    MakeDisk(loop);
    const AlignedBytes buffer(4096);
    DWORD moved = 0;
    const uint64_t before = loop.Statistic(16);
    CloseHandle(OpenDiskToRead("PhysicalDrive0"));
    CloseHandle(OpenDiskToRestore("PhysicalDrive0"));
    EXPECT_EQ(loop.Statistic(16), before);
    const HANDLE writer = OpenDiskToRestore("PhysicalDrive0");
    ASSERT_TRUE(WriteFile(writer, buffer.bytes, 4096, &moved, nullptr));
    EXPECT_EQ(loop.Statistic(16), before);
    EXPECT_TRUE(CloseHandle(writer));
    EXPECT_GT(loop.Statistic(16), before);
}
