// Reading what an image depends on, once each, on several threads.
#pragma once

#include "reader/reader.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace reader
{

// Hands out chunks one by one: those of the deepest image first, each image's in the order of its file, and last those
// that no image stores. Any thread may ask.
struct ChunkFeeder {
    // onlyLevel, if given, leaves out all chunks but those that the image at that level stores.
    explicit ChunkFeeder(const Chain &chainToFeed, std::optional<uint8_t> onlyLevel = std::nullopt);

    bool Next(uint64_t *chunk);

    const Chain &chain;
    std::mutex mutex;
    std::vector<uint8_t> levels; // still to do, the present one last
    uint64_t next = 0;
};

// What became of each chunk: two bytes for each, in the order of the disk, and one list of the faults that occur.
// Beyond a thousand of them, those of one file and one cause share the system's words.
struct Verdicts {
    explicit Verdicts(uint64_t chunkCount);

    void Record(uint64_t chunk, const ChunkFault &fault); // any thread
    void Clear(uint64_t chunk);                           // it was made good
    const ChunkFault *FaultOf(uint64_t chunk) const;      // null: none
    uint64_t CountBad() const;

    std::vector<uint16_t> ofChunk; // 0: no fault; else one more than an index into faults
    std::vector<ChunkFault> faults;
    std::mutex mutex;
    std::atomic<bool> hasOpenedSeal = false; // of one chunk at least: the password is right
};

// Called for each chunk that has passed every check; reader is the thread's own.
using ReadOne = std::function<std::optional<ChunkFault>(ChunkReader &reader, uint64_t chunk)>;

// Bytes of the disk that the chunks fed will cover.
uint64_t BytesToRead(const Chain &chain, std::optional<uint8_t> onlyLevel);

// Bytes of the disk in those of these chunks that were read to their end: what the tables alone refuse is not read.
uint64_t BytesRead(const Chain &chain, std::optional<uint8_t> onlyLevel, const Verdicts &verdicts);

// The fault that a medium which went away is, where it is all that is wrong: each bad chunk is one that can't be read,
// and nothing else of its file can be either. Such a file may be sound.
std::optional<Fault> GoneMedium(const Chain &chain, const Verdicts &verdicts);

// What a run over chunks is told while it goes on.
struct ReadWatch {
    std::function<void(uint64_t bytes)> onBytes; // so many bytes of the disk are done; any thread
    std::function<bool()> wantsMore = nullptr;   // asked before each chunk, if given
};

// Runs readOne over all chunks of the feeder on so many threads, and records what it finds.
std::optional<Fault> ReadChunks(uint32_t threads, ChunkFeeder &feeder, Verdicts &verdicts, const ReadOne &readOne,
                                const ReadWatch &watch);

} // namespace reader
