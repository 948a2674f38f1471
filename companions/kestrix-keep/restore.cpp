// restore: the bad day, step by step.
//
// The steps: an image is found and chosen, and fetched where it lies in a place of rclone's; its password; its audit,
// or the word of the last one; the disks are shown with what keeps each from being overwritten; one is chosen, and
// named once more by a part of its serial; it is held, looked at again, and written by kestrix; it is read back and
// compared; the backup table of a larger disk; what remains to be done. Until kestrix runs nothing is written, and
// every question can end it. There is no default and no time-out.
#include "host/host.h"
#include "kestrix-keep/audit.h"
#include "kestrix-keep/clock.h"
#include "kestrix-keep/commands.h"
#include "kestrix-keep/configuration.h"
#include "kestrix-keep/disk_cards.h"
#include "kestrix-keep/fetch.h"
#include "kestrix-keep/found_images.h"
#include "kestrix-keep/questions.h"
#include "reader/compare.h"
#include "report/report.h"

#include <algorithm>
#include <cstdio>

using host::DiskFacts;
using reader::Fault;

namespace
{

enum class Step {
    Done,
    Again, // another image or disk has to be chosen
    Ended, // for good: by a failure, or by the one who was asked
};

struct RestoreRun {
    RestoreRun(const KeepOptions &commonOptions, const RestoreOptions &restoreOptions)
        : common(commonOptions), options(restoreOptions)
    {
    }

    const KeepOptions &common;
    const RestoreOptions &options;
    bool isScript = false; // everything is given, nobody is asked
    Conversation talk;
    std::string failure;
    std::vector<FoundImage> images;
    std::optional<FoundImage> image;
    std::vector<std::string> fetched; // file names
    std::string audit = "none";
    std::string passwordFile;
    host::SecretFile secret;
    TargetRules rules;
    host::StartMedium medium;
    std::vector<DiskFacts> disks;
    std::optional<DiskFacts> disk;
    host::HeldDisk held;
    DiskState state = DiskState::Untouched;
    bool isEqual = false;
    bool isBackupGptMoved = false;
    std::vector<std::string> remains;
};

} // namespace

static bool Fail(RestoreRun &run, const std::string &sentence)
{
    run.failure = run.failure.empty() ? sentence : run.failure;
    return false;
}

// After a question without an answer.
static bool EndTalk(RestoreRun &run)
{
    return Fail(run, run.talk.ended);
}

static std::string NameOfDisk(const DiskFacts &disk)
{
    return "disk " + std::to_string(disk.number) + " (" + disk.node +
           (disk.serial.empty() ? ", no serial" : ", serial " + disk.serial) + ")";
}

static std::string RefusalText(const Refusal &refusal)
{
    return refusal.why + "; " + refusal.remedy;
}

// What the image that was chosen wants of a disk; what it lies on is not in it yet.
static TargetRules RulesOf(RestoreRun &run)
{
    const ImageHeader &header = run.image->facts.header;
    TargetRules rules;
    run.medium = host::FindStartMedium();
    rules.diskBytes = header.diskSize;
    rules.sectorBytes = header.sectorSize;
    rules.takesOtherSectors = run.options.takesOtherSectors;
    rules.startDisks = run.medium.disks;
    return rules;
}

// ---- The image ----

static void LookIntoFolder(RestoreRun &run, const std::string &folder, const std::string &passwordFile)
{
    const size_t before = run.images.size();
    if (const host::Trouble trouble = FindImages(folder, passwordFile, &run.images)) {
        Say(run.talk, folder + ": it can't be listed: " + *trouble);
    } else if (run.images.size() == before) {
        Say(run.talk, folder + ": there are no images in it");
    }
}

static std::optional<Fault> FindInRemote(const std::string &text, std::vector<FoundImage> *images)
{
    reader::Result<CopyPlace> parsed = ParsePlace(text);
    if (!parsed) {
        return parsed.fault;
    }
    reader::Result<Place> place = MakePlace(*parsed);
    return place ? FindRemoteImages(*place, {}, images) : place.fault;
}

static void LookIntoPlace(RestoreRun &run, const std::string &text)
{
    if (!IsRemoteText(text)) {
        LookIntoFolder(run, text, {});
        return;
    }
    const size_t before = run.images.size();
    Say(run.talk, "Reading what the sidecars in " + text + " say.");
    if (const std::optional<Fault> fault = FindInRemote(text, &run.images)) {
        Say(run.talk, fault->text);
    } else if (run.images.size() == before) {
        Say(run.talk, text + ": there are no images in it");
    }
}

