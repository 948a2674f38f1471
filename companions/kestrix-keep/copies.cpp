// The steps: what is there; which sound images are not, bases before what stands on them; each under another name until
// it is whole there and has its digest, its sidecar before its own name; then what goes, once the newest chain there
// has been compared lately.
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

// ---- When each copy was compared last ----

// By names of images; whatever else lay there is forgotten.
static Json &ComparedTimes(Copying &run)
{
    Json &compared = run.folder.memory.places[run.outcome.place]["compared"];
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
    WantedDigests wanted = {image.sidecar->sha256, image.sidecar->otherDigests, PathOf(run.folder, image)};
    Progress progress(run.options.showsProgress, "reading back " + image.name, image.sidecar->fileBytes);
    const std::optional<reader::Fault> fault =
        run.place.compare(name, &wanted, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    if (fault && fault->kind == reader::FaultKind::Damaged) {
        return Fail(run, fault->text + ": what arrived is not what was sent");
    }
    return Succeeds(run, fault) && RecordDigests(run, image, wanted.others);
}

static bool Put(Copying &run, const KeptImage &image, const std::string &name)
{
    Progress progress(run.options.showsProgress, "copying " + image.name, image.sidecar->fileBytes);
    const std::optional<reader::Fault> fault =
        run.place.put(PathOf(run.folder, image), name, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    return Succeeds(run, fault);
}

// Small enough to be read back whole.
static bool PutSidecar(Copying &run, const KeptImage &image)
{
    const std::string path = SidecarPath(PathOf(run.folder, image));
    const std::string name = SidecarPath(image.name);
    std::string text;
    if (const host::Trouble trouble = host::ReadSmallFile(path, &text)) {
        return Fail(run, path + ": it can't be read: " + *trouble);
    }
    if (!Succeeds(run, run.place.put(path, name, nullptr))) {
        return false;
    }
    reader::Result<std::string> there = run.place.read(name);
    if (!there) {
        return Fail(run, there.fault.text);
    }
    run.files[name] = text.size();
    return *there == text || Fail(run, run.place.name + ": " + name + ": what arrived is not what was sent");
}

static bool CopyChecked(Copying &run, KeptImage &image)
{
    const std::string temporary = image.name + endingOfCopies;
    if (!Put(run, image, temporary) || !CompareThere(run, image, temporary)) {
        return false;
    }
    // Of two files with one length a remote may take the one for the other, and leave the old one where it is.
    if (run.files.count(image.name) != 0 && !Succeeds(run, run.place.remove(image.name))) {
        return false;
    }
    if (!PutSidecar(run, image) || !Succeeds(run, run.place.rename(temporary, image.name))) {
        return false;
    }
    if (!run.place.isRemote || !run.place.copiesToRename() || CompareThere(run, image, image.name)) {
        return true;
    }
    Succeeds(run, run.place.remove(image.name)); // what it is now must not stand under that name
    return false;
}

static bool CopyOne(Copying &run, KeptImage &image)
{
    if (run.place.isRemote && !image.sidecar->isSealed && !run.wanted.plainIsFine) {
        return Fail(run, run.place.name + ": " + image.name +
                             " is not sealed, and does not go to a remote: set "
                             "password-file, or plain-ok = true");
    }
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

static bool CopyIfWanting(Copying &run, KeptImage &image)
{
    uint64_t sidecarBytes = 0;
    const std::string sidecar = SidecarPath(PathOf(run.folder, image));
    if (const host::Trouble trouble = host::LengthOfFile(sidecar, &sidecarBytes)) {
        return Fail(run, sidecar + ": it can't be looked at: " + *trouble);
    }
    const bool isThere = HasLength(run, image.name, image.sidecar->fileBytes);
    if (run.files.count(image.name) != 0 && !isThere) {
        run.options.onLine("copied again: " + image.name + ": at " + run.place.name + " it is not as long as it was");
    }
    if (!isThere || run.files.count(SidecarPath(image.name)) == 0) {
        return CopyOne(run, image);
    }
    return HasLength(run, SidecarPath(image.name), sidecarBytes) || PutSidecar(run, image);
}

// Whether the file here is why it can't be copied. Otherwise it is the place, where each further image would cost as
// much again.
static bool IsFileToBlame(Copying &run, const KeptImage &image)
{
    const std::string path = PathOf(run.folder, image);
    reader::Result<FileDigest> digest = DigestFile(path, host::Caching::Medium);
    if (!digest) {
        Fail(run, digest.fault.text);
    } else if (digest->sha256 != image.sidecar->sha256) {
        Fail(run, path + ": it is no longer what was written, and is not copied: its SHA-256 is another");
    }
    return !digest || digest->sha256 != image.sidecar->sha256;
}

static void CopyMissing(Copying &run)
{
    std::set<size_t> missing;
    for (const size_t i : ImagesWanted(run)) { // in the order in which they were made: bases first
        KeptImage &image = run.folder.images[i];
        if (missing.count(image.base) != 0) {
            Fail(run, image.name + " is not copied, since " + image.sidecar->base + ", which it stands on, was not");
            missing.insert(i);
        } else if (!CopyIfWanting(run, image)) {
            missing.insert(i);
            if (!IsFileToBlame(run, image)) {
                return;
            }
        }
    }
}

// ---- Letting go ----

// An image there that is one of the folder's is known by the folder's sidecar, another by the one that lies beside it.
static reader::Result<std::optional<Sidecar>> SidecarAt(const Copying &run, const std::string &name)
{
    for (const KeptImage &image : run.folder.images) {
        if (image.name == name && image.sidecar) {
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
        RetainedImage image;
        image.time = *time;
        if (*sidecar) {
            image.number = (*sidecar)->number;
            image.time = (*sidecar)->startedAt;
            image.isOurs = IsOfThisMachine(**sidecar);
            image.isSound = (*sidecar)->isSound;
            image.isDamaged = !image.isSound || bytes.value_or((*sidecar)->fileBytes) != (*sidecar)->fileBytes;
        }
        there.names.push_back(name);
        there.images.push_back(image);
        there.sidecars.push_back(std::move(*sidecar));
    }
    for (size_t i = 0; i < there.names.size(); ++i) {
        const std::string name = there.sidecars[i] ? there.sidecars[i]->base : "";
        const auto base = std::find(there.names.begin(), there.names.end(), name);
        const bool isThere = base != there.names.end();
        there.images[i].base = isThere ? static_cast<size_t>(base - there.names.begin()) : noImage;
        there.images[i].isSound = there.images[i].isSound && (isThere || name.empty());
    }
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
    const auto here = std::find_if(run.folder.images.begin(), run.folder.images.end(),
                                   [&name](const KeptImage &image) { return image.name == name && IsSound(image); });
    const bool isHere = here != run.folder.images.end();
    WantedDigests wanted = {sidecar.sha256, sidecar.otherDigests, isHere ? PathOf(run.folder, *here) : ""};
    Progress progress(run.options.showsProgress, "comparing " + name, sidecar.fileBytes);
    const std::optional<reader::Fault> fault =
        run.place.compare(name, &wanted, [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    if (!fault) {
        NoteCompared(run, name);
        return true;
    }
    if (fault->kind != reader::FaultKind::Damaged) {
        return Fail(run, fault->text);
    }
    run.outcome.notes.push_back(fault->text + ": the copy is DAMAGED" +
                                (isHere ? ", and is made once more; look at the medium there"
                                        : "; nothing goes there any more before it is removed, with its sidecar"));
    return isHere ? CopyOne(run, *here) : Fail(run, run.place.name + ": " + name + " is damaged there");
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

// What stands on another image has a higher number, though a clock that was put back may have given it a smaller name.
static std::vector<size_t> NewestFirst(const ImagesAtPlace &there)
{
    std::vector<size_t> order(there.images.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [&there](size_t left, size_t right) { return there.images[left].number > there.images[right].number; });
    return order;
}

// Image first: a sidecar that is left alone is a dead one.
static void LetGoThere(Copying &run)
{
    ImagesAtPlace there;
    if (!run.wanted.keep || !FindImagesThere(run, there)) {
        return;
    }
    const std::vector<Decision> decisions = DecideRetention(there.images, run.wanted.keep, run.options.chain);
    const bool anyGoes =
        std::any_of(decisions.begin(), decisions.end(), [](const Decision &one) { return one.isLetGo; });
    if (!anyGoes || !CompareNewestChain(run, there)) {
        return;
    }
    for (const size_t i : NewestFirst(there)) {
        const std::string &name = there.names[i];
        if (!decisions[i].isLetGo) {
            continue;
        }
        if (!Succeeds(run, run.place.remove(name)) || !Succeeds(run, run.place.remove(SidecarPath(name)))) {
            return;
        }
        run.files.erase(name);
        run.outcome.letGo.push_back(name);
        run.options.onLine("let go at " + run.place.name + ": " + name);
    }
}

static bool EndsWith(const std::string &text, const std::string &ending)
{
    return text.size() > ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// What an earlier run began to copy, or to let go of: half a copy or sidecar, and a sidecar without its image.
static bool IsDead(const Copying &run, const std::string &name)
{
    const std::string unfinished = NameOfUnfinished(name);
    const std::string &own = unfinished.empty() ? name : unfinished;
    for (const std::string &ending : {std::string(endingOfCopies), SidecarPath("")}) {
        const std::string image = EndsWith(own, ending) ? own.substr(0, own.size() - ending.size()) : std::string();
        const bool isWhole = unfinished.empty() && ending != endingOfCopies;
        if (TimeOfImageName(run.folder.job, image) && (!isWhole || run.files.count(image) == 0)) {
            return true;
        }
    }
    return false;
}

static bool RemoveDeadCopies(Copying &run)
{
    for (auto file = run.files.begin(); file != run.files.end();) {
        if (!IsDead(run, file->first)) {
            ++file;
        } else if (Succeeds(run, run.place.remove(file->first))) {
            file = run.files.erase(file);
        } else {
            return false;
        }
    }
    return true;
}

// A remote's folder is made where it has none: many a key may write into one and may not make one.
static reader::Result<std::vector<PlaceFile>> ListThere(const Place &place)
{
    reader::Result<std::vector<PlaceFile>> listed = place.list();
    return listed || !place.isRemote || place.prepare() ? std::move(listed) : place.list();
}

CopyOutcome CopyImages(JobFolder &folder, const CopyPlace &wanted, const CopyOptions &options)
{
    Copying run = {folder, wanted, options, {}, {}, {}};
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
