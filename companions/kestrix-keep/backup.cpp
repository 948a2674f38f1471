// One run of a job.
//
// The steps: a look whether another run is under way; the program before; the folder's file system; its lock; the disk,
// held; what lies in the folder, and what dead runs left of it; full or thin, and on what, which is read whole first
// where that is due; room; the capture under a name that is no image's; the audit of what it wrote; sidecar and final
// name; the chain as one, where its audit is due; what is let go; the report, and the programs that want it. What fails
// ends the run, but for the report.
#include "kestrix-keep/backup.h"

#include "kestrix-keep/audit.h"
#include "kestrix-keep/capture.h"
#include "kestrix-keep/clock.h"
#include "kestrix-keep/copies.h"
#include "kestrix-keep/disk_cards.h"
#include "kestrix-keep/guest.h"
#include "kestrix-keep/plan.h"
#include "report/report.h"

#include <algorithm>
#include <set>

struct Run {
    const Job &job;
    const RunOptions &options;
    RunReport report;
    host::Lock lock;
    bool holdsFolder = false;
    host::DiskFacts facts;
    DiskIdentity disk;
    host::HeldDisk held;
    JobFolder folder;
    CapturePlan plan;
    bool chainIsDue = false; // the audit of the newest chain as one is still to come, or was not passed in this run
};

// ---- Saying what is done ----

static int64_t TimeNow(const Run &run)
{
    return run.options.now.value_or(Now());
}

static void Say(Run &run, const std::string &line)
{
    run.report.lines.push_back(line);
    if (run.options.speaks) {
        PrintLine("  " + line);
        FlushOutput();
    }
}

static void Warn(Run &run, const std::string &line)
{
    run.report.warnings.push_back(line);
    if (run.options.speaks) {
        PrintLine("  WARNING: " + line);
        FlushOutput();
    }
}

// The first one is the run's failure; those behind it stand among its lines.
static bool Fail(Run &run, const std::string &sentence, int status = exitFailed)
{
    if (run.report.failure.empty()) {
        run.report.failure = sentence;
        run.report.status = status;
    } else {
        run.report.lines.push_back("FAILED: " + sentence);
    }
    if (run.options.speaks) {
        PrintLine("  FAILED: " + sentence);
        FlushOutput();
    }
    return false;
}

// ---- The folder and the disk ----

// Empty: the job's folder may be written to where it lies.
static std::string WhyNotThisFileSystem(const Job &job, const host::FileSystemFacts &facts)
{
    if (!job.fileSystemUuid.empty() && job.fileSystemUuid != facts.uuid) {
        return job.folder + ": it lies on the file system " + (facts.uuid.empty() ? "of an unknown UUID" : facts.uuid) +
               ", not on " + job.fileSystemUuid + ": is the backup disk mounted?";
    }
    if (!job.fileSystemSource.empty() && job.fileSystemSource != facts.source) {
        return job.folder + ": it lies on " + facts.source + ", not on " + job.fileSystemSource +
               ": is the share mounted?";
    }
    return facts.isReadOnly ? job.folder + ": its file system is read-only" : "";
}

static bool CheckFileSystem(Run &run, const host::FileSystemFacts &facts)
{
    const Job &job = run.job;
    const std::string why = WhyNotThisFileSystem(job, facts);
    if (!why.empty()) {
        return Fail(run, why);
    }
    if (job.fileSystemUuid.empty() && job.fileSystemSource.empty()) {
        Warn(run, job.folder + ": nothing says which file system it has to lie on, so that a backup disk that isn't "
                               "mounted would not be noticed: set folder-must-be");
    }
    return true;
}

static bool TakeFolder(Run &run)
{
    std::string trouble;
    const std::string path = LockPath(run.job.folder);
    if (run.options.isDryRun) { // which writes nothing
        return true;
    }
    switch (host::TakeLock(path, &run.lock, &trouble)) {
    case host::LockResult::Held:
        run.holdsFolder = true;
        return true;
    case host::LockResult::Busy:
        return Fail(run, run.job.folder + ": another run holds it", exitBusy);
    case host::LockResult::NoLocks:
        if (run.job.folderWithoutLocks) {
            Warn(run, run.job.folder + ": its file system knows no locks; that no other run is there is not known");
            run.holdsFolder = true;
            return true;
        }
        return Fail(run, run.job.folder + ": its file system knows no locks: folder-without-locks = true takes it "
                                          "nevertheless");
    case host::LockResult::Failed:
        break;
    }
    return Fail(run, path + ": " + trouble);
}

static bool LiesOn(const host::FileSystemFacts &facts, const host::DiskFacts &disk)
{
    const std::string name = disk.deviceNumber.empty() ? std::to_string(disk.number) : disk.deviceNumber;
    return disk.file == host::FileIdentity() &&
           std::find(facts.disks.begin(), facts.disks.end(), name) != facts.disks.end();
}

