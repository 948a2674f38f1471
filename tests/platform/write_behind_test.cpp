// Bringing what was written to its disk: when an image is on its way there, faults on that way, what the close does,
// and a kernel that refuses the calls for it.
#include "devices_folder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

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

    // What is written at the start of file goes to the disk while it has no room, and nobody who opens file is told.
    // The room is gone before the bytes are written, since a busy system brings them to the disk at any moment.
    void FailOnTheWayToTheDisk(const std::string &file, const std::string &bytes) const
    {
        FillUp();
        const int folder = open(scratch.File("mount").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        std::ofstream(file, std::ios::binary | std::ios::in | std::ios::out) << bytes;
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
    const uint64_t before = loop->Statistic(7) * 512;
    const OwnedHandle image(OpenToWrite(Image(), CREATE_NEW));
    ASSERT_TRUE(SeekTo(image.handle, 1000));
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(WritesOn(image.handle)) << GetLastError();
    }
    for (int triesLeft = 30; triesLeft > 0 && loop->Statistic(7) * 512 - before < 152 * mebibyte; --triesLeft) {
        Pause(); // by itself the system waits far longer than this
    }
    EXPECT_GE(loop->Statistic(7) * 512 - before,
              152 * mebibyte); // the last whole window is sent by the write behind it
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
    EXPECT_GE(written, 10);
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
    WriteBytes(Image(), "");
    FailOnTheWayToTheDisk(Image(), std::string(blockBytes, 'x'));
    const HANDLE image = OpenToWrite(Image(), CREATE_ALWAYS);
    EXPECT_TRUE(WritesOn(image)) << GetLastError();
    CloseHandle(image);
}

TEST_F(WriteBehindTest, ADiskDoesNotHearOfAFaultFromBeforeItWasOpened)
{
    MakeFileSystemWithoutRoom();
    MakeDisk(2 * blockBytes);
    FailOnTheWayToTheDisk(scratch.File("mount/disk"), std::string(2 * blockBytes, 'y'));
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
    EXPECT_EQ(ErrorWithoutLock(scratch.File("image"), ENOMEM), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(std::filesystem::exists(scratch.File("image")));
}

TEST_F(WriteBehindTest, WhereThereAreNoLocksAnImageIsWrittenAndReadWithout)
{
    for (const int error : {ENOLCK, ENOSYS, EOPNOTSUPP}) {
        const std::string path = scratch.File("image" + std::to_string(error));
        EXPECT_EQ(ErrorWithoutLock(path, error), ERROR_SUCCESS);
        EXPECT_TRUE(std::filesystem::exists(path));
        EXPECT_EQ(ResultOfChild(
                      [&]() -> DWORD { return RefuseSystemCall(SYS_flock, error) ? ErrorOf(OpenToRead(path)) : 1; }),
                  0);
    }
}

TEST_F(WriteBehindTest, WhereThereAreNoLocksADiskInAFileIsNotRestoredOver)
{
    WriteBytes(Device("PhysicalDrive0"), std::string(512, 'x'));
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  return RefuseSystemCall(SYS_flock, ENOLCK) ? ErrorOf(OpenDiskToRestore("PhysicalDrive0")) : 1;
              }),
              ERROR_NOT_SUPPORTED);
}

// The link was there before and stays; what it leads to was made for this open alone.
TEST_F(WriteBehindTest, AFileBehindALinkThatCannotBeLockedIsNotLeftBehind)
{
    std::filesystem::create_symlink("target", scratch.File("link"));
    EXPECT_EQ(ErrorWithoutLock(scratch.File("link"), ENOMEM), ERROR_FILE_EXISTS);
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  return RefuseSystemCall(SYS_flock, ENOMEM) ? ErrorOf(OpenToWrite(scratch.File("link"), CREATE_ALWAYS))
                                                             : 1;
              }),
              ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_TRUE(std::filesystem::is_symlink(scratch.File("link")));
    EXPECT_FALSE(std::filesystem::exists(scratch.File("target")));
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

// ---- The close ----

