// nbdkit-kestrix-plugin: an image, with all that it stands on, as a disk that nbdkit serves.
//
// The functions stand in the order of a server's life: the command line, the opening, which is done before nbdkit goes
// into the background and can no longer say what is wrong, and the requests of its clients, which come on any number of
// threads. Nothing is ever written. What is served has matched its digest: a chunk that can't be had, or is not what
// was recorded, is an error of input and output for whoever reads in it, and the rest of the disk stays readable.
#include "nbdkit/chunk_cache.h"
#include "reader/reader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#define NBDKIT_API_VERSION 2
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL
#include <nbdkit-plugin.h>

namespace
{

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint64_t usualCacheBytes = 64 * mebibyte;
constexpr uint64_t leastCacheBytes = 16 * mebibyte; // so that some fetches can be under way without a cache
constexpr uint32_t largestRequest = 32 * mebibyte;  // bytes; what clients of the protocol count on
constexpr uint32_t smallestPreferredRequest = 512;  // bytes, as the protocol has it
constexpr size_t mostToTry = 4;                     // chunks of a sealed image
constexpr uint64_t bytesAhead = 16 * mebibyte;      // on their way behind the chunk that is fetched
constexpr uint64_t mostSkipped = 16;                // chunks between two that are fetched one behind the other
constexpr uint64_t noChunk = UINT64_MAX;

// ---- The command line ----

struct Settings {
    std::string image;
    std::string passwordFile;
    uint64_t cacheBytes = usualCacheBytes;
};

Settings settings;

// Sets a path, which must hold when the server has changed its folder.
int SetPath(std::string *path, const char *key, const char *value)
{
    if (!path->empty() || *value == '\0') {
        nbdkit_error("%s= wants one file, once", key);
        return -1;
    }
    const std::unique_ptr<char, void (*)(void *)> absolute(nbdkit_absolute_path(value), free);
    if (absolute == nullptr) {
        return -1; // it has been told
    }
    *path = absolute.get();
    return 0;
}

int SetCache(const char *value)
{
    const int64_t size = nbdkit_parse_size(value);
    if (size < 0) {
        return -1; // it has been told
    }
    settings.cacheBytes = static_cast<uint64_t>(size);
    return 0;
}

int Configure(const char *key, const char *value)
{
    if (strcmp(key, "image") == 0) {
        return SetPath(&settings.image, key, value);
    }
    if (strcmp(key, "password-file") == 0) {
        return SetPath(&settings.passwordFile, key, value);
    }
    if (strcmp(key, "cache") == 0) {
        return SetCache(value);
    }
    nbdkit_error("there is no parameter %s: it is image, password-file or cache", key);
    return -1;
}

int CompleteConfiguration()
{
    if (settings.image.empty()) {
        nbdkit_error("name the image to serve: nbdkit kestrix IMAGE");
        return -1;
    }
    return 0;
}

void DumpPlugin()
{
    printf("kestrix_default_cache=%llu\n", static_cast<unsigned long long>(usualCacheBytes));
    printf("kestrix_longest_chain=%u\n", reader::mostImages);
}

// ---- The opening ----

// Bytes of the disk from one chunk to the next, as far as there is a next.
uint64_t ChunkBytes(const reader::Chain &chain)
{
    const uint64_t diskBytes = chain.Header().diskSize; // of its own, since the header's is not aligned
    return std::min<uint64_t>(chain.Header().chunkSize, diskBytes);
}

// What is served, the same from before the fork to the server's end.
struct Served {
    Served(reader::Chain opened, uint64_t cacheBytes);

    bool Fetch(uint64_t i, uint8_t *out);
    void AnnounceNext(uint64_t i);
    void TellOnce(uint64_t i, const std::string &what);