static bool FindTheDisk(Run &run, const host::FileSystemFacts &facts)
{
    std::vector<host::DiskFacts> disks;
    if (const host::Trouble trouble = host::ListDisks(&disks)) {
        return Fail(run, "the disks can't be listed: " + *trouble);
    }
    reader::Result<host::DiskFacts> found = FindDisk(disks, run.job.disk);
    if (!found) {
        Fail(run, found.fault.text);
        for (const std::string &line : DiskCards(disks)) {
            Say(run, line);
        }
        return false;
    }
    run.facts = *found;
    run.disk = {found->model, found->serial, found->wwn, found->sizeBytes, found->logicalSectorBytes};
    if (LiesOn(facts, run.facts)) {
        return Fail(run, run.job.folder + ": it lies on the very disk that is to be captured");
    }
    if (!facts.disksAreKnown) {
        Warn(run, run.job.folder + ": which disk it lies on can't be told; it must not be the one that is captured");
    }
    Say(run, "disk " + std::to_string(found->number) + ": " + (found->model.empty() ? "unknown model" : found->model) +
                 ", " + (found->serial.empty() ? "no serial" : "serial " + found->serial) + ", " +
                 SizeText(found->sizeBytes));
    if (found->serial.empty() && found->wwn.empty()) {
        Warn(run, "disk " + std::to_string(found->number) +
                      " has neither serial nor WWN: another one of its model and size would be taken for it");
    }
    if (run.options.isDryRun) {
        return true;
    }
    const std::string kestrix = host::ProgramBeside("kestrix");
    if (const host::Trouble trouble = host::CheckTrusted(kestrix)) {
        return Fail(run, kestrix + " is not run: " + *trouble);
    }
    const host::Trouble trouble = host::HoldDisk(run.facts, disks, kestrix, &run.held);
    return !trouble || Fail(run, "disk " + std::to_string(found->number) + " can't be held: " + *trouble);
}

// kestrix-vm runs the kestrix beside it.
static bool FindTheGuestsDisk(Run &run)
{
    const std::string program = host::ProgramBeside("kestrix-vm");
    for (const std::string &one : {program, host::ProgramBeside("kestrix")}) {
        if (const host::Trouble trouble = host::CheckTrusted(one)) {
            return Fail(run, one + " is not run: " + *trouble);
        }
    }
    if (const host::Trouble trouble = host::CheckTrustedTree(ModulesOf(program))) {
        return Fail(run, program + " is not run: " + *trouble);
    }
    reader::Result<FoundGuestDisk> found = FindGuestDisk(program, *run.job.guest);
    if (!found) {
        return Fail(run, found.fault.text);
    }
    run.disk = found->identity;
    Say(run, "disk " + run.disk.serial + " of a virtual machine: " + found->format + ", " + found->file + ", " +
                 SizeText(run.disk.sizeBytes));
    return true;
}

// ---- What dead runs left ----

// An image that was audited has its sidecar already, and gets its name now; any other one is nothing.
static void FinishOrRemove(Run &run, const std::string &name)
{
    const std::string path = run.folder.path + "/" + name;
    const std::string imageName = WithoutEnding(name, NameInTheMaking(""));
    const std::string imagePath = run.folder.path + "/" + imageName;
    const std::string goes = WithoutEnding(name, std::string(".json") + endingOfWhatGoes);
    host::Trouble trouble;
    std::string done;
    if (!goes.empty()) { // it was being let go
        const std::string goesPath = run.folder.path + "/" + goes;
        trouble = host::RemoveName(goesPath);
        // Where no renaming refuses to replace, the sidecar has both names for a moment.
        trouble = trouble ? trouble : host::RemoveName(SidecarPath(goesPath));
        trouble = trouble ? trouble : host::RemoveName(path);
        done = goes + ": an earlier run let it go and did not come to its end; it is gone now";
    } else if (!imageName.empty() && !host::NameIsFree(SidecarPath(imagePath)) && host::NameIsFree(imagePath)) {
        trouble = host::GiveFinalName(path, imagePath);
        done = imageName + ": an earlier run had made and checked it, and was ended before it had its name; it has it "
                           "now";
    } else {
        trouble = host::RemoveName(path);
        done = name + ": an earlier run did not come to its end; this is what it left, and it is removed";
    }
    if (trouble) {
        Warn(run, path + ": an earlier run left it, and it can't be put in order: " + *trouble);
    } else {
        Say(run, done);
    }
}

static bool ReadFolder(Run &run)
{
    for (const bool isFirst : {true, false}) {
        reader::Result<JobFolder> read = ReadJobFolder(run.job.folder, run.job.name);
        if (!read) {
            return Fail(run, read.fault.text);
        }
        run.folder = std::move(*read);
        if (!isFirst || run.folder.leftovers.empty() || run.options.isDryRun) {
            break;
        }
        const std::vector<std::string> leftovers = run.folder.leftovers;
        for (const std::string &name : leftovers) {
            FinishOrRemove(run, name);
        }
    }
    for (const std::string &note : run.folder.notes) {
        if (std::find(run.report.warnings.begin(), run.report.warnings.end(), note) == run.report.warnings.end()) {
            Warn(run, note);
        }
    }
    return true;
}

// ---- Files read whole ----

