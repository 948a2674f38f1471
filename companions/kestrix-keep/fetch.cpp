// By the sidecars first, then file by file under another name.
#include "kestrix-keep/fetch.h"

#include "kestrix-keep/audit.h"
#include "report/report.h"

#include <algorithm>

using reader::Fault;
using reader::FaultKind;
using MaybeFault = std::optional<Fault>;

static const char endingOfFetches[] = ".fetching";

// ---- What is there ----

static void TakeChain(const JobFolder &folder, size_t index, FoundImage &image)
{
    image.provedAt = INT64_MAX;
    for (const size_t i : ChainOf(folder, index)) {
        const KeptImage &part = folder.images[i];
        if (i != index) {
            image.needs.push_back({part.name, PartState::There, {}});
        }
        image.isSealed = image.isSealed || part.sidecar->isSealed;
        image.provedAt = std::min(image.provedAt, part.sidecar->provedAt);
        image.files.push_back(folder.path + "/" + part.name);
        image.toFetch.insert(image.toFetch.begin(), {part.name, *part.sidecar});
    }
}

static FoundImage RemoteImage(const JobFolder &folder, size_t index)
{
    const KeptImage &kept = folder.images[index];
    FoundImage image;
    image.path = folder.path + "/" + kept.name;
    image.place = folder.path;
    image.sidecar = kept.sidecar;
    if (kept.sidecar) {
        image.facts.kind = reader::FileKind::Image;
        image.facts.header.diskSize = kept.sidecar->disk.sizeBytes;
        image.facts.header.sectorSize = kept.sidecar->disk.sectorBytes;
        image.facts.fileBytes = kept.sidecar->fileBytes;
        image.isSealed = kept.sidecar->isSealed;
    }
    if (IsSound(kept)) {
        TakeChain(folder, index, image);
    } else {
        image.whyNot = kept.doubt;
    }
    return image;
}

MaybeFault FindRemoteImages(const Place &place, const std::string &passwordFile, std::vector<FoundImage> *images)
{
    reader::Result<std::vector<JobFolder>> folders = ReadPlace(place, {});
    if (!folders) {
        return folders.fault;
    }
    for (const JobFolder &folder : *folders) {
        for (size_t i = folder.images.size(); i-- > 0;) {
            images->push_back(RemoteImage(folder, i));
            images->back().passwordFile = passwordFile;
        }
    }
    return std::nullopt;
}

// ---- What has to be fetched ----

