// Whole transfers and positions on an open disk or file, for callers to whom a short transfer is a failed one.
#pragma once

#include <windows.h>

#include <cstdint>

// Reads exactly byteCount bytes at the handle's position; false if it fails or ends first.
bool ReadExactly(HANDLE file, void *buffer, DWORD byteCount);

// Writes byteCount bytes at the handle's position; false if it fails or takes fewer.
bool WriteExactly(HANDLE file, const void *buffer, DWORD byteCount);

// Moves the handle's position to position bytes from the start; gives the call's result.
BOOL SeekTo(HANDLE file, uint64_t position);
