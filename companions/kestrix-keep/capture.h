// kestrix, run for one disk, or kestrix-vm for one of a guest, and what they say.
#pragma once

#include "kestrix-keep/configuration.h"
#include "kestrix-keep/sidecar.h"

#include <functional>
#include <string>
#include <vector>

struct CaptureOrder {
    std::string program; // kestrix, where the disk has its number, or kestrix-vm
    uint32_t disk = 0;
    std::optional<GuestDisk> guest; // in the place of disk
    std::string outPath;
    std::string basePath;     // empty: a full image
    std::string passwordFile; // empty: a plain one
    bool usesSnapshots = false;
};

struct CaptureOutcome {
    std::string failure; // empty: kestrix says that the image is complete
    std::vector<std::string> lines;
};

// Runs a capture; onLine gets each line that isn't progress as it comes.
CaptureOutcome RunCapture(const CaptureOrder &order, const std::function<void(const std::string &)> &onLine);

// Those of kestrix's lines that one has to know a month later: what was read live though snapshots were asked for, what
// could not be proved, what failed.
std::vector<std::string> NotesOf(const std::vector<std::string> &captureLines);

// Why no image may stand on the one that was captured with these lines; empty: one may.
std::string WhyNoBaseAfter(const std::vector<std::string> &captureLines);
