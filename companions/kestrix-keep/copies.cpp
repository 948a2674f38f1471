// The steps: what is there; which sound images are not, bases before what stands on them; each under another name until
// it is whole there and has its digest, its sidecar before its own name; then what goes, once the newest chain there
// has been compared lately. Other machines may copy into the same place: what is not known as this one's is left alone.
#include "kestrix-keep/copies.h"

#include "kestrix-keep/audit.h"
#include "kestrix-keep/clock.h"
#include "kestrix-keep/place_images.h"
#include "report/report.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <set>

struct Copying {
    JobFolder &folder;
    const CopyPlace &wanted;
    const CopyOptions &options;
    Place place;
    std::map<std::string, std::optional<uint64_t>> files; // there, with their lengths
    CopyOutcome outcome;
    bool isFileInDoubt = false; // the one that is copied may be why it can't be
    std::set<size_t> tooPlain;  // images that are not sealed, and may not go to a remote, with what stands on them
};

static bool Fail(Copying &run, const std::string &sentence)
{
    run.outcome.failure += (run.outcome.failure.empty() ? "" : "; ") + sentence;
    run.options.onLine("copies: " + sentence);
    return false;
}

static bool Succeeds(Copying &run, const std::optional<reader::Fault> &fault)
{
    return !fault || Fail(run, fault->text);
}

// ---- What belongs there ----

// Those that the place's own rules would keep, and the newest sound one with all that it needs. Without rules all are.
static std::vector<size_t> ImagesWanted(const Copying &run)
{
    RetentionState allowed = run.options.chain;
    allowed.chainIsProved = true; // this decides about what is to come, not about what may go
    std::vector<RetainedImage> images = RetainedImagesOf(run.folder);
    for (RetainedImage &image : images) {
        image.isDamaged = false;
    }
    const std::vector<Decision> decisions = DecideRetention(images, run.wanted.keep, allowed);
    std::set<size_t> wanted;
    for (size_t i = 0; i < images.size(); ++i) {
        const KeptImage &image = run.folder.images[i];
        if (IsSound(image) && image.otherMachine.empty() && !decisions[i].isLetGo) {
            const std::vector<size_t> chain = ChainOf(run.folder, i);
            wanted.insert(chain.begin(), chain.end());
        }
    }
    return {wanted.begin(), wanted.end()};
}

// ---- What is remembered of the place ----

static Json &MemoryOf(Copying &run)
{
    Json &memory = run.folder.memory.places[run.outcome.place];
    if (!memory.is_object()) {
        memory = Json::object();
    }
    return memory;
}

// When each copy was compared last, by names of images; 0: it is known as this job's and was not. Whatever else lay
// there is forgotten.
static Json &ComparedTimes(Copying &run)
{
    Json &compared = MemoryOf(run)["compared"];
    if (!compared.is_object()) {
        compared = Json::object();
    }
    return compared;
}

// A time from the future tells nothing.
static int64_t ComparedAt(Copying &run, const std::string &name)
{
    const Json time = ComparedTimes(run).value(name, Json());
    const int64_t at = time.is_number_integer() ? time.get<int64_t>() : 0;
    return at > run.options.chain.now + secondsPerDay ? 0 : at;
}

static void NoteCompared(Copying &run, const std::string &name)
{
    ComparedTimes(run)[name] = run.options.chain.now;
}

static void ForgetWhatIsGone(Copying &run)
{
    Json &compared = ComparedTimes(run);
    Json left = Json::object();
    for (const auto &[name, bytes] : run.files) {
        if (compared.contains(name)) {
            left[name] = compared[name];
        }
    }
    compared = left;
}

// ---- Copying ----

// What a remote that has another kind of digest was compared by stays with the image: without its file here there would
// be no other way to it.
static bool RecordDigests(Copying &run, KeptImage &image, const OtherDigests &digests)
{
    if (digests == image.sidecar->otherDigests) {
        return true;
    }
    const std::string path = SidecarPath(PathOf(run.folder, image));
    Sidecar sidecar = *image.sidecar;
    sidecar.otherDigests = digests;
    if (const host::Trouble trouble = WriteSidecar(path, sidecar)) {
        return Fail(run, path + ": it can't be written: " + *trouble);
    }
    image.sidecar = std::move(sidecar);
    return true;
}

