// The records of an image file and what follows from them.
//
// A file is header, chunk table (one entry per chunk, in disk order), the stored chunks one behind the other, and in a
// thin image a trailer that names and pins the base. Integers are little-endian, as the machine's own; records are
// packed. File offsets are stored nowhere: they follow from the table.
#pragma once

#include "crypto/primitives.h"
#include "image/zeroed_array.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr char imageMagic[] = "KSTXDSK2";   // 8 bytes in the file, no terminator
constexpr char trailerMagic[] = "KSTXBASE"; // likewise
constexpr uint32_t magicBytes = 8;
constexpr uint32_t fullImageVersion = 2;
constexpr uint32_t thinImageVersion = 3;
constexpr uint32_t newImageIterations = 200000; // of PBKDF2, in every image that is written sealed
constexpr uint32_t trailerOverhead = 48;        // bytes of a trailer besides the base's name
constexpr uint32_t longestTrailer = 4096;       // that a reader takes

#pragma pack(push, 1)

struct ImageHeader {
    char magic[magicBytes];
    uint32_t version;
    uint64_t diskSize;       // bytes
    uint32_t sectorSize;     // bytes, of the source disk
    uint32_t chunkSize;      // bytes; the last chunk may be shorter
    uint64_t chunkCount;     // chunks, and entries of the table
    uint8_t encrypted;       // written as 0 or 1; any other value than 0 reads as encrypted
    uint8_t epoch[7];        // low 56 bits of the change tracker's epoch, low byte first; 0: none
    uint8_t salt[saltBytes]; // of PBKDF2; zero in a plain image
    uint32_t kdfIterations;  // of PBKDF2; 0 in a plain image
};

// A StoredEntry has its chunk in this image. A ReferenceEntry, storedLength 0, leaves it to the base image.
struct ChunkEntry {
    uint64_t diskOffset;       // bytes
    uint32_t storedLength;     // bytes in this image's data area
    uint8_t hash[digestBytes]; // SHA-256 of the plaintext
    uint8_t nonce[nonceBytes]; // zero where nothing is sealed
    uint8_t tag[tagBytes];     // likewise
};

#pragma pack(pop)

static_assert(sizeof(ImageHeader) == 64 && offsetof(ImageHeader, magic) == 0);
static_assert(offsetof(ImageHeader, version) == 8 && offsetof(ImageHeader, diskSize) == 12);
static_assert(offsetof(ImageHeader, sectorSize) == 20 && offsetof(ImageHeader, chunkSize) == 24);
static_assert(offsetof(ImageHeader, chunkCount) == 28 && offsetof(ImageHeader, encrypted) == 36);
static_assert(offsetof(ImageHeader, epoch) == 37 && offsetof(ImageHeader, salt) == 44);
static_assert(offsetof(ImageHeader, kdfIterations) == 60);
static_assert(sizeof(ChunkEntry) == 72 && offsetof(ChunkEntry, diskOffset) == 0);
static_assert(offsetof(ChunkEntry, storedLength) == 8 && offsetof(ChunkEntry, hash) == 12);
static_assert(offsetof(ChunkEntry, nonce) == 44 && offsetof(ChunkEntry, tag) == 56);

using ChunkTable = ZeroedArray<ChunkEntry>;

// True for a ReferenceEntry.
bool IsReference(const ChunkEntry &entry);

// SHA-256 over header and table as they stand in the file. A thin image pins its base by it; it is stored nowhere else.
using ImageId = std::array<uint8_t, digestBytes>;

// Bytes per chunk for a disk of that sector size, which is not 0: 4 MiB, or the next whole number of sectors above it.
uint32_t ChunkSizeFor(uint32_t sectorSize);

// Chunks of a disk of diskSize bytes, the short last one included.
uint64_t ChunkCountFor(uint64_t diskSize, uint32_t chunkSize);

// Bytes of chunk i on the disk; never above chunkSize, whatever the header claims.
uint32_t ChunkLength(const ImageHeader &header, uint64_t i);

// File offset of the data area of an image with chunkCount chunks.
uint64_t DataStart(uint64_t chunkCount);

// Stores the low 56 bits of epoch; the rest is dropped.
void SetEpoch(ImageHeader &header, uint64_t epoch);

// The stored 56 bits; 0 when the image carries no epoch.
uint64_t EpochOf(const ImageHeader &header);

// Digest of header and table. Fatal if the digest can't be made; throws std::bad_alloc for want of memory.
ImageId ImageIdOf(const ImageHeader &header, const ChunkTable &table);

// The trailer of a thin image, ready to be written: baseName is the base's bare file name, basePin its ImageId.
std::vector<uint8_t> MakeThinTrailer(const std::string &baseName, const ImageId &basePin);

// Reads a trailer of trailer.size() bytes, at least trailerOverhead. True: *baseName and *basePin are filled. False:
// its magic or its name's length is wrong, and both are untouched.
bool ParseThinTrailer(const std::vector<uint8_t> &trailer, std::string *baseName, ImageId *basePin);
