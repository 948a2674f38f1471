// One image file by itself: header, table, trailer, in the order in which they make sense of the rest.
//
// The table is read in pieces, which are digested on their way: whoever only wants to know what a file is keeps none of
// them. How long the table is, is believed only as far as the file is long enough for it.
#include "reader/reader.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace reader
{

static constexpr uint64_t entriesPerPiece = 8192;
static constexpr uint64_t piecesAhead = 8; // on their way from the medium while one is digested
static constexpr uint64_t chunksPerPlace = 16;
static constexpr uint64_t longestTable =
    UINT32_MAX; // bytes: their count is held in 32 bits wherever a table is written
static constexpr uint64_t shortestTrailer = trailerOverhead + 1; // with a name of one byte

bool IsThin(const ImageHeader &header)
{
    return header.version == thinImageVersion;
}

bool IsSealed(const ImageHeader &header)
{
    return header.encrypted != 0;
}

uint32_t LengthOfChunk(const ImageHeader &header, uint64_t i)
{
    const uint64_t behind = header.diskSize - i * header.chunkSize; // wraps behind the disk's end, and is then no limit
    return static_cast<uint32_t>(std::min<uint64_t>(behind, header.chunkSize));
}

uint64_t CoveredBytes(const ImageHeader &header)
{
    const uint64_t diskBytes = header.diskSize;                       // no reference into the packed record
    return std::min(diskBytes, header.chunkCount * header.chunkSize); // the table bounds the product
}

uint64_t UncoveredBytes(const ImageHeader &header)
{
    return header.diskSize - CoveredBytes(header);
}

uint64_t StartOfData(uint64_t chunkCount)
{
    return sizeof(ImageHeader) + sizeof(ChunkEntry) * chunkCount;
}

uint64_t TrackerEpoch(const ImageHeader &header)
{
    uint64_t epoch = 0;
    memcpy(&epoch, header.epoch, sizeof(header.epoch));
    return epoch;
}

// ---- Chunks of zeros ----

static host::Digest DigestOfZeros(uint64_t length)
{
    static const std::vector<uint8_t> zeros(size_t{64} << 10);
    host::Digesting digesting;
    while (length != 0) {
        const auto piece = static_cast<size_t>(std::min<uint64_t>(length, zeros.size()));
        digesting.Add(zeros.data(), piece);
        length -= piece;
    }
    return digesting.Finish();
}

bool ZeroChunks::Has(const ImageHeader &header, const ChunkEntry &entry, uint64_t i)
{
    const uint32_t length = LengthOfChunk(header, i);
    if (length > longestZeroChunk || (entry.storedLength != 0 && entry.storedLength != length)) {
        return false;
    }
    auto known =
        std::find_if(digests.begin(), digests.end(), [length](const auto &pair) { return pair.first == length; });
    if (known == digests.end()) {
        digests.emplace_back(length, DigestOfZeros(length));
        known = digests.end() - 1;
    }
    return memcmp(entry.hash, known->second.data(), digestBytes) == 0;
}

// ---- Reading the regions ----

static void Refuse(ImageFacts *facts, FileKind kind, const std::string &what)
{
    facts->kind = kind;
    const FaultKind faultKind = kind == FileKind::Unreadable ? FaultKind::Unreadable : FaultKind::Damaged;
    facts->fault = Fault{faultKind, facts->path + ": " + what};
}

static bool IsZeros(const void *data, size_t byteCount)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    return std::all_of(bytes, bytes + byteCount, [](uint8_t byte) { return byte == 0; });
}

// Of a file whose header tells nothing, or of no base: how an image ends that stands on another one.
static bool EndsInTrailer(const host::Source &source, uint64_t begin)
{
    const uint64_t room = source.sizeBytes - std::min(begin, source.sizeBytes);
    uint32_t length = 0;
    std::array<uint8_t, magicBytes> magic = {};
    return room >= shortestTrailer &&
           !host::ReadAt(source, source.sizeBytes - sizeof(length), &length, sizeof(length)) &&
           length >= shortestTrailer && length <= std::min<uint64_t>(longestTrailer, room) &&
           !host::ReadAt(source, source.sizeBytes - length, magic.data(), magic.size()) &&
           memcmp(magic.data(), trailerMagic, magic.size()) == 0;
}

