// The steps: what is there; which sound images are not, bases before what stands on them; each under another name until
// it is whole there and has its digest, its sidecar before its own name; then what goes.
#include "kestrix-keep/copies.h"

#include "report/report.h"

#include <algorithm>
#include <set>

static const char endingOfCopies[] = ".copying";

struct Copying {
    const JobFolder &folder;
    const CopyPlace &wanted;
    const RetentionState &chain;
    const std::function<void(const std::string &)> &onLine;
    Place place;
    std::set<std::string> names; // there
    CopyOutcome outcome;
};

static bool Fail(Copying &run, const std::string &sentence)
{
    run.outcome.failure = run.outcome.failure.empty() ? sentence : run.outcome.failure;
    run.onLine("copies: " + sentence);
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
    RetentionState allowed = run.chain;
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

static bool CopyChecked(Copying &run, const KeptImage &image)
{
    const std::string path = PathOf(run.folder, image);
    const std::string temporary = image.name + endingOfCopies;
    if (!Succeeds(run, run.place.put(path, temporary))) {
        return false;
    }
    reader::Result<std::string> digest = run.place.digest(temporary, path);
    if (!digest) {
        return Fail(run, digest.fault.text);
    }
    if (*digest != image.sidecar->sha256) {
        return Fail(run,
                    run.place.name + ": " + image.name + ": what arrived is not what was sent: its SHA-256 is another");
    }
    // Of two files with one length a remote may take the one for the other, and leave the old one where it is.
    if (run.names.count(image.name) != 0 && !Succeeds(run, run.place.remove(image.name))) {
        return false;
    }
    return Succeeds(run, run.place.put(SidecarPath(path), SidecarPath(image.name))) &&
           Succeeds(run, run.place.rename(temporary, image.name));
}

static bool CopyOne(Copying &run, const KeptImage &image)
{
    if (run.place.isRemote && !image.sidecar->isSealed && !run.wanted.plainIsFine) {
        return Fail(run, run.place.name + ": " + image.name +
                             " is not sealed, and does not go to a remote: set "
                             "password-file, or plain-ok = true");
    }
    if (!CopyChecked(run, image)) {
        return false;
    }
    run.onLine("copied: " + image.name + " to " + run.place.name);
    run.outcome.copied.push_back(image.name);
    run.names.insert(image.name);
    return true;
}

static bool CopyMissing(Copying &run)
{
    for (const size_t i : ImagesWanted(run)) { // in the order in which they were made: bases first
        const KeptImage &image = run.folder.images[i];
        const bool isThere = run.names.count(image.name) != 0 && run.names.count(SidecarPath(image.name)) != 0;
        if (!isThere && !CopyOne(run, image)) {
            return false;
        }
    }
    return true;
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
    if (run.names.count(SidecarPath(name)) == 0) {
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
    for (const std::string &name : run.names) {
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
            image.isDamaged = !image.isSound;
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
    const std::vector<Decision> decisions = DecideRetention(images, run.wanted.keep, run.chain);
    for (size_t i = names.size(); i-- > 0;) { // by their names what stands on another one comes behind it
        if (decisions[i].isLetGo && Succeeds(run, run.place.remove(names[i])) &&
            Succeeds(run, run.place.remove(SidecarPath(names[i])))) {
            run.outcome.letGo.push_back(names[i]);
            run.onLine("let go at " + run.place.name + ": " + names[i]);
        }
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
        if (TimeOfImageName(run.folder.job, image) && (ending == endingOfCopies || run.names.count(image) == 0)) {
            return true;
        }
    }
    return false;
}

static bool RemoveDeadCopies(Copying &run)
{
    for (auto name = run.names.begin(); name != run.names.end();) {
        if (!IsDead(run, *name)) {
            ++name;
        } else if (Succeeds(run, run.place.remove(*name))) {
            name = run.names.erase(name);
        } else {
            return false;
        }
    }
    return true;
}

CopyOutcome CopyImages(const JobFolder &folder, const CopyPlace &wanted, const RetentionState &chain,
                       const std::function<void(const std::string &)> &onLine)
{
    Copying run = {folder, wanted, chain, onLine, {}, {}, {}};
    run.outcome.place = wanted.rclone.empty() ? wanted.folder : "rclone:" + wanted.rclone;
    reader::Result<Place> place = MakePlace(wanted);
    if (!place) {
        Fail(run, place.fault.text);
        return run.outcome;
    }
    run.place = std::move(*place);
    reader::Result<std::vector<std::string>> names = run.place.list();
    if (!names) {
        Fail(run, names.fault.text);
        return run.outcome;
    }
    run.names.insert(names->begin(), names->end());
    if (RemoveDeadCopies(run) && CopyMissing(run)) {
        LetGoThere(run);
    }
    return run.outcome;
}
