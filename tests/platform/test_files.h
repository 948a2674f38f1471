// What the tests of the platform's calls share: a scratch folder, whole files as strings of bytes, and a last error
// that no call under test leaves by chance. Holds nothing that is peculiar to one system.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

// A folder of its own for each test, which goes with everything in it.
struct ScratchFolder {
    explicit ScratchFolder(const std::filesystem::path &parent = std::filesystem::temp_directory_path())
    {
        std::random_device random;
        path = parent / ("kestrix-port-" + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directory(path);
    }

    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string File(const std::string &name) const
    {
        return (path / name).string();
    }

    std::filesystem::path path;
};

// One unit for each byte, widened with its sign.
inline std::wstring Widen(const std::string &path)
{
    std::wstring wide;
    for (const char byte : path) {
        wide.push_back(static_cast<wchar_t>(static_cast<signed char>(byte)));
    }
    return wide;
}

inline void WriteBytes(const std::string &path, const std::string &bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes;
    ASSERT_TRUE(file.flush()) << path;
}

inline std::string BytesOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Bytes that differ from place to place and with the seed.
inline std::string SeededBytes(size_t byteCount, uint32_t seed)
{
    std::mt19937 random(seed);
    std::string bytes(byteCount, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random() >> 24);
    }
    return bytes;
}

// Leaves ERROR_INVALID_HANDLE, which none of the faults under test but a bad handle gives.
inline void PoisonLastError()
{
    ASSERT_FALSE(CloseHandle(nullptr));
    ASSERT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

inline HANDLE OpenToRead(const std::string &path)
{
    return CreateFileW(Widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// disposition is CREATE_NEW or CREATE_ALWAYS.
inline HANDLE OpenToWrite(const std::string &path, DWORD disposition)
{
    return CreateFileW(Widen(path).c_str(), GENERIC_WRITE, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

inline BOOL SeekTo(HANDLE file, LONGLONG position)
{
    LARGE_INTEGER distance;
    distance.QuadPart = position;
    return SetFilePointerEx(file, distance, nullptr, FILE_BEGIN);
}

// A handle that must be good, and is closed when it goes.
struct OwnedHandle {
    explicit OwnedHandle(HANDLE given) : handle(given)
    {
        EXPECT_NE(handle, INVALID_HANDLE_VALUE) << GetLastError();
    }

    OwnedHandle(const OwnedHandle &) = delete;
    OwnedHandle &operator=(const OwnedHandle &) = delete;

    ~OwnedHandle()
    {
        if (handle != INVALID_HANDLE_VALUE) {
            EXPECT_TRUE(CloseHandle(handle)) << GetLastError();
        }
    }

    HANDLE handle;
};

// What one ReadFile of byteCount bytes gives; a failed call is a failed test.
inline std::string ReadSome(HANDLE file, DWORD byteCount)
{
    std::string bytes(byteCount, '\xEE');
    DWORD bytesRead = 0xEEEEEEEE;
    EXPECT_TRUE(ReadFile(file, bytes.data(), byteCount, &bytesRead, nullptr)) << GetLastError();
    EXPECT_LE(bytesRead, byteCount);
    bytes.resize(bytesRead <= byteCount ? bytesRead : 0);
    return bytes;
}

// How many of the bytes one WriteFile takes; a failed call is a failed test.
inline DWORD WriteSome(HANDLE file, const std::string &bytes)
{
    DWORD bytesWritten = 0xEEEEEEEE;
    EXPECT_TRUE(WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &bytesWritten, nullptr))
        << GetLastError();
    return bytesWritten;
}
