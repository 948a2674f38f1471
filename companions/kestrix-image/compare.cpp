// compare: where a disk, or a raw file of one, differs from what an image recorded.
//
// The digests in the image's own table are enough: the disk is read once, on all cores, and neither the base nor a
// password is asked for. Every chunk is looked at, also behind one that can't be read.
#include "kestrix-image/ranges.h"
#include "kestrix-image/report.h"
#include "reader/reader.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

enum ChunkState : uint8_t { chunkEqual, chunkDiffers, chunkUnreadable, chunkMissing };

struct CompareRun {
    const CommonOptions &common;
    const CompareOptions &options;
    const reader::ImageFile &image;
    host::Source source;
    std::vector<uint8_t> states = {}; // of each chunk
    std::string systemSays = {};      // of a chunk that can't be read
    std::mutex mutex = {};
    std::atomic<uint64_t> next = 0;
    std::atomic<bool> isSourceTaken = false;
};

static host::Trouble OpenSource(const CommonOptions &common, const CompareOptions &options, host::Source *source)
{
    return options.disk ? host::OpenDisk(*options.disk, common.caching, source)
                        : host::OpenFileToRead(options.file, common.caching, source);
}

static std::string SourceName(const CompareOptions &options)
{
    return options.disk ? "PhysicalDrive" + std::to_string(*options.disk) : options.file;
}

static ChunkState CompareChunk(CompareRun &run, const host::Source &source, uint8_t *buffer, size_t bufferBytes,
                               uint64_t chunk)
{
    const ImageHeader &header = run.image.facts.header;
    const uint64_t begin = chunk * header.chunkSize;
    const uint32_t length = reader::LengthOfChunk(header, chunk);
    if (!reader::LiesOnDisk(header, chunk)) {
        return chunkDiffers; // no disk has a place for it
    }
    if (begin > source.sizeBytes || length > source.sizeBytes - begin) {
        return chunkMissing;
    }
    host::Digesting digesting;
    for (uint64_t done = 0; done < length;) {
        const size_t piece = std::min<uint64_t>(bufferBytes, length - done);
        if (const host::Trouble trouble = host::ReadAt(source, begin + done, buffer, piece)) {
            const std::lock_guard<std::mutex> lock(run.mutex);
            run.systemSays = *trouble;
            return chunkUnreadable;
        }
        digesting.Add(buffer, piece);
        done += piece;
    }
    const host::Digest digest = digesting.Finish();
    return memcmp(digest.data(), run.image.table[chunk].hash, digest.size()) == 0 ? chunkEqual : chunkDiffers;
}

// One thread's part. The first one to come takes the handle that there is; a thread that gets none leaves its part to
// the others.
static void CompareChunks(CompareRun &run, Progress &progress)
{
    host::Source own;
    const bool takesFirst = !run.isSourceTaken.exchange(true);
    if (!takesFirst && OpenSource(run.common, run.options, &own)) {
        return;
    }
    const host::Source &source = takesFirst ? run.source : own;
    const ImageHeader &header = run.image.facts.header;
    const size_t bufferBytes = std::clamp<size_t>(header.chunkSize, 4096, reader::largestBuffer);
    const host::Pages buffer = host::MakePages(bufferBytes);
    for (uint64_t chunk = run.next++; chunk < run.states.size(); chunk = run.next++) {
        run.states[chunk] = CompareChunk(run, source, buffer.get(), bufferBytes, chunk);
        progress.Add(reader::LengthOfChunk(header, chunk));
    }
}

static uint64_t CountStates(const CompareRun &run, ChunkState state)
{
    return static_cast<uint64_t>(std::count(run.states.begin(), run.states.end(), state));
}

static uint64_t ComparedBytes(const CompareRun &run)
{
    const ImageHeader &header = run.image.facts.header;
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < run.states.size(); ++i) {
        const bool isRead = run.states[i] == chunkEqual || run.states[i] == chunkDiffers;
        bytes += isRead && reader::LiesOnDisk(header, i) ? reader::LengthOfChunk(header, i) : 0;
    }
    return bytes;
}

