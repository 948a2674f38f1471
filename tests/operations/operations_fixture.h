// What the tests of verify, restore and consolidate share: a machine whose successful calls spoil the last error, so
// that a number reported too late shows; a password file; images of a few small chunks and whole chains of them; and
// the texts that all three commands print.
#pragma once

#include "simulator/expectations.h"
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace operations
{
constexpr uint32_t chunkBytes = 4096;
constexpr uint64_t diskBytes = 10240; // two chunks and a half
constexpr char path[] = "image.kstx";

// Within an entry of the table.
constexpr size_t storedLengthAt = 8;
constexpr size_t hashAt = 12;
constexpr size_t nonceAt = 44;
constexpr size_t tagAt = 56;

using Arguments = std::vector<std::string>;

// An image of two and a half chunks, its key made in no time.
inline ImagePlan SmallPlan(bool encrypted = false)
{
    ImagePlan plan;
    plan.disk = PatternBytes(diskBytes, 1);
    plan.chunkSize = chunkBytes;
    plan.encrypted = encrypted;
    plan.kdfIterations = 2;
    return plan;
}

// disk with one byte of each of these chunks changed.
inline Bytes WithChanges(Bytes disk, const std::vector<size_t> &chunks, uint32_t chunkSize = chunkBytes)
{
    for (const size_t chunk : chunks) {
        disk.at(chunk * chunkSize) ^= 0xFF;
    }
    return disk;
}

// What a disk that held old holds when the first count chunks of image are on it.
inline Bytes WithChunksOf(const Bytes &image, const Bytes &old, size_t count, uint32_t chunkSize = chunkBytes)
{
    Bytes disk = old;
    std::copy_n(image.begin(), std::min(count * chunkSize, image.size()), disk.begin());
    return disk;
}

inline size_t EntryAt(size_t i)
{
    return 64 + 72 * i;
}

// File offset of chunk i's stored bytes.
inline size_t DataAt(const Bytes &image, size_t i)
{
    const std::vector<EntryFields> entries = EntriesOf(image);
    size_t offset = DataStartOf(image);
    for (size_t k = 0; k < i; ++k) {
        offset += entries[k].storedLength;
    }
    return offset;
}

inline void FlipByte(const std::string &file, size_t offset)
{
    Bytes bytes = ReadBytes(file);
    bytes.at(offset) ^= 1;
    WriteBytes(file, bytes);
}

inline void ChangeFile(const std::string &file, size_t offset, uint64_t value, size_t width)
{
    Bytes bytes = ReadBytes(file);
    StoreInteger(bytes, offset, value, width);
    WriteBytes(file, bytes);
}

// Gives chunk i of an image another stored length, with so many bytes more or fewer in its place.
inline Bytes WithStoredLength(Bytes image, size_t i, uint32_t storedLength)
{
    const auto start = image.begin() + static_cast<std::ptrdiff_t>(DataAt(image, i));
    const uint32_t before = EntriesOf(image)[i].storedLength;
    if (storedLength > before) {
        image.insert(start + before, storedLength - before, 0x5A);
    } else {
        image.erase(start + storedLength, start + before);
    }
    StoreInteger(image, EntryAt(i) + storedLengthAt, storedLength, 4);
    return image;
}

// The progress line of a run whose clock stands still.
inline std::string ProgressLine(uint64_t done, uint64_t total)
{
    char line[100];
    snprintf(line, sizeof(line), "\r  %6.2f%%  %llu / %llu MiB  (0.0 MiB/s)   ",
             100.0 * static_cast<double>(done) / static_cast<double>(total),
             static_cast<unsigned long long>(done / 1048576), static_cast<unsigned long long>(total / 1048576));
    return line;
}

// Those of an image of SmallPlan.
const std::string first = ProgressLine(4096, diskBytes);
const std::string last = ProgressLine(10240, diskBytes);

// Calls whose buffer had that length, among those of that name: such as the digests of chunks.
inline size_t CountOfLength(const Machine &machine, const std::string &name, const std::vector<uint64_t> &lengths)
{
    const std::vector<Call> calls = CallsOf(machine, name);
    return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const Call &call) {
        return std::count(lengths.begin(), lengths.end(), Field(call, "length")) != 0;
    }));
}

// The lines of the log, the program's own output among them, of everything but these calls.
inline std::string LogWithout(const Machine &machine, const std::vector<std::string> &names)
{
    return LogText(machine, [&names](const Call &call) {
        return std::find(names.begin(), names.end(), call.name) == names.end();
    });
}

