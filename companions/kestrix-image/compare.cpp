// compare: where a disk, or a raw file of one, differs from what an image recorded.
//
// The disk is read once, on all cores; neither the base nor a password is asked for.
#include "reader/compare.h"
#include "kestrix-image/ranges.h"
#include "kestrix-image/status.h"
#include "report/report.h"

#include <algorithm>

using reader::ChunkState;

struct CompareRun {
    const CompareOptions &options;
    const reader::ImageFile &image;
    host::Source source;
    reader::Comparison comparison = {};
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

static uint64_t ComparedBytes(const CompareRun &run)
{
    const ImageHeader &header = run.image.facts.header;
    uint64_t bytes = 0;
    const std::vector<ChunkState> &states = run.comparison.states;
    for (uint64_t i = 0; i < states.size(); ++i) {
        const bool isRead = states[i] == ChunkState::Equal || states[i] == ChunkState::Differs;
        bytes += isRead && reader::LiesOnDisk(header, i) ? reader::LengthOfChunk(header, i) : 0;
    }
    return bytes;
}

static const char *StateName(ChunkState state)
{
    static const char *const names[] = {nullptr, "differs", "unreadable", "missing"};
    return names[static_cast<size_t>(state)];
}

static void ReportSums(JsonOutput &output, const CompareRun &run)
{
    const reader::Comparison &comparison = run.comparison;
    const uint64_t differing = comparison.Count(ChunkState::Differs) + comparison.Count(ChunkState::Missing);
    const uint64_t unreadable = comparison.Count(ChunkState::Unreadable);
    const uint64_t diskBytes = run.image.facts.header.diskSize;
    const uint64_t behind = run.source.sizeBytes - std::min(run.source.sizeBytes, diskBytes);
    const uint64_t unknown = reader::UncoveredBytes(run.image.facts.header);
    const uint64_t compared = ComparedBytes(run);
    const bool isEqual = differing == 0 && unknown == 0;
    output.Member("result", unreadable != 0 ? "unreadable" : isEqual ? "equal" : "different");
    output.Member("says", unreadable != 0 ? Json(comparison.systemSays) : Json(nullptr));
    output.Member("diskBytes", diskBytes);
    output.Member("comparedBytes", compared);
    output.Member("bytesBehind", behind);
    if (output.wanted) {
        return;
    }
    const std::string name = SourceName(run.options);
    const std::string ofAll = " of " + std::to_string(comparison.states.size());
    if (!isEqual) {
        PrintLine(name + ": DIFFERENT from " + run.options.image + ": " + Counted(differing, "chunk") + ofAll);
    } else if (unreadable == 0) {
        PrintLine(name + ": equal to " + run.options.image + ": " + SizeText(compared) + " compared");
    } else {
        PrintLine(name + ": NOT WHOLLY READ: equal to " + run.options.image +
                  " as far as it was: " + SizeText(compared) + " compared");
    }
    if (unreadable != 0) {
        PrintLine("  " + Counted(unreadable, "chunk") + ofAll + " can't be read: " + comparison.systemSays);
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
    RangeReport ranges(output);
    const reader::Comparison &comparison = run.comparison;
    for (uint64_t i = 0; i < comparison.states.size(); ++i) {
        ranges.Add(i * header.chunkSize, reader::LengthOfChunk(header, i), StateName(comparison.states[i]));
    }
    if (reader::UncoveredBytes(run.image.facts.header) != 0) {
        ranges.Add(reader::CoveredBytes(header), reader::UncoveredBytes(run.image.facts.header), "notInImage");
    }
    ranges.Finish();
    output.End();
    if (comparison.Count(ChunkState::Unreadable) != 0) {
        return exitImpossible;
    }
    return comparison.Count(ChunkState::Equal) == comparison.states.size() &&
                   reader::UncoveredBytes(run.image.facts.header) == 0
               ? exitGood
               : exitFound;
}

int Compare(const CommonOptions &common, const CompareOptions &options)
{
    JsonOutput output(common.json);
    output.Member("image", options.image);
    output.Member("with", SourceName(options));
    reader::Result<reader::ImageFile> image = reader::OpenImageFile(options.image, common.caching, true);
    if (!image) {
        return ReportFault(output, "impossible", image.fault);
    }
    CompareRun run = {options, *image, {}};
    if (const host::Trouble trouble = OpenSource(common, options, &run.source)) {
        return ReportFault(output, "impossible",
                           {reader::FaultKind::Unavailable, SourceName(options) + ": it can't be opened: " + *trouble});
    }
    Progress progress(!common.quiet, SourceName(options), image->facts.header.diskSize);
    const auto openAgain = [&](host::Source *again) { return OpenSource(common, options, again); };
    reader::Result<reader::Comparison> comparison = reader::CompareWithDisk(
        *image, {run.source, openAgain}, common.threads, {[&progress](uint64_t bytes) { progress.Add(bytes); }});
    progress.Hide();
    if (!comparison) {
        return ReportFault(output, "impossible", comparison.fault);
    }
    run.comparison = std::move(*comparison);
    return ReportComparison(output, run);
}