    const reader::Chain chain;
    const uint64_t diskBytes;
    const uint64_t chunkBytes;
    const uint64_t chunkCount; // of those that lie on the disk
    std::vector<bool> isZero;  // for each chunk whether its tables are in order and say that it is zeros
    std::atomic<uint64_t> lastFetched{noChunk};
    std::mutex mutex;         // over what follows
    std::vector<bool> isTold; // for each chunk, and one more for what lies behind the last, that it is bad
    serving::ChunkCache cache;
};

std::unique_ptr<Served> served;

uint64_t ChunksOnDisk(const reader::Chain &chain)
{
    const uint64_t diskBytes = chain.Header().diskSize;
    return diskBytes == 0 ? 0 : std::min(chain.ChunkCount(), (diskBytes - 1) / ChunkBytes(chain) + 1);
}

// A chunk known by its digest is not read, so that reads give what the extents have promised.
std::vector<bool> FindZeroChunks(const reader::Chain &chain, uint64_t chunkCount)
{
    reader::ZeroChunks zeroChunks;
    std::vector<bool> isZero(chunkCount);
    for (uint64_t i = 0; i < chunkCount; ++i) {
        isZero[i] = zeroChunks.Has(chain.Header(), chain.images[0].table[i], i) && !reader::CheckTables(chain, i);
    }
    return isZero;
}

uint32_t CountPlaces(uint64_t cacheBytes, uint64_t chunkBytes, uint64_t chunkCount)
{
    const uint64_t most = std::max(cacheBytes, leastCacheBytes) / std::max<uint64_t>(chunkBytes, 1);
    return static_cast<uint32_t>(
        std::max<uint64_t>(std::min({most, chunkCount, uint64_t{serving::ChunkCache::mostPlaces}}), 1));
}

Served::Served(reader::Chain opened, uint64_t cacheBytes)
    : chain(std::move(opened)), diskBytes(chain.Header().diskSize), chunkBytes(ChunkBytes(chain)),
      chunkCount(ChunksOnDisk(chain)), isZero(FindZeroChunks(chain, chunkCount)), isTold(chunkCount + 1),
      cache(chunkCount, chunkBytes, CountPlaces(cacheBytes, chunkBytes, chunkCount),
            [this](uint64_t i, uint8_t *out) { return Fetch(i, out); })
{
}

// What can't be served of a chain that opens; empty where that is nothing.
std::string FindObstacle(const reader::Chain &chain, uint64_t cacheBytes)
{
    if (chain.Header().diskSize > INT64_MAX) {
        return "its disk is larger than any that can be served";
    }
    if (chain.Header().diskSize != 0 && chain.Header().chunkSize == 0) {
        return "its chunks have no length";
    }
    if (ChunkBytes(chain) > std::max(cacheBytes, leastCacheBytes)) {
        return "its chunks are larger than the cache: give it cache=" + std::to_string(ChunkBytes(chain));
    }
    return {};
}

// The chunks to try the key of an image with: a few that the disk needs of it, from its first to its last, so that no
// one damaged stretch holds them all.
std::vector<uint64_t> ChunksToTry(const reader::Chain &chain, size_t level)
{
    std::vector<uint64_t> needed;
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        if (chain.storedIn[i] == level && !reader::CheckTables(chain, i)) {
            needed.push_back(i);
        }
    }
    const size_t count = std::min(needed.size(), mostToTry);
    std::vector<uint64_t> tried;
    for (size_t n = 0; n < count; ++n) {
        tried.push_back(needed[count == 1 ? 0 : n * (needed.size() - 1) / (count - 1)]);
    }
    return tried;
}

// Whether a sealed image gives nothing for the password: it would be served as a disk of errors. A single chunk proves
// nothing, since it may be damaged.
bool RefusesPassword(const reader::Chain &chain, size_t level, reader::ChunkReader *reader)
{
    const std::vector<uint64_t> tried = ChunksToTry(chain, level);
    return tried.size() > 1 && std::all_of(tried.begin(), tried.end(), [&](uint64_t i) {
               const std::optional<reader::ChunkFault> fault = reader->Read(i);
               return fault && fault->cause == reader::ChunkCause::Seal;
           });
}