// Whether entries of a table follow on zeros where the header belongs. A capture writes the two last, the header first:
// what it leaves has zeros in both, and behind them any data. The zeros may hide the first entries too, but two
// neighbours give themselves away by their places on the disk, which are multiples of one length.
static bool HasTableWithoutHeader(const host::Source &source)
{
    constexpr uint64_t mostEntries = 1024;
    const uint64_t room = source.sizeBytes - std::min<uint64_t>(sizeof(ImageHeader), source.sizeBytes);
    std::vector<ChunkEntry> entries(static_cast<size_t>(std::min(mostEntries, room / sizeof(ChunkEntry))));
    if (entries.empty() || host::ReadAt(source, StartOfData(0), entries.data(), entries.size() * sizeof(ChunkEntry))) {
        return false;
    }
    bool isTable = !IsZeros(&entries[0], sizeof(ChunkEntry));
    for (uint64_t i = 1; i < entries.size(); ++i) {
        const uint64_t step = entries[i].diskOffset / i;
        const bool hasPlace = step != 0 && step <= UINT32_MAX && step * i == entries[i].diskOffset;
        isTable = isTable || (i > 1 && hasPlace && entries[i - 1].diskOffset == step * (i - 1));
    }
    return isTable;
}

static bool ReadHeader(const host::Source &source, ImageFacts *facts)
{
    const auto bytes = static_cast<size_t>(std::min<uint64_t>(source.sizeBytes, sizeof(facts->header)));
    if (const host::Trouble trouble = host::ReadAt(source, 0, &facts->header, bytes)) {
        Refuse(facts, FileKind::Unreadable, "its header can't be read: " + *trouble);
        return false;
    }
    if (IsZeros(&facts->header, bytes) && HasTableWithoutHeader(source)) {
        Refuse(facts, FileKind::Damaged, "its header is gone: there are zeros in its place, before its chunk table");
        return false;
    }
    if (IsZeros(&facts->header, bytes)) {
        Refuse(facts, FileKind::Unfinished, bytes == 0 ? "it is empty" : "it has no header, as a capture leaves it");
        facts->hasStrayTrailer = EndsInTrailer(source, sizeof(ImageHeader));
        return false;
    }
    const bool hasMagic = bytes >= magicBytes && memcmp(facts->header.magic, imageMagic, magicBytes) == 0;
    if (hasMagic && bytes < sizeof(facts->header)) {
        Refuse(facts, FileKind::Damaged, "its header is cut off");
        return false;
    }
    if (!hasMagic || (facts->header.version != fullImageVersion && facts->header.version != thinImageVersion)) {
        facts->hasStrayTrailer = EndsInTrailer(source, sizeof(ImageHeader));
        if (facts->hasStrayTrailer) {
            Refuse(facts, FileKind::Damaged, "it ends as an image that stands on another, but doesn't begin as one");
        } else {
            Refuse(facts, FileKind::Other, "it is no image of Kestrix, or of a kind that is not known here");
        }
        return false;
    }
    facts->hasHeader = true;
    const uint64_t mostEntries = std::min(longestTable, source.sizeBytes - sizeof(ImageHeader)) / sizeof(ChunkEntry);
    if (facts->header.chunkCount > mostEntries) {
        Refuse(facts, FileKind::Damaged, "its chunk table is cut off");
        return false;
    }
    return true;
}

// Announces twice as much as is read until the next time, so that there is always some on its way.
static void AnnounceTable(const host::Source &source, uint64_t first, uint64_t chunkCount)
{
    const uint64_t count = std::min(chunkCount - first, 2 * piecesAhead * entriesPerPiece);
    if (count > entriesPerPiece) {
        host::Announce(source, StartOfData(first), count * sizeof(ChunkEntry));
    }
}

