// check: whether an image gives back its disk.
//
// Every stored chunk that the image depends on is read once, where it lies; references are settled by the tables. What
// kestrix verify does not look at is a finding here too, and named as such: an entry that names another place on the
// disk, bytes that belong to nothing, and a disk that is larger than the chunks of its image.
#include "kestrix-image/bad_chunks.h"
#include "kestrix-image/status.h"

#include <algorithm>

using reader::Chain;
using reader::ChunkCause;
using reader::Verdicts;

static Json ChainJson(const Chain &chain)
{
    Json list = Json::array();
    for (const reader::ImageFile &image : chain.images) {
        list.push_back({{"file", image.facts.path}, {"identity", IdText(image.facts.id)}});
    }
    return list;
}

// Whether kestrix verify would accept what was found.
static bool VerifyAccepts(const Chain &chain, const Verdicts &verdicts)
{
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        const reader::ChunkFault *fault = verdicts.FaultOf(i);
        if (fault != nullptr && fault->cause != ChunkCause::WrongPlace) {
            return false;
        }
    }
    return true;
}

static bool IsSound(const Chain &chain, const Verdicts &verdicts)
{
    const bool hasBytesTooMany =
        std::any_of(chain.images.begin(), chain.images.end(),
                    [](const reader::ImageFile &image) { return image.facts.bytesTooMany != 0; });
    return verdicts.CountBad() == 0 && !hasBytesTooMany && reader::UncoveredBytes(chain.Header()) == 0;
}

static void ReportBytesTooMany(JsonOutput &output, const Chain &chain)
{
    for (const reader::ImageFile &image : chain.images) {
        if (image.facts.bytesTooMany != 0 && output.wanted) {
            output.Item({{"file", image.facts.path}, {"bytes", image.facts.bytesTooMany}});
        } else if (image.facts.bytesTooMany != 0) {
            PrintLine("  " + image.facts.path + ": " + Counted(image.facts.bytesTooMany, "byte") + " too many");
        }
    }
}

// The level that alone is checked, if it is one.
static std::optional<uint8_t> ScopeOf(bool ownOnly)
{
    return ownOnly ? std::optional<uint8_t>(0) : std::nullopt;
}

static void ReportSums(JsonOutput &output, const std::string &path, const Chain &chain, const Verdicts &verdicts,
                       bool ownOnly)
{
    const uint64_t bad = verdicts.CountBad();
    const uint64_t checkedBytes = BytesRead(chain, ScopeOf(ownOnly), verdicts);
    const bool isSound = IsSound(chain, verdicts);
    if (output.wanted) {
        output.Member("verdict", isSound ? "sound" : "damaged");
        output.Member("verify", ownOnly ? Json(nullptr) : Json(VerifyAccepts(chain, verdicts) ? "accepts" : "refuses"));
        output.Member("fault", nullptr);
        output.Member("chain", ChainJson(chain));
        output.Member("chunks", chain.ChunkCount());
        output.Member("checkedBytes", checkedBytes);
        output.Member("bytesWithoutChunks", reader::UncoveredBytes(chain.Header()));
        return;
    }
    std::string line = path + (isSound ? ": sound: " : ": DAMAGED: ");
    line += bad == 0 ? "" : Counted(bad, "bad chunk") + " of " + std::to_string(chain.ChunkCount()) + "; ";
    line += SizeText(checkedBytes) + " checked";
    line += ownOnly ? ", only what it stores itself" : " in " + Counted(chain.images.size(), "file");
    PrintLine(line);
}

static void Advise(const Chain &chain, const Verdicts &verdicts, bool ownOnly)
{
    if (const uint64_t unknown = reader::UncoveredBytes(chain.Header()); unknown != 0) {
        PrintLine("  it has no chunks for the last " + Counted(unknown, "byte") + " of its disk");
    }
    if (!IsSound(chain, verdicts) && !ownOnly && VerifyAccepts(chain, verdicts)) {
        PrintLine("  kestrix verify accepts it: it looks neither at the place in an entry nor at bytes too many or "
                  "missing chunks at the disk's end");
    } else if (LooksLikeAnotherPassword(verdicts)) {
        PrintLine(std::string("  ") + anotherPasswordText);
    }
}

static int ReportNotChecked(JsonOutput &output, const std::string &path, const reader::Fault &fault, bool ownOnly)
{
    const bool isDamaged = fault.kind == reader::FaultKind::Damaged;
    output.Member("verdict", isDamaged ? "damaged" : "impossible");
    output.Member("verify", isDamaged && !ownOnly ? Json("refuses") : Json(nullptr));
    output.Member("fault", fault.text);
    if (!output.wanted && isDamaged) {
        PrintLine(path + ": DAMAGED: it can't be opened with what it stands on");
        PrintLine("  " + fault.text);
    } else if (!output.wanted) {
        PrintFault(fault.text);
    }
    return StatusOf(fault);
}

static int CheckImage(const CommonOptions &common, JsonOutput &output, const std::string &path, bool ownOnly)
{
    reader::Result<Chain> opened =
        reader::OpenChain(path, {common.passwordFile, common.caching, common.threads, ownOnly, ownOnly});
    if (!opened) {
        return ReportNotChecked(output, path, opened.fault, ownOnly);
    }
    const Chain &chain = *opened;
    const std::optional<uint8_t> onlyLevel = ScopeOf(ownOnly);
    Verdicts verdicts(chain.ChunkCount());
    reader::ChunkFeeder feeder(chain, onlyLevel);
    const auto checkOne = [](reader::ChunkReader &reader, uint64_t chunk) { return reader.Read(chunk); };
    Progress progress(!common.quiet, path, BytesToRead(chain, onlyLevel));
    const std::optional<reader::Fault> fault =
        ReadChunks(common.threads, feeder, verdicts, checkOne, {[&progress](uint64_t bytes) { progress.Add(bytes); }});
    progress.Hide();
    if (fault) {
        return ReportNotChecked(output, path, {fault->kind, path + ": " + fault->text}, ownOnly);
    }
    if (const std::optional<reader::Fault> gone = GoneMedium(chain, verdicts)) {
        return ReportNotChecked(output, path, *gone, ownOnly);
    }
    ReportSums(output, path, chain, verdicts, ownOnly);
    output.BeginList("badChunks");
    ReportBadChunks(output, chain, verdicts);
    output.End();
    output.BeginList("bytesTooMany");
    ReportBytesTooMany(output, chain);
    output.End();
    if (!output.wanted) {
        Advise(chain, verdicts, ownOnly);
    }
    return IsSound(chain, verdicts) ? exitGood : exitFound;
}

int Check(const CommonOptions &common, const CheckOptions &options)
{
    JsonOutput output(common.json);
    int status = exitGood;
    output.BeginList("images");
    for (const std::string &path : options.images) {
        output.BeginItem();
        output.Member("image", path);
        output.Member("scope", options.ownOnly ? "own" : "chain");
        status = Worse(status, CheckImage(common, output, path, options.ownOnly));
        output.End();
    }
    return status;
}