static bool CompareThere(Copying &run, KeptImage &image, const std::string &name)
{
    WantedDigests wanted = {image.sidecar->sha256, image.sidecar->otherDigests, {PathOf(run.folder, image)}};
    Progress progress(run.options.showsProgress, "reading back " + image.name, image.sidecar->fileBytes);
    const std::optional<reader::Fault> fault =
        run.place.compare(name, &wanted, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    const bool isAnother = fault && fault->kind == reader::FaultKind::Damaged;
    run.isFileInDoubt = isAnother || wanted.local.isInDoubt;
    if (isAnother) {
        return Fail(run, fault->text + ": what arrived is not what was sent");
    }
    return Succeeds(run, fault) && RecordDigests(run, image, wanted.others);
}

static bool Put(Copying &run, const KeptImage &image, const std::string &name)
{
    Progress progress(run.options.showsProgress, "copying " + image.name, image.sidecar->fileBytes);
    LocalFile file = {PathOf(run.folder, image)};
    const std::optional<reader::Fault> fault =
        run.place.put(&file, name, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    run.isFileInDoubt = file.isInDoubt;
    return Succeeds(run, fault);
}

static bool ReadBack(Copying &run, const std::string &name, const std::string &text)
{
    reader::Result<std::string> there = run.place.read(name);
    if (!there) {
        return Fail(run, there.fault.text);
    }
    return *there == text || Fail(run, run.place.name + ": " + name + ": what arrived is not what was sent");
}

// Small enough to be read back whole. Under its own name there is a whole one all the while.
static bool SendSidecar(Copying &run, const KeptImage &image, std::string *text)
{
    LocalFile file = {SidecarPath(PathOf(run.folder, image))};
    const std::string name = NameWhileCopied(SidecarPath(image.name));
    if (const host::Trouble trouble = host::ReadSmallFile(file.path, text)) {
        return Fail(run, file.path + ": it can't be read: " + *trouble);
    }
    return Succeeds(run, run.place.put(&file, name, nullptr)) && ReadBack(run, name, *text);
}

static bool NameSidecar(Copying &run, const KeptImage &image, const std::string &text)
{
    const std::string name = SidecarPath(image.name);
    if (!Succeeds(run, run.place.renameInPlaceOf(NameWhileCopied(name), name))) {
        return false;
    }
    run.files[name] = text.size();
    return !run.place.isRemote || !run.place.copiesToRename() || ReadBack(run, name, text);
}

static bool RefreshSidecar(Copying &run, const KeptImage &image)
{
    std::string text;
    return SendSidecar(run, image, &text) && NameSidecar(run, image, text);
}

// A remote's folder is made where it has none: many a key may write into one and may not make one.
static reader::Result<std::vector<PlaceFile>> ListThere(const Place &place)
{
    reader::Result<std::vector<PlaceFile>> listed = place.list();
    return listed || !place.isRemote || place.prepare() ? std::move(listed) : place.list();
}

static const char meanwhileText[] =
    ": another machine copied one of this name meanwhile: give each machine a folder of its own there";
static const char nameIsTakenText[] =
    ": there is one of this name already, and nothing says that it is this image. It is left alone, and this one "
    "is not copied: give each machine a folder of its own there, or remove it, with its sidecar, if nobody needs it";

// Two machines whose jobs have one name and one time make images of one name; copying takes long.
static bool IsStillFree(Copying &run, const KeptImage &image)
{
    reader::Result<std::vector<PlaceFile>> files = run.place.list();
    if (!files) {
        return Fail(run, files.fault.text);
    }
    const bool isTaken = std::any_of(files->begin(), files->end(), [&image](const PlaceFile &file) {
        return file.name == image.name || file.name == SidecarPath(image.name);
    });
    return !isTaken || Fail(run, run.place.name + ": " + image.name + meanwhileText);
}

static bool CopyChecked(Copying &run, KeptImage &image)
{
    const std::string temporary = NameWhileCopied(image.name);
    const bool isNew = run.files.count(image.name) == 0 && run.files.count(SidecarPath(image.name)) == 0;
    std::string sidecar;
    if (!Put(run, image, temporary) || !CompareThere(run, image, temporary) || !SendSidecar(run, image, &sidecar) ||
        (isNew && !IsStillFree(run, image))) {
        return false;
    }
    // Of two files with one length a remote may take the one for the other, and leave the old one where it is.
    // From then on it does not stand for the newest one there, whatever becomes of the rest.
    if (run.files.erase(image.name) != 0 && !Succeeds(run, run.place.remove(image.name))) {
        return false;
    }
    if (!NameSidecar(run, image, sidecar) || !Succeeds(run, run.place.rename(temporary, image.name))) {
        return false;
    }
    if (!run.place.isRemote || !run.place.copiesToRename() || CompareThere(run, image, image.name)) {
        return true;
    }
    Succeeds(run, run.place.remove(image.name)); // what it is now must not stand under that name
    return false;
}

static bool IsTooPlain(const Copying &run, const KeptImage &image)
{
    return run.place.isRemote && !image.sidecar->isSealed && !run.wanted.plainIsFine;
}

// What is found of a file here that may be why it can't be copied. Otherwise it is the place.
static bool IsFileToBlame(Copying &run, size_t index)
{
    if (!run.isFileInDoubt) {
        return false;
    }
    const KeptImage &image = run.folder.images[index];
    reader::Result<FileDigest> digest = DigestFile(PathOf(run.folder, image), host::Caching::Medium);
    if (!digest) {
        Fail(run, digest.fault.text);
        run.outcome.bad.push_back({index, digest.fault.text, false});
        NoteUnread(run.folder, index, digest.fault.text);
    } else if (digest->sha256 != image.sidecar->sha256) {
        const std::string what = image.name + ": it is no longer what was written: its SHA-256 is another";
        Fail(run, image.name + ": it is no longer what was written, and is not copied");
        run.outcome.bad.push_back({index, what, true});
        NoteDamage(run.folder, index, what);
    }
    return !digest || digest->sha256 != image.sidecar->sha256;
}

static bool CopyOne(Copying &run, KeptImage &image)
{
    run.isFileInDoubt = false;
    if (!CopyChecked(run, image)) {
        return false;
    }
    run.options.onLine("copied: " + image.name + " to " + run.place.name);
    run.outcome.copied.push_back(image.name);
    run.files[image.name] = image.sidecar->fileBytes;
    NoteCompared(run, image.name);
    return true;
}

// A place that doesn't tell a length is believed.
static bool HasLength(const Copying &run, const std::string &name, uint64_t bytes)
{
    const auto file = run.files.find(name);
    return file != run.files.end() && file->second.value_or(bytes) == bytes;
}

// Whether what has the image's name there, if anything does, is the image by its sidecar.
static reader::Result<bool> MayHaveName(Copying &run, const KeptImage &image)
{
    const bool hasSidecar = run.files.count(SidecarPath(image.name)) != 0;
    const bool isFree = run.files.count(image.name) == 0 && !hasSidecar;
    if (isFree || ComparedTimes(run).contains(image.name)) {
        return true;
    }
    if (!hasSidecar) {
        return false;
    }
    reader::Result<std::string> text = run.place.read(SidecarPath(image.name));
    if (!text) {
        return text.fault;
    }
    reader::Result<Sidecar> sidecar = ParseSidecar(*text, run.place.name);
    const bool isIt = sidecar && sidecar->sha256 == image.sidecar->sha256;
    if (isIt) {
        ComparedTimes(run)[image.name] = 0;
    }
    return bool{isIt};
}

namespace
{

enum class Fate {
    IsThere,
    IsLeftOut,  // the others can be copied nevertheless
    PlaceFails, // each further image would cost as much again
};

} // namespace

static Fate CopyAnew(Copying &run, size_t index)
{
    KeptImage &image = run.folder.images[index];
    if (IsTooPlain(run, image)) {
        run.tooPlain.insert(index);
        return Fate::IsLeftOut;
    }
    if (run.files.count(image.name) != 0 && !HasLength(run, image.name, image.sidecar->fileBytes)) {
        run.options.onLine("copied again: " + image.name + ": at " + run.place.name + " it is not as long as it was");
    }
    if (CopyOne(run, image)) {
        return Fate::IsThere;
    }
    return IsFileToBlame(run, index) ? Fate::IsLeftOut : Fate::PlaceFails;
}

static Fate CopyIfWanting(Copying &run, size_t index)
{
    const KeptImage &image = run.folder.images[index];
    const std::string name = SidecarPath(image.name);
    const std::string path = SidecarPath(PathOf(run.folder, image));
    uint64_t sidecarBytes = 0;
    if (const host::Trouble trouble = host::LengthOfFile(path, &sidecarBytes)) {
        Fail(run, path + ": it can't be looked at: " + *trouble);
        return Fate::IsLeftOut;
    }
    reader::Result<bool> mayHaveName = MayHaveName(run, image);
    if (!mayHaveName) {
        Fail(run, mayHaveName.fault.text);
        return Fate::PlaceFails;
    }
    if (!*mayHaveName) {
        Fail(run, run.place.name + ": " + image.name + nameIsTakenText);
        return Fate::IsLeftOut;
    }
    if (!HasLength(run, image.name, image.sidecar->fileBytes) || run.files.count(name) == 0) {
        return CopyAnew(run, index);
    }
    return HasLength(run, name, sidecarBytes) || RefreshSidecar(run, image) ? Fate::IsThere : Fate::PlaceFails;
}

// As long as the newest image is one of them, the place lacks what it should have.
static void TellPlainOnes(Copying &run)
{
    if (run.tooPlain.empty()) {
        return;
    }
    const size_t others = run.tooPlain.size() - 1;
    const std::string sentence = run.place.name +
                                 ": what was made before password-file was set, and what stands on it, does not go to "
                                 "a remote: " +
                                 run.folder.images[*run.tooPlain.begin()].name +
                                 (others == 0 ? std::string() : " and " + Counted(others, "image") + " more") +
                                 "; the first full image that is sealed does, and what stands on that";
    if (run.tooPlain.count(NewestSound(run.folder)) != 0) {
        Fail(run, sentence);
    } else {
        run.outcome.notes.push_back(sentence);
    }
}

static void CopyMissing(Copying &run)
{
    std::set<size_t> missing;
    for (const size_t i : ImagesWanted(run)) { // in the order in which they were made: bases first
        const KeptImage &image = run.folder.images[i];
        Fate fate = Fate::IsLeftOut;
        if (run.tooPlain.count(image.base) != 0) {
            run.tooPlain.insert(i);
        } else if (missing.count(image.base) != 0) {
            Fail(run, image.name + " is not copied, since " + image.sidecar->base + ", which it stands on, was not");
        } else {
            fate = CopyIfWanting(run, i);
        }
        if (fate == Fate::IsLeftOut) {
            missing.insert(i);
        } else if (fate == Fate::PlaceFails) {
            break;
        }
    }
    TellPlainOnes(run);
}

// ---- Letting go ----

// An image there that is known as one of the folder's is known by the folder's sidecar, another by the one that lies
// beside it, and so is one that is damaged here.
static reader::Result<std::optional<Sidecar>> SidecarAt(Copying &run, const std::string &name)
{
    const bool isKnown = ComparedTimes(run).contains(name);
    for (const KeptImage &image : run.folder.images) {
        if (isKnown && image.name == name && !image.isDamaged && image.sidecar) {
            return std::optional<Sidecar>(image.sidecar);
        }
    }
    if (run.files.count(SidecarPath(name)) == 0) {
        return std::optional<Sidecar>();
    }
    reader::Result<std::string> text = run.place.read(SidecarPath(name));
    if (!text) {
        return text.fault;
    }
    reader::Result<Sidecar> sidecar = ParseSidecar(*text, run.place.name + ": " + SidecarPath(name));
    return std::optional<Sidecar>(sidecar && sidecar->job == run.folder.job ? sidecar.value : std::nullopt);
}

namespace
{

struct ImagesAtPlace {
    std::vector<std::string> names;
    std::vector<std::optional<Sidecar>> sidecars;
    std::vector<RetainedImage> images;
};

} // namespace

// Nothing goes there any more because of this copy. It is told in each run, and by status until it is taken away.
static void StandsInTheWay(Copying &run, const std::string &damage)
{
    const std::string sentence =
        damage + ": the copy is DAMAGED; nothing goes there any more before it is removed, with its sidecar";
    run.outcome.notes.push_back(sentence);
    MemoryOf(run)["inTheWay"].push_back(sentence);
}

// What another machine's copies are worth is not judged here.
static RetainedImage RetainedImageOf(int64_t timeOfName, const std::optional<Sidecar> &sidecar,
                                     std::optional<uint64_t> bytes)
{
    RetainedImage image;
    image.time = timeOfName;
    if (sidecar) {
        image.number = sidecar->number;
        image.time = sidecar->startedAt;
        image.isOurs = IsOfThisMachine(*sidecar);
        image.isSound = sidecar->isSound && bytes.value_or(sidecar->fileBytes) == sidecar->fileBytes;
        image.isDamaged = image.isOurs && !image.isSound;
    }
    return image;
}

// What stands on another image has a higher number, though a clock that was put back may have given it a smaller name.
static std::vector<size_t> NewestFirst(const ImagesAtPlace &there)
{
    std::vector<size_t> order(there.images.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [&there](size_t left, size_t right) { return there.images[left].number > there.images[right].number; });
    return order;
}

// An image is as sound as all that it stands on. Bases come first.
static void LinkImagesThere(ImagesAtPlace &there)
{
    std::vector<size_t> order = NewestFirst(there);
    std::reverse(order.begin(), order.end());
    for (const size_t i : order) {
        RetainedImage &image = there.images[i];
        const std::string name = there.sidecars[i] ? there.sidecars[i]->base : "";
        if (name.empty()) {
            continue;
        }
        const auto base = std::find(there.names.begin(), there.names.end(), name);
        image.base = base == there.names.end() ? noImage : static_cast<size_t>(base - there.names.begin());
        image.isSound = image.isSound && image.base != noImage && there.images[image.base].isSound &&
                        there.images[image.base].number < image.number;
    }
}

static bool FindImagesThere(Copying &run, ImagesAtPlace &there)
{
    for (const auto &[name, bytes] : run.files) {
        const std::optional<int64_t> time = TimeOfImageName(run.folder.job, name);
        if (!time) {
            continue;
        }
        reader::Result<std::optional<Sidecar>> sidecar = SidecarAt(run, name);
        if (!sidecar) {
            return Fail(run, sidecar.fault.text);
        }
        there.names.push_back(name);
        there.images.push_back(RetainedImageOf(*time, *sidecar, bytes));
        there.sidecars.push_back(std::move(*sidecar));
    }
    LinkImagesThere(there);
    return true;
}

static size_t NewestThere(const ImagesAtPlace &there)
{
    size_t newest = noImage;
    for (size_t i = 0; i < there.images.size(); ++i) {
        const RetainedImage &image = there.images[i];
        const bool isNewer = newest == noImage || image.number > there.images[newest].number;
        newest = image.isOurs && image.isSound && isNewer ? i : newest;
    }
    return newest;
}

// Compares one copy with its digest. What is damaged there is copied once more, if it is still here.
static bool CompareOneThere(Copying &run, const std::string &name, const Sidecar &sidecar)
{
    std::vector<KeptImage> &images = run.folder.images;
    const auto here = std::find_if(images.begin(), images.end(), [&](const KeptImage &image) {
        return image.name == name && IsSound(image) && !IsTooPlain(run, image);
    });
    const bool isHere = here != images.end();
    WantedDigests wanted = {sidecar.sha256, sidecar.otherDigests, {isHere ? PathOf(run.folder, *here) : ""}};
    Progress progress(run.options.showsProgress, "comparing " + name, sidecar.fileBytes);
    const std::optional<reader::Fault> fault =
        run.place.compare(name, &wanted, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    if (!fault) {
        NoteCompared(run, name);
        return true;
    }
    const size_t index = static_cast<size_t>(here - images.begin());
    if (fault->kind != reader::FaultKind::Damaged) {
        Fail(run, fault->text);
        run.isFileInDoubt = wanted.local.isInDoubt;
        IsFileToBlame(run, index);
        return false;
    }
    if (!isHere) {
        StandsInTheWay(run, fault->text);
        return Fail(run, run.place.name + ": " + name + " is damaged there");
    }
    run.outcome.notes.push_back(fault->text + ": the copy is DAMAGED, and is made once more; look at the medium there");
    if (CopyOne(run, *here)) {
        return true;
    }
    IsFileToBlame(run, index);
    return false;
}

// A copy that nobody reads may be gone long before it is needed, and what could stand in for it must not go first.
static bool CompareNewestChain(Copying &run, const ImagesAtPlace &there)
{
    size_t image = NewestThere(there);
    for (size_t level = 0; image != noImage && level < there.images.size(); ++level) {
        const bool isDue =
            run.options.chain.now - ComparedAt(run, there.names[image]) >= run.options.compareEverySeconds;
        if (isDue && !CompareOneThere(run, there.names[image], *there.sidecars[image])) {
            return false;
        }
        image = there.images[image].base;
    }
    return true;
}

static std::string DamageOf(const Copying &run, const std::string &name, const Sidecar &sidecar)
{
    const uint64_t bytes = run.files.at(name).value_or(sidecar.fileBytes);
    return run.place.name + ": " + name + ": " +
           (bytes == sidecar.fileBytes ? sidecar.damage
                                       : "it has " + Counted(bytes, "byte") + ", not the " +
                                             std::to_string(sidecar.fileBytes) + " that it was made with");
}

// What is still to be copied from here is made good by that.
static void TellDamageThere(Copying &run, const ImagesAtPlace &there)
{
    std::set<std::string> wanted;
    for (const size_t i : ImagesWanted(run)) {
        wanted.insert(run.folder.images[i].name);
    }
    for (size_t i = 0; i < there.names.size(); ++i) {
        if (there.images[i].isDamaged && wanted.count(there.names[i]) == 0) {
            StandsInTheWay(run, DamageOf(run, there.names[i], *there.sidecars[i]));
        }
    }
}

static std::vector<Decision> Decide(const Copying &run, const ImagesAtPlace &there, const std::string &forbids)
{
    RetentionState state = run.options.chain;
    state.forbids = forbids;
    return DecideRetention(there.images, run.wanted.keep, state);
}

// What is damaged here may be sound there, and so may be what nobody would look for there any more.
static std::vector<Decision> DecideThere(Copying &run, const ImagesAtPlace &there)
{
    const std::vector<KeptImage> &images = run.folder.images;
    const bool isAnyDamaged =
        std::any_of(images.begin(), images.end(), [](const KeptImage &image) { return image.isDamaged; });
    std::vector<Decision> decisions =
        Decide(run, there, isAnyDamaged ? "nothing goes while an image in the job's own folder is damaged" : "");
    const bool anyGoes =
        std::any_of(decisions.begin(), decisions.end(), [](const Decision &one) { return one.isLetGo; });
    return !anyGoes || CompareNewestChain(run, there)
               ? std::move(decisions)
               : Decide(run, there, "nothing goes before the newest chain there has been compared");
}

// Image first: a sidecar that is left alone is a dead one.
static bool LetGoOf(Copying &run, const std::string &name)
{
    if (!Succeeds(run, run.place.remove(name)) || !Succeeds(run, run.place.remove(SidecarPath(name)))) {
        return false;
    }
    run.files.erase(name);
    run.outcome.letGo.push_back(name);
    return true;
}

static void LetGoThere(Copying &run)
{
    ImagesAtPlace there;
    MemoryOf(run).erase("inTheWay");
    if (!run.wanted.keep || !FindImagesThere(run, there)) {
        return;
    }
    TellDamageThere(run, there);
    const std::vector<Decision> decisions = DecideThere(run, there);
    for (const size_t i : NewestFirst(there)) {
        if (decisions[i].isLetGo && !LetGoOf(run, there.names[i])) {
            return;
        }
        run.options.onLine((decisions[i].isLetGo ? "let go at " : "kept at ") + run.place.name + ": " + there.names[i] +
                           ": " + ReasonsText(decisions[i]));
    }
}

// The image whose sidecar has this name; empty: it is none of this job's.
static std::string ImageOfSidecar(const Copying &run, const std::string &name)
{
    const std::string image = WithoutEnding(name, SidecarPath(""));
    return TimeOfImageName(run.folder.job, image) ? image : std::string();
}

// One that can't be read, or is none, is nobody's as far as is known.
static bool IsOwnSidecar(const Copying &run, const std::string &name)
{
    reader::Result<std::string> text = run.place.read(name);
    if (!text) {
        return false;
    }
    reader::Result<Sidecar> sidecar = ParseSidecar(*text, run.place.name);
    return sidecar && sidecar->job == run.folder.job && IsOfThisMachine(*sidecar);
}

// What an earlier run of this machine began to copy, or to let go of: half a copy or sidecar, and a sidecar without its
// image. Another machine may have the like under way.
static bool IsDead(const Copying &run, const std::string &name)
{
    const std::string unfinished = NameOfUnfinished(name);
    const std::string &own = unfinished.empty() ? name : unfinished;
    const std::string copied = NameOfCopy(own);
    if (!copied.empty()) {
        const bool isOfJob = TimeOfImageName(run.folder.job, copied) || !ImageOfSidecar(run, copied).empty();
        return isOfJob && own == NameWhileCopied(copied);
    }
    const std::string image = ImageOfSidecar(run, name);
    return !image.empty() && run.files.count(image) == 0 && IsOwnSidecar(run, name);
}

// A sidecar was read back before the one that it replaces went: between the two it is the only one of its image.
static bool IsOnlySidecar(const Copying &run, const std::string &name)
{
    const std::string sidecar = NameOfCopy(name);
    const std::string image = ImageOfSidecar(run, sidecar);
    return !image.empty() && run.files.count(image) != 0 && run.files.count(sidecar) == 0 && IsOwnSidecar(run, name);
}

static bool RemoveDeadCopies(Copying &run)
{
    for (auto file = run.files.begin(); file != run.files.end();) {
        if (!IsDead(run, file->first)) {
            ++file;
            continue;
        }
        const bool isOnly = IsOnlySidecar(run, file->first);
        const std::string name = NameOfCopy(file->first);
        if (!Succeeds(run, isOnly ? run.place.renameInPlaceOf(file->first, name) : run.place.remove(file->first))) {
            return false;
        }
        if (isOnly) {
            run.files[name] = file->second;
        }
        file = run.files.erase(file);
    }
    return true;
}

CopyOutcome CopyImages(JobFolder &folder, const CopyPlace &wanted, const CopyOptions &options)
{
    Copying run = {folder, wanted, options, {}, {}, {}, false, {}};
    run.outcome.place = NameOfPlace(wanted);
    reader::Result<Place> place = MakePlace(wanted);
    if (!place) {
        Fail(run, place.fault.text);
        return run.outcome;
    }
    run.place = std::move(*place);
    reader::Result<std::vector<PlaceFile>> files = ListThere(run.place);
    if (!files) {
        Fail(run, files.fault.text);
        return run.outcome;
    }
    for (const PlaceFile &file : *files) {
        run.files[file.name] = file.bytes;
    }
    if (RemoveDeadCopies(run)) {
        CopyMissing(run);
        LetGoThere(run); // also where there was no room: it will not come by itself
        ForgetWhatIsGone(run);
    }
    return run.outcome;
}
