// status --place: what copies are there and whether they would do, told by the place alone, as on the day when nothing
// else is left.
#include "kestrix-keep/clock.h"
#include "kestrix-keep/commands.h"
#include "kestrix-keep/place_images.h"
#include "kestrix-keep/status.h"
#include "report/report.h"

#include <algorithm>

namespace
{

struct CopiesStatus {
    std::string job;
    std::vector<std::string> problems; // as sentences; none: all is well
    std::string lastGood;              // file name of the newest sound image; empty: there is none
    int64_t lastGoodAt = 0;
    std::vector<std::string> chain; // file names of what that needs, itself first
    int64_t chainProvedAt = 0;      // when the job last read the oldest of them whole, in its own folder; 0: not known
    uint64_t images = 0;
    uint64_t damagedImages = 0;
    uint64_t usedBytes = 0;
    std::vector<std::string> unfinished;
};

} // namespace

// ---- Facts ----

// Where nothing is known against an image its digest decides, if that is wanted.
static std::optional<reader::Fault> CompareImages(const Place &place, bool showsProgress, JobFolder &folder)
{
    for (size_t i = 0; i < folder.images.size(); ++i) {
        const KeptImage &image = folder.images[i];
        if (!image.sidecar || !image.doubt.empty()) {
            continue;
        }
        WantedDigests wanted = {image.sidecar->sha256, image.sidecar->otherDigests, {}};
        Progress progress(showsProgress, "reading " + image.name, image.sidecar->fileBytes);
        std::optional<reader::Fault> fault =
            place.compare(image.name, &wanted, [&progress](uint64_t bytes) { progress.Add(bytes); });
        progress.Hide();
        if (fault && fault->kind == reader::FaultKind::Damaged) {
            NoteDamage(folder, i, fault->text);
        } else if (fault && place.isRemote) { // the others can't be reached either
            return fault;
        } else if (fault) {
            NoteUnread(folder, i, fault->text);
        }
    }
    return std::nullopt;
}

static void JudgeImages(const JobFolder &folder, CopiesStatus &status)
{
    for (const KeptImage &image : folder.images) {
        ++status.images;
        status.damagedImages += image.isDamaged ? 1 : 0;
        status.usedBytes += image.sidecar ? image.sidecar->fileBytes : 0;
        if (!image.doubt.empty()) {
            status.problems.push_back(image.name + (image.isDamaged ? ": DAMAGED: " : ": ") + image.doubt);
        }
    }
    if (status.damagedImages != 0) {
        status.problems.emplace_back("what is damaged is of no use: remove it here, with its sidecar; the job's next "
                                     "backup copies it again if the job still has it");
    }
}

static void JudgeNewest(const JobFolder &folder, int64_t now, CopiesStatus &status)
{
    const size_t newest = NewestSound(folder);
    if (newest == noImage) {
        status.problems.emplace_back("there is no sound image");
        return;
    }
    status.lastGood = folder.images[newest].name;
    status.lastGoodAt = folder.images[newest].time;
    status.chainProvedAt = FilesProvedAt(folder, newest, now);
    for (const size_t i : ChainOf(folder, newest)) {
        status.chain.push_back(folder.images[i].name);
    }
    if (status.lastGoodAt > now + secondsPerDay) {
        status.problems.push_back("the time of the last sound image lies in the future: " +
                                  LocalTimeText(status.lastGoodAt) + "; the clock was or is wrong");
    }
}

static CopiesStatus StatusOf(const JobFolder &folder, int64_t now)
{
    CopiesStatus status;
    status.job = folder.job;
    status.unfinished = folder.leftovers;
    JudgeNewest(folder, now, status);
    JudgeImages(folder, status);
    return status;
}

// ---- Telling them ----

static Json JsonOf(const CopiesStatus &status)
{
    const bool hasOne = !status.lastGood.empty();
    return {{"job", status.job},
            {"isWell", status.problems.empty()},
            {"problems", status.problems},
            {"lastGood", hasOne ? Json(status.lastGood) : Json(nullptr)},
            {"lastGoodAt", hasOne ? Json(status.lastGoodAt) : Json(nullptr)},
            {"chain", status.chain},
            {"chainProvedAt", hasOne ? Json(status.chainProvedAt) : Json(nullptr)},
            {"images", status.images},
            {"damagedImages", status.damagedImages},
            {"usedBytes", status.usedBytes},
            {"unfinished", status.unfinished}};
}

static void Print(const CopiesStatus &status, int64_t now)
{
    PrintLine(status.job + ": " + (status.problems.empty() ? "well" : "NOT WELL"));
    for (const std::string &problem : status.problems) {
        PrintLine("  ! " + problem);
    }
    if (!status.lastGood.empty()) {
        PrintLine("  last good image: " + status.lastGood + ", " + AgeText(now - status.lastGoodAt) + " old");
        PrintLine("  its chain: " + Counted(status.chain.size(), "image") + ", all here; in the job's folder " +
                  ProvedText(status.chainProvedAt, now));
    }
    PrintLine("  images: " + std::to_string(status.images) + ", " + SizeText(status.usedBytes));
    for (const std::string &name : status.unfinished) {
        PrintLine("  not finished: " + name +
                  "; the next backup of the machine that began it takes it away, and copies it again");
    }
}

// ---- The place ----

static reader::Result<std::vector<JobFolder>> LookAtPlace(const KeepOptions &common, const StatusOptions &options,
                                                          const Place &place)
{
    reader::Result<std::vector<JobFolder>> folders = ReadPlace(place, options.jobs);
    for (size_t i = 0; options.comparesCopies && folders && i < folders->size(); ++i) {
        if (std::optional<reader::Fault> fault = CompareImages(place, !common.quiet, (*folders)[i])) {
            return std::move(*fault);
        }
    }
    if (folders && folders->empty()) {
        return reader::Fault{reader::FaultKind::Unavailable, place.name + ": there is no image of a job in it"};
    }
    return folders;
}

static int Report(const KeepOptions &common, const std::string &place, const std::vector<JobFolder> &folders,
                  const std::string &fault)
{
    const int64_t now = common.now.value_or(Now());
    bool isWell = fault.empty();
    JsonOutput output(common.json);
    output.Member("place", place);
    output.BeginList("jobs");
    for (const JobFolder &folder : folders) {
        const CopiesStatus status = StatusOf(folder, now);
        isWell = isWell && status.problems.empty();
        output.Item(JsonOf(status));
        if (!common.json) {
            Print(status, now);
        }
    }
    output.End();
    output.Member("fault", fault.empty() ? Json(nullptr) : Json(fault));
    if (!fault.empty() && !common.json) {
        PrintFault(fault);
    }
    return isWell ? exitWell : exitFailed;
}

int StatusOfPlace(const KeepOptions &common, const StatusOptions &options)
{
    reader::Result<CopyPlace> parsed = ParsePlace(options.place);
    if (!parsed) {
        PrintFault("--place: " + parsed.fault.text);
        return exitCommandLine;
    }
    reader::Result<Place> place = MakePlace(*parsed);
    if (!place) {
        return Report(common, options.place, {}, place.fault.text);
    }
    reader::Result<std::vector<JobFolder>> folders = LookAtPlace(common, options, *place);
    return folders ? Report(common, options.place, *folders, {})
                   : Report(common, options.place, {}, folders.fault.text);
}
