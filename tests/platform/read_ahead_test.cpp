// Reading ahead and writing behind: what a disk is asked for and when, faults in what nobody has asked for yet, disks
// that shrink, and a kernel that refuses the calls for it. Loop devices count the bytes that are read from them.
#include "devices_folder.h"

#include <malloc.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/loop.h>
#include <linux/seccomp.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

static constexpr size_t mebibyte = 1024 * 1024;
static constexpr DWORD blockBytes = 4 * mebibyte;

// A buffer as the program has one for each chunk.
struct Block {
    Block() : bytes(static_cast<char *>(_aligned_malloc(blockBytes, 512))) {}

    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    ~Block()
    {
        _aligned_free(bytes);
    }

    char *bytes;
};

static void Pause()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Field 3 of a block device's statistics counts sectors read, field 7 sectors written.
static uint64_t StatisticOf(const LoopDevice &loop, int field)
{
    std::ifstream file("/sys/class/block/" + loop.path.substr(5) + "/stat");
    uint64_t sectors = 0;
    for (int i = 0; i < field; ++i) {
        file >> sectors;
    }
    EXPECT_TRUE(file) << loop.path;
    return sectors * 512;
}

// Disk 0 is a loop device of five blocks and a half.
struct ReadAheadTest : DevicesTest {
    ReadAheadTest() : scratch(ProgramFolder()), content(SeededBytes(22 * mebibyte, 1))
    {
        WriteBytes(Backing(), content);
        loop = std::make_unique<LoopDevice>(Backing());
        std::filesystem::create_symlink(loop->path, Device("PhysicalDrive0"));
        Pause(); // a look at its partitions is not the tests' reading
        readBefore = StatisticOf(*loop, 3);
    }

    std::string Backing() const
    {
        return scratch.File("backing");
    }

