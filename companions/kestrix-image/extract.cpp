// extract: the disk of an image as a raw file, with holes where the disk has zeros.
//
// The steps: open the chain and all that the command line names, so that no work is done for nothing; read and check
// every chunk and write what is not zero, look for twins of the bad ones, write the map, give the files their names.
// Only checked bytes stay in the file. Without --keep-going a chunk that stays bad ends it, and nothing is left behind.
// With it, or with twins, a chain that can't be opened to its end serves as far as it goes.
#include "kestrix-image/bad_chunks.h"
#include "kestrix-image/map.h"
#include "kestrix-image/status.h"
#include "kestrix-image/twins.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <utility>

using reader::Chain;

static constexpr size_t blockBytes = 4096; // what is all zeros of that becomes a hole

static bool IsZeros(const uint8_t *bytes, size_t byteCount)
{
    return byteCount == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, byteCount - 1) == 0);
}

// Writes the blocks that are not all zeros, neighbours in one go.
static host::Trouble WriteSparse(const host::NewFile &file, uint64_t offset, const uint8_t *bytes, size_t byteCount)
{
    for (size_t begin = 0; begin < byteCount;) {
        size_t end = begin;
        while (end < byteCount && !IsZeros(bytes + end, std::min(blockBytes, byteCount - end))) {
            end = std::min(end + blockBytes, byteCount);
        }
        if (end != begin) {
            if (host::Trouble trouble = host::WriteAt(file, offset + begin, bytes + begin, end - begin)) {
                return trouble;
            }
        }
        begin = std::min(end + blockBytes, byteCount);
    }
    return {};
}

struct ExtractRun {
    ExtractRun(const CommonOptions &commonOptions, const ExtractOptions &extractOptions, const Chain &chainToExtract)
        : common(commonOptions), options(extractOptions), chain(chainToExtract), verdicts(chainToExtract.ChunkCount())
    {
    }

    const CommonOptions &common;
    const ExtractOptions &options;
    const Chain &chain;
    host::NewFile out;
    host::NewFile map;
    TwinPlaces twinPlaces;
    reader::Verdicts verdicts;
    std::mutex mutex;
    host::Trouble writeTrouble; // the first one
    std::atomic<bool> isOver = false;
};

static void KeepTrouble(ExtractRun &run, const host::Trouble &trouble)
{
    const std::lock_guard<std::mutex> lock(run.mutex);
    run.writeTrouble = run.writeTrouble ? run.writeTrouble : trouble;
    run.isOver = true;
}

static bool WritePiece(ExtractRun &run, uint64_t offset, const uint8_t *piece, size_t byteCount)
{
    const host::Trouble trouble = WriteSparse(run.out, offset, piece, byteCount);
    if (trouble) {
        KeepTrouble(run, trouble);
    }
    return !trouble;
}

// Takes back what was written of a chunk that is larger than a buffer, and was another when it was read again for that.
static void Blank(ExtractRun &run, uint64_t offset, uint64_t byteCount)
{
    static constexpr std::array<uint8_t, size_t{1} << 16> zeros = {};
    while (byteCount != 0) {
        const size_t piece = std::min<uint64_t>(zeros.size(), byteCount);
        if (const host::Trouble trouble = host::WriteAt(run.out, offset, zeros.data(), piece)) {
            KeepTrouble(run, trouble);
            return;
        }
        offset += piece;
        byteCount -= piece;
    }
}

static std::optional<reader::ChunkFault> ExtractChunk(ExtractRun &run, reader::ChunkReader &reader, uint64_t chunk)
{
    const uint64_t begin = chunk * run.chain.Header().chunkSize;
    uint64_t offset = begin;
    std::optional<reader::ChunkFault> fault = reader.Read(chunk, [&](const uint8_t *piece, size_t byteCount) {
        const bool written = WritePiece(run, offset, piece, byteCount);
        offset += byteCount;
        return written;
    });
    if (fault) {
        Blank(run, begin, offset - begin);
    }
    return fault;
}

static bool HasTwinPlaces(const ExtractOptions &options)
{
    return !options.twins.empty() || options.twinDisk;
}

// Whether a bad chunk is not yet the end.
static bool GoesOn(const ExtractOptions &options)
{
    return options.keepGoing || HasTwinPlaces(options);
}