// The folders of the jobs and those of their copies, each once. Places of rclone's are named and not asked, which may
// take long.
static void LookIntoConfiguredFolders(RestoreRun &run)
{
    const std::string &given = run.common.configuration;
    const std::string path = given.empty() ? DefaultConfigurationPath() : given;
    if (given.empty() && host::NameIsFree(path)) {
        Say(run.talk, "There is no configuration (" + path + ").");
        return;
    }
    const ReadingResult read = ReadConfiguration(path);
    for (const std::string &fault : read.faults) {
        Say(run.talk, fault);
    }
    std::vector<std::string> seen;
    const auto look = [&](const std::string &folder, const Job &job) {
        if (!folder.empty() && std::find(seen.begin(), seen.end(), folder) == seen.end()) {
            seen.push_back(folder);
            LookIntoFolder(run, folder, job.passwordFile);
        }
    };
    for (const Job &job : read.faults.empty() ? read.configuration.jobs : std::vector<Job>()) {
        look(job.folder, job);
        for (const CopyPlace &copy : job.copies) {
            look(copy.folder, job);
            if (!copy.rclone.empty()) {
                Say(run.talk,
                    "Copies lie in " + NameOfPlace(copy) + " too: --from " + NameOfPlace(copy) + " shows them.");
            }
        }
    }
}

static bool AskForPlace(RestoreRun &run)
{
    const std::optional<std::string> place =
        Ask(run.talk, "In which folder, or rclone:REMOTE:PATH, do the images lie?");
    if (!place) {
        return EndTalk(run);
    }
    if (!place->empty()) {
        LookIntoPlace(run, *place);
    }
    return true;
}

static bool GatherImages(RestoreRun &run)
{
    if (!run.images.empty()) {
        return true; // of an earlier round
    }
    if (run.options.from.empty()) {
        LookIntoConfiguredFolders(run);
    } else {
        LookIntoPlace(run, run.options.from);
    }
    while (run.images.empty()) {
        if (!AskForPlace(run)) {
            return false;
        }
    }
    return true;
}

static void ShowImages(RestoreRun &run, size_t begin, size_t end)
{
    for (size_t i = begin; i < end; ++i) {
        std::vector<std::string> lines = ImageCard(run.images[i]);
        lines[0] = std::to_string(i + 1) + ": " + lines[0];
        for (const std::string &line : lines) {
            Say(run.talk, line);
        }
    }
}

// A few at a time, since a serial line doesn't scroll back.
static std::optional<size_t> AskForImage(RestoreRun &run)
{
    constexpr size_t mostShown = 10;
    size_t shown = 0;
    for (;;) {
        const size_t end = std::min(shown + mostShown, run.images.size());
        const bool hasMore = end < run.images.size();
        Say(run.talk, "");
        ShowImages(run, shown, end);
        shown = end;
        std::vector<std::string> allowed = NumbersUpTo(shown);
        if (hasMore) {
            allowed.emplace_back("more");
        }
        const std::optional<std::string> answer =
            Choose(run.talk,
                   hasMore ? "Which image is to be restored? Its number, or \"more\" for older ones:"
                           : "Which image is to be restored? Its number:",
                   allowed);
        if (!answer || *answer != "more") {
            return answer ? std::optional<size_t>(std::stoul(*answer) - 1) : std::nullopt;
        }
    }
}

// The place of what is named rclone:REMOTE:PATH/NAME.
static std::string PlaceOfImage(const std::string &text)
{
    const size_t end = text.rfind('/');
    if (end == std::string::npos || end == 0) {
        return text;
    }
    return text.substr(0, text[end - 1] == ':' ? end + 1 : end);
}

static bool TakeGivenImage(RestoreRun &run)
{
    const std::string &given = run.options.image;
    if (!IsRemoteText(given)) {
        KnownFiles known;
        run.image = LookAtImage(given, known);
        return true;
    }
    std::vector<FoundImage> images;
    if (const std::optional<Fault> fault = FindInRemote(PlaceOfImage(given), &images)) {
        return Fail(run, fault->text);
    }
    const auto found = std::find_if(images.begin(), images.end(), [&given](const FoundImage &image) {
        return host::NameOf(image.path) == host::NameOf(given);
    });
    if (found == images.end()) {
        return Fail(run, given + ": there is no such image");
    }
    run.image = std::move(*found);
    return true;
}

static bool ChooseImage(RestoreRun &run)
{
    if (!run.options.image.empty()) {
        if (!TakeGivenImage(run)) {
            return false;
        }
        for (const std::string &line : ImageCard(*run.image)) {
            Say(run.talk, line);
        }
        return run.image->whyNot.empty() || Fail(run, run.options.image + ": " + run.image->whyNot);
    }
    if (!GatherImages(run)) {
        return false;
    }
    for (;;) {
        const std::optional<size_t> chosen = AskForImage(run);
        if (!chosen) {
            return EndTalk(run);
        }
        if (run.images[*chosen].whyNot.empty()) {
            run.image = run.images[*chosen];
            return true;
        }
        Say(run.talk, "That one can't be restored: " + run.images[*chosen].whyNot + ".");
    }
}

// Only an image that was chosen from a list can be changed for another one.
static Step RefuseImage(RestoreRun &run, const std::string &why)
{
    if (!run.options.image.empty()) {
        Fail(run, why);
        return Step::Ended;
    }
    Say(run.talk, "This image is not restored: " + why + ". Nothing was written.");
    return Step::Again;
}

// ---- Its way from a remote ----

static void SayAll(RestoreRun &run, const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        Say(run.talk, line);
    }
}

