// Reading ahead: what a disk is asked for and when, faults in what nobody has asked for yet, disks that shrink, and a
// kernel that refuses the calls for it. Loop devices count the bytes that are read from them.
#include "devices_folder.h"
#include "read_ahead.h"

#include <malloc.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/syscall.h>
#include <unistd.h>

// Disk 0 is a loop device of five blocks and a half.
struct ReadAheadTest : DevicesTest {
    ReadAheadTest() : scratch(ProgramFolder()), content(SeededBytes(22 * mebibyte, 1))
    {
        WriteBytes(Backing(), content);
        loop = std::make_unique<LoopDevice>(Backing());
        std::filesystem::create_symlink(loop->path, Device("PhysicalDrive0"));
        Pause(); // a look at its partitions is not the tests' reading
        readBefore = loop->Statistic(3) * 512;
    }

    std::string Backing() const
    {
        return scratch.File("backing");
    }

    void Change(size_t position, const std::string &bytes) const
    {
        std::fstream file(Backing(), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(position));
        file << bytes;
        ASSERT_TRUE(file.flush());
    }

    // Bytes that were asked of the disk, once none is under way any more.
    uint64_t BytesAskedFor() const
    {
        Pause();
        return loop->Statistic(3) * 512 - readBefore;
    }

    // True when the next bytes of the disk are those that the test made it of.
    bool ReadsOn(HANDLE disk, size_t position, DWORD expected = blockBytes) const
    {
        DWORD moved = 0xEEEEEEEE;
        memset(block.bytes, 0xEE, blockBytes);
        SetPortError(poison);
        return ReadFile(disk, block.bytes, blockBytes, &moved, nullptr) && moved == expected &&
               memcmp(block.bytes, content.data() + position, expected) == 0;
    }

    bool ReadsAt(HANDLE disk, size_t position, DWORD expected = blockBytes) const
    {
        return SeekTo(disk, static_cast<LONGLONG>(position)) && ReadsOn(disk, position, expected);
    }

    bool ReadsAll(HANDLE disk) const
    {
        bool isEqual = SeekTo(disk, 0);
        for (size_t position = 0; position < content.size() && isEqual; position += blockBytes) {
            const size_t left = content.size() - position;
            isEqual = ReadsOn(disk, position, left < blockBytes ? static_cast<DWORD>(left) : blockBytes);
        }
        return isEqual;
    }

    ScratchFolder scratch;
    std::string content;
    Block block;
    std::unique_ptr<LoopDevice> loop;
    uint64_t readBefore = 0;
};

TEST_F(ReadAheadTest, TheSecondReadInARowHasTheThirdUnderWay)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    EXPECT_EQ(BytesAskedFor(), 1 * blockBytes);
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    EXPECT_EQ(BytesAskedFor(), 3 * blockBytes);
    ASSERT_TRUE(ReadsOn(disk.handle, 2 * blockBytes));
    EXPECT_EQ(BytesAskedFor(), 4 * blockBytes);
}

TEST_F(ReadAheadTest, AWholePassAsksForEachByteOnceAndForNoneBehindTheEnd)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_TRUE(ReadsAll(disk.handle));
    EXPECT_EQ(BytesAskedFor(), content.size());
    EXPECT_TRUE(ReadsOn(disk.handle, 0, 0));
    EXPECT_EQ(BytesAskedFor(), content.size());
}

TEST_F(ReadAheadTest, ReadsThatLeaveBlocksOutHaveNothingReadAhead)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    for (const size_t position : {4 * blockBytes, 2 * blockBytes, 0 * blockBytes, 0 * blockBytes, 3 * blockBytes}) {
        ASSERT_TRUE(ReadsAt(disk.handle, position));
    }
    EXPECT_EQ(BytesAskedFor(), 5 * blockBytes);
}

TEST_F(ReadAheadTest, ADiskThatIsRestoredOverHasNothingReadAhead)
{
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    const uint64_t before = BytesAskedFor();
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    EXPECT_EQ(BytesAskedFor() - before, 2 * blockBytes);
}

TEST_F(ReadAheadTest, ASeekCostsNoMoreThanTheBlockReadAhead)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    ASSERT_TRUE(ReadsAt(disk.handle, 0));
    EXPECT_EQ(BytesAskedFor(), 4 * blockBytes);
    ASSERT_TRUE(ReadsAt(disk.handle, 4 * blockBytes));
    EXPECT_EQ(BytesAskedFor(), 5 * blockBytes);
    EXPECT_TRUE(ReadsAll(disk.handle));
}

