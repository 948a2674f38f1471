// Disks and the volume C: in a devices folder: disks in ordinary files on a real file system and on tmpfs, and which
// names stand for a device at all.
#include "devices_folder.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

namespace
{
enum class Place { RealFileSystem, Tmpfs };

// Disk 0 lies in a file beside the program or in one on a tmpfs, and 3 MiB and 100 bytes long.
struct DiskInFileTest : DevicesTest, testing::WithParamInterface<Place> {
    DiskInFileTest() : scratch(ProgramFolder()), content(SeededBytes(3 * mebibyte + 100, 1))
    {
        if (GetParam() == Place::Tmpfs) {
            tmpfs = std::make_unique<Mount>("none", scratch.path, "tmpfs");
        }
        WriteBytes(DiskFile(), content);
        std::filesystem::create_symlink(DiskFile(), Device("PhysicalDrive0"));
    }

    std::string DiskFile() const
    {
        return scratch.File("disk");
    }

    ScratchFolder scratch;
    std::unique_ptr<Mount> tmpfs;
    std::string content;
};
} // namespace

// ---- Disks in ordinary files ----

INSTANTIATE_TEST_SUITE_P(, DiskInFileTest, testing::Values(Place::RealFileSystem, Place::Tmpfs),
                         [](const testing::TestParamInfo<Place> &place) {
                             return place.param == Place::Tmpfs ? "OnTmpfs" : "OnARealFileSystem";
                         });

TEST_P(DiskInFileTest, HasSectorsOf512BytesAndTheLengthOfTheFile)
{
    for (const auto open : {OpenDiskToRead, OpenDiskToList, OpenDiskToRestore}) {
        const OwnedHandle disk(open("PhysicalDrive0"));
        EXPECT_EQ(LengthOfDisk(disk.handle), 3145828);
        EXPECT_EQ(GeometryOfDisk(disk.handle).Geometry.BytesPerSector, 512U);
        EXPECT_EQ(GeometryOfDisk(disk.handle).DiskSize.QuadPart, 3145828);
    }
}

TEST_P(DiskInFileTest, IsReadToItsExactEnd)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const AlignedBytes buffer(mebibyte);
    std::string read;
    DWORD moved = 0;
    for (const size_t expected : {mebibyte, mebibyte, mebibyte, size_t{100}, size_t{0}, size_t{0}}) {
        ASSERT_TRUE(ReadInto(disk.handle, buffer.bytes, mebibyte, &moved)) << GetLastError();
        EXPECT_EQ(moved, expected);
        read.append(buffer.bytes, moved);
    }
    EXPECT_TRUE(read == content);
}

TEST_P(DiskInFileTest, IsReadAtAnyPositionAndLengthIntoAnyBuffer)
{
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    const AlignedBytes buffer(content.size());
    const struct {
        size_t position;
        size_t byteCount;
    } reads[] = {{0, 3145828},    {0, 512},      {512, 4096},        {1, 511},           {1, 3000000}, {511, 2},
                 {3145728, 100},  {3145827, 1},  {3145216, 612},     {2097152, 1048676}, {1000, 0},    {3145728, 512},
                 {3145728, 1024}, {4096, 65537}, {3145828, 1048576}, {5000000, 512}};
    for (const auto &read : reads) {
        for (const size_t shift : {0, 1, 8, 511, 512}) {
            const size_t there = read.position < content.size() ? content.size() - read.position : 0;
            const size_t expected = std::min(read.byteCount, there);
            DWORD moved = 0;
            ASSERT_TRUE(SeekTo(disk.handle, static_cast<LONGLONG>(read.position)));
            ASSERT_TRUE(ReadInto(disk.handle, buffer.bytes + shift, read.byteCount, &moved)) << GetLastError();
            ASSERT_EQ(moved, expected) << read.position << " " << read.byteCount << " " << shift;
            ASSERT_TRUE(expected == 0 || memcmp(buffer.bytes + shift, content.data() + read.position, expected) == 0)
                << read.position << " " << read.byteCount << " " << shift;
        }
    }
}

