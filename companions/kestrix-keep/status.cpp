// Facts first, then what is wrong with them, then the three ways to tell it.
#include "kestrix-keep/status.h"

#include "kestrix-keep/clock.h"
#include "kestrix-keep/commands.h"
#include "kestrix-keep/guest.h"
#include "kestrix-keep/jobs.h"
#include "kestrix-keep/status_page.h"
#include "report/report.h"

#include <algorithm>

// ---- Facts ----

// An image is late when half as much time again has gone by as lies between two.
static void JudgeAge(const Job &job, int64_t now, JobStatus &status)
{
    if (status.lastGood.empty()) {
        status.isOverdue = true;
        status.problems.push_back("there is no sound image");
        return;
    }
    status.dueAt = status.lastGoodAt + job.everySeconds;
    status.isOverdue = now > status.dueAt + job.everySeconds / 2;
    if (status.isOverdue) {
        status.problems.push_back("the last sound image is " + AgeText(now - status.lastGoodAt) + " old");
    }
    if (status.lastGoodAt > now + secondsPerDay) {
        status.problems.push_back("the time of the last sound image lies in the future: " +
                                  LocalTimeText(status.lastGoodAt) + "; the clock was or is wrong");
    }
}

static void JudgeChain(const Job &job, const JobFolder &folder, size_t newest, int64_t now, JobStatus &status)
{
    status.chainLimit = static_cast<uint32_t>(job.newFull.chain);
    status.chainLength = folder.images[newest].chainLength;
    status.chainProvedAt = FilesProvedAt(folder, newest, now);
    // The next run proves it, and is due itself.
    if (now - status.chainProvedAt > job.check.wholeEverySeconds + 2 * job.everySeconds) {
        status.problems.push_back("the chain of the last image: " + ProvedText(status.chainProvedAt, now));
    }
}

static void CountImages(const JobFolder &folder, int64_t now, JobStatus &status)
{
    constexpr int64_t month = 30 * secondsPerDay;
    uint64_t recentBytes = 0;
    int64_t oldestRecent = now;
    for (const KeptImage &image : folder.images) {
        status.images += image.isThere ? 1 : 0;
        if (image.isDamaged) {
            ++status.damagedImages;
            status.problems.push_back(image.name + ": DAMAGED: " + image.doubt);
        } else if (!image.doubt.empty()) {
            status.problems.push_back(image.name + ": " + image.doubt);
        }
        const uint64_t bytes = image.isThere && image.sidecar ? image.sidecar->fileBytes : 0;
        status.usedBytes += bytes;
        // A full image that only begins a chain says nothing of what a day takes.
        if (bytes != 0 && !image.sidecar->base.empty() && now - image.time < month && image.time <= now) {
            recentBytes += bytes;
            oldestRecent = std::min(oldestRecent, image.time);
        }
    }
    const int64_t days = (now - oldestRecent) / secondsPerDay + 1;
    status.bytesPerDay = recentBytes / static_cast<uint64_t>(days);
}

static void ReadLastReport(const JobFolder &folder, JobStatus &status)
{
    const Json &report = folder.memory.lastReport;
    if (!report.is_object()) {
        return;
    }
    const Json failure = report.value("failure", Json());
    status.lastRunFailed = failure.is_string();
    status.lastRunSays = report.value("startedLocal", "") + ": " +
                         (failure.is_string() ? "FAILED: " + failure.get<std::string>() : std::string("well"));
    if (status.lastRunFailed) {
        status.problems.push_back("the last run failed: " + failure.get<std::string>());
    }
}

// A place of copies is late when the images themselves would be.
static void JudgeCopies(const Job &job, const JobFolder &folder, int64_t now, JobStatus &status)
{
    for (const CopyPlace &place : job.copies) {
        const std::string name = place.rclone.empty() ? place.folder : "rclone:" + place.rclone;
        const Json memory = folder.memory.places.value(name, Json::object());
        const Json known = memory.value("completeAt", Json());
        const int64_t completeAt = known.is_number_integer() ? TimeOfProof(known.get<int64_t>(), now) : 0;
        if (completeAt == 0) {
            status.problems.push_back(name + ": it never had all the copies that it should");
        } else if (now - completeAt > job.everySeconds + job.everySeconds / 2) {
            status.problems.push_back(name + ": it last had all copies " + AgeText(now - completeAt) + " ago");
        }
        const Json inTheWay = memory.value("inTheWay", Json());
        for (const Json &sentence : inTheWay.is_array() ? inTheWay : Json::array()) {
            status.problems.push_back(sentence.is_string() ? sentence.get<std::string>() : std::string());
        }
    }
}

static void AskSpace(const Job &job, JobStatus &status)
{
    host::FileSystemFacts facts;
    if (host::FileSystemOf(job.folder, &facts)) {
        return;
    }
    status.spaceIsKnown = true;
    status.freeBytes = facts.freeBytes;
    const bool isElsewhere = (!job.fileSystemUuid.empty() && job.fileSystemUuid != facts.uuid) ||
                             (!job.fileSystemSource.empty() && job.fileSystemSource != facts.source);
    if (isElsewhere) {
        status.problems.push_back(job.folder + ": it lies on another file system than it has to: is the backup disk "
                                               "mounted?");
    }
}