TEST_F(ReadAheadTest, WhatWasReadAheadAndNotAskedForIsNeverGivenOutLater)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    Pause();
    Change(2 * blockBytes, "changed");
    content.replace(2 * blockBytes, 7, "changed");
    ASSERT_TRUE(ReadsAt(disk.handle, 0));
    EXPECT_TRUE(ReadsAt(disk.handle, 2 * blockBytes));
}

TEST_F(ReadAheadTest, OtherLengthsAndBuffersInBetweenGetTheirOwnBytes)
{
    const AlignedBytes other(blockBytes);
    const struct {
        size_t position;
        DWORD byteCount;
    } reads[] = {{2 * blockBytes, blockBytes},
                 {2 * blockBytes, blockBytes / 2},
                 {2 * blockBytes, 512},
                 {2 * blockBytes + 512, 4096},
                 {0, 2 * mebibyte},
                 {4 * blockBytes, blockBytes}};
    for (const auto &read : reads) {
        for (char *buffer : {other.bytes, other.bytes + 1, block.bytes}) {
            const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
            ASSERT_TRUE(ReadsOn(disk.handle, 0));
            ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
            DWORD moved = 0;
            memset(buffer, 0xEE, blockBytes);
            ASSERT_TRUE(SeekTo(disk.handle, static_cast<LONGLONG>(read.position)));
            ASSERT_TRUE(ReadFile(disk.handle, buffer, read.byteCount, &moved, nullptr));
            ASSERT_EQ(moved, read.byteCount);
            ASSERT_EQ(memcmp(buffer, content.data() + read.position, moved), 0) << read.position;
            ASSERT_EQ(std::string(buffer + moved, blockBytes - moved), std::string(blockBytes - moved, '\xEE'));
        }
    }
}

TEST_F(ReadAheadTest, ReadsIntoMemoryThatCannotChangePlacesHaveNothingReadAhead)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const AlignedBytes other(blockBytes);
    for (const size_t position : {0 * blockBytes, 1 * blockBytes, 2 * blockBytes}) {
        DWORD moved = 0;
        ASSERT_TRUE(ReadFile(disk.handle, other.bytes, blockBytes, &moved, nullptr));
        EXPECT_EQ(memcmp(other.bytes, content.data() + position, blockBytes), 0);
    }
    EXPECT_EQ(BytesAskedFor(), 3 * blockBytes);
}

