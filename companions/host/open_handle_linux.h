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

// As CheckTrusted, of a folder: that nobody else can put something else in the place of what the user makes there.
[[nodiscard]] Trouble CheckTrustedFolder(const std::string &path);

// Lets go of what the page cache holds of an open file or device, so that what is read next comes from the medium.
void ForgetCached(int descriptor);

// The system's words for an errno value.
std::string SystemText(int systemError);

} // namespace host