TEST_P(DiskInFileTest, IsWrittenAtAnyPositionAndLengthFromAnyBuffer)
{
    std::string expected = content;
    const std::string fresh = SeededBytes(content.size(), 2);
    const struct {
        size_t position;
        size_t byteCount;
    } writes[] = {{0, 1048576}, {512, 512}, {3000, 100}, {1048576, 2097252}, {3145728, 100}, {3145827, 1}, {77, 70000}};
    for (const size_t shift : {0, 1, 8, 512}) {
        {
            const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
            const AlignedBytes buffer(content.size());
            memcpy(buffer.bytes + shift, fresh.data(), fresh.size());
            for (const auto &write : writes) {
                DWORD moved = 0;
                ASSERT_TRUE(SeekTo(disk.handle, static_cast<LONGLONG>(write.position)));
                ASSERT_TRUE(WriteFrom(disk.handle, buffer.bytes + shift + write.position / 2, write.byteCount, &moved))
                    << GetLastError();
                ASSERT_EQ(moved, write.byteCount);
                expected.replace(write.position, write.byteCount, fresh, write.position / 2, write.byteCount);
            }
        }
        ASSERT_TRUE(BytesOf(DiskFile()) == expected) << shift;
        WriteBytes(DiskFile(), content);
        expected = content;
    }
}

TEST_P(DiskInFileTest, NeverGrows)
{
    {
        const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
        const AlignedBytes buffer(mebibyte);
        memset(buffer.bytes, 'x', mebibyte);
        DWORD moved = 0;
        ASSERT_TRUE(SeekTo(disk.handle, 3 * mebibyte - 512));
        EXPECT_TRUE(WriteFrom(disk.handle, buffer.bytes, mebibyte, &moved)) << GetLastError();
        EXPECT_EQ(moved, 612U);
        for (const LONGLONG position : {3145828LL, 3145829LL, 3145830LL + 512, 1LL << 40}) {
            ASSERT_TRUE(SeekTo(disk.handle, position));
            EXPECT_FALSE(WriteFrom(disk.handle, buffer.bytes, 512, &moved));
            EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
            EXPECT_EQ(moved, 0U);
            EXPECT_TRUE(WriteFrom(disk.handle, buffer.bytes, 0, &moved));
            EXPECT_EQ(moved, 0U);
        }
        ASSERT_EQ(LengthOfDisk(disk.handle), 3145828);
    }
    EXPECT_TRUE(BytesOf(DiskFile()) == content.substr(0, 3 * mebibyte - 512) + std::string(612, 'x'));
}

