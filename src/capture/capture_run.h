// The state of one capture, shared by the pass over the disk and by what a base image changes in it.
#pragma once

#include "capture/capture.h"
#include "disk/physical_disk.h"
#include "image/image_file.h"
#include "snapshot/shadow_range.h"
#include "tracker/change_tracker.h"

#include <optional>
#include <vector>

struct CaptureRun {
    explicit CaptureRun(const CaptureOptions &captureOptions) : options(captureOptions) {}

    const CaptureOptions &options;
    HANDLE source = INVALID_HANDLE_VALUE;
    HANDLE image = INVALID_HANDLE_VALUE;
    DiskGeometry geometry = {};
    ChangeTracker tracker;
    std::vector<ShadowRange> shadowRanges; // empty: everything is read live
    ImageHeader header = {};
    ChunkTable table;
    std::optional<GcmKey> key;   // present exactly with encrypt
    AlignedBuffer readBuffer;    // a chunk's plaintext
    AlignedBuffer cipherBuffer;  // its sealed form
    ImageFile baseImage;         // opened only with a basePath
    bool trackerProved = false;  // the tracker proves which chunks equal the base's
    uint64_t readCount = 0;      // chunks read from the source
    uint64_t copiedCount = 0;    // clean chunks taken out of the base into a full image
    uint64_t referenceCount = 0; // entries that refer to the base
};