static std::optional<reader::Fault> ExtractChunks(ExtractRun &run)
{
    reader::ChunkFeeder feeder(run.chain);
    Progress progress(!run.common.quiet, run.options.image, BytesToRead(run.chain, std::nullopt));
    const bool goesOn = GoesOn(run.options);
    return ReadChunks(run.common.threads, feeder, run.verdicts,
                      [&](reader::ChunkReader &reader, uint64_t chunk) {
                          std::optional<reader::ChunkFault> fault = ExtractChunk(run, reader, chunk);
                          if (fault && !goesOn) {
                              run.isOver = true;
                          }
                          return fault;
                      },
                      {[&progress](uint64_t bytes) { progress.Add(bytes); }, [&run] { return !run.isOver; }});
}

static void MakeGood(ExtractRun &run, std::vector<LostChunk> &lost, std::vector<std::string> &notes)
{
    const uint64_t chunkSize = run.chain.Header().chunkSize;
    uint64_t begin = 0; // on the disk: where the chunk begins that was taken last, and how much of it was
    uint64_t taken = 0;
    const auto take = [&](uint64_t chunk, uint64_t offset, const uint8_t *piece, size_t byteCount) {
        if (offset == 0) {
            begin = chunk * chunkSize;
            taken = 0;
        }
        taken += byteCount;
        return WritePiece(run, begin + offset, piece, byteCount);
    };
    for (const reader::ImageFile &image : run.chain.images) {
        run.twinPlaces.known.push_back(image.facts.identity);
    }
    FindTwins(run.common, run.chain, run.twinPlaces, lost, notes,
              {take, [&] { Blank(run, begin, taken); }, [&run] { return !run.isOver; }});
    for (const LostChunk &chunk : lost) {
        if (chunk.isFound) {
            run.verdicts.Clear(chunk.chunk);
        }
    }
}

static std::string MakeMap(const ExtractRun &run)
{
    const Chain &chain = run.chain;
    MapText map;
    for (uint64_t i = 0; i < chain.ChunkCount() && reader::LiesOnDisk(chain.Header(), i); ++i) {
        map.Add(reader::LengthOfChunk(chain.Header(), i), run.verdicts.FaultOf(i) == nullptr ? '+' : '?');
    }
    if (map.endBytes < chain.Header().diskSize) {
        map.Add(chain.Header().diskSize - map.endBytes, '/'); // the image has no chunks for the rest
    }
    return map.Finish();
}

static reader::Fault OutFault(const ExtractRun &run, const host::Trouble &trouble)
{
    return {reader::FaultKind::Unavailable, run.options.out + ": it can't be written: " + *trouble};
}

static reader::Fault MapFault(const ExtractRun &run, const host::Trouble &trouble)
{
    return {reader::FaultKind::Unavailable, run.options.map + ": the map can't be written: " + *trouble};
}

// Begins all that the command line names.
static std::optional<reader::Fault> BeginFiles(ExtractRun &run)
{
    // Before there are files of its own in the folder.
    if (std::optional<reader::Fault> fault =
            OpenTwinPlaces(run.common, run.options.twins, run.options.twinDisk, &run.twinPlaces)) {
        return fault;
    }
    host::Trouble trouble = host::CreateNewFile(run.options.out, host::Existing::IsTrouble, &run.out);
    if (!trouble) {
        trouble = host::SetLength(run.out, run.chain.Header().diskSize);
    }
    if (trouble) {
        return OutFault(run, trouble);
    }
    if (!run.options.map.empty()) {
        trouble = host::CreateNewFile(run.options.map, host::Existing::IsTrouble, &run.map);
    }
    return trouble ? std::optional<reader::Fault>(MapFault(run, trouble)) : std::nullopt;
}

// A map without its disk looks like the end of a run: it gets its name when the disk has nothing left to wait for.
static std::optional<reader::Fault> FinishFiles(ExtractRun &run)
{
    if (!run.options.map.empty()) {
        if (const host::Trouble trouble = host::FlushNewFile(run.out)) {
            return OutFault(run, trouble);
        }
        const std::string text = MakeMap(run);
        host::Trouble trouble = host::WriteAt(run.map, 0, text.data(), text.size());
        trouble = trouble ? trouble : host::FinishNewFile(&run.map);
        if (trouble) {
            return MapFault(run, trouble);
        }
    }
    const host::Trouble trouble = host::FinishNewFile(&run.out);
    if (trouble && !run.options.map.empty()) {
        host::RemoveFinishedFile(run.map);
    }
    return trouble ? std::optional<reader::Fault>(OutFault(run, trouble)) : std::nullopt;
}

