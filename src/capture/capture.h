// The body of the capture command: one disk read from its first byte to its last, hashed, optionally sealed, and
// written into one image file.
#pragma once

#include <cstdint>
#include <string>

struct CaptureOptions {
    int32_t diskNumber = -1;  // not negative when Capture is called
    std::string outPath;      // image to create; an existing file is replaced
    bool encrypt = false;     // seal every stored chunk
    std::string passwordFile; // empty: none
    bool useVss = false;      // read through snapshots of the disk's volumes
    std::string basePath;     // base image; empty: none
    bool thin = false;        // store only what differs from the base
};

// Returns only when the image is complete; every failure ends the process and leaves a file without a header, which no
// reader accepts, or none.
void Capture(const CaptureOptions &options);
