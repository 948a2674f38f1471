// Looking for lost chunks: through every image of a folder, by the digests in their tables, and on a disk, at the place
// that the chunk itself has. What is found counts only after its own image's checks and its digest have passed.
#include "kestrix-image/twins.h"

#include <algorithm>
#include <cstring>
#include <utility>

using reader::Chain;

// One search: what is looked for, and who takes it.
struct TwinSearch {
    const CommonOptions &common;
    const Chain &chain; // its first image is the one whose chunks are lost
    const TwinPlaces &places;
    std::vector<LostChunk> &lost;
    std::vector<std::string> &notes;
    const TwinTaker &taker;
    Progress &progress;   // over the bytes that are lost
    uint64_t left = 0;    // chunks that are not settled
    bool isKnown = false; // the bad chunks of the image that is searched now are told already
};

using LostChunkIterator = std::vector<LostChunk>::iterator;

static const uint8_t *DigestOf(const Chain &chain, const LostChunk &lost)
{
    return chain.images[0].table[lost.chunk].hash;
}

static uint32_t LengthOf(const Chain &chain, const LostChunk &lost)
{
    return reader::LengthOfChunk(chain.Header(), lost.chunk);
}

// Found, or refused though a twin was sound: the same bytes from elsewhere would be refused as well.
static bool IsSettled(const LostChunk &lost)
{
    return lost.isFound || lost.place != nowhere;
}

static bool WantsMore(const TwinSearch &search)
{
    return search.left != 0 && (!search.taker.wantsMore || search.taker.wantsMore());
}

static void Settle(TwinSearch &search, LostChunk &lost, uint64_t place, bool isFound)
{
    constexpr uint64_t highest = (uint64_t{1} << 27) - 1;
    lost.place = place & highest; // no folder has more files
    lost.isFound = isFound;
    --search.left;
    search.progress.Add(LengthOf(search.chain, lost));
}

static void DropUnlessFound(const TwinSearch &search, const LostChunk &lost, uint64_t byteCount)
{
    if (!lost.isFound && byteCount != 0 && search.taker.drop) {
        search.taker.drop();
    }
}

// ---- In other images ----

static void NoteBadTwin(TwinSearch &search, const Chain &image, uint64_t twin, const reader::ChunkFault &fault)
{
    if (!search.isKnown) {
        AddSentence(search.notes, reader::DescribeChunkFault(image, twin, fault).text);
    }
}

// Below 0: the lost chunk comes before those of that digest and length; 0: it is one of them.
static int Compare(const Chain &chain, const LostChunk &lost, const uint8_t *digest, uint32_t length)
{
    const int order = memcmp(DigestOf(chain, lost), digest, digestBytes);
    const uint32_t own = LengthOf(chain, lost);
    return order != 0 ? order : own < length ? -1 : own == length ? 0 : 1;
}

// What is lost of that digest and length and not settled. The lost chunks lie in their order, and of equal ones those
// that are settled come first.
static std::pair<LostChunkIterator, LostChunkIterator> EqualChunks(const TwinSearch &search, const uint8_t *digest,
                                                                   uint32_t length)
{
    const auto order = [&](const LostChunk &lost) { return Compare(search.chain, lost, digest, length); };
    const auto first = std::partition_point(search.lost.begin(), search.lost.end(),
                                            [&order](const LostChunk &lost) { return order(lost) < 0; });
    const auto last =
        std::partition_point(first, search.lost.end(), [&order](const LostChunk &lost) { return order(lost) == 0; });
    return {std::partition_point(first, last, IsSettled), last};
}

// A chunk that fits into the reader's buffer comes in one piece, which serves all that are equal.
static void TakeWhole(TwinSearch &search, reader::ChunkReader &reader, uint64_t twin, uint64_t place,
                      LostChunkIterator first, LostChunkIterator last)
{
    const auto takeForAll = [&](const uint8_t *piece, size_t byteCount) {
        for (auto lost = first; lost != last && WantsMore(search); ++lost) {
            Settle(search, *lost, place, search.taker.take(lost->chunk, 0, piece, byteCount));
            DropUnlessFound(search, *lost, byteCount);
        }
        return true;
    };
    if (const std::optional<reader::ChunkFault> fault = reader.Read(twin, takeForAll)) {
        NoteBadTwin(search, reader.chain, twin, *fault);
    }
}

