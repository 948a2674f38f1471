// Calls on the devices of the machine, as a program would make them, for the tests of the simulator.
#pragma once

#include "simulator/run_command.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

const std::vector<std::string> none; // of misuses, of leaks

inline HANDLE OpenDisk(const wchar_t *path, DWORD access = GENERIC_READ, DWORD share = 3, DWORD flags = 0)
{
    return CreateFileW(path, access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

inline HANDLE OpenDisk0(DWORD access = GENERIC_READ, DWORD share = 3, DWORD flags = 0)
{
    return OpenDisk(L"\\\\.\\PhysicalDrive0", access, share, flags);
}

inline HANDLE CreateOrdinaryFile(const wchar_t *path)
{
    return CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

inline BOOL Seek(HANDLE file, LONGLONG offset)
{
    LARGE_INTEGER distance = {};
    distance.QuadPart = offset;
    return SetFilePointerEx(file, distance, nullptr, FILE_BEGIN);
}

inline BOOL Control(HANDLE device, DWORD code, void *output, DWORD outputLength)
{
    DWORD count = 0;
    return DeviceIoControl(device, code, nullptr, 0, output, outputLength, &count, nullptr);
}