static host::Trouble StoreSidecar(const Run &run, const KeptImage &image)
{
    return WriteSidecar(SidecarPath(PathOf(run.folder, image)), *image.sidecar);
}

// Notes damage for this run and for those to come.
static void KeepDamage(Run &run, size_t index, const std::string &damage)
{
    KeptImage &image = run.folder.images[index];
    image.sidecar->isSound = false;
    image.sidecar->damage = damage;
    if (const host::Trouble trouble = StoreSidecar(run, image)) {
        Warn(run, SidecarPath(PathOf(run.folder, image)) + ": " + *trouble);
    }
    NoteDamage(run.folder, index, damage);
}

// The same for what could not be read, which is no verdict on the image.
static void KeepUnread(Run &run, size_t index, const std::string &why)
{
    KeptImage &image = run.folder.images[index];
    image.sidecar->unread = why;
    if (const host::Trouble trouble = StoreSidecar(run, image)) {
        Warn(run, SidecarPath(PathOf(run.folder, image)) + ": " + *trouble);
    }
    NoteUnread(run.folder, index, why);
    Fail(run, why + ". That is no verdict on the image: it is read again in the next run");
}

static std::string ChangedText(const KeptImage &image)
{
    return image.name + ": it is no longer what was written: its SHA-256 is another";
}

// Reads the whole file, and writes into its sidecar what came of it.
static void ProveFile(Run &run, size_t index)
{
    KeptImage &image = run.folder.images[index];
    Progress progress(run.options.showsProgress, "reading " + image.name, image.sidecar->fileBytes);
    reader::Result<FileDigest> digest = DigestFile(PathOf(run.folder, image), host::Caching::Medium,
                                                   [&progress](uint64_t bytes) { progress.Add(bytes); });
    progress.Hide();
    if (!digest) {
        KeepUnread(run, index, digest.fault.text);
        return;
    }
    if (digest->sha256 != image.sidecar->sha256) {
        const std::string damage = ChangedText(image);
        KeepDamage(run, index, damage);
        Fail(run, damage);
        return;
    }
    image.sidecar->unread.clear();
    image.sidecar->provedAt = TimeNow(run);
    if (const host::Trouble trouble = StoreSidecar(run, image)) {
        Warn(run, SidecarPath(PathOf(run.folder, image)) + ": " + *trouble);
    }
}

// When the image's chain last passed an audit as one. What came onto it since was audited by itself.
static int64_t ChainPassedAt(const Run &run, size_t image)
{
    const PassedChain &passed = run.folder.memory.passedChain;
    const bool isMeant = passed.full == run.folder.images[ChainOf(run.folder, image).back()].name;
    return isMeant ? TimeOfProof(passed.at, TimeNow(run)) : 0;
}

static bool IsLately(const Run &run, int64_t time)
{
    return TimeNow(run) - time < run.job.check.wholeEverySeconds;
}

static void NoteChainPassed(Run &run, size_t newest)
{
    run.folder.memory.passedChain = {run.folder.images[ChainOf(run.folder, newest).back()].name, TimeNow(run)};
    run.chainIsDue = false;
}

// What could not be read whole is read once more: nobody else would clear it of that.
static void ReadUnreadAgain(Run &run)
{
    bool isAnyRead = false;
    for (size_t i = 0; i < run.folder.images.size() && !run.options.isDryRun; ++i) {
        const KeptImage &image = run.folder.images[i];
        if (image.isThere && !image.isDamaged && image.sidecar && !image.sidecar->unread.empty()) {
            Say(run, image.name + " could not be read, and is read whole again");
            ProveFile(run, i);
            isAnyRead = isAnyRead || image.sidecar->unread.empty();
        }
    }
    if (isAnyRead) {
        ReadFolder(run);
    }
}

// A file that was changed since it was made is found before anything stands on it.
static void ProveBase(Run &run)
{
    const size_t base = run.plan.base;
    if (run.options.isDryRun || IsLately(run, FilesProvedAt(run.folder, base, TimeNow(run)))) {
        return;
    }
    Say(run, run.folder.images[base].name + " and all that it stands on are read whole first, since that is due");
    for (const size_t i : ChainOf(run.folder, base)) {
        ProveFile(run, i);
    }
    run.chainIsDue = true;
}

// ---- The capture ----

// What is found is known to the rest of the run, which reads the folder again, and to the runs to come.
static void LookAtBase(Run &run)
{
    for (const size_t i : CheckChainFiles(run.folder, run.plan.base)) {
        const std::string found = run.folder.images[i].doubt;
        if (run.options.isDryRun) {
            continue;
        }
        if (run.folder.images[i].isDamaged) {
            KeepDamage(run, i, found);
        } else {
            KeepUnread(run, i, found);
        }
    }
}

static bool MayBeBase(const Run &run)
{
    const KeptImage &base = run.folder.images[run.plan.base];
    return base.doubt.empty() && base.chainLength != 0 && base.whyNoBase.empty();
}

static AuditOptions OptionsOfAudit(const Run &run)
{
    return {run.job.passwordFile, run.options.threads, run.options.showsProgress};
}

