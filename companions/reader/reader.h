// Images as data: what a file holds, a chain opened, a chunk fetched, every fault a value with a sentence.
//
// This is a second reading of the format, made apart from the program's own; of that it shares the records alone. What
// the program refuses is refused here and what it accepts is accepted, in the same limits. Images are hostile input: no
// number in one of them is believed before it has been compared with the file.
//
// Nothing here ends the process or prints. An open chain may be read from any number of threads at once. Memory: a
// table costs 72 bytes an entry and half a byte for its places, a chain one byte more for each chunk of the disk.
#pragma once

#include "host/host.h"
#include "image/image_format.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace reader
{

// Damaged: the files hold what they must not, or one of them is missing. Unreadable: the medium doesn't give back a
// part without which the rest makes no sense. Unavailable: it can't be told, since something outside of them failed: a
// file that doesn't open, a chunk that doesn't come off its medium, no password, no memory.
enum class FaultKind { Damaged, Unreadable, Unavailable };

struct Fault {
    FaultKind kind = FaultKind::Unavailable;
    std::string text; // one sentence without a full stop, the file's path first
};

// A value, or the fault that stands in its way.
template <typename Value>
struct Result {
    Result(Value &&made) : value(std::move(made)) {}
    Result(Fault found) : fault(std::move(found)) {}

    explicit operator bool() const
    {
        return value.has_value();
    }
    Value &operator*()
    {
        return *value;
    }
    Value *operator->()
    {
        return &*value;
    }

    std::optional<Value> value;
    Fault fault; // meaningful without a value
};

// ---- A file alone: image_file.cpp ----

enum class FileKind {
    Image,      // header, table and, in a thin image, trailer can be read
    Unfinished, // empty, or nothing but zeros where the header or the whole table belongs
    Damaged,    // it begins or ends as an image does, and fault says what is wrong
    Other,      // no image
    Unreadable, // fault says why it can't be looked at
};

struct Trailer {
    std::string baseName; // as it stands there, a zero byte included
    ImageId basePin = {};
};

// A trailer's bytes in the file.
std::vector<uint8_t> EncodeTrailer(const Trailer &trailer);

// What a file tells of itself, its base not looked at.
struct ImageFacts {
    std::string path;
    FileKind kind = FileKind::Unreadable;
    std::optional<Fault> fault; // of every kind but Image
    host::FileIdentity identity;
    uint64_t fileBytes = 0;
    // What follows is filled as far as the file was understood.
    bool hasHeader = false; // all of it was read, and is an image's
    ImageHeader header = {};
    bool hasTable = false; // header and whole table were read: all but trailer and the three below it are filled
    ImageId id = {};
    uint64_t dataEnd = 0; // file offset behind the last stored chunk, as the table has it
    uint64_t storedChunks = 0;
    uint64_t referredChunks = 0;
    uint64_t zeroChunks = 0; // of both, told by their digests; only where they were asked for
    std::optional<Trailer> trailer;
    uint64_t bytesTooMany = 0;    // behind the data area, or between it and the trailer
    uint64_t bytesMissing = 0;    // of the data area
    bool hasStrayTrailer = false; // it ends in a trailer, though its header tells of no base: it may stand on any image
};

bool IsThin(const ImageHeader &header);
bool IsSealed(const ImageHeader &header);

// Bytes of chunk i on the disk, as a reader of the format takes it from any header.
uint32_t LengthOfChunk(const ImageHeader &header, uint64_t i);

// Bytes from the disk's start on for which the image has chunks: less than the disk where the header has too few.
uint64_t CoveredBytes(const ImageHeader &header);

// Bytes at the disk's end that it has none for.
uint64_t UncoveredBytes(const ImageHeader &header);

// File offset of the data area.
uint64_t StartOfData(uint64_t chunkCount);

uint64_t TrackerEpoch(const ImageHeader &header);

// Looks at header, table and trailer of the file at path. countsZeros: digests are compared with those of zeros.
ImageFacts ReadImageFacts(const std::string &path, bool countsZeros);

// Gets count entries of a table at a time, in order: those from index first on.
using TakeTable =
    std::function<void(const ImageHeader &header, const ChunkEntry *entries, uint64_t first, uint64_t count)>;

// The same, and take gets the table as it goes by; none of it is kept. take has got the whole table where hasTable says
// that there is one.
ImageFacts ReadImageTable(const std::string &path, const TakeTable &take);

// Chunks longer than this are not known as zeros: an image names any length, and to digest so many costs the time of
// whoever only looks at it.
constexpr uint32_t longestZeroChunk = uint32_t{64} << 20;

// Knows chunks of nothing but zeros by their digest.
struct ZeroChunks {
    // True if the entry of chunk i has the digest of zeros, of as many as the chunk is long.
    bool Has(const ImageHeader &header, const ChunkEntry &entry, uint64_t i);

    std::vector<std::pair<uint32_t, host::Digest>> digests; // by length; there are three lengths at most
};

// An image opened: its table in memory, its file open. Move-only.
struct ImageFile {
    ImageFacts facts; // of the kind Image
    host::Source source;
    std::vector<ChunkEntry> table;
    std::vector<uint64_t> placesOfData; // file offset of every 16th chunk's data
    std::unique_ptr<host::Key> key;     // in a sealed image of which something is needed

    // File offset of what the image stores of chunk i.
    uint64_t OffsetOf(uint64_t i) const;
};

// Opens the file at path alone. Neither its base nor a password is asked for. With toleratesTrailer a file whose header
// and table are whole is opened whatever stands behind them, or can't be read there; facts.fault is then what is wrong
// with that.
Result<ImageFile> OpenImageFile(const std::string &path, host::Caching caching, bool toleratesTrailer = false);

// ---- A chain: chain.cpp ----

constexpr uint32_t mostImages = 65; // in a chain
constexpr uint8_t storedNowhere = 255;

struct OpenOptions {
    std::string passwordFile; // empty: none was given
    host::Caching caching = host::Caching::Medium;
    uint32_t threads = 1;    // to derive keys on
    bool isAlone = false;    // leaves the base where it is: only what the image stores itself can be read
    bool needsOnly = false;  // of a sealed image of which nothing is needed no key is derived and no password asked for
    bool keepsGoing = false; // the chain ends above a base that is missing, damaged or not the one that is pinned
};

struct Chain {
    std::vector<ImageFile> images; // the one that was named first, each on the one behind it
    std::vector<uint8_t> storedIn; // for each chunk the index of the image that stores it, or storedNowhere
    std::optional<Fault> endsBy;   // what it ends by before its full image, where OpenOptions::keepsGoing let it

    const ImageHeader &Header() const
    {
        return images[0].facts.header;
    }
    uint64_t ChunkCount() const
    {
        return images[0].table.size();
    }
};

// Opens the image at path with all that it stands on, by name and by pin, and derives the keys of those that store what
// it needs. Where it keeps going, the header and the table of that image alone must be whole, and a base that another
// program holds, or for which there is no handle, is a fault all the same: later it may be had.
Result<Chain> OpenChain(const std::string &path, const OpenOptions &options);

// The image as a chain of its own, its base left where it is. Its key is not derived.
Chain MakeAlone(ImageFile image);

// The password in a file: its bytes without the CR and LF at its end.
Result<std::string> ReadPassword(const std::string &path);

// Derives the image's key into image.key; nothing is done for a plain one. No password is a fault for a sealed one.
std::optional<Fault> DeriveImageKey(ImageFile *image, const std::optional<std::string> &password);

// ---- A chunk: fetch.cpp ----

enum class ChunkCause {
    NotStored,   // no image of the chain stores it
    OtherDigest, // the tables of the chain disagree about its digest
    WrongPlace,  // its entry names another place on the disk than its own, or the disk ends before it
    WrongLength, // it is stored with another length than its own
    CutOff,      // its file ends before it does
    Unreadable,  // its file can't be read there
    Seal,        // its tag doesn't match, or it was sealed with another password
    Digest,      // its digest doesn't match
};

struct ChunkFault {
    ChunkCause cause = ChunkCause::NotStored;
    uint8_t level = 0;      // index in Chain::images of the file that is to blame
    std::string systemSays; // of an Unreadable one
};

// The cause in words, and the whole sentence: file, chunk, what.
std::string CauseText(const ChunkFault &fault);
Fault DescribeChunkFault(const Chain &chain, uint64_t i, const ChunkFault &fault);

// Whether the disk that the header tells of has a place for chunk i.
bool LiesOnDisk(const ImageHeader &header, uint64_t i);

// What the tables alone tell of chunk i; no file is read.
std::optional<ChunkFault> CheckTables(const Chain &chain, uint64_t i);

// Takes the next piece of a chunk, whose digest has matched. False: the rest is not wanted.
using TakePiece = std::function<bool(const uint8_t *piece, size_t byteCount)>;

// Reads chunks for one thread, through a handle and a buffer of its own. The chain must outlive it.
struct ChunkReader {
    explicit ChunkReader(const Chain &chainToRead);

    // Reads and checks chunk i, and hands it on if take is given: only what has passed every check, in order. A chunk
    // larger than the buffer is read twice for that.
    std::optional<ChunkFault> Read(uint64_t i, const TakePiece &take = nullptr);

    const Chain &chain;
    host::Pages buffer;
    size_t bufferBytes = 0;
    host::Source source; // of the image at sourceLevel, unless the chain's own is shared
    uint8_t sourceLevel = storedNowhere;
    bool sharesSource = false;
    bool ignoresPlace = false; // a chunk whose entry names another place on the disk is as good as any
};

constexpr size_t largestBuffer = size_t{8} << 20;

// Puts the checked plaintext of chunk i, LengthOfChunk bytes, into out. Any thread may call it at any time. After a
// fault the content of out is undefined.
std::optional<Fault> FetchChunk(const Chain &chain, uint64_t i, uint8_t *out);

// Says that chunk i will be fetched soon, so that it may be on its way from the medium; whether there is such a chunk,
// and whether its file holds it, is no matter.
void AnnounceChunk(const Chain &chain, uint64_t i);

// ---- Threads: threads.cpp ----

// As many threads as there are cores.
uint32_t CoreCount();

// Calls work on that many threads at once, the caller's among them, and returns when all have come back. Where a thread
// can't be had, there are fewer. An exception in work ends that thread's part and is the fault that is given back.
std::optional<Fault> OnThreads(uint32_t threads, const std::function<void()> &work);

} // namespace reader