// What has the name already is either what would be fetched, or not to be touched.
static MaybeFault JudgeFileThere(const std::string &path, const ChainFile &file, bool showsProgress)
{
    Progress progress(showsProgress, "reading " + file.name + ", which is there already", file.sidecar.fileBytes);
    reader::Result<FileDigest> digest =
        DigestFile(path, host::Caching::Medium, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    if (!digest) {
        return digest.fault;
    }
    return digest->sha256 == file.sidecar.sha256
               ? std::nullopt
               : MaybeFault(FaultAt(path, "there is a file of this name already, and it is not what would be fetched: "
                                          "its SHA-256 is another. Choose another folder, or move it away"));
}

// A sidecar without its image, as an interrupted fetch leaves it, or one of another image, which is not to be touched.
static MaybeFault JudgeSidecarThere(const std::string &path, const ChainFile &file)
{
    const std::string sidecarPath = SidecarPath(path);
    if (host::NameIsFree(sidecarPath)) {
        return std::nullopt;
    }
    reader::Result<Sidecar> there = ReadSidecar(sidecarPath);
    return there && there->sha256 == file.sidecar.sha256
               ? std::nullopt
               : MaybeFault(FaultAt(sidecarPath, "there is a file of this name already, and it does not tell of what "
                                                 "would be fetched. Choose another folder, or move it away"));
}

static MaybeFault TakePart(const std::string &folder, const ChainFile &file, bool showsProgress, FetchPlan *plan)
{
    const std::string path = folder + "/" + file.name;
    uint64_t left = 0;
    if (!host::LengthOfFile(path + endingOfFetches, &left)) {
        plan->freeBytes += left; // what an earlier fetch left gives way
    }
    ++plan->allFiles;
    if (!host::NameIsFree(path)) {
        return JudgeFileThere(path, file, showsProgress);
    }
    if (MaybeFault fault = JudgeSidecarThere(path, file)) {
        return fault;
    }
    plan->files.push_back(file);
    plan->bytes += file.sidecar.fileBytes;
    return std::nullopt;
}

static MaybeFault LookAtFolder(const std::string &folder, FetchPlan *plan)
{
    host::FileSystemFacts facts;
    if (const host::Trouble trouble = host::FileSystemOf(folder, &facts)) {
        return FaultAt(folder, "it can't be looked at: " + *trouble);
    }
    plan->freeBytes = facts.freeBytes;
    plan->disks = facts.disks;
    return std::nullopt;
}

static MaybeFault CheckRoom(const std::string &folder, const FetchPlan &plan)
{
    constexpr uint64_t forSidecars = uint64_t{1} << 20;
    return plan.bytes == 0 || plan.freeBytes >= plan.bytes + forSidecars
               ? std::nullopt
               : MaybeFault(FaultAt(folder, SizeText(plan.bytes) + " have to be fetched, and there is room for " +
                                                SizeText(plan.freeBytes) + ": choose a folder with more room"));
}

reader::Result<FetchPlan> PlanFetch(const FoundImage &image, const std::string &folder, bool showsProgress)
{
    FetchPlan plan;
    MaybeFault fault = LookAtFolder(folder, &plan);
    for (size_t i = 0; !fault && i < image.toFetch.size(); ++i) {
        fault = TakePart(folder, image.toFetch[i], showsProgress, &plan);
    }
    fault = fault ? fault : CheckRoom(folder, plan);
    return fault ? reader::Result<FetchPlan>(std::move(*fault)) : std::move(plan);
}

// ---- Fetching ----

static MaybeFault Receive(const Place &place, const ChainFile &file, const std::string &path, const OnBytes &onBytes)
{
    const host::InterruptHold hold; // an interrupt ends rclone, and what it leaves is taken away
    return place.fetch(file.name, path, onBytes);
}

static MaybeFault CheckReceived(const Place &place, const ChainFile &file, const std::string &path)
{
    if (const host::Trouble trouble = host::BringToDisk(path)) {
        return FaultAt(path, "it can't be brought to the disk: " + *trouble);
    }
    reader::Result<FileDigest> digest = DigestFile(path, host::Caching::Medium);
    if (!digest) {
        return digest.fault;
    }
    if (digest->bytes == file.sidecar.fileBytes && digest->sha256 == file.sidecar.sha256) {
        return std::nullopt;
    }
    return Fault{FaultKind::Damaged,
                 place.name + "/" + file.name + ": what was fetched is not what was copied there: it has " +
                     Counted(digest->bytes, "byte") + " and the SHA-256 " + digest->sha256 + ", not " +
                     std::to_string(file.sidecar.fileBytes) + " and " + file.sidecar.sha256 +
                     ". Try it once more; if that is so again, the copy is damaged: restore an image that does not "
                     "stand on it, or take it from another place"};
}

static MaybeFault Name(const ChainFile &file, const std::string &temporary, const std::string &path)
{
    if (host::NameIsFree(SidecarPath(path))) {
        if (const host::Trouble trouble = WriteSidecar(SidecarPath(path), file.sidecar)) {
            return FaultAt(SidecarPath(path), "it can't be written: " + *trouble);
        }
    }
    const host::Trouble trouble = host::GiveFinalName(temporary, path);
    return trouble ? MaybeFault(FaultAt(path, "it can't get its name: " + *trouble)) : std::nullopt;
}

MaybeFault LockForFetch(const std::string &folder, host::Lock *lock)
{
    std::string trouble;
    switch (host::TakeLock(LockPath(folder), lock, &trouble)) {
    case host::LockResult::Held:
    case host::LockResult::NoLocks:
        return std::nullopt;
    case host::LockResult::Busy:
        return FaultAt(folder, "another run holds it: wait for its end, or choose another folder");
    case host::LockResult::Failed:
        break;
    }
    return FaultAt(LockPath(folder), trouble);
}

MaybeFault FetchFile(const Place &place, const ChainFile &file, const std::string &folder, const OnBytes &onBytes)
{
    const std::string path = folder + "/" + file.name;
    const std::string temporary = path + endingOfFetches;
    if (const host::Trouble trouble = host::RemoveName(temporary)) {
        return FaultAt(temporary, "what an earlier fetch left can't be removed: " + *trouble);
    }
    MaybeFault fault = Receive(place, file, temporary, onBytes);
    fault = fault ? fault : CheckReceived(place, file, temporary);
    fault = fault ? fault : Name(file, temporary, path);
    if (fault) {
        if (const host::Trouble trouble = host::RemoveName(temporary)) {
            fault->text += "; " + temporary + " can't be removed: " + *trouble;
        }
    }
    return fault;
}