JobStatus StatusOf(const Job &job, const JobFolder &folder, int64_t now)
{
    JobStatus status;
    status.job = job.name;
    status.folder = job.folder;
    status.disk = DiskOfJob(job);
    const size_t newest = NewestSound(folder);
    if (newest != noImage) {
        status.lastGood = folder.images[newest].name;
        status.lastGoodAt = folder.images[newest].time;
        JudgeChain(job, folder, newest, now, status);
    }
    JudgeAge(job, now, status);
    status.problems.insert(status.problems.end(), folder.notes.begin(), folder.notes.end());
    CountImages(folder, now, status);
    ReadLastReport(folder, status);
    JudgeCopies(job, folder, now, status);
    AskSpace(job, status);
    if (!job.passwordFile.empty()) {
        status.notes.push_back(PasswordCopyText(job));
    }
    return status;
}

// Reads names, lengths and sidecars. An image is opened only where the tables are wanted.
static PageJob LookAtJob(const KeepOptions &common, const Job &job, int64_t now, bool readsTables)
{
    PageJob looked;
    reader::Result<JobFolder> folder = ReadJobFolder(job.folder, job.name);
    if (!folder) {
        looked.status.job = job.name;
        looked.status.folder = job.folder;
        looked.status.disk = DiskOfJob(job);
        looked.status.isOverdue = true;
        looked.status.problems.push_back(folder.fault.text);
        return looked;
    }
    looked.folder = std::move(*folder);
    if (readsTables) {
        looked.strips = ReadStrips(looked.folder, !common.quiet);
    }
    looked.status = StatusOf(job, looked.folder, now);
    return looked;
}

// ---- Telling them ----

Json JsonOf(const JobStatus &status)
{
    return {{"job", status.job},
            {"folder", status.folder},
            {"disk", status.disk},
            {"isWell", status.problems.empty()},
            {"problems", status.problems},
            {"notes", status.notes},
            {"lastGood", status.lastGood.empty() ? Json(nullptr) : Json(status.lastGood)},
            {"lastGoodAt", status.lastGood.empty() ? Json(nullptr) : Json(status.lastGoodAt)},
            {"dueAt", status.lastGood.empty() ? Json(nullptr) : Json(status.dueAt)},
            {"isOverdue", status.isOverdue},
            {"images", status.images},
            {"damagedImages", status.damagedImages},
            {"chainLength", status.chainLength},
            {"chainLimit", status.chainLimit},
            {"chainProvedAt", status.lastGood.empty() ? Json(nullptr) : Json(status.chainProvedAt)},
            {"usedBytes", status.usedBytes},
            {"freeBytes", status.spaceIsKnown ? Json(status.freeBytes) : Json(nullptr)},
            {"bytesPerDay", status.bytesPerDay},
            {"lastRun", status.lastRunSays.empty() ? Json(nullptr) : Json(status.lastRunSays)}};
}

std::string ProvedText(int64_t provedAt, int64_t now)
{
    return provedAt == 0 ? "when it was last read whole is not known"
                         : "last read whole " + AgeText(now - provedAt) + " ago";
}

std::string RoomText(const JobStatus &status)
{
    if (!status.spaceIsKnown) {
        return "not known";
    }
    if (status.bytesPerDay == 0) {
        return SizeText(status.freeBytes) + "; how long it lasts is not known yet";
    }
    return SizeText(status.freeBytes) + ", which lasts for " + Counted(status.freeBytes / status.bytesPerDay, "day") +
           " at " + SizeText(status.bytesPerDay) + " a day, if nothing is let go";
}

static void PrintStatus(const JobStatus &status, int64_t now)
{
    PrintLine(status.job + ": " + (status.problems.empty() ? "well" : "NOT WELL"));
    for (const std::string &problem : status.problems) {
        PrintLine("  ! " + problem);
    }
    PrintLine("  disk: " + status.disk);
    for (const std::string &note : status.notes) {
        PrintLine("  " + note);
    }
    if (!status.lastGood.empty()) {
        PrintLine("  last good image: " + status.lastGood + ", " + AgeText(now - status.lastGoodAt) + " old");
        PrintLine("  next due: " + LocalTimeText(status.dueAt));
        PrintLine("  its chain: " + Counted(status.chainLength, "image") + " of " + std::to_string(status.chainLimit) +
                  ", " + ProvedText(status.chainProvedAt, now));
    }
    PrintLine("  images: " + std::to_string(status.images) + ", " + SizeText(status.usedBytes));
    PrintLine("  room: " + RoomText(status));
    if (!status.lastRunSays.empty()) {
        PrintLine("  last run: " + status.lastRunSays);
    }
}