TEST_P(DiskInFileTest, IsSharedByReadersAndLeftToOneWriter)
{
    const auto restoreElsewhere = [] { return ErrorOf(OpenDiskToRestore("PhysicalDrive0")); };
    const auto readElsewhere = [] { return ErrorOf(OpenDiskToRead("PhysicalDrive0")); };
    {
        const OwnedHandle one(OpenDiskToRead("PhysicalDrive0"));
        const OwnedHandle other(OpenDiskToList("PhysicalDrive0"));
        EXPECT_EQ(restoreElsewhere(), ERROR_SHARING_VIOLATION);
        EXPECT_EQ(ResultOfChild(restoreElsewhere), 32);
        EXPECT_EQ(ResultOfChild(readElsewhere), 0);
    }
    const OwnedHandle writer(OpenDiskToRestore("PhysicalDrive0"));
    EXPECT_EQ(restoreElsewhere(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(readElsewhere(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(ErrorOf(OpenDiskToList("PhysicalDrive0")), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(ResultOfChild(restoreElsewhere), 32);
    EXPECT_EQ(ResultOfChild(readElsewhere), 32);
}

TEST_P(DiskInFileTest, TakesTheControlCodesOfADisk)
{
    const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
    char block[64] = {};
    DWORD moved = 7;
    EXPECT_TRUE(DeviceIoControl(disk.handle, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, nullptr, nullptr));
    const struct {
        DWORD code;
        DWORD inputLength;
        DWORD outputLength;
        LPOVERLAPPED overlapped;
        DWORD error;
    } refused[] = {
        {IOCTL_DISK_GET_LENGTH_INFO, 0, 7, nullptr, 122}, // ERROR_INSUFFICIENT_BUFFER
        {IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, 0, 39, nullptr, 122},
        {IOCTL_DISK_GET_LENGTH_INFO, 1, 64, nullptr, ERROR_INVALID_PARAMETER},
        {IOCTL_DISK_GET_LENGTH_INFO, 0, 64, reinterpret_cast<LPOVERLAPPED>(block), ERROR_INVALID_PARAMETER},
        {IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, 0, 64, nullptr, ERROR_NOT_SUPPORTED},
    };
    for (const auto &call : refused) {
        SetPortError(poison);
        EXPECT_FALSE(DeviceIoControl(disk.handle, call.code, block, call.inputLength, block, call.outputLength, &moved,
                                     call.overlapped));
        EXPECT_EQ(GetLastError(), call.error) << std::hex << call.code;
        EXPECT_EQ(moved, 0U);
    }
}

TEST_F(DevicesTest, ADiskInAFileOnAReadOnlyMountIsReadAndWriteProtected)
{
    const ScratchFolder scratch(ProgramFolder());
    const Mount tmpfs("none", scratch.path, "tmpfs");
    WriteBytes(scratch.File("disk"), "content");
    std::filesystem::create_symlink(scratch.File("disk"), Device("PhysicalDrive0"));
    tmpfs.MakeReadOnly();
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("PhysicalDrive0")), ERROR_WRITE_PROTECT);
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_EQ(ReadSome(disk.handle, 4096), "content");
}

TEST_F(DevicesTest, AFileSystemThatWantsLargerSectorsIsReadAllTheSame)
{
    // A file on a disk of 4096-byte sectors takes unbuffered transfers of whole 4096 bytes alone.
    const ScratchFolder scratch(ProgramFolder());
    const std::string content = SeededBytes(mebibyte + 512, 3);
    WriteBytes(scratch.File("backing"), std::string(16 * mebibyte, '\0'));
    const LoopDevice loop(scratch.File("backing"), 4096);
    ASSERT_EQ(std::system(("mkfs.ext4 -q -F -b 4096 " + loop.path).c_str()), 0);
    std::filesystem::create_directory(scratch.path / "mount");
    const Mount mount(loop.path, scratch.File("mount"), "ext4");
    WriteBytes(scratch.File("mount/disk"), content);
    std::filesystem::create_symlink(scratch.File("mount/disk"), Device("PhysicalDrive0"));
    {
        const OwnedHandle disk(OpenDiskToRestore("PhysicalDrive0"));
        ASSERT_TRUE(SeekTo(disk.handle, 512));
        EXPECT_EQ(WriteSome(disk.handle, std::string(512, 'x')), 512U);
        ASSERT_TRUE(SeekTo(disk.handle, mebibyte));
        EXPECT_EQ(WriteSome(disk.handle, std::string(512, 'y')), 512U);
    }
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    EXPECT_TRUE(ReadSome(disk.handle, 2 * mebibyte) == content.substr(0, 512) + std::string(512, 'x') +
                                                           content.substr(1024, mebibyte - 1024) +
                                                           std::string(512, 'y'));
}

TEST_F(DevicesTest, AnOpenThatSucceedsLeavesNoError)
{
    WriteBytes(Device("PhysicalDrive0"), std::string(4096, 'x'));
    std::filesystem::create_symlink("PhysicalDrive0", Device("C:"));
    for (const auto &open : {std::function<HANDLE()>([] { return OpenDiskToRead("PhysicalDrive0"); }),
                             std::function<HANDLE()>([] { return OpenDiskToList("PhysicalDrive0"); }),
                             std::function<HANDLE()>([] { return OpenDiskToRestore("PhysicalDrive0"); }),
                             std::function<HANDLE()>([] { return OpenVolume("C:"); })}) {
        const OwnedHandle handle(open());
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        EXPECT_NE(handle.handle, INVALID_HANDLE_VALUE);
    }
}

TEST_F(DevicesTest, ADiskIsOpenedInTheProgramsOwnWaysAlone)
{
    WriteBytes(Device("PhysicalDrive0"), "content");
    constexpr DWORD readWrite = GENERIC_READ | GENERIC_WRITE;
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;
    const struct {
        DWORD access;
        DWORD share;
        DWORD disposition;
        DWORD flags;
    } requests[] = {
        {GENERIC_WRITE, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
        {readWrite, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
        {GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
        {GENERIC_READ, 0, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
        {GENERIC_READ, shareAll, CREATE_ALWAYS, FILE_FLAG_NO_BUFFERING},
        {GENERIC_READ, shareAll, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL},
        {readWrite, 0, CREATE_ALWAYS, FILE_FLAG_NO_BUFFERING},
        {readWrite, 0, CREATE_NEW, FILE_FLAG_NO_BUFFERING},
        {readWrite, 0, OPEN_EXISTING, 0},
        {readWrite, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
        {GENERIC_WRITE, 0, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING},
    };
    for (const auto &request : requests) {
        SetPortError(poison);
        EXPECT_EQ(ErrorOf(CreateFileW(L"\\\\.\\PhysicalDrive0", request.access, request.share, nullptr,
                                      request.disposition, request.flags, nullptr)),
                  ERROR_INVALID_PARAMETER)
            << std::hex << request.access << " " << request.share << " " << request.disposition << " " << request.flags;
    }
    EXPECT_EQ(BytesOf(Device("PhysicalDrive0")), "content");
}

TEST_F(DevicesTest, ALengthIsNoFilesLengthForADisk)
{
    WriteBytes(Device("PhysicalDrive0"), "content");
    const OwnedHandle disk(OpenDiskToRead("PhysicalDrive0"));
    LARGE_INTEGER length;
    SetPortError(poison);
    EXPECT_FALSE(GetFileSizeEx(disk.handle, &length));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

// ---- Names ----

TEST_F(DevicesTest, OnlyAPlainNumberNamesADisk)
{
    std::filesystem::create_directory(Device("folder"));
    const std::string names[] = {
        "PhysicalDrive",
        "PhysicalDrive00",
        "PhysicalDrive01",
        "PhysicalDrive+1",
        "PhysicalDrive-1",
        "PhysicalDrive 1",
        "PhysicalDrive1 ",
        "PhysicalDrive0x1",
        "physicaldrive1",
        "PhysicalDriveA",
        "PhysicalDrive1.",
        "PhysicalDrive2147483648",
        "PhysicalDrive10000000000",
        "Disk1",
        "folder/PhysicalDrive1",
    };
    for (const std::string &name : names) {
        WriteBytes(Device(name), "content");
        EXPECT_EQ(ErrorOf(OpenDiskToRead(name)), ERROR_FILE_NOT_FOUND) << name;
        EXPECT_EQ(ErrorOf(OpenDiskToRestore(name)), ERROR_FILE_NOT_FOUND) << name;
    }
    for (const char *name : {"PhysicalDrive0", "PhysicalDrive9", "PhysicalDrive10", "PhysicalDrive2147483647"}) {
        WriteBytes(Device(name), "content");
        EXPECT_EQ(ErrorOf(OpenDiskToRead(name)), ERROR_SUCCESS) << name;
    }
}

TEST_F(DevicesTest, ANameIsNeverAPath)
{
    std::filesystem::create_directory(Device("folder"));
    WriteBytes(Device("PhysicalDrive0"), "content");
    for (const std::string &name : {std::string(""), std::string("."), std::string(".."), std::string("folder"),
                                    std::string("./PhysicalDrive0"), std::string("../devices/PhysicalDrive0"),
                                    std::string("PhysicalDrive0/"), Device("PhysicalDrive0"), std::string("C:/")}) {
        EXPECT_EQ(ErrorOf(OpenDiskToRead(name)), ERROR_FILE_NOT_FOUND) << name;
        EXPECT_EQ(ErrorOf(OpenDevice(name, GENERIC_READ | GENERIC_WRITE, 0, 0)), ERROR_FILE_NOT_FOUND) << name;
    }
}

TEST_F(DevicesTest, WhatIsNoDiskDoesNotOpenAsOne)
{
    std::filesystem::create_directory(Device("PhysicalDrive1"));
    std::filesystem::create_symlink("missing", Device("PhysicalDrive2"));
    std::filesystem::create_symlink("/dev/null", Device("PhysicalDrive3"));
    for (const char *name : {"PhysicalDrive0", "PhysicalDrive1", "PhysicalDrive2", "PhysicalDrive3"}) {
        EXPECT_EQ(ErrorOf(OpenDiskToRead(name)), ERROR_FILE_NOT_FOUND) << name;
        EXPECT_EQ(ErrorOf(OpenDiskToList(name)), ERROR_FILE_NOT_FOUND) << name;
        EXPECT_EQ(ErrorOf(OpenDiskToRestore(name)), ERROR_FILE_NOT_FOUND) << name;
    }
    EXPECT_FALSE(std::filesystem::exists(Device("missing")));
}

// ---- The volume C: ----

static VOLUME_DISK_EXTENTS ExtentsOfC()
{
    VOLUME_DISK_EXTENTS extents = {};
    DWORD moved = 0;
    const OwnedHandle volume(OpenVolume("C:"));
    EXPECT_TRUE(DeviceIoControl(volume.handle, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, &extents,
                                sizeof(extents), &moved, nullptr));
    EXPECT_EQ(moved, 32U);
    EXPECT_EQ(extents.NumberOfDiskExtents, 1U);
    return extents;
}

TEST_F(DevicesTest, TheVolumeLiesOnTheDiskThatItsLinkNames)
{
    const ScratchFolder scratch;
    WriteBytes(scratch.File("disk"), "content!");
    std::filesystem::create_directory_symlink(folder, scratch.path / "machine");
    std::filesystem::create_symlink(scratch.File("disk"), Device("PhysicalDrive3"));
    for (const std::string &target :
         {std::string("PhysicalDrive3"), std::string("./PhysicalDrive3"), std::string("../devices/PhysicalDrive3"),
          Device("PhysicalDrive3"), scratch.File("machine/PhysicalDrive3")}) {
        std::filesystem::remove(Device("C:"));
        std::filesystem::create_symlink(target, Device("C:"));
        const VOLUME_DISK_EXTENTS extents = ExtentsOfC();
        EXPECT_EQ(extents.Extents[0].DiskNumber, 3U) << target;
        EXPECT_EQ(extents.Extents[0].StartingOffset.QuadPart, 0) << target;
        EXPECT_EQ(extents.Extents[0].ExtentLength.QuadPart, 8) << target;
    }
}

TEST_F(DevicesTest, TheVolumeMayLieOnADiskThatDoesNotOpen)
{
    std::filesystem::create_symlink("missing", Device("PhysicalDrive4"));
    std::filesystem::create_symlink("PhysicalDrive4", Device("C:"));
    EXPECT_EQ(ExtentsOfC().Extents[0].DiskNumber, 4U);
}

TEST_F(DevicesTest, WithoutALinkToADiskOfTheFolderThereIsNoVolume)
{
    const ScratchFolder scratch;
    WriteBytes(scratch.File("PhysicalDrive0"), "content");
    WriteBytes(Device("PhysicalDrive0"), "content");
    WriteBytes(Device("other"), "content");
    EXPECT_EQ(ErrorOf(OpenVolume("C:")), ERROR_FILE_NOT_FOUND);
    for (const std::string &target :
         {std::string("PhysicalDrive1"), std::string("other"), std::string("."), std::string("PhysicalDrive00"),
          scratch.File("PhysicalDrive0"), std::string("missing/PhysicalDrive0"), std::string("/PhysicalDrive0")}) {
        std::filesystem::create_symlink(target, Device("C:"));
        EXPECT_EQ(ErrorOf(OpenVolume("C:")), ERROR_FILE_NOT_FOUND) << target;
        std::filesystem::remove(Device("C:"));
    }
    WriteBytes(Device("C:"), "content");
    EXPECT_EQ(ErrorOf(OpenVolume("C:")), ERROR_FILE_NOT_FOUND);
}

TEST_F(DevicesTest, TheVolumeAnswersForItsExtentsAlone)
{
    WriteBytes(Device("PhysicalDrive0"), "content");
    std::filesystem::create_symlink("PhysicalDrive0", Device("C:"));
    EXPECT_EQ(ErrorOf(OpenDiskToRead("C:")), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ErrorOf(OpenDiskToRestore("C:")), ERROR_INVALID_PARAMETER);
    const OwnedHandle volume(OpenVolume("C:"));
    char block[64] = {};
    DWORD moved = 7;
    SetPortError(poison);
    EXPECT_FALSE(
        DeviceIoControl(volume.handle, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, block, 31, &moved, nullptr));
    EXPECT_EQ(GetLastError(), 122U); // ERROR_INSUFFICIENT_BUFFER
    EXPECT_EQ(moved, 0U);
    SetPortError(poison);
    EXPECT_FALSE(DeviceIoControl(volume.handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, block, 64, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    SetPortError(poison);
    EXPECT_FALSE(ReadFile(volume.handle, block, 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetPortError(poison);
    EXPECT_FALSE(SeekTo(volume.handle, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}