    void Shrink(uint64_t lengthBytes) const
    {
        std::filesystem::resize_file(Backing(), lengthBytes);
        EXPECT_EQ(ioctl(loop->descriptor, LOOP_SET_CAPACITY), 0) << strerror(errno);
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
        return StatisticOf(*loop, 3) - readBefore;
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
    Shrink(10 * mebibyte);
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

// ---- A kernel that refuses ----

static bool Install(const sock_fprog &filter)
{
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// From here on this process gets error from the system call, and from no other.
static bool RefuseSystemCall(long number, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    return Install({4, filter});
}

// The same where the system call's argument of that index, from 0, is value.
static bool RefuseArgument(long number, size_t index, uint32_t value, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
                 static_cast<uint32_t>(offsetof(seccomp_data, args) + index * sizeof(uint64_t))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    return Install({6, filter});
}

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

// ---- Writing behind ----

// Disk 0 holds a file system in which the image is written.
struct WriteBehindTest : DevicesTest {
    WriteBehindTest() : scratch(ProgramFolder())
    {
        std::filesystem::create_directory(scratch.path / "mount");
        memset(block.bytes, 'x', blockBytes);
    }

    void MakeFileSystem(const std::string &backing, const char *features = "^has_journal",
                        const char *options = "errors=continue")
    {
        WriteBytes(backing, "");
        std::filesystem::resize_file(backing, 512 * mebibyte);
        loop = std::make_unique<LoopDevice>(backing);
        const std::string make =
            std::string("mkfs.ext4 -q -F -O ") + features + " -E lazy_itable_init=0,nodiscard " + loop->path;
        ASSERT_EQ(std::system(make.c_str()), 0);
        mount = std::make_unique<Mount>(loop->path, scratch.File("mount"), "ext4", options);
    }

    void MakeSmallFolder()
    {
        std::filesystem::create_directory(scratch.path / "small");
        tmpfs = std::make_unique<Mount>("none", scratch.File("small"), "tmpfs", "size=48m");
    }

    // The file behind the device has no room for the bytes that the file system claims to have.
    void MakeFileSystemWithoutRoom(const char *features = "^has_journal", const char *options = "errors=continue")
    {
        MakeSmallFolder();
        MakeFileSystem(scratch.File("small/backing"), features, options);
    }

    // Takes the room that is left in the small folder.
    void FillUp() const
    {
        std::ofstream(scratch.File("small/filler"), std::ios::binary) << std::string(48 * mebibyte, 'x');
    }

    // What was written goes to the disk while it has no room, and nobody is told.
    void FailOnTheWayToTheDisk() const
    {
        FillUp();
        const int folder = open(scratch.File("mount").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_NE(syncfs(folder), 0);
        close(folder);
        std::filesystem::remove(scratch.File("small/filler"));
    }

    // Disk 0 is a file in the file system.
    void MakeDisk(uint64_t lengthBytes) const
    {
        WriteBytes(scratch.File("mount/disk"), "");
        std::filesystem::resize_file(scratch.File("mount/disk"), lengthBytes);
        std::filesystem::create_symlink(scratch.File("mount/disk"), Device("PhysicalDrive0"));
    }

    std::string Image() const
    {
        return scratch.File("mount/image");
    }

    bool WritesOn(HANDLE image) const
    {
        DWORD moved = 0xEEEEEEEE;
        SetPortError(poison);
        const bool isWritten = WriteFile(image, block.bytes, blockBytes, &moved, nullptr) != FALSE;
        EXPECT_EQ(moved, isWritten ? blockBytes : 0U);
        return isWritten;
    }

    ScratchFolder scratch;
    Block block;
    std::unique_ptr<Mount> tmpfs;
    std::unique_ptr<LoopDevice> loop;
    std::unique_ptr<Mount> mount;
};

TEST_F(WriteBehindTest, AnImageIsOnItsWayToTheDiskBeforeItsEnd)
{
    MakeFileSystem(scratch.File("backing"));
    const uint64_t before = StatisticOf(*loop, 7);
    const OwnedHandle image(OpenToWrite(Image(), CREATE_NEW));
    ASSERT_TRUE(SeekTo(image.handle, 1000));
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(WritesOn(image.handle)) << GetLastError();
    }
    for (int triesLeft = 30; triesLeft > 0 && StatisticOf(*loop, 7) - before < 152 * mebibyte; --triesLeft) {
        Pause(); // by itself the system waits far longer than this
    }
    EXPECT_GE(StatisticOf(*loop, 7) - before, 152 * mebibyte); // the last whole window is sent by the write behind it
    ASSERT_TRUE(SeekTo(image.handle, 0));
    EXPECT_EQ(WriteSome(image.handle, std::string(1000, 'h')), 1000U);
    EXPECT_TRUE(BytesOf(Image()) == std::string(1000, 'h') + std::string(40 * blockBytes, 'x'));
}

TEST_F(WriteBehindTest, AFaultOfTheDiskUnderTheImageFailsAWriteBeforeTheEnd)
{
    MakeFileSystemWithoutRoom();
    const HANDLE image = OpenToWrite(Image(), CREATE_NEW);
    int written = 0;
    while (written < 60 && WritesOn(image)) {
        ++written;
        Pause();
    }
    EXPECT_TRUE(GetLastError() == ERROR_IO_DEVICE || GetLastError() == ERROR_DISK_FULL) << GetLastError();
    EXPECT_GE(written, 11);
    EXPECT_LT(written, 24) << "the file system has room for five times as many";
    CloseHandle(image);
}

// Writes on until a second opener hears that the disk has failed, which the image's own handle has not heard yet.
static void WriteUntilTheDiskFails(const WriteBehindTest &test, HANDLE image)
{
    const int watcher = open(test.Image().c_str(), O_WRONLY | O_CLOEXEC);
    bool hasFailed = false;
    for (int i = 0; i < 60 && !hasFailed; ++i) {
        ASSERT_TRUE(test.WritesOn(image)) << i;
        hasFailed = fsync(watcher) != 0;
    }
    ASSERT_TRUE(hasFailed);
    close(watcher);
}

TEST_F(WriteBehindTest, TheWriteBehindAFaultFailsAndMovesNothing)
{
    MakeFileSystemWithoutRoom();
    const HANDLE image = OpenToWrite(Image(), CREATE_NEW);
    WriteUntilTheDiskFails(*this, image);
    EXPECT_FALSE(WritesOn(image));
    EXPECT_TRUE(GetLastError() == ERROR_IO_DEVICE || GetLastError() == ERROR_DISK_FULL) << GetLastError();
    CloseHandle(image);
}

TEST_F(WriteBehindTest, AnImageThatIsToldOfAFaultAtItsHeaderGetsNone)
{
    MakeFileSystemWithoutRoom();
    const HANDLE image = OpenToWrite(Image(), CREATE_NEW);
    ASSERT_TRUE(SeekTo(image, 4096));
    WriteUntilTheDiskFails(*this, image);
    ASSERT_TRUE(SeekTo(image, 0));
    DWORD moved = 0xEEEEEEEE;
    EXPECT_FALSE(WriteFile(image, block.bytes, 64, &moved, nullptr));
    EXPECT_EQ(moved, 0U);
    EXPECT_EQ(BytesOf(Image()).substr(0, 64), std::string(64, '\0'));
    CloseHandle(image);
}

TEST_F(WriteBehindTest, AWriteOfADiskThroughThePageCacheFailsInItsOwnCall)
{
    MakeFileSystemWithoutRoom();
    MakeDisk(blockBytes + 100);
    FillUp();
    const HANDLE disk = OpenDiskToRestore("PhysicalDrive0");
    DWORD moved = 0xEEEEEEEE;
    ASSERT_TRUE(SeekTo(disk, blockBytes)); // what lies off a sector can't go past the cache
    EXPECT_FALSE(WriteFile(disk, block.bytes, 100, &moved, nullptr));
    EXPECT_EQ(moved, 0U);
    CloseHandle(disk);
}

TEST_F(WriteBehindTest, AWriteOfADeviceThatOnlyTakesCachedWritesFailsInItsOwnCall)
{
    MakeSmallFolder();
    WriteBytes(scratch.File("small/backing"), "");
    std::filesystem::resize_file(scratch.File("small/backing"), 2 * blockBytes);
    loop = std::make_unique<LoopDevice>(scratch.File("small/backing"));
    std::filesystem::create_symlink(loop->path, Device("PhysicalDrive0"));
    FillUp();
    constexpr uint32_t unbuffered = O_RDWR | O_EXCL | O_DIRECT | O_CLOEXEC;
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  const bool isRefused = RefuseArgument(SYS_openat, 2, unbuffered, EINVAL);
                  const HANDLE disk = OpenDiskToRestore("PhysicalDrive0");
                  return !isRefused || disk == INVALID_HANDLE_VALUE ? 1
                         : HandleRecord(disk)->isDirect             ? 2
                         : WritesOn(disk)                           ? 3
                                                                    : 0;
              }),
              0);
}