// A digest as it stands in the log: the provider and the hash are the nth of the run.
inline std::string DigestLog(uint32_t nth, uint64_t lengthBytes)
{
    const std::string number = std::to_string(nth);
    return "BCryptOpenAlgorithmProvider SHA256 flags=0x0 -> sha256#" + number + "\nBCryptGetProperty sha256#" + number +
           " ObjectLength 4\nBCryptCreateHash sha256#" + number + " -> hash#" + number + "\nBCryptHashData hash#" +
           number + " " + std::to_string(lengthBytes) + "\nBCryptFinishHash hash#" + number +
           " 32\nBCryptDestroyHash hash#" + number + "\nBCryptCloseAlgorithmProvider sha256#" + number + "\n";
}

// The making of a key from the password file pw, as it stands in the log, each object the nth of its kind.
inline std::string KeyLog(uint32_t nth, uint32_t iterations)
{
    const std::string number = std::to_string(nth);
    return "fopen_s pw rb -> stream:pw#" + number + "\nfread stream:pw#" + number + " 1 256 -> 9\nfread stream:pw#" +
           number + " 1 256 -> 0\nfclose stream:pw#" + number +
           "\nBCryptOpenAlgorithmProvider SHA256 flags=0x8 -> hmac-sha256#" + number +
           "\nBCryptDeriveKeyPBKDF2 hmac-sha256#" + number +
           " password=8 salt=16 iterations=" + std::to_string(iterations) +
           " length=32\nBCryptCloseAlgorithmProvider hmac-sha256#" + number +
           "\nBCryptOpenAlgorithmProvider AES flags=0x0 -> aes#" + number + "\nBCryptSetProperty aes#" + number +
           " ChainingMode 32\nBCryptGetProperty aes#" + number + " ObjectLength 4\nBCryptGenerateSymmetricKey aes#" +
           number + " secret=32 -> key#" + number + "\n";
}

// A full image and thin ones on top of each other. Chunks 0 and 5 lie in the full image for good; the others are
// changed in turn, one by each level.
struct Chain {
    std::vector<std::string> names; // from the full image up
    std::vector<ImagePlan> plans;
    std::vector<size_t> homes; // for each chunk the level that stores it

    const Bytes &Disk() const
    {
        return plans.back().disk;
    }
    const std::string &Top() const
    {
        return names.back();
    }
    size_t References(size_t chunk) const
    {
        return plans.size() - 1 - homes[chunk];
    }
    size_t AllReferences() const
    {
        size_t count = 0;
        for (size_t i = 0; i < homes.size(); ++i) {
            count += References(i);
        }
        return count;
    }
};

constexpr uint32_t chainChunkBytes = 1024;
constexpr uint32_t chainLastBytes = 512;

// Writes the files of a chain of so many images; isSealed says it for each level, the full image being level 0.
inline Chain MakeChain(size_t images, const std::function<bool(size_t level)> &isSealed)
{
    Chain chain;
    chain.homes.assign(6, 0);
    ImagePlan plan = SmallPlan();
    plan.disk = PatternBytes(5 * chainChunkBytes + chainLastBytes, 3);
    plan.chunkSize = chainChunkBytes;
    for (size_t level = 0; level < images; ++level) {
        if (level > 0) {
            const size_t changed = level % 4 + 1;
            plan = ThinPlan(plan, chain.names.back(), WithChanges(plan.disk, {changed}, chainChunkBytes));
            plan.disk[changed * chainChunkBytes + 1] = static_cast<uint8_t>(level);
            chain.homes[changed] = level;
        }
        plan.encrypted = isSealed(level);
        plan.salt[0] = static_cast<uint8_t>(100 + level);
        chain.names.push_back("level" + std::to_string(level) + ".kstx");
        chain.plans.push_back(plan);
        WriteBytes(chain.names.back(), BuildImage(plan));
    }
    return chain;
}

struct OperationsTest : testing::Test {
    OperationsTest()
    {
        machine.lastErrorAfterSuccess = spoiledError;
        WriteText("pw", "password\n");
    }

    // The image of this plan under the usual name; gives its bytes.
    Bytes Write(const ImagePlan &plan)
    {
        const Bytes image = BuildImage(plan);
        WriteBytes(path, image);
        return image;
    }

    // base.kstx and, under the usual name, the thin image in which these chunks differ; gives the thin image's disk.
    Bytes WriteThin(const ImagePlan &base, const std::vector<size_t> &changed, bool sealed)
    {
        WriteBytes("base.kstx", BuildImage(base));
        ImagePlan thin = ThinPlan(base, "base.kstx", WithChanges(base.disk, changed, base.chunkSize));
        thin.encrypted = sealed;
        thin.salt[0] = 77;
        Write(thin);
        return thin.disk;
    }

    void ExpectNoMisuse() const
    {
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    Scratch scratch;
    Machine machine;
};
} // namespace operations