struct CloseTest : WriteBehindTest {
    // What a machine would find that lost its power now: the file system as it is on the device, looked at elsewhere.
    std::string FoundAfterAPowerCut(const std::string &name) const
    {
        std::filesystem::copy_file(loop->backing, scratch.File("copy"),
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::create_directories(scratch.path / "found");
        const LoopDevice copy(scratch.File("copy"));
        const Mount found(copy.path, scratch.File("found"), "ext4");
        return BytesOf(scratch.File("found/" + name));
    }

    bool WritesAnImage(DWORD disposition = CREATE_ALWAYS) const
    {
        const HANDLE image = OpenToWrite(Image(), disposition);
        return WritesOn(image) && WritesOn(image) && CloseHandle(image);
    }

    const std::string whole = std::string(2 * blockBytes, 'x');
};

TEST_F(CloseTest, BringsANewImageToTheDisk)
{
    MakeFileSystem(scratch.File("backing"), "has_journal");
    EXPECT_TRUE(WritesAnImage(CREATE_NEW));
    EXPECT_TRUE(FoundAfterAPowerCut("image") == whole);
}

TEST_F(CloseTest, BringsAnImageThatReplacesAnotherToTheDisk)
{
    MakeFileSystem(scratch.File("backing"), "has_journal");
    WriteBytes(Image(), "before");
    sync();
    EXPECT_TRUE(WritesAnImage());
    EXPECT_TRUE(FoundAfterAPowerCut("image") == whole);
}

// True when the image behind handle has the folder at path open, to bring its name to the disk.
static bool HasFolder(HANDLE image, const std::string &path)
{
    struct stat open = {};
    struct stat expected = {};
    return fstat(HandleRecord(image)->folder, &open) == 0 && stat(path.c_str(), &expected) == 0 &&
           open.st_dev == expected.st_dev && open.st_ino == expected.st_ino;
}

TEST_F(CloseTest, AsksTheFolderThatHoldsTheNameWhateverLeadsThere)
{
    std::filesystem::create_directory(scratch.path / "target");
    std::filesystem::create_symlink("target/image", scratch.File("link"));
    const OwnedHandle plain(OpenToWrite(scratch.File("image"), CREATE_NEW));
    const OwnedHandle linked(OpenToWrite(scratch.File("link"), CREATE_ALWAYS));
    EXPECT_TRUE(HasFolder(plain.handle, scratch.path.string()));
    EXPECT_TRUE(HasFolder(linked.handle, scratch.File("target")));
}

// What closing an image gives where the call for its folder ends with error; whether all of the file system may be
// brought to the disk in its place.
static int ClosesWithoutFolder(const std::string &path, int error, bool allIsRefused)
{
    return ResultOfChild([&]() -> DWORD {
        const HANDLE image = OpenToWrite(path, CREATE_ALWAYS);
        const auto folder = static_cast<uint32_t>(HandleRecord(image)->folder);
        if (!RefuseArgument(SYS_fsync, 0, folder, error) || (allIsRefused && !RefuseSystemCall(SYS_syncfs, EIO))) {
            return 255;
        }
        return CloseHandle(image) ? 0 : GetLastError() == ERROR_IO_DEVICE ? 1 : 2;
    });
}

TEST_F(CloseTest, BringsAllOfTheFileSystemToTheDiskWhereAFolderTakesNoSuchCall)
{
    for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
        EXPECT_EQ(ClosesWithoutFolder(scratch.File("image"), error, false), 0) << strerror(error);
        EXPECT_EQ(ClosesWithoutFolder(scratch.File("image"), error, true), 1) << strerror(error);
    }
}

TEST_F(CloseTest, FailsWhereTheFolderCannotBeBroughtToTheDisk)
{
    EXPECT_EQ(ClosesWithoutFolder(scratch.File("image"), EIO, false), 1);
}

static size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(CloseTest, LeavesNoDescriptorBehind)
{
    WriteBytes(Device("PhysicalDrive0"), std::string(3 * blockBytes, 'x'));
    const size_t before = OpenDescriptors();
    for (const HANDLE handle : {OpenToWrite(scratch.File("image"), CREATE_NEW), OpenDiskToRead("PhysicalDrive0")}) {
        EXPECT_GT(OpenDescriptors(), before);
        CloseHandle(handle);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(CloseTest, NeedsNoFolderThatCanBeOpened)
{
    MakeFileSystem(scratch.File("backing"), "has_journal");
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  return RefuseArgument(SYS_openat, 2, O_RDONLY | O_DIRECTORY | O_CLOEXEC, EACCES) && WritesAnImage()
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(FoundAfterAPowerCut("image") == whole);
}

TEST_F(CloseTest, FailsWhereTheDiskHasNoRoomForWhatWasWritten)
{
    MakeFileSystemWithoutRoom();
    const HANDLE image = OpenToWrite(Image(), CREATE_NEW);
    FillUp(); // before the write, which a busy system brings to the disk at any moment
    ASSERT_TRUE(WritesOn(image));
    SetPortError(poison);
    EXPECT_FALSE(CloseHandle(image));
    EXPECT_TRUE(GetLastError() == ERROR_IO_DEVICE || GetLastError() == ERROR_DISK_FULL) << GetLastError();
}