// Where the disk is known already, hours of fetching are not begun for one that will be refused.
static bool CheckGivenDisk(RestoreRun &run, const std::vector<std::string> &fetchDisks)
{
    if (run.options.disk.empty()) {
        Say(run.talk, "The disk that this folder lies on can't be overwritten then.");
        return true;
    }
    std::vector<DiskFacts> disks;
    if (const host::Trouble trouble = host::ListDisks(&disks)) {
        return Fail(run, "the disks can't be listed: " + *trouble);
    }
    reader::Result<DiskFacts> disk = FindDisk(disks, run.options.disk);
    if (!disk) {
        SayAll(run, DiskCards(disks));
        return Fail(run, disk.fault.text);
    }
    TargetRules rules = RulesOf(run);
    rules.imageDisks = fetchDisks;
    const std::optional<Refusal> refusal = WhyNoTarget(*disk, disks, rules);
    return !refusal || Fail(run, NameOfDisk(*disk) + " can't be overwritten: " + RefusalText(*refusal));
}

// A folder that was asked for and doesn't do can be changed for another one.
static Step ChooseFetch(RestoreRun &run, std::string *folder, FetchPlan *plan)
{
    const std::string &given = run.options.fetchTo;
    for (;;) {
        const std::optional<std::string> typed =
            given.empty() ? Ask(run.talk, "Into which folder are the image and what it stands on to be fetched?")
                          : given;
        if (!typed) {
            EndTalk(run);
            return Step::Ended;
        }
        if (typed->empty()) {
            continue;
        }
        reader::Result<FetchPlan> made = PlanFetch(*run.image, *typed, !run.common.quiet);
        if (made) {
            *folder = *typed;
            *plan = std::move(*made);
            return CheckGivenDisk(run, plan->disks) ? Step::Done : Step::Ended;
        }
        if (!given.empty()) {
            Fail(run, made.fault.text);
            return Step::Ended;
        }
        Say(run.talk, made.fault.text + ".");
    }
}

static std::optional<Fault> FetchAll(RestoreRun &run, const std::string &folder, const FetchPlan &plan)
{
    reader::Result<CopyPlace> parsed = ParsePlace(run.image->place);
    reader::Result<Place> place = parsed ? MakePlace(*parsed) : parsed.fault;
    if (!place) {
        return place.fault;
    }
    host::Lock lock;
    if (std::optional<Fault> fault = LockForFetch(folder, &lock)) {
        return fault;
    }
    for (const ChainFile &file : plan.files) {
        Say(run.talk, "Fetching " + file.name + ", " + SizeText(file.sidecar.fileBytes) + ".");
        Progress progress(!run.common.quiet, file.name, file.sidecar.fileBytes);
        std::optional<Fault> fault =
            FetchFile(*place, file, folder, [&progress](uint64_t bytes) { progress.Add(bytes); });
        progress.Hide();
        if (fault) {
            return fault;
        }
        run.fetched.push_back(file.name);
    }
    return std::nullopt;
}

// What is fetched stays, also where a later step fails: the next restore need not fetch it again.
static Step SettleFetch(RestoreRun &run)
{
    std::string folder;
    FetchPlan plan;
    if (run.image->place.empty()) {
        return Step::Done;
    }
    if (const Step step = ChooseFetch(run, &folder, &plan); step != Step::Done) {
        return step;
    }
    Say(run.talk, "To be fetched from " + run.image->place + " into " + folder + ": " +
                      std::to_string(plan.files.size()) + " of " + Counted(plan.allFiles, "file") + ", " +
                      SizeText(plan.bytes) + "; there is room for " + SizeText(plan.freeBytes) + ".");
    if (const std::optional<Fault> fault = FetchAll(run, folder, plan)) {
        return RefuseImage(run, fault->text);
    }
    KnownFiles known;
    const std::string passwordFile = run.image->passwordFile;
    run.image = LookAtImage(folder + "/" + host::NameOf(run.image->path), known);
    run.image->passwordFile = passwordFile;
    return run.image->whyNot.empty() ? Step::Done : RefuseImage(run, run.image->path + ": " + run.image->whyNot);
}

// ---- Its password ----

static bool TypePassword(RestoreRun &run)
{
    if (const std::string why = host::WhyNoSecretFiles(); !why.empty()) {
        return Fail(run, why + ": name it with --password-file");
    }
    std::optional<std::string> typed;
    do {
        typed = AskSecret(run.talk, "The image is sealed. Its password (it is not shown):");
        if (!typed) {
            return EndTalk(run);
        }
    } while (typed->empty());
    if (const host::Trouble trouble = host::MakeSecretFile(&*typed, &run.secret)) {
        return Fail(run, "the password can't be kept in memory: " + *trouble);
    }
    run.passwordFile = run.secret.path;
    return true;
}

static bool TakePassword(RestoreRun &run)
{
    const std::string &known = run.image->passwordFile;
    if (run.isScript) {
        return Fail(run, run.image->path + ": it is sealed, or stands on an image that is: give --password-file");
    }
    if (known.empty()) {
        return TypePassword(run);
    }
    Say(run.talk, "The image is sealed.");
    Say(run.talk, "1: its password is in " + known + ", as the configuration says");
    Say(run.talk, "2: type the password");
    const std::optional<std::string> answer =
        Choose(run.talk, "Where does the password come from? 1 or 2:", {"1", "2"});
    if (!answer) {
        return EndTalk(run);
    }
    run.passwordFile = known;
    return *answer == "1" || TypePassword(run);
}

