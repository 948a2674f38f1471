// What the Windows files of the host share.
#pragma once

#include "host/host.h"

#include <windows.h>

#include <mutex>

namespace host
{

struct OpenHandle {
    HANDLE file = INVALID_HANDLE_VALUE;
    bool isUnbuffered = false;
    std::mutex mutex;           // over the file position and the block below
    Pages block;                // for unbuffered reads: the blocks around what is asked for
    uint32_t blockBytes = 4096; // what such a read is a multiple of
    bool isDisk = false;
};

// Whether the system says by it that memory is wanting.
bool IsLackOfMemory(DWORD error);

// The system's words for an error number.
std::string SystemText(DWORD error);

// path for the calls that take wide ones, and back. Bytes that are no UTF-8 become replacement characters.
std::wstring Widen(const std::string &text);
std::string Narrow(const wchar_t *text);

} // namespace host