static bool ReadTable(const host::Source &source, ImageFacts *facts, const TakeTable &take)
{
    const uint64_t chunkCount = facts->header.chunkCount;
    std::vector<ChunkEntry> piece(static_cast<size_t>(std::min(chunkCount, entriesPerPiece)));
    host::Digesting digesting;
    digesting.Add(&facts->header, sizeof(facts->header));
    facts->dataEnd = StartOfData(chunkCount);
    bool isZero = chunkCount != 0;
    for (uint64_t first = 0; first < chunkCount; first += piece.size()) {
        const uint64_t count = std::min<uint64_t>(piece.size(), chunkCount - first);
        const auto bytes = static_cast<size_t>(count * sizeof(ChunkEntry));
        if (first % (piecesAhead * entriesPerPiece) == 0) {
            AnnounceTable(source, first, chunkCount);
        }
        if (const host::Trouble trouble = host::ReadAt(source, StartOfData(first), piece.data(), bytes)) {
            Refuse(facts, FileKind::Unreadable, "its chunk table can't be read: " + *trouble);
            return false;
        }
        digesting.Add(piece.data(), bytes);
        isZero = isZero && IsZeros(piece.data(), bytes);
        for (uint64_t i = 0; i < count; ++i) {
            facts->dataEnd += piece[i].storedLength;
            ++(piece[i].storedLength == 0 ? facts->referredChunks : facts->storedChunks);
        }
        take(facts->header, piece.data(), first, count);
    }
    facts->id = digesting.Finish();
    facts->hasTable = true;
    // The header is written just before the table: a file between the two has every digest zero, which no chunk has.
    facts->kind = isZero ? FileKind::Unfinished : FileKind::Image;
    if (isZero) {
        facts->fault = Fault{FaultKind::Damaged, facts->path + ": its chunk table is empty, as a capture leaves it"};
        facts->hasStrayTrailer = EndsInTrailer(source, facts->dataEnd);
    }
    return true;
}

std::vector<uint8_t> EncodeTrailer(const Trailer &trailer)
{
    const auto nameLength = static_cast<uint32_t>(trailer.baseName.size());
    const uint32_t totalLength = nameLength + trailerOverhead;
    std::vector<uint8_t> bytes(totalLength);
    uint8_t *end = bytes.data();
    const auto append = [&end](const void *data, size_t byteCount) {
        memcpy(end, data, byteCount);
        end += byteCount;
    };
    append(trailerMagic, magicBytes);
    append(&nameLength, sizeof(nameLength));
    append(trailer.baseName.data(), nameLength);
    append(trailer.basePin.data(), trailer.basePin.size());
    append(&totalLength, sizeof(totalLength));
    return bytes;
}

static void ReadTrailer(const host::Source &source, ImageFacts *facts)
{
    const uint64_t behindData = facts->fileBytes - facts->dataEnd; // the caller has compared the two
    uint32_t length = 0;
    host::Trouble trouble = host::ReadAt(source, facts->fileBytes - sizeof(length), &length, sizeof(length));
    if (!trouble && (length < shortestTrailer || length > longestTrailer || length > behindData)) {
        Refuse(facts, FileKind::Damaged, "its trailer, which names the base, is cut off or damaged");
        return;
    }
    std::vector<char> bytes(length);
    if (!trouble) {
        trouble = host::ReadAt(source, facts->fileBytes - length, bytes.data(), bytes.size());
    }
    if (trouble) {
        Refuse(facts, FileKind::Unreadable, "its trailer can't be read: " + *trouble);
        return;
    }
    uint32_t nameLength = 0;
    memcpy(&nameLength, bytes.data() + magicBytes, sizeof(nameLength));
    if (memcmp(bytes.data(), trailerMagic, magicBytes) != 0 || nameLength != length - trailerOverhead) {
        Refuse(facts, FileKind::Damaged, "its trailer, which names the base, is damaged");
        return;
    }
    constexpr size_t nameOffset = magicBytes + sizeof(nameLength);
    Trailer trailer;
    trailer.baseName.assign(bytes.data() + nameOffset, nameLength);
    memcpy(trailer.basePin.data(), bytes.data() + nameOffset + nameLength, trailer.basePin.size());
    facts->trailer = trailer;
    facts->bytesTooMany = behindData - length;
    if (trailer.baseName.find_first_of("\\/:") != std::string::npos) {
        Refuse(facts, FileKind::Damaged, "its trailer names a base outside of its folder: " + trailer.baseName);
    }
}