struct Metric {
    const char *name;
    const char *help;
    uint64_t (*value)(const JobStatus &status);
    bool (*isKnown)(const JobStatus &status) = nullptr; // always, without it
};

static const Metric metrics[] = {
    {"kestrix_job_well", "1 if nothing is wrong with the job.",
     [](const JobStatus &status) { return uint64_t{status.problems.empty()}; }},
    {"kestrix_job_overdue", "1 if the last sound image is too old, or there is none.",
     [](const JobStatus &status) { return uint64_t{status.isOverdue}; }},
    {"kestrix_job_last_good_timestamp_seconds", "When the newest sound image was begun; 0 if there is none.",
     [](const JobStatus &status) { return static_cast<uint64_t>(std::max<int64_t>(status.lastGoodAt, 0)); }},
    {"kestrix_job_images", "Images of the job.", [](const JobStatus &status) { return status.images; }},
    {"kestrix_job_damaged_images", "Those that are damaged, or gone.",
     [](const JobStatus &status) { return status.damagedImages; }},
    {"kestrix_job_chain_length", "Images that the newest sound one needs, itself among them.",
     [](const JobStatus &status) { return uint64_t{status.chainLength}; }},
    {"kestrix_job_chain_proved_timestamp_seconds", "When the files of that chain were last read whole.",
     [](const JobStatus &status) { return static_cast<uint64_t>(std::max<int64_t>(status.chainProvedAt, 0)); }},
    {"kestrix_job_used_bytes", "Bytes of the job's images.", [](const JobStatus &status) { return status.usedBytes; }},
    {"kestrix_job_free_bytes", "Free bytes where the job's folder lies.",
     [](const JobStatus &status) { return status.freeBytes; },
     [](const JobStatus &status) { return status.spaceIsKnown; }},
    {"kestrix_job_last_run_failed", "1 if the last run failed.",
     [](const JobStatus &status) { return uint64_t{status.lastRunFailed}; }},
};

static std::string MetricText(const std::string &name, const char *help)
{
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

// A file that is no longer written shows what was true when it last was: its time tells.
std::string PrometheusText(const std::vector<JobStatus> &jobs, bool hasConfiguration, int64_t now)
{
    std::string text =
        MetricText("kestrix_status_timestamp_seconds", "When this was written.") + "kestrix_status_timestamp_seconds " +
        std::to_string(now) + "\n" +
        MetricText("kestrix_configuration_read", "1 if the configuration could be read; else no job is told of.") +
        "kestrix_configuration_read " + (hasConfiguration ? "1" : "0") + "\n";
    for (const Metric &metric : metrics) {
        const std::string name = metric.name;
        text += MetricText(name, metric.help);
        for (const JobStatus &job : jobs) { // whose names need no escape
            if (metric.isKnown != nullptr && !metric.isKnown(job)) {
                continue; // 0 would be a figure
            }
            text += name + "{job=\"" + job.job + "\"} " + std::to_string(metric.value(job)) + "\n";
        }
    }
    return text;
}

static bool WriteTextFile(const std::string &path, const std::string &text)
{
    host::NewFile file;
    host::Trouble trouble = host::CreateNewFile(path, host::Existing::GivesWay, &file);
    trouble = trouble ? trouble : host::WriteAt(file, 0, text.data(), text.size());
    trouble = trouble ? trouble : host::FinishInPlaceOf(&file);
    if (trouble) {
        PrintFault(path + ": it can't be written: " + *trouble);
    }
    return !trouble;
}

int Status(const KeepOptions &common, const StatusOptions &options)
{
    std::vector<Job> jobs;
    const int64_t now = common.now.value_or(Now());
    const bool hasConfiguration = ReadJobs(common.configuration, options.jobs, &jobs);
    if (!hasConfiguration) {
        if (!options.prometheusFile.empty()) {
            WriteTextFile(options.prometheusFile, PrometheusText({}, false, now));
        }
        return exitCommandLine;
    }
    PageFacts page;
    page.madeAt = now;
    page.machine = host::MachineName();
    std::vector<JobStatus> all;
    for (const Job &job : jobs) {
        page.jobs.push_back(LookAtJob(common, job, now, !options.htmlFile.empty()));
        all.push_back(page.jobs.back().status);
    }
    JsonOutput output(common.json);
    output.BeginList("jobs");
    for (const JobStatus &status : all) {
        output.Item(JsonOf(status));
        if (!common.json) {
            PrintStatus(status, now);
        }
    }
    bool isWritten =
        options.prometheusFile.empty() || WriteTextFile(options.prometheusFile, PrometheusText(all, true, now));
    isWritten = (options.htmlFile.empty() || WriteTextFile(options.htmlFile, StatusPage(page))) && isWritten;
    const bool isWell =
        std::all_of(all.begin(), all.end(), [](const JobStatus &status) { return status.problems.empty(); });
    return isWell && isWritten ? exitWell : exitFailed;
}