static Step SettlePassword(RestoreRun &run)
{
    const bool isAsked = run.image->isSealed && run.options.passwordFile.empty();
    run.passwordFile = run.options.passwordFile;
    if (run.image->isSealed && !isAsked) {
        if (const host::Trouble trouble = host::CheckSecret(run.passwordFile)) {
            return RefuseImage(run, "the password file is refused: " + *trouble +
                                        "; or copy it where root alone can read it, such as below /run, or type the "
                                        "password");
        }
    }
    for (;;) {
        if (isAsked && !TakePassword(run)) {
            return Step::Ended;
        }
        const PasswordTrial trial = TryPassword(run.image->path, {run.passwordFile, run.common.threads, false});
        if (!trial.fault) {
            return Step::Done;
        }
        if (!isAsked || !trial.mayBePassword) {
            return RefuseImage(run, trial.fault->text);
        }
        Say(run.talk, trial.fault->text + ".");
    }
}

// ---- Its audit ----

// The word of the last audit is taken where it is asked for, and only where there is one.
static bool DecideAudit(RestoreRun &run, bool *isTrusted)
{
    const int64_t provedAt = run.image->provedAt;
    *isTrusted = run.options.trustsLastAudit;
    if (*isTrusted || run.isScript || provedAt == 0) {
        return true;
    }
    Say(run.talk, "1: read and check now all that the restore needs, which takes as long as reading those files");
    Say(run.talk, "2: take the word of the last audit, which found it sound by " + LocalTimeText(provedAt));
    const std::optional<std::string> answer = Choose(run.talk, "Is the image to be checked first? 1 or 2:", {"1", "2"});
    *isTrusted = answer && *answer == "2";
    return answer || EndTalk(run);
}

static Step SettleAudit(RestoreRun &run)
{
    bool isTrusted = false;
    if (!DecideAudit(run, &isTrusted)) {
        return Step::Ended;
    }
    if (isTrusted && run.image->provedAt == 0) {
        return RefuseImage(run, run.image->path + ": no audit is on record whose word could be taken; leave out "
                                                  "--trust-last-audit, and it is checked now");
    }
    if (isTrusted) {
        run.audit = "trusted";
        Say(run.talk, "The last audit, by " + LocalTimeText(run.image->provedAt) + ", is trusted.");
        return Step::Done;
    }
    Say(run.talk, "Reading and checking the image and all that it stands on.");
    if (const AuditFault fault =
            AuditChain(run.image->path, {run.passwordFile, run.common.threads, !run.common.quiet})) {
        return RefuseImage(run, "it did not pass its audit: " + fault->text);
    }
    run.audit = "passed";
    Say(run.talk, "The image is sound.");
    return Step::Done;
}

static bool SettleImage(RestoreRun &run)
{
    for (Step step = Step::Again; step != Step::Done;) {
        run.image.reset();
        if (!ChooseImage(run)) {
            return false;
        }
        step = SettleFetch(run);
        step = step == Step::Done ? SettlePassword(run) : step;
        step = step == Step::Done ? SettleAudit(run) : step;
        if (step == Step::Ended) {
            return false;
        }
    }
    return true;
}

// ---- The disk ----

// Where it can't be told what the images lie on, the one who chooses has to know.
static void FindImageDisks(RestoreRun &run)
{
    bool areKnown = true;
    for (const std::string &path : run.image->files) {
        host::FileSystemFacts facts;
        const std::string folder = host::FolderOf(path);
        const bool isFound =
            !host::FileSystemOf(path, &facts) || !host::FileSystemOf(folder.empty() ? "." : folder, &facts);
        areKnown = areKnown && isFound && facts.disksAreKnown;
        run.rules.imageDisks.insert(run.rules.imageDisks.end(), facts.disks.begin(), facts.disks.end());
    }
    if (!areKnown) {
        Say(run.talk,
            "WARNING: on which disk the image lies can't be told. It must not be the one that is overwritten.");
    }
}

static bool ListTheDisks(RestoreRun &run)
{
    const host::Trouble trouble = host::ListDisks(&run.disks);
    return !trouble || Fail(run, "the disks can't be listed: " + *trouble);
}

static void WarnOfUnknownMedium(RestoreRun &run)
{
    const bool isOneShown =
        std::any_of(run.disks.begin(), run.disks.end(), [](const DiskFacts &disk) { return disk.isSystemDisk; });
    if (!run.medium.isKnown && !isOneShown) {
        Say(run.talk, "WARNING: from which disk this system was started can't be told. It must not be the one that is "
                      "overwritten.");
    }
}

