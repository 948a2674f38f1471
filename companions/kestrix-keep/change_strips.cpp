// One pass through each table. The digests of the table before are replaced by this one's as it goes by, so that there
// is never more than one of them in memory.
#include "kestrix-keep/change_strips.h"

#include "report/report.h"

#include <algorithm>
#include <cstring>
#include <numeric>

void StripMaker::Begin(const ImageHeader &header)
{
    const uint64_t chunks = header.chunkCount;
    const auto cells = static_cast<size_t>(std::min(chunks, mostCells));
    isComparable = digests.size() == chunks && diskBytes == header.diskSize && chunkBytes == header.chunkSize;
    diskBytes = header.diskSize;
    chunkBytes = header.chunkSize;
    digests.resize(static_cast<size_t>(chunks));
    cellChunks.assign(cells, 0);
    cellStored.assign(cells, 0);
    cellChanged.assign(cells, 0);
}

void StripMaker::Take(const ImageHeader &header, const ChunkEntry *entries, uint64_t first, uint64_t count)
{
    if (first == 0) {
        Begin(header);
    }
    for (uint64_t i = 0; i < count; ++i) {
        const auto cell = static_cast<size_t>((first + i) * cellChunks.size() / digests.size());
        uint64_t &before = digests[static_cast<size_t>(first + i)];
        uint64_t digest = 0;
        memcpy(&digest, entries[i].hash, sizeof(digest));
        ++cellChunks[cell];
        cellStored[cell] += entries[i].storedLength == 0 ? 0 : 1;
        cellChanged[cell] += digest == before ? 0 : 1;
        before = digest;
    }
}

static std::vector<uint8_t> Quarters(const std::vector<uint64_t> &concerned, const std::vector<uint64_t> &all)
{
    std::vector<uint8_t> quarters(all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        quarters[i] = static_cast<uint8_t>((4 * concerned[i] + all[i] - 1) / all[i]);
    }
    return quarters;
}

static uint64_t Sum(const std::vector<uint64_t> &counts)
{
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

ChangeStrip StripMaker::Finish(const reader::ImageFacts &facts)
{
    ChangeStrip strip;
    const bool isRead = facts.hasTable && facts.kind != reader::FileKind::Unfinished && facts.header.chunkCount != 0;
    if (isRead) {
        strip.diskBytes = reader::CoveredBytes(facts.header);
        strip.chunkBytes = facts.header.chunkSize;
        strip.chunks = facts.header.chunkCount;
        strip.storedChunks = Sum(cellStored);
        strip.stored = Quarters(cellStored, cellChunks);
    } else {
        strip.fault = facts.fault ? facts.fault->text : facts.path + ": its chunk table is empty";
    }
    if (isRead && isComparable) {
        strip.changedChunks = Sum(cellChanged);
        strip.changed = Quarters(cellChanged, cellChunks);
    }
    if (!isRead && !cellChunks.empty()) {
        digests.clear(); // they may be of two tables
    }
    cellChunks.clear();
    return strip;
}

// A run may have let the image go since the folder was read. Its sidecar goes first.
static bool WasLetGo(const std::string &path)
{
    return host::NameIsFree(path) && host::NameIsFree(SidecarPath(path));
}

static ChangeStrip ReadStrip(JobFolder &folder, size_t image, StripMaker &maker)
{
    const std::string path = PathOf(folder, folder.images[image]);
    const reader::ImageFacts facts =
        reader::ReadImageTable(path, [&maker](const ImageHeader &header, const ChunkEntry *entries, uint64_t first,
                                              uint64_t count) { maker.Take(header, entries, first, count); });
    ChangeStrip strip = maker.Finish(facts);
    if (facts.kind == reader::FileKind::Unreadable && WasLetGo(path)) {
        strip.fault = path + ": it was let go in this moment";
    } else {
        NoteDifference(folder, image, facts);
    }
    return strip;
}

std::vector<ChangeStrip> ReadStrips(JobFolder &folder, bool showsProgress)
{
    std::vector<ChangeStrip> strips(folder.images.size());
    StripMaker maker = {};
    Progress progress(showsProgress, folder.path, folder.images.size(), Unit::Files);
    for (size_t i = 0; i < folder.images.size(); ++i) {
        if (folder.images[i].isThere) {
            // What has no sidecar comes first, whenever it was made: no image is compared with it.
            StripMaker alone = {};
            strips[i] = ReadStrip(folder, i, folder.images[i].sidecar ? maker : alone);
        } else {
            strips[i].fault = PathOf(folder, folder.images[i]) + ": the image is gone";
        }
        progress.Add(1);
    }
    return strips;
}
