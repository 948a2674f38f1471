// diff: where the disks of two images differ, from their tables alone, and how large a thin image of the one on the
// other would be.
#include "kestrix-image/ranges.h"
#include "kestrix-image/status.h"
#include "reader/reader.h"
#include "report/report.h"

#include <algorithm>
#include <cstring>

using reader::ImageFile;

static bool IsSameChunk(const ImageFile &a, const ImageFile &b, uint64_t i)
{
    return i < a.table.size() && i < b.table.size() &&
           reader::LengthOfChunk(a.facts.header, i) == reader::LengthOfChunk(b.facts.header, i) &&
           memcmp(a.table[i].hash, b.table[i].hash, digestBytes) == 0;
}

static uint64_t LengthInEither(const ImageFile &a, const ImageFile &b, uint64_t i)
{
    const uint64_t lengthInA = i < a.table.size() ? reader::LengthOfChunk(a.facts.header, i) : 0;
    const uint64_t lengthInB = i < b.table.size() ? reader::LengthOfChunk(b.facts.header, i) : 0;
    return std::max(lengthInA, lengthInB);
}

// Bytes from the start of the disk on for which either of the two has chunks, and bytes of the larger disk.
static uint64_t CoveredInEither(const ImageFile &a, const ImageFile &b)
{
    return std::max(reader::CoveredBytes(a.facts.header), reader::CoveredBytes(b.facts.header));
}

static uint64_t LargerDisk(const ImageFile &a, const ImageFile &b)
{
    return std::max(uint64_t{a.facts.header.diskSize}, uint64_t{b.facts.header.diskSize});
}

// Why a thin image of the one can't stand on the other; empty if it can, as far as the two tell.
static std::string WhyNotOnTheOther(const ImageFile &a, const ImageFile &b)
{
    const ImageHeader &left = a.facts.header;
    const ImageHeader &right = b.facts.header;
    if (left.diskSize != right.diskSize || a.table.size() != b.table.size()) {
        return "their disks are not of one size";
    }
    if (left.sectorSize != right.sectorSize) {
        return "their disks have sectors of " + std::to_string(left.sectorSize) + " and of " +
               std::to_string(right.sectorSize) + " bytes";
    }
    return {};
}

static int ReportDifference(JsonOutput &output, const ImageFile &a, const ImageFile &b)
{
    const ImageHeader &header = b.facts.header;
    const uint64_t chunkCount = std::max(a.table.size(), b.table.size());
    const std::string whyNot = WhyNotOnTheOther(a, b);
    const bool canStand = whyNot.empty();
    uint64_t chunks = 0;
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < chunkCount; ++i) {
        if (!IsSameChunk(a, b, i)) {
            ++chunks;
            bytes += LengthInEither(a, b, i);
        }
    }
    const uint64_t thinBytes =
        reader::StartOfData(b.table.size()) + bytes + trailerOverhead + host::NameOf(a.facts.path).size();
    const uint64_t covered = CoveredInEither(a, b);
    const uint64_t unknown = LargerDisk(a, b) - covered;
    const bool isEqual = chunks == 0 && canStand && unknown == 0;
    output.Member("result", isEqual ? "equal" : "different");
    output.Member("differentChunks", chunks);
    output.Member("differentBytes", bytes);
    output.Member("bytesWithoutChunks", unknown);
    output.Member("thinBytes", canStand ? Json(thinBytes) : Json(nullptr));
    if (!output.wanted) {
        PrintLine(isEqual ? "The two disks are equal"
                          : "The two disks are DIFFERENT in " + Counted(chunks, "chunk") + ", " + SizeText(bytes));
        if (unknown != 0) {
            PrintLine("  neither image has chunks for the last " + Counted(unknown, "byte") + " of the disk");
        }
        PrintLine(canStand ? "  a thin image of " + b.facts.path + " on " + a.facts.path + " would have " +
                                 SizeText(thinBytes)
                           : "  neither can stand on the other: " + whyNot);
    }
    output.BeginList("ranges");
    RangeReport ranges(output);
    for (uint64_t i = 0; i < chunkCount; ++i) {
        ranges.Add(i * header.chunkSize, LengthInEither(a, b, i), IsSameChunk(a, b, i) ? nullptr : "differs");
    }
    if (unknown != 0) {
        ranges.Add(covered, unknown, "notInImage");
    }
    ranges.Finish();
    output.End();
    return isEqual ? exitGood : exitFound;
}

int Diff(const CommonOptions &common, const std::string &imageA, const std::string &imageB)
{
    JsonOutput output(common.json);
    output.Member("a", imageA);
    output.Member("b", imageB);
    reader::Result<ImageFile> a = reader::OpenImageFile(imageA, host::Caching::Cached, true);
    if (!a) {
        return ReportFault(output, "impossible", a.fault);
    }
    reader::Result<ImageFile> b = reader::OpenImageFile(imageB, host::Caching::Cached, true);
    if (!b) {
        return ReportFault(output, "impossible", b.fault);
    }
    if (a->facts.header.chunkSize != b->facts.header.chunkSize) {
        return ReportFault(
            output, "impossible",
            {reader::FaultKind::Unavailable,
             imageA + " and " + imageB + " are cut into chunks of different sizes: their tables " + "don't compare"});
    }
    return ReportDifference(output, *a, *b);
}