// False: the twin is no good.
static bool TakeInPieces(TwinSearch &search, reader::ChunkReader &reader, uint64_t twin, uint64_t place,
                         LostChunk &lost)
{
    uint64_t offset = 0;
    bool isTaken = true;
    const auto takePiece = [&](const uint8_t *piece, size_t byteCount) {
        isTaken = search.taker.take(lost.chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    };
    const std::optional<reader::ChunkFault> fault = reader.Read(twin, takePiece);
    if (fault) {
        NoteBadTwin(search, reader.chain, twin, *fault);
    } else {
        Settle(search, lost, place, isTaken && offset == LengthOf(search.chain, lost));
    }
    DropUnlessFound(search, lost, offset);
    return !fault;
}

static void SearchImage(TwinSearch &search, const Chain &image, uint64_t place, const std::function<bool()> &prepareKey)
{
    std::optional<reader::ChunkReader> reader;
    for (uint64_t twin = 0; twin < image.ChunkCount() && WantsMore(search); ++twin) {
        const ChunkEntry &entry = image.images[0].table[twin];
        const uint32_t length = reader::LengthOfChunk(image.Header(), twin);
        auto [first, last] = EqualChunks(search, entry.hash, length);
        if (entry.storedLength == 0 || first == last) {
            continue;
        }
        if (!reader) {
            if (!prepareKey()) {
                return;
            }
            reader.emplace(image);
            reader->ignoresPlace = true;
        }
        if (length <= reader->bufferBytes) {
            TakeWhole(search, *reader, twin, place, first, last);
            continue;
        }
        while (first != last && WantsMore(search) && TakeInPieces(search, *reader, twin, place, *first)) {
            ++first;
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

static void SearchFolder(TwinSearch &search)
{
    std::sort(search.lost.begin(), search.lost.end(), [&search](const LostChunk &left, const LostChunk &right) {
        return Compare(search.chain, left, DigestOf(search.chain, right), LengthOf(search.chain, right)) < 0;
    });
    std::optional<std::string> password;
    for (size_t i = 0; i < search.places.names.size() && WantsMore(search); ++i) {
        reader::Result<reader::ImageFile> image =
            reader::OpenImageFile(NameOfPlace(search.places, firstFile + i), search.common.caching, true);
        if (!image) { // no image, or one whose table can't be trusted, unless it could not be looked at
            if (image.fault.kind != reader::FaultKind::Damaged) {
                AddSentence(search.notes, image.fault.text);
            }
            continue;
        }
        Chain alone = reader::MakeAlone(std::move(*image));
        const auto prepareKey = [&] {
            const std::optional<reader::Fault> fault = PrepareKey(search.common, &alone.images[0], &password);
            if (fault) {
                AddSentence(search.notes, fault->text);
            }
            return !fault;
        };
        const auto &known = search.places.known;
        search.isKnown = std::find(known.begin(), known.end(), alone.images[0].facts.identity) != known.end();
        SearchImage(search, alone, firstFile + i, prepareKey);
    }
    std::sort(search.lost.begin(), search.lost.end(),
              [](const LostChunk &left, const LostChunk &right) { return left.chunk < right.chunk; });
}

// ---- On a disk ----

// One pass over a lost chunk's place on the disk. See, if given, looks at each piece as it comes, and ends the pass by
// false. Whether the bytes had the chunk's digest.
static bool ReadFromDisk(const TwinSearch &search, const LostChunk &lost, uint8_t *buffer, const reader::TakePiece &see)
{
    const uint64_t begin = lost.chunk * uint64_t{search.chain.Header().chunkSize};
    const uint64_t length = LengthOf(search.chain, lost);
    host::Digesting digesting;
    for (uint64_t done = 0; done < length;) {
        const size_t piece = std::min<uint64_t>(reader::largestBuffer, length - done);
        if (const host::Trouble trouble = host::ReadAt(search.places.disk, begin + done, buffer, piece)) {
            AddSentence(search.notes, search.places.diskName + ": the place of chunk " + std::to_string(lost.chunk) +
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
static void TakeFromDisk(TwinSearch &search, uint8_t *buffer, LostChunk &lost)
{
    if (!ReadFromDisk(search, lost, buffer, nullptr)) {
        return;
    }
    const uint32_t length = LengthOf(search.chain, lost);
    if (length <= reader::largestBuffer) {
        Settle(search, lost, onDisk, search.taker.take(lost.chunk, 0, buffer, length));
        DropUnlessFound(search, lost, length);
        return;
    }
    uint64_t offset = 0;
    bool isTaken = true;
    const bool isSame = ReadFromDisk(search, lost, buffer, [&](const uint8_t *piece, size_t byteCount) {
        isTaken = search.taker.take(lost.chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    });
    if (isSame || !isTaken) {
        Settle(search, lost, onDisk, isSame);
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

static void SearchDisk(TwinSearch &search)
{
    const host::Pages buffer = host::MakePages(reader::largestBuffer);
    for (LostChunk &chunk : search.lost) {
        if (!WantsMore(search)) {
            return;
        }
        if (IsSettled(chunk)) {
            continue;
        }
        TakeFromDisk(search, buffer.get(), chunk);
        if (!IsSettled(chunk)) {
            search.progress.Add(LengthOf(search.chain, chunk));
        }
    }
}

void FindTwins(const CommonOptions &common, const Chain &chain, const TwinPlaces &places, std::vector<LostChunk> &lost,
               std::vector<std::string> &notes, const TwinTaker &taker)
{
    uint64_t lostBytes = 0;
    for (const LostChunk &chunk : lost) {
        lostBytes += LengthOf(chain, chunk);
    }
    Progress progress(!common.quiet, "twins of what is bad", lostBytes);
    TwinSearch search = {common, chain, places, lost, notes, taker, progress, lost.size()};
    SearchFolder(search);
    if (!places.diskName.empty() && WantsMore(search)) {
        SearchDisk(search);
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
