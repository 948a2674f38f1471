// Making and reading image bytes by hand; see the header.
#include "simulator/images.h"

#include "simulator/system_beneath.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace
{
constexpr size_t headerBytes = 64;
constexpr size_t entryBytes = 72;
constexpr uint64_t patternStretch = 4194304;

void Append(Bytes &bytes, const void *start, size_t count)
{
    const uint8_t *from = static_cast<const uint8_t *>(start);
    bytes.insert(bytes.end(), from, from + count);
}

void AppendInteger(Bytes &bytes, uint64_t value, size_t width)
{
    bytes.resize(bytes.size() + width);
    StoreInteger(bytes, bytes.size() - width, value, width);
}

void Require(bool condition, const std::string &what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

// The 8 bytes of noise at a place that is a multiple of 8.
uint64_t NoiseWord(uint64_t offset, uint32_t seed)
{
    uint64_t x = offset / 8 + (offset / patternStretch + 1) * 0x9E3779B97F4A7C15 + seed * 0xD1B54A32D192ED03;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
    return x ^ (x >> 31);
}
} // namespace

void StoreInteger(Bytes &bytes, size_t offset, uint64_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint64_t LoadInteger(const Bytes &bytes, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) {
        value |= static_cast<uint64_t>(bytes.at(offset + i)) << (8 * i);
    }
    return value;
}

Bytes BuildHeader(const HeaderFields &fields)
{
    Bytes header;
    Append(header, fields.magic.data(), std::min<size_t>(fields.magic.size(), 8));
    header.resize(8);
    AppendInteger(header, fields.version, 4);
    AppendInteger(header, fields.diskSize, 8);
    AppendInteger(header, fields.sectorSize, 4);
    AppendInteger(header, fields.chunkSize, 4);
    AppendInteger(header, fields.chunkCount, 8);
    AppendInteger(header, fields.encrypted, 1);
    AppendInteger(header, fields.epoch, 7);
    Append(header, fields.salt.data(), fields.salt.size());
    AppendInteger(header, fields.kdfIterations, 4);
    return header;
}

Bytes BuildEntry(const EntryFields &fields)
{
    Bytes entry;
    AppendInteger(entry, fields.diskOffset, 8);
    AppendInteger(entry, fields.storedLength, 4);
    Append(entry, fields.hash.data(), fields.hash.size());
    Append(entry, fields.nonce.data(), fields.nonce.size());
    Append(entry, fields.tag.data(), fields.tag.size());
    return entry;
}

Bytes BuildTrailer(const std::string &baseName, const std::array<uint8_t, 32> &basePin)
{
    Bytes trailer;
    Append(trailer, "KSTXBASE", 8);
    AppendInteger(trailer, baseName.size(), 4);
    Append(trailer, baseName.data(), baseName.size());
    Append(trailer, basePin.data(), basePin.size());
    AppendInteger(trailer, baseName.size() + 48, 4);
    return trailer;
}

Bytes BuildImage(const ImagePlan &plan)
{
    HeaderFields header;
    header.version = plan.thin ? 3 : 2;
    header.diskSize = plan.disk.size();
    header.sectorSize = plan.sectorSize;
    header.chunkSize = plan.chunkSize;
    header.chunkCount = (plan.disk.size() + plan.chunkSize - 1) / plan.chunkSize;
    header.epoch = plan.epoch;
    std::array<uint8_t, 32> key = {};
    if (plan.encrypted) {
        header.encrypted = 1;
        header.salt = plan.salt;
        header.kdfIterations = plan.kdfIterations;
        key = Pbkdf2Of(plan.password, plan.salt, plan.kdfIterations);
    }
    Bytes image = BuildHeader(header);
    Bytes data;
    for (uint64_t i = 0; i < header.chunkCount; ++i) {
        const uint64_t start = i * plan.chunkSize;
        const uint64_t end = std::min<uint64_t>(start + plan.chunkSize, plan.disk.size());
        Bytes chunk(plan.disk.data() + start, plan.disk.data() + end);
        EntryFields entry;
        entry.diskOffset = start;
        entry.hash = Sha256Of(chunk);
        if (plan.references.count(i) == 0) {
            entry.storedLength = static_cast<uint32_t>(chunk.size());
            if (plan.encrypted) {
                for (size_t k = 0; k < 8; ++k) {
                    entry.nonce[k] = static_cast<uint8_t>((i + 1) >> (8 * k));
                }
                chunk = Seal(key, entry.nonce, chunk, &entry.tag);
            }
            Append(data, chunk.data(), chunk.size());
        }
        const Bytes built = BuildEntry(entry);
        Append(image, built.data(), built.size());
    }
    Append(image, data.data(), data.size());
    if (plan.thin) {
        const Bytes trailer = BuildTrailer(plan.baseName, plan.basePin);
        Append(image, trailer.data(), trailer.size());
    }
    return image;
}

ImagePlan ThinPlan(const ImagePlan &basePlan, const std::string &baseName, const Bytes &disk)
{
    Require(disk.size() == basePlan.disk.size(), "a thin image and its base are of one disk");
    ImagePlan plan = basePlan;
    plan.disk = disk;
    plan.thin = true;
    plan.references.clear();
    plan.baseName = baseName;
    plan.basePin = ImageIdOf(BuildImage(basePlan));
    for (uint64_t start = 0; start < disk.size(); start += plan.chunkSize) {
        const uint64_t length = std::min<uint64_t>(plan.chunkSize, disk.size() - start);
        if (memcmp(disk.data() + start, basePlan.disk.data() + start, length) == 0) {
            plan.references.insert(start / plan.chunkSize);
        }
    }
    return plan;
}

std::array<uint8_t, 32> ImageIdOf(const Bytes &image)
{
    const uint64_t end = DataStartOf(image);
    Require(end <= image.size(), "the image ends within its table");
    return Sha256Of(Bytes(image.data(), image.data() + end));
}

HeaderFields HeaderOf(const Bytes &image)
{
    Require(image.size() >= headerBytes, "the image ends within its header");
    HeaderFields fields;
    fields.magic.assign(image.begin(), image.begin() + 8);
    fields.version = static_cast<uint32_t>(LoadInteger(image, 8, 4));
    fields.diskSize = LoadInteger(image, 12, 8);
    fields.sectorSize = static_cast<uint32_t>(LoadInteger(image, 20, 4));
    fields.chunkSize = static_cast<uint32_t>(LoadInteger(image, 24, 4));
    fields.chunkCount = LoadInteger(image, 28, 8);
    fields.encrypted = image[36];
    fields.epoch = LoadInteger(image, 37, 7);
    std::copy_n(image.begin() + 44, fields.salt.size(), fields.salt.begin());
    fields.kdfIterations = static_cast<uint32_t>(LoadInteger(image, 60, 4));
    return fields;
}

std::vector<EntryFields> EntriesOf(const Bytes &image)
{
    Require(DataStartOf(image) <= image.size(), "the image ends within its table");
    std::vector<EntryFields> entries(LoadInteger(image, 28, 8));
    for (size_t i = 0; i < entries.size(); ++i) {
        const size_t start = headerBytes + i * entryBytes;
        entries[i].diskOffset = LoadInteger(image, start, 8);
        entries[i].storedLength = static_cast<uint32_t>(LoadInteger(image, start + 8, 4));
        std::copy_n(image.data() + start + 12, entries[i].hash.size(), entries[i].hash.begin());
        std::copy_n(image.data() + start + 44, entries[i].nonce.size(), entries[i].nonce.begin());
        std::copy_n(image.data() + start + 56, entries[i].tag.size(), entries[i].tag.begin());
    }
    return entries;
}

uint64_t DataStartOf(const Bytes &image)
{
    return headerBytes + entryBytes * LoadInteger(image, 28, 8);
}

void FillPattern(uint64_t offset, uint8_t *buffer, uint64_t lengthBytes, uint32_t seed)
{
    for (uint64_t i = 0; i < lengthBytes; ++i) {
        const uint64_t place = offset + i;
        buffer[i] = static_cast<uint8_t>(NoiseWord(place & ~7ULL, seed) >> (8 * (place & 7)));
    }
}

Bytes PatternBytes(uint64_t lengthBytes, uint32_t seed)
{
    Bytes bytes(lengthBytes);
    for (uint64_t start = 0; start < lengthBytes; start += 8) {
        const uint64_t word = NoiseWord(start, seed);
        for (uint64_t i = 0; i < 8 && start + i < lengthBytes; ++i) {
            bytes[start + i] = static_cast<uint8_t>(word >> (8 * i));
        }
    }
    return bytes;
}

void WriteBytes(const std::string &path, const Bytes &bytes)
{
    std::ofstream file(FileNamed(path), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    Require(file.good(), "cannot write " + path);
}

void WriteText(const std::string &path, const std::string &text)
{
    WriteBytes(path, Bytes(text.begin(), text.end()));
}

Bytes ReadBytes(const std::string &path)
{
    std::ifstream file(FileNamed(path), std::ios::binary);
    Require(file.good(), "cannot read " + path);
    Bytes bytes(std::filesystem::file_size(FileNamed(path)));
    file.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    Require(file.gcount() == static_cast<std::streamsize>(bytes.size()), "cannot read " + path);
    return bytes;
}

bool FileExists(const std::string &path)
{
    return std::filesystem::exists(FileNamed(path));
}