TEST_F(ReadAheadTest, AFaultInTheBlockReadAheadIsToldWhenItsBytesAreAskedFor)
{
    std::filesystem::resize_file(Backing(), 2 * blockBytes); // what the device reads behind it is a fault
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    DWORD moved = 0xEEEEEEEE;
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    ASSERT_TRUE(ReadsAt(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    for (int i = 0; i < 2; ++i) {
        SetPortError(poison);
        EXPECT_FALSE(ReadFile(disk.handle, block.bytes, blockBytes, &moved, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
        EXPECT_EQ(moved, 0U);
    }
    EXPECT_TRUE(ReadsAt(disk.handle, blockBytes));
}

TEST_F(ReadAheadTest, AFaultThatHasPassedWhenItsBytesAreAskedForIsNone)
{
    std::filesystem::resize_file(Backing(), 2 * blockBytes);
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    Pause();
    std::filesystem::resize_file(Backing(), content.size());
    Change(2 * blockBytes, content.substr(2 * blockBytes));
    EXPECT_TRUE(ReadsOn(disk.handle, 2 * blockBytes));
}

TEST_F(ReadAheadTest, ADeviceThatShrinksEndsWhereItEndsNow)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    Pause();
    loop->Resize(10 * mebibyte);
    EXPECT_TRUE(ReadsOn(disk.handle, 2 * blockBytes, 2 * mebibyte));
    EXPECT_TRUE(ReadsOn(disk.handle, 0, 0));
}

TEST_F(ReadAheadTest, ADiskInAFileThatShrinksEndsWhereItEndsNow)
{
    WriteBytes(scratch.File("disk"), content);
    std::filesystem::create_symlink(scratch.File("disk"), Device("PhysicalDrive1"));
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive1"));
    ASSERT_TRUE(ReadsOn(disk.handle, 0));
    ASSERT_TRUE(ReadsOn(disk.handle, blockBytes));
    Pause();
    std::filesystem::resize_file(scratch.File("disk"), 10 * mebibyte + 100);
    EXPECT_TRUE(ReadsOn(disk.handle, 2 * blockBytes, 2 * mebibyte + 100));
    EXPECT_TRUE(ReadsOn(disk.handle, 0, 0));
}

TEST_F(ReadAheadTest, TwoHandlesOnOneDiskKeepApart)
{
    const OwnedHandle one(OpenDiskToRead("PhysicalDrive0"));
    const OwnedHandle other(OpenDiskToRead("PhysicalDrive0"));
    ASSERT_TRUE(SeekTo(other.handle, blockBytes));
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(ReadsOn(one.handle, i * blockBytes)) << i;
        EXPECT_TRUE(ReadsOn(other.handle, (i + 1) * blockBytes)) << i;
    }
    EXPECT_TRUE(ReadsAll(one.handle));
    EXPECT_TRUE(ReadsAll(other.handle));
}

TEST_F(ReadAheadTest, SignalsDoNotDisturbIt)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const Interruptions interruptions;
    while (Interruptions::Count() < 20) {
        ASSERT_TRUE(ReadsAll(disk.handle));
    }
}

TEST_F(ReadAheadTest, ADiskThatIsClosedWithAReadUnderWayIsFreeAtOnce)
{
    WriteBytes(scratch.File("disk"), content);
    std::filesystem::create_symlink(scratch.File("disk"), Device("PhysicalDrive1"));
    for (int i = 0; i < 20; ++i) {
        const HANDLE disk = OpenDiskToRead("PhysicalDrive1");
        EXPECT_TRUE(ReadsOn(disk, 0));
        EXPECT_TRUE(ReadsOn(disk, blockBytes));
        EXPECT_TRUE(CloseHandle(disk));
        EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive1")), ERROR_SUCCESS);
    }
}

TEST_F(ReadAheadTest, AProcessThatEndsWithAReadUnderWayKeepsNobodyOut)
{
    WriteBytes(scratch.File("disk"), content);
    std::filesystem::create_symlink(scratch.File("disk"), Device("PhysicalDrive1"));
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(ResultOfChild([&]() -> DWORD {
                      const HANDLE disk = OpenDiskToRead("PhysicalDrive1");
                      return ReadsOn(disk, 0) && ReadsOn(disk, blockBytes) ? 0 : 1;
                  }),
                  0);
        ASSERT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive1")), ERROR_SUCCESS) << i;
    }
}

// Between the two opens of a disk its name may come to lead to another.
TEST_F(ReadAheadTest, IsOfTheDiskThatIsReadOrNotAtAll)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const PortHandle &record = *HandleRecord(disk.handle);
    EXPECT_LT(OpenForReadAhead(Backing(), record), 0);
    const int again = OpenForReadAhead(Device("PhysicalDrive0"), record);
    EXPECT_GE(again, 0);
    close(again);
}

// ---- A kernel that refuses ----

TEST_F(ReadAheadTest, WhereTheKernelRefusesItsCallsTheSameBytesAreRead)
{
    const struct {
        long number;
        int error;
    } refusals[] = {
        {SYS_io_uring_setup, ENOSYS}, {SYS_io_uring_setup, EPERM}, {SYS_io_uring_setup, ENOMEM},
        {SYS_io_uring_enter, EBUSY},  {SYS_mremap, EINVAL},
    };
    for (const auto &refusal : refusals) {
        EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                      const HANDLE disk = OpenDiskToRead("PhysicalDrive0");
                      return !RefuseSystemCall(refusal.number, refusal.error) ? 1
                             : !ReadsAll(disk)                                ? 2
                             : !ReadsAll(disk)                                ? 3
                             : !CloseHandle(disk)                             ? 4
                                                                              : 0;
                  }),
                  0)
            << refusal.number << " " << strerror(refusal.error);
    }
}

TEST_F(ReadAheadTest, WherePagesCannotBeMovedNothingIsReadTwiceButOneBlock)
{
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  const HANDLE disk = OpenDiskToRead("PhysicalDrive0");
                  return RefuseSystemCall(SYS_mremap, EINVAL) && ReadsAll(disk) && CloseHandle(disk) ? 0 : 1;
              }),
              0);
    EXPECT_EQ(BytesAskedFor(), content.size() + blockBytes);
}
