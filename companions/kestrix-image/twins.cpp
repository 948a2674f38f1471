// Looking for lost chunks: through every image of a folder, by the digests in their tables, and on a disk, at the place
// that the chunk itself has. What is found counts only after its own image's checks and its digest have passed.
#include "kestrix-image/twins.h"

#include <algorithm>
#include <cstring>

static bool IsAllFound(const std::vector<LostChunk> &lost)
{
    return std::all_of(lost.begin(), lost.end(), [](const LostChunk &chunk) { return chunk.isFound; });
}

// Lost chunks by digest, as indices.
static std::vector<size_t> SortByDigest(const std::vector<LostChunk> &lost)
{
    std::vector<size_t> order;
    for (size_t i = 0; i < lost.size(); ++i) {
        if (!lost[i].isFound) {
            order.push_back(i);
        }
    }
    std::sort(order.begin(), order.end(),
              [&lost](size_t left, size_t right) { return lost[left].digest < lost[right].digest; });
    return order;
}

static void TakeFrom(reader::ChunkReader &reader, uint64_t twin, LostChunk &chunk, std::vector<std::string> &notes,
                     const TakeTwin &take)
{
    uint64_t offset = 0;
    bool isTaken = true;
    const auto takePiece = [&](const uint8_t *piece, size_t byteCount) {
        isTaken = take(chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    };
    if (const std::optional<reader::ChunkFault> fault = reader.Read(twin, takePiece)) {
        AddSentence(notes, reader::DescribeChunkFault(reader.chain, twin, *fault).text);
    } else {
        chunk.foundIn = reader.chain.images[0].facts.path;
        chunk.isFound = isTaken && offset == chunk.length;
    }
}

static void SearchImage(const reader::Chain &chain, std::vector<LostChunk> &lost, const std::vector<size_t> &order,
                        std::vector<std::string> &notes, const std::function<bool()> &prepareKey, const TakeTwin &take)
{
    std::optional<reader::ChunkReader> reader;
    for (uint64_t twin = 0; twin < chain.ChunkCount(); ++twin) {
        const ChunkEntry &entry = chain.images[0].table[twin];
        host::Digest digest;
        memcpy(digest.data(), entry.hash, digest.size());
        auto candidate =
            std::lower_bound(order.begin(), order.end(), digest,
                             [&lost](size_t index, const auto &wanted) { return lost[index].digest < wanted; });
        for (; candidate != order.end() && lost[*candidate].digest == digest; ++candidate) {
            LostChunk &chunk = lost[*candidate];
            if (entry.storedLength == 0 || chunk.isFound ||
                chunk.length != reader::LengthOfChunk(chain.Header(), twin)) {
                continue;
            }
            if (!reader) {
                if (!prepareKey()) {
                    return;
                }
                reader.emplace(chain);
                reader->ignoresPlace = true;
            }
            TakeFrom(*reader, twin, chunk, notes, take);
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

static void SearchFolder(const CommonOptions &common, const TwinPlaces &places, std::vector<LostChunk> &lost,
                         std::vector<std::string> &notes, const TakeTwin &take)
{
    std::optional<std::string> password;
    for (const std::string &name : places.names) {
        if (IsAllFound(lost)) {
            break;
        }
        reader::Result<reader::ImageFile> image =
            reader::OpenImageFile(places.folder + "/" + name, common.caching, true);
        if (!image) { // no image, or one whose table can't be trusted, unless it could not be looked at
            if (image.fault.kind == reader::FaultKind::Unavailable) {
                AddSentence(notes, image.fault.text);
            }
            continue;
        }
        reader::Chain chain = reader::MakeAlone(std::move(*image));
        const auto prepareKey = [&] {
            const std::optional<reader::Fault> fault = PrepareKey(common, &chain.images[0], &password);
            if (fault) {
                AddSentence(notes, fault->text);
            }
            return !fault;
        };
        const auto &known = places.known;
        const bool isKnown = std::find(known.begin(), known.end(), chain.images[0].facts.identity) != known.end();
        std::vector<std::string> toldAlready;
        SearchImage(chain, lost, SortByDigest(lost), isKnown ? toldAlready : notes, prepareKey, take);
    }
}

// One pass over a lost chunk's place on the disk. See, if given, looks at each piece as it comes, and ends the pass by
// false. Whether the bytes had the chunk's digest.
static bool ReadFromDisk(const TwinPlaces &places, const LostChunk &chunk, uint8_t *buffer,
                         std::vector<std::string> &notes, const reader::TakePiece &see)
{
    host::Digesting digesting;
    for (uint64_t done = 0; done < chunk.length;) {
        const size_t piece = std::min<uint64_t>(reader::largestBuffer, chunk.length - done);
        if (const host::Trouble trouble = host::ReadAt(places.disk, chunk.diskOffset + done, buffer, piece)) {
            AddSentence(notes, places.diskName + ": the place of chunk " + std::to_string(chunk.chunk) +
                                   " can't be read: " + *trouble);
            return false;
        }
        digesting.Add(buffer, piece);
        if (see && !see(buffer, piece)) {
            return false;
        }
        done += piece;
    }
    return digesting.Finish() == chunk.digest;
}

// A disk may change between two reads: what fits into the buffer is read once, and of what doesn't the second reading
// has to have the digest too.
static void TakeFromDisk(const TwinPlaces &places, uint8_t *buffer, LostChunk &chunk, std::vector<std::string> &notes,
                         const TakeTwin &take)
{
    if (!ReadFromDisk(places, chunk, buffer, notes, nullptr)) {
        return;
    }
    if (chunk.length <= reader::largestBuffer) {
        chunk.foundIn = places.diskName;
        chunk.isFound = take(chunk, 0, buffer, chunk.length);
        return;
    }
    uint64_t offset = 0;
    bool isTaken = true;
    const bool isSame = ReadFromDisk(places, chunk, buffer, notes, [&](const uint8_t *piece, size_t byteCount) {
        isTaken = take(chunk, offset, piece, byteCount);
        offset += byteCount;
        return isTaken;
    });
    if (isSame || !isTaken) {
        chunk.foundIn = places.diskName;
        chunk.isFound = isSame;
    }
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

void FindTwins(const CommonOptions &common, const TwinPlaces &places, std::vector<LostChunk> &lost,
               std::vector<std::string> &notes, const TakeTwin &take)
{
    SearchFolder(common, places, lost, notes, take);
    if (places.diskName.empty() || IsAllFound(lost)) {
        return;
    }
    const host::Pages buffer = host::MakePages(reader::largestBuffer);
    for (LostChunk &chunk : lost) {
        if (!chunk.isFound) {
            TakeFromDisk(places, buffer.get(), chunk, notes, take);
        }
    }
}