// The sentence about the first image that the password doesn't open; empty where there is none.
std::string FindRefusedPassword(const reader::Chain &chain)
{
    reader::ChunkReader reader(chain);
    for (size_t level = 0; level < chain.images.size(); ++level) {
        const reader::ImageFacts &facts = chain.images[level].facts;
        if (reader::IsSealed(facts.header) && RefusesPassword(chain, level, &reader)) {
            return facts.path + ": the password is another than it was sealed with, or it is damaged throughout";
        }
    }
    return {};
}

int GetReady()
{
    try {
        reader::OpenOptions options;
        options.passwordFile = settings.passwordFile;
        options.caching = host::Caching::Cached;
        options.threads = reader::CoreCount();
        reader::Result<reader::Chain> chain = reader::OpenChain(settings.image, options);
        if (!chain) {
            nbdkit_error("%s", host::PrintableText(chain.fault.text).c_str());
            return -1;
        }
        const std::string obstacle = FindObstacle(*chain, settings.cacheBytes);
        if (!obstacle.empty()) {
            nbdkit_error("%s: %s", settings.image.c_str(), obstacle.c_str());
            return -1;
        }
        const std::string refused = FindRefusedPassword(*chain);
        if (!refused.empty()) {
            nbdkit_error("%s", host::PrintableText(refused).c_str());
            return -1;
        }
        served = std::make_unique<Served>(std::move(*chain), settings.cacheBytes);
        return 0;
    } catch (const std::bad_alloc &) {
        nbdkit_error("%s: there is not enough memory for its tables and the cache", settings.image.c_str());
        return -1;
    }
}

// ---- A connection ----

void *Open(int)
{
    return NBDKIT_HANDLE_NOT_NEEDED;
}

int64_t GetSize(void *)
{
    return static_cast<int64_t>(served->diskBytes);
}

// What costs least is a whole chunk, as far as the protocol can say that: it wants powers of two.
int GetBlockSize(void *, uint32_t *minimum, uint32_t *preferred, uint32_t *maximum)
{
    *minimum = 1;
    *preferred = smallestPreferredRequest;
    while (*preferred < largestRequest && uint64_t{*preferred} * 2 <= served->chunkBytes) {
        *preferred *= 2;
    }
    *maximum = largestRequest;
    return 0;
}

// All connections see the same disk, which nobody changes.
int CanMultiConnect(void *)
{
    return 1;
}

// ---- Requests ----

void Served::TellOnce(uint64_t i, const std::string &what)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!isTold[i]) {
        isTold[i] = true;
        nbdkit_error("%s", host::PrintableText(what).c_str());
    }
}

// Where chunks are fetched one behind the other, perhaps by several threads, the next are on their way meanwhile. A
// chunk of zeros is never fetched, and may be between two that are.
void Served::AnnounceNext(uint64_t i)
{
    const uint64_t before = lastFetched.exchange(i);
    if (before == noChunk || i <= before || i - before > mostSkipped) {
        return;
    }
    uint64_t announced = 0;
    for (uint64_t next = i + 1; next < chunkCount && next <= i + mostSkipped && announced < bytesAhead; ++next) {
        if (!isZero[next]) {
            reader::AnnounceChunk(chain, next);
            announced += chunkBytes;
        }
    }
}

// Never throws: who else waits for the chunk would do so for ever. What may pass is told each time, so that it doesn't
// use up the line of a chunk that turns out to be bad.
bool Served::Fetch(uint64_t i, uint8_t *out)
{
    try {
        AnnounceNext(i);
        const std::optional<reader::Fault> fault = reader::FetchChunk(chain, i, out);
        if (fault && fault->kind == reader::FaultKind::Unavailable) {
            nbdkit_error("%s", host::PrintableText(fault->text).c_str());
        } else if (fault) {
            TellOnce(i, fault->text);
        }
        return !fault;
    } catch (const std::exception &failure) {
        nbdkit_error("chunk %llu can't be had: %s", static_cast<unsigned long long>(i), failure.what());
        return false;
    }
}