static void ShowDisks(RestoreRun &run)
{
    Say(run.talk, "");
    Say(run.talk, "The disks of this machine, with what lies on them:");
    for (const DiskFacts &disk : run.disks) {
        SayAll(run, DiskCard(disk));
        const std::optional<Refusal> refusal = WhyNoTarget(disk, run.disks, run.rules);
        Say(run.talk, refusal ? "  CAN'T BE OVERWRITTEN: " + RefusalText(*refusal) : "  can be overwritten");
    }
    WarnOfUnknownMedium(run);
}

// Of the disks that are shown now.
static std::optional<DiskFacts> AskForDisk(RestoreRun &run)
{
    for (;;) {
        std::vector<std::string> allowed = {"again"};
        if (!ListTheDisks(run)) {
            return std::nullopt;
        }
        ShowDisks(run);
        for (const DiskFacts &disk : run.disks) {
            allowed.push_back(std::to_string(disk.number));
        }
        const std::optional<std::string> answer = Choose(
            run.talk, "Which disk is to be overwritten? Its number, or \"again\" to list the disks anew:", allowed);
        if (!answer) {
            EndTalk(run);
            return std::nullopt;
        }
        const auto chosen = std::find_if(run.disks.begin(), run.disks.end(), [&answer](const DiskFacts &disk) {
            return std::to_string(disk.number) == *answer;
        });
        const std::optional<Refusal> refusal =
            chosen == run.disks.end() ? std::nullopt : WhyNoTarget(*chosen, run.disks, run.rules);
        if (refusal) {
            Say(run.talk, "Disk " + *answer + " can't be overwritten: " + RefusalText(*refusal) + ".");
        } else if (chosen != run.disks.end()) {
            return *chosen;
        }
    }
}

static std::optional<DiskFacts> FindGivenDisk(RestoreRun &run)
{
    if (!ListTheDisks(run)) {
        return std::nullopt;
    }
    WarnOfUnknownMedium(run);
    reader::Result<DiskFacts> found = FindDisk(run.disks, run.options.disk);
    if (!found) {
        SayAll(run, DiskCards(run.disks));
        Fail(run, found.fault.text);
        return std::nullopt;
    }
    SayAll(run, DiskCard(*found));
    if (const std::optional<Refusal> refusal = WhyNoTarget(*found, run.disks, run.rules)) {
        Fail(run, NameOfDisk(*found) + " can't be overwritten: " + RefusalText(*refusal));
        return std::nullopt;
    }
    return std::move(*found);
}

static std::string ProofQuestion(const DiskFacts &disk, const Proof &proof)
{
    const std::string number = "disk " + std::to_string(disk.number);
    return proof.kind == ProofKind::Size ? "To overwrite " + number + ", type its size in bytes:"
                                         : "To overwrite " + number + ", type the last " +
                                               Counted(proof.characters, "character") + " of its serial:";
}

static Step AskForProof(RestoreRun &run, const DiskFacts &disk)
{
    const Proof proof = ProofForPerson(disk, run.disks);
    Say(run.talk, "");
    Say(run.talk,
        "Everything on " + NameOfDisk(disk) + ", " + std::to_string(disk.sizeBytes) + " bytes, will be gone for good.");
    const std::optional<std::string> typed = Ask(run.talk, ProofQuestion(disk, proof));
    if (!typed) {
        EndTalk(run);
        return Step::Ended;
    }
    if (IsProof(proof, disk, *typed)) {
        return Step::Done;
    }
    Say(run.talk, "That is not what this disk has. Nothing was written.");
    return Step::Again;
}

static Step TakeProof(RestoreRun &run, const DiskFacts &disk)
{
    if (run.options.yesOverwrite.empty()) {
        return AskForProof(run, disk);
    }
    const Proof proof = ProofForScript(disk, run.disks);
    if (proof.kind != ProofKind::Nothing && run.options.yesOverwrite == proof.text) {
        return Step::Done;
    }
    Fail(run, "--yes-overwrite does not have the " +
                  std::string(proof.kind == ProofKind::SerialEnd ? "whole serial" : "size in bytes") + " of " +
                  NameOfDisk(disk));
    return Step::Ended;
}

static bool SettleDisk(RestoreRun &run)
{
    run.rules = RulesOf(run);
    FindImageDisks(run);
    for (;;) {
        std::optional<DiskFacts> disk = run.options.disk.empty() ? AskForDisk(run) : FindGivenDisk(run);
        if (!disk) {
            return false;
        }
        const Step step = TakeProof(run, *disk);
        if (step == Step::Done) {
            run.disk = std::move(disk);
            return true;
        }
        if (step == Step::Again && !run.options.disk.empty()) {
            return Fail(run, "what was typed is not what " + NameOfDisk(*disk) + " has");
        }
        if (step == Step::Ended) {
            return false;
        }
    }
}

// ---- The write ----

// The disk as it is now, if it is still the one that was chosen.
static std::optional<DiskFacts> LookAgain(RestoreRun &run, std::vector<DiskFacts> *disks)
{
    const host::Trouble trouble = host::ListDisks(disks);
    if (trouble) {
        Fail(run, "the disks can't be listed again: " + *trouble);
        return std::nullopt;
    }
    const auto same = std::find_if(disks->begin(), disks->end(),
                                   [&run](const DiskFacts &disk) { return IsSameDisk(*run.disk, disk); });
    if (same == disks->end()) {
        Fail(run, NameOfDisk(*run.disk) + " is not there any more, or another disk has taken its place");
        return std::nullopt;
    }
    return *same;
}

