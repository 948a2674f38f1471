// A chunk's bytes: out of the file that stores it, checked against every table above.
//
// A stored chunk passes its tag, where it is sealed, and then its digest. The named image stores a chunk with exactly
// its length; further down a longer one counts for its beginning, as it does for the program that restores it, though
// all of it must be there.
#include "reader/reader.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace reader
{

static bool HasDigest(const ChunkEntry &entry, const uint8_t *digest)
{
    return memcmp(entry.hash, digest, digestBytes) == 0;
}

std::string CauseText(const ChunkFault &fault)
{
    switch (fault.cause) {
    case ChunkCause::NotStored:
        return "no image of the chain stores it";
    case ChunkCause::OtherDigest:
        return "another digest is recorded for it than in the image below";
    case ChunkCause::WrongPlace:
        return "its entry names another place on the disk, or the disk ends before it";
    case ChunkCause::WrongLength:
        return "it is stored with a wrong length";
    case ChunkCause::CutOff:
        return "the file ends before it does";
    case ChunkCause::Unreadable:
        return "it can't be read: " + fault.systemSays;
    case ChunkCause::Seal:
        return "its seal is broken, or the password is another";
    case ChunkCause::Digest:
        return "its digest is not the recorded one";
    }
    return {};
}

Fault DescribeChunkFault(const Chain &chain, uint64_t i, const ChunkFault &fault)
{
    return {fault.cause == ChunkCause::Unreadable ? FaultKind::Unavailable : FaultKind::Damaged,
            chain.images[fault.level].facts.path + ": chunk " + std::to_string(i) + ": " + CauseText(fault)};
}

// All that the entries tell but the chunk's place.
static std::optional<ChunkFault> CheckEntries(const Chain &chain, uint64_t i)
{
    const uint8_t storedIn = chain.storedIn[i];
    if (storedIn == storedNowhere) {
        return ChunkFault{ChunkCause::NotStored, static_cast<uint8_t>(chain.images.size() - 1), {}};
    }
    const ChunkEntry &stored = chain.images[storedIn].table[i];
    for (uint8_t level = 0; level <= storedIn; ++level) {
        const ChunkEntry &entry = chain.images[level].table[i];
        if (!HasDigest(entry, stored.hash)) {
            return ChunkFault{ChunkCause::OtherDigest, level, {}};
        }
    }
    const uint32_t length = LengthOfChunk(chain.Header(), i);
    if (stored.storedLength < length || (storedIn == 0 && stored.storedLength != length)) {
        return ChunkFault{ChunkCause::WrongLength, storedIn, {}};
    }
    const ImageFile &image = chain.images[storedIn];
    const uint64_t offset = image.OffsetOf(i);
    if (offset > image.source.sizeBytes || stored.storedLength > image.source.sizeBytes - offset) {
        return ChunkFault{ChunkCause::CutOff, storedIn, {}};
    }
    return {};
}

bool LiesOnDisk(const ImageHeader &header, uint64_t i)
{
    const uint64_t begin = i * header.chunkSize;
    return begin <= header.diskSize && LengthOfChunk(header, i) <= header.diskSize - begin;
}

// For a chunk with sound entries. A wrong place is told only of a chunk that has no other fault: it is the one that the
// program that restores it lets pass.
static std::optional<ChunkFault> CheckPlace(const Chain &chain, uint64_t i)
{
    if (!LiesOnDisk(chain.Header(), i)) {
        return ChunkFault{ChunkCause::WrongPlace, 0, {}};
    }
    for (uint8_t level = 0; level <= chain.storedIn[i]; ++level) {
        if (chain.images[level].table[i].diskOffset != i * chain.Header().chunkSize) {
            return ChunkFault{ChunkCause::WrongPlace, level, {}};
        }
    }
    return {};
}

std::optional<ChunkFault> CheckTables(const Chain &chain, uint64_t i)
{
    const std::optional<ChunkFault> fault = CheckEntries(chain, i);
    return fault ? fault : CheckPlace(chain, i);
}

// One pass over a stored chunk, whose tables have been checked, through a buffer that it need not fit into. See may
// look at each piece as it is opened, not yet checked.
static std::optional<ChunkFault> ReadPieces(const Chain &chain, uint64_t i, const host::Source &source, uint8_t *buffer,
                                            size_t bufferBytes, const TakePiece &see)
{
    const uint8_t level = chain.storedIn[i];
    const ImageFile &image = chain.images[level];
    const ChunkEntry &entry = image.table[i];
    const uint32_t length = LengthOfChunk(chain.Header(), i);
    const uint64_t offset = image.OffsetOf(i);
    const auto unreadable = [level](const host::Trouble &trouble) {
        return ChunkFault{ChunkCause::Unreadable, level, *trouble};
    };
    for (uint64_t done = length; done < entry.storedLength;) { // what is stored behind the chunk must be there as well
        const size_t piece = std::min<uint64_t>(bufferBytes, entry.storedLength - done);
        if (const host::Trouble trouble = host::ReadAt(source, offset + done, buffer, piece)) {
            return unreadable(trouble);
        }
        done += piece;
    }
    std::optional<host::Opening> opening;
    if (IsSealed(image.facts.header)) {
        opening.emplace(*image.key, entry.nonce, entry.tag, length);
    }
    host::Digesting digesting;
    for (uint64_t done = 0; done < length;) {
        const size_t piece = std::min<uint64_t>(bufferBytes, length - done);
        if (const host::Trouble trouble = host::ReadAt(source, offset + done, buffer, piece)) {
            return unreadable(trouble);
        }
        if (opening && !opening->Add(buffer, piece)) {
            return ChunkFault{ChunkCause::Seal, level, {}};
        }
        digesting.Add(buffer, piece);
        if (see && !see(buffer, piece)) {
            return {};
        }
        done += piece;
    }
    if (opening && !opening->Finish()) {
        return ChunkFault{ChunkCause::Seal, level, {}};
    }
    if (!HasDigest(entry, digesting.Finish().data())) {
        return ChunkFault{ChunkCause::Digest, level, {}};
    }
    return {};
}

// ---- For one thread ----

static size_t BufferFor(const Chain &chain)
{
    return std::clamp<size_t>(chain.Header().chunkSize, 4096, largestBuffer);
}

ChunkReader::ChunkReader(const Chain &chainToRead)
    : chain(chainToRead), buffer(host::MakePages(BufferFor(chainToRead))), bufferBytes(BufferFor(chainToRead))
{
}

std::optional<ChunkFault> ChunkReader::Read(uint64_t i, const TakePiece &take)
{
    if (std::optional<ChunkFault> fault = CheckEntries(chain, i)) {
        return fault;
    }
    const uint8_t level = chain.storedIn[i];
    if (sourceLevel != level) {
        // A lack of handles is ours and no fault of the chunk's: the chain's own, which all may use, is only slower.
        sharesSource = host::OpenAgain(chain.images[level].source, &source).has_value();
        sourceLevel = level;
    }
    const host::Source &own = sharesSource ? chain.images[level].source : source;
    const uint32_t length = LengthOfChunk(chain.Header(), i);
    if (std::optional<ChunkFault> fault = ReadPieces(chain, i, own, buffer.get(), bufferBytes, nullptr)) {
        return fault;
    }
    std::optional<ChunkFault> misplaced = ignoresPlace ? std::nullopt : CheckPlace(chain, i);
    if (misplaced || !take) {
        return misplaced;
    }
    if (length <= bufferBytes) {
        take(buffer.get(), length);
        return {};
    }
    return ReadPieces(chain, i, own, buffer.get(), bufferBytes, take);
}

// ---- For any thread ----

std::optional<Fault> FetchChunk(const Chain &chain, uint64_t i, uint8_t *out)
{
    try {
        std::optional<ChunkFault> fault = CheckTables(chain, i);
        if (!fault) {
            const uint32_t length = LengthOfChunk(chain.Header(), i);
            const host::Source &source = chain.images[chain.storedIn[i]].source;
            constexpr uint32_t leastPiece = 4096; // of what a longer one stores behind the chunk
            const bool fits = length >= leastPiece || chain.images[chain.storedIn[i]].table[i].storedLength == length;
            const host::Pages spare = fits ? nullptr : host::MakePages(leastPiece);
            fault = ReadPieces(chain, i, source, fits ? out : spare.get(), fits ? length : leastPiece, nullptr);
            if (!fits && length != 0) {
                memcpy(out, spare.get(), length);
            }
        }
        return fault ? std::optional<Fault>(DescribeChunkFault(chain, i, *fault)) : std::nullopt;
    } catch (const std::bad_alloc &) {
        return Fault{FaultKind::Unavailable, chain.images[0].facts.path + ": there is not enough memory for a chunk"};
    }
}

void AnnounceChunk(const Chain &chain, uint64_t i)
{
    if (i < chain.ChunkCount() && chain.storedIn[i] != storedNowhere) {
        const ImageFile &image = chain.images[chain.storedIn[i]];
        host::Announce(image.source, image.OffsetOf(i), image.table[i].storedLength);
    }
}

} // namespace reader
