// Reading what an image depends on, once each, on several threads.
#pragma once

#include "kestrix-image/report.h"
#include "reader/reader.h"

#include <functional>
#include <mutex>
#include <optional>
#include <vector>

// Hands out chunks one by one: those of the deepest image first, each image's in the order of its file, and last those
// that no image stores. Any thread may ask.
struct ChunkFeeder {
    // onlyLevel, if given, leaves out all chunks but those that the image at that level stores.
    explicit ChunkFeeder(const reader::Chain &chainToFeed, std::optional<uint8_t> onlyLevel = std::nullopt);

    bool Next(uint64_t *chunk);

    const reader::Chain &chain;
    std::mutex mutex;
    std::vector<uint8_t> levels; // still to do, the present one last
    uint64_t next = 0;
};

// What became of each chunk: a byte for each, in the order of the disk, and one list of the faults that occur.
struct Verdicts {
    explicit Verdicts(uint64_t chunkCount);

    void Record(uint64_t chunk, const reader::ChunkFault &fault); // any thread
    void Clear(uint64_t chunk);                                   // it was made good
    const reader::ChunkFault *FaultOf(uint64_t chunk) const;      // null: none
    uint64_t CountBad() const;

    std::vector<uint8_t> ofChunk; // 0: no fault; else one more than an index into faults
    std::vector<reader::ChunkFault> faults;
    std::mutex mutex;
};

// Called for each chunk that has passed every check; reader is the thread's own.
using ReadOne = std::function<std::optional<reader::ChunkFault>(reader::ChunkReader &reader, uint64_t chunk)>;

// Bytes of the disk that the chunks fed will cover.
uint64_t BytesToRead(const reader::Chain &chain, std::optional<uint8_t> onlyLevel);

// Runs readOne over all chunks of the feeder, and records what it finds. wantsMore, if given, is asked before each.
std::optional<reader::Fault> ReadChunks(const CommonOptions &common, ChunkFeeder &feeder, Progress &progress,
                                        Verdicts &verdicts, const ReadOne &readOne,
                                        const std::function<bool()> &wantsMore = nullptr);

// A bad chunk as an item of a JSON list, and as a line.
Json BadChunkJson(const reader::Chain &chain, uint64_t chunk, const reader::ChunkFault &fault);
std::string BadChunkLine(const reader::Chain &chain, uint64_t chunk, const reader::ChunkFault &fault);
const char *CauseName(reader::ChunkCause cause);

// Prints all of them, as members of the list that is open in output, or as lines.
void ReportBadChunks(JsonOutput &output, const reader::Chain &chain, const Verdicts &verdicts);