// All that can fail for another reason than a bad chunk.
static std::optional<reader::Fault> RunExtract(ExtractRun &run, std::vector<LostChunk> &lost,
                                               std::vector<std::string> &notes)
{
    std::optional<reader::Fault> fault = BeginFiles(run);
    if (!fault) {
        fault = ExtractChunks(run);
    }
    if (LooksLikeAnotherPassword(run.verdicts)) {
        AddSentence(notes, anotherPasswordText);
    }
    if (!fault && !run.writeTrouble && HasTwinPlaces(run.options)) {
        lost = LostChunks(run.chain, run.verdicts);
        lost.erase(std::remove_if(
                       lost.begin(), lost.end(),
                       [&run](const LostChunk &chunk) { return !reader::LiesOnDisk(run.chain.Header(), chunk.chunk); }),
                   lost.end());
        MakeGood(run, lost, notes);
    }
    if (!fault && run.writeTrouble) {
        fault = OutFault(run, run.writeTrouble);
    }
    if (!fault && !run.options.keepGoing) { // else what was got from a medium that is gone is worth its file
        fault = GoneMedium(run.chain, run.verdicts);
    }
    if (!fault && (run.verdicts.CountBad() == 0 || run.options.keepGoing)) {
        fault = FinishFiles(run);
    }
    return fault;
}

static std::string MissingText(const ExtractRun &run)
{
    const uint64_t bad = run.verdicts.CountBad();
    const uint64_t unknown = reader::UncoveredBytes(run.chain.Header());
    const std::string chunks = bad == 0 ? "" : Counted(bad, "chunk");
    const std::string rest = unknown == 0 ? "" : Counted(unknown, "byte") + " that the image has no chunks for";
    return chunks + (bad != 0 && unknown != 0 ? " and " : "") + rest;
}

static int Report(JsonOutput &output, const ExtractRun &run, const std::vector<LostChunk> &lost,
                  const std::vector<std::string> &notes)
{
    const ImageHeader &header = run.chain.Header();
    const bool isWhole = run.verdicts.CountBad() == 0 && reader::UncoveredBytes(header) == 0;
    const bool isWritten = isWhole || run.options.keepGoing;
    output.Member("result", isWhole ? "whole" : isWritten ? "holes" : "nothing");
    output.Member("diskBytes", uint64_t{header.diskSize});
    output.Member("bytesWithoutChunks", reader::UncoveredBytes(header));
    if (!output.wanted) {
        PrintLine(run.options.image + (isWhole     ? ": the whole disk is in " + run.options.out
                                       : isWritten ? ": " + MissingText(run) + " MISSING from " + run.options.out +
                                                         "; what is missing stands in " + run.options.map
                                                   : ": DAMAGED: nothing was written"));
    }
    output.BeginList("badChunks");
    ReportBadChunks(output, run.chain, run.verdicts);
    output.End();
    output.BeginList("twins");
    ReportTwins(output, run.twinPlaces, lost);
    output.End();
    output.Member("notes", notes);
    for (const std::string &note : notes) {
        if (!output.wanted) {
            PrintLine("  note: " + note);
        }
    }
    return isWhole ? exitGood : exitFound;
}

int Extract(const CommonOptions &common, const ExtractOptions &options)
{
    JsonOutput output(common.json);
    output.Member("image", options.image);
    output.Member("out", options.out);
    reader::Result<Chain> chain = reader::OpenChain(
        options.image, {common.passwordFile, common.caching, common.threads, false, true, GoesOn(options)});
    if (!chain) {
        return ReportFault(output, "nothing", chain.fault);
    }
    if (const uint64_t unknown = reader::UncoveredBytes(chain->Header()); unknown != 0 && !options.keepGoing) {
        return ReportFault(output, "nothing",
                           {reader::FaultKind::Damaged, options.image + ": it has no chunks for the last " +
                                                            Counted(unknown, "byte") + " of its disk"});
    }
    ExtractRun run(common, options, *chain);
    std::vector<LostChunk> lost;
    std::vector<std::string> notes;
    if (chain->endsBy) {
        AddSentence(notes, chain->endsBy->text);
    }
    if (const std::optional<reader::Fault> fault = RunExtract(run, lost, notes)) {
        return ReportFault(output, "nothing", *fault);
    }
    return Report(output, run, lost, notes);
}
