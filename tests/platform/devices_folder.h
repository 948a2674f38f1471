// The machine that a test of the devices runs on: a folder named devices beside the test program, there while the test
// runs. No test opens a device without it, so that none can reach the real machine's disks.
#pragma once

#include "linux_test_machine.h"
#include "port.h"
#include "test_files.h"

#include <winioctl.h>

#include <chrono>
#include <cstdlib>
#include <thread>

struct DevicesTest : testing::Test {
    DevicesTest() : folder(ProgramFolder() + "/devices")
    {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        if (FindDevice("PhysicalDrive0").path != folder + "/PhysicalDrive0") {
            abort(); // the next open would be that of a real disk
        }
    }

    ~DevicesTest() override
    {
        std::filesystem::remove_all(folder);
    }

    std::string Device(const std::string &name) const
    {
        return folder + "/" + name;
    }

    std::string folder;
};

constexpr DWORD poison = 0xDEAD;

inline HANDLE OpenDevice(const std::string &name, DWORD access, DWORD share, DWORD flags)
{
    SetPortError(poison);
    return CreateFileW(Widen("\\\\.\\" + name).c_str(), access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

// The three ways in which the program opens a disk.
inline HANDLE OpenDiskToRead(const std::string &name)
{
    return OpenDevice(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_FLAG_NO_BUFFERING);
}

inline HANDLE OpenDiskToList(const std::string &name)
{
    return OpenDevice(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, 0);
}

inline HANDLE OpenDiskToRestore(const std::string &name)
{
    return OpenDevice(name, GENERIC_READ | GENERIC_WRITE, 0, FILE_FLAG_NO_BUFFERING);
}

inline HANDLE OpenVolume(const std::string &name)
{
    return OpenDevice(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, 0);
}

// The error number of a failed open; 0, and the handle closed, if it did not fail.
inline DWORD ErrorOf(HANDLE handle)
{
    const DWORD error = GetLastError();
    if (handle != INVALID_HANDLE_VALUE) {
        CloseHandle(handle);
        return ERROR_SUCCESS;
    }
    return error;
}

// A buffer whose address is a multiple of 4096, and places in it that are none.
struct AlignedBytes {
    explicit AlignedBytes(size_t size) : bytes(static_cast<char *>(_aligned_malloc(size + 4096, 4096))) {}

    AlignedBytes(const AlignedBytes &) = delete;
    AlignedBytes &operator=(const AlignedBytes &) = delete;

    ~AlignedBytes()
    {
        _aligned_free(bytes);
    }

    char *bytes;
};

constexpr size_t mebibyte = 1024 * 1024;
constexpr DWORD blockBytes = 4 * mebibyte;

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

inline void Pause()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

inline BOOL ReadInto(HANDLE disk, char *buffer, size_t byteCount, DWORD *moved)
{
    *moved = 0xEEEEEEEE;
    SetPortError(poison);
    return ReadFile(disk, buffer, static_cast<DWORD>(byteCount), moved, nullptr);
}

inline BOOL WriteFrom(HANDLE disk, const char *buffer, size_t byteCount, DWORD *moved)
{
    *moved = 0xEEEEEEEE;
    SetPortError(poison);
    return WriteFile(disk, buffer, static_cast<DWORD>(byteCount), moved, nullptr);
}

inline LONGLONG LengthOfDisk(HANDLE disk)
{
    GET_LENGTH_INFORMATION length = {};
    DWORD moved = 0;
    EXPECT_TRUE(
        DeviceIoControl(disk, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &moved, nullptr));
    EXPECT_EQ(moved, sizeof(length));
    return length.Length.QuadPart;
}

inline DISK_GEOMETRY_EX GeometryOfDisk(HANDLE disk)
{
    DISK_GEOMETRY_EX geometry = {};
    DWORD moved = 0;
    EXPECT_TRUE(DeviceIoControl(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry), &moved,
                                nullptr));
    EXPECT_EQ(moved, sizeof(geometry));
    return geometry;
}
