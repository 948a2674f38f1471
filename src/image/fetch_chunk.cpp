// Getting a chunk's bytes: out of the image that stores it, checked at every level on the way up.
//
// FetchChunk seeks and reads on its own and is what references are followed with. ReadNextStoredChunk never seeks:
// verify and restore walk the stored chunks of the image they were given in file order, and a fetch through a reference
// moves only the files below.
#include "image/image_file.h"

#include "cli/console.h"
#include "disk/transfer.h"

#include <algorithm>
#include <cstring>

[[noreturn]] static void FailHashCheck()
{
    Fatal("chunk failed its hash check (corrupt image or base)", 0);
}

// Opens or copies a chunk as read into out. A stored chunk shorter than the chunk itself can't hold it: that is a
// failed check, whatever its digest says, and nothing is taken from it.
static void TakePlaintext(const ImageFile &image, const ChunkEntry &entry, const uint8_t *stored, uint32_t length,
                          uint8_t *out)
{
    const bool holdsChunk = entry.storedLength >= length;
    if (image.header.encrypted != 0) {
        if (!holdsChunk || !OpenChunk(*image.key, stored, length, entry.nonce, entry.tag, out)) {
            Fatal("chunk failed authentication (corrupt or tampered image)", 0);
        }
        return;
    }
    if (!holdsChunk) {
        FailHashCheck();
    }
    memcpy(out, stored, length);
}

static void FetchStoredChunk(const ImageFile &image, uint64_t i, uint32_t length, uint8_t *out)
{
    const ChunkEntry &entry = image.table[i];
    ZeroedArray<uint8_t> stored(entry.storedLength);
    if (!SeekTo(image.file, image.chunkOffsets[i]) || !ReadExactly(image.file, stored.data(), entry.storedLength)) {
        Fatal("could not read chunk data from image (truncated?)", 0);
    }
    TakePlaintext(image, entry, stored.data(), length, out);
}

void FetchChunk(const ImageFile &image, uint64_t i, uint8_t *out)
{
    const ChunkEntry &entry = image.table[i];
    const uint32_t length = ChunkLength(image.header, i);
    if (!IsReference(entry)) {
        FetchStoredChunk(image, i, length, out);
    } else if (image.base == nullptr) {
        Fatal("image has a thin chunk but no base image", 0);
    } else {
        FetchChunk(*image.base, i, out);
    }
    uint8_t digest[digestBytes] = {};
    Sha256Buffer(out, length, digest);
    if (memcmp(digest, entry.hash, digestBytes) != 0) {
        FailHashCheck();
    }
}

static bool SkipStoredChunk(HANDLE file, uint32_t storedLength)
{
    uint8_t skipped[4096];
    for (uint32_t left = storedLength; left != 0;) {
        const uint32_t piece = std::min<uint32_t>(left, sizeof(skipped));
        if (!ReadExactly(file, skipped, piece)) {
            return false;
        }
        left -= piece;
    }
    return true;
}

bool ReadNextStoredChunk(const ImageFile &image, uint32_t storedLength, uint8_t *buffer, uint64_t bufferSize)
{
    return storedLength <= bufferSize ? ReadExactly(image.file, buffer, storedLength)
                                      : SkipStoredChunk(image.file, storedLength);
}

static bool HasChunkLength(const ImageFile &image, uint64_t i)
{
    return image.table[i].storedLength == ChunkLength(image.header, i);
}

bool OpenStoredChunk(const ImageFile &image, uint64_t i, const uint8_t *stored, uint8_t *plain)
{
    const ChunkEntry &entry = image.table[i];
    return HasChunkLength(image, i) && OpenChunk(*image.key, stored, entry.storedLength, entry.nonce, entry.tag, plain);
}

bool MatchesRecordedHash(const ImageFile &image, uint64_t i, const uint8_t *plain)
{
    const ChunkEntry &entry = image.table[i];
    uint8_t digest[digestBytes] = {};
    if (!HasChunkLength(image, i)) {
        return false;
    }
    Sha256Buffer(plain, entry.storedLength, digest);
    return memcmp(digest, entry.hash, digestBytes) == 0;
}