static const char *StateName(uint8_t state)
{
    static const char *const names[] = {nullptr, "differs", "unreadable", "missing"};
    return names[state];
}

static void ReportSums(JsonOutput &output, const CompareRun &run)
{
    const uint64_t differing = CountStates(run, chunkDiffers) + CountStates(run, chunkMissing);
    const uint64_t unreadable = CountStates(run, chunkUnreadable);
    const uint64_t diskBytes = run.image.facts.header.diskSize;
    const uint64_t behind = run.source.sizeBytes - std::min(run.source.sizeBytes, diskBytes);
    const uint64_t unknown = reader::UncoveredBytes(run.image.facts.header);
    const uint64_t compared = ComparedBytes(run);
    const bool isEqual = differing == 0 && unknown == 0;
    output.Member("result", unreadable != 0 ? "unreadable" : isEqual ? "equal" : "different");
    output.Member("diskBytes", diskBytes);
    output.Member("comparedBytes", compared);
    output.Member("bytesBehind", behind);
    if (output.wanted) {
        return;
    }
    const std::string name = SourceName(run.options);
    if (isEqual && unreadable == 0) {
        PrintLine(name + ": equal to " + run.options.image + ": " + SizeText(compared) + " compared");
    } else {
        PrintLine(name + ": DIFFERENT from " + run.options.image + ": " + Counted(differing, "chunk") + " of " +
                  std::to_string(run.states.size()) +
                  (unreadable == 0 ? "" : "; " + Counted(unreadable, "chunk") + " can't be read: " + run.systemSays));
    }
    if (unknown != 0) {
        PrintLine("  the image has no chunks for " + Counted(unknown, "byte") + " of its disk");
    }
    if (behind != 0) {
        PrintLine("  it has " + Counted(behind, "byte") + " more, which the image says nothing of");
    }
}

static int ReportComparison(JsonOutput &output, const CompareRun &run)
{
    const ImageHeader &header = run.image.facts.header;
    ReportSums(output, run);
    output.BeginList("ranges");
    RangeReport ranges(output, true);
    for (uint64_t i = 0; i < run.states.size(); ++i) {
        ranges.Add(i * header.chunkSize, reader::LengthOfChunk(header, i), StateName(run.states[i]));
    }
    if (reader::UncoveredBytes(run.image.facts.header) != 0) {
        ranges.Add(reader::CoveredBytes(header), reader::UncoveredBytes(run.image.facts.header), "notInImage");
    }
    ranges.Finish();
    output.End();
    if (CountStates(run, chunkUnreadable) != 0) {
        return exitImpossible;
    }
    return CountStates(run, chunkEqual) == run.states.size() && reader::UncoveredBytes(run.image.facts.header) == 0 ? exitGood : exitFound;
}

static int ReportFault(JsonOutput &output, const reader::Fault &fault)
{
    output.Member("result", "impossible");
    output.Member("fault", fault.text);
    if (!output.wanted) {
        PrintFault(fault.text);
    }
    return StatusOf(fault);
}

int Compare(const CommonOptions &common, const CompareOptions &options)
{
    JsonOutput output(common.json);
    output.Member("image", options.image);
    output.Member("with", SourceName(options));
    reader::Result<reader::ImageFile> image = reader::OpenImageFile(options.image, common.caching, true);
    if (!image) {
        return ReportFault(output, image.fault);
    }
    CompareRun run = {common, options, *image, {}};
    if (const host::Trouble trouble = OpenSource(common, options, &run.source)) {
        return ReportFault(output,
                           {reader::FaultKind::Unavailable, SourceName(options) + ": it can't be opened: " + *trouble});
    }
    run.states.resize(image->table.size());
    Progress progress(common, SourceName(options), image->facts.header.diskSize);
    const std::optional<reader::Fault> fault = reader::OnThreads(common.threads, [&] { CompareChunks(run, progress); });
    progress.Hide();
    return fault ? ReportFault(output, *fault) : ReportComparison(output, run);
}