// Held first, so that nothing can come between the last look and the write.
static bool HoldTheDisk(RestoreRun &run)
{
    std::vector<DiskFacts> disks;
    const std::string kestrix = host::ProgramBeside("kestrix");
    host::Trouble trouble = host::CheckTrusted(kestrix);
    if (trouble) {
        return Fail(run, kestrix + " is not run: " + *trouble);
    }
    trouble = host::HoldDisk(*run.disk, run.disks, kestrix, &run.held);
    if (trouble) {
        return Fail(run, NameOfDisk(*run.disk) + " can't be held: " + *trouble);
    }
    const std::optional<DiskFacts> now = LookAgain(run, &disks);
    if (!now) {
        return false;
    }
    if (const std::optional<Refusal> refusal = WhyNoTarget(*now, disks, run.rules)) {
        return Fail(run, NameOfDisk(*now) + " can't be overwritten any more: " + RefusalText(*refusal));
    }
    trouble = host::CheckHeldDisk(run.held);
    return !trouble || Fail(run, NameOfDisk(*now) + ": " + *trouble);
}

namespace
{

// What kestrix prints: its lines, and the one that it overwrites again and again.
struct KestrixOutput {
    explicit KestrixOutput(RestoreRun &runToTell)
        : run(runToTell), showsProgress(!runToTell.common.quiet && host::ErrorTerminalColumns() != 0)
    {
    }

    void Add(const std::string &piece)
    {
        for (const char letter : piece) {
            if (letter == '\n') {
                FinishLine();
            } else if (letter == '\r') {
                line.clear();
                isProgress = true;
            } else {
                line += letter;
            }
        }
        if (isProgress && showsProgress) {
            fprintf(stderr, "\r%s", Printable(line).c_str());
        }
    }

    void FinishLine()
    {
        if (isProgress && showsProgress) {
            fprintf(stderr, "\r%s\n", Printable(line).c_str());
        } else if (!isProgress && !line.empty()) {
            lines.push_back(line);
            Say(run.talk, "kestrix: " + line);
        }
        isProgress = false;
        line.clear();
    }

    RestoreRun &run;
    bool showsProgress;
    std::vector<std::string> lines = {};
    std::string line = {};
    bool isProgress = false;
};

} // namespace

static std::string FailureOf(const host::ProgramEnd &end, const std::vector<std::string> &lines)
{
    if (end.wasEnded) {
        return "kestrix was ended before it was done";
    }
    const std::string why = FailureLine(lines);
    return "kestrix ended with exit status " + std::to_string(end.exitStatus) + (why.empty() ? "" : ": " + why);
}

static bool Overwrite(RestoreRun &run)
{
    std::vector<std::string> arguments = {run.held.program, "restore", "--in",
                                          run.image->path,  "--disk",  std::to_string(run.held.number),
                                          "--confirm",      "YES"};
    if (!run.passwordFile.empty()) {
        arguments.insert(arguments.end(), {"--password-file", run.passwordFile});
    }
    Say(run.talk, "Overwriting " + NameOfDisk(*run.disk) + ". Do not switch the machine off.");
    KestrixOutput output(run);
    host::ProgramEnd end;
    const host::Trouble trouble = host::RunProgram(
        {arguments, {}, {}}, [&output](const std::string &piece) { output.Add(piece); }, &end);
    output.FinishLine();
    if (trouble) {
        return Fail(run, run.held.program + ": it can't be started: " + *trouble);
    }
    run.state = StateAfter(end, output.lines);
    return run.state == DiskState::Written || Fail(run, FailureOf(end, output.lines));
}

// ---- The comparison ----

static bool Judge(RestoreRun &run, const reader::Comparison &comparison)
{
    using reader::ChunkState;
    const std::vector<ChunkState> &states = comparison.states;
    const auto bad =
        std::find_if(states.begin(), states.end(), [](ChunkState state) { return state != ChunkState::Equal; });
    if (bad == states.end()) {
        run.isEqual = true;
        Say(run.talk, "The disk was read back: all " + SizeText(run.image->facts.header.diskSize) +
                          " are as the image has them.");
        return true;
    }
    const uint64_t unreadable = comparison.Count(ChunkState::Unreadable);
    const uint64_t first = static_cast<uint64_t>(bad - states.begin()) * run.image->facts.header.chunkSize;
    return Fail(
        run,
        "the disk does not give back what was written to it: " +
            Counted(states.size() - comparison.Count(ChunkState::Equal), "chunk") + " of " +
            std::to_string(states.size()) + ", the first at byte " + std::to_string(first) +
            (unreadable == 0 ? "" : "; " + std::to_string(unreadable) + " can't be read: " + comparison.systemSays));
}

// The disk is looked for before and after it was opened: its number, by which it was opened, was its own all the while.
static bool OpenToCompare(RestoreRun &run, host::Source *source)
{
    std::vector<DiskFacts> disks;
    if (!LookAgain(run, &disks)) {
        return false;
    }
    if (const host::Trouble trouble = host::OpenDisk(run.disk->number, host::Caching::Medium, source)) {
        return Fail(run, NameOfDisk(*run.disk) + " can't be opened to be read back: " + *trouble);
    }
    return LookAgain(run, &disks).has_value();
}

