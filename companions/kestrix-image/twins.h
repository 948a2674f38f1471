// Finding lost chunks by their digest in other images and on a disk.
#pragma once

#include "kestrix-image/commands.h"
#include "reader/audit.h"
#include "reader/reader.h"
#include "report/report.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// A chunk of an image that could not be read. All of a large image's may be lost, so it is no larger than it must be;
// the image's table has the rest.
struct LostChunk {
    uint64_t chunk : 36; // a table of more entries fits into no memory
    uint64_t place : 27; // where a sound twin lies, as NameOfPlace has it; also where it was not taken
    uint64_t isFound : 1;
};

// Where twins are looked for, opened. Move-only.
struct TwinPlaces {
    std::string folder;             // empty: none
    std::vector<std::string> names; // of the files in it
    std::string diskName;           // empty: none
    host::Source disk;
    std::vector<host::FileIdentity> known; // files whose bad chunks are told already, and not noted again
};

constexpr uint64_t nowhere = 0, onDisk = 1, firstFile = 2; // LostChunk::place

// A file's path, or the disk; empty for nowhere.
std::string NameOfPlace(const TwinPlaces &places, uint64_t place);

// The chunks with a fault, in their order.
std::vector<LostChunk> LostChunks(const reader::Chain &chain, const reader::Verdicts &verdicts);

// Opens what the command line names, before any work is done that a mistyped name would waste. folder may be empty.
std::optional<reader::Fault> OpenTwinPlaces(const CommonOptions &common, const std::string &folder,
                                            std::optional<uint32_t> disk, TwinPlaces *places);

// Takes a piece of a lost chunk at offset bytes in it; the pieces of one chunk come in order. A chunk of one piece has
// been checked. One of several has been as well, but counts only if it is then found: it may have changed in between,
// and may come anew from another place. False: this chunk can't be made good, and no more of it is wanted.
using TakeTwin = std::function<bool(uint64_t chunk, uint64_t offset, const uint8_t *piece, size_t byteCount)>;

// Who takes what is found.
struct TwinTaker {
    TakeTwin take;
    std::function<void()> drop = nullptr;      // told that what was taken of the chunk whose pieces came last is void
    std::function<bool()> wantsMore = nullptr; // asked before each chunk, if given; false ends the search
};

// Looks for each of the lost chunks of the chain's first image until it is found, or a sound twin of it was refused;
// marks those that the taker has got whole. A twin is read once for all chunks that are equal, but for chunks larger
// than a buffer. Shows progress over their bytes. Notes tells of all that could not be looked at or taken.
void FindTwins(const CommonOptions &common, const reader::Chain &chain, const TwinPlaces &places,
               std::vector<LostChunk> &lost, std::vector<std::string> &notes, const TwinTaker &taker);

// Says of each chunk that was found where its twin lies.
void ReportTwins(JsonOutput &output, const TwinPlaces &places, const std::vector<LostChunk> &lost);
