// What the Linux files of the host share.
#pragma once

#include "host/host.h"

namespace host
{

constexpr size_t pageBytes = 4096;

struct OpenHandle {
    int descriptor = -1;
    bool isDirect = false;      // the descriptor has O_DIRECT
    uint32_t blockBytes = 4096; // what a direct read is a multiple of
};

// The system's words for an errno value.
std::string SystemText(int systemError);

} // namespace host