// No image stands on this one, nor on what stands on it.
static void RefuseAsBase(Run &run, size_t refused, const std::string &why)
{
    for (size_t i = 0; i < run.folder.images.size(); ++i) {
        const std::vector<size_t> chain = ChainOf(run.folder, i);
        if (std::find(chain.begin(), chain.end(), refused) != chain.end()) {
            run.folder.images[i].whyNoBase = why;
        }
    }
}

// What the password does not open is damaged, or was sealed with another one: its digest tells which.
static void JudgeUnopened(Run &run, size_t index)
{
    const KeptImage &image = run.folder.images[index];
    reader::Result<FileDigest> digest = DigestFile(PathOf(run.folder, image), host::Caching::Medium);
    if (!digest) {
        RefuseAsBase(run, index, digest.fault.text);
        return;
    }
    if (digest->sha256 != image.sidecar->sha256) {
        const std::string damage = ChangedText(image);
        RefuseAsBase(run, index, damage);
        if (!run.options.isDryRun) {
            KeepDamage(run, index, damage);
            Fail(run, damage);
        }
        return;
    }
    const std::string why = "the password in " + run.job.passwordFile + " does not open " + image.name +
                            ", which is as it was made: the password file was changed";
    RefuseAsBase(run, index, why);
    Warn(run, why + ". No image is made that needs two passwords; keep the old one as long as you keep that image and "
                    "those that stand on it");
}

// An image of a chain that was sealed with another password would need two of them, and be lost with either.
static void TryPasswordOnBase(Run &run)
{
    const size_t base = run.plan.base;
    const std::vector<size_t> chain = ChainOf(run.folder, base);
    const auto isSealed = [&run](size_t i) { return run.folder.images[i].sidecar->isSealed; };
    if (std::none_of(chain.begin(), chain.end(), isSealed)) {
        return;
    }
    const PasswordTrial trial = TryPassword(PathOf(run.folder, run.folder.images[base]), OptionsOfAudit(run));
    const auto blamed = std::find_if(chain.begin(), chain.end(), [&](size_t i) {
        return trial.mayBePassword && run.folder.images[i].name == host::NameOf(trial.image);
    });
    if (blamed != chain.end()) {
        JudgeUnopened(run, *blamed);
    } else if (trial.fault) {
        RefuseAsBase(run, base, trial.fault->text);
    }
}

// A base is looked at before it is one; what is found against it may leave another one, or none.
static void DecideKind(Run &run)
{
    for (bool isSettled = false; !isSettled;) {
        run.plan = MakePlan(run.job, run.folder, run.disk, TimeNow(run));
        if (run.plan.base == noImage) {
            break;
        }
        LookAtBase(run);
        if (MayBeBase(run)) {
            TryPasswordOnBase(run);
        }
        if (MayBeBase(run)) {
            ProveBase(run);
            isSettled = MayBeBase(run);
        }
    }
    for (const std::string &reason : run.plan.reasons) {
        Say(run, reason);
    }
}

// Asked for now: what a dead run left may just have made room.
static bool HasRoom(Run &run)
{
    host::FileSystemFacts facts;
    if (const host::Trouble trouble = host::FileSystemOf(run.job.folder, &facts)) {
        return Fail(run, run.job.folder + ": how much room there is can't be told: " + *trouble);
    }
    const uint64_t needed = RoomNeeded(run.folder, run.plan, run.disk);
    if (facts.freeBytes < needed) {
        return Fail(run, run.job.folder + ": there is room for " + SizeText(facts.freeBytes) +
                             ", and the image may take " + SizeText(needed) +
                             "; images go only behind a new one. Make room: by other files, or by old images that "
                             "nothing stands on (kestrix-image tree tells which), each with its sidecar");
    }
    return true;
}

// The second of the run, or the next one that no image was ever named by. None: a whole day has none, as where the
// folder can't be looked at any more.
static std::optional<int64_t> FreeTime(const Run &run)
{
    const std::vector<std::string> &stamps = run.folder.memory.stamps;
    const std::set<std::string> used(stamps.begin(), stamps.end());
    int64_t time = TimeNow(run);
    const auto isUsed = [&](int64_t one) {
        const std::string path = run.folder.path + "/" + ImageName(run.job.name, one);
        return used.count(StampOf(one)) != 0 || !host::NameIsFree(path) || !host::NameIsFree(SidecarPath(path));
    };
    const int64_t end = time + secondsPerDay;
    while (time != end && isUsed(time)) {
        ++time;
    }
    return time == end ? std::nullopt : std::optional<int64_t>(time);
}

static CaptureOutcome CaptureTo(Run &run, const std::string &path)
{
    CaptureOrder order;
    order.guest = run.job.guest;
    order.program = order.guest ? host::ProgramBeside("kestrix-vm") : run.held.program;
    order.disk = run.held.number;
    order.outPath = path;
    order.basePath = run.plan.base == noImage ? "" : PathOf(run.folder, run.folder.images[run.plan.base]);
    order.passwordFile = run.job.passwordFile;
    order.usesSnapshots = run.job.snapshots;
    CaptureOutcome outcome = RunCapture(order, [&run](const std::string &line) { Say(run, "kestrix: " + line); });
    if (outcome.failure.empty() && !order.guest) {
        if (const host::Trouble trouble = host::CheckHeldDisk(run.held)) {
            outcome.failure = "disk " + std::to_string(run.held.number) + ": " + *trouble;
        }
    }
    return outcome;
}

