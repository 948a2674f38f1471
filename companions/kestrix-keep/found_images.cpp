// Header, table and trailer of each file, its sidecar, and the same of what it stands on. A sidecar counts as long as
// it tells of the file that lies there.
#include "kestrix-keep/found_images.h"

#include "kestrix-keep/clock.h"
#include "kestrix-keep/job_folder.h"

#include <algorithm>

using reader::FileKind;
using reader::ImageFacts;

static const ImageFacts &FactsOf(const std::string &path, KnownFiles &known)
{
    const auto found = known.find(path);
    return found != known.end() ? found->second
                                : known.emplace(path, reader::ReadImageFacts(path, false)).first->second;
}

// ---- Sidecars ----

static std::optional<Sidecar> SidecarOf(const std::string &path, const ImageFacts &facts, std::string *doubt)
{
    const std::string sidecarPath = SidecarPath(path);
    if (host::NameIsFree(sidecarPath)) {
        *doubt = "it has no sidecar";
        return std::nullopt;
    }
    reader::Result<Sidecar> sidecar = ReadSidecar(sidecarPath);
    if (!sidecar) {
        *doubt = sidecar.fault.text;
        return std::nullopt;
    }
    const std::string base = facts.trailer ? facts.trailer->baseName.c_str() : "";
    if (sidecar->identity != IdText(facts.id) || sidecar->fileBytes != facts.fileBytes || sidecar->base != base) {
        *doubt = sidecarPath + ": it tells of another image, and does not count";
        return std::nullopt;
    }
    return std::move(*sidecar);
}

// 0 where it is not known, or damage is, or it could not be read since.
static int64_t ProvedAt(const std::optional<Sidecar> &sidecar)
{
    return sidecar && sidecar->isSound && sidecar->unread.empty() ? sidecar->provedAt : 0;
}

// ---- What it stands on ----

static ChainPart JudgePart(const std::string &name, const ImageFacts &facts, const ImageFacts &base)
{
    if (base.hasTable && base.id != facts.trailer->basePin) {
        return {name, PartState::Replaced, {}};
    }
    const std::string why = WhyNotRestorable(base, {});
    return why.empty() ? ChainPart{name, PartState::There, {}} : ChainPart{name, PartState::Faulty, why};
}

static void FollowChain(FoundImage &image, KnownFiles &known)
{
    std::string path = image.path;
    const ImageFacts *facts = &image.facts;
    while (facts->kind == FileKind::Image && facts->trailer) {
        const std::string name = facts->trailer->baseName.c_str();
        if (image.needs.size() + 1 == reader::mostImages) {
            image.needs.push_back({name, PartState::Faulty, "the chain is too long"});
            return;
        }
        const host::BasePlace place = host::FindBase(path, name);
        if (!place.exists) {
            image.needs.push_back({name, PartState::Missing, {}});
            return;
        }
        const ImageFacts &base = FactsOf(place.path, known);
        image.needs.push_back(JudgePart(name, *facts, base));
        if (image.needs.back().state != PartState::There) {
            return;
        }
        std::string doubt;
        const int64_t provedAt = ProvedAt(SidecarOf(place.path, base, &doubt));
        image.provedAt = std::min(image.provedAt, provedAt);
        image.isSealed = image.isSealed || reader::IsSealed(base.header);
        image.files.push_back(place.path);
        path = place.path;
        facts = &base;
    }
}

// ---- Images ----

FoundImage LookAtImage(const std::string &path, KnownFiles &known)
{
    FoundImage image;
    image.path = path;
    image.files = {path};
    image.facts = FactsOf(path, known);
    if (image.facts.kind == FileKind::Image) {
        image.isSealed = reader::IsSealed(image.facts.header);
        image.sidecar = SidecarOf(path, image.facts, &image.sidecarDoubt);
        image.provedAt = ProvedAt(image.sidecar);
        FollowChain(image, known);
    }
    image.whyNot = WhyNotRestorable(image.facts, image.needs);
    return image;
}

