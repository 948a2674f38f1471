// Names first, then sidecars, then who stands on whom.
#include "kestrix-keep/job_folder.h"

#include "kestrix-keep/clock.h"

#include <algorithm>
#include <map>

const char endingOfWhatGoes[] = ".let-go";
static const char imageEnding[] = ".kstx";
static const char endingInTheMaking[] = ".in-the-making";

std::string WithoutEnding(const std::string &name, const std::string &ending)
{
    const bool has =
        name.size() > ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
    return has ? name.substr(0, name.size() - ending.size()) : std::string();
}

std::string LockPath(const std::string &folder)
{
    return folder + "/.kestrix-keep.lock";
}

std::string ImageName(const std::string &job, int64_t time)
{
    return job + "-" + StampOf(time) + imageEnding;
}

std::optional<int64_t> TimeOfImageName(const std::string &job, const std::string &name)
{
    const std::string begin = job + "-";
    const std::string stem = WithoutEnding(name, imageEnding);
    return stem.compare(0, begin.size(), begin) == 0 ? TimeOfStamp(stem.substr(begin.size())) : std::nullopt;
}

std::string NameInTheMaking(const std::string &imageName)
{
    return imageName + endingInTheMaking;
}

std::string PathOf(const JobFolder &folder, const KeptImage &image)
{
    return folder.path + "/" + image.name;
}

// ---- What there is ----

// Whether what stands before the ending is a name that this job gives its images.
static bool IsImagesWith(const std::string &job, const std::string &name, const std::string &ending)
{
    return TimeOfImageName(job, WithoutEnding(name, ending)).has_value();
}

std::string NameOfUnfinished(const std::string &name)
{
    const std::string stem = WithoutEnding(name, host::unfinishedEnding);
    const size_t dot = stem.rfind('.');
    return dot == std::string::npos ? std::string() : stem.substr(0, dot);
}

// What runs of this job have begun and not finished: images in the making, and files that got no name.
static bool IsLeftover(const std::string &job, const std::string &name)
{
    const std::string unfinished = NameOfUnfinished(name);
    return IsImagesWith(job, name, endingInTheMaking) || IsImagesWith(job, name, SidecarPath("") + endingOfWhatGoes) ||
           unfinished == job + ".keep.json" || IsImagesWith(job, unfinished, SidecarPath(""));
}

// From the mark on the image is none of the job's any more, though its end is still to come.
static bool IsBeingLetGo(const std::vector<std::string> &names, const std::string &image)
{
    return std::find(names.begin(), names.end(), SidecarPath(image) + endingOfWhatGoes) != names.end();
}

// It has its sidecar before its name, and between the two a run can die: the next one gives it the name.
static bool IsInTheMaking(const std::vector<std::string> &names, const KeptImage &image)
{
    return !image.isThere && std::find(names.begin(), names.end(), NameInTheMaking(image.name)) != names.end();
}

// The image's name, of an image or a sidecar; empty for other files.
static std::string ImageNameOf(const std::string &job, const std::string &name)
{
    const std::string stem = WithoutEnding(name, ".json");
    const std::string image = stem.empty() ? name : stem;
    return TimeOfImageName(job, image) ? image : std::string();
}

void NoteSidecar(const JobFolder &folder, KeptImage &image, std::optional<reader::Result<Sidecar>> sidecar)
{
    if (!sidecar) {
        image.doubt = "it has no sidecar: this job did not make it, or the sidecar was removed";
    } else if (!*sidecar) {
        image.doubt = sidecar->fault.text;
    } else if ((*sidecar)->job != folder.job) {
        image.doubt = "its sidecar names another job, " + (*sidecar)->job;
    } else {
        image.sidecar = std::move(**sidecar);
        image.time = image.sidecar->startedAt;
    }
}

static void ReadOneSidecar(const JobFolder &folder, KeptImage &image)
{
    const std::string path = SidecarPath(PathOf(folder, image));
    const bool isNone = host::NameIsFree(path);
    NoteSidecar(folder, image, isNone ? std::nullopt : std::optional<reader::Result<Sidecar>>(ReadSidecar(path)));
    if (image.sidecar && !IsOfThisMachine(*image.sidecar)) {
        image.otherMachine = image.sidecar->machine;
    }
}

// Whoever put it there, what it stands on must not go.
static void AskFileForBase(const JobFolder &folder, KeptImage &image)
{
    const reader::ImageFacts facts = reader::ReadImageFacts(PathOf(folder, image), false);
    image.isOpaque = facts.kind == reader::FileKind::Damaged || facts.kind == reader::FileKind::Unreadable;
    image.standsOn = facts.trailer ? facts.trailer->baseName.c_str() : "";
}

