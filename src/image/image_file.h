// Opening an image with its whole chain, and getting a chunk's plaintext out of it, wherever in the chain it lies.
#pragma once

#include "crypto/primitives.h"
#include "image/image_format.h"

#include <windows.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

// An opened image. Move-only; it owns everything but the handle: destroying it closes no file. The operation closes the
// top image's handle, those of the images behind it stay open until the process ends.
struct ImageFile {
    HANDLE file = INVALID_HANDLE_VALUE;
    ImageHeader header = {};
    ChunkTable table;
    std::optional<GcmKey> key; // present exactly when the header says encrypted
    ImageId imageId = {};
    std::vector<uint64_t> chunkOffsets; // file offset of each chunk
    std::unique_ptr<ImageFile> base;    // null for a full image
    std::string baseName;               // out of the trailer; empty for a full image
};

// Opens the image at path and, if it is thin, every image behind it, each checked as far as it can be without reading
// chunk data. passwordFile, empty for none, serves every sealed image of the chain; nothing tells a wrong password
// here. Callers pass depth 0. On return the handle stands at the start of the data area, so that the image's own stored
// chunks can be read one behind the other. Every fault is fatal; a table that memory can't take throws std::bad_alloc.
ImageFile OpenImage(const std::string &path, const std::string &passwordFile, int32_t depth);

// Puts the plaintext of chunk i, ChunkLength(image.header, i) bytes, into out, which the caller owns; i is below the
// image's chunkCount. Follows references down the chain and checks the digest at every level; only the file of the
// image that stores the chunk is moved. Every fault is fatal.
void FetchChunk(const ImageFile &image, uint64_t i, uint8_t *out);

// Reads the next storedLength bytes of the image's own file into buffer. A chunk longer than the buffer's bufferSize
// bytes, which only a damaged table can claim, is read past and leaves the buffer alone, so that the next chunk still
// follows. False if the file fails or ends first.
bool ReadNextStoredChunk(const ImageFile &image, uint32_t storedLength, uint8_t *buffer, uint64_t bufferSize);

// Opens stored chunk i of a sealed image, as read by ReadNextStoredChunk, into plain. False if its tag does not match,
// or if it is not as long as the chunk that it stands for.
bool OpenStoredChunk(const ImageFile &image, uint64_t i, const uint8_t *stored, uint8_t *plain);

// True if plain is what the entry of stored chunk i has the digest of, and as long as that chunk.
bool MatchesRecordedHash(const ImageFile &image, uint64_t i, const uint8_t *plain);
