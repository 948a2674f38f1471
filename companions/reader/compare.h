// Comparing a disk, or a raw file of one, with what an image recorded: by the digests in the image's own table, so that
// neither its base nor a password is needed. Every chunk is looked at, also behind one that can't be read.
#pragma once

#include "reader/audit.h"
#include "reader/reader.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace reader
{

enum class ChunkState : uint8_t {
    Equal,
    Differs, // or it has no place on the disk of its image
    Unreadable,
    Missing, // what is compared ends before it does
};

struct Comparison {
    std::vector<ChunkState> states; // of each chunk
    std::string systemSays;         // of an unreadable one

    uint64_t Count(ChunkState state) const;
};

// What is compared: open already, and a way to open it once more for another thread.
struct ComparedSource {
    const host::Source &source;
    std::function<host::Trouble(host::Source *)> openAgain;
};

// Reads the source once, from start to end, on so many threads; one that can't open it leaves its part to the others.
// What the watch wants no more is left as unreadable.
Result<Comparison> CompareWithDisk(const ImageFile &image, const ComparedSource &compared, uint32_t threads,
                                   const ReadWatch &watch);

} // namespace reader