// What one has to know of the image in a year's time.
static std::vector<std::string> NotesOfImage(const Run &run, const CaptureOutcome &outcome)
{
    std::vector<std::string> notes = NotesOf(outcome.lines);
    const bool wasInUse = run.facts.isInUse || run.facts.isSystemDisk;
    if (wasInUse && !run.job.snapshots) { // of snapshots the lines tell
        notes.emplace_back("read live: the disk was in use, and the image holds what a power cut might have left");
    }
    return notes;
}

static uint64_t NextNumber(const JobFolder &folder)
{
    uint64_t number = folder.memory.lastNumber + 1;
    for (const KeptImage &image : folder.images) {
        number = image.sidecar ? std::max(number, image.sidecar->number + 1) : number;
    }
    return number;
}

// The sidecar of an image that has passed its audit.
static Sidecar DescribeImage(const Run &run, const reader::ImageFacts &facts, const FileDigest &digest,
                             const CaptureOutcome &outcome)
{
    Sidecar sidecar;
    sidecar.job = run.job.name;
    sidecar.machine = host::MachineName();
    sidecar.number = NextNumber(run.folder);
    sidecar.disk = run.disk;
    sidecar.startedAt = run.report.startedAt;
    sidecar.endedAt = TimeNow(run);
    sidecar.startedLocal = LocalTimeText(sidecar.startedAt);
    sidecar.base = facts.trailer ? facts.trailer->baseName.c_str() : "";
    sidecar.baseIdentity = facts.trailer ? IdText(facts.trailer->basePin) : "";
    sidecar.identity = IdText(facts.id);
    sidecar.fileBytes = digest.bytes;
    sidecar.sha256 = digest.sha256;
    sidecar.chunks = facts.header.chunkCount;
    sidecar.storedChunks = facts.storedChunks;
    sidecar.isSealed = reader::IsSealed(facts.header);
    sidecar.captureLines = outcome.lines;
    sidecar.notes = NotesOfImage(run, outcome);
    sidecar.isSound = true;
    sidecar.provedAt = TimeNow(run);
    sidecar.mayNotBeBase = WhyNoBaseAfter(outcome.lines);
    return sidecar;
}

// Sidecar first: an image under its own name always has one.
static bool NameImage(Run &run, const std::string &path, const std::string &name, const Sidecar &sidecar)
{
    const std::string finalPath = run.folder.path + "/" + name;
    JobMemory &memory = run.folder.memory;
    memory.lastNumber = sidecar.number;
    memory.stamps.push_back(StampOf(*TimeOfImageName(run.job.name, name)));
    host::Trouble trouble = WriteMemory(MemoryPath(run.folder.path, run.job.name), memory);
    trouble = trouble ? trouble : WriteSidecar(SidecarPath(finalPath), sidecar);
    trouble = trouble ? trouble : host::GiveFinalName(path, finalPath);
    if (trouble) {
        Fail(run, finalPath + ": it can't get its name: " + *trouble);
        if (host::NameIsFree(finalPath)) { // or its sidecar would tell of an image that is gone
            if (const host::Trouble left = host::RemoveName(SidecarPath(finalPath))) {
                Warn(run, SidecarPath(finalPath) + ": it can't be removed: " + *left);
            }
        }
        return false;
    }
    run.report.image = name;
    return true;
}

// The digest comes first, while what was written is still in memory: the audit reads it from the medium, and once is
// enough.
static bool AuditAndName(Run &run, const std::string &path, const std::string &name, const CaptureOutcome &outcome)
{
    reader::Result<FileDigest> digest = DigestFile(path, host::Caching::Cached);
    if (!digest) {
        return Fail(run, digest.fault.text);
    }
    if (const host::Trouble trouble = host::BringToDisk(path)) { // before the audit reads what lies there
        return Fail(run, path + ": it can't be brought to the disk: " + *trouble);
    }
    if (const AuditFault fault = run.job.check.each == CheckDepth::Whole ? AuditChain(path, OptionsOfAudit(run))
                                                                         : AuditOwnChunks(path, OptionsOfAudit(run))) {
        return Fail(run, "the new image did not pass its audit: " + fault->text);
    }
    const reader::ImageFacts facts = reader::ReadImageFacts(path, false);
    if (facts.kind != reader::FileKind::Image) {
        return Fail(run, path + ": it can't be read again");
    }
    const Sidecar sidecar = DescribeImage(run, facts, *digest, outcome);
    for (const std::string &note : sidecar.notes) {
        Say(run, "note: " + note);
    }
    run.report.notes = sidecar.notes;
    return NameImage(run, path, name, sidecar);
}

