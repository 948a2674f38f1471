// Looking for lost chunks: through every image of a folder, by the digests in their tables, and on a disk, at the place
// that the chunk itself has. What is found counts only after its own image's checks and its digest have passed.
#include "kestrix-image/twins.h"

#include <algorithm>
#include <cstring>

using reader::Chain;

// One search: what is looked for, and who takes it.
struct TwinSearch {
    const CommonOptions &common;
    const Chain &chain; // its first image is the one whose chunks are lost
    const TwinPlaces &places;
    std::vector<LostChunk> &lost;
    const TakeTwin &take;
    const DropTwin &drop;
};

static const uint8_t *DigestOf(const Chain &chain, const LostChunk &lost)
{
    return chain.images[0].table[lost.chunk].hash;
}

static uint32_t LengthOf(const Chain &chain, const LostChunk &lost)
{
    return reader::LengthOfChunk(chain.Header(), lost.chunk);
}

static bool IsAllFound(const std::vector<LostChunk> &lost)
{
    return std::all_of(lost.begin(), lost.end(), [](const LostChunk &chunk) { return chunk.isFound; });
}

static void SetPlace(LostChunk &lost, uint64_t place)
{
    constexpr uint64_t highest = (uint64_t{1} << 27) - 1;
    lost.place = place & highest; // no folder has more files
}

static void DropUnlessFound(const TwinSearch &search, const LostChunk &lost, uint64_t byteCount)
{
    if (!lost.isFound && byteCount != 0 && search.drop) {
        search.drop();
    }
}

