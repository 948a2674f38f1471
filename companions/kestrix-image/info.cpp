// info: what a file says of itself. Neither its base nor a password is asked for.
#include "kestrix-image/status.h"
#include "report/report.h"

#include <cinttypes>
#include <cstdio>

using reader::FileKind;
using reader::ImageFacts;

static Json HeaderJson(const ImageFacts &facts)
{
    const ImageHeader &header = facts.header;
    // Copies: the packed record's fields are not where a reference may point.
    return {{"version", uint32_t{header.version}},        {"kind", reader::IsThin(header) ? "thin" : "full"},
            {"sealed", reader::IsSealed(header)},         {"kdfIterations", uint32_t{header.kdfIterations}},
            {"epoch", reader::TrackerEpoch(header)},      {"diskBytes", uint64_t{header.diskSize}},
            {"sectorBytes", uint32_t{header.sectorSize}}, {"chunkBytes", uint32_t{header.chunkSize}},
            {"chunks", uint64_t{header.chunkCount}}};
}

static void AddTableJson(JsonOutput &output, const ImageFacts &facts)
{
    output.Member("identity", IdText(facts.id));
    output.Member("storedChunks", facts.storedChunks);
    output.Member("referredChunks", facts.referredChunks);
    output.Member("zeroChunks", facts.zeroChunks);
    if (facts.trailer) {
        output.Member("base", Json{{"name", facts.trailer->baseName}, {"pin", IdText(facts.trailer->basePin)}});
    } else {
        output.Member("base", nullptr);
    }
    output.Member("dataBytes", facts.dataEnd - reader::StartOfData(facts.header.chunkCount));
    output.Member("bytesTooMany", facts.bytesTooMany);
    output.Member("bytesMissing", facts.bytesMissing);
}

static const char *KindName(FileKind kind)
{
    switch (kind) {
    case FileKind::Image:
        return "image";
    case FileKind::Unfinished:
        return "unfinished";
    case FileKind::Damaged:
        return "damaged";
    case FileKind::Other:
        return "other";
    case FileKind::Unreadable:
        return "unreadable";
    }
    return "";
}

static void PrintHeader(const ImageFacts &facts)
{
    const ImageHeader &header = facts.header;
    PrintLine(std::string("  ") + (reader::IsThin(header) ? "thin" : "full") + " image, " +
              (reader::IsSealed(header)
                   ? "sealed, " + std::to_string(header.kdfIterations) + " rounds of key derivation"
                   : "plain"));
    PrintLine("  disk: " + SizeText(header.diskSize) + " (" + std::to_string(header.diskSize) + " bytes), sectors of " +
              std::to_string(header.sectorSize) + " bytes");
    PrintLine("  chunks: " + std::to_string(header.chunkCount) + " of " + SizeText(header.chunkSize));
    const uint64_t epoch = reader::TrackerEpoch(header);
    PrintLine("  tracker's epoch: " + (epoch == 0 ? "none" : std::to_string(epoch)));
}

static void PrintTable(const ImageFacts &facts)
{
    const uint64_t dataBytes = facts.dataEnd - reader::StartOfData(facts.header.chunkCount);
    PrintLine("  identity: " + IdText(facts.id));
    PrintLine("  stored: " + Counted(facts.storedChunks, "chunk") + ", " + SizeText(dataBytes) +
              "; left to the base: " + std::to_string(facts.referredChunks) +
              "; all zeros: " + std::to_string(facts.zeroChunks));
    if (facts.trailer) {
        PrintLine("  base: " + facts.trailer->baseName);
        PrintLine("  base's identity: " + IdText(facts.trailer->basePin));
    }
    PrintLine("  file: " + std::to_string(facts.fileBytes) + " bytes, " +
              (facts.bytesMissing != 0   ? std::to_string(facts.bytesMissing) + " MISSING"
               : facts.bytesTooMany != 0 ? std::to_string(facts.bytesTooMany) + " TOO MANY"
                                         : "as the table says"));
}

static int StatusOfFile(const ImageFacts &facts)
{
    if (facts.fault) {
        return StatusOf(*facts.fault);
    }
    return facts.bytesMissing != 0 || facts.bytesTooMany != 0 ? exitFound : exitGood;
}

static void ReportFile(JsonOutput &output, const ImageFacts &facts)
{
    output.Member("file", facts.path);
    output.Member("state", KindName(facts.kind));
    output.Member("fault", facts.fault ? Json(facts.fault->text) : Json(nullptr));
    output.Member("fileBytes", facts.fileBytes);
    if (facts.hasHeader) {
        output.Member("header", HeaderJson(facts));
    }
    if (facts.hasTable) {
        AddTableJson(output, facts);
    }
}

static void PrintFile(const ImageFacts &facts)
{
    PrintLine(facts.path + ":");
    if (facts.hasHeader) {
        PrintHeader(facts);
    }
    if (facts.hasTable) {
        PrintTable(facts);
    }
    if (facts.fault) {
        PrintLine("  " + std::string(facts.kind == FileKind::Damaged ? "DAMAGED: " : "") + facts.fault->text);
    }
}

int Info(const CommonOptions &common, const std::vector<std::string> &images)
{
    JsonOutput output(common.json);
    int status = exitGood;
    output.BeginList("files");
    for (const std::string &path : images) {
        const ImageFacts facts = reader::ReadImageFacts(path, true);
        status = Worse(status, StatusOfFile(facts));
        output.BeginItem();
        ReportFile(output, facts);
        output.End();
        if (!output.wanted && facts.kind == FileKind::Unreadable) {
            PrintFault(facts.fault->text);
        } else if (!output.wanted) {
            PrintFile(facts);
        }
    }
    return status;
}