static bool MakeImage(Run &run)
{
    const std::optional<int64_t> time = FreeTime(run);
    if (!time) {
        return Fail(run, run.job.folder + ": no name for an image is free there, or it can't be looked at any more");
    }
    const std::string name = ImageName(run.job.name, *time);
    const std::string path = run.folder.path + "/" + NameInTheMaking(name);
    Say(run, "capturing into " + name);
    const CaptureOutcome outcome = CaptureTo(run, path);
    const bool isMade = outcome.failure.empty() ? AuditAndName(run, path, name, outcome) : Fail(run, outcome.failure);
    if (!isMade) {
        if (const host::Trouble trouble = host::RemoveName(path)) {
            Warn(run, path + ": it can't be removed: " + *trouble);
        }
    }
    return isMade;
}

// The file that is damaged is no base again, nor is what stands on it. Where each passes by itself, it is the newest
// that doesn't fit.
static void KeepChainDamage(Run &run, size_t newest, const std::string &what)
{
    bool isFound = false;
    for (const size_t i : ChainOf(run.folder, newest)) {
        const AuditFault fault = AuditOwnChunks(PathOf(run.folder, run.folder.images[i]), OptionsOfAudit(run));
        if (fault && fault->kind == reader::FaultKind::Damaged) {
            KeepDamage(run, i, fault->text);
            isFound = true;
        }
    }
    if (!isFound) {
        KeepDamage(run, newest, what);
    }
}

// With what the run added to it.
static void AuditChainIfDue(Run &run)
{
    const size_t newest = NewestSound(run.folder);
    if (newest == noImage) {
        return;
    }
    run.chainIsDue = run.chainIsDue || !IsLately(run, ChainPassedAt(run, newest));
    const bool isNew = run.folder.images[newest].name == run.report.image;
    if (isNew && (run.plan.base == noImage || run.job.check.each == CheckDepth::Whole)) {
        NoteChainPassed(run, newest); // its own audit was that of its chain
        return;
    }
    if (!run.chainIsDue) {
        return;
    }
    Say(run, "the chain of " + run.folder.images[newest].name + " is audited as one, since that is due");
    if (const AuditFault fault = AuditChain(PathOf(run.folder, run.folder.images[newest]), OptionsOfAudit(run))) {
        Fail(run, "the chain did not pass its audit: " + fault->text);
        if (fault->kind == reader::FaultKind::Damaged) {
            KeepChainDamage(run, newest, fault->text);
        }
        return;
    }
    NoteChainPassed(run, newest);
}

// ---- Letting go ----

static RetentionState StateOfRetention(const Run &run)
{
    const size_t newest = NewestSound(run.folder);
    if (newest == noImage) {
        return {TimeNow(run), false, "there is no sound image"};
    }
    if (run.chainIsDue) {
        return {TimeNow(run), false, "it did not pass the one of this run"};
    }
    const int64_t provedAt = std::min(FilesProvedAt(run.folder, newest, TimeNow(run)), ChainPassedAt(run, newest));
    const std::string since = provedAt == 0 ? "when it last did is not known"
                                            : "the last one was " + AgeText(TimeNow(run) - provedAt) + " ago";
    return {TimeNow(run), IsLately(run, provedAt), since};
}

// From the renaming on the image is gone, whenever the rest comes to be done.
static bool LetGo(Run &run, const KeptImage &image)
{
    const std::string path = PathOf(run.folder, image);
    const std::string mark = SidecarPath(path) + endingOfWhatGoes;
    host::Trouble trouble = host::GiveFinalName(SidecarPath(path), mark);
    trouble = trouble ? trouble : host::RemoveName(path);
    trouble = trouble ? trouble : host::RemoveName(mark);
    if (trouble) {
        return Fail(run, path + ": it can't be let go: " + *trouble);
    }
    run.report.letGo.push_back(image.name);
    return true;
}

// A dry run decides with the image that it would make.
static RetainedImage ImageToCome(const Run &run)
{
    RetainedImage image;
    image.number = NextNumber(run.folder);
    image.time = TimeNow(run);
    image.isOurs = true;
    image.isSound = true;
    image.base = run.plan.base;
    return image;
}

static void ApplyRetention(Run &run)
{
    std::vector<RetainedImage> images = RetainedImagesOf(run.folder);
    if (run.options.isDryRun) {
        images.push_back(ImageToCome(run));
    }
    const std::vector<Decision> decisions = DecideRetention(images, run.job.keep, StateOfRetention(run));
    std::string stuck;                                    // what could not go; it may stand on any of those behind it
    for (size_t i = run.folder.images.size(); i-- > 0;) { // what stands on another one goes before it
        const KeptImage &image = run.folder.images[i];
        const Decision &decision = decisions[i];
        if (decision.isLetGo && !stuck.empty()) {
            Say(run, "kept: " + image.name + ": " + stuck + " has to go before it");
            continue;
        }
        Say(run, (decision.isLetGo ? "let go: " : "kept: ") + image.name + ": " + ReasonsText(decision));
        if (decision.isLetGo && !run.options.isDryRun && !LetGo(run, image)) {
            stuck = image.name;
        }
    }
}

// ---- Copies ----