// Copies what chunk i has of the byteCount bytes at offset, and gives their number; 0 if it is bad.
uint32_t CopyFromChunk(uint64_t i, uint64_t offset, uint32_t byteCount, uint8_t *out)
{
    if (i >= served->chunkCount) {
        served->TellOnce(served->chunkCount, served->chain.images[0].facts.path +
                                                 ": it has no chunks for the disk's bytes from " +
                                                 std::to_string(served->chunkCount * served->chunkBytes) + " on");
        return 0;
    }
    const uint64_t within = offset - i * served->chunkBytes;
    const auto piece =
        static_cast<uint32_t>(std::min<uint64_t>(byteCount, reader::LengthOfChunk(served->chain.Header(), i) - within));
    if (served->isZero[i]) {
        memset(out, 0, piece);
        return piece;
    }
    return served->cache.Copy(i, within, piece, out) ? piece : 0;
}

int Read(void *, void *buffer, uint32_t byteCount, uint64_t offset, uint32_t)
{
    auto *out = static_cast<uint8_t *>(buffer);
    try {
        while (byteCount != 0) {
            const uint32_t copied = CopyFromChunk(offset / served->chunkBytes, offset, byteCount, out);
            if (copied == 0) {
                nbdkit_set_error(EIO);
                return -1;
            }
            out += copied;
            offset += copied;
            byteCount -= copied;
        }
        return 0;
    } catch (const std::exception &failure) { // which nbdkit would end by
        nbdkit_error("%s", failure.what());
        nbdkit_set_error(EIO);
        return -1;
    }
}

// The end of the stretch of chunks that begins with chunk i and is as much zeros or data as that.
uint64_t EndOfStretch(uint64_t i, uint64_t end)
{
    const bool isZero = served->isZero[i];
    uint64_t next = i + 1;
    while (next < served->chunkCount && next * served->chunkBytes < end && served->isZero[next] == isZero) {
        ++next;
    }
    return std::min(next * served->chunkBytes, served->diskBytes);
}

int ListExtents(void *, uint32_t byteCount, uint64_t offset, uint32_t flags, nbdkit_extents *extents)
{
    const uint64_t end = offset + byteCount;
    uint64_t begin = offset;
    do {
        const uint64_t i = begin / served->chunkBytes;
        const bool isThere = i < served->chunkCount;
        const uint64_t next = isThere ? EndOfStretch(i, end) : served->diskBytes;
        const bool isHole = isThere && served->isZero[i];
        const uint32_t type = isHole ? uint32_t{NBDKIT_EXTENT_HOLE} | uint32_t{NBDKIT_EXTENT_ZERO} : 0;
        if (nbdkit_add_extent(extents, begin, next - begin, type) != 0) {
            return -1; // it has been told
        }
        begin = next;
    } while (begin < end && (flags & NBDKIT_FLAG_REQ_ONE) == 0);
    return 0;
}

// ---- The end, and the table ----

void Unload()
{
    served.reset();
}

nbdkit_plugin MakeTable()
{
    nbdkit_plugin table = {};
    table.name = "kestrix";
    table.longname = "nbdkit plugin for Kestrix images";
    table.version = KESTRIX_VERSION;
    table.description = "Serves the disk that an image of Kestrix holds, full or thin, plain or sealed, read-only.\n"
                        "The images that a thin one stands on lie in its folder.";
    table.magic_config_key = "image";
    table.config_help = "[image=]<FILENAME>        (required) The image.\n"
                        "password-file=<FILENAME>  The password of sealed images: the file's content\n"
                        "                          without the line ends behind it.\n"
                        "cache=<SIZE>              Checked chunks kept in memory (default: 64M,\n"
                        "                          at least 16M).";
    table.config = Configure;
    table.config_complete = CompleteConfiguration;
    table.dump_plugin = DumpPlugin;
    table.get_ready = GetReady;
    table.open = Open;
    table.get_size = GetSize;
    table.block_size = GetBlockSize;
    table.can_multi_conn = CanMultiConnect;
    table.pread = Read;
    table.extents = ListExtents;
    table.unload = Unload;
    return table;
}

nbdkit_plugin plugin = MakeTable();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