// Such a file system takes the wish to go past the cache, and doesn't heed it.
TEST_F(WriteBehindTest, AWriteOfADiskOnAFileSystemThatLogsItsDataFailsInItsOwnCall)
{
    MakeFileSystemWithoutRoom("has_journal -J size=4", "data=journal");
    MakeDisk(2 * blockBytes);
    FillUp();
    const HANDLE disk = OpenDiskToRestore("PhysicalDrive0");
    ASSERT_NE(disk, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(WritesOn(disk));
    CloseHandle(disk);
}

TEST_F(WriteBehindTest, AnImageDoesNotHearOfAFaultOfTheOneBeforeIt)
{
    MakeFileSystemWithoutRoom();
    const HANDLE before = OpenToWrite(Image(), CREATE_NEW);
    ASSERT_TRUE(WritesOn(before));
    ASSERT_TRUE(CloseHandle(before));
    FailOnTheWayToTheDisk();
    const HANDLE image = OpenToWrite(Image(), CREATE_ALWAYS);
    EXPECT_TRUE(WritesOn(image)) << GetLastError();
    CloseHandle(image);
}

TEST_F(WriteBehindTest, ADiskDoesNotHearOfAFaultFromBeforeItWasOpened)
{
    MakeFileSystemWithoutRoom();
    MakeDisk(2 * blockBytes);
    std::ofstream(scratch.File("mount/disk"), std::ios::binary | std::ios::in) << std::string(2 * blockBytes, 'y');
    FailOnTheWayToTheDisk();
    const HANDLE disk = OpenDiskToRestore("PhysicalDrive0");
    EXPECT_TRUE(WritesOn(disk)) << GetLastError();
    CloseHandle(disk);
}

TEST_F(WriteBehindTest, ALimitOfFileSizesIsAFullDisk)
{
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  const rlimit limit = {blockBytes, blockBytes};
                  const HANDLE image = OpenToWrite(scratch.File("image"), CREATE_NEW);
                  return setrlimit(RLIMIT_FSIZE, &limit) != 0 ? 1
                         : !WritesOn(image)                   ? 2
                         : WritesOn(image)                    ? 3
                                                              : GetLastError();
              }),
              ERROR_DISK_FULL);
}