static bool IsSameFolder(const std::string &left, const std::string &right)
{
    host::FileIdentity first;
    host::FileIdentity second;
    return host::ResolvedPath(left) == host::ResolvedPath(right) ||
           (!host::IdentityOf(left, &first) && !host::IdentityOf(right, &second) && first == second);
}

static bool IsOneOf(const std::vector<FileSystemName> &names, const host::FileSystemFacts &facts)
{
    return std::any_of(names.begin(), names.end(), [&facts](const FileSystemName &name) {
        return name.uuid.empty() ? name.source == facts.source : name.uuid == facts.uuid;
    });
}

// How to go on where another file system than before is meant.
static std::string MustBeText(const host::FileSystemFacts &facts)
{
    const std::string value = facts.uuid.empty() ? "source:" + facts.source : "uuid:" + facts.uuid;
    return facts.uuid.empty() && facts.source.empty()
               ? std::string()
               : " If what is mounted there now is meant, let the place's must-be name it: must-be = \"" + value +
                     "\", or a list of all that take turns";
}

// An unmounted disk leaves a folder of the same name, so that a place lies where it must, or else where it lay before.
// Where it lies now is learnt of when it has got its copies.
static bool LiesWhereItDid(Run &run, const CopyPlace &place, const std::string &name, std::string *liesOn)
{
    host::FileSystemFacts there;
    host::FileSystemFacts here;
    if (!place.rclone.empty() || host::FileSystemOf(place.folder, &there)) {
        return true; // what stands in the way is told when it is listed
    }
    Json &memory = run.folder.memory.places[name];
    const std::string fileSystem = there.uuid.empty() ? there.source : there.uuid;
    const Json known = memory.value("fileSystem", Json());
    const bool isAnother = known.is_string() && known != fileSystem;
    *liesOn = fileSystem;
    if (place.mustBe.empty() ? isAnother : !IsOneOf(place.mustBe, there)) {
        Warn(run, name + ": it lies on " + (fileSystem.empty() ? "an unknown file system" : fileSystem) +
                      (place.mustBe.empty() ? ", and lay on " + known.get<std::string>() + " when it was copied to last"
                                            : std::string(", which its must-be does not name")) +
                      ": is its disk mounted?" + MustBeText(there));
        return false;
    }
    if (isAnother) { // of disks that take turns each has copies of its own, to which nothing applies that is remembered
        memory = {{"completeAt", memory.value("completeAt", Json(0))}, {"fileSystem", fileSystem}};
    }
    if (!host::FileSystemOf(run.job.folder, &here) && there.source == here.source && there.uuid == here.uuid) {
        Warn(run, name + ": it lies on the same file system as the images themselves, and is lost with them");
    }
    return true;
}

// What was found damaged while it was copied is known from then on, as what any other check found.
static void KeepWhatIsBad(Run &run, const BadImage &bad)
{
    if (!bad.isDamaged) {
        KeepUnread(run, bad.index, bad.what);
        return;
    }
    KeepDamage(run, bad.index, bad.what);
    Fail(run, bad.what);
}

static void MakeCopies(Run &run)
{
    for (const CopyPlace &place : run.job.copies) {
        const std::string name = NameOfPlace(place);
        if (!run.folder.memory.places.contains(name)) {
            run.folder.memory.places[name] = Json::object();
        }
        if (place.rclone.empty() && IsSameFolder(place.folder, run.job.folder)) {
            Fail(run, name + ": it is the folder of the images themselves, by a link or a mount: name another one");
            continue;
        }
        std::string liesOn;
        if (!LiesWhereItDid(run, place, name, &liesOn)) {
            continue;
        }
        const CopyOutcome outcome =
            CopyImages(run.folder, place,
                       {StateOfRetention(run), run.job.check.wholeEverySeconds, run.options.showsProgress,
                        [&run](const std::string &line) { Say(run, line); }});
        for (const std::string &note : outcome.notes) {
            Warn(run, note);
        }
        for (const BadImage &bad : outcome.bad) {
            KeepWhatIsBad(run, bad);
        }
        if (outcome.failure.empty()) {
            run.folder.memory.places[name]["completeAt"] = TimeNow(run);
            if (!liesOn.empty()) {
                run.folder.memory.places[name]["fileSystem"] = liesOn;
            }
        } else {
            Warn(run, outcome.failure + "; it is made up for next time");
        }
    }
}

static void TellDamage(Run &run)
{
    for (const KeptImage &image : run.folder.images) {
        if (image.isDamaged) {
            Fail(run, image.name + ": DAMAGED: " + image.doubt);
        }
    }
}

// ---- The run ----

