// Image files, disk contents and expected values made by hand, sharing nothing with the program: integers are stored
// byte by byte, and digests, keys and seals come from the cryptography library directly.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// The fields of an image's header, in their order in the file.
struct HeaderFields {
    std::string magic = "KSTXDSK2";
    uint32_t version = 2;
    uint64_t diskSize = 0;
    uint32_t sectorSize = 512;
    uint32_t chunkSize = 4194304;
    uint64_t chunkCount = 0;
    uint8_t encrypted = 0;
    uint64_t epoch = 0; // its low 56 bits
    std::array<uint8_t, 16> salt = {};
    uint32_t kdfIterations = 0;
};
Bytes BuildHeader(const HeaderFields &fields); // 64 bytes; a magic of other than 8 bytes is cut or filled with zeros

struct EntryFields {
    uint64_t diskOffset = 0;
    uint32_t storedLength = 0;
    std::array<uint8_t, 32> hash = {};
    std::array<uint8_t, 12> nonce = {};
    std::array<uint8_t, 16> tag = {};
};
Bytes BuildEntry(const EntryFields &fields); // 72 bytes
// A thin image's trailer with lengths that fit its name.
Bytes BuildTrailer(const std::string &baseName, const std::array<uint8_t, 32> &basePin);

// What BuildImage makes an image of.
struct ImagePlan {
    Bytes disk;
    uint32_t sectorSize = 512;
    uint32_t chunkSize = 4194304; // smaller ones make smaller images
    uint64_t epoch = 0;
    bool encrypted = false;
    std::string password = "password";
    std::array<uint8_t, 16> salt = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    uint32_t kdfIterations = 1000; // few, for speed
    bool thin = false;             // with the following three
    std::set<uint64_t> references; // chunks that the base has
    std::string baseName;
    std::array<uint8_t, 32> basePin = {};
};
// The whole file. Chunk i of an encrypted image has the nonce i + 1, its low byte first.
Bytes BuildImage(const ImagePlan &plan);
// A plan for a thin image of disk against the image basePlan in the file baseName beside it: the chunks that are equal
// become references.
ImagePlan ThinPlan(const ImagePlan &basePlan, const std::string &baseName, const Bytes &disk);

// What stands in an image file.
std::array<uint8_t, 32> ImageIdOf(const Bytes &image); // of header and table
HeaderFields HeaderOf(const Bytes &image);
std::vector<EntryFields> EntriesOf(const Bytes &image);
uint64_t DataStartOf(const Bytes &image);

void StoreInteger(Bytes &bytes, size_t offset, uint64_t value, size_t width); // low byte first; the bytes must be there
uint64_t LoadInteger(const Bytes &bytes, size_t offset, size_t width);

// Reproducible noise, different in each stretch of 4 MiB and for each seed.
Bytes PatternBytes(uint64_t lengthBytes, uint32_t seed);
// The same for any place of a disk, for Disk::fill.
void FillPattern(uint64_t offset, uint8_t *buffer, uint64_t lengthBytes, uint32_t seed);

std::array<uint8_t, 32> Sha256Of(const Bytes &bytes);
std::array<uint8_t, 32> Pbkdf2Of(const std::string &password, const std::array<uint8_t, 16> &salt, uint32_t iterations);
// AES-256-GCM without additional data; the tag goes to *tag.
Bytes Seal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &plain,
           std::array<uint8_t, 16> *tag);
// False if the tag does not match.
bool Unseal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &cipher,
            const std::array<uint8_t, 16> &tag, Bytes *plain);

// Whole files; a fault throws std::runtime_error, which fails the test.
void WriteBytes(const std::string &path, const Bytes &bytes);
void WriteText(const std::string &path, const std::string &text);
Bytes ReadBytes(const std::string &path);
bool FileExists(const std::string &path);