static void TakeFrom(const TwinSearch &search, reader::ChunkReader &reader, uint64_t twin, uint64_t place,
                     LostChunk &lost, std::vector<std::string> &notes)
{
    uint64_t offset = 0;
    bool isTaken = true;
    const auto takePiece = [&](const uint8_t *piece, size_t byteCount) {
        isTaken = search.take(lost.chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    };
    if (const std::optional<reader::ChunkFault> fault = reader.Read(twin, takePiece)) {
        AddSentence(notes, reader::DescribeChunkFault(reader.chain, twin, *fault).text);
    } else {
        SetPlace(lost, place);
        lost.isFound = isTaken && offset == LengthOf(search.chain, lost);
    }
    DropUnlessFound(search, lost, offset);
}

// The lost chunks lie in the order of their digests.
static void SearchImage(const TwinSearch &search, const Chain &image, uint64_t place, std::vector<std::string> &notes,
                        const std::function<bool()> &prepareKey)
{
    std::optional<reader::ChunkReader> reader;
    for (uint64_t twin = 0; twin < image.ChunkCount(); ++twin) {
        const ChunkEntry &entry = image.images[0].table[twin];
        const auto order = [&search](const LostChunk &lost, const uint8_t *wanted) {
            return memcmp(DigestOf(search.chain, lost), wanted, sizeof(entry.hash)) < 0;
        };
        auto candidate = std::lower_bound(search.lost.begin(), search.lost.end(), entry.hash, order);
        for (; candidate != search.lost.end() &&
               memcmp(DigestOf(search.chain, *candidate), entry.hash, sizeof(entry.hash)) == 0;
             ++candidate) {
            if (entry.storedLength == 0 || candidate->isFound ||
                LengthOf(search.chain, *candidate) != reader::LengthOfChunk(image.Header(), twin)) {
                continue;
            }
            if (!reader) {
                if (!prepareKey()) {
                    return;
                }
                reader.emplace(image);
                reader->ignoresPlace = true;
            }
            TakeFrom(search, *reader, twin, place, *candidate, notes);
        }
    }
}

// The password is read where the first sealed twin asks for it, and only once.
static std::optional<reader::Fault> PrepareKey(const CommonOptions &common, reader::ImageFile *image,
                                               std::optional<std::string> *password)
{
    const bool isWanted = reader::IsSealed(image->facts.header) && !*password && !common.passwordFile.empty();
    if (isWanted) {
        reader::Result<std::string> given = reader::ReadPassword(common.passwordFile);
        if (!given) {
            return given.fault;
        }
        *password = *given;
    }
    return reader::DeriveImageKey(image, *password);
}

static void SearchFolder(const TwinSearch &search, std::vector<std::string> &notes)
{
    std::sort(search.lost.begin(), search.lost.end(), [&search](const LostChunk &left, const LostChunk &right) {
        return memcmp(DigestOf(search.chain, left), DigestOf(search.chain, right), sizeof(ChunkEntry::hash)) < 0;
    });
    std::optional<std::string> password;
    for (size_t i = 0; i < search.places.names.size() && !IsAllFound(search.lost); ++i) {
        reader::Result<reader::ImageFile> image =
            reader::OpenImageFile(NameOfPlace(search.places, firstFile + i), search.common.caching, true);
        if (!image) { // no image, or one whose table can't be trusted, unless it could not be looked at
            if (image.fault.kind == reader::FaultKind::Unavailable) {
                AddSentence(notes, image.fault.text);
            }
            continue;
        }
        Chain alone = reader::MakeAlone(std::move(*image));
        const auto prepareKey = [&] {
            const std::optional<reader::Fault> fault = PrepareKey(search.common, &alone.images[0], &password);
            if (fault) {
                AddSentence(notes, fault->text);
            }
            return !fault;
        };
        const auto &known = search.places.known;
        const bool isKnown = std::find(known.begin(), known.end(), alone.images[0].facts.identity) != known.end();
        std::vector<std::string> toldAlready;
        SearchImage(search, alone, firstFile + i, isKnown ? toldAlready : notes, prepareKey);
    }
    std::sort(search.lost.begin(), search.lost.end(),
              [](const LostChunk &left, const LostChunk &right) { return left.chunk < right.chunk; });
}

// One pass over a lost chunk's place on the disk. See, if given, looks at each piece as it comes, and ends the pass by
// false. Whether the bytes had the chunk's digest.
static bool ReadFromDisk(const TwinSearch &search, const LostChunk &lost, uint8_t *buffer,
                         std::vector<std::string> &notes, const reader::TakePiece &see)
{
    const uint64_t begin = lost.chunk * uint64_t{search.chain.Header().chunkSize};
    const uint64_t length = LengthOf(search.chain, lost);
    host::Digesting digesting;
    for (uint64_t done = 0; done < length;) {
        const size_t piece = std::min<uint64_t>(reader::largestBuffer, length - done);
        if (const host::Trouble trouble = host::ReadAt(search.places.disk, begin + done, buffer, piece)) {
            AddSentence(notes, search.places.diskName + ": the place of chunk " + std::to_string(lost.chunk) +
                                   " can't be read: " + *trouble);
            return false;
        }
        digesting.Add(buffer, piece);
        if (see && !see(buffer, piece)) {
            return false;
        }
        done += piece;
    }
    return memcmp(digesting.Finish().data(), DigestOf(search.chain, lost), sizeof(ChunkEntry::hash)) == 0;
}

// A disk may change between two reads: what fits into the buffer is read once, and of what doesn't the second reading
// has to have the digest too.
static void TakeFromDisk(const TwinSearch &search, uint8_t *buffer, LostChunk &lost, std::vector<std::string> &notes)
{
    if (!ReadFromDisk(search, lost, buffer, notes, nullptr)) {
        return;
    }
    const uint32_t length = LengthOf(search.chain, lost);
    if (length <= reader::largestBuffer) {
        SetPlace(lost, onDisk);
        lost.isFound = search.take(lost.chunk, 0, buffer, length);
        DropUnlessFound(search, lost, length);
        return;
    }
    uint64_t offset = 0;
    bool isTaken = true;
    const bool isSame = ReadFromDisk(search, lost, buffer, notes, [&](const uint8_t *piece, size_t byteCount) {
        isTaken = search.take(lost.chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    });
    if (isSame || !isTaken) {
        SetPlace(lost, onDisk);
        lost.isFound = isSame;
    }
    DropUnlessFound(search, lost, offset);
}

std::string NameOfPlace(const TwinPlaces &places, uint64_t place)
{
    return place == nowhere  ? ""
           : place == onDisk ? places.diskName
                             : places.folder + "/" + places.names[static_cast<size_t>(place - firstFile)];
}

std::vector<LostChunk> LostChunks(const Chain &chain, const reader::Verdicts &verdicts)
{
    std::vector<LostChunk> lost;
    lost.reserve(static_cast<size_t>(verdicts.CountBad()));
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        if (verdicts.FaultOf(i) != nullptr) {
            LostChunk chunk = {};
            chunk.chunk = i & ((uint64_t{1} << 36) - 1);
            lost.push_back(chunk);
        }
    }
    return lost;
}

std::optional<reader::Fault> OpenTwinPlaces(const CommonOptions &common, const std::string &folder,
                                            std::optional<uint32_t> disk, TwinPlaces *places)
{
    if (!folder.empty()) {
        places->folder = folder;
        if (const host::Trouble trouble = host::ListFiles(folder, &places->names)) {
            return reader::Fault{reader::FaultKind::Unavailable, folder + ": the folder can't be read: " + *trouble};
        }
    }
    if (disk) {
        places->diskName = "PhysicalDrive" + std::to_string(*disk);
        if (const host::Trouble trouble = host::OpenDisk(*disk, common.caching, &places->disk)) {
            return reader::Fault{reader::FaultKind::Unavailable,
                                 places->diskName + ": it can't be opened: " + *trouble};
        }
    }
    return {};
}

void FindTwins(const CommonOptions &common, const Chain &chain, const TwinPlaces &places, std::vector<LostChunk> &lost,
               std::vector<std::string> &notes, const TakeTwin &take, const DropTwin &drop)
{
    const TwinSearch search = {common, chain, places, lost, take, drop};
    SearchFolder(search, notes);
    if (places.diskName.empty() || IsAllFound(lost)) {
        return;
    }
    const host::Pages buffer = host::MakePages(reader::largestBuffer);
    for (LostChunk &chunk : lost) {
        if (!chunk.isFound) {
            TakeFromDisk(search, buffer.get(), chunk, notes);
        }
    }
}

void ReportTwins(JsonOutput &output, const TwinPlaces &places, const std::vector<LostChunk> &lost)
{
    for (const LostChunk &chunk : lost) {
        const uint64_t number = chunk.chunk;
        if (chunk.isFound && output.wanted) {
            output.Item({{"chunk", number}, {"from", NameOfPlace(places, chunk.place)}});
        } else if (chunk.isFound) {
            PrintLine("  chunk " + std::to_string(number) + " was taken from " + NameOfPlace(places, chunk.place));
        }
    }
}