static void RunSteps(Run &run)
{
    host::FileSystemFacts facts;
    if (const host::Trouble trouble = host::FileSystemOf(run.job.folder, &facts)) {
        Fail(run, run.job.folder + ": it can't be looked at: " + *trouble);
        return;
    }
    if (!CheckFileSystem(run, facts) || !TakeFolder(run) ||
        !(run.job.guest ? FindTheGuestsDisk(run) : FindTheDisk(run, facts)) || !ReadFolder(run)) {
        return;
    }
    ReadUnreadAgain(run);
    DecideKind(run);
    const bool hasRoom = HasRoom(run);
    if (run.options.isDryRun) {
        ApplyRetention(run);
        for (const CopyPlace &place : run.job.copies) {
            Say(run, NameOfPlace(place) + ": what is copied and what goes there is decided when it is reached");
        }
        return;
    }
    if (!hasRoom || !MakeImage(run) || !ReadFolder(run)) {
        return;
    }
    AuditChainIfDue(run);
    TellDamage(run);
    MakeCopies(run);
    ApplyRetention(run);
}

static bool RunHook(Run &run, const std::vector<std::string> &program, const char *key, const std::string &input)
{
    if (program.empty() || run.options.isDryRun) {
        return true;
    }
    host::ProgramEnd end;
    std::string said;
    const host::Trouble trouble = host::RunProgram(
        {program, input}, [&said](const std::string &piece) { said += said.size() < 4096 ? piece : ""; }, &end);
    const bool isWell = !trouble && !end.wasEnded && end.exitStatus == 0;
    const std::string how = trouble        ? "it can't be started: " + *trouble
                            : end.wasEnded ? "it was ended by a signal"
                                           : "it ended with exit status " + std::to_string(end.exitStatus);
    Say(run, std::string(key) + ": " + program[0] + ": " + how + (said.empty() ? "" : ": " + said));
    return isWell || Fail(run, std::string(key) + ": " + program[0] + ": " + how);
}

// A look before the first program, which must not disturb the run that is under way. It holds nothing: that program may
// be the one that mounts the folder's file system.
static bool IsHeldByAnother(const Run &run)
{
    host::Lock lock;
    std::string trouble;
    const std::string path = LockPath(run.job.folder);
    return !run.options.isDryRun && !host::NameIsFree(path) &&
           host::TakeLock(path, &lock, &trouble) == host::LockResult::Busy;
}

static std::string ReportText(const Run &run)
{
    return JsonOf(run.report).dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// A run that failed before it came to its folder leaves its report there all the same: where earlier ones lie, and
// where nobody else is now.
static bool HoldsFolderNow(Run &run)
{
    host::FileSystemFacts facts;
    std::string trouble;
    if (run.holdsFolder || run.options.isDryRun || run.report.status == exitBusy) {
        return run.holdsFolder;
    }
    return !host::NameIsFree(MemoryPath(run.job.folder, run.job.name)) && !host::FileSystemOf(run.job.folder, &facts) &&
           WhyNotThisFileSystem(run.job, facts).empty() &&
           host::TakeLock(LockPath(run.job.folder), &run.lock, &trouble) == host::LockResult::Held;
}

// Only who holds the folder may write into it.
static void RememberReport(Run &run)
{
    const std::string path = MemoryPath(run.job.folder, run.job.name);
    if (!HoldsFolderNow(run)) {
        return;
    }
    if (run.folder.path.empty()) { // the run ended before it was read
        if (reader::Result<JobMemory> memory = ReadMemory(path)) {
            run.folder.memory = std::move(*memory);
        } else if (memory.fault.kind == reader::FaultKind::Unavailable) {
            Fail(run, memory.fault.text);
            return;
        }
    }
    run.folder.memory.lastReport = JsonOf(run.report);
    if (const host::Trouble trouble = WriteMemory(path, run.folder.memory)) {
        Fail(run, path + ": the report can't be written: " + *trouble);
    }
}

RunReport RunJob(const Job &job, const RunOptions &options)
{
    Run run = {job, options, {}, {}, false, {}, {}, {}, {}, {}};
    run.report.job = job.name;
    run.report.startedAt = TimeNow(run);
    if (options.speaks) {
        PrintLine(job.name + ", " + LocalTimeText(run.report.startedAt) +
                  (options.isDryRun ? ", nothing is done" : ""));
    }
    if (IsHeldByAnother(run)) {
        Fail(run, job.folder + ": another run holds it", exitBusy);
    } else if (RunHook(run, job.before, "before", "")) {
        RunSteps(run);
    }
    if (run.report.status != exitBusy) { // what these would undo is the other run's
        RunHook(run, job.after, "after", ReportText(run));
    }
    run.report.endedAt = TimeNow(run);
    if (run.report.status != exitBusy) {
        const bool isWell = run.report.status == exitWell;
        RunHook(run, isWell ? job.onSuccess : job.onFailure, isWell ? "on-success" : "on-failure", ReportText(run));
    }
    RememberReport(run);
    return run.report;
}

Json JsonOf(const RunReport &report)
{
    return {{"job", report.job},
            {"status", report.status},
            {"startedAt", report.startedAt},
            {"startedLocal", LocalTimeText(report.startedAt)},
            {"endedAt", report.endedAt},
            {"image", report.image.empty() ? Json(nullptr) : Json(report.image)},
            {"failure", report.failure.empty() ? Json(nullptr) : Json(report.failure)},
            {"warnings", report.warnings},
            {"notes", report.notes},
            {"letGo", report.letGo},
            {"lines", report.lines}};
}