// Two machines whose jobs have one name would go on with each other's images.
static void NoteOtherMachines(JobFolder &folder)
{
    std::map<std::string, size_t> images;
    for (const KeptImage &image : folder.images) {
        images[image.otherMachine] += image.otherMachine.empty() ? 0 : 1;
    }
    for (const auto &[machine, count] : images) {
        if (!machine.empty()) {
            folder.notes.push_back(folder.path + ": " + Counted(count, "image") + " of this job's name " +
                                   (count == 1 ? "was" : "were") + " made by another machine, " + machine +
                                   "; none of them becomes a base or is let go here. Give each machine a folder of its "
                                   "own; if this one was only renamed, remove them by hand when they are not needed "
                                   "any more");
        }
    }
}

void JudgeLength(KeptImage &image, uint64_t fileBytes)
{
    if (!image.sidecar) {
        return;
    }
    if (fileBytes != image.sidecar->fileBytes) {
        image.doubt = "it has " + Counted(fileBytes, "byte") + ", not the " + std::to_string(image.sidecar->fileBytes) +
                      " that it was made with";
        image.isDamaged = true;
    } else if (!image.sidecar->isSound) {
        image.doubt = image.sidecar->damage;
        image.isDamaged = true;
    } else if (!image.sidecar->unread.empty()) {
        image.doubt = image.sidecar->unread;
    }
}

// What the length and the sidecar alone tell.
static void LookAtFile(const JobFolder &folder, KeptImage &image)
{
    if (!image.isThere) {
        image.isDamaged = image.sidecar.has_value();
        image.doubt =
            image.doubt.empty()
                ? "the image is gone, its sidecar is there: if it was removed on purpose, remove the sidecar too"
                : image.doubt;
        return;
    }
    uint64_t fileBytes = 0;
    if (!image.sidecar) {
        return;
    }
    if (const host::Trouble trouble = host::LengthOfFile(PathOf(folder, image), &fileBytes)) {
        image.doubt = "it can't be looked at: " + *trouble;
    } else {
        JudgeLength(image, fileBytes);
    }
}

// ---- Who stands on whom ----

static size_t IndexOf(const JobFolder &folder, const std::string &name)
{
    const auto found = std::find_if(folder.images.begin(), folder.images.end(),
                                    [&name](const KeptImage &image) { return image.name == name; });
    return found == folder.images.end() ? noImage : static_cast<size_t>(found - folder.images.begin());
}

// Bases are made before what stands on them, so that one pass in that order settles all.
static void LinkImages(JobFolder &folder)
{
    for (KeptImage &image : folder.images) {
        if (!image.sidecar) {
            image.base = image.standsOn.empty() ? noImage : IndexOf(folder, image.standsOn);
            continue;
        }
        if (image.sidecar->base.empty()) {
            image.chainLength = image.isThere ? 1 : 0;
            continue;
        }
        image.base = IndexOf(folder, image.sidecar->base);
        const KeptImage *base = image.base == noImage ? nullptr : &folder.images[image.base];
        const bool isBroken = base == nullptr || base->chainLength == 0 || base->isDamaged;
        if (isBroken && image.doubt.empty()) {
            image.doubt = image.sidecar->base + ", which it stands on, is " +
                          (base == nullptr || !base->isThere ? "gone" : "damaged");
            image.isDamaged = true;
        } else if (!isBroken && !base->doubt.empty() && image.doubt.empty()) {
            image.doubt = base->name + ", which it stands on, can't be counted on: " + base->doubt;
        }
        image.chainLength = isBroken || !image.isThere ? 0 : base->chainLength + 1;
    }
}

void ArrangeImages(JobFolder &folder)
{
    const auto numberOf = [](const KeptImage &image) { return image.sidecar ? image.sidecar->number : 0; };
    std::stable_sort(folder.images.begin(), folder.images.end(),
                     [&](const KeptImage &left, const KeptImage &right) { return numberOf(left) < numberOf(right); });
    LinkImages(folder);
}

reader::Result<JobFolder> ReadJobFolder(const std::string &path, const std::string &job)
{
    JobFolder folder;
    folder.path = path;
    folder.job = job;
    std::vector<std::string> names;
    if (const host::Trouble trouble = host::ListFiles(path, &names)) {
        return reader::Fault{reader::FaultKind::Unavailable, path + ": it can't be listed: " + *trouble};
    }
    reader::Result<JobMemory> memory = ReadMemory(MemoryPath(path, job));
    if (!memory && memory.fault.kind == reader::FaultKind::Unavailable) {
        return memory.fault;
    }
    if (memory) {
        folder.memory = std::move(*memory);
    } else {
        folder.notes.push_back(memory.fault.text + "; it is begun anew");
    }
    std::map<std::string, KeptImage> images;
    for (const std::string &name : names) {
        const std::string imageName = ImageNameOf(job, name);
        if (!imageName.empty()) {
            KeptImage &image = images[imageName];
            image.name = imageName;
            image.time = *TimeOfImageName(job, imageName);
            image.isThere = image.isThere || name == imageName;
        } else if (IsLeftover(job, name)) {
            folder.leftovers.push_back(name);
        }
    }
    for (auto &[name, image] : images) {
        ReadOneSidecar(folder, image);
        LookAtFile(folder, image);
        if ((image.isThere || image.sidecar) && !IsBeingLetGo(names, name) && !IsInTheMaking(names, image)) {
            if (!image.sidecar) {
                AskFileForBase(folder, image);
            }
            folder.images.push_back(std::move(image));
        }
    }
    ArrangeImages(folder);
    NoteOtherMachines(folder);
    return folder;
}