static bool CompareWithImage(RestoreRun &run, const host::InterruptHold &hold)
{
    host::Source source;
    if (!OpenToCompare(run, &source)) {
        return false;
    }
    reader::Result<reader::ImageFile> image = reader::OpenImageFile(run.image->path, host::Caching::Cached);
    if (!image) {
        return Fail(run, image.fault.text);
    }
    if (image->facts.id != run.image->facts.id) {
        return Fail(run, run.image->path + ": it is another image now than it was when it was chosen");
    }
    Say(run.talk, "Reading the disk back, and comparing it with the image.");
    Progress progress(!run.common.quiet, NameOfDisk(*run.disk), image->facts.header.diskSize);
    const auto openAgain = [&source](host::Source *again) { return host::OpenAgain(source, again); };
    reader::Result<reader::Comparison> comparison = reader::CompareWithDisk(
        *image, {source, openAgain}, run.common.threads,
        {[&progress](uint64_t bytes) { progress.Add(bytes); }, [&hold] { return !hold.HasInterrupted(); }});
    progress.Hide();
    if (hold.HasInterrupted()) {
        return Fail(run, "the comparison was interrupted before its end");
    }
    return comparison ? Judge(run, *comparison) : Fail(run, comparison.fault.text);
}

// Interrupted anywhere in it, it still says what the disk holds.
static bool OverwriteAndCompare(RestoreRun &run)
{
    const host::InterruptHold hold;
    return Overwrite(run) && CompareWithImage(run, hold);
}

// ---- A larger disk ----

static bool HasGptToMove(RestoreRun &run)
{
    std::vector<DiskFacts> disks;
    const std::optional<DiskFacts> now = LookAgain(run, &disks);
    return now && now->table == "gpt" && now->sizeBytes > run.rules.diskBytes &&
           now->logicalSectorBytes == run.rules.sectorBytes;
}

// None: it is to be left where it is.
static bool WantsMove(RestoreRun &run)
{
    if (run.isScript) {
        return run.options.movesBackupGpt;
    }
    Say(run.talk,
        "The disk is larger than the image's. The backup of its partition table (GPT) belongs at the end of the "
        "disk.");
    Say(run.talk, "1: move it there with sfdisk, which writes the partition table anew, with the same partitions");
    Say(run.talk, "2: leave it where it is");
    const std::optional<std::string> answer = Choose(run.talk, "Is it to be moved? 1 or 2:", {"1", "2"});
    if (!answer) {
        Say(run.talk, "It is left where it is: " + run.talk.ended + ".");
    }
    return answer && *answer == "1";
}

static bool SettleBackupGpt(RestoreRun &run)
{
    if (run.disk->sizeBytes == run.rules.diskBytes || !HasGptToMove(run)) {
        return run.failure.empty();
    }
    const std::string why = host::WhyNoBackupGptMove();
    if (!why.empty() || !WantsMove(run)) {
        run.remains.push_back(
            "The backup of the partition table (GPT) does not stand at the end of the disk" +
            (why.empty() ? ": sfdisk --relocate gpt-bak-std " + run.disk->node + " moves it." : "; " + why + "."));
        return true;
    }
    const host::InterruptHold hold; // it ends sfdisk in the middle of the table, which is then told
    host::Trouble trouble = host::CheckHeldDisk(run.held);
    trouble = trouble ? trouble : host::MoveBackupGpt(run.held);
    if (trouble) {
        run.remains.push_back("Look at the partition table (sfdisk --list " + run.disk->node +
                              "). If it is as it should be, sfdisk --relocate gpt-bak-std " + run.disk->node +
                              " moves its backup; if not, restore again.");
        return Fail(run, "the backup of the partition table could not be moved to the end of the disk: " + *trouble);
    }
    run.isBackupGptMoved = true;
    Say(run.talk,
        "The backup of the partition table stands at the end of the disk now. What was compared before differs "
        "from the image in that table since.");
    return true;
}

// ---- What remains ----

static void AddLargerDisk(RestoreRun &run)
{
    const uint64_t behind = run.disk->sizeBytes - run.rules.diskBytes;
    run.remains.push_back("The last " + SizeText(behind) + " of the disk, from byte " +
                          std::to_string(run.rules.diskBytes) +
                          " on, were not written. What the disk held there before can break the first start (an old "
                          "RAID, volume or file system that is found there): if so, wipe that part.");
    run.remains.push_back("The last partition can be grown into that room, after the first start.");
}