static void CompareWithSize(const host::Source &source, ImageFacts *facts)
{
    const bool isThin = IsThin(facts->header);
    facts->bytesMissing = facts->dataEnd - std::min(facts->dataEnd, facts->fileBytes);
    if (isThin && (facts->bytesMissing != 0 || facts->fileBytes - facts->dataEnd < shortestTrailer)) {
        Refuse(facts, FileKind::Damaged, "its trailer, which names the base, is missing: the file is cut off");
    } else if (isThin) {
        ReadTrailer(source, facts);
    } else {
        facts->bytesTooMany = facts->fileBytes - std::min(facts->dataEnd, facts->fileBytes);
        facts->hasStrayTrailer = EndsInTrailer(source, facts->dataEnd);
    }
}

// Fills facts, whose path is set, from the open file; take gets the table.
static void ReadRegions(const host::Source &source, ImageFacts *facts, const TakeTable &take)
{
    facts->fileBytes = source.sizeBytes;
    facts->identity = source.identity;
    if (ReadHeader(source, facts) && ReadTable(source, facts, take) && facts->kind == FileKind::Image) {
        CompareWithSize(source, facts);
    }
}

ImageFacts ReadImageTable(const std::string &path, const TakeTable &take)
{
    ImageFacts facts;
    host::Source source;
    facts.path = path;
    if (const host::Trouble trouble = host::OpenFileToRead(path, host::Caching::Cached, &source)) {
        facts.fault = Fault{FaultKind::Unavailable, path + ": it can't be opened: " + *trouble};
        return facts;
    }
    ReadRegions(source, &facts, take);
    return facts;
}

ImageFacts ReadImageFacts(const std::string &path, bool countsZeros)
{
    ZeroChunks known;
    uint64_t zeroChunks = 0;
    ImageFacts facts =
        ReadImageTable(path, [&](const ImageHeader &header, const ChunkEntry *entries, uint64_t first, uint64_t count) {
            for (uint64_t i = 0; countsZeros && i < count; ++i) {
                zeroChunks += known.Has(header, entries[i], first + i) ? 1 : 0;
            }
        });
    facts.zeroChunks = zeroChunks;
    return facts;
}

// ---- Opening ----

uint64_t ImageFile::OffsetOf(uint64_t i) const
{
    uint64_t offset = placesOfData[i / chunksPerPlace];
    for (uint64_t before = i - i % chunksPerPlace; before < i; ++before) {
        offset += table[before].storedLength;
    }
    return offset;
}

static void KeepEntries(ImageFile *image, uint64_t *offset, const ChunkEntry *entries, uint64_t first, uint64_t count)
{
    const uint64_t chunkCount = image->facts.header.chunkCount;
    if (first == 0) {
        image->table.resize(static_cast<size_t>(chunkCount));
        image->placesOfData.reserve(static_cast<size_t>((chunkCount + chunksPerPlace - 1) / chunksPerPlace));
        *offset = StartOfData(chunkCount);
    }
    memcpy(&image->table[first], entries, static_cast<size_t>(count * sizeof(ChunkEntry)));
    for (uint64_t i = 0; i < count; ++i) {
        if ((first + i) % chunksPerPlace == 0) {
            image->placesOfData.push_back(*offset);
        }
        *offset += entries[i].storedLength;
    }
}

Result<ImageFile> OpenImageFile(const std::string &path, host::Caching caching, bool toleratesTrailer)
{
    ImageFile image;
    uint64_t offset = 0;
    image.facts.path = path;
    if (const host::Trouble trouble = host::OpenFileToRead(path, caching, &image.source)) {
        return Fault{FaultKind::Unavailable, path + ": it can't be opened: " + *trouble};
    }
    ReadRegions(image.source, &image.facts,
                [&](const ImageHeader &, const ChunkEntry *entries, uint64_t first, uint64_t count) {
                    KeepEntries(&image, &offset, entries, first, count);
                });
    const FileKind kind = image.facts.kind;
    const bool isTolerated = toleratesTrailer && image.facts.hasTable && kind != FileKind::Unfinished;
    if (kind != FileKind::Image && !isTolerated) {
        return *image.facts.fault;
    }
    return image;
}

} // namespace reader
