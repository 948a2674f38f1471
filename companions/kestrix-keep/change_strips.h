// Where on its disk an image stores chunks, and where the disk had changed since the image before: by the tables alone.
//
// A table has the digest of each chunk, stored here or not, of a sealed image too. No password and no base is needed.
#pragma once

#include "kestrix-keep/job_folder.h"
#include "reader/reader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

constexpr uint64_t mostCells = 240; // of a strip

struct ChangeStrip {
    std::string fault;       // why the table could not be read whole; what follows is empty then
    uint64_t diskBytes = 0;  // from the disk's start on, that the table has chunks for
    uint32_t chunkBytes = 0; // of a chunk on the disk
    uint64_t chunks = 0;
    uint64_t storedChunks = 0;
    std::optional<uint64_t> changedChunks; // since the table before this one; none: no such table was comparable
    // The disk in cells of equal length, as many as it has chunks, at most mostCells. For each 0 to 4: how many
    // quarters of its chunks are concerned, rounded up.
    std::vector<uint8_t> stored;
    std::vector<uint8_t> changed; // empty without changedChunks
};

// Makes strips of tables, one after the other. Keeps 8 bytes for each chunk of a table.
struct StripMaker {
    // As reader::TakeTable has it.
    void Take(const ImageHeader &header, const ChunkEntry *entries, uint64_t first, uint64_t count);

    // The strip of the table that was taken; to be called behind each image, whatever could be read of it, with its
    // facts.
    ChangeStrip Finish(const reader::ImageFacts &facts);

    void Begin(const ImageHeader &header);

    std::vector<uint64_t> digests; // the beginnings of those in the last table, and from there on in the one before
    uint64_t diskBytes = 0;        // of the last table's disk
    uint32_t chunkBytes = 0;
    bool isComparable = false;
    std::vector<uint64_t> cellChunks; // by cell
    std::vector<uint64_t> cellStored;
    std::vector<uint64_t> cellChanged;
};

// Reads the tables of all images that are there, in their order, and notes what is not as the sidecars say. Gives a
// strip for each image of the folder.
std::vector<ChangeStrip> ReadStrips(JobFolder &folder, bool showsProgress);
