// Chunk geometry, the 7-byte epoch, the image's identity and the trailer's bytes.
//
// The trailer: magic (8), length of the name (4), the name, the base's ImageId (32), length of the whole trailer (4).
// Its last four bytes are what a reader finds it by.
#include "image/image_format.h"

#include <cstring>

static constexpr uint32_t usualChunkSize = 0x400000;
static constexpr size_t nameLengthOffset = magicBytes;
static constexpr size_t nameOffset = nameLengthOffset + sizeof(uint32_t);

bool IsReference(const ChunkEntry &entry)
{
    return entry.storedLength == 0;
}

uint32_t ChunkSizeFor(uint32_t sectorSize)
{
    if (usualChunkSize % sectorSize == 0) {
        return usualChunkSize;
    }
    return (usualChunkSize / sectorSize + 1) * sectorSize;
}

uint64_t ChunkCountFor(uint64_t diskSize, uint32_t chunkSize)
{
    return (diskSize - 1 + chunkSize) / chunkSize;
}

uint32_t ChunkLength(const ImageHeader &header, uint64_t i)
{
    const uint64_t left = header.diskSize - i * header.chunkSize;
    return left < header.chunkSize ? static_cast<uint32_t>(left) : header.chunkSize;
}

uint64_t DataStart(uint64_t chunkCount)
{
    return sizeof(ImageHeader) + sizeof(ChunkEntry) * chunkCount;
}

void SetEpoch(ImageHeader &header, uint64_t epoch)
{
    for (uint8_t &byte : header.epoch) {
        byte = static_cast<uint8_t>(epoch);
        epoch >>= 8;
    }
}

uint64_t EpochOf(const ImageHeader &header)
{
    uint64_t epoch = 0;
    for (size_t i = sizeof(header.epoch); i > 0; --i) {
        epoch = epoch << 8 | header.epoch[i - 1];
    }
    return epoch;
}

ImageId ImageIdOf(const ImageHeader &header, const ChunkTable &table)
{
    const auto *headerBytes = reinterpret_cast<const uint8_t *>(&header);
    const auto *tableBytes = reinterpret_cast<const uint8_t *>(table.data());
    std::vector<uint8_t> bytes;
    bytes.reserve(DataStart(table.size()));
    bytes.insert(bytes.end(), headerBytes, headerBytes + sizeof(header));
    bytes.insert(bytes.end(), tableBytes, tableBytes + sizeof(ChunkEntry) * table.size());
    ImageId imageId = {};
    Sha256Buffer(bytes.data(), bytes.size(), imageId.data());
    return imageId;
}

static void AppendBytes(std::vector<uint8_t> &bytes, const void *data, size_t byteCount)
{
    const auto *first = static_cast<const uint8_t *>(data);
    bytes.insert(bytes.end(), first, first + byteCount);
}

std::vector<uint8_t> MakeThinTrailer(const std::string &baseName, const ImageId &basePin)
{
    const auto nameLength = static_cast<uint32_t>(baseName.size());
    const uint32_t totalLength = nameLength + trailerOverhead;
    std::vector<uint8_t> trailer;
    trailer.reserve(totalLength);
    AppendBytes(trailer, trailerMagic, magicBytes);
    AppendBytes(trailer, &nameLength, sizeof(nameLength));
    AppendBytes(trailer, baseName.data(), baseName.size());
    AppendBytes(trailer, basePin.data(), basePin.size());
    AppendBytes(trailer, &totalLength, sizeof(totalLength));
    return trailer;
}

bool ParseThinTrailer(const std::vector<uint8_t> &trailer, std::string *baseName, ImageId *basePin)
{
    if (memcmp(trailer.data(), trailerMagic, magicBytes) != 0) {
        return false;
    }
    uint32_t nameLength = 0;
    memcpy(&nameLength, trailer.data() + nameLengthOffset, sizeof(nameLength));
    if (uint64_t{nameLength} + trailerOverhead != trailer.size() || nameLength == 0) {
        return false;
    }
    baseName->assign(reinterpret_cast<const char *>(trailer.data()) + nameOffset, nameLength);
    memcpy(basePin->data(), trailer.data() + nameOffset + nameLength, basePin->size());
    return true;
}