host::Trouble FindImages(const std::string &folder, const std::string &passwordFile, std::vector<FoundImage> *images)
{
    std::vector<std::string> names;
    if (host::Trouble trouble = host::ListFiles(folder, &names)) {
        return trouble;
    }
    KnownFiles known;
    const size_t before = images->size();
    const std::string separator = host::NameOf(folder).empty() ? "" : "/";
    for (const std::string &name : names) {
        FoundImage image = LookAtImage(folder + separator + name, known);
        const bool isMeant = !WithoutEnding(name, ".kstx").empty(); // of a file that begins as no image does
        const FileKind kind = image.facts.kind;
        if (kind == FileKind::Image || kind == FileKind::Damaged || (isMeant && kind != FileKind::Other)) {
            image.passwordFile = passwordFile;
            images->push_back(std::move(image));
        }
    }
    const auto timeOf = [](const FoundImage &image) { return image.sidecar ? image.sidecar->startedAt : INT64_MIN; };
    std::stable_sort(images->begin() + static_cast<ptrdiff_t>(before), images->end(),
                     [&](const FoundImage &left, const FoundImage &right) { return timeOf(left) > timeOf(right); });
    return {};
}

// ---- Words ----

static std::string SourceText(const FoundImage &image)
{
    if (!image.sidecar) {
        return "which disk it was, and when, is not known: " + image.sidecarDoubt;
    }
    const DiskIdentity &disk = image.sidecar->disk;
    return "of " + (disk.model.empty() ? "a disk" : disk.model) +
           (disk.serial.empty() ? " without a serial" : ", serial " + disk.serial) +
           (image.sidecar->machine.empty() ? "" : ", in " + image.sidecar->machine) + "; made " +
           image.sidecar->startedLocal;
}

static std::string SizeLine(const FoundImage &image)
{
    const ImageHeader &header = image.facts.header;
    return "a disk of " + SizeText(header.diskSize) + " (" + std::to_string(header.diskSize) + " bytes), sectors of " +
           Counted(header.sectorSize, "byte") + "; the file has " + SizeText(image.facts.fileBytes) +
           (image.isSealed ? "; sealed, a password is needed" : "");
}

static std::string PartText(const ChainPart &part)
{
    static const char *const states[] = {"there", "MISSING", "ANOTHER IMAGE", "UNUSABLE"};
    return part.name + " (" + states[static_cast<size_t>(part.state)] + ")";
}

static std::string NeedsLine(const FoundImage &image)
{
    constexpr size_t mostNamed = 4;
    std::string line;
    for (size_t i = 0; i < image.needs.size(); ++i) { // only the last one can be other than there
        const bool isNamed = i + 1 < mostNamed || i + 1 == image.needs.size();
        line += isNamed ? (line.empty() ? "" : ", ") + PartText(image.needs[i]) : i + 1 == mostNamed ? ", ..." : "";
    }
    return "stands on " + Counted(image.needs.size(), "image") + ": " + line;
}

static std::string ProvedLine(const FoundImage &image)
{
    if (image.sidecar && !image.sidecar->isSound) {
        return "the last audit found it DAMAGED: " + image.sidecar->damage;
    }
    if (image.sidecar && !image.sidecar->unread.empty()) {
        return "the last audit could NOT READ all of it: " + image.sidecar->unread;
    }
    return image.provedAt == 0 ? "when all of it was last read and found sound is not known"
                               : "all of it was read and found sound by " + LocalTimeText(image.provedAt);
}

std::vector<std::string> ImageCard(const FoundImage &image)
{
    std::vector<std::string> lines = {image.path};
    if (image.facts.kind == FileKind::Image) {
        lines.push_back("  " + SourceText(image));
        lines.push_back("  " + SizeLine(image));
        if (!image.needs.empty()) {
            lines.push_back("  " + NeedsLine(image));
        }
        lines.push_back("  " + ProvedLine(image));
        if (image.sidecar) {
            for (const std::string &note : image.sidecar->notes) {
                lines.push_back("  " + note);
            }
        }
    }
    if (!image.whyNot.empty()) {
        lines.push_back("  CAN'T BE RESTORED: " + image.whyNot);
    }
    return lines;
}

Json JsonOf(const FoundImage &image)
{
    Json needs = Json::array();
    for (const ChainPart &part : image.needs) {
        needs.push_back(part.name);
    }
    return {{"path", image.path},
            {"diskBytes", uint64_t{image.facts.header.diskSize}},
            {"sectorBytes", uint32_t{image.facts.header.sectorSize}},
            {"sealed", image.isSealed},
            {"needs", needs},
            {"madeAt", image.sidecar ? Json(image.sidecar->startedLocal) : Json(nullptr)},
            {"sourceDisk", image.sidecar ? JsonOf(image.sidecar->disk) : Json(nullptr)}};
}
