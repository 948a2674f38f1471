// Finding lost chunks by their digest in other images and on a disk.
#pragma once

#include "kestrix-image/commands.h"
#include "reader/reader.h"
#include "report/report.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct LostChunk {
    uint64_t chunk = 0;
    uint64_t diskOffset = 0; // bytes
    uint32_t length = 0;     // bytes
    host::Digest digest = {};
    bool isFound = false;
    std::string foundIn; // where a sound twin lies, a file's path or the disk; also where it was not taken
};

// Where twins are looked for, opened. Move-only.
struct TwinPlaces {
    std::string folder;             // empty: none
    std::vector<std::string> names; // of the files in it
    std::string diskName;           // empty: none
    host::Source disk;
    std::vector<host::FileIdentity> known; // files whose bad chunks are told already, and not noted again
};

// Opens what the command line names, before any work is done that a mistyped name would waste. folder may be empty.
std::optional<reader::Fault> OpenTwinPlaces(const CommonOptions &common, const std::string &folder,
                                            std::optional<uint32_t> disk, TwinPlaces *places);

// Takes a piece of a lost chunk at offset bytes in it; the pieces of one chunk come in order. A chunk of one piece has
// been checked. One of several has been as well, but counts only if it is then found: it may have changed in between,
// and may come anew from another place. False: this chunk can't be made good, and no more of it is wanted.
using TakeTwin = std::function<bool(const LostChunk &lost, uint64_t offset, const uint8_t *piece, size_t byteCount)>;

// Looks for each of the lost chunks until it is found; marks those that take has got whole. Notes tells of all that
// could not be looked at or taken.
void FindTwins(const CommonOptions &common, const TwinPlaces &places, std::vector<LostChunk> &lost,
               std::vector<std::string> &notes, const TakeTwin &take);