// Two disks with the same identifiers in one machine: the system may start from one and go on with the other.
static void AddOldDisk(RestoreRun &run)
{
    const std::string serial = run.image->sidecar ? run.image->sidecar->disk.serial : std::string();
    if (!serial.empty() && serial == run.disk->serial) {
        return; // onto the very disk that the image was made of
    }
    const auto old = std::find_if(run.disks.begin(), run.disks.end(), [&serial](const DiskFacts &disk) {
        return !serial.empty() && disk.serial == serial;
    });
    run.remains.push_back(
        old == run.disks.end()
            ? "If the disk that the image was made of is still in the machine: the two have the same identifiers now; "
              "unplug one before the first start."
            : "The disk that the image was made of is still connected: " + NameOfDisk(*old) +
                  ". The two have the same identifiers now: unplug one before the first start.");
}

static void TellWhatRemains(RestoreRun &run)
{
    AddOldDisk(run);
    if (run.disk->sizeBytes > run.rules.diskBytes) {
        AddLargerDisk(run);
    }
    if (run.disk->logicalSectorBytes != run.rules.sectorBytes) {
        run.remains.emplace_back("The sectors of the disk are not as long as those of the image's disk: the partitions "
                                 "are not found where the table says, and it will not start as it is.");
    }
    run.remains.emplace_back(
        "On another mainboard the boot entry is missing: choose the disk in the firmware's boot menu, "
        "and make the entry anew from the system that was restored (efibootmgr, bcdboot).");
    run.remains.emplace_back(
        "Start from the disk once, and look whether all is there, before the old disk or the image is "
        "let go.");
    Say(run.talk, "What remains to be done:");
    for (size_t i = 0; i < run.remains.size(); ++i) {
        Say(run.talk, "  " + std::to_string(i + 1) + ". " + run.remains[i]);
    }
}

// ---- The report ----

static std::string StateText(const RestoreRun &run)
{
    if (run.state == DiskState::Untouched) {
        return "Nothing was written.";
    }
    const std::string name = NameOfDisk(*run.disk);
    if (run.state == DiskState::PartlyWritten) {
        return name +
               " IS PARTLY WRITTEN, or may be: it holds neither what it held nor the image. Do not start from it; "
               "restore again.";
    }
    return run.isEqual ? name + " was written whole, and was equal to the image when it was compared."
                       : name + " was written, but that it holds what the image has is NOT PROVED. Do not rely on it.";
}

static void Report(RestoreRun &run)
{
    Say(run.talk, "");
    if (run.failure.empty()) {
        Say(run.talk, "RESTORED: " + run.image->path + " onto " + NameOfDisk(*run.disk) + ", and compared.");
        return;
    }
    Say(run.talk, "NOT DONE: " + run.failure + ".");
    Say(run.talk, StateText(run));
    FlushOutput();
}

static void ReportJson(const RestoreRun &run)
{
    static const char *const states[] = {"untouched", "partlyWritten", "written"};
    JsonOutput output(run.common.json);
    output.Member("result", run.failure.empty() ? "restored" : "failed");
    output.Member("failure", run.failure.empty() ? Json(nullptr) : Json(run.failure));
    output.Member("diskState", states[static_cast<size_t>(run.state)]);
    output.Member("equal", run.isEqual);
    output.Member("audit", run.audit);
    output.Member("fetched", run.fetched);
    output.Member("image", run.image ? JsonOf(*run.image) : Json(nullptr));
    output.Member("disk", run.disk ? DiskJson(*run.disk) : Json(nullptr));
    output.Member("backupGptMoved", run.isBackupGptMoved);
    output.Member("remains", run.remains);
    output.Member("lines", run.talk.lines);
}

static bool RunSteps(RestoreRun &run)
{
    if (!SettleImage(run) || !SettleDisk(run) || !HoldTheDisk(run) || !OverwriteAndCompare(run)) {
        return false;
    }
    const bool isSettled = SettleBackupGpt(run);
    TellWhatRemains(run);
    return isSettled;
}

// What the options that name places ask of one another; empty if all is well.
static std::string FaultOfPlaces(const RestoreRun &run)
{
    const RestoreOptions &options = run.options;
    const std::string given = options.image.empty() ? options.from : PlaceOfImage(options.image);
    reader::Result<CopyPlace> parsed = ParsePlace(given);
    if (!parsed) {
        return (options.image.empty() ? "--from: " : "--image: ") + parsed.fault.text;
    }
    if (run.isScript && IsRemoteText(given) && options.fetchTo.empty()) {
        return "an image of rclone's has to be fetched: give --fetch-to";
    }
    return !given.empty() && !IsRemoteText(given) && !options.fetchTo.empty()
               ? "--fetch-to is for images in a place of rclone's, as rclone:REMOTE:PATH"
               : "";
}

int Restore(const KeepOptions &common, const RestoreOptions &options)
{
    RestoreRun run(common, options);
    run.isScript = !options.image.empty() && !options.disk.empty() && !options.yesOverwrite.empty();
    if (common.json && !run.isScript) {
        PrintFault("with --json nobody is asked: give --image, --disk and --yes-overwrite");
        return exitCommandLine;
    }
    if (const std::string fault = FaultOfPlaces(run); !fault.empty()) {
        PrintFault(fault);
        return exitCommandLine;
    }
    run.talk.speaks = !common.json;
    run.talk.asks = !run.isScript;
    const bool isDone = RunSteps(run);
    Report(run);
    ReportJson(run);
    return isDone ? exitWell : exitFailed;
}