// What a new image is refused with where its lock is refused with error.
static DWORD ErrorWithoutLock(const std::string &path, int error)
{
    return ResultOfChild(
        [&]() -> DWORD { return RefuseSystemCall(SYS_flock, error) ? ErrorOf(OpenToWrite(path, CREATE_NEW)) : 1; });
}

TEST_F(WriteBehindTest, AFileThatCannotBeLockedIsNotLeftBehind)
{
    EXPECT_EQ(ErrorWithoutLock(scratch.File("image"), ENOLCK), ERROR_NOT_SUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(scratch.File("image")));
}

TEST_F(WriteBehindTest, AFileThatAnotherOpenerHasLockedFirstIsHis)
{
    EXPECT_EQ(ErrorWithoutLock(scratch.File("image"), EWOULDBLOCK), ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(std::filesystem::exists(scratch.File("image")));
}

TEST_F(WriteBehindTest, OnlyAFileThatHoldsSomethingIsCutDown)
{
    const std::string existing = scratch.File("existing");
    const std::string fresh = scratch.File("fresh");
    WriteBytes(existing, "something");
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  return !RefuseSystemCall(SYS_ftruncate, EIO)                          ? 1
                         : OpenToWrite(existing, CREATE_ALWAYS) != INVALID_HANDLE_VALUE ? 2
                         : OpenToWrite(fresh, CREATE_ALWAYS) == INVALID_HANDLE_VALUE    ? 3
                                                                                        : 0;
              }),
              0);
    EXPECT_EQ(BytesOf(existing), "something");
}

TEST_F(WriteBehindTest, WhereTheKernelRefusesItAnImageIsWrittenAllTheSame)
{
    const std::string path = scratch.File("image");
    for (const int error : {ENOSYS, EPERM}) {
        EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                      bool isWritten = RefuseSystemCall(SYS_sync_file_range, error);
                      const HANDLE image = OpenToWrite(path, CREATE_ALWAYS);
                      for (int i = 0; i < 40 && isWritten; ++i) {
                          isWritten = WritesOn(image);
                      }
                      return isWritten && CloseHandle(image) ? 0 : 1;
                  }),
                  0)
            << strerror(error);
        EXPECT_EQ(std::filesystem::file_size(path), 40 * blockBytes);
    }
}

TEST_F(WriteBehindTest, WhereTheKernelTellsNoFaultsAnImageIsWrittenAllTheSame)
{
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  const bool isRefused = RefuseArgument(SYS_sync_file_range, 3, SYNC_FILE_RANGE_WAIT_BEFORE, ENOSYS);
                  const HANDLE image = OpenToWrite(scratch.File("image"), CREATE_NEW);
                  return isRefused && WritesOn(image) && WritesOn(image) && WritesOn(image) ? 0 : 1;
              }),
              0);
}

// The kernel gives what stopped a write on its way to the disk as it is, and that may be the error of a refusal.
TEST_F(WriteBehindTest, AFaultThatLooksLikeARefusalFailsTheNextWrite)
{
    EXPECT_EQ(
        ResultOfChild([&]() -> DWORD {
            const HANDLE image = OpenToWrite(scratch.File("image"), CREATE_ALWAYS);
            return !WritesOn(image) ? 1 : !RefuseSystemCall(SYS_sync_file_range, EPERM) ? 2 : WritesOn(image) ? 3 : 0;
        }),
        0);
}