// ---- A closer look ----

std::vector<size_t> ChainOf(const JobFolder &folder, size_t image)
{
    std::vector<size_t> chain;
    while (image != noImage && chain.size() < folder.images.size()) {
        chain.push_back(image);
        image = folder.images[image].base;
    }
    return chain;
}

int64_t TimeOfProof(int64_t then, int64_t now)
{
    return then > now + secondsPerDay ? 0 : then;
}

int64_t FilesProvedAt(const JobFolder &folder, size_t image, int64_t now)
{
    int64_t oldest = now;
    for (const size_t i : ChainOf(folder, image)) {
        const KeptImage &one = folder.images[i];
        oldest = std::min(oldest, TimeOfProof(one.sidecar ? one.sidecar->provedAt : 0, now));
    }
    return oldest;
}

void NoteDamage(JobFolder &folder, size_t image, const std::string &what)
{
    KeptImage &damaged = folder.images[image];
    damaged.doubt = damaged.doubt.empty() ? what : damaged.doubt;
    damaged.isDamaged = true;
    damaged.chainLength = 0;
    LinkImages(folder);
}

void NoteUnread(JobFolder &folder, size_t image, const std::string &what)
{
    KeptImage &file = folder.images[image];
    file.doubt = file.doubt.empty() ? what : file.doubt;
    LinkImages(folder);
}

// Empty if the file's header, table and trailer are those that the sidecar tells of.
static std::string DifferenceOfFile(const reader::ImageFacts &facts, const Sidecar &sidecar)
{
    if (facts.kind != reader::FileKind::Image) {
        return facts.fault ? facts.fault->text : "it is no image";
    }
    const std::string base = facts.trailer ? facts.trailer->baseName.c_str() : std::string();
    const std::string pin = facts.trailer ? IdText(facts.trailer->basePin) : std::string();
    if (IdText(facts.id) != sidecar.identity) {
        return "it is another image than its sidecar tells of";
    }
    return base != sidecar.base || pin != sidecar.baseIdentity ? "it names another base than its sidecar does"
                                                               : std::string();
}

void NoteDifference(JobFolder &folder, size_t image, const reader::ImageFacts &facts)
{
    KeptImage &file = folder.images[image];
    if (!file.sidecar || !file.doubt.empty()) {
        return;
    }
    const std::string difference = DifferenceOfFile(facts, *file.sidecar);
    if (!difference.empty() && facts.kind != reader::FileKind::Unreadable) {
        NoteDamage(folder, image, difference);
    } else if (!difference.empty()) {
        NoteUnread(folder, image, difference);
    }
}

std::vector<size_t> CheckChainFiles(JobFolder &folder, size_t image)
{
    std::vector<size_t> found;
    for (const size_t i : ChainOf(folder, image)) {
        const KeptImage &file = folder.images[i];
        if (file.isThere && file.sidecar && file.doubt.empty()) {
            NoteDifference(folder, i, reader::ReadImageFacts(PathOf(folder, file), false));
            if (!file.doubt.empty()) {
                found.push_back(i);
            }
        }
    }
    return found;
}

bool IsFull(const KeptImage &image)
{
    return image.sidecar && image.sidecar->base.empty();
}

bool IsSound(const KeptImage &image)
{
    return image.isThere && image.sidecar && image.doubt.empty() && image.chainLength != 0;
}

std::vector<RetainedImage> RetainedImagesOf(const JobFolder &folder)
{
    std::vector<RetainedImage> images;
    for (const KeptImage &image : folder.images) {
        RetainedImage retained;
        retained.number = image.sidecar ? image.sidecar->number : 0;
        retained.time = image.time;
        retained.isOurs = image.sidecar.has_value() && image.otherMachine.empty();
        retained.isSound = IsSound(image);
        retained.isDamaged = image.isDamaged;
        retained.isOpaque = image.isOpaque;
        retained.base = image.base;
        images.push_back(retained);
    }
    return images;
}

size_t NewestSound(const JobFolder &folder)
{
    for (size_t i = folder.images.size(); i-- > 0;) {
        if (IsSound(folder.images[i]) && folder.images[i].otherMachine.empty()) {
            return i;
        }
    }
    return noImage;
}
