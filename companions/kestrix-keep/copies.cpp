// The steps: what is there; which sound images are not, bases before what stands on them; each under another name until
// it is whole there and has its digest, its sidecar before its own name; then what goes.
#include "kestrix-keep/copies.h"

#include "kestrix-keep/place_images.h"
#include "report/report.h"

#include <algorithm>
#include <map>

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
    run.outcome.failure = run.outcome.failure.empty() ? sentence : run.outcome.failure;
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
    std::vector<size_t> wanted;
    for (size_t i = 0; i < images.size(); ++i) {
        if (IsSound(run.folder.images[i]) && !decisions[i].isLetGo) {
            wanted.push_back(i);
        }
    }
    return wanted;
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
    return PutSidecar(run, image) && Succeeds(run, run.place.rename(temporary, image.name));
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

static bool CopyMissing(Copying &run)
{
    const std::vector<size_t> wanted = ImagesWanted(run);
    return std::all_of(wanted.begin(), wanted.end(), // in the order in which they were made: bases first
                       [&run](size_t i) { return CopyIfWanting(run, run.folder.images[i]); });
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

static bool ImagesThere(Copying &run, std::vector<std::string> *names, std::vector<RetainedImage> *images)
{
    std::vector<std::string> bases;
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
            image.isOurs = true;
            image.isSound = (*sidecar)->isSound;
            image.isDamaged = !image.isSound || bytes.value_or((*sidecar)->fileBytes) != (*sidecar)->fileBytes;
        }
        names->push_back(name);
        images->push_back(image);
        bases.push_back(*sidecar ? (*sidecar)->base : "");
    }
    for (size_t i = 0; i < bases.size(); ++i) {
        const auto base = std::find(names->begin(), names->end(), bases[i]);
        const bool isMissing = !bases[i].empty() && base == names->end();
        (*images)[i].base = base == names->end() ? noImage : static_cast<size_t>(base - names->begin());
        (*images)[i].isSound = (*images)[i].isSound && !isMissing;
    }
    return true;
}

// Image first: a sidecar that is left alone is a dead one.
static void LetGoThere(Copying &run)
{
    std::vector<std::string> names;
    std::vector<RetainedImage> images;
    if (!run.wanted.keep || !ImagesThere(run, &names, &images)) {
        return;
    }
    const std::vector<Decision> decisions = DecideRetention(images, run.wanted.keep, run.options.chain);
    for (size_t i = names.size(); i-- > 0;) { // by their names what stands on another one comes behind it
        if (!decisions[i].isLetGo) {
            continue;
        }
        if (!Succeeds(run, run.place.remove(names[i])) || !Succeeds(run, run.place.remove(SidecarPath(names[i])))) {
            return;
        }
        run.outcome.letGo.push_back(names[i]);
        run.options.onLine("let go at " + run.place.name + ": " + names[i]);
    }
}

static bool EndsWith(const std::string &text, const std::string &ending)
{
    return text.size() > ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// What an earlier run began to copy, or to let go of: half a copy, and a sidecar without its image.
static bool IsDead(const Copying &run, const std::string &name)
{
    for (const std::string &ending : {std::string(endingOfCopies), SidecarPath("")}) {
        const std::string image = EndsWith(name, ending) ? name.substr(0, name.size() - ending.size()) : std::string();
        if (TimeOfImageName(run.folder.job, image) && (ending == endingOfCopies || run.files.count(image) == 0)) {
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
    }
    return run.outcome;
}
